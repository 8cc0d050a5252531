// Letting go of the scheduler while one of its tasks' closures is running on the queue: the
// scheduler, its configuration and its tasks must outlive that closure.
#include "CloudTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using quill_test::EventCounter;
using quill_test::RecordedRequest;
using quill_test::TempDir;

namespace {

// A task that, like a transfer's completion, posts a closure holding only itself; the closure
// waits for the test, then reads the configuration the task was started with.
class LatchedTask : public cloud::ITask {
public:
  using ITask::ITask;

  bool startWithConfig(CloudStorageConfig* started) override {
    config = started;
    enterRunning();
    holdTransfer("latched");
    return true;
  }
  void cancel() override {
    finish(CloudStorageState::kFinished, CloudStorageResult::kCancelled, "", false);
  }

  void postLatched(std::shared_future<void> latch, EventCounter& entered, std::string& seenAppId,
                   EventCounter& done) {
    const std::weak_ptr<LatchedTask> self =
        std::static_pointer_cast<LatchedTask>(shared_from_this());
    postIfAlive(self, std::weak_ptr<SerialQueue>(queue),
                [entered = &entered, seen = &seenAppId, done = &done, latch](LatchedTask& task) {
                  entered->add();
                  latch.wait();
                  *seen = task.config->appId;
                  done->add();
                });
  }
};

}  // namespace

TEST(SchedulerTeardown, WaitsForATaskClosureRunningOnTheQueue) {
  TempDir user;
  std::mutex madeMutex;
  std::weak_ptr<LatchedTask> made;
  auto logic = std::make_shared<cloud::CloudStorageLogic>(
      false,
      [&](const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
          std::shared_ptr<SerialQueue> queue, cloud::ITask::CompletionCallback completion) {
        auto task = std::make_shared<LatchedTask>(cachePath, type, std::move(request),
                                                  std::move(queue), std::move(completion));
        std::lock_guard<std::mutex> lock(madeMutex);
        made = task;
        return task;
      });
  logic->changeUser("teardown-application-identity", "pin", user.path());
  RecordedRequest recorded(false, CloudStorageKind::kFile);
  recorded.request->url = "https://files.test/a";
  ASSERT_TRUE(logic->addRequest(recorded.request));
  const auto task = [&] {
    std::lock_guard<std::mutex> lock(madeMutex);
    return made.lock();
  };
  // The task's state belongs to the queue: it is read there.
  const auto queue = logic->getQueue();
  ASSERT_TRUE(quill_test::eventually([&] {
    bool running = false;
    quill_test::runOnQueue(*queue, [&] {
      auto started = task();
      running = started && started->state() == CloudStorageState::kRunning;
    });
    return running;
  }));

  std::promise<void> release;
  EventCounter entered;
  EventCounter done;
  std::string seenAppId;
  task()->postLatched(release.get_future().share(), entered, seenAppId, done);
  ASSERT_TRUE(entered.waitFor(1));

  // Only the scheduler owns the task now, and the closure holds it while it runs.
  std::atomic<bool> returned{false};
  std::thread owner([&] {
    cloud::CloudStorageLogic::shutDown(std::move(logic));
    returned = true;
  });
  EXPECT_FALSE(
      quill_test::eventually([&] { return returned.load(); }, std::chrono::milliseconds(50)))
      << "the scheduler went while a closure of its task was still running";
  release.set_value();
  ASSERT_TRUE(done.waitFor(1));
  owner.join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(seenAppId, "teardown-application-identity");
  EXPECT_TRUE(task() == nullptr) << "the task went with the scheduler";
  EXPECT_EQ(recorded.endCount(), 0) << "no callback once the owner let go";
}
