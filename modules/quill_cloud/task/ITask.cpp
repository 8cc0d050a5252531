#include "task/ITask.h"

#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace cloud {

ITask::ITask(const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
             std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback)
    : cachePath(cachePath),
      taskType(type),
      request(std::move(request)),
      queue(std::move(queue)),
      completionCallback(std::move(completionCallback)) {}

ITask::~ITask() {
  // Abandons a transfer still in flight: its reply finds the task gone and does nothing.
  cancelTransfer();
}

int ITask::state() const {
  switch (life) {
    case Life::Waiting:
      return CloudStorageState::kWaiting;
    case Life::Running:
      return CloudStorageState::kRunning;
    case Life::HeldForRetry:
    case Life::Ended:
      return CloudStorageState::kFinished;
  }
  return CloudStorageState::kFinished;
}

bool ITask::enterRunning() {
  if (life != Life::Waiting && life != Life::HeldForRetry) {
    return false;
  }
  life = Life::Running;
  return true;
}

std::uint64_t ITask::openTransfer() {
  transferId.clear();
  return ++currentTransfer;
}

void ITask::holdTransfer(std::string id) {
  transferId = std::move(id);
}

void ITask::cancelTransfer() const {
  if (!transferId.empty()) {
    HttpClient::cancelRequest(transferId);
  }
}

bool ITask::currentTransferIs(std::uint64_t transfer) const {
  return life == Life::Running && transfer == currentTransfer;
}

bool ITask::takeTransferEnd(std::uint64_t transfer) {
  if (life != Life::Running || transfer != currentTransfer) {
    return false;
  }
  // Retired: a second reply of the same transfer is stale too.
  ++currentTransfer;
  transferId.clear();
  return true;
}

bool ITask::isDownload() const {
  return taskType == CloudStorageTaskType::kImageDownload ||
         taskType == CloudStorageTaskType::kFileDownload;
}

bool ITask::isUpload() const {
  return taskType == CloudStorageTaskType::kImageUpload ||
         taskType == CloudStorageTaskType::kFileUpload ||
         taskType == CloudStorageTaskType::kVideoUpload;
}

bool ITask::hasRequestId(const std::string& id) const {
  return request && TextUtils::isEquals(request->requestId, id);
}

bool ITask::isSameTask(std::shared_ptr<ITask> other) const {
  if (!other || other->taskType != taskType || !request || !other->request) {
    return false;
  }
  return TextUtils::isEquals(request->requestId, other->request->requestId);
}

void ITask::onProgress(double done, double total) {
  postIfAlive(weak_from_this(), std::weak_ptr<SerialQueue>(queue),
              [done, total](ITask& task) { task.reportProgress(done, total); });
}

std::function<void(double, double)> ITask::makeProgressFunction() {
  if (!request || !request->progressCallback) {
    return {};
  }
  return [task = weak_from_this(), queue = std::weak_ptr<SerialQueue>(queue)](double done,
                                                                              double total) {
    postIfAlive(task, queue, [done, total](ITask& alive) { alive.reportProgress(done, total); });
  };
}

void ITask::reportProgress(double done, double total) {
  if (done <= 0 || total <= 0 || !request) {
    return;
  }
  request->bytesDone = static_cast<std::int64_t>(done);
  request->bytesTotal = static_cast<std::int64_t>(total);
  bytesMoved(request->bytesDone);
  // A server may send more than it announced: keep the conversion within int.
  const int percent = static_cast<int>(std::min(done / total * 100.0, 2147483647.0));
  if (!((lastProgress == 0 && percent > 0) || percent - lastProgress >= 1)) {
    return;
  }
  lastProgress = percent;
  // 100 is never reported: the end of the transfer is told by stateCallback.
  if (total > done && request->progressCallback) {
    if (callbackGate) {
      callbackGate->call([&] { request->progressCallback(request, percent); });
    } else {
      request->progressCallback(request, percent);
    }
  }
}

void ITask::noteEndCause(std::string text, int systemError, int httpStatus) {
  CloudStorageEndCause cause;
  cause.text = std::move(text);
  cause.systemError = systemError;
  cause.httpStatus = httpStatus;
  noteEndCause(std::move(cause));
}

void ITask::noteEndCause(const HttpResponse& response) {
  noteEndCause(response.outcome == HttpResponse::kCancelled ? "cancelled" : response.text,
               response.systemError, response.status);
  noteTimeline(response.timeline);
}

void ITask::noteTimeline(const HttpTimeline& timeline) {
  lastTimeline.method = timeline.method;
  lastTimeline.host = timeline.host;
  lastTimeline.httpVersion = timeline.httpVersion;
  lastTimeline.httpStatus = timeline.status;
  lastTimeline.bytes = timeline.bytes;
  lastTimeline.resumes = timeline.resumes;
  lastTimeline.resolveMs = timeline.resolveMs;
  lastTimeline.connectMs = timeline.connectMs;
  lastTimeline.tlsMs = timeline.tlsMs;
  lastTimeline.firstByteMs = timeline.firstByteMs;
  lastTimeline.endMs = timeline.endMs;
  lastTimeline.bytesPerSecond = timeline.bytesPerSecond;
  lastTimeline.cause = timeline.cause;
}

void ITask::finish(int state, int code, const std::string& message, bool retry) {
  if (life == Life::Ended) {
    return;
  }
  // 3 is the one state a task ends in (held for a retry, it still reports 3).
  assert(state == CloudStorageState::kFinished);
  static_cast<void>(state);
  life = retry ? Life::HeldForRetry : Life::Ended;
  transferId.clear();
  ++currentTransfer;
  if (request) {
    request->resultCode = code;
    if (&message != &request->resultMessage) {
      request->resultMessage = message;
    }
    if (code == CloudStorageResult::kSuccess) {
      request->endCause = CloudStorageEndCause{};
    } else {
      if (pendingCause.text.empty()) {
        pendingCause.text = code == CloudStorageResult::kCancelled ? "cancelled" : message;
      }
      request->endCause = std::move(pendingCause);
    }
    request->endCause.timeline = lastTimeline;
  }
  pendingCause = CloudStorageEndCause{};
  lastTimeline = CloudStorageTimeline{};
  if (completionCallback) {
    completionCallback(shared_from_this(), retry);
  }
}

void ITask::fail(const std::string& message, bool retry) {
  finish(CloudStorageState::kFinished, CloudStorageResult::kFailed, message, retry);
}

}  // namespace cloud
