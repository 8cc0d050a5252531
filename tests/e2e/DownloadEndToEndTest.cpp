#include "CloudEnvironment.h"
#include "SignedInFixture.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>

#include <filesystem>

using quill_test::CloudEnvironment;
using quill_test::readFile;
using quill_test::TempDir;
using quill_test::Tracked;
using quill_test::writePattern;

namespace {

struct DownloadEndToEnd : quill_test::SignedInFixture {
  // Stores a file of `size` bytes on the server under a fresh key; returns its URL path.
  std::string serve(std::size_t size, unsigned seed = 7) { return store(size, seed).second; }

  Tracked download(int kind, const std::string& url, const std::string& name) {
    Tracked tracked(false, kind);
    tracked.request->url = url;
    tracked.request->directory = destination.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }

  std::string finalPath(const std::string& name) const {
    return FileUtils::appendComponent(destination.path(), name);
  }
};

}  // namespace

TEST_F(DownloadEndToEnd, AFileAndAnImageArriveByteForByte) {
  const auto filePath = serve(3 * 1024 * 1024 + 17, 1);
  const auto imagePath = serve(150 * 1024, 2);
  auto file = download(CloudStorageKind::kFile, CloudEnvironment::url(filePath), "report.bin");
  auto image = download(CloudStorageKind::kImage, CloudEnvironment::url(imagePath), "avatar.png");
  ASSERT_TRUE(file.waitEnded());
  ASSERT_TRUE(image.waitEnded());
  EXPECT_EQ(file.code(), CloudStorageResult::kSuccess) << file.message();
  EXPECT_EQ(image.code(), CloudStorageResult::kSuccess) << image.message();
  EXPECT_EQ(readFile(finalPath("report.bin")),
            readFile(CloudEnvironment::server().storedFile(filePath)));
  EXPECT_EQ(readFile(finalPath("avatar.png")),
            readFile(CloudEnvironment::server().storedFile(imagePath)));
  EXPECT_TRUE(
      FileUtils::directoryExists(FileUtils::appendComponent(user.path(), "cloud_storage_caches")));
  EXPECT_TRUE(
      std::filesystem::is_empty(FileUtils::appendComponent(user.path(), "cloud_storage_caches")))
      << "moved out of the cache";
  ASSERT_FALSE(file.percents().empty());
  EXPECT_LT(file.percents().back(), 100);
}

TEST_F(DownloadEndToEnd, StatusesGiveTheirCodes) {
  const auto path = serve(1024);
  const std::vector<std::pair<int, int>> rows = {{404, -2}, {403, -3}, {400, -4}, {500, -100}};
  std::vector<Tracked> downloads;
  for (const auto& [status, code] : rows) {
    downloads.push_back(
        download(CloudStorageKind::kFile,
                 CloudEnvironment::url(path + "?quill_status=" + std::to_string(status)),
                 "status" + std::to_string(status)));
  }
  downloads.push_back(
      download(CloudStorageKind::kFile, CloudEnvironment::url("/files/no-such-key"), "missing"));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_TRUE(downloads[i].waitEnded());
    EXPECT_EQ(downloads[i].code(), rows[i].second) << rows[i].first;
    EXPECT_EQ(downloads[i].message(), std::to_string(rows[i].first));
    EXPECT_FALSE(FileUtils::fileExists(finalPath("status" + std::to_string(rows[i].first))));
  }
  ASSERT_TRUE(downloads.back().waitEnded());
  EXPECT_EQ(downloads.back().code(), CloudStorageResult::kNotFound);
}

TEST_F(DownloadEndToEnd, AnEmptyBodyLandsNothing) {
  const auto path = serve(0);
  auto empty = download(CloudStorageKind::kFile, CloudEnvironment::url(path), "empty.bin");
  ASSERT_TRUE(empty.waitEnded());
  EXPECT_EQ(empty.code(), CloudStorageResult::kFailed);
  EXPECT_EQ(empty.message(), "");
  EXPECT_FALSE(FileUtils::fileExists(finalPath("empty.bin")));
}

TEST_F(DownloadEndToEnd, AFailingImageIsRetriedOnTheCdnHost) {
  const auto path = serve(64 * 1024, 3);
  quill_fileservice::Fault staticFails;
  staticFails.host = CloudEnvironment::staticHost();
  staticFails.status = 500;
  CloudEnvironment::server().addFault(staticFails);

  const auto started = std::chrono::steady_clock::now();
  auto image = download(CloudStorageKind::kImage, CloudEnvironment::staticUrl(path), "retried.png");
  ASSERT_TRUE(image.waitEnded());
  CloudEnvironment::server().clearFaults();
  EXPECT_EQ(image.code(), CloudStorageResult::kSuccess) << image.message();
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2000));
  EXPECT_EQ(image.request->url, CloudEnvironment::url(path));
  EXPECT_EQ(readFile(finalPath("retried.png")),
            readFile(CloudEnvironment::server().storedFile(path)));
}

TEST_F(DownloadEndToEnd, AFailingFileIsNotRetried) {
  const auto path = serve(1024);
  quill_fileservice::Fault staticFails;
  staticFails.host = CloudEnvironment::staticHost();
  staticFails.status = 500;
  CloudEnvironment::server().addFault(staticFails);
  auto file = download(CloudStorageKind::kFile, CloudEnvironment::staticUrl(path), "file.bin");
  ASSERT_TRUE(file.waitEnded(std::chrono::milliseconds(1900)))
      << "ended before a retry could have run";
  CloudEnvironment::server().clearFaults();
  EXPECT_EQ(file.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(file.message(), "500");
  EXPECT_EQ(file.request->url, CloudEnvironment::staticUrl(path));
}

TEST_F(DownloadEndToEnd, BeforeAnyUserTheFileGoesStraightToItsPlace) {
  TempDir otherUser;
  auto fresh = std::make_unique<CloudStorageService>(true);
  const auto path = serve(200 * 1024, 4);
  Tracked tracked(false, CloudStorageKind::kFile);
  tracked.request->url = CloudEnvironment::url(path);
  tracked.request->directory = destination.path();
  tracked.request->fileName = "direct.bin";
  ASSERT_TRUE(fresh->excuteRequest(tracked.request));
  ASSERT_TRUE(tracked.waitEnded());
  EXPECT_EQ(tracked.code(), CloudStorageResult::kSuccess);
  EXPECT_EQ(readFile(finalPath("direct.bin")),
            readFile(CloudEnvironment::server().storedFile(path)));
  EXPECT_FALSE(FileUtils::directoryExists(
      FileUtils::appendComponent(otherUser.path(), "cloud_storage_caches")));
}
