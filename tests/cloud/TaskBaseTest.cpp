#include "CloudTestSupport.h"

#include <gtest/gtest.h>

using quill_test::FakeTask;
using quill_test::RecordedRequest;
using quill_test::runOnQueue;

namespace {

struct TaskBaseTest : ::testing::Test {
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("task base");
  RecordedRequest recorded{false, CloudStorageKind::kImage};
  std::vector<std::pair<std::shared_ptr<cloud::ITask>, bool>> completions;
  std::shared_ptr<FakeTask> task =
      std::make_shared<FakeTask>("/cache", CloudStorageTaskType::kImageDownload, recorded.request,
                                 queue, [this](std::shared_ptr<cloud::ITask> ended, bool retry) {
                                   completions.emplace_back(ended, retry);
                                 });

  TaskBaseTest() { recorded.recordProgress(); }

  // onProgress posts to the queue; a closure queued after it runs after the report.
  void progress(double done, double total) {
    task->onProgress(done, total);
    runOnQueue(*queue, [] {});
  }
};

}  // namespace

TEST_F(TaskBaseTest, ReportsNothingForZeroDoneOrTotal) {
  progress(0, 100);
  progress(10, 0);
  progress(-5, 100);
  EXPECT_TRUE(recorded.percents().empty());
  EXPECT_EQ(task->progress(), 0);
}

TEST_F(TaskBaseTest, ReportsEachWholePercentOnce) {
  progress(10.4, 100);
  progress(10.9, 100);
  progress(11.0, 100);
  progress(11.5, 100);
  progress(57, 100);  // 57 / 100 * 100 is 56.99...: truncated to 56
  progress(75, 100);
  EXPECT_EQ(recorded.percents(), (std::vector<int>{10, 11, 56, 75}));
  EXPECT_EQ(task->progress(), 75);
}

TEST_F(TaskBaseTest, NeverReportsOneHundred) {
  progress(50, 100);
  progress(100, 100);
  EXPECT_EQ(recorded.percents(), (std::vector<int>{50}));
  EXPECT_EQ(task->progress(), 100);
}

TEST_F(TaskBaseTest, NeverReportsADecrease) {
  progress(60, 100);
  progress(30, 100);
  EXPECT_EQ(recorded.percents(), (std::vector<int>{60}));
}

TEST_F(TaskBaseTest, FailWritesTheOutcomeAndAsksForTheRetry) {
  runOnQueue(*queue, [&] { task->fail("x", true); });
  EXPECT_EQ(recorded.request->resultCode, CloudStorageResult::kFailed);
  EXPECT_EQ(recorded.request->resultMessage, "x");
  EXPECT_EQ(task->state(), CloudStorageState::kFinished);
  ASSERT_EQ(completions.size(), 1u);
  EXPECT_EQ(completions[0].first, task);
  EXPECT_TRUE(completions[0].second);
}

TEST_F(TaskBaseTest, FinishWithTheRequestsOwnMessageKeepsIt) {
  recorded.request->resultMessage = "kept";
  runOnQueue(*queue, [&] {
    task->finish(CloudStorageState::kFinished, CloudStorageResult::kSuccess,
                 recorded.request->resultMessage, false);
  });
  EXPECT_EQ(recorded.request->resultMessage, "kept");
  EXPECT_EQ(recorded.request->resultCode, CloudStorageResult::kSuccess);
}

TEST_F(TaskBaseTest, ProgressOfAGoneTaskRunsNothing) {
  // Hold the queue so that the report is still queued when the task goes.
  std::mutex gate;
  std::unique_lock<std::mutex> held(gate);
  quill_test::EventCounter blocked;
  queue->dispatch([&] {
    blocked.add();
    std::lock_guard<std::mutex> wait(gate);
  });
  ASSERT_TRUE(blocked.waitFor(1));
  task->onProgress(10, 100);
  task.reset();
  held.unlock();
  runOnQueue(*queue, [] {});
  EXPECT_TRUE(recorded.percents().empty());
}

TEST(TaskBase, TypesIdsAndSameness) {
  auto queue = std::make_shared<SerialQueue>("task ids");
  auto make = [&](int type, const std::string& id) {
    auto request = std::make_shared<CloudStorageRequest>(type == 1 || type == 2 || type == 5);
    request->requestId = id;
    return std::make_shared<FakeTask>("", type, request, queue, nullptr);
  };
  for (int type : {1, 2, 5}) {
    EXPECT_TRUE(make(type, "a")->isUpload());
    EXPECT_FALSE(make(type, "a")->isDownload());
  }
  for (int type : {3, 4}) {
    EXPECT_TRUE(make(type, "a")->isDownload());
    EXPECT_FALSE(make(type, "a")->isUpload());
  }
  auto a = make(3, "same");
  EXPECT_TRUE(a->hasRequestId("same"));
  EXPECT_FALSE(a->hasRequestId("other"));
  EXPECT_TRUE(a->isSameTask(make(3, "same")));
  EXPECT_FALSE(a->isSameTask(make(4, "same")));
  EXPECT_FALSE(a->isSameTask(make(3, "other")));
  EXPECT_FALSE(a->isSameTask(nullptr));
  auto noRequest = std::make_shared<FakeTask>("", 3, nullptr, queue, nullptr);
  EXPECT_FALSE(noRequest->hasRequestId(""));
  EXPECT_FALSE(a->isSameTask(noRequest));
  EXPECT_EQ(a->state(), CloudStorageState::kWaiting);
  EXPECT_EQ(a->type(), 3);
}
