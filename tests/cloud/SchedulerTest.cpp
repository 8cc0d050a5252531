#include "CloudTestSupport.h"
#include "LogCapture.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>

using quill_test::FakeScheduler;
using quill_test::LogCapture;
using quill_test::RecordedRequest;
using quill_test::TempDir;

namespace {

// A scheduler with a complete configuration.
struct SchedulerTest : ::testing::Test {
  TempDir userDirectory;
  FakeScheduler scheduler{true};

  void signIn() {
    scheduler.logic->changeUser("app", "pin", userDirectory.path());
    scheduler.logic->changeAid("aid");
    scheduler.settle();
  }

  RecordedRequest add(bool upload, int kind) {
    RecordedRequest recorded(upload, kind);
    EXPECT_TRUE(scheduler.logic->addRequest(recorded.request));
    return recorded;
  }

  std::vector<int> states() {
    std::vector<int> result;
    scheduler.onQueue([&] {
      for (std::size_t i = 0; i < scheduler.madeCount(); ++i) {
        result.push_back(scheduler.task(i)->state());
      }
    });
    return result;
  }

  void end(std::size_t index, int code, bool retry = false) {
    auto task = scheduler.task(index);
    scheduler.onQueue([&] { task->end(code, "", retry); });
  }
};

}  // namespace

TEST_F(SchedulerTest, RefusesNullRequestsAndUnknownKinds) {
  EXPECT_FALSE(scheduler.logic->addRequest(nullptr));
  for (auto [upload, kind] : {std::pair{false, CloudStorageKind::kVideo},
                              {true, 4},
                              {true, 0},
                              {false, 0},
                              {false, -1}}) {
    auto request = std::make_shared<CloudStorageRequest>(upload);
    request->kind = kind;
    EXPECT_FALSE(scheduler.logic->addRequest(request)) << upload << " " << kind;
  }
  scheduler.settle();
  EXPECT_EQ(scheduler.madeCount(), 0u);
}

TEST_F(SchedulerTest, MapsKindsToTaskTypes) {
  signIn();
  const std::vector<std::tuple<bool, int, int>> table = {
      {true, CloudStorageKind::kImage, CloudStorageTaskType::kImageUpload},
      {true, CloudStorageKind::kFile, CloudStorageTaskType::kFileUpload},
      {true, CloudStorageKind::kVideo, CloudStorageTaskType::kVideoUpload},
      {false, CloudStorageKind::kImage, CloudStorageTaskType::kImageDownload},
      {false, CloudStorageKind::kFile, CloudStorageTaskType::kFileDownload}};
  for (const auto& [upload, kind, type] : table) {
    EXPECT_EQ(cloud::CloudStorageLogic::taskTypeFor(upload, kind), type);
    add(upload, kind);
  }
  scheduler.settle();
  ASSERT_EQ(scheduler.madeCount(), table.size());
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(scheduler.task(i)->type(), std::get<2>(table[i]));
  }
}

TEST_F(SchedulerTest, RunsTwoUploadsAtOnce) {
  signIn();
  auto first = add(true, CloudStorageKind::kImage);
  add(true, CloudStorageKind::kImage);
  add(true, CloudStorageKind::kImage);
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{2, 2, 1}));

  end(0, CloudStorageResult::kSuccess);
  ASSERT_TRUE(first.waitEnded());
  EXPECT_EQ(first.ended().state, CloudStorageState::kFinished);
  EXPECT_EQ(first.ended().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(states(), (std::vector<int>{3, 2, 2}));
}

TEST_F(SchedulerTest, RunsFourDownloadsAtOnceOldestFirst) {
  LogCapture logs;
  for (int i = 0; i < 6; ++i) {
    add(false, i % 2 == 0 ? 1 : 2);
  }
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{2, 2, 2, 2, 1, 1}));
  EXPECT_GE(logs.count(" too many tasks to run"), 2);

  end(2, CloudStorageResult::kNotFound);
  EXPECT_EQ(states(), (std::vector<int>{2, 2, 3, 2, 2, 1}));
  end(0, CloudStorageResult::kSuccess);
  EXPECT_EQ(states(), (std::vector<int>{3, 2, 3, 2, 2, 2}));
}

TEST_F(SchedulerTest, DownloadsDoNotWaitForTheConfiguration) {
  add(false, CloudStorageKind::kImage);
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{2}));
}

TEST_F(SchedulerTest, HoldsUploadsUntilTheConfigurationIsComplete) {
  LogCapture logs;
  scheduler.logic->changeUser("app", "pin", userDirectory.path());
  add(true, CloudStorageKind::kImage);
  add(true, CloudStorageKind::kFile);
  add(true, CloudStorageKind::kVideo);
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{1, 1, 1}));
  EXPECT_TRUE(logs.contains(log4cplus::WARN_LOG_LEVEL, " waiting configuration"));

  // One waiting task starts per look for work: the next ones follow as uploads end or arrive.
  scheduler.logic->changeAid("aid");
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{2, 1, 1}));
  end(0, CloudStorageResult::kSuccess);
  EXPECT_EQ(states(), (std::vector<int>{3, 2, 1}));
  add(true, CloudStorageKind::kImage);
  scheduler.settle();
  EXPECT_EQ(states(), (std::vector<int>{3, 2, 2, 1}));
  EXPECT_NE(scheduler.task(0)->startedWith(), nullptr);
  scheduler.onQueue([&] { EXPECT_EQ(scheduler.task(0)->startedWith()->aid, "aid"); });
}

TEST_F(SchedulerTest, UploadsNeverWaitWhenNotAskedTo) {
  FakeScheduler eager(false);
  RecordedRequest upload(true, CloudStorageKind::kImage);
  ASSERT_TRUE(eager.logic->addRequest(upload.request));
  eager.settle();
  ASSERT_EQ(eager.madeCount(), 1u);
  eager.onQueue([&] { EXPECT_EQ(eager.task(0)->state(), CloudStorageState::kRunning); });
  eager.onQueue([&] { EXPECT_EQ(eager.logic->currentConfig().waitForConfig, 0); });
}

TEST_F(SchedulerTest, ChangeAidWithTheCurrentValueDoesNothing) {
  LogCapture logs;
  signIn();
  add(true, CloudStorageKind::kImage);
  add(true, CloudStorageKind::kImage);
  add(true, CloudStorageKind::kImage);
  scheduler.settle();
  const int before = logs.count(" too many tasks to run");
  scheduler.logic->changeAid("aid");
  scheduler.settle();
  EXPECT_EQ(logs.count(" too many tasks to run"), before);
  scheduler.logic->changeAid("other");
  scheduler.settle();
  EXPECT_EQ(logs.count(" too many tasks to run"), before + 1) << "a new aid looks for work";
  scheduler.onQueue([&] { EXPECT_EQ(scheduler.logic->currentConfig().aid, "other"); });
}

TEST_F(SchedulerTest, DropsASecondRequestWithTheSameIdAndType) {
  LogCapture logs;
  RecordedRequest first(false, CloudStorageKind::kImage, "same");
  RecordedRequest second(false, CloudStorageKind::kImage, "same");
  RecordedRequest otherType(false, CloudStorageKind::kFile, "same");
  ASSERT_TRUE(scheduler.logic->addRequest(first.request));
  ASSERT_TRUE(scheduler.logic->addRequest(second.request)) << "dropped later, on the queue";
  ASSERT_TRUE(scheduler.logic->addRequest(otherType.request));
  scheduler.settle();
  EXPECT_EQ(scheduler.madeCount(), 2u);
  EXPECT_EQ(logs.count(" task exist"), 1);
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, " task exist"));
  EXPECT_TRUE(logs.contains(log4cplus::DEBUG_LOG_LEVEL, " addTaskWithReqest"));

  end(0, CloudStorageResult::kSuccess);
  ASSERT_TRUE(first.waitEnded());
  EXPECT_EQ(second.endCount(), 0);
  // Once the first has ended, the id is free again.
  RecordedRequest third(false, CloudStorageKind::kImage, "same");
  ASSERT_TRUE(scheduler.logic->addRequest(third.request));
  scheduler.settle();
  EXPECT_EQ(scheduler.madeCount(), 3u);
}

TEST_F(SchedulerTest, CancelsByIdAndIgnoresUnknownIds) {
  for (int i = 0; i < 5; ++i) {
    add(false, CloudStorageKind::kImage);
  }
  RecordedRequest target(false, CloudStorageKind::kFile, "target");
  ASSERT_TRUE(scheduler.logic->addRequest(target.request));
  scheduler.logic->cancelRequestWithId("unknown");
  scheduler.settle();
  EXPECT_EQ(scheduler.logic->taskCount(), 6u);

  scheduler.logic->cancelRequestWithId("target");
  ASSERT_TRUE(target.waitEnded());
  EXPECT_EQ(target.ended().state, CloudStorageState::kFinished);
  EXPECT_EQ(target.ended().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(target.ended().message, "");
  EXPECT_EQ(scheduler.task(5)->cancels, 1);
  EXPECT_EQ(scheduler.task(4)->cancels, 0);
}

TEST_F(SchedulerTest, CancelAllEndsEveryRequestOnce) {
  signIn();
  std::vector<RecordedRequest> requests;
  for (int i = 0; i < 4; ++i) {
    requests.push_back(add(true, 1 + i % 3));
    requests.push_back(add(false, 1 + i % 2));
  }
  scheduler.settle();
  scheduler.logic->cancelAllRequests();
  scheduler.settle();
  for (auto& request : requests) {
    ASSERT_TRUE(request.waitEnded());
    EXPECT_EQ(request.endCount(), 1);
    EXPECT_EQ(request.ended().code, CloudStorageResult::kCancelled);
  }
  scheduler.settle();
  EXPECT_EQ(scheduler.logic->taskCount(), 0u);
}

TEST_F(SchedulerTest, ChangeUserMakesThePerUserCacheDirectory) {
  LogCapture logs;
  add(false, CloudStorageKind::kImage);  // before any user: the task carries no cache path
  scheduler.settle();
  EXPECT_TRUE(logs.contains(log4cplus::DEBUG_LOG_LEVEL, "user directory not exists, "));

  scheduler.logic->changeUser("app", "pin", userDirectory.path());
  scheduler.settle();
  const auto expected = FileUtils::appendComponent(userDirectory.path(), "cloud_storage_caches");
  EXPECT_TRUE(FileUtils::directoryExists(expected));
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->currentCachePath(), expected);
    EXPECT_EQ(scheduler.logic->currentConfig().appId, "app");
    EXPECT_EQ(scheduler.logic->currentConfig().pin, "pin");
    EXPECT_EQ(scheduler.logic->currentConfig().userDirectory, userDirectory.path());
  });

  const auto missing = userDirectory.file("missing");
  scheduler.logic->changeUser("app2", "pin2", missing);
  scheduler.settle();
  EXPECT_TRUE(logs.contains(log4cplus::DEBUG_LOG_LEVEL, "user directory not exists, " + missing));
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->currentCachePath(), expected)
        << "kept when the directory is missing";
    EXPECT_EQ(scheduler.logic->currentConfig().appId, "app2");
  });
}

TEST_F(SchedulerTest, ASecondEndingOfATaskIsNotReported) {
  auto recorded = add(false, CloudStorageKind::kFile);
  scheduler.settle();
  auto task = scheduler.task(0);
  scheduler.onQueue([&] {
    task->end(CloudStorageResult::kTransferFailed, "500", false);
    task->end(CloudStorageResult::kSuccess, "",
              false);  // e.g. a completion already posted when the task was cancelled
  });
  ASSERT_TRUE(recorded.waitEnded());
  scheduler.settle();
  EXPECT_EQ(recorded.endCount(), 1);
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
}

TEST_F(SchedulerTest, AFileDownloadAskingForARetryEndsAtOnce) {
  auto recorded = add(false, CloudStorageKind::kFile);
  scheduler.settle();
  end(0, CloudStorageResult::kTransferFailed, true);
  ASSERT_TRUE(recorded.waitEnded(std::chrono::milliseconds(1000)));
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
  scheduler.onQueue([&] {
    EXPECT_EQ(scheduler.logic->retryCount(), 0u);
    EXPECT_FALSE(scheduler.logic->retryTimerRunning());
  });
}
