// The life of a task as ITask keeps it: waiting, running, ended (or held for a retry), entered only
// through the task's own operations; one transfer in flight, whose reply alone is handled.
#include "CloudTestSupport.h"
#include "ScriptedTransport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using quill_test::EventCounter;
using quill_test::RecordedRequest;
using quill_test::runOnQueue;

namespace {

// Opens transfers and delivers their replies as a route of a real task would, from another thread.
class LifeTask : public cloud::ITask {
public:
  using ITask::ITask;

  bool startWithConfig(CloudStorageConfig* started) override {
    config = started;
    return enterRunning();
  }
  void cancel() override {
    finish(CloudStorageState::kFinished, CloudStorageResult::kCancelled, "", false);
  }

  using ITask::enterRunning;
  using ITask::hasEnded;
  using ITask::hasTransfer;

  // Opens a transfer and holds it under `id`; returns its number.
  std::uint64_t open(const std::string& id) {
    const auto transfer = openTransfer();
    holdTransfer(id);
    return transfer;
  }

  // The reply of transfer `transfer`, posted from a network-like thread; `handled` counts the
  // replies that reached the task.
  void reply(std::uint64_t transfer, std::atomic<int>& handled) {
    const std::weak_ptr<LifeTask> self = std::static_pointer_cast<LifeTask>(shared_from_this());
    std::weak_ptr<SerialQueue> target = queue;
    std::thread([self, target, transfer, &handled] {
      postTransferEnd(self, target, transfer, [&handled](LifeTask&) { ++handled; });
    }).join();
  }
};

struct TaskLifeTest : ::testing::Test {
  // Receives the cancels of transfers that a task abandons.
  std::shared_ptr<quill_test::ScriptedTransport> transport =
      std::make_shared<quill_test::ScriptedTransport>();
  quill_test::ScopedTransport scoped{transport};
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("task life");
  RecordedRequest recorded{false, CloudStorageKind::kFile};
  std::vector<bool> completions;  // the retry flag of each completion, on the queue
  std::shared_ptr<LifeTask> task = std::make_shared<LifeTask>(
      "/cache", CloudStorageTaskType::kFileDownload, recorded.request, queue,
      [this](std::shared_ptr<cloud::ITask>, bool retry) { completions.push_back(retry); });
  CloudStorageConfig config;

  void onQueue(const std::function<void()>& work) { runOnQueue(*queue, work); }
};

}  // namespace

TEST_F(TaskLifeTest, ATaskWaitsThenRunsThenEnds) {
  onQueue([&] {
    EXPECT_EQ(task->state(), CloudStorageState::kWaiting);
    EXPECT_TRUE(task->startWithConfig(&config));
    EXPECT_EQ(task->state(), CloudStorageState::kRunning);
    task->finish(CloudStorageState::kFinished, CloudStorageResult::kSuccess, "", false);
    EXPECT_EQ(task->state(), CloudStorageState::kFinished);
    EXPECT_TRUE(task->hasEnded());
  });
  EXPECT_EQ(completions, (std::vector<bool>{false}));
}

TEST_F(TaskLifeTest, ARunningOrEndedTaskCannotBeStartedAgain) {
  onQueue([&] {
    EXPECT_TRUE(task->enterRunning());
    EXPECT_FALSE(task->enterRunning());
    task->fail("gone", false);
    EXPECT_FALSE(task->enterRunning());
    EXPECT_EQ(task->state(), CloudStorageState::kFinished);
  });
}

TEST_F(TaskLifeTest, FinishEndsATaskOnceAndKeepsTheFirstOutcome) {
  onQueue([&] {
    task->enterRunning();
    task->finish(CloudStorageState::kFinished, CloudStorageResult::kSuccess, "", false);
    task->fail("too late", false);
    task->cancel();
  });
  EXPECT_EQ(completions, (std::vector<bool>{false}));
  EXPECT_EQ(recorded.request->resultCode, CloudStorageResult::kSuccess);
  EXPECT_EQ(recorded.request->resultMessage, "");
}

TEST_F(TaskLifeTest, ATaskHeldForARetryRestartsAndCanStillBeEnded) {
  onQueue([&] {
    task->enterRunning();
    task->fail("try again", true);
    // Held for the restart: reported as ended, as it has always been.
    EXPECT_EQ(task->state(), CloudStorageState::kFinished);
    EXPECT_FALSE(task->hasEnded());
    EXPECT_TRUE(task->enterRunning());
    EXPECT_EQ(task->state(), CloudStorageState::kRunning);
    task->fail("try again", true);
    task->cancel();  // a cancel while held ends it for good
    EXPECT_TRUE(task->hasEnded());
    task->cancel();
  });
  EXPECT_EQ(completions, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(recorded.request->resultCode, CloudStorageResult::kCancelled);
}

TEST_F(TaskLifeTest, OnlyTheReplyOfTheLatestTransferIsHandled) {
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  onQueue([&] {
    task->enterRunning();
    first = task->open("first");
    second = task->open("second");
  });
  std::atomic<int> handled{0};
  task->reply(first, handled);
  onQueue([] {});
  EXPECT_EQ(handled, 0) << "the reply of a transfer that a newer one replaced is stale";
  onQueue([&] { EXPECT_TRUE(task->hasTransfer()); });

  task->reply(second, handled);
  onQueue([] {});
  EXPECT_EQ(handled, 1);
  onQueue([&] { EXPECT_FALSE(task->hasTransfer()) << "the slot is empty once its reply came"; });

  task->reply(second, handled);
  onQueue([] {});
  EXPECT_EQ(handled, 1) << "a transfer's reply is handled once";
}

TEST_F(TaskLifeTest, AReplyAfterTheTaskEndedIsDropped) {
  std::uint64_t transfer = 0;
  onQueue([&] {
    task->enterRunning();
    transfer = task->open("in flight");
    task->cancel();
    EXPECT_FALSE(task->hasTransfer());
  });
  std::atomic<int> handled{0};
  task->reply(transfer, handled);
  onQueue([] {});
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(completions, (std::vector<bool>{false}));
}

TEST_F(TaskLifeTest, AReplyOfATransferBeforeARetryIsDropped) {
  std::uint64_t beforeRetry = 0;
  onQueue([&] {
    task->enterRunning();
    beforeRetry = task->open("before");
    task->fail("try again", true);
    task->enterRunning();
    task->open("after");
  });
  std::atomic<int> handled{0};
  task->reply(beforeRetry, handled);
  onQueue([] {});
  EXPECT_EQ(handled, 0);
  onQueue([&] { EXPECT_EQ(task->state(), CloudStorageState::kRunning); });
}

TEST_F(TaskLifeTest, NoReplyReachesATaskThatIsGone) {
  std::uint64_t transfer = 0;
  onQueue([&] {
    task->enterRunning();
    transfer = task->open("in flight");
  });
  std::weak_ptr<LifeTask> weak = task;
  std::atomic<int> handled{0};
  auto held = task;
  task.reset();
  // Posted while the task lives, run after it is gone.
  EventCounter gate;
  queue->dispatch([&] { gate.waitFor(1); });
  held->reply(transfer, handled);
  held.reset();
  gate.add();
  onQueue([] {});
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(transport->cancelledIds(), (std::vector<std::string>{"in flight"}))
      << "a task that goes with a transfer in flight cancels it";
}
