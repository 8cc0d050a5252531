#pragma once

#include <quill_network/detail/HttpTransport.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quill_test {

// An HTTP engine for unit tests: records every transfer HttpClient starts and lets the test end it
// with the outcome, status, text and progress it chooses. Callbacks run on the transport's own
// worker thread, as they would on the network thread. A cancel of a transfer still pending ends it
// with outcome 1 (as the real engine does) unless `answerCancels` is false.
class ScriptedTransport : public quill_network_detail::HttpTransport {
public:
  using Spec = quill_network_detail::TransferSpec;

  struct Call {
    std::string id;
    Spec spec;  // as started; callbacks included
  };

  ScriptedTransport() : worker([this] { run(); }) {}

  ~ScriptedTransport() override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
      changed.notify_all();
    }
    worker.join();
  }

  bool answerCancels = true;

  void start(const std::string& id, Spec spec) override {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back({id, spec});
    pending[id] = std::move(spec);
    changed.notify_all();
  }

  void cancel(const std::string& id) override {
    std::lock_guard<std::mutex> lock(mutex);
    cancels.push_back(id);
    changed.notify_all();
    if (answerCancels && pending.count(id) != 0) {
      endLocked(id, 1, 0, "cancelled", nullptr);
    }
  }

  // Waits until at least `count` transfers have been started.
  bool waitForCalls(std::size_t count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return calls.size() >= count; });
  }

  bool waitForCancels(std::size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return cancels.size() >= count; });
  }

  std::vector<Call> startedCalls() const {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }

  Call call(std::size_t index) const {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.at(index);
  }

  std::vector<std::string> cancelledIds() const {
    std::lock_guard<std::mutex> lock(mutex);
    return cancels;
  }

  std::size_t pendingCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return pending.size();
  }

  // Reports progress of a pending transfer (on the worker thread).
  void progress(const std::string& id, double done, double total) {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = pending.find(id);
    if (found == pending.end() || !found->second.progress) {
      return;
    }
    auto report = found->second.progress;
    jobs.push_back([report, done, total] { report(done, total); });
    changed.notify_all();
  }

  // Ends a download successfully: writes `body` to the download's path first.
  void succeedDownload(const std::string& id, const std::string& body, int status = 200) {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = pending.find(id);
    if (found != pending.end()) {
      std::ofstream(found->second.path, std::ios::binary) << body;
    }
    endLocked(id, 0, status, "", nullptr);
  }

  // Ends a transfer with any outcome (0 completed, 1 cancelled, 2 failed).
  void end(const std::string& id, int outcome, int status, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    endLocked(id, outcome, status, text, nullptr);
  }

  // Waits until every callback handed to the worker so far has run.
  void drain() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10), [&] { return jobs.empty() && !busy; });
  }

private:
  void endLocked(const std::string& id, int outcome, int status, const std::string& text,
                 std::function<void()> before) {
    auto found = pending.find(id);
    if (found == pending.end()) {
      return;
    }
    auto completion = std::move(found->second.completion);
    pending.erase(found);
    auto response = std::make_shared<HttpResponse>();
    response->outcome = outcome;
    response->status = status;
    response->text = text;
    jobs.push_back([completion, response, before] {
      if (before) {
        before();
      }
      if (completion) {
        completion(response);
      }
    });
    changed.notify_all();
  }

  void run() {
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
      changed.wait(lock, [&] { return stopping || !jobs.empty(); });
      if (jobs.empty()) {
        return;
      }
      auto job = std::move(jobs.front());
      jobs.pop_front();
      busy = true;
      lock.unlock();
      job();
      job = nullptr;
      lock.lock();
      busy = false;
      changed.notify_all();
    }
  }

  mutable std::mutex mutex;
  std::condition_variable changed;
  std::vector<Call> calls;
  std::vector<std::string> cancels;
  std::map<std::string, Spec> pending;
  std::deque<std::function<void()>> jobs;
  bool busy = false;
  bool stopping = false;
  std::thread worker;
};

// Installs a transport for the life of the object and puts the previous one back afterwards.
class ScopedTransport {
public:
  explicit ScopedTransport(std::shared_ptr<quill_network_detail::HttpTransport> transport)
      : previous(quill_network_detail::installTransport(std::move(transport))) {}
  ~ScopedTransport() { quill_network_detail::installTransport(previous); }
  ScopedTransport(const ScopedTransport&) = delete;
  ScopedTransport& operator=(const ScopedTransport&) = delete;

private:
  std::shared_ptr<quill_network_detail::HttpTransport> previous;
};

}  // namespace quill_test
