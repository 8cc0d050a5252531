#pragma once

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace quill_test {

// A fresh directory under the system's temporary directory, removed with everything in it.
class TempDir {
public:
  TempDir()
      : root(std::filesystem::temp_directory_path() / ("quill-test-" + TextUtils::UUID_String())) {
    std::filesystem::create_directories(root);
  }
  // Files may still vanish under it: the library removes an abandoned download's partial file on
  // its network thread after the service is gone.
  ~TempDir() { FileUtils::removeTree(root.u8string()); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return root.string(); }
  std::string file(const std::string& name) const { return (root / name).string(); }

private:
  std::filesystem::path root;
};

// Counts events from any thread and lets a test wait, with a timeout, until enough have happened.
class EventCounter {
public:
  // Notifies under the lock: a waiter that sees the count may destroy the counter right away.
  void add(int n = 1) {
    std::lock_guard<std::mutex> lock(mutex);
    count += n;
    changed.notify_all();
  }
  int value() const {
    std::lock_guard<std::mutex> lock(mutex);
    return count;
  }
  // True when the count reached `target` before the timeout.
  bool waitFor(int target, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return count >= target; });
  }

private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  int count = 0;
};

// The time from now until `deadline`; zero once it has passed.
inline std::chrono::milliseconds timeLeft(std::chrono::steady_clock::time_point deadline) {
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now()),
                  std::chrono::milliseconds(0));
}

// Polls `condition` until it holds or the timeout passes; for states no callback announces.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

}  // namespace quill_test
