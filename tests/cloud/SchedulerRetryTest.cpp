#include "CloudTestSupport.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <chrono>

using quill_test::FakeScheduler;
using quill_test::LogCapture;
using quill_test::RecordedRequest;
using quill_test::TempDir;

namespace {

// Short, so that no test waits the two seconds of the real interval.
constexpr std::chrono::milliseconds kInterval = quill_test::kShortRetryInterval;

struct SchedulerRetryTest : ::testing::Test {
  TempDir userDirectory;
  FakeScheduler scheduler{true, kInterval};

  void signIn(const std::string& aid = "aid") {
    scheduler.logic->changeUser("app", "pin", userDirectory.path());
    scheduler.logic->changeAid(aid);
    scheduler.settle();
  }

  // Waits until the task at `index` has been started `count` times.
  bool waitForStarts(std::size_t index, int count) {
    return quill_test::eventually(
        [&] {
          bool reached = false;
          scheduler.onQueue([&] { reached = scheduler.task(index)->starts >= count; });
          return reached;
        },
        std::chrono::seconds(10));
  }
};

}  // namespace

TEST(SchedulerRetryInterval, IsTwoSeconds) {
  EXPECT_EQ(cloud::CloudStorageLogic::kRetryInterval, std::chrono::milliseconds(2000));
}

TEST_F(SchedulerRetryTest, RestartsAnImageDownloadAfterTheIntervalWithoutACallback) {
  LogCapture logs;
  signIn();
  RecordedRequest recorded(false, CloudStorageKind::kImage);
  ASSERT_TRUE(scheduler.logic->addRequest(recorded.request));
  scheduler.settle();
  auto task = scheduler.task(0);

  const auto askedAt = std::chrono::steady_clock::now();
  scheduler.onQueue([&] { task->end(CloudStorageResult::kTransferFailed, "500", true); });
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->retryCount(), 1u);
    EXPECT_TRUE(scheduler.logic->retryTimerRunning());
    EXPECT_EQ(scheduler.logic->taskCount(), 1u) << "a retried task stays in the list";
  });
  EXPECT_TRUE(
      logs.contains(log4cplus::INFO_LOG_LEVEL, "cloud::CloudStorageLogic::startRetryTimer enter"));

  ASSERT_TRUE(waitForStarts(0, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - askedAt, kInterval);
  EXPECT_EQ(recorded.endCount(), 0) << "no callback between the failure and the retry";
  EXPECT_TRUE(
      logs.contains(log4cplus::INFO_LOG_LEVEL, "cloud::CloudStorageLogic::stopRetryTimer enter"));
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->retryCount(), 0u);
    EXPECT_FALSE(scheduler.logic->retryTimerRunning());
    EXPECT_EQ(task->state(), CloudStorageState::kRunning);
  });

  scheduler.onQueue([&] { task->end(CloudStorageResult::kTransferFailed, "500", false); });
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(recorded.endCount(), 1);
}

TEST_F(SchedulerRetryTest, RestartsAnUploadOutsideTheRunningLimit) {
  signIn();
  std::vector<RecordedRequest> uploads;
  auto addUpload = [&] {
    uploads.emplace_back(true, CloudStorageKind::kImage);
    ASSERT_TRUE(scheduler.logic->addRequest(uploads.back().request));
    scheduler.settle();
  };
  for (int i = 0; i < 3; ++i) {
    addUpload();
  }
  auto first = scheduler.task(0);
  // The first asks for a retry, the second succeeds: the third takes a free place, and a fourth
  // takes the other.
  scheduler.onQueue([&] { first->end(CloudStorageResult::kTransferFailed, "", true); });
  scheduler.onQueue([&] { scheduler.task(1)->end(CloudStorageResult::kSuccess, "", false); });
  addUpload();
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.task(2)->state(), CloudStorageState::kRunning);
    EXPECT_EQ(scheduler.task(3)->state(), CloudStorageState::kRunning);
  });
  // The retry restarts the first although two uploads run already.
  ASSERT_TRUE(waitForStarts(0, 2));
  scheduler.onQueue([&] {
    EXPECT_EQ(first->state(), CloudStorageState::kRunning);
    EXPECT_EQ(scheduler.task(2)->state(), CloudStorageState::kRunning);
    EXPECT_EQ(scheduler.task(3)->state(), CloudStorageState::kRunning);
  });
  EXPECT_EQ(uploads[0].endCount(), 0);
}

TEST_F(SchedulerRetryTest, RetriesWaitForTheConfigurationAndChangeAidReleasesThem) {
  LogCapture logs;
  signIn();
  RecordedRequest upload(true, CloudStorageKind::kFile);
  ASSERT_TRUE(scheduler.logic->addRequest(upload.request));
  scheduler.settle();
  auto task = scheduler.task(0);
  scheduler.logic->changeAid("");  // the account went away: the configuration is incomplete
  scheduler.onQueue([&] { task->end(CloudStorageResult::kTransferFailed, "", true); });

  // The timer fires, finds the configuration incomplete and keeps the task, timer stopped.
  ASSERT_TRUE(quill_test::eventually(
      [&] { return logs.count("cloud::CloudStorageLogic::stopRetryTimer enter") >= 1; }));
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->retryCount(), 1u);
    EXPECT_FALSE(scheduler.logic->retryTimerRunning());
    EXPECT_EQ(task->starts, 1);
  });

  scheduler.logic->changeAid("aid");
  scheduler.settle();
  scheduler.onQueue([&] {
    EXPECT_EQ(task->starts, 2);
    EXPECT_EQ(task->state(), CloudStorageState::kRunning);
    EXPECT_EQ(scheduler.logic->retryCount(), 0u);
  });
  EXPECT_EQ(upload.endCount(), 0);
}

TEST_F(SchedulerRetryTest, CancellingTheLastRetryingTaskStopsTheTimer) {
  LogCapture logs;
  RecordedRequest recorded(false, CloudStorageKind::kImage, "img");
  ASSERT_TRUE(scheduler.logic->addRequest(recorded.request));
  scheduler.settle();
  auto task = scheduler.task(0);
  scheduler.onQueue([&] { task->end(CloudStorageResult::kTransferFailed, "500", true); });
  scheduler.logic->cancelRequestWithId("img");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kCancelled);
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->retryCount(), 0u);
    EXPECT_FALSE(scheduler.logic->retryTimerRunning());
    EXPECT_EQ(scheduler.logic->taskCount(), 0u);
  });
  EXPECT_TRUE(
      logs.contains(log4cplus::INFO_LOG_LEVEL, "cloud::CloudStorageLogic::stopRetryTimer enter"));
}
