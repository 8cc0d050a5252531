#include "AvatarTestSupport.h"

#include <thread>

using quill_test::AvatarFixture;
using quill_test::canEncode;
using quill_test::ImageFormat;
using quill_test::imageSizeOf;
using quill_test::isJpegFile;
using quill_test::noiseImage;
using quill_test::RecordingListener;
using quill_test::runOnQueue;

namespace {

using AvatarDownload = AvatarFixture;

const std::string kUrl = "https://avatars.test/people/7.jpg";

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

TEST_F(AvatarDownload, ACachedAvatarIsAnsweredWithItsPathAndNoRequest) {
  makeDirectories();
  const std::string path = manager->avatarPath(kUrl);
  std::ofstream(path, std::ios::binary) << noiseImage(200, 200, ImageFormat::kJpeg);
  EXPECT_EQ(manager->downloadAvatar("me", kUrl), path);
  EXPECT_TRUE(endsWith(path, ".jpg"));
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST_F(AvatarDownload, ADownloadIsScaledTo200AndAnnouncedOnceOnTheQueue) {
  makeDirectories();
  EXPECT_EQ(manager->downloadAvatar("person 7", kUrl), "");
  ASSERT_TRUE(transport->waitForCalls(1));
  EXPECT_EQ(transport->call(0).spec.url, kUrl);
  deliver(0, noiseImage(800, 600, ImageFormat::kJpeg));
  ASSERT_TRUE(listener.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_EQ(listener.told(), std::vector<std::string>{"person 7"});
  EXPECT_EQ(listener.toldOffQueue(), 0);

  const std::string path = manager->avatarPath(kUrl);
  EXPECT_TRUE(isJpegFile(path));
  EXPECT_EQ(imageSizeOf(path).width, 200);
  EXPECT_EQ(imageSizeOf(path).height, 150);
  EXPECT_FALSE(FileUtils::fileExists(tempPathOf(kUrl))) << "the unscaled download is removed";
  EXPECT_EQ(filesIn(tempsDirectory()), 0u);
  EXPECT_EQ(manager->downloadAvatar("person 7", kUrl), path) << "now answered from the cache";
  EXPECT_EQ(transport->startedCalls().size(), 1u);
}

TEST_F(AvatarDownload, PngAndOtherFormatAvatarsBecome200PixelJpegs) {
  makeDirectories();
  // WebP where the platform decodes it (libvips); Windows has no WebP decoder in every
  // installation, so GIF there.
  const ImageFormat other = canEncode(ImageFormat::kWebp) ? ImageFormat::kWebp : ImageFormat::kGif;
  const std::string png = "https://avatars.test/a.png";
  const std::string image =
      other == ImageFormat::kWebp ? "https://avatars.test/b.webp" : "https://avatars.test/b.gif";
  manager->downloadAvatar("png", png);
  manager->downloadAvatar("other", image);
  deliver(0, noiseImage(300, 600, ImageFormat::kPng));
  deliver(1, noiseImage(1000, 500, other));
  ASSERT_TRUE(listener.calls.waitFor(2));
  EXPECT_EQ(imageSizeOf(manager->avatarPath(png)).height, 200);
  EXPECT_EQ(imageSizeOf(manager->avatarPath(png)).width, 100);
  EXPECT_EQ(imageSizeOf(manager->avatarPath(image)).width, 200);
  EXPECT_EQ(imageSizeOf(manager->avatarPath(image)).height, 100);
  EXPECT_TRUE(isJpegFile(manager->avatarPath(image)));
}

TEST_F(AvatarDownload, TwoAsksBeforeTheFirstEndsMakeOneRequestAndOneAnnouncement) {
  makeDirectories();
  EXPECT_EQ(manager->downloadAvatar("first", kUrl), "");
  EXPECT_EQ(manager->downloadAvatar("second", kUrl), "");
  deliver(0, noiseImage(400, 400, ImageFormat::kJpeg));
  ASSERT_TRUE(listener.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_EQ(listener.told(), std::vector<std::string>{"first"});
  EXPECT_EQ(transport->startedCalls().size(), 1u);
}

TEST_F(AvatarDownload, AsksFromManyThreadsAtOnceMakeOneRequest) {
  makeDirectories();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      for (int round = 0; round < 50; ++round) {
        manager->downloadAvatar("thread " + std::to_string(i), kUrl);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(transport->waitForCalls(1));
  deliver(0, noiseImage(300, 300, ImageFormat::kJpeg));
  ASSERT_TRUE(listener.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_EQ(transport->startedCalls().size(), 1u);
  EXPECT_EQ(listener.told().size(), 1u);
}

TEST_F(AvatarDownload, AnImageThatCannotBeScaledIsDroppedUnannouncedAndMayBeAskedAgain) {
  makeDirectories();
  manager->downloadAvatar("broken", kUrl);
  const std::string jpeg = noiseImage(400, 300, ImageFormat::kJpeg);
  deliver(0, jpeg.substr(0, jpeg.size() / 2));  // a truncated JPEG
  ASSERT_TRUE(retriedAs(2, kUrl));
  EXPECT_TRUE(listener.told().empty());
  EXPECT_FALSE(FileUtils::fileExists(manager->avatarPath(kUrl)));
  EXPECT_EQ(filesIn(tempsDirectory()), 0u) << "the temporary file is removed";

  deliver(1, "not an image at all");
  ASSERT_TRUE(retriedAs(3, kUrl));
  EXPECT_TRUE(listener.told().empty());
  EXPECT_EQ(filesIn(tempsDirectory()), 0u);

  deliver(2, jpeg);
  ASSERT_TRUE(listener.calls.waitFor(1));
  EXPECT_EQ(listener.told(), std::vector<std::string>{"retry"});
}

TEST_F(AvatarDownload, AFailedDownloadIsForgottenWithoutAnnouncement) {
  makeDirectories();
  manager->downloadAvatar("missing", kUrl);
  ASSERT_TRUE(transport->waitForCalls(1));
  transport->end(transport->call(0).id, 2, 404, "");
  ASSERT_TRUE(retriedAs(2, kUrl));
  EXPECT_TRUE(listener.told().empty());
  EXPECT_FALSE(FileUtils::fileExists(manager->avatarPath(kUrl)));
  EXPECT_EQ(filesIn(avatarsDirectory()), 0u);
}

TEST_F(AvatarDownload, AStaleTemporaryFileIsRemovedWhenADownloadStarts) {
  makeDirectories();
  std::ofstream(tempPathOf(kUrl), std::ios::binary) << "left over by an earlier run";
  EXPECT_EQ(manager->downloadAvatar("me", kUrl), "");
  EXPECT_FALSE(FileUtils::fileExists(tempPathOf(kUrl)));
  ASSERT_TRUE(transport->waitForCalls(1));
}

TEST_F(AvatarDownload, RefusedWithoutServiceUrlOrDirectories) {
  EXPECT_EQ(manager->downloadAvatar("me", kUrl), "") << "no directories yet";
  makeDirectories();
  EXPECT_EQ(manager->downloadAvatar("me", ""), "");
  auto alone = std::make_shared<AvatarManager>(queue, nullptr);
  ASSERT_TRUE(alone->createAvatarPath(root.path(), "u1"));
  EXPECT_EQ(alone->downloadAvatar("me", kUrl), "");
  flushService();
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST_F(AvatarDownload, ADownloadEndingAfterTheManagerIsGoneTellsNobody) {
  makeDirectories();
  manager->downloadAvatar("late", kUrl);
  ASSERT_TRUE(transport->waitForCalls(1));
  manager.reset();
  deliver(0, noiseImage(300, 300, ImageFormat::kJpeg));
  transport->drain();
  flushService();
  runOnQueue(*queue, [] {});
  EXPECT_TRUE(listener.told().empty());
}

TEST_F(AvatarDownload, OnlyTheLatestListenerIsTold) {
  makeDirectories();
  RecordingListener replacement{queue};
  manager->addListener(&replacement);
  manager->downloadAvatar("me", kUrl);
  deliver(0, noiseImage(300, 300, ImageFormat::kJpeg));
  ASSERT_TRUE(replacement.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_TRUE(listener.told().empty());
  EXPECT_EQ(replacement.told(), std::vector<std::string>{"me"});
  manager->addListener(nullptr);
}

TEST_F(AvatarDownload, WithoutAListenerTheAvatarIsStillCached) {
  makeDirectories();
  manager->addListener(nullptr);
  manager->downloadAvatar("me", kUrl);
  deliver(0, noiseImage(300, 300, ImageFormat::kJpeg));
  EXPECT_TRUE(
      quill_test::eventually([&] { return FileUtils::fileExists(manager->avatarPath(kUrl)); }));
}

TEST_F(AvatarDownload, AnAvatarRetriedOnTheImageCdnHostIsKeptUnderItsOwnUrl) {
  makeDirectories();
  const std::string url = "https://static.quill.example/people/9.jpg";
  manager->downloadAvatar("cdn", url);
  ASSERT_TRUE(transport->waitForCalls(1));
  transport->end(transport->call(0).id, 2, 500, "");
  // The image retry starts the download again, on the image CDN host.
  ASSERT_TRUE(transport->waitForCalls(2));
  EXPECT_EQ(transport->call(1).spec.url, "https://img.quill.example/people/9.jpg");
  deliver(1, noiseImage(400, 400, ImageFormat::kJpeg));
  ASSERT_TRUE(listener.calls.waitFor(1));
  EXPECT_EQ(listener.told(), std::vector<std::string>{"cdn"});
  EXPECT_TRUE(FileUtils::fileExists(manager->avatarPath(url)));
  EXPECT_EQ(manager->downloadAvatar("cdn", url), manager->avatarPath(url));
}
