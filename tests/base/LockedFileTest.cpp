#include <quill_base/LockedFile.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

using quill_test::TempDir;

TEST(LockedFile, OneHolderAtATime) {
  TempDir dir;
  const auto path = dir.file("record");
  auto first = LockedFile::tryLock(path);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(LockedFile::tryLock(path), nullptr) << "a second holder while the first holds it";
  first.reset();
  EXPECT_NE(LockedFile::tryLock(path), nullptr) << "free again once the first let go";
}

TEST(LockedFile, ContentIsReplacedWholeAndReadBack) {
  TempDir dir;
  auto file = LockedFile::tryLock(dir.file("record"));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->read(), "") << "made empty";
  EXPECT_TRUE(file->replace("a longer first content"));
  EXPECT_TRUE(file->replace("short"));
  EXPECT_EQ(file->read(), "short");
  file.reset();
  auto again = LockedFile::tryLock(dir.file("record"));
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->read(), "short") << "the content outlives the holder";
}

TEST(LockedFile, RemovingDeletesTheFile) {
  TempDir dir;
  const auto path = dir.file("record");
  auto file = LockedFile::tryLock(path);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(file->remove());
  file.reset();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(path)));
}

TEST(LockedFile, NothingIsMadeWhereTheDirectoryIsMissing) {
  TempDir dir;
  EXPECT_EQ(LockedFile::tryLock(dir.file("missing/record")), nullptr);
}

#if !defined(_WIN32)
TEST(LockedFile, ALinkAtThePathIsNotFollowed) {
  TempDir dir;
  const auto target = dir.file("target");
  std::error_code error;
  std::filesystem::create_symlink(target, dir.file("link"), error);
  ASSERT_FALSE(error) << error.message();
  EXPECT_EQ(LockedFile::tryLock(dir.file("link")), nullptr);
  EXPECT_FALSE(std::filesystem::exists(target)) << "nothing was made through the link";
}
#endif
