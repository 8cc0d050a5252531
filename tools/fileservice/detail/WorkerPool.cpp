#include "detail/WorkerPool.h"

#include <algorithm>

namespace quill_fileservice::detail {

WorkerPool::WorkerPool(std::size_t maxThreads) : maxThreads(std::max<std::size_t>(1, maxThreads)) {}

WorkerPool::~WorkerPool() {
  shutdown();
}

void WorkerPool::enqueue(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex);
  jobs.push_back(std::move(job));
  // Each idle worker takes one job; the jobs beyond them need workers of their own.
  if (jobs.size() > idle && threads.size() < maxThreads && !stopping) {
    threads.emplace_back([this] { work(); });
  }
  ready.notify_one();
}

void WorkerPool::shutdown() {
  std::vector<std::thread> joining;
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
    ready.notify_all();
    joining.swap(threads);
  }
  for (auto& thread : joining) {
    thread.join();
  }
}

std::size_t WorkerPool::threadCount() const {
  std::lock_guard<std::mutex> lock(mutex);
  return threads.size();
}

void WorkerPool::work() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    ++idle;
    ready.wait(lock, [this] { return stopping || !jobs.empty(); });
    --idle;
    if (jobs.empty()) {
      return;  // stopping, and nothing left to run
    }
    std::function<void()> job = std::move(jobs.front());
    jobs.pop_front();
    lock.unlock();
    job();
    job = nullptr;  // whatever the job holds goes before the worker waits again
    lock.lock();
  }
}

}  // namespace quill_fileservice::detail
