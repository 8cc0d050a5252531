#pragma once

#include <quill_cloud/CloudStorageConfig.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <quill_base/SerialQueue.h>

#include "task/CallbackGate.h"

#include <quill_network/HttpResponse.h>

#include <functional>
#include <memory>
#include <string>

namespace cloud {

// Internal task types derived from (isUpload, kind).
enum TaskType : int {
  kImageUpload = 1,
  kFileUpload = 2,
  kImageDownload = 3,
  kFileDownload = 4,
  kVideoUpload = 5,
};

// Task states, as passed to a request's stateCallback.
enum TaskState : int {
  kWaiting = 1,
  kRunning = 2,
  kFinished = 3,
};

// The base of the transfer tasks: binds one request to the scheduler. Always owned through a
// std::shared_ptr; everything but onProgress runs on the serial queue, so nothing here is locked.
// Every end of a task goes through finish(), which writes the request's outcome and tells the
// scheduler through the completion callback.
class ITask : public std::enable_shared_from_this<ITask> {
public:
  using CompletionCallback = std::function<void(std::shared_ptr<ITask>, bool)>;

  ITask(const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
        std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback);
  virtual ~ITask();
  ITask(const ITask&) = delete;
  ITask& operator=(const ITask&) = delete;

  // Checks the request, records the configuration (not owned), sets the state to running and
  // starts the transfer; false when the task cannot start (it has then ended itself, if it could).
  virtual bool startWithConfig(CloudStorageConfig* config) = 0;
  // Stops the transfer and ends the task.
  virtual void cancel() = 0;

  int type() const { return taskType; }
  int state() const { return taskState; }
  int progress() const { return lastProgress; }
  std::shared_ptr<CloudStorageRequest> getRequest() const { return request; }
  bool isDownload() const;
  bool isUpload() const;
  bool hasRequestId(const std::string& id) const;
  bool isSameTask(std::shared_ptr<ITask> other) const;

  // Callable from any thread: posts the numbers to the queue, where they become a whole percentage
  // for the request's progressCallback. Nothing is posted for, or run on, a task that is gone.
  void onProgress(double done, double total);

  // Ends the task: clears the transfer id, stores the state, writes code and message into the
  // request and tells the scheduler (the flag asks for a retry).
  void finish(int state, int code, const std::string& message, bool retry);
  // finish(3, -1, message, retry)
  void fail(const std::string& message, bool retry);

  // Records why the task is about to end, for the request's endCause; finish() writes it (a failure
  // without a recorded cause gets its message as the cause) and forgets it.
  void noteEndCause(std::string text, int systemError = 0, int httpStatus = 0);
  void noteEndCause(CloudStorageEndCause cause) { pendingCause = std::move(cause); }
  // The same from a network response: its error text, errno and status.
  void noteEndCause(const HttpResponse& response);

  // The gate through which this task calls the request's progressCallback.
  void setCallbackGate(std::shared_ptr<CallbackGate> gate) { callbackGate = std::move(gate); }

  // A progress function for the network thread that posts (done, total) to this task's queue; an
  // empty function when the request has no progressCallback.
  std::function<void(double, double)> makeProgressFunction();

protected:
  void reportProgress(double done, double total);

  // For callbacks on network threads: posts `work` onto the queue, where it runs with the task if
  // the task still lives by then. Holds neither the task nor the queue alive, so a task is never
  // destroyed on a network thread.
  template <typename Task, typename Work>
  static void postIfAlive(const std::weak_ptr<Task>& task, const std::weak_ptr<SerialQueue>& queue,
                          Work work) {
    if (task.expired()) {
      return;
    }
    if (auto target = queue.lock()) {
      target->dispatch([task, work = std::move(work)]() mutable {
        if (auto alive = task.lock()) {
          work(*alive);
        }
      });
    }
  }

  std::string cachePath;
  int taskType;
  std::shared_ptr<CloudStorageRequest> request;
  std::shared_ptr<SerialQueue> queue;
  CompletionCallback completionCallback;
  int taskState = kWaiting;
  int lastProgress = 0;
  CloudStorageConfig* config = nullptr;
  // Id of the transfer in flight, as HttpClient returned it; empty when none.
  std::string transferId;
  std::shared_ptr<CallbackGate> callbackGate;
  CloudStorageEndCause pendingCause;
};

}  // namespace cloud
