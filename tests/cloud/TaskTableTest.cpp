// The scheduler's table of tasks: arrival order, lookups by request id, the waiting lines and the
// running counts per direction, kept in step by add and remove.
#include "CloudTestSupport.h"

#include "inner/TaskTable.h"

#include <gtest/gtest.h>

using cloud::Direction;
using cloud::TaskTable;
using quill_test::FakeTask;

namespace {

struct TaskTableTest : ::testing::Test {
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("task table test");
  CloudStorageConfig config;
  TaskTable table;

  std::shared_ptr<FakeTask> make(const std::string& requestId, int type) {
    const bool upload = type == CloudStorageTaskType::kImageUpload ||
                        type == CloudStorageTaskType::kFileUpload ||
                        type == CloudStorageTaskType::kVideoUpload;
    auto request = std::make_shared<CloudStorageRequest>(upload);
    request->requestId = requestId;
    return std::make_shared<FakeTask>("", type, request, queue, nullptr);
  }
  std::shared_ptr<FakeTask> add(const std::string& requestId, int type) {
    auto task = make(requestId, type);
    table.add(task);
    return task;
  }
};

}  // namespace

TEST_F(TaskTableTest, KeepsTasksInOrderOfArrival) {
  auto a = add("a", CloudStorageTaskType::kFileDownload);
  auto b = add("b", CloudStorageTaskType::kImageUpload);
  auto c = add("c", CloudStorageTaskType::kImageDownload);
  EXPECT_EQ(table.size(), 3u);
  EXPECT_EQ(table.all(), (std::vector<std::shared_ptr<cloud::ITask>>{a, b, c}));
  table.add(b);
  EXPECT_EQ(table.size(), 3u) << "a task is in the table once";
}

TEST_F(TaskTableTest, FindsByRequestIdAndType) {
  auto download = add("same", CloudStorageTaskType::kFileDownload);
  auto upload = add("same", CloudStorageTaskType::kFileUpload);
  add("other", CloudStorageTaskType::kFileDownload);
  EXPECT_EQ(table.find("same", CloudStorageTaskType::kFileDownload), download);
  EXPECT_EQ(table.find("same", CloudStorageTaskType::kFileUpload), upload);
  EXPECT_EQ(table.find("same", CloudStorageTaskType::kImageDownload), nullptr);
  EXPECT_EQ(table.find("nobody", CloudStorageTaskType::kFileDownload), nullptr);
  EXPECT_EQ(table.withRequestId("same"),
            (std::vector<std::shared_ptr<cloud::ITask>>{download, upload}));
  EXPECT_TRUE(table.withRequestId("nobody").empty());
}

TEST_F(TaskTableTest, EachDirectionWaitsInItsOwnLineOldestFirst) {
  auto d1 = add("d1", CloudStorageTaskType::kFileDownload);
  auto u1 = add("u1", CloudStorageTaskType::kVideoUpload);
  auto d2 = add("d2", CloudStorageTaskType::kImageDownload);
  auto u2 = add("u2", CloudStorageTaskType::kImageUpload);
  EXPECT_EQ(table.takeNextWaiting(Direction::Upload), u1);
  EXPECT_EQ(table.takeNextWaiting(Direction::Download), d1);
  EXPECT_EQ(table.takeNextWaiting(Direction::Download), d2);
  EXPECT_EQ(table.takeNextWaiting(Direction::Download), nullptr);
  EXPECT_EQ(table.takeNextWaiting(Direction::Upload), u2);
  EXPECT_EQ(table.takeNextWaiting(Direction::Upload), nullptr);
  EXPECT_EQ(table.size(), 4u) << "taking a task off its line keeps it in the table";
}

TEST_F(TaskTableTest, TasksThatLeftOrEndedAreNotTakenFromTheLine) {
  auto removed = add("removed", CloudStorageTaskType::kFileDownload);
  auto ended = add("ended", CloudStorageTaskType::kFileDownload);
  auto next = add("next", CloudStorageTaskType::kFileDownload);
  EXPECT_TRUE(table.remove(removed.get()));
  ended->end(CloudStorageResult::kCancelled, "", false);
  EXPECT_EQ(table.takeNextWaiting(Direction::Download), next);
}

TEST_F(TaskTableTest, CountsTheStartedTasksThatRunPerDirection) {
  auto d1 = add("d1", CloudStorageTaskType::kFileDownload);
  auto d2 = add("d2", CloudStorageTaskType::kFileDownload);
  auto u1 = add("u1", CloudStorageTaskType::kFileUpload);
  for (const auto& task : {d1, d2, u1}) {
    table.markStarted(task.get());
    task->startWithConfig(&config);
  }
  EXPECT_EQ(table.runningCount(Direction::Download), 2u);
  EXPECT_EQ(table.runningCount(Direction::Upload), 1u);
  d1->end(CloudStorageResult::kSuccess, "", false);
  EXPECT_EQ(table.runningCount(Direction::Download), 1u) << "an ended task does not run";
  table.markStopped(d2.get());
  EXPECT_EQ(table.runningCount(Direction::Download), 0u);
  table.markStarted(d2.get());
  EXPECT_EQ(table.runningCount(Direction::Download), 1u) << "a retry starts it again";
  auto outsider = make("outsider", CloudStorageTaskType::kFileUpload);
  table.markStarted(outsider.get());
  outsider->startWithConfig(&config);
  EXPECT_EQ(table.runningCount(Direction::Upload), 1u) << "only tasks of the table count";
}

TEST_F(TaskTableTest, RemoveTakesATaskOutOfEveryIndexOnce) {
  auto task = add("gone", CloudStorageTaskType::kFileUpload);
  auto kept = add("gone", CloudStorageTaskType::kFileDownload);
  table.markStarted(task.get());
  task->startWithConfig(&config);
  EXPECT_TRUE(table.remove(task.get()));
  EXPECT_FALSE(table.remove(task.get()));
  EXPECT_FALSE(table.contains(task.get()));
  EXPECT_EQ(table.find("gone", CloudStorageTaskType::kFileUpload), nullptr);
  EXPECT_EQ(table.withRequestId("gone"), (std::vector<std::shared_ptr<cloud::ITask>>{kept}));
  EXPECT_EQ(table.runningCount(Direction::Upload), 0u);
  EXPECT_EQ(table.takeNextWaiting(Direction::Upload), nullptr);
  EXPECT_EQ(table.all(), (std::vector<std::shared_ptr<cloud::ITask>>{kept}));
}
