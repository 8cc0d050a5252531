#pragma once

#include "inner/CloudStorageLogic.h"
#include "task/ITask.h"

#include "RecordedRequest.h"
#include "TestSupport.h"

#include <quill_base/SerialQueue.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quill_test {

// The retry interval of the schedulers and services made by the tests: a retry costs them 150 ms
// rather than the shipped two seconds.
inline constexpr std::chrono::milliseconds kShortRetryInterval{150};

// Runs `work` on the queue and waits for it to finish.
inline void runOnQueue(SerialQueue& queue, const std::function<void()>& work) {
  EventCounter done;
  queue.dispatch([&] {
    work();
    done.add();
  });
  done.waitFor(1);
}

// A task whose transfer is played by the test: start and cancel are recorded, the end comes when
// the test calls end() (on the queue).
class FakeTask : public cloud::ITask {
public:
  using ITask::ITask;

  bool startWithConfig(CloudStorageConfig* config) override {
    this->config = config;
    ++starts;
    enterRunning();
    holdTransfer("fake");
    return true;
  }

  void cancel() override {
    ++cancels;
    finish(CloudStorageState::kFinished, CloudStorageResult::kCancelled, "", false);
  }

  void end(int code, const std::string& message, bool retry) {
    finish(CloudStorageState::kFinished, code, message, retry);
  }

  using ITask::onProgress;
  CloudStorageConfig* startedWith() const { return config; }

  int starts = 0;
  int cancels = 0;
};

// A scheduler whose tasks are FakeTasks, with the tasks it made kept in order of making.
class FakeScheduler {
public:
  explicit FakeScheduler(bool waitForConfig, std::chrono::milliseconds retryInterval =
                                                 cloud::CloudStorageLogic::kRetryInterval)
      : logic(std::make_shared<cloud::CloudStorageLogic>(
            waitForConfig,
            [this](const std::string& cachePath, int type,
                   std::shared_ptr<CloudStorageRequest> request, std::shared_ptr<SerialQueue> queue,
                   cloud::ITask::CompletionCallback completion) {
              auto task = std::make_shared<FakeTask>(cachePath, type, std::move(request),
                                                     std::move(queue), std::move(completion));
              std::lock_guard<std::mutex> lock(mutex);
              made.push_back(task);
              return task;
            },
            retryInterval)) {}

  ~FakeScheduler() { cloud::CloudStorageLogic::shutDown(std::move(logic)); }

  SerialQueue& queue() { return *logic->getQueue(); }

  // Runs `work` on the queue and waits for it (and for everything posted before it).
  void onQueue(const std::function<void()>& work) { runOnQueue(queue(), work); }
  void settle() {
    onQueue([] {});
  }

  std::shared_ptr<FakeTask> task(std::size_t index) {
    std::lock_guard<std::mutex> lock(mutex);
    return index < made.size() ? made[index] : nullptr;
  }
  std::size_t madeCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return made.size();
  }

  std::shared_ptr<cloud::CloudStorageLogic> logic;

private:
  std::mutex mutex;
  std::vector<std::shared_ptr<FakeTask>> made;
};

}  // namespace quill_test
