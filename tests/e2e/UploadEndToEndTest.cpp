#include "CloudEnvironment.h"
#include "LogCapture.h"
#include "ProcessMemory.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <fstream>

using quill_test::CloudEnvironment;
using quill_test::LogCapture;
using quill_test::readFile;
using quill_test::TempDir;
using quill_test::Tracked;
using quill_test::writePattern;

namespace {

struct UploadEndToEnd : ::testing::Test {
  TempDir user;
  TempDir files;
  TempDir downloads;
  std::unique_ptr<CloudStorageService> service = std::make_unique<CloudStorageService>(true);

  void signIn() {
    service->changeUser("app", "pin", user.path());
    service->changeAid("aid");
  }

  Tracked upload(int kind, const std::string& name, std::size_t size, unsigned seed = 5) {
    writePattern(files.file(name), size, seed);
    Tracked tracked(true, kind);
    tracked.request->directory = files.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }

  // Downloads `url` through the service and returns the bytes.
  std::string downloadBack(const std::string& url) {
    Tracked tracked(false, CloudStorageKind::kFile);
    tracked.request->url = url;
    tracked.request->directory = downloads.path();
    tracked.request->fileName = TextUtils::UUID_String();
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    EXPECT_TRUE(tracked.waitEnded());
    EXPECT_EQ(tracked.code(), CloudStorageResult::kSuccess) << url << " " << tracked.message();
    return readFile(FileUtils::appendComponent(downloads.path(), tracked.request->fileName));
  }
};

}  // namespace

TEST_F(UploadEndToEnd, AnImageComesBackByteForByte) {
  signIn();
  auto image = upload(CloudStorageKind::kImage, "photo.jpg", 300 * 1024);
  ASSERT_TRUE(image.waitEnded());
  ASSERT_EQ(image.code(), CloudStorageResult::kSuccess) << image.message();
  EXPECT_EQ(image.request->fileSize, 300 * 1024);
  const auto prefix = CloudEnvironment::url("/files/");
  ASSERT_EQ(image.url().rfind(prefix, 0), 0u) << image.url();
  EXPECT_EQ(FileUtils::fileExtension(image.url()), "jpg");
  EXPECT_EQ(downloadBack(image.url()), readFile(files.file("photo.jpg")));
}

TEST_F(UploadEndToEnd, AFileGoesThroughTheSignedObjectStorageUpload) {
  signIn();
  auto file = upload(CloudStorageKind::kFile, "report.pdf", 2 * 1024 * 1024 + 3);
  ASSERT_TRUE(file.waitEnded());
  ASSERT_EQ(file.code(), CloudStorageResult::kSuccess) << file.message();
  ASSERT_EQ(file.url().rfind(CloudEnvironment::url("/objects/"), 0), 0u) << file.url();
  EXPECT_EQ(FileUtils::fileExtension(file.url()), "pdf");
  EXPECT_EQ(downloadBack(file.url()), readFile(files.file("report.pdf")));
  ASSERT_FALSE(file.percents().empty());
}

TEST_F(UploadEndToEnd, AVideoGoesThroughTheVideoUpload) {
  signIn();
  auto video = upload(CloudStorageKind::kVideo, "clip.mov", 1024 * 1024 + 9);
  ASSERT_TRUE(video.waitEnded());
  ASSERT_EQ(video.code(), CloudStorageResult::kSuccess) << video.message();
  ASSERT_EQ(video.url().rfind(CloudEnvironment::url("/vod/"), 0), 0u) << video.url();
  EXPECT_EQ(downloadBack(video.url()), readFile(files.file("clip.mov")));
}

TEST_F(UploadEndToEnd, UploadsWaitForTheAccountAndStartWithChangeAid) {
  LogCapture logs(log4cplus::WARN_LOG_LEVEL);
  service->changeUser("app", "pin", user.path());
  const auto before = CloudEnvironment::server().requestCount();
  auto held = upload(CloudStorageKind::kImage, "held.png", 10 * 1024);
  ASSERT_TRUE(quill_test::eventually(
      [&] { return logs.contains(log4cplus::WARN_LOG_LEVEL, " waiting configuration"); }));
  EXPECT_EQ(CloudEnvironment::server().requestCount(), before);
  EXPECT_EQ(held.endCount(), 0);

  service->changeAid("aid");
  ASSERT_TRUE(held.waitEnded());
  EXPECT_EQ(held.code(), CloudStorageResult::kSuccess) << held.message();
}

TEST_F(UploadEndToEnd, TwoUploadsRunAtOnce) {
  signIn();
  quill_fileservice::Fault slow;
  slow.pathPrefix = "/file/uploadImg.action";
  slow.delayMs = 1500;
  CloudEnvironment::server().addFault(slow);
  const auto before = CloudEnvironment::server().requestCount();
  std::atomic<long> seenAtFirstEnd{-1};
  std::vector<Tracked> uploads;
  for (int i = 0; i < 3; ++i) {
    uploads.push_back(Tracked(true, CloudStorageKind::kImage));
    auto& tracked = uploads.back();
    const auto name = "u" + std::to_string(i) + ".png";
    writePattern(files.file(name), 8 * 1024, i);
    tracked.request->directory = files.path();
    tracked.request->fileName = name;
    quill_test::recordRequestsAtFirstEnd(tracked, seenAtFirstEnd, before);
    ASSERT_TRUE(service->excuteRequest(tracked.request));
  }
  for (auto& tracked : uploads) {
    ASSERT_TRUE(tracked.waitEnded());
    EXPECT_EQ(tracked.code(), CloudStorageResult::kSuccess) << tracked.message();
  }
  CloudEnvironment::server().clearFaults();
  EXPECT_EQ(seenAtFirstEnd.load(), 2) << "the third waited for one of the first two";
}

TEST_F(UploadEndToEnd, ABigUploadStreamsWithBoundedMemory) {
#if defined(QUILL_SANITIZER_BUILD)
  const std::size_t size = 32ull * 1024 * 1024;
#else
  const std::size_t size = 512ull * 1024 * 1024;
#endif
  signIn();
  writePattern(files.file("big.bin"), size, 9);
  const auto baseline = quill_test::peakResidentBytes() / 1024;
  Tracked big(true, CloudStorageKind::kFile);
  big.request->directory = files.path();
  big.request->fileName = "big.bin";
  ASSERT_TRUE(service->excuteRequest(big.request));
  ASSERT_TRUE(big.waitEnded(std::chrono::minutes(5)));
  ASSERT_EQ(big.code(), CloudStorageResult::kSuccess) << big.message();
  [[maybe_unused]] const auto grownKiB = quill_test::peakResidentBytes() / 1024 - baseline;
#if !defined(QUILL_SANITIZER_BUILD)
  EXPECT_LT(grownKiB, 48u * 1024) << "peak memory grew by " << grownKiB << " KiB";
#endif
  const auto stored =
      CloudEnvironment::server().storedFile(big.url().substr(CloudEnvironment::url("").size()));
  ASSERT_FALSE(stored.empty());
  EXPECT_EQ(FileUtils::fileSize(stored), size);
  EXPECT_TRUE(FileUtils::sameContent(stored, files.file("big.bin")));
}
