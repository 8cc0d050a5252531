#pragma once

#include <chrono>

namespace quill_network_detail {

// Decides which progress reports of one transfer reach the caller: only forward movement, and no
// two reports closer together than the interval; the final report always passes.
class ProgressThrottle {
public:
  using Clock = std::chrono::steady_clock;

  explicit ProgressThrottle(std::chrono::milliseconds interval) : interval(interval) {}

  // True when `done` at `now` is to be reported; the report is then taken as made.
  bool admit(double done, Clock::time_point now) {
    if (done <= lastDone || (reported && now - lastReport < interval)) {
      return false;
    }
    reported = true;
    lastDone = done;
    lastReport = now;
    return true;
  }

  // The report at the end of a transfer: never throttled, never below what was reported before.
  double finalDone(double done) {
    if (done > lastDone) {
      lastDone = done;
    }
    return lastDone;
  }

private:
  std::chrono::milliseconds interval;
  bool reported = false;
  double lastDone = 0;
  Clock::time_point lastReport{};
};

}  // namespace quill_network_detail
