#include <quill_base/SerialQueue.h>

#include "LogCapture.h"
#include "TestSupport.h"
#include "ThreadNames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

using quill_test::currentThreadName;
using quill_test::EventCounter;

TEST(SerialQueue, RunsClosuresInDispatchOrder) {
  SerialQueue queue("order");
  std::vector<int> seen;
  EventCounter done;
  for (int i = 0; i < 1000; ++i) {
    queue.dispatch([&seen, &done, i] {
      seen.push_back(i);
      done.add();
    });
  }
  ASSERT_TRUE(done.waitFor(1000));
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(seen[i], i);
  }
}

TEST(SerialQueue, KeepsEachProducersOrderUnderConcurrentPosting) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;
  SerialQueue queue("concurrent");
  std::vector<std::vector<int>> seen(kThreads);
  std::atomic<int> running{0};
  int maxRunning = 0;
  EventCounter done;

  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        queue.dispatch([&, t, i] {
          const int now = ++running;
          maxRunning = std::max(maxRunning, now);
          seen[t].push_back(i);
          --running;
          done.add();
        });
      }
    });
  }
  for (auto& producer : producers) {
    producer.join();
  }
  ASSERT_TRUE(done.waitFor(kThreads * kPerThread));
  EXPECT_EQ(maxRunning, 1);
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) {
      ASSERT_EQ(seen[t][i], i) << "producer " << t;
    }
  }
}

TEST(SerialQueue, RunsOnOneThreadNamedAfterTheQueue) {
  SerialQueue queue("cloud storage");
  std::thread::id first;
  std::thread::id second;
  std::string threadName;
  bool current = false;
  EventCounter done;
  queue.dispatch([&] {
    first = std::this_thread::get_id();
    threadName = currentThreadName();
    current = queue.isCurrentQueue();
    done.add();
  });
  queue.dispatch([&] {
    second = std::this_thread::get_id();
    done.add();
  });
  ASSERT_TRUE(done.waitFor(2));
  EXPECT_EQ(first, second);
  EXPECT_NE(first, std::this_thread::get_id());
  EXPECT_EQ(threadName, "cloud storage");
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue.isCurrentQueue());
  EXPECT_EQ(queue.name(), "cloud storage");
}

TEST(SerialQueue, CatchesAndLogsAThrowingClosureAndGoesOn) {
  quill_test::LogCapture logs;
  SerialQueue queue("throwing");
  EventCounter done;
  queue.dispatch([] { throw std::runtime_error("boom"); });
  queue.dispatch([] { throw 42; });
  queue.dispatch([&] { done.add(); });
  ASSERT_TRUE(done.waitFor(1));

  const auto lines = logs.lines();
  ASSERT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "closure on queue throwing threw: boom"));
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "closure on queue throwing threw a non-standard exception"));
  for (const auto& line : lines) {
    if (line.message == "closure on queue throwing threw: boom") {
      EXPECT_EQ(line.file, "modules/quill_base/SerialQueue");
      EXPECT_GT(line.line, 0);
      EXPECT_NE(line.function.find("runGuarded"), std::string::npos) << line.function;
    }
  }
}

TEST(SerialQueue, IgnoresAnEmptyClosure) {
  SerialQueue queue("empty");
  EventCounter done;
  queue.dispatch(std::function<void()>());
  queue.dispatch([&] { done.add(); });
  EXPECT_TRUE(done.waitFor(1));
}

TEST(SerialQueue, CanBeReleasedByAClosureOnItsOwnThread) {
  auto queue = std::make_shared<SerialQueue>("self release");
  EventCounter released;
  auto* raw = queue.get();
  raw->dispatch([holder = std::move(queue), &released]() mutable {
    holder.reset();  // the last owner: the queue is destroyed on its own thread
    released.add();
  });
  EXPECT_TRUE(released.waitFor(1));
}

TEST(SerialQueue, DiscardsQueuedWorkWhenDestroyedAndReleasesWhatItHeld) {
  auto queue = std::make_shared<SerialQueue>("discard");
  std::mutex gate;
  std::unique_lock<std::mutex> closed(gate);
  EventCounter started;
  std::atomic<int> ranAfter{0};
  auto token = std::make_shared<int>(7);
  std::weak_ptr<int> watch = token;

  auto* raw = queue.get();
  // The first closure holds the last owner of the queue and lets it go once the rest is queued.
  raw->dispatch([holder = std::move(queue), &gate, &started]() mutable {
    started.add();
    std::lock_guard<std::mutex> wait(gate);
    holder.reset();
  });
  ASSERT_TRUE(started.waitFor(1));
  for (int i = 0; i < 100; ++i) {
    raw->dispatch([&ranAfter, token] { ++ranAfter; });
  }
  token.reset();
  closed.unlock();

  EXPECT_TRUE(quill_test::eventually([&] { return watch.expired(); }));
  EXPECT_EQ(ranAfter.load(), 0);
}

TEST(SerialQueue, DestructorWaitsForTheRunningClosure) {
  std::atomic<bool> finished{false};
  EventCounter started;
  {
    SerialQueue queue("wait");
    queue.dispatch([&] {
      started.add();
      for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
      }
      finished = true;
    });
    ASSERT_TRUE(started.waitFor(1));
  }
  EXPECT_TRUE(finished.load());
}
