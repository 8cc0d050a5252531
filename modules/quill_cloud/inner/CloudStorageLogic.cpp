#include "inner/CloudStorageLogic.h"

#include "inner/StalePartials.h"

#include "task/DownloadTask.h"
#include "task/UploadTask.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace cloud {
namespace {

bool isUploadType(int type) {
  return type == CloudStorageTaskType::kImageUpload || type == CloudStorageTaskType::kFileUpload ||
         type == CloudStorageTaskType::kVideoUpload;
}

std::shared_ptr<ITask> makeTransferTask(const std::string& cachePath, int type,
                                        std::shared_ptr<CloudStorageRequest> request,
                                        std::shared_ptr<SerialQueue> queue,
                                        ITask::CompletionCallback completionCallback) {
  if (type == CloudStorageTaskType::kImageDownload || type == CloudStorageTaskType::kFileDownload) {
    return std::make_shared<DownloadTask>(cachePath, type, std::move(request), std::move(queue),
                                          std::move(completionCallback));
  }
  if (isUploadType(type)) {
    return std::make_shared<UploadTask>(cachePath, type, std::move(request), std::move(queue),
                                        std::move(completionCallback));
  }
  return nullptr;
}

}  // namespace

void CloudStorageLogic::Lifetime::markDestroyed() {
  std::lock_guard<std::mutex> lock(mutex);
  destroyed = true;
  changed.notify_all();
}

void CloudStorageLogic::Lifetime::waitDestroyed() {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [this] { return destroyed; });
}

CloudStorageLogic::CloudStorageLogic(bool waitForConfig, TaskFactory factory,
                                     std::chrono::milliseconds retryInterval)
    : queue(std::make_shared<SerialQueue>("cloud storage")),
      retryInterval(retryInterval),
      taskFactory(factory ? std::move(factory) : TaskFactory(makeTransferTask)) {
  config.waitForConfig = waitForConfig ? 1 : 0;
}

CloudStorageLogic::~CloudStorageLogic() {
  if (retryTimerId != 0) {
    queue->stopTimer(retryTimerId);
  }
  // Tear down before telling the owner: abandoned tasks cancel their transfers and the queue stops
  // (or, when this runs on the queue's own thread, winds down after the closure that is running).
  retryList.clear();
  tasks = TaskTable();
  completionCallback = nullptr;
  queue.reset();
  lifetimeSignal->markDestroyed();
}

int CloudStorageLogic::taskTypeFor(bool isUpload, int kind) {
  if (isUpload) {
    switch (kind) {
      case CloudStorageKind::kImage:
        return CloudStorageTaskType::kImageUpload;
      case CloudStorageKind::kFile:
        return CloudStorageTaskType::kFileUpload;
      case CloudStorageKind::kVideo:
        return CloudStorageTaskType::kVideoUpload;
      default:
        return 0;
    }
  }
  switch (kind) {
    case CloudStorageKind::kImage:
      return CloudStorageTaskType::kImageDownload;
    case CloudStorageKind::kFile:
      return CloudStorageTaskType::kFileDownload;
    default:
      return 0;
  }
}

void CloudStorageLogic::post(std::function<void(CloudStorageLogic&)> work) {
  queue->dispatch([weak = weak_from_this(), work = std::move(work)] {
    auto self = weak.lock();
    if (self && !self->closed) {
      work(*self);
    }
  });
}

void CloudStorageLogic::close() {
  closed = true;
  callbackGate->close();
}

void CloudStorageLogic::shutDown(std::shared_ptr<CloudStorageLogic> logic) {
  if (!logic) {
    return;
  }
  logic->close();
  const auto lifetime = logic->lifetimeSignal;
  const std::shared_ptr<SerialQueue> target = logic->queue;
  const bool onOwnQueue = target->isCurrentQueue();
  // Closures posted by tasks hold their task, not the scheduler: were the scheduler released here,
  // on the caller's thread, such a closure running now could read the configuration after it is
  // gone. On the queue, the release waits for it.
  target->dispatch([logic = std::move(logic)]() mutable { logic.reset(); });
  if (!onOwnQueue) {
    lifetime->waitDestroyed();
  }
}

bool CloudStorageLogic::addRequest(std::shared_ptr<CloudStorageRequest> request) {
  if (!request) {
    return false;
  }
  const int type = taskTypeFor(request->isUpload, request->kind);
  if (type == 0) {
    return false;
  }
  post([request = std::move(request), type](CloudStorageLogic& self) mutable {
    self.addTaskWithReqest(std::move(request), type);
  });
  return true;
}

void CloudStorageLogic::cancelRequestWithId(const std::string& requestId) {
  post([requestId](CloudStorageLogic& self) {
    // A copy, in order of arrival: cancelling ends tasks and changes the table.
    for (const auto& task : self.tasks.withRequestId(requestId)) {
      task->cancel();
      self.removeFromRetryList(task.get());
      if (self.retryList.empty()) {
        self.stopRetryTimer();
      }
    }
  });
}

void CloudStorageLogic::cancelAllRequests() {
  post([](CloudStorageLogic& self) {
    for (const auto& task : self.tasks.all()) {
      task->cancel();
    }
  });
}

void CloudStorageLogic::changeUser(const std::string& appId, const std::string& pin,
                                   const std::string& userDirectory) {
  post([appId, pin, userDirectory](CloudStorageLogic& self) {
    self.config.appId = appId;
    self.config.pin = pin;
    if (TextUtils::isEquals(userDirectory, self.config.userDirectory)) {
      return;
    }
    self.config.userDirectory = userDirectory;
    self.checkCachePath(userDirectory);
    if (!self.cachePath.empty()) {
      // Partial downloads nobody took up within a week are not coming back.
      removeStalePartials(self.cachePath, std::chrono::duration_cast<std::chrono::seconds>(
                                              std::chrono::system_clock::now().time_since_epoch())
                                              .count());
    }
  });
}

void CloudStorageLogic::changeAid(const std::string& aid) {
  post([aid](CloudStorageLogic& self) {
    if (TextUtils::isEquals(aid, self.config.aid)) {
      return;
    }
    self.config.aid = aid;
    if (self.config.isValid()) {
      self.retryTasks();
      self.startNextRequest(true);
    }
  });
}

void CloudStorageLogic::addTaskWithReqest(std::shared_ptr<CloudStorageRequest> request, int type) {
  QLOG_DEBUG(" addTaskWithReqest");
  if (cachePath.empty()) {
    // Only logs: a task made before changeUser carries an empty cache path.
    checkCachePath("");
  }
  if (tasks.find(request->requestId, type)) {
    QLOG_INFO(" task exist");
    return;
  }
  auto task = createTask(request, type);
  if (!task) {
    return;
  }
  tasks.add(task);
  startNextRequest(isUploadType(type));
}

std::shared_ptr<ITask> CloudStorageLogic::createTask(std::shared_ptr<CloudStorageRequest> request,
                                                     int type) {
  if (!completionCallback) {
    completionCallback = [weak = weak_from_this()](std::shared_ptr<ITask> task, bool retry) {
      if (auto self = weak.lock()) {
        self->onTaskFinished(std::move(task), retry);
      }
    };
  }
  auto task = taskFactory(cachePath, type, std::move(request), queue, completionCallback);
  if (task) {
    task->setCallbackGate(callbackGate);
  }
  return task;
}

void CloudStorageLogic::checkCachePath(const std::string& directory) {
  if (!FileUtils::directoryExists(directory)) {
    QLOG_DEBUG("user directory not exists, " << directory);
    return;
  }
  const auto candidate = FileUtils::appendComponent(directory, "cloud_storage_caches");
  if (FileUtils::makeDirectory(candidate)) {
    cachePath = candidate;
  }
}

bool CloudStorageLogic::needWaiting() {
  if (config.waitForConfig != 0 && !config.isValid()) {
    QLOG_WARN(" waiting configuration");
    return true;
  }
  return false;
}

void CloudStorageLogic::startNextRequest(bool uploads) {
  if (closed) {
    return;
  }
  if (uploads && needWaiting()) {
    return;
  }
  const auto direction = uploads ? Direction::Upload : Direction::Download;
  const std::size_t limit = uploads ? 2 : 4;
  if (tasks.runningCount(direction) >= limit) {
    QLOG_DEBUG(" too many tasks to run");
    return;
  }
  if (auto task = tasks.takeNextWaiting(direction)) {
    startTask(task);
    return;
  }
  QLOG_DEBUG("no task can be executed");
}

void CloudStorageLogic::startTask(const std::shared_ptr<ITask>& task) {
  tasks.markStarted(task.get());
  task->startWithConfig(&config);
}

void CloudStorageLogic::onTaskFinished(std::shared_ptr<ITask> task, bool retry) {
  if (!task || !tasks.contains(task.get())) {
    return;  // a second ending of a task already dropped: reported once only
  }
  const int type = task->type();
  const bool upload = isUploadType(type);
  tasks.markStopped(task.get());

  if (retry && (upload || type == CloudStorageTaskType::kImageDownload)) {
    retryList.push_back(task);
    startRetryTimer();
    return;
  }

  // Dropped before the host hears of it, so that nothing the callback does can see it again.
  dropTask(task);
  auto request = task->getRequest();
  if (request && request->stateCallback) {
    callbackGate->call([&] { request->stateCallback(request, task->state()); });
  }
  startNextRequest(upload);
}

void CloudStorageLogic::dropTask(const std::shared_ptr<ITask>& task) {
  if (tasks.remove(task.get())) {
    removeFromRetryList(task.get());
  }
}

void CloudStorageLogic::removeFromRetryList(const ITask* task) {
  retryList.erase(std::remove_if(retryList.begin(), retryList.end(),
                                 [task](const auto& item) { return item.get() == task; }),
                  retryList.end());
}

void CloudStorageLogic::startRetryTimer() {
  if (retryTimerId != 0) {
    return;
  }
  QLOG_INFO("cloud::CloudStorageLogic::startRetryTimer"
            << " enter");
  const auto interval = static_cast<std::uint64_t>(retryInterval.count());
  retryTimerId = queue->startTimer(interval, [weak = weak_from_this()](std::uint64_t) {
    auto self = weak.lock();
    if (self && !self->closed) {
      self->retryTasks();
    }
  });
}

void CloudStorageLogic::stopRetryTimer() {
  if (retryTimerId == 0) {
    return;
  }
  QLOG_INFO("cloud::CloudStorageLogic::stopRetryTimer"
            << " enter");
  queue->stopTimer(retryTimerId);
  retryTimerId = 0;
}

void CloudStorageLogic::retryTasks() {
  stopRetryTimer();
  if (closed || needWaiting()) {
    return;  // kept until the next changeAid or retry request
  }
  // Retried tasks restart at once, outside the running limits.
  const auto pending = std::move(retryList);
  retryList.clear();
  for (const auto& task : pending) {
    if (tasks.contains(task.get())) {
      startTask(task);
    }
  }
}

}  // namespace cloud
