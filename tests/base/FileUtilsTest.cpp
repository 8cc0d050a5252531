#include <quill_base/FileUtils.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using quill_test::TempDir;

namespace {

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(fs::u8path(path), std::ios::binary);
  out << content;
}

std::string readFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void setAge(const std::string& path, int secondsAgo) {
  fs::last_write_time(fs::u8path(path),
                      fs::file_time_type::clock::now() - std::chrono::seconds(secondsAgo));
}

}  // namespace

TEST(FileUtils, AppendComponentJoinsWithOneSeparator) {
  // The platform's separator; a directory already ending in either kind keeps its own.
#if defined(_WIN32)
  const std::string separator = "\\";
#else
  const std::string separator = "/";
#endif
  EXPECT_EQ(FileUtils::appendComponent("a", "b"), "a" + separator + "b");
  EXPECT_EQ(FileUtils::appendComponent("a/", "b"), "a/b");
  EXPECT_EQ(FileUtils::appendComponent("/root", "user/avatars"),
            "/root" + separator + "user/avatars");
  EXPECT_EQ(FileUtils::appendComponent("", "b"), "b");
  EXPECT_EQ(FileUtils::appendComponent("a", ""), "a" + separator);
}

TEST(FileUtils, DirectoryExists) {
  TempDir dir;
  EXPECT_FALSE(FileUtils::directoryExists(""));
  EXPECT_TRUE(FileUtils::directoryExists(dir.path()));
  EXPECT_FALSE(FileUtils::directoryExists(dir.file("missing")));
  writeFile(dir.file("plain"), "x");
  EXPECT_FALSE(FileUtils::directoryExists(dir.file("plain")));
}

TEST(FileUtils, MakeDirectoryCreatesMissingParents) {
  TempDir dir;
  const auto nested = FileUtils::appendComponent(dir.path(), "one/two/three");
  EXPECT_TRUE(FileUtils::makeDirectory(nested));
  EXPECT_TRUE(FileUtils::directoryExists(nested));
  EXPECT_TRUE(FileUtils::makeDirectory(nested)) << "an existing directory is a success";
  EXPECT_FALSE(FileUtils::makeDirectory(""));
  writeFile(dir.file("blocker"), "x");
  EXPECT_FALSE(FileUtils::makeDirectory(dir.file("blocker")));
  EXPECT_FALSE(FileUtils::makeDirectory(FileUtils::appendComponent(dir.file("blocker"), "below")));
}

TEST(FileUtils, FileExistsAndFileSize) {
  TempDir dir;
  writeFile(dir.file("five"), "12345");
  writeFile(dir.file("empty"), "");
  EXPECT_TRUE(FileUtils::fileExists(dir.file("five")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("empty")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("missing")));
  EXPECT_FALSE(FileUtils::fileExists(dir.path())) << "a directory is not a file";
  EXPECT_FALSE(FileUtils::fileExists(""));
  EXPECT_EQ(FileUtils::fileSize(dir.file("five")), 5u);
  EXPECT_EQ(FileUtils::fileSize(dir.file("empty")), 0u);
  EXPECT_EQ(FileUtils::fileSize(dir.file("missing")), 0u);
  EXPECT_EQ(FileUtils::fileSize(dir.path()), 0u);
}

TEST(FileUtils, FileSizeBeyondFourGigabytes) {
  TempDir dir;
  const auto path = dir.file("sparse");
  { std::ofstream out(path, std::ios::binary); }
  std::error_code ec;
  fs::resize_file(path, 5ull << 30, ec);  // sparse: takes no real space
  if (ec) {
    GTEST_SKIP() << "cannot make a sparse file here: " << ec.message();
  }
  EXPECT_EQ(FileUtils::fileSize(path), 5ull << 30);
}

TEST(FileUtils, ModificationTimeIsInSecondsSince1970) {
  TempDir dir;
  writeFile(dir.file("now"), "x");
  const auto before = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  const std::int64_t modified = FileUtils::modificationTime(dir.file("now"));
  EXPECT_GE(modified, before - 60);
  EXPECT_LE(modified, before + 60);
  // A time set through the standard library reads back as the same instant.
  std::error_code ec;
  fs::last_write_time(fs::u8path(dir.file("now")),
                      fs::last_write_time(fs::u8path(dir.file("now"))) - std::chrono::hours(48),
                      ec);
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_NEAR(static_cast<double>(FileUtils::modificationTime(dir.file("now"))),
              static_cast<double>(modified - 48 * 3600), 1.0);
  EXPECT_EQ(FileUtils::modificationTime(dir.file("missing")), -1);
  EXPECT_EQ(FileUtils::modificationTime(""), -1);
}

TEST(FileUtils, PathParts) {
  EXPECT_EQ(FileUtils::fileDir("/a/b/c.txt"), "/a/b");
  EXPECT_EQ(FileUtils::fileDir("c.txt"), "");
  EXPECT_EQ(FileUtils::fileName("/a/b/c.txt"), "c.txt");
  EXPECT_EQ(FileUtils::fileName("c"), "c");
  EXPECT_EQ(FileUtils::fileExtension("/a/b/c.txt"), "txt");
  EXPECT_EQ(FileUtils::fileExtension("archive.tar.gz"), "gz");
  EXPECT_EQ(FileUtils::fileExtension("/a.dir/noext"), "");
  EXPECT_EQ(FileUtils::fileExtension("photo.JPG"), "JPG");
  EXPECT_EQ(FileUtils::fileExtension(""), "");
}

TEST(FileUtils, HandlesUtf8Paths) {
  TempDir dir;
  const auto folder = FileUtils::appendComponent(dir.path(), "каталог/写真");
  ASSERT_TRUE(FileUtils::makeDirectory(folder));
  const auto file = FileUtils::appendComponent(folder, "ファイル é.png");
  writeFile(file, "data");
  EXPECT_TRUE(FileUtils::fileExists(file));
  EXPECT_EQ(FileUtils::fileName(file), "ファイル é.png");
  EXPECT_EQ(FileUtils::fileExtension(file), "png");
  EXPECT_EQ(FileUtils::fileDir(file), folder);
  EXPECT_EQ(FileUtils::fileSize(file), 4u);
  EXPECT_TRUE(FileUtils::moveFile(file, FileUtils::appendComponent(folder, "移動.png")));
  EXPECT_TRUE(FileUtils::fileExists(FileUtils::appendComponent(folder, "移動.png")));
}

TEST(FileUtils, MoveFileReplacesAnExistingTarget) {
  TempDir dir;
  writeFile(dir.file("from"), "new content");
  writeFile(dir.file("to"), "old");
  EXPECT_TRUE(FileUtils::moveFile(dir.file("from"), dir.file("to")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("from")));
  EXPECT_EQ(readFile(dir.file("to")), "new content");
}

TEST(FileUtils, MoveFileFailures) {
  TempDir dir;
  EXPECT_FALSE(FileUtils::moveFile(dir.file("missing"), dir.file("to")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("to")));
  writeFile(dir.file("from"), "x");
  EXPECT_FALSE(FileUtils::moveFile(dir.file("from"), dir.file("no/such/dir/to")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("from"))) << "a failed move keeps the source";
}

TEST(FileUtils, MoveFileOntoItselfKeepsTheFile) {
  TempDir dir;
  writeFile(dir.file("same"), "keep me");
  EXPECT_TRUE(FileUtils::moveFile(dir.file("same"), dir.file("same")));
  EXPECT_EQ(readFile(dir.file("same")), "keep me");
}

TEST(FileUtils, MoveFileOntoItselfUnderAnotherNameKeepsTheFile) {
  TempDir dir;
  writeFile(dir.file("same"), "keep me");
  fs::create_hard_link(dir.file("same"), dir.file("alias"));
  EXPECT_TRUE(FileUtils::moveFile(dir.file("same"), dir.path() + "/./same"));
  EXPECT_TRUE(FileUtils::moveFile(dir.file("same"), dir.file("alias")));
  EXPECT_EQ(readFile(dir.file("same")), "keep me");
  EXPECT_EQ(readFile(dir.file("alias")), "keep me");
}

TEST(FileUtils, MoveRegularFileMovesAsMoveFileDoes) {
  TempDir dir;
  writeFile(dir.file("from"), "new content");
  writeFile(dir.file("to"), "old");
  int error = -1;
  EXPECT_TRUE(FileUtils::moveRegularFile(dir.file("from"), dir.file("to"), &error));
  EXPECT_EQ(error, 0);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("from")));
  EXPECT_EQ(readFile(dir.file("to")), "new content");
  EXPECT_TRUE(FileUtils::moveRegularFile(dir.file("to"), dir.file("to")));
  EXPECT_EQ(readFile(dir.file("to")), "new content");
  EXPECT_FALSE(FileUtils::moveRegularFile(dir.file("to"), dir.file("no/such/dir/to"), &error));
#if defined(_WIN32)
  // Windows' C runtime says ENOENT; Wine's (which the Windows tests run on) says EIO.
  EXPECT_TRUE(error == ENOENT || error == EIO) << error;
#else
  EXPECT_EQ(error, ENOENT);
#endif
  EXPECT_EQ(readFile(dir.file("to")), "new content") << "a failed move keeps the source";
  EXPECT_FALSE(FileUtils::moveRegularFile(dir.file("to"), ""));
}

TEST(FileUtils, MoveFileOntoADirectoryFails) {
  TempDir dir;
  writeFile(dir.file("from"), "x");
  fs::create_directory(dir.file("folder"));
  EXPECT_FALSE(FileUtils::moveFile(dir.file("from"), dir.file("folder")));
  EXPECT_EQ(readFile(dir.file("from")), "x");
}

TEST(FileUtils, MoveFileAcrossFileSystems) {
  TempDir dir;
  const std::string shm = "/dev/shm";
  struct stat a {};
  struct stat b {};
  if (stat(shm.c_str(), &a) != 0 || stat(dir.path().c_str(), &b) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "no second file system to move across";
  }
  const auto source = shm + "/quill-move-" + TextUtils::UUID_String();
  writeFile(source, "crossing");
  writeFile(dir.file("target"), "old");
  EXPECT_TRUE(FileUtils::moveFile(source, dir.file("target")));
  EXPECT_FALSE(FileUtils::fileExists(source));
  EXPECT_EQ(readFile(dir.file("target")), "crossing");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1)
      << "no staging file left behind";
}

TEST(FileUtils, RemoveFile) {
  TempDir dir;
  writeFile(dir.file("gone"), "x");
  EXPECT_TRUE(FileUtils::removeFile(dir.file("gone")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("gone")));
  EXPECT_FALSE(FileUtils::removeFile(dir.file("gone")));
  EXPECT_FALSE(FileUtils::removeFile(""));
}

TEST(FileUtils, RemoveTreeTakesADirectoryWithEverythingInIt) {
  TempDir dir;
  const auto root = dir.file("Zo\xc3\xab tree");
  ASSERT_TRUE(FileUtils::makeDirectory(FileUtils::appendComponent(root, "a")));
  ASSERT_TRUE(FileUtils::makeDirectory(FileUtils::appendComponent(root, "a/b")));
  writeFile(FileUtils::appendComponent(root, "top"), "1");
  writeFile(FileUtils::appendComponent(root, "a/middle"), "2");
  writeFile(FileUtils::appendComponent(root, "a/b/deep"), "3");
  writeFile(dir.file("beside"), "4");

  EXPECT_TRUE(FileUtils::removeTree(root));
  EXPECT_FALSE(fs::exists(fs::u8path(root)));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("beside")));

  EXPECT_TRUE(FileUtils::removeTree(dir.file("beside"))) << "a file is removed too";
  EXPECT_FALSE(FileUtils::fileExists(dir.file("beside")));
  EXPECT_TRUE(FileUtils::removeTree(dir.file("never-there"))) << "nothing there, nothing left";
  EXPECT_FALSE(FileUtils::removeTree(""));
}

TEST(FileUtils, RemoveTreeRemovesALinkNotWhatItPointsTo) {
  TempDir dir;
  const auto kept = dir.file("kept");
  ASSERT_TRUE(FileUtils::makeDirectory(kept));
  writeFile(FileUtils::appendComponent(kept, "precious"), "keep me");
  const auto root = dir.file("tree");
  ASSERT_TRUE(FileUtils::makeDirectory(root));
  std::error_code ec;
  fs::create_directory_symlink(fs::u8path(kept), fs::u8path(root) / "link", ec);
  if (ec) {
    GTEST_SKIP() << "this user cannot make symbolic links: " << ec.message();
  }
  EXPECT_TRUE(FileUtils::removeTree(root));
  EXPECT_FALSE(fs::exists(fs::u8path(root)));
  EXPECT_EQ(readFile(FileUtils::appendComponent(kept, "precious")), "keep me");
}

// Another thread deletes the files while the tree is being removed (as the network thread removes
// an abandoned download's partial file): each listed entry may be gone when its turn comes.
TEST(FileUtils, RemoveTreeFinishesWhenEntriesVanishUnderIt) {
  TempDir dir;
  const auto root = dir.file("racing");
  const auto inner = FileUtils::appendComponent(root, "inner");
  ASSERT_TRUE(FileUtils::makeDirectory(root));
  ASSERT_TRUE(FileUtils::makeDirectory(inner));
  std::vector<std::string> files;
  for (int i = 0; i < 1500; ++i) {
    files.push_back(FileUtils::appendComponent(inner, "f" + std::to_string(i)));
    writeFile(files.back(), "x");
  }
  std::thread other([&] {
    for (auto it = files.rbegin(); it != files.rend(); ++it) {
      FileUtils::removeFile(*it);
    }
  });
  const bool removed = FileUtils::removeTree(root);
  other.join();
  EXPECT_TRUE(removed);
  EXPECT_FALSE(fs::exists(fs::u8path(root)));
}

TEST(FileUtils, RemoveFilesKeepsTheBudgetDeletingOldestFirst) {
  TempDir dir;
  // Five files of 100 bytes, "f0" the oldest.
  for (int i = 0; i < 5; ++i) {
    const auto name = dir.file("f" + std::to_string(i));
    writeFile(name, std::string(100, 'x'));
    setAge(name, 1000 - i * 100);
  }
  FileUtils::makeDirectory(dir.file("subdir"));
  writeFile(dir.file("subdir/inner"), std::string(1000, 'y'));

  EXPECT_TRUE(FileUtils::removeFiles(dir.path(), 250));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("f0")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("f1")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("f2")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("f3")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("f4")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("subdir/inner"))) << "subdirectories are left alone";

  EXPECT_TRUE(FileUtils::removeFiles(dir.path(), 200)) << "already within the budget";
  EXPECT_TRUE(FileUtils::fileExists(dir.file("f3")));

  EXPECT_TRUE(FileUtils::removeFiles(dir.path(), 0));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("f3")));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("f4")));
  EXPECT_TRUE(FileUtils::directoryExists(dir.file("subdir")));
}

TEST(FileUtils, RemoveFilesOnAMissingDirectory) {
  TempDir dir;
  EXPECT_FALSE(FileUtils::removeFiles(dir.file("missing"), 0));
  EXPECT_FALSE(FileUtils::removeFiles("", 0));
}
