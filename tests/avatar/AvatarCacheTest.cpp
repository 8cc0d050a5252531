#include "AvatarTestSupport.h"
#include "LogCapture.h"

using quill_test::AvatarFixture;
using quill_test::ImageFormat;
using quill_test::LogCapture;
using quill_test::noiseImage;
using quill_test::TempDir;

namespace {

using AvatarCache = AvatarFixture;

void writeBytes(const std::string& path, std::size_t size) {
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
}

}  // namespace

TEST_F(AvatarCache, CreateAvatarPathMakesTheSharedTempsAndThePerUserAvatars) {
  const std::string nestedRoot = FileUtils::appendComponent(root.path(), "a/b");
  ASSERT_TRUE(manager->createAvatarPath(nestedRoot, "user 7"));
  EXPECT_TRUE(FileUtils::directoryExists(FileUtils::appendComponent(nestedRoot, "temps")));
  EXPECT_TRUE(FileUtils::directoryExists(FileUtils::appendComponent(nestedRoot, "user 7/avatars")));
  // The same file, whichever separators each side was put together with (Windows takes both).
  const auto path = std::filesystem::u8path(manager->avatarPath("https://avatars.test/1.png"));
  const auto expected = std::filesystem::u8path(FileUtils::appendComponent(
      nestedRoot,
      "user 7/avatars/" + TextUtils::hashString("https://avatars.test/1.png") + ".jpg"));
  EXPECT_EQ(path.lexically_normal(), expected.lexically_normal());
}

TEST_F(AvatarCache, AvatarPathIsEmptyUntilTheDirectoriesExist) {
  EXPECT_EQ(manager->avatarPath("https://avatars.test/1.png"), "");
  makeDirectories();
  EXPECT_NE(manager->avatarPath("https://avatars.test/1.png"), "");
  EXPECT_EQ(manager->avatarPath(""), "") << "an empty URL has no key";
}

TEST_F(AvatarCache, ADirectoryThatCannotBeMadeIsLoggedAndRefused) {
  LogCapture logs;
  // A regular file where the root should be: neither directory can be made below it.
  const std::string blocked = root.file("blocked");
  writeBytes(blocked, 1);
  EXPECT_FALSE(manager->createAvatarPath(blocked, "u1"));
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL,
                    "make user directory failed, " + FileUtils::appendComponent(blocked, "temps")));
  EXPECT_EQ(manager->avatarPath("https://avatars.test/1.png"), "");

  // The temps directory can be made, the user's cannot: temps is kept, avatars stay unusable.
  const std::string userBlocked = FileUtils::appendComponent(root.path(), "u2");
  writeBytes(userBlocked, 1);
  EXPECT_FALSE(manager->createAvatarPath(root.path(), "u2"));
  EXPECT_TRUE(logs.contains(
      log4cplus::ERROR_LOG_LEVEL,
      "make user directory failed, " + FileUtils::appendComponent(root.path(), "u2/avatars")));
  EXPECT_TRUE(FileUtils::directoryExists(tempsDirectory()));
  EXPECT_EQ(manager->avatarPath("https://avatars.test/1.png"), "");
  EXPECT_EQ(manager->downloadAvatar("id", "https://avatars.test/1.png"), "");
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST_F(AvatarCache, CleanCacheKeepsBothDirectoriesWithinTheBudget) {
  makeDirectories();
  for (int i = 0; i < 5; ++i) {
    writeBytes(FileUtils::appendComponent(avatarsDirectory(), std::to_string(i) + ".jpg"), 1000);
    writeBytes(FileUtils::appendComponent(tempsDirectory(), std::to_string(i)), 1000);
  }
  manager->cleanCache(2500);
  EXPECT_EQ(filesIn(avatarsDirectory()), 2u);
  EXPECT_EQ(filesIn(tempsDirectory()), 2u);
  manager->cleanCache(0);
  EXPECT_EQ(filesIn(avatarsDirectory()), 0u);
  EXPECT_EQ(filesIn(tempsDirectory()), 0u);
  EXPECT_TRUE(FileUtils::directoryExists(avatarsDirectory()));
}

TEST_F(AvatarCache, CleanCacheBeforeTheDirectoriesExistDoesNothing) {
  manager->cleanCache(0);
  EXPECT_EQ(filesIn(root.path()), 0u);
}

TEST_F(AvatarCache, UserIdsThatWouldLeaveTheRootAreRefusedWithNothingMade) {
  LogCapture logs;
  const std::string nestedRoot = FileUtils::appendComponent(root.path(), "r1/r2/r3");
  const std::vector<std::string> refused = {"",       "../../../escape",     "..",
                                            "a/../b", "/absolute",           "\\absolute",
                                            "a\\..",  std::string("u\0v", 3)};
  for (const auto& userId : refused) {
    SCOPED_TRACE(userId);
    EXPECT_FALSE(manager->createAvatarPath(nestedRoot, userId));
  }
  EXPECT_TRUE(std::filesystem::is_empty(root.path())) << "not even the root or its temps directory";
  EXPECT_FALSE(FileUtils::directoryExists(FileUtils::appendComponent(root.path(), "escape")));
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "avatar user id refused, it would leave the avatar root: "
                            "\"../../../escape\""));
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "avatar user id refused, it would leave the avatar root: \"u\\x00v\""));
  EXPECT_EQ(manager->avatarPath("https://avatars.test/1.png"), "");

  // Names that merely look alike stay accepted. Windows drops trailing dots from file names, so
  // there the look-alike ends with a letter.
#if defined(_WIN32)
  const std::string lookAlike = "team/..hidden...x";
#else
  const std::string lookAlike = "team/..hidden...";
#endif
  EXPECT_TRUE(manager->createAvatarPath(nestedRoot, lookAlike));
  EXPECT_TRUE(
      FileUtils::directoryExists(FileUtils::appendComponent(nestedRoot, lookAlike + "/avatars")));
}
