#pragma once

#include "inner/CloudStorageLogic.h"
#include "task/ITask.h"

#include "TestSupport.h"

#include <quill_base/SerialQueue.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quill_test {

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

// A request that records each stateCallback call (state, resultCode, resultMessage) and each
// progress percentage.
struct RecordedRequest {
  struct Ended {
    int state = 0;
    int code = 0;
    std::string message;
    CloudStorageEndCause cause;
    std::int64_t bytesDone = 0;
    std::int64_t bytesTotal = 0;
  };

  explicit RecordedRequest(bool isUpload, int kind,
                           const std::string& id = TextUtils::UUID_String())
      : request(std::make_shared<CloudStorageRequest>(isUpload)), log(std::make_shared<Log>()) {
    request->kind = kind;
    request->requestId = id;
    auto shared = log;
    request->stateCallback = [shared](std::shared_ptr<CloudStorageRequest> r, int state) {
      {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->ended.push_back(
            {state, r->resultCode, r->resultMessage, r->endCause, r->bytesDone, r->bytesTotal});
      }
      shared->endings.add();
    };
  }

  void recordProgress() {
    auto shared = log;
    request->progressCallback = [shared](std::shared_ptr<CloudStorageRequest>, int percent) {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->percents.push_back(percent);
    };
  }

  bool waitEnded(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return log->endings.waitFor(1, timeout);
  }
  int endCount() { return log->endings.value(); }
  Ended ended() {
    std::lock_guard<std::mutex> lock(log->mutex);
    return log->ended.empty() ? Ended{} : log->ended.front();
  }
  std::vector<int> percents() {
    std::lock_guard<std::mutex> lock(log->mutex);
    return log->percents;
  }

  struct Log {
    std::mutex mutex;
    std::vector<Ended> ended;
    std::vector<int> percents;
    EventCounter endings;
  };

  std::shared_ptr<CloudStorageRequest> request;
  std::shared_ptr<Log> log;
};

}  // namespace quill_test
