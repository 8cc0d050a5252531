// Load: 200 transfers in flight at once, and big files streamed in both directions with bounded
// memory, over HTTP and HTTPS. Sanitizer builds use smaller files and skip the memory ceiling,
// which their own overhead would distort.
#include "FileServiceTestSupport.h"
#include "ProcessMemory.h"

#include <quill_base/FileUtils.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

using namespace fileservice_test;
using quill_test::peakResidentBytes;
using Clock = std::chrono::steady_clock;

namespace {

#if defined(QUILL_SANITIZER_BUILD)
constexpr std::size_t kBigFileSize = 16u * 1024 * 1024;
constexpr std::size_t kTransferSize = 16 * 1024;
#else
constexpr std::size_t kBigFileSize = 256u * 1024 * 1024;
constexpr std::size_t kTransferSize = 64 * 1024;
#endif

// Writes `size` pseudo-random bytes, a chunk at a time.
void writeBigFile(const std::string& path, std::size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<std::uint64_t> chunk(128 * 1024);
  std::uint64_t state = 0x9e3779b97f4a7c15ull;
  for (std::size_t written = 0; written < size;) {
    for (auto& word : chunk) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    const std::size_t count = std::min(size - written, chunk.size() * sizeof(std::uint64_t));
    out.write(reinterpret_cast<const char*>(chunk.data()), static_cast<std::streamsize>(count));
    written += count;
  }
}

// Serves `length` bytes of the open file from `offset` to httplib's sink.
bool sendFrom(std::FILE* file, std::size_t offset, std::size_t length, httplib::DataSink& sink) {
  std::vector<char> buffer(std::min<std::size_t>(length, 64 * 1024));
  if (std::fseek(file, static_cast<long>(offset), SEEK_SET) != 0) {
    return false;
  }
  const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), file);
  return got > 0 && sink.write(buffer.data(), got);
}

class Load : public ServiceTest {};

TEST_P(Load, TwoHundredTransfersAtOnceAllComplete) {
  constexpr int kTransfers = 200;
  constexpr int kDelayMs = 300;
  for (int i = 0; i < kTransfers / 2; ++i) {
    writeFile(data.file("d" + std::to_string(i)), randomBytes(kTransferSize, 100 + i));
    ASSERT_FALSE(
        service->addFile("d" + std::to_string(i), data.file("d" + std::to_string(i))).empty());
  }
  std::mutex mutex;
  std::condition_variable gate;
  bool open = false;
  std::atomic<int> completed{0};
  std::vector<std::string> failures(kTransfers);
  std::vector<std::thread> threads;
  for (int i = 0; i < kTransfers; ++i) {
    threads.emplace_back([&, i] {
      auto client = clientFor(*service);
      {
        std::unique_lock<std::mutex> lock(mutex);
        gate.wait(lock, [&] { return open; });
      }
      // Every transfer is held for a while, so that all of them are in flight together.
      const std::string delay = "?quill_delay_ms=" + std::to_string(kDelayMs);
      if (i % 2 == 0) {
        const std::string bytes = randomBytes(kTransferSize, 1000 + i);
        auto form = identityForm();
        form.push_back({"upload", bytes, "u.bin", "application/octet-stream"});
        const auto result = client->Post(("/file/uploadImg.action" + delay).c_str(), form);
        if (!result || result->status != 200) {
          failures[i] = "upload: " + httplib::to_string(result.error());
          return;
        }
        const std::string stored =
            service->storedFile(pathOf(parseJson(result->body)["path"].asString()));
        if (stored.empty() || readFile(stored) != bytes) {
          failures[i] = "upload: stored bytes differ";
          return;
        }
      } else {
        const std::string name = "d" + std::to_string(i / 2);
        const auto result = client->Get(("/files/" + name + delay).c_str());
        if (!result || result->status != 200 ||
            result->body != randomBytes(kTransferSize, 100 + i / 2)) {
          failures[i] = "download: " + httplib::to_string(result.error());
          return;
        }
      }
      ++completed;
    });
  }
  const auto start = Clock::now();
  {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    gate.notify_all();
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  EXPECT_EQ(completed.load(), kTransfers);
  for (int i = 0; i < kTransfers; ++i) {
    EXPECT_EQ(failures[i], "") << "transfer " << i;
  }
  // One after the other they would take a minute; side by side, about one delay.
  EXPECT_LT(elapsed, kTransfers * kDelayMs / 3);
}

TEST_P(Load, BigFilesStreamThroughWithBoundedMemory) {
  const std::string source = data.file("big.bin");
  writeBigFile(source, kBigFileSize);
  const std::size_t baseline = peakResidentBytes();
  auto client = clientFor(*service);
  client->set_read_timeout(std::chrono::seconds(120));
  client->set_write_timeout(std::chrono::seconds(120));

  // Object storage: a signed PUT streamed from the file.
  const auto signature = client->Post(
      "/file/uploadBySignature.action",
      httplib::Params{
          {"appId", "a"}, {"aid", "b"}, {"pin", "c"}, {"clientType", "pc"}, {"key", "big.bin"}});
  ASSERT_TRUE(signature);
  const std::string uploadPath = pathOf(parseJson(signature->body)["uploadPath"].asString());
  std::FILE* file = std::fopen(source.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  const auto put = client->Put(
      uploadPath.c_str(), kBigFileSize,
      [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        return sendFrom(file, offset, length, sink);
      },
      "application/octet-stream");
  ASSERT_TRUE(put) << httplib::to_string(put.error());
  EXPECT_EQ(put->status, 200);
  EXPECT_TRUE(FileUtils::sameContent(source, service->storedFile("/objects/big.bin")));

  // The download, streamed into a file.
  {
    std::ofstream out(data.file("downloaded.bin"), std::ios::binary);
    const auto get = client->Get("/objects/big.bin", [&out](const char* bytes, std::size_t size) {
      out.write(bytes, static_cast<std::streamsize>(size));
      return true;
    });
    ASSERT_TRUE(get) << httplib::to_string(get.error());
    EXPECT_EQ(get->status, 200);
    EXPECT_EQ(get->get_header_value("Content-Length"), std::to_string(kBigFileSize));
  }
  EXPECT_TRUE(FileUtils::sameContent(source, data.file("downloaded.bin")));

  // A direct multipart upload, the file part streamed (chunked) from the file.
  httplib::MultipartFormDataProviderItems providers{
      {"upload",
       [file](std::size_t offset, httplib::DataSink& sink) {
         if (offset >= kBigFileSize) {
           sink.done();
           return true;
         }
         return sendFrom(file, offset, kBigFileSize - offset, sink);
       },
       "big.bin", "application/octet-stream"}};
  const auto multipart =
      client->Post("/file/uploadImg.action", httplib::Headers{}, identityForm(), providers);
  std::fclose(file);
  ASSERT_TRUE(multipart) << httplib::to_string(multipart.error());
  EXPECT_EQ(multipart->status, 200);
  const std::string path = parseJson(multipart->body)["path"].asString();
  EXPECT_TRUE(FileUtils::sameContent(source, service->storedFile(path)));

#if !defined(QUILL_SANITIZER_BUILD)
  // Three transfers of 256 MiB, yet the process grew by a small fraction of that.
  EXPECT_LT(peakResidentBytes() - baseline, 64u * 1024 * 1024);
#else
  (void)baseline;
#endif
}

INSTANTIATE_TEST_SUITE_P(Transports, Load, ::testing::Bool(), transportName);

}  // namespace
