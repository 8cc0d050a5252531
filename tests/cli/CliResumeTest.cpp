// A download whose process was killed half-way: the next run of the same download takes the
// partial file up and fetches only the rest.
#include "CliFixture.h"

#include <quill_base/FileUtils.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace cli_test {
namespace {

// The size of the largest partial download file in `directory`; 0 when there is none.
std::uint64_t largestPartial(const std::string& directory) {
  std::uint64_t largest = 0;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator(std::filesystem::u8path(directory), error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    const auto name = it->path().filename().u8string();
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".part") == 0) {
      largest = std::max<std::uint64_t>(largest, FileUtils::fileSize(it->path().u8string()));
    }
  }
  return largest;
}

TEST_F(CliTest, ADownloadKilledHalfWayIsTakenUpByTheNextRun) {
  const std::uint64_t size = 512ull * 1024 * 1024;
  const auto [local, path] = serve("restart.bin", static_cast<std::size_t>(size));
  const auto url = CloudEnvironment::url(path);
  const auto destination = work.file("restart");
  const auto cache = FileUtils::appendComponent(user.path(), "cloud_storage_caches");
  // Slow enough (about 4 s for the file) to be caught half-way.
  quill_fileservice::Fault slow;
  slow.pathPrefix = path;
  slow.bytesPerSecond = 128 * 1024 * 1024;
  CloudEnvironment::server().addFault(slow);
  {
    ToolProcess first(withIdentity({"download", url, "--dir", destination}), environment());
    ASSERT_TRUE(first.started());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (largestPartial(cache) < size / 2 && std::chrono::steady_clock::now() < deadline) {
      // Polls the file's growth: nothing announces it.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    first.kill();
  }
  CloudEnvironment::server().clearFaults();
  const auto left = largestPartial(cache);
  ASSERT_GE(left, size / 2) << "not killed half-way";
  ASSERT_LT(left, size) << "the first run had all of it";

  const auto second =
      run(withIdentity({"--json", "download", url, "--dir", destination}), std::chrono::minutes(3));
  ASSERT_EQ(second.status, 0) << second.errors;
  const auto record = parse(lines(second.output).at(0));
  const auto fetched = record["timeline"]["bytes"].asUInt64();
  EXPECT_EQ(fetched, size - left) << "exactly the rest";
  EXPECT_EQ(record["timeline"]["status"].asInt(), 200) << "the status the file began with";
  EXPECT_LE(fetched, size * 55 / 100);
  EXPECT_TRUE(FileUtils::sameContent(
      FileUtils::appendComponent(destination, FileUtils::fileName(path)), local));
  EXPECT_EQ(entries(cache), 0u) << "the partial file and its record are gone";
}

}  // namespace
}  // namespace cli_test
