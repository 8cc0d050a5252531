#pragma once

#include "CloudTestSupport.h"
#include "ScriptedTransport.h"
#include "TestImages.h"
#include "TestSupport.h"
#include "inner/ServiceFactory.h"

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/AvatarManager.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quill_test {

// Records every identifier it is told, and whether it was told on the manager's queue.
class RecordingListener : public IAvatarManagerListener {
public:
  explicit RecordingListener(std::shared_ptr<SerialQueue> queue) : queue(std::move(queue)) {}

  void avatarDownloaded(const std::string& identifier) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      identifiers.push_back(identifier);
      if (!queue->isCurrentQueue()) {
        offQueueCalls += 1;
      }
    }
    calls.add();
  }

  std::vector<std::string> told() const {
    std::lock_guard<std::mutex> lock(mutex);
    return identifiers;
  }
  int toldOffQueue() const {
    std::lock_guard<std::mutex> lock(mutex);
    return offQueueCalls;
  }

  EventCounter calls;

private:
  std::shared_ptr<SerialQueue> queue;
  mutable std::mutex mutex;
  std::vector<std::string> identifiers;
  int offQueueCalls = 0;
};

// A manager on a scripted transport: its own queue, a signed-in service, a cache root with the
// directories of user "u1" made.
struct AvatarFixture : ::testing::Test {
  std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
  ScopedTransport installed{transport};
  TempDir userDirectory;
  TempDir root;
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("avatars");
  std::shared_ptr<CloudStorageService> service =
      cloud::ServiceFactory::make(true, kShortRetryInterval);
  std::shared_ptr<AvatarManager> manager = std::make_shared<AvatarManager>(queue, service);
  RecordingListener listener{queue};

  AvatarFixture() {
    service->changeUser("app", "pin", userDirectory.path());
    service->changeAid("aid");
    manager->addListener(&listener);
  }

  ~AvatarFixture() override {
    // The manager goes first, then whatever its queue still runs.
    manager.reset();
    runOnQueue(*queue, [] {});
  }

  void makeDirectories() { ASSERT_TRUE(manager->createAvatarPath(root.path(), "u1")); }

  std::string tempsDirectory() const { return FileUtils::appendComponent(root.path(), "temps"); }
  std::string avatarsDirectory() const {
    return FileUtils::appendComponent(root.path(), "u1/avatars");
  }
  std::string tempPathOf(const std::string& url) const {
    return FileUtils::appendComponent(tempsDirectory(), TextUtils::hashString(url));
  }

  // Ends the download started as transfer `index` with `body` as the downloaded bytes.
  void deliver(std::size_t index, const std::string& body) {
    ASSERT_TRUE(transport->waitForCalls(index + 1));
    transport->succeedDownload(transport->call(index).id, body);
  }

  // Asks for the avatar again until that starts a new transfer, the `calls`-th: proof that the
  // earlier download of it has ended and been forgotten. Then lets the manager's queue run out, so
  // that anything the ending would have told the listener has been told.
  bool retriedAs(std::size_t calls, const std::string& url) {
    const bool started = eventually([&] {
      manager->downloadAvatar("retry", url);
      return transport->startedCalls().size() >= calls;
    });
    runOnQueue(*queue, [] {});
    return started;
  }

  // Returns once the service's queue has run everything queued on it before this call: a download
  // that fails at once (no URL) ends on that queue after the work ahead of it.
  void flushService() {
    RecordedRequest probe(false, CloudStorageKind::kFile);
    ASSERT_TRUE(service->excuteRequest(probe.request));
    ASSERT_TRUE(probe.waitEnded());
  }

  static std::size_t filesIn(const std::string& directory) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
};

}  // namespace quill_test
