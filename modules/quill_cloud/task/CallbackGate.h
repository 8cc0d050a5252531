#pragma once

#include <mutex>
#include <utility>

namespace cloud {

// The door through which the host's request callbacks are called. Once closed (when the service is
// destroyed) no callback starts, and close() waits for one that is running to return. Recursive, so
// that a callback may destroy the service that is calling it.
class CallbackGate {
public:
  template <typename Callback>
  void call(Callback&& callback) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (!closed) {
      std::forward<Callback>(callback)();
    }
  }

  void close() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    closed = true;
  }

private:
  std::recursive_mutex mutex;
  bool closed = false;
};

}  // namespace cloud
