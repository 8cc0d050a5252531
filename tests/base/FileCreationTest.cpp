// Files made so that nobody else can have prepared them: exclusive creation, links never followed,
// names nobody can guess, and what a host may pass as a file name.
#include <quill_base/FileUtils.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace fs = std::filesystem;
using quill_test::TempDir;

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(fs::u8path(path), std::ios::binary) << content;
}

#if !defined(_WIN32)
// Permission bits are POSIX's: on Windows a new file takes its directory's access list, which
// this code does not change.
#define QUILL_FILE_MODES 1

unsigned modeOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return static_cast<unsigned>(info.st_mode & 07777);
}

// The process's umask as the kernel reports it, without changing it.
unsigned currentUmask() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Umask:", 0) == 0) {
      return static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
    }
  }
  return 022;
}

#endif

// A link at `link` to `target`; false when this system or user cannot make one.
bool plantLink(const std::string& target, const std::string& link) {
  std::error_code error;
  fs::create_symlink(fs::u8path(target), fs::u8path(link), error);
  return !error;
}

}  // namespace

TEST(FileCreation, CreateNewFileMakesAPrivateFile) {
  TempDir dir;
  const auto path = dir.file("new.bin");
  std::FILE* file = FileUtils::createNewFile(path);
  ASSERT_NE(file, nullptr) << std::strerror(errno);
  EXPECT_EQ(std::fwrite("abc", 1, 3, file), 3u);
#if QUILL_FILE_MODES
  EXPECT_EQ(modeOf(path), 0600u);
#endif
  EXPECT_TRUE(FileUtils::makeShareable(file));
  EXPECT_EQ(std::fclose(file), 0);
  EXPECT_EQ(readFile(path), "abc");
#if QUILL_FILE_MODES
  EXPECT_EQ(modeOf(path), 0666u & ~currentUmask());
#endif
}

TEST(FileCreation, TruncatingCutsTheFileAndWritesOnFromThere) {
  TempDir dir;
  const auto path = dir.file("cut.bin");
  std::FILE* file = FileUtils::createNewFile(path);
  ASSERT_NE(file, nullptr) << std::strerror(errno);
  std::setvbuf(file, nullptr, _IONBF, 0);
  EXPECT_EQ(std::fwrite("abcdef", 1, 6, file), 6u);
  EXPECT_TRUE(FileUtils::truncateFile(file, 2));
  EXPECT_EQ(std::fwrite("XY", 1, 2, file), 2u);
  EXPECT_TRUE(FileUtils::truncateFile(file, 0));
  EXPECT_EQ(std::fwrite("0123", 1, 4, file), 4u);
  EXPECT_EQ(std::fclose(file), 0);
  EXPECT_EQ(readFile(path), "0123");
  EXPECT_FALSE(FileUtils::truncateFile(nullptr, 0));
}

TEST(FileCreation, CreateNewFileRefusesATakenName) {
  TempDir dir;
  const auto path = dir.file("taken");
  writeFile(path, "already here");
  errno = 0;
  EXPECT_EQ(FileUtils::createNewFile(path), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(readFile(path), "already here");
  EXPECT_EQ(FileUtils::createNewFile(""), nullptr);
  EXPECT_EQ(FileUtils::createNewFile(dir.file("missing/dir/x")), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(FileCreation, CreateNewFileNeverFollowsALink) {
  TempDir dir;
  const auto victim = dir.file("victim");
  writeFile(victim, "someone else's");
  const auto dangling = dir.file("nowhere");
  if (!plantLink(victim, dir.file("link")) || !plantLink(dangling, dir.file("dangling"))) {
    GTEST_SKIP() << "this user cannot make symbolic links";
  }
  errno = 0;
  EXPECT_EQ(FileUtils::createNewFile(dir.file("link")), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(readFile(victim), "someone else's");
  // A link to a name that does not exist yet would otherwise create that name.
  EXPECT_EQ(FileUtils::createNewFile(dir.file("dangling")), nullptr);
  EXPECT_FALSE(fs::exists(fs::u8path(dangling)));
  EXPECT_FALSE(FileUtils::writeNewFile(dir.file("link"), "x", 1));
  EXPECT_EQ(readFile(victim), "someone else's");
}

TEST(FileCreation, WriteNewFileWritesWholeOrLeavesNothing) {
  TempDir dir;
  const auto path = dir.file("whole.bin");
  ASSERT_TRUE(FileUtils::writeNewFile(path, "0123456789", 10));
  EXPECT_EQ(readFile(path), "0123456789");
#if QUILL_FILE_MODES
  EXPECT_EQ(modeOf(path), 0666u & ~currentUmask());
#endif
  EXPECT_FALSE(FileUtils::writeNewFile(path, "other", 5)) << "never over an existing file";
  EXPECT_EQ(readFile(path), "0123456789");
  ASSERT_TRUE(FileUtils::writeNewFile(dir.file("empty"), nullptr, 0));
  EXPECT_EQ(FileUtils::fileSize(dir.file("empty")), 0u);
}

TEST(FileCreation, TemporaryPathsAreHiddenUniqueAndFitOneComponent) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const auto path = FileUtils::temporaryPath("/d", "report.pdf");
    EXPECT_EQ(FileUtils::fileDir(path), "/d");
    const auto name = FileUtils::fileName(path);
    EXPECT_EQ(name.rfind(".report.pdf.", 0), 0u) << name;
    EXPECT_EQ(name.substr(name.size() - 5), ".part") << name;
    seen.insert(path);
  }
  EXPECT_EQ(seen.size(), 100u);

  // A name at the limit of one component still gives a component within it, cut on a character.
  std::string longName;
  while (longName.size() < 250) {
    longName += "\xC3\xA9";  // é, two bytes
  }
  const auto name = FileUtils::fileName(FileUtils::temporaryPath("/d", longName));
  EXPECT_LE(name.size(), 255u);
  EXPECT_EQ(name.substr(0, 101), "." + longName.substr(0, 100));
  EXPECT_EQ(FileUtils::fileName(FileUtils::temporaryPath("", "x")).front(), '.');
}

TEST(FileCreation, PlainFileNamesAreOneComponent) {
  for (const char* name : {"a", "report.pdf", "..a", "a..", "...", "Zoë 文件.txt", " x "}) {
    EXPECT_TRUE(FileUtils::isPlainFileName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("../x"), std::string("a/b"),
        std::string("/"), std::string("a\\b"), std::string("x\0y", 3), std::string("dir/")}) {
    EXPECT_FALSE(FileUtils::isPlainFileName(name)) << name;
  }
}

TEST(FileCreation, AFailedMoveTellsWhy) {
  TempDir dir;
  const auto source = dir.file("source");
  writeFile(source, "bytes");
  ASSERT_TRUE(FileUtils::makeDirectory(dir.file("target/inside")));
  int error = 0;
  EXPECT_FALSE(FileUtils::moveFile(source, dir.file("target"), &error));
  EXPECT_EQ(error, EISDIR);
  EXPECT_EQ(readFile(source), "bytes");
  EXPECT_FALSE(FileUtils::moveFile(source, dir.file("missing/target"), &error));
#if defined(_WIN32)
  // Windows' C runtime says ENOENT; Wine's (which the Windows tests run on) says EIO.
  EXPECT_TRUE(error == ENOENT || error == EIO) << error;
#else
  EXPECT_EQ(error, ENOENT);
#endif
  EXPECT_FALSE(FileUtils::moveFile(dir.file("no-source"), dir.file("t"), &error));
  EXPECT_EQ(error, 0);
  EXPECT_TRUE(FileUtils::moveFile(source, dir.file("moved"), &error));
  EXPECT_EQ(error, 0);
}

TEST(FileCreation, MovingOntoALinkReplacesTheLinkNotItsTarget) {
  TempDir dir;
  const auto victim = dir.file("victim");
  writeFile(victim, "someone else's");
  if (!plantLink(victim, dir.file("final"))) {
    GTEST_SKIP() << "this user cannot make symbolic links";
  }
  writeFile(dir.file("download"), "new bytes");
  ASSERT_TRUE(FileUtils::moveFile(dir.file("download"), dir.file("final")));
  EXPECT_FALSE(fs::is_symlink(fs::u8path(dir.file("final"))));
  EXPECT_EQ(readFile(dir.file("final")), "new bytes");
  EXPECT_EQ(readFile(victim), "someone else's");
}
