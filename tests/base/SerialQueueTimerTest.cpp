#include <quill_base/SerialQueue.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>

using quill_test::EventCounter;

namespace {

// Waits until `ticks` ticks of a fresh 10 ms timer have run on the queue: a way to let time pass on
// the queue without sleeping in the test.
void letTicksPass(SerialQueue& queue, int ticks) {
  EventCounter counter;
  const auto id = queue.startTimer(10, [&](SerialQueue::TimerId) { counter.add(); });
  ASSERT_NE(id, 0u);
  ASSERT_TRUE(counter.waitFor(ticks));
  queue.stopTimer(id);
  // Nothing of this timer can run once a closure dispatched after the stop has run.
  EventCounter drained;
  queue.dispatch([&] { drained.add(); });
  ASSERT_TRUE(drained.waitFor(1));
}

}  // namespace

TEST(SerialQueueTimer, TicksOnTheQueueUntilStopped) {
  SerialQueue queue("timer");
  EventCounter ticks;
  std::atomic<bool> onQueue{true};
  std::atomic<SerialQueue::TimerId> seenId{0};
  const auto id = queue.startTimer(5, [&](SerialQueue::TimerId tickId) {
    onQueue = onQueue && queue.isCurrentQueue();
    seenId = tickId;
    ticks.add();
  });
  ASSERT_NE(id, 0u);
  ASSERT_TRUE(ticks.waitFor(3));
  EXPECT_TRUE(onQueue.load());
  EXPECT_EQ(seenId.load(), id);

  queue.stopTimer(id);
  EventCounter drained;
  queue.dispatch([&] { drained.add(); });
  ASSERT_TRUE(drained.waitFor(1));
  const int afterStop = ticks.value();
  letTicksPass(queue, 5);
  EXPECT_EQ(ticks.value(), afterStop);
}

TEST(SerialQueueTimer, CanBeStoppedFromInsideItsTick) {
  SerialQueue queue("timer stop");
  EventCounter ticks;
  queue.startTimer(1, [&](SerialQueue::TimerId id) {
    ticks.add();
    queue.stopTimer(id);
  });
  ASSERT_TRUE(ticks.waitFor(1));
  letTicksPass(queue, 5);
  EXPECT_EQ(ticks.value(), 1);
}

TEST(SerialQueueTimer, GivesDistinctNonZeroIds) {
  SerialQueue queue("timer ids");
  std::set<SerialQueue::TimerId> ids;
  for (int i = 0; i < 100; ++i) {
    const auto id = queue.startTimer(60000, [](SerialQueue::TimerId) {});
    EXPECT_NE(id, 0u);
    ids.insert(id);
    if (i % 2 == 0) {
      queue.stopTimer(id);
    }
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST(SerialQueueTimer, WaitsAtLeastTheIntervalBeforeTheFirstTick) {
  SerialQueue queue("timer interval");
  EventCounter ticks;
  const auto started = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point tickedAt;
  queue.startTimer(50, [&](SerialQueue::TimerId id) {
    tickedAt = std::chrono::steady_clock::now();
    queue.stopTimer(id);
    ticks.add();
  });
  ASSERT_TRUE(ticks.waitFor(1));
  EXPECT_GE(tickedAt - started, std::chrono::milliseconds(50));
}

TEST(SerialQueueTimer, IgnoresUnknownIdsAndEmptyTicks) {
  SerialQueue queue("timer unknown");
  queue.stopTimer(0);
  queue.stopTimer(12345);
  EXPECT_EQ(queue.startTimer(10, std::function<void(SerialQueue::TimerId)>()), 0u);
  EventCounter done;
  queue.dispatch([&] { done.add(); });
  EXPECT_TRUE(done.waitFor(1));
}

TEST(SerialQueueTimer, PendingTimersDoNotOutliveTheQueue) {
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  {
    SerialQueue queue("timer discard");
    queue.startTimer(60000, [token](SerialQueue::TimerId) {});
    token.reset();
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());
}
