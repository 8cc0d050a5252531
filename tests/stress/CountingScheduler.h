#pragma once

// The scheduler of CloudStorageService with the real download and upload tasks, which also counts,
// on the scheduler's queue, how many tasks of each direction are running at once. The service
// itself is a thin shell over this scheduler (CloudStorageService.cpp): what is seen here is what
// the host sees, plus the counts.

#include "inner/CloudStorageLogic.h"
#include "task/DownloadTask.h"
#include "task/UploadTask.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>

namespace quill_test {

struct RunningCounts {
  std::atomic<int> uploads{0};
  std::atomic<int> downloads{0};
  std::atomic<int> maxUploads{0};
  std::atomic<int> maxDownloads{0};
  std::atomic<int> starts{0};

  // Image downloads and uploads that asked for a retry are restarted by the retry timer, which
  // does not apply the limits; `most` is only taken at the scheduler's regular starts.
  std::atomic<int> retryStarts{0};
  std::atomic<int> maxWithRetries{0};

  void started(bool upload, bool retry) {
    ++starts;
    auto& running = upload ? uploads : downloads;
    const int now = ++running;
    raise(maxWithRetries, uploads.load() + downloads.load());
    if (retry) {
      ++retryStarts;
      return;
    }
    raise(upload ? maxUploads : maxDownloads, now);
  }
  static void raise(std::atomic<int>& most, int now) {
    int seen = most.load();
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
  }
  void ended(bool upload) { --(upload ? uploads : downloads); }
};

// A real task that reports its start and its end to the counts. Both happen on the queue: the start
// in startWithConfig, the end in the completion callback (also when the task fails inside
// startWithConfig or is cancelled before it started).
template <typename Task>
class Counted : public Task {
public:
  Counted(std::shared_ptr<RunningCounts> counts, const std::string& cachePath, int type,
          std::shared_ptr<CloudStorageRequest> request, std::shared_ptr<SerialQueue> queue,
          cloud::ITask::CompletionCallback completion)
      : Task(cachePath, type, std::move(request), std::move(queue), std::move(completion)),
        counts(std::move(counts)) {}

  bool startWithConfig(CloudStorageConfig* config) override {
    if (!running) {
      running = true;
      counts->started(this->isUpload(), startedBefore);
      startedBefore = true;
    }
    return Task::startWithConfig(config);
  }

  // Called from the completion callback, on the queue.
  void noteEnded() {
    if (running) {
      running = false;
      counts->ended(this->isUpload());
    }
  }

private:
  std::shared_ptr<RunningCounts> counts;
  bool running = false;
  bool startedBefore = false;
};

inline std::shared_ptr<cloud::CloudStorageLogic> makeCountingScheduler(
    bool waitForConfig, const std::shared_ptr<RunningCounts>& counts) {
  return std::make_shared<cloud::CloudStorageLogic>(
      waitForConfig,
      [counts](const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
               std::shared_ptr<SerialQueue> queue,
               cloud::ITask::CompletionCallback completion) -> std::shared_ptr<cloud::ITask> {
        auto counted = [completion](std::shared_ptr<cloud::ITask> task, bool retry) {
          if (auto download = std::dynamic_pointer_cast<Counted<cloud::DownloadTask>>(task)) {
            download->noteEnded();
          } else if (auto upload = std::dynamic_pointer_cast<Counted<cloud::UploadTask>>(task)) {
            upload->noteEnded();
          }
          completion(std::move(task), retry);
        };
        if (type == CloudStorageTaskType::kImageDownload ||
            type == CloudStorageTaskType::kFileDownload) {
          return std::make_shared<Counted<cloud::DownloadTask>>(
              counts, cachePath, type, std::move(request), std::move(queue), counted);
        }
        return std::make_shared<Counted<cloud::UploadTask>>(
            counts, cachePath, type, std::move(request), std::move(queue), counted);
      });
}

// Lets go of a scheduler the way ~CloudStorageService does.
inline void releaseScheduler(std::shared_ptr<cloud::CloudStorageLogic>& logic) {
  cloud::CloudStorageLogic::shutDown(std::move(logic));
}

}  // namespace quill_test
