#include "CloudEnvironment.h"
#include "TestFiles.h"
#include "TestImages.h"

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/AvatarManager.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using quill_test::CloudEnvironment;
using quill_test::EventCounter;
using quill_test::gradientImage;
using quill_test::ImageFormat;
using quill_test::imageSizeOf;
using quill_test::isJpegFile;
using quill_test::noiseImage;
using quill_test::readFile;
using quill_test::TempDir;

namespace {

class CountingListener : public IAvatarManagerListener {
public:
  void avatarDownloaded(const std::string& identifier) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      counts[identifier] += 1;
    }
    calls.add();
  }
  std::map<std::string, int> told() {
    std::lock_guard<std::mutex> lock(mutex);
    return counts;
  }

  EventCounter calls;

private:
  std::mutex mutex;
  std::map<std::string, int> counts;
};

// Runs `work` on the queue and waits for it: everything posted before it has run by then.
void drainQueue(SerialQueue& queue) {
  EventCounter done;
  queue.dispatch([&done] { done.add(); });
  ASSERT_TRUE(done.waitFor(1));
}

std::size_t regularFilesIn(const std::string& directory) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    count += entry.is_regular_file() ? 1 : 0;
  }
  return count;
}

std::uint64_t bytesIn(const std::string& directory) {
  std::uint64_t total = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    total += entry.is_regular_file() ? entry.file_size() : 0;
  }
  return total;
}

struct AvatarEndToEnd : ::testing::Test {
  TempDir user;
  TempDir root;
  TempDir sources;
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("avatar e2e");
  std::shared_ptr<CloudStorageService> service = std::make_shared<CloudStorageService>(true);
  std::shared_ptr<AvatarManager> manager = std::make_shared<AvatarManager>(queue, service);
  CountingListener listener;

  AvatarEndToEnd() {
    service->changeUser("app", "pin", user.path());
    service->changeAid("aid");
    manager->addListener(&listener);
    EXPECT_TRUE(manager->createAvatarPath(root.path(), "someone"));
  }

  ~AvatarEndToEnd() override {
    manager.reset();
    drainQueue(*queue);
  }

  // Stores the bytes on the server under `key`; returns the avatar's URL on the static host.
  std::string serve(const std::string& key, const std::string& bytes) {
    const std::string url = tryToServe(key, bytes);
    EXPECT_FALSE(url.empty()) << key;
    return url;
  }

  // As serve, "" when the server cannot store the bytes now.
  std::string tryToServe(const std::string& key, const std::string& bytes) {
    const std::string local = sources.file(key);
    std::ofstream(local, std::ios::binary) << bytes;
    const std::string path = CloudEnvironment::server().addFile(key, local);
    return path.empty() ? "" : CloudEnvironment::url(path);
  }

  std::string tempsDirectory() const { return FileUtils::appendComponent(root.path(), "temps"); }
  std::string avatarsDirectory() const {
    return FileUtils::appendComponent(root.path(), "someone/avatars");
  }
};

}  // namespace

TEST_F(AvatarEndToEnd, TwoHundredAvatarsAreEachAnnouncedOnceAt200Pixels) {
  // WebP where the platform decodes it (libvips); GIF on Windows, which has no WebP decoder in
  // every installation.
  const ImageFormat formats[] = {
      ImageFormat::kJpeg, ImageFormat::kPng,
      quill_test::canEncode(ImageFormat::kWebp) ? ImageFormat::kWebp : ImageFormat::kGif};
  const int sides[][2] = {{400, 300}, {240, 600}, {800, 500}, {150, 150}};
  std::vector<std::string> urls;
  for (int i = 0; i < 200; ++i) {
    const auto& side = sides[i % 4];
    urls.push_back(
        serve("avatar-" + std::to_string(i), gradientImage(side[0], side[1], formats[i % 3], i)));
  }
  for (std::size_t i = 0; i < urls.size(); ++i) {
    EXPECT_EQ(manager->downloadAvatar("id " + std::to_string(i), urls[i]), "");
  }
  ASSERT_TRUE(listener.calls.waitFor(200, std::chrono::seconds(120)));
  drainQueue(*queue);
  const auto told = listener.told();
  ASSERT_EQ(told.size(), 200u);
  for (std::size_t i = 0; i < urls.size(); ++i) {
    EXPECT_EQ(told.at("id " + std::to_string(i)), 1);
    const std::string path = manager->avatarPath(urls[i]);
    ASSERT_TRUE(isJpegFile(path)) << urls[i];
    const auto size = imageSizeOf(path);
    EXPECT_EQ(std::max(size.width, size.height), 200) << urls[i];
  }
  EXPECT_EQ(regularFilesIn(tempsDirectory()), 0u);
  EXPECT_EQ(regularFilesIn(avatarsDirectory()), 200u);
}

TEST_F(AvatarEndToEnd, ConcurrentAsksForOneUrlCollapseIntoOneRequest) {
  // A slow body keeps the first download in flight while the others ask.
  const std::string url =
      serve("slow-avatar", noiseImage(500, 500, ImageFormat::kJpeg, 3)) + "?quill_rate=200000";
  const auto before = CloudEnvironment::server().requestCount();
  std::vector<std::thread> askers;
  for (int i = 0; i < 6; ++i) {
    askers.emplace_back([&, i] { manager->downloadAvatar("asker " + std::to_string(i), url); });
  }
  for (auto& asker : askers) {
    asker.join();
  }
  ASSERT_TRUE(listener.calls.waitFor(1, std::chrono::seconds(60)));
  drainQueue(*queue);
  EXPECT_EQ(CloudEnvironment::server().requestCount() - before, 1u);
  EXPECT_EQ(listener.told().size(), 1u);
}

TEST_F(AvatarEndToEnd, ACorruptImageIsDroppedUnannouncedAndALaterAskRetries) {
  const std::string good = noiseImage(400, 300, ImageFormat::kPng, 9);
  const std::string url = serve("corrupt-avatar", good.substr(0, good.size() / 3));
  const auto before = CloudEnvironment::server().requestCount();
  manager->downloadAvatar("corrupt", url);
  // Until the first download has ended, asking again makes no new request.
  ASSERT_TRUE(quill_test::eventually([&] {
    manager->downloadAvatar("again", url);
    return CloudEnvironment::server().requestCount() - before >= 2;
  }));
  drainQueue(*queue);
  EXPECT_TRUE(listener.told().empty());
  EXPECT_FALSE(FileUtils::fileExists(manager->avatarPath(url)));

  // The server now has the whole image: the retry in flight (or the next ask) brings it in. On
  // Windows a stored file cannot be replaced while the server is still sending it to a download
  // in flight: the server is asked again until that one has ended.
  ASSERT_TRUE(quill_test::eventually([&] { return !tryToServe("corrupt-avatar", good).empty(); }));
  ASSERT_TRUE(quill_test::eventually(
      [&] {
        manager->downloadAvatar("again", url);
        return FileUtils::fileExists(manager->avatarPath(url));
      },
      std::chrono::seconds(30)));
  ASSERT_TRUE(listener.calls.waitFor(1));
  drainQueue(*queue);
  EXPECT_EQ(listener.told().count("corrupt"), 0u);
  // An ask made just as the good download ended may have started one more: once that has ended
  // too, no temporary file is left.
  EXPECT_TRUE(quill_test::eventually([&] { return regularFilesIn(tempsDirectory()) == 0; }));
}

TEST_F(AvatarEndToEnd, ACachedAvatarIsAnsweredWithItsPathAndNoRequest) {
  const std::string url = serve("cached-avatar", noiseImage(300, 300, ImageFormat::kJpeg, 4));
  manager->downloadAvatar("first", url);
  ASSERT_TRUE(listener.calls.waitFor(1));
  const auto before = CloudEnvironment::server().requestCount();
  EXPECT_EQ(manager->downloadAvatar("second", url), manager->avatarPath(url));
  drainQueue(*queue);
  EXPECT_EQ(CloudEnvironment::server().requestCount(), before);
  EXPECT_EQ(listener.told().size(), 1u);
}

TEST_F(AvatarEndToEnd, AnUploadedAvatarIsAnsweredWithItsHttpsUrl) {
  const std::string local = sources.file("me.jpg");
  std::ofstream(local, std::ios::binary) << noiseImage(256, 256, ImageFormat::kJpeg, 5);
  std::mutex mutex;
  std::vector<std::string> answers;
  EventCounter answered;
  manager->uploadAvatarImage(local, [&](const std::string& url) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      answers.push_back(url);
    }
    answered.add();
  });
  ASSERT_TRUE(answered.waitFor(1, std::chrono::seconds(30)));
  drainQueue(*queue);
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(answers.size(), 1u);
  ASSERT_TRUE(TextUtils::hasPrefix(answers[0], "https://")) << answers[0];
  const std::string path = answers[0].substr(answers[0].find('/', std::string("https://").size()));
  const std::string stored = CloudEnvironment::server().storedFile(path);
  ASSERT_FALSE(stored.empty()) << answers[0];
  EXPECT_EQ(readFile(stored), readFile(local));
}

TEST_F(AvatarEndToEnd, AManagerDestroyedWithDownloadsInFlightTellsNobody) {
  std::vector<std::string> urls;
  for (int i = 0; i < 6; ++i) {
    urls.push_back(
        serve("inflight-" + std::to_string(i), noiseImage(600, 600, ImageFormat::kJpeg, 20 + i)) +
        "?quill_rate=50000");
  }
  for (std::size_t i = 0; i < urls.size(); ++i) {
    manager->downloadAvatar("inflight " + std::to_string(i), urls[i]);
  }
  manager.reset();
  // The service finishes (or is torn down with) the transfers; none reaches the manager.
  service.reset();
  drainQueue(*queue);
  EXPECT_TRUE(listener.told().empty());
}

TEST_F(AvatarEndToEnd, CleanCacheKeepsTheDirectoriesWithinTheBudget) {
  for (int i = 0; i < 8; ++i) {
    manager->downloadAvatar(
        "clean " + std::to_string(i),
        serve("clean-" + std::to_string(i), noiseImage(300 + i, 300, ImageFormat::kJpeg, 40 + i)));
  }
  ASSERT_TRUE(listener.calls.waitFor(8, std::chrono::seconds(60)));
  drainQueue(*queue);
  const std::uint64_t all = bytesIn(avatarsDirectory());
  ASSERT_GT(all, 0u);
  std::ofstream(FileUtils::appendComponent(tempsDirectory(), "stale"), std::ios::binary)
      << std::string(50000, 's');
  const std::uint64_t budget = all / 2;
  manager->cleanCache(budget);
  EXPECT_LE(bytesIn(avatarsDirectory()), budget);
  EXPECT_GT(regularFilesIn(avatarsDirectory()), 0u);
  EXPECT_LE(bytesIn(tempsDirectory()), budget);
}

TEST_F(AvatarEndToEnd, NamesBeyondAsciiInDirectoriesUserIdsAndFilesWork) {
  const std::string userDirectory = user.path() + "/Zoë 文件";
  const std::string avatarRoot = root.path() + "/Zoë 文件";
  ASSERT_TRUE(quill_test::makeDirectories(userDirectory));
  CountingListener zoeListener;
  auto zoeService = std::make_shared<CloudStorageService>(true);
  zoeService->changeUser("app", "pin", userDirectory);
  zoeService->changeAid("aid");
  auto zoeManager = std::make_shared<AvatarManager>(queue, zoeService);
  // Whatever happens below, the manager is gone and its queue drained before the listener.
  struct Release {
    std::shared_ptr<AvatarManager>& manager;
    SerialQueue& queue;
    ~Release() {
      manager.reset();
      drainQueue(queue);
    }
  } release{zoeManager, *queue};
  zoeManager->addListener(&zoeListener);
  ASSERT_TRUE(zoeManager->createAvatarPath(avatarRoot, "Zoë 文件"));

  const std::string url = serve("zoe-avatar", gradientImage(640, 480, ImageFormat::kPng, 11));
  EXPECT_EQ(zoeManager->downloadAvatar("Zoë", url), "");
  ASSERT_TRUE(zoeListener.calls.waitFor(1, std::chrono::seconds(30)));
  const std::string path = zoeManager->avatarPath(url);
  EXPECT_NE(path.find("Zoë 文件"), std::string::npos) << path;
  ASSERT_TRUE(isJpegFile(path)) << path;
  EXPECT_EQ(imageSizeOf(path).width, 200);
  EXPECT_EQ(imageSizeOf(path).height, 150);

  const std::string folder = sources.path() + "/Zoë 文件";
  ASSERT_TRUE(quill_test::makeDirectories(folder));
  const std::string local = folder + "/头像 Zoë.jpg";
  ASSERT_TRUE(quill_test::writeBytes(local, noiseImage(256, 256, ImageFormat::kJpeg, 12)));
  std::mutex mutex;
  std::string answer;
  EventCounter answered;
  zoeManager->uploadAvatarImage(local, [&](const std::string& storedUrl) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      answer = storedUrl;
    }
    answered.add();
  });
  ASSERT_TRUE(answered.waitFor(1, std::chrono::seconds(30)));
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_TRUE(TextUtils::hasPrefix(answer, "https://")) << answer;
  const std::string stored = CloudEnvironment::server().storedFile(
      answer.substr(answer.find('/', std::string("https://").size())));
  ASSERT_FALSE(stored.empty()) << answer;
  EXPECT_EQ(quill_test::readBytes(stored), quill_test::readBytes(local));
}
