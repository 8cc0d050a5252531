#pragma once

#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/CloudStorageConfig.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <quill_base/SerialQueue.h>

#include "task/CallbackGate.h"

#include <quill_network/HttpResponse.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace cloud {

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
  // 1 waiting, 2 running, 3 ended (or held for a retry).
  int state() const;
  int progress() const { return lastProgress; }
  std::shared_ptr<CloudStorageRequest> getRequest() const { return request; }
  bool isDownload() const;
  bool isUpload() const;
  bool hasRequestId(const std::string& id) const;
  bool isSameTask(std::shared_ptr<ITask> other) const;

  // Callable from any thread: posts the numbers to the queue, where they become a whole percentage
  // for the request's progressCallback. Nothing is posted for, or run on, a task that is gone.
  void onProgress(double done, double total);

  // Ends the task: stores the state (3), writes code and message into the request and tells the
  // scheduler (the flag asks for a retry). A task ends once: a second call does nothing, unless
  // the first asked for a retry (the task is then held for its restart, and may still be ended,
  // by a cancel for instance). The transfer slot is emptied; a reply still on its way is stale.
  void finish(int state, int code, const std::string& message, bool retry);
  // finish(kFinished, kFailed, message, retry)
  void fail(const std::string& message, bool retry);

  // Records why the task is about to end, for the request's endCause; finish() writes it (a failure
  // without a recorded cause gets its message as the cause) and forgets it.
  void noteEndCause(std::string text, int systemError = 0, int httpStatus = 0);
  void noteEndCause(CloudStorageEndCause cause) { pendingCause = std::move(cause); }
  // The same from a network response: its error text, errno and status, and its timeline.
  void noteEndCause(const HttpResponse& response);
  // Records how the task's latest transfer went; finish() hands it to the request's endCause
  // whatever the outcome.
  void noteTimeline(const HttpTimeline& timeline);

  // Told each time progress reaches the request, with the bytes moved so far.
  virtual void bytesMoved(std::int64_t /*done*/) {}

  // The gate through which this task calls the request's progressCallback.
  void setCallbackGate(std::shared_ptr<CallbackGate> gate) { callbackGate = std::move(gate); }

  // A progress function for the network thread that posts (done, total) to this task's queue; an
  // empty function when the request has no progressCallback.
  std::function<void(double, double)> makeProgressFunction();

protected:
  void reportProgress(double done, double total);

  // The life of a task: waiting, running, ended; in between, ended asking for a retry and held for
  // the restart. The state a request's callback sees is 1, 2 or 3 (3 for both kinds of ended).
  // Moves a waiting task (or one held for a retry) to running; false, changing nothing, otherwise.
  bool enterRunning();
  bool hasEnded() const { return life == Life::Ended; }

  // The transfer in flight: one slot, whatever the route. A transfer is opened (numbered) before
  // it starts, so that its reply can name it, and held once HttpClient has given it an id.
  // Opening a transfer makes every earlier one stale.
  std::uint64_t openTransfer();
  void holdTransfer(std::string id);
  bool hasTransfer() const { return !transferId.empty(); }
  // True while the task runs and transfer `transfer` (numbered by openTransfer) is still awaited.
  bool currentTransferIs(std::uint64_t transfer) const;
  // Asks HttpClient to cancel the transfer in flight; its reply still comes, and is handled or
  // dropped by the rule of postTransferEnd.
  void cancelTransfer() const;

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

  // The end of a transfer, from its network thread: `work` runs on the queue only while the task
  // lives, runs, and still waits for this transfer (numbered `transfer` by openTransfer); the slot
  // is emptied first. Every reply of every route comes through here, so that one which arrives
  // after a cancel ended the task, or after a newer transfer was opened, is dropped here alone.
  template <typename Task, typename Work>
  static void postTransferEnd(const std::weak_ptr<Task>& task,
                              const std::weak_ptr<SerialQueue>& queue, std::uint64_t transfer,
                              Work work) {
    postIfAlive(task, queue, [transfer, work = std::move(work)](Task& alive) mutable {
      if (static_cast<ITask&>(alive).takeTransferEnd(transfer)) {
        work(alive);
      }
    });
  }

  std::string cachePath;
  int taskType;
  std::shared_ptr<CloudStorageRequest> request;
  std::shared_ptr<SerialQueue> queue;
  CompletionCallback completionCallback;
  int lastProgress = 0;
  CloudStorageConfig* config = nullptr;
  std::shared_ptr<CallbackGate> callbackGate;
  CloudStorageEndCause pendingCause;
  CloudStorageTimeline lastTimeline;

private:
  enum class Life { Waiting, Running, HeldForRetry, Ended };

  // True (and the slot emptied) when the reply of transfer `transfer` is the one awaited.
  bool takeTransferEnd(std::uint64_t transfer);

  Life life = Life::Waiting;
  // Id of the transfer in flight, as HttpClient returned it; empty when none.
  std::string transferId;
  // Number of the transfer opened last; a reply of any other is stale.
  std::uint64_t currentTransfer = 0;
};

}  // namespace cloud
