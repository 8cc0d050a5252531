#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace quill_fileservice::detail {

// A flag raised once when the service stops. Handlers that wait on purpose (delays, throttling,
// stalls) wait on it instead of sleeping, so that stopping the service never waits for them.
class StopSignal {
public:
  void raise() {
    std::lock_guard<std::mutex> lock(mutex);
    isRaised = true;
    changed.notify_all();
  }
  void reset() {
    std::lock_guard<std::mutex> lock(mutex);
    isRaised = false;
  }
  bool raised() const {
    std::lock_guard<std::mutex> lock(mutex);
    return isRaised;
  }
  // Waits until the deadline or until the signal is raised; true when it was raised.
  bool waitUntil(std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_until(lock, deadline, [this] { return isRaised; });
  }
  template <class Rep, class Period>
  bool waitFor(std::chrono::duration<Rep, Period> duration) const {
    return waitUntil(std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(duration));
  }

private:
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  bool isRaised = false;
};

}  // namespace quill_fileservice::detail
