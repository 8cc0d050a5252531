// Where quill-cloud keeps its files: the XDG cache and state directories, the home from the
// password database when HOME is unset, a refusal when there is no home at all, private
// directories, and a log that is never written through a symbolic link.
#include "CliFixture.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using cli_test::CliTest;
using cli_test::Environment;
using cli_test::runTool;
using quill_test::CloudEnvironment;

namespace {

std::string passwordHome() {
  const passwd* entry = getpwuid(getuid());
  return entry == nullptr || entry->pw_dir == nullptr ? std::string() : entry->pw_dir;
}

mode_t permissions(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

TEST_F(CliTest, WithoutHomeTheHomeComesFromThePasswordDatabase) {
  const auto home = passwordHome();
  if (home.empty()) {
    GTEST_SKIP() << "this user has no password database entry";
  }
  Environment bare;
  bare.clear = true;
  const auto outcome = runTool({"paths"}, std::chrono::seconds(20), bare);
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_NE(outcome.output.find("user directory: " + home + "/.cache/quill-cloud\n"),
            std::string::npos)
      << outcome.output;
  EXPECT_NE(
      outcome.output.find("log file: " + home + "/.local/state/quill-cloud/quill-cloud.log\n"),
      std::string::npos)
      << outcome.output;
  EXPECT_EQ(outcome.output.find("/tmp/"), std::string::npos) << outcome.output;
}

TEST_F(CliTest, WithoutAnyHomeTheToolRefuses) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to run the tool as a user id without a password entry";
  }
  // A user id that the password database does not know (bounded search).
  long unknown = -1;
  for (long id = 61000; id < 61100 && unknown < 0; ++id) {
    if (getpwuid(static_cast<uid_t>(id)) == nullptr) {
      unknown = id;
    }
  }
  ASSERT_GE(unknown, 0);
  Environment bare;
  bare.clear = true;
  bare.runAs = unknown;
  const auto outcome = runTool({"paths"}, std::chrono::seconds(20), bare);
  if (outcome.status == 126) {
    GTEST_SKIP() << "cannot change user id here";
  }
  EXPECT_EQ(outcome.status, 2) << outcome.output << outcome.errors;
  EXPECT_NE(outcome.errors.find("HOME is not set"), std::string::npos) << outcome.errors;
  EXPECT_TRUE(outcome.output.empty()) << outcome.output;
}

TEST_F(CliTest, RelativeXdgDirectoriesAreIgnored) {
  const auto home = work.file("home");
  Environment relative;
  relative.set = {{"HOME", home}, {"XDG_CACHE_HOME", "cache"}, {"XDG_STATE_HOME", "./state"}};
  const auto ignored = runTool({"paths"}, std::chrono::seconds(20), relative);
  ASSERT_EQ(ignored.status, 0) << ignored.errors;
  EXPECT_NE(ignored.output.find("user directory: " + home + "/.cache/quill-cloud\n"),
            std::string::npos)
      << ignored.output;
  EXPECT_NE(ignored.output.find("log file: " + home + "/.local/state/quill-cloud/quill-cloud.log"),
            std::string::npos)
      << ignored.output;

  Environment absolute;
  absolute.set = {{"HOME", home},
                  {"XDG_CACHE_HOME", work.file("xdg-cache")},
                  {"XDG_STATE_HOME", work.file("xdg-state")}};
  const auto used =
      runTool({"paths", "--user-dir", work.file("mine")}, std::chrono::seconds(20), absolute);
  ASSERT_EQ(used.status, 0) << used.errors;
  EXPECT_NE(used.output.find("user directory: " + work.file("mine") + "\n"), std::string::npos)
      << used.output;
  EXPECT_NE(
      used.output.find("log file: " + work.file("xdg-state") + "/quill-cloud/quill-cloud.log"),
      std::string::npos)
      << used.output;
}

TEST_F(CliTest, DownloadWithoutHomeUsesPrivateXdgDirectories) {
  const auto [local, path] = serve("xdg.bin", 1000);
  Environment environment;
  environment.unset = {"HOME"};
  environment.set = {{"XDG_CACHE_HOME", work.file("cache")},
                     {"XDG_STATE_HOME", work.file("state")}};
  const auto outcome = runTool({"download", CloudEnvironment::url(path), "--dir", work.file("out")},
                               std::chrono::seconds(60), environment);
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  const auto cache = work.file("cache/quill-cloud");
  const auto logDirectory = work.file("state/quill-cloud");
  EXPECT_EQ(permissions(cache), 0700u);
  EXPECT_EQ(permissions(logDirectory), 0700u);
  EXPECT_EQ(permissions(FileUtils::appendComponent(logDirectory, "quill-cloud.log")), 0600u);
  // The library's own directory went below the cache directory.
  EXPECT_TRUE(
      std::filesystem::is_directory(FileUtils::appendComponent(cache, "cloud_storage_caches")));
}

TEST_F(CliTest, SymbolicLinkAtTheLogPathIsNotFollowed) {
  const auto logDirectory = FileUtils::appendComponent(state.path(), "quill-cloud");
  ASSERT_TRUE(FileUtils::makeDirectory(logDirectory));
  const auto target = work.file("planted-target.txt");
  if (symlink(target.c_str(), logFile().c_str()) != 0) {
    GTEST_SKIP() << "cannot make a symbolic link here";
  }
  const auto [local, path] = serve("logged.bin", 2000);
  const auto outcome =
      run(withIdentity({"download", CloudEnvironment::url(path), "--dir", work.file("out")}));
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_NE(outcome.errors.find("not writing the log to " + logFile()), std::string::npos)
      << outcome.errors;
  EXPECT_NE(outcome.errors.find("symbolic link"), std::string::npos) << outcome.errors;
  struct stat info {};
  EXPECT_NE(lstat(target.c_str(), &info), 0) << "the log was written through the link";
  ASSERT_EQ(lstat(logFile().c_str(), &info), 0);
  EXPECT_TRUE(S_ISLNK(info.st_mode));
}

}  // namespace
