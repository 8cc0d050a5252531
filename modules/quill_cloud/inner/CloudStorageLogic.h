#pragma once

#include "inner/TaskTable.h"
#include "task/ITask.h"

#include <quill_cloud/CloudStorageConfig.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <quill_base/SerialQueue.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cloud {

// The scheduler: owns the live configuration and the serial queue "cloud storage", turns requests
// into tasks, starts at most 2 uploads and 4 downloads at once (oldest waiting first, per
// direction), holds uploads while the configuration is incomplete (when told to), restarts tasks
// that asked for a retry from a 2000 ms single-shot timer, and calls each request's stateCallback
// once when its task has ended.
//
// Public operations may be called from any thread: they post onto the queue and return. Everything
// else runs on the queue and takes no lock. Posted work holds the scheduler weakly.
class CloudStorageLogic : public std::enable_shared_from_this<CloudStorageLogic> {
public:
  using TaskFactory = std::function<std::shared_ptr<ITask>(
      const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
      std::shared_ptr<SerialQueue> queue, ITask::CompletionCallback completionCallback)>;

  // Signalled when a scheduler is destroyed, so that its owner can wait for work in progress.
  class Lifetime {
  public:
    void markDestroyed();
    void waitDestroyed();

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool destroyed = false;
  };

  // How long tasks that asked for a retry wait before they start again.
  static constexpr std::chrono::milliseconds kRetryInterval{2000};

  // `factory` makes the tasks; empty means the real download and upload tasks. Tests may shorten
  // `retryInterval`.
  explicit CloudStorageLogic(bool waitForConfig, TaskFactory factory = {},
                             std::chrono::milliseconds retryInterval = kRetryInterval);
  ~CloudStorageLogic();
  CloudStorageLogic(const CloudStorageLogic&) = delete;
  CloudStorageLogic& operator=(const CloudStorageLogic&) = delete;

  // The task type (CloudStorageTaskType) for (isUpload, kind): image, file and video uploads, image
  // and file downloads; 0 for every other pair.
  static int taskTypeFor(bool isUpload, int kind);

  bool addRequest(std::shared_ptr<CloudStorageRequest> request);
  void cancelRequestWithId(const std::string& requestId);
  void cancelAllRequests();
  void changeUser(const std::string& appId, const std::string& pin,
                  const std::string& userDirectory);
  void changeAid(const std::string& aid);

  // From now on no request callback starts and no task is started; waits for a callback that is
  // running (unless called from it). Callable from any thread.
  void close();

  // How the owner lets go of a scheduler: close(), then the last reference is released by a closure
  // on the scheduler's own queue, after whatever closure is running there. The configuration, the
  // indexes and the tasks thus end on the queue, never beside a task's closure that still reads
  // them through the task. Waits for the scheduler to be gone, unless called on its queue (it then
  // goes once the calling closure has returned). Callable from any thread.
  static void shutDown(std::shared_ptr<CloudStorageLogic> logic);

  const std::shared_ptr<SerialQueue>& getQueue() const { return queue; }

  // Snapshots for tests; call on the queue.
  const CloudStorageConfig& currentConfig() const { return config; }
  const std::string& currentCachePath() const { return cachePath; }
  std::size_t taskCount() const { return tasks.size(); }
  std::size_t retryCount() const { return retryList.size(); }
  bool retryTimerRunning() const { return retryTimerId != 0; }

private:
  // Runs `work` on the queue while this scheduler lives and is open.
  void post(std::function<void(CloudStorageLogic&)> work);

  void addTaskWithReqest(std::shared_ptr<CloudStorageRequest> request, int type);
  std::shared_ptr<ITask> createTask(std::shared_ptr<CloudStorageRequest> request, int type);
  void checkCachePath(const std::string& directory);
  bool needWaiting();
  void startNextRequest(bool uploads);
  void startTask(const std::shared_ptr<ITask>& task);
  void onTaskFinished(std::shared_ptr<ITask> task, bool retry);
  void dropTask(const std::shared_ptr<ITask>& task);
  void removeFromRetryList(const ITask* task);
  void startRetryTimer();
  void stopRetryTimer();
  void retryTasks();

  CloudStorageConfig config;
  std::shared_ptr<SerialQueue> queue;
  // Every task not yet dropped.
  TaskTable tasks;
  // Tasks that asked for a retry, restarted together by the retry timer.
  std::vector<std::shared_ptr<ITask>> retryList;
  ITask::CompletionCallback completionCallback;
  std::string cachePath;
  std::uint64_t retryTimerId = 0;
  std::chrono::milliseconds retryInterval;

  TaskFactory taskFactory;

  std::atomic<bool> closed{false};
  std::shared_ptr<CallbackGate> callbackGate = std::make_shared<CallbackGate>();
  std::shared_ptr<Lifetime> lifetimeSignal = std::make_shared<Lifetime>();
};

}  // namespace cloud
