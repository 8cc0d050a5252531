#include "CloudEnvironment.h"
#include "SignedInFixture.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <filesystem>

#include <atomic>

using quill_test::CloudEnvironment;
using quill_test::TempDir;
using quill_test::Tracked;
using quill_test::writePattern;

namespace {

// Downloads slowed down by the server (a throttled body), so that limits and cancels can be seen.
struct DownloadControl : quill_test::SignedInFixture {
  std::string slowPath;

  void SetUp() override {
    SignedInFixture::SetUp();
    const auto key = TextUtils::UUID_String();
    slowPath = CloudEnvironment::server().addFile(key, writePattern(source.file(key), 256 * 1024));
    ASSERT_FALSE(slowPath.empty());
  }

  // 256 KiB at 64 KiB a second: about four seconds unless cancelled.
  std::string slowUrl() const { return CloudEnvironment::url(slowPath + "?quill_rate=65536"); }
};

}  // namespace

TEST_F(DownloadControl, FourRunAndTheFifthWaits) {
  const auto key = TextUtils::UUID_String();
  const auto delayed =
      CloudEnvironment::server().addFile(key, writePattern(source.file(key), 4096));
  const auto before = CloudEnvironment::server().requestCount();
  std::atomic<long> seenAtFirstEnd{-1};
  std::vector<Tracked> downloads;
  for (int i = 0; i < 5; ++i) {
    downloads.emplace_back(false, CloudStorageKind::kFile);
    auto& tracked = downloads.back();
    tracked.request->url = CloudEnvironment::url(delayed + "?quill_delay_ms=1500");
    tracked.request->directory = destination.path();
    tracked.request->fileName = "d" + std::to_string(i);
    quill_test::recordRequestsAtFirstEnd(tracked, seenAtFirstEnd, before);
    ASSERT_TRUE(service->excuteRequest(tracked.request));
  }
  for (auto& tracked : downloads) {
    ASSERT_TRUE(tracked.waitEnded());
    EXPECT_EQ(tracked.code(), CloudStorageResult::kSuccess) << tracked.message();
  }
  EXPECT_EQ(seenAtFirstEnd.load(), 4);
  EXPECT_EQ(CloudEnvironment::server().requestCount() - before, 5u);
}

TEST_F(DownloadControl, CancelsAWaitingAndARunningDownload) {
  std::vector<Tracked> downloads;
  for (int i = 0; i < 5; ++i) {
    downloads.push_back(download(slowUrl(), "c" + std::to_string(i)));
  }
  // The fifth waits: cancelled at once, without a transfer.
  service->cancelReqestWithID(downloads[4].request->requestId);
  ASSERT_TRUE(downloads[4].waitEnded(std::chrono::seconds(2)));
  EXPECT_EQ(downloads[4].code(), CloudStorageResult::kCancelled);
  EXPECT_EQ(downloads[4].message(), "");

  // A running one, once bytes have arrived.
  ASSERT_TRUE(quill_test::eventually([&] { return !downloads[0].percents().empty(); }));
  service->cancelReqestWithID(downloads[0].request->requestId);
  ASSERT_TRUE(downloads[0].waitEnded(std::chrono::seconds(3)));
  EXPECT_EQ(downloads[0].code(), CloudStorageResult::kCancelled);
  EXPECT_FALSE(FileUtils::fileExists(FileUtils::appendComponent(destination.path(), "c0")));
  // The others still grow there; the cancelled one's file (".c0.<random>.part") is gone.
  const auto cache = FileUtils::appendComponent(user.path(), "cloud_storage_caches");
  for (const auto& entry : std::filesystem::directory_iterator(cache)) {
    EXPECT_NE(entry.path().filename().string().rfind(".c0.", 0), 0u)
        << "no partial file left in the cache: " << entry.path();
  }

  service->cancelAllReqest();
  for (int i = 1; i < 4; ++i) {
    ASSERT_TRUE(downloads[i].waitEnded(std::chrono::seconds(3)));
    EXPECT_EQ(downloads[i].code(), CloudStorageResult::kCancelled);
    EXPECT_FALSE(FileUtils::fileExists(
        FileUtils::appendComponent(destination.path(), "c" + std::to_string(i))));
  }
  for (auto& tracked : downloads) {
    EXPECT_EQ(tracked.endCount(), 1);
  }
}

TEST_F(DownloadControl, DestroyingTheServiceMidDownloadIsQuietAndLeavesNothing) {
  auto tracked = download(slowUrl(), "abandoned.bin");
  ASSERT_TRUE(quill_test::eventually([&] { return !tracked.percents().empty(); }));
  const auto started = std::chrono::steady_clock::now();
  service.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3))
      << "the destructor does not wait for the transfer";
  const auto cache = FileUtils::appendComponent(user.path(), "cloud_storage_caches");
  EXPECT_TRUE(quill_test::eventually([&] { return std::filesystem::is_empty(cache); }))
      << "the abandoned transfer's file is removed";
  EXPECT_EQ(tracked.endCount(), 0);
  EXPECT_EQ(tracked.request->resultCode, CloudStorageResult::kPending);
  EXPECT_FALSE(
      FileUtils::fileExists(FileUtils::appendComponent(destination.path(), "abandoned.bin")));
}
