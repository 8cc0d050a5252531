#pragma once

#include "TestSupport.h"

#include <chrono>
#include <mutex>
#include <utility>
#include <vector>

namespace quill_test {

// What a callback reported, kept in the order it came from whatever thread reported it; a test
// waits, with a timeout, until enough has come. Callbacks should hold their recorder by shared
// pointer: one that runs after the test stopped waiting then never writes into freed memory.
template <typename Value>
class Recorder {
public:
  void record(Value value) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      values.push_back(std::move(value));
    }
    // Counted after the value is stored: whoever sees the count also sees the value.
    recorded.add();
  }

  int count() const { return recorded.value(); }

  // True when `target` values had been recorded before the timeout.
  bool waitFor(int target, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return recorded.waitFor(target, timeout);
  }

  std::vector<Value> all() const {
    std::lock_guard<std::mutex> lock(mutex);
    return values;
  }
  // The first and the latest value; a value-initialised one while nothing has been recorded.
  Value first() const {
    std::lock_guard<std::mutex> lock(mutex);
    return values.empty() ? Value{} : values.front();
  }
  Value last() const {
    std::lock_guard<std::mutex> lock(mutex);
    return values.empty() ? Value{} : values.back();
  }

private:
  mutable std::mutex mutex;
  std::vector<Value> values;
  EventCounter recorded;
};

}  // namespace quill_test
