#pragma once

#include "detail/HttpLib.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quill_fileservice::detail {

// httplib's task queue for the service: one job per accepted connection, run on a worker thread.
// Workers are started as connections need them, up to `maxThreads`, and then kept; so a service
// that serves a few connections starts a few threads, and one under load gets up to maxThreads
// connections served at once (more wait for a free worker). shutdown() lets the queued jobs run,
// then joins every worker.
class WorkerPool : public httplib::TaskQueue {
public:
  explicit WorkerPool(std::size_t maxThreads);
  ~WorkerPool() override;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void enqueue(std::function<void()> job) override;
  void shutdown() override;

  // Workers started so far.
  std::size_t threadCount() const;

private:
  void work();

  const std::size_t maxThreads;
  mutable std::mutex mutex;
  std::condition_variable ready;
  std::deque<std::function<void()>> jobs;
  std::vector<std::thread> threads;
  std::size_t idle = 0;
  bool stopping = false;
};

}  // namespace quill_fileservice::detail
