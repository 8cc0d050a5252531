// Downloads and uploads whose user directory, folders and file names are not ASCII ("Zoë 文件",
// UTF-8 in the library's API): the bytes arrive whole and land, or are read, under those names.

#include "CloudEnvironment.h"
#include "Tracked.h"
#include "Utf8Files.h"

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using quill_test::CloudEnvironment;
using quill_test::fileExistsUtf8;
using quill_test::makeDirectoriesUtf8;
using quill_test::patternBytes;
using quill_test::readFileUtf8;
using quill_test::TempDir;
using quill_test::Tracked;
using quill_test::writeFileUtf8;

namespace {

const std::string kName = "Zo\xC3\xAB \xE6\x96\x87\xE4\xBB\xB6";  // "Zoë 文件" in UTF-8

struct NonAsciiNames : ::testing::Test {
  TempDir root;
  // <root>/Zoë 文件/user, the user directory the service keeps its cache in.
  const std::string user =
      FileUtils::appendComponent(FileUtils::appendComponent(root.path(), kName), "user");
  // <root>/Zoë 文件/downloads/Zoë 文件
  const std::string downloads = FileUtils::appendComponent(
      FileUtils::appendComponent(FileUtils::appendComponent(root.path(), kName), "downloads"),
      kName);
  // <root>/Zoë 文件/uploads
  const std::string uploads =
      FileUtils::appendComponent(FileUtils::appendComponent(root.path(), kName), "uploads");
  std::unique_ptr<CloudStorageService> service = std::make_unique<CloudStorageService>(true);

  void SetUp() override {
    ASSERT_TRUE(makeDirectoriesUtf8(user));
    ASSERT_TRUE(makeDirectoriesUtf8(downloads));
    ASSERT_TRUE(makeDirectoriesUtf8(uploads));
    service->changeUser("app", "pin", user);
    service->changeAid("aid");
  }

  // Puts `bytes` on the server under a fresh ASCII key; returns its URL path.
  std::string serve(const std::string& bytes) {
    TempDir staging;
    const auto local = staging.file("staged.bin");
    std::ofstream(local, std::ios::binary) << bytes;
    const auto path =
        CloudEnvironment::server().addFile("zoe-" + std::to_string(bytes.size()) + ".bin", local);
    EXPECT_FALSE(path.empty());
    return path;
  }

  Tracked download(int kind, const std::string& url, const std::string& fileName) {
    Tracked tracked(false, kind);
    tracked.request->url = url;
    tracked.request->directory = downloads;
    tracked.request->fileName = fileName;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }

  Tracked upload(int kind, const std::string& fileName) {
    Tracked tracked(true, kind);
    tracked.request->directory = uploads;
    tracked.request->fileName = fileName;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }
};

}  // namespace

TEST_F(NonAsciiNames, AFileDownloadsToItsFinalPathUnderTheNonAsciiFolders) {
  const auto bytes = patternBytes(1024 * 1024 + 5, 3);
  const auto path = serve(bytes);
  const auto fileName = kName + ".bin";
  auto file = download(CloudStorageKind::kFile, CloudEnvironment::url(path), fileName);
  ASSERT_TRUE(file.waitEnded());
  ASSERT_EQ(file.code(), CloudStorageResult::kSuccess) << file.message();
  EXPECT_TRUE(file.ended().fileAtEnd) << "the final file was not there when the request ended";
  const auto finalPath = FileUtils::appendComponent(downloads, fileName);
  EXPECT_EQ(readFileUtf8(finalPath), bytes);
  // Nothing is left in the cache under the user's directory.
  const auto cache =
      std::filesystem::u8path(FileUtils::appendComponent(user, "cloud_storage_caches"));
  ASSERT_TRUE(std::filesystem::is_directory(cache));
  EXPECT_TRUE(std::filesystem::is_empty(cache));
}

TEST_F(NonAsciiNames, AnImageDownloadsUnderTheNonAsciiFolders) {
  const auto bytes = patternBytes(64 * 1024, 4);
  const auto path = serve(bytes);
  const auto fileName = kName + ".png";
  auto image = download(CloudStorageKind::kImage, CloudEnvironment::url(path), fileName);
  ASSERT_TRUE(image.waitEnded());
  ASSERT_EQ(image.code(), CloudStorageResult::kSuccess) << image.message();
  EXPECT_EQ(readFileUtf8(FileUtils::appendComponent(downloads, fileName)), bytes);
}

TEST_F(NonAsciiNames, AFileNamedInUnicodeUploadsAndComesBackByteForByte) {
  const auto fileName = kName + ".bin";
  const auto bytes = patternBytes(2 * 1024 * 1024 + 3, 5);
  ASSERT_TRUE(writeFileUtf8(FileUtils::appendComponent(uploads, fileName), bytes));
  auto file = upload(CloudStorageKind::kFile, fileName);
  ASSERT_TRUE(file.waitEnded());
  ASSERT_EQ(file.code(), CloudStorageResult::kSuccess) << file.message();
  EXPECT_EQ(file.request->fileSize, static_cast<std::int64_t>(bytes.size()));
  EXPECT_EQ(FileUtils::fileExtension(file.url()), "bin");

  auto back = download(CloudStorageKind::kFile, file.url(), kName + " back.bin");
  ASSERT_TRUE(back.waitEnded());
  ASSERT_EQ(back.code(), CloudStorageResult::kSuccess) << back.message();
  EXPECT_EQ(readFileUtf8(FileUtils::appendComponent(downloads, kName + " back.bin")), bytes);
}

TEST_F(NonAsciiNames, AnImageNamedInUnicodeUploads) {
  const auto fileName = kName + ".jpg";
  const auto bytes = patternBytes(200 * 1024, 6);
  ASSERT_TRUE(writeFileUtf8(FileUtils::appendComponent(uploads, fileName), bytes));
  auto image = upload(CloudStorageKind::kImage, fileName);
  ASSERT_TRUE(image.waitEnded());
  ASSERT_EQ(image.code(), CloudStorageResult::kSuccess) << image.message();
  EXPECT_EQ(image.request->fileSize, static_cast<std::int64_t>(bytes.size()));
  const auto base = CloudEnvironment::url("");
  ASSERT_EQ(image.url().rfind(base + "/files/", 0), 0u) << image.url();
  const auto stored = CloudEnvironment::server().storedFile(image.url().substr(base.size()));
  ASSERT_FALSE(stored.empty()) << image.url();
  EXPECT_EQ(readFileUtf8(stored), bytes);
}
