// Downloads over HTTPS that lose nothing: each transfer grows in a file of its own, a user's file
// is untouched until a whole download replaces it, names that would leave their directory are
// refused, and every failure says why.
#include "CloudEnvironment.h"
#include "Environment.h"
#include "SignedInFixture.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>

#include <filesystem>

using quill_test::CloudEnvironment;
using quill_test::entriesIn;
using quill_test::readFile;
using quill_test::setEnvironment;
using quill_test::TempDir;
using quill_test::Tracked;
using quill_test::unsetEnvironment;
using quill_test::writePattern;

namespace {

struct SafeDownload : quill_test::SignedInFixture {
  std::string cacheDirectory() const {
    return FileUtils::appendComponent(user.path(), "cloud_storage_caches");
  }

  // Downloads two different files, both named "same.bin", into two directories at once, the second
  // through `second`; each directory must end up with its own bytes.
  void expectOneNameTwiceAtOnce(CloudStorageService& second) {
    // The rate keeps both on the wire together for a while.
    const auto [firstLocal, firstPath] = store(512 * 1024, 11);
    const auto [secondLocal, secondPath] = store(384 * 1024, 12);
    TempDir otherDestination;
    auto one = start(*service, CloudEnvironment::url(firstPath + "?quill_rate=1048576"),
                     destination.path(), "same.bin");
    auto two = start(second, CloudEnvironment::url(secondPath + "?quill_rate=1048576"),
                     otherDestination.path(), "same.bin");
    ASSERT_TRUE(one.waitEnded());
    ASSERT_TRUE(two.waitEnded());
    EXPECT_EQ(one.code(), CloudStorageResult::kSuccess) << one.cause().text;
    EXPECT_EQ(two.code(), CloudStorageResult::kSuccess) << two.cause().text;
    EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "same.bin")),
              readFile(firstLocal));
    EXPECT_EQ(readFile(FileUtils::appendComponent(otherDestination.path(), "same.bin")),
              readFile(secondLocal));
    EXPECT_EQ(entriesIn(cacheDirectory()), 0u);
  }

  static Tracked start(CloudStorageService& through, const std::string& url,
                       const std::string& directory, const std::string& name) {
    Tracked tracked(false, CloudStorageKind::kFile);
    tracked.request->url = url;
    tracked.request->directory = directory;
    tracked.request->fileName = name;
    EXPECT_TRUE(through.excuteRequest(tracked.request));
    return tracked;
  }
};

}  // namespace

TEST_F(SafeDownload, DownloadsOfOneNameIntoTwoDirectoriesKeepTheirOwnBytes) {
  expectOneNameTwiceAtOnce(*service);
}

TEST_F(SafeDownload, TwoServicesSharingAUserDirectoryKeepTheirOwnBytes) {
  // As two processes of one user would: two services, one cache directory, one file name.
  CloudStorageService other(true);
  other.changeUser("app", "pin", user.path());
  expectOneNameTwiceAtOnce(other);
}

TEST_F(SafeDownload, AnExistingFileSurvivesFailedDownloadsAndIsReplacedByAWholeOne) {
  const auto [local, path] = store(256 * 1024, 31);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "notes.txt");
  std::ofstream(finalPath, std::ios::binary) << "the user's notes";
  // With and without a cache directory (a service nobody signed in to has none): an error status,
  // and a connection dropped in the middle of the body at the same byte however often the rest is
  // asked for (with short waits between those attempts).
  setEnvironment("QUILL_HTTP_RESUME_WAIT_MS", "20");
  CloudStorageService unsignedService(true);
  for (CloudStorageService* through : {service.get(), &unsignedService}) {
    for (const std::string query : {"?quill_status=500", "?quill_drop_after=100000"}) {
      SCOPED_TRACE(query);
      auto failed =
          start(*through, CloudEnvironment::url(path + query), destination.path(), "notes.txt");
      ASSERT_TRUE(failed.waitEnded());
      EXPECT_EQ(failed.code(), CloudStorageResult::kTransferFailed);
      EXPECT_FALSE(failed.cause().text.empty());
      EXPECT_EQ(readFile(finalPath), "the user's notes");
      EXPECT_EQ(entriesIn(destination.path()), 1u) << "no temporary file left beside it";
    }
  }
  unsetEnvironment("QUILL_HTTP_RESUME_WAIT_MS");
  auto whole = start(*service, CloudEnvironment::url(path), destination.path(), "notes.txt");
  ASSERT_TRUE(whole.waitEnded());
  EXPECT_EQ(whole.code(), CloudStorageResult::kSuccess) << whole.cause().text;
  EXPECT_EQ(readFile(finalPath), readFile(local));
  EXPECT_EQ(entriesIn(cacheDirectory()), 0u);
}

TEST_F(SafeDownload, ALinkPlantedAtTheOldCacheNameIsNeverWrittenThrough) {
  const auto [local, path] = store(64 * 1024, 41);
  TempDir elsewhere;
  const auto victim = elsewhere.file("victim");
  std::ofstream(victim) << "someone else's";
  std::error_code error;
  std::filesystem::create_symlink(victim, FileUtils::appendComponent(cacheDirectory(), "x.bin"),
                                  error);
  std::filesystem::create_symlink(victim, FileUtils::appendComponent(destination.path(), "y.bin"),
                                  error);
  if (error) {
    GTEST_SKIP() << "this user cannot make symbolic links: " << error.message();
  }
  auto viaCache = start(*service, CloudEnvironment::url(path), destination.path(), "x.bin");
  ASSERT_TRUE(viaCache.waitEnded());
  EXPECT_EQ(viaCache.code(), CloudStorageResult::kSuccess) << viaCache.cause().text;
  // A link at the final path is replaced by the file, its target left alone.
  auto ontoLink = start(*service, CloudEnvironment::url(path), destination.path(), "y.bin");
  ASSERT_TRUE(ontoLink.waitEnded());
  EXPECT_EQ(ontoLink.code(), CloudStorageResult::kSuccess) << ontoLink.cause().text;
  EXPECT_EQ(readFile(victim), "someone else's");
  EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "x.bin")), readFile(local));
  EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "y.bin")), readFile(local));
  EXPECT_FALSE(
      std::filesystem::is_symlink(FileUtils::appendComponent(destination.path(), "y.bin")));
}

TEST_F(SafeDownload, ANameThatClimbsOutIsRefusedAndNothingIsWritten) {
  const auto [local, path] = store(1024, 51);
  const auto inner = FileUtils::appendComponent(destination.path(), "a/b");
  ASSERT_TRUE(FileUtils::makeDirectory(inner));
  auto refused = start(*service, CloudEnvironment::url(path), inner, "../../x");
  ASSERT_TRUE(refused.waitEnded());
  EXPECT_EQ(refused.code(), CloudStorageResult::kFailed);
  EXPECT_EQ(refused.message(), "the download file name is not a plain file name");
  EXPECT_EQ(entriesIn(inner), 0u);
  EXPECT_EQ(entriesIn(destination.path()), 1u);
}

TEST_F(SafeDownload, FailuresSayWhy) {
  struct Case {
    std::string url;
    std::string name;
    int code;
    std::string causePart;
    int systemError;
  };
  const auto [local, path] = store(2048, 61);
  const auto [emptyLocal, emptyPath] = store(0, 62);
  ASSERT_TRUE(FileUtils::makeDirectory(FileUtils::appendComponent(destination.path(), "dir.bin")));
  const std::vector<Case> cases = {
      // Port 9 (discard) has no listener on this machine: the connection is refused.
      {"http://127.0.0.1:9/x", "refused.bin", -100, "127.0.0.1", 0},
      {CloudEnvironment::url(path + "?quill_status=503"), "busy.bin", -100,
       "503 Service Unavailable", 0},
      {CloudEnvironment::url(path + "?quill_status=404"), "gone.bin", -2, "404", 0},
      {"file:///etc/hostname", "local.bin", -100, "file", 0},
      {CloudEnvironment::url(emptyPath), "empty.bin", -1, "the server sent an empty file", 0},
      {CloudEnvironment::url(path), "dir.bin", -1, "cannot move the download to", EISDIR},
      {CloudEnvironment::url(path), std::string(300, 'n'), -1, "File name too long", ENAMETOOLONG},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.url + " -> " + item.name.substr(0, 20));
    auto tracked = start(*service, item.url, destination.path(), item.name);
    ASSERT_TRUE(tracked.waitEnded());
    EXPECT_EQ(tracked.code(), item.code) << tracked.cause().text;
    EXPECT_NE(tracked.cause().text.find(item.causePart), std::string::npos) << tracked.cause().text;
    EXPECT_EQ(tracked.cause().systemError, item.systemError) << tracked.cause().text;
  }
  EXPECT_EQ(entriesIn(destination.path()), 1u) << "only the directory that was in the way";
}
