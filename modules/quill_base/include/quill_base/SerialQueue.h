#pragma once

#include <quill_base/quill_base_export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// A serial dispatch queue: one thread of its own (named after the queue) that runs closures one at
// a time, strictly in the order they were dispatched, plus repeating timers whose ticks run on the
// same thread, interleaved with the closures.
//
// Guarantees:
// - dispatch() and the timer calls are thread-safe and never block on the closures being run.
// - A closure that throws is caught and logged; the queue goes on with the next closure.
// - Timers tick every interval (measured from the previous due time, missed ticks are skipped,
// never
//   bunched) until stopTimer(); stopTimer() works from any thread, also from inside the tick
//   itself, and no tick of a stopped timer starts afterwards.
// - Destruction stops the thread after the closure that is running, if any, has returned. Closures
//   still queued and timers still set are discarded without running (their function objects are
//   destroyed). No closure of the queue starts once the destructor has returned.
// - The last owner may be released by a closure running on the queue itself: the thread then winds
//   down on its own after that closure returns (no self-join, no crash, no hang).
class QUILL_BASE_EXPORT SerialQueue {
public:
  using TimerId = std::uint64_t;

  explicit SerialQueue(const std::string& name);
  ~SerialQueue();

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& name() const;

  // Queues `task` to run after everything dispatched before it. An empty function is ignored.
  void dispatch(std::function<void()> task);

  // Starts a repeating timer; the first tick comes one interval from now. Returns a non-zero id.
  TimerId startTimer(std::uint64_t intervalMs, std::function<void(TimerId)> tick);

  // Stops the timer; unknown or already stopped ids are ignored.
  void stopTimer(TimerId id);

  // True when called from a closure or tick running on this queue.
  bool isCurrentQueue() const;

private:
  struct State;
  std::shared_ptr<State> state;
};
