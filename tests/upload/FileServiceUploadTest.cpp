#include "UploadTestSupport.h"

#include <gtest/gtest.h>

using quill_test::LogCapture;
using quill_test::UploadHarness;

namespace {}  // namespace

TEST(FileServiceUpload, SendsTheAccountFieldsThenTheFile) {
  UploadHarness harness(1);
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  const auto parts = harness.transport->call(0).spec.parts;
  ASSERT_EQ(parts.size(), 5u);
  const std::vector<std::tuple<std::string, std::string, bool>> expected = {
      {"appId", "app 1", false},
      {"pin", "pin=3", false},
      {"aid", "aid&2", false},
      {"clientType", "pc", false},
      {"upload", harness.filePath(), true}};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(parts[i].name, std::get<0>(expected[i]));
    EXPECT_EQ(parts[i].value, std::get<1>(expected[i]));
    EXPECT_EQ(parts[i].isFile, std::get<2>(expected[i]));
    EXPECT_EQ(parts[i].contentType, "") << "left to the network library";
  }
}

TEST(FileServiceUpload, SuccessReportsTheStoredPathWithAScheme) {
  UploadHarness harness(1);
  const auto end =
      harness.startAndEndFirstTransfer(0, 200, R"({"code":0,"path":"//files.test/files/k.png"})");
  EXPECT_EQ(end.code, CloudStorageResult::kSuccess);
  EXPECT_EQ(end.message, "");
  EXPECT_EQ(end.url, "https://files.test/files/k.png");
  EXPECT_FALSE(end.retry);
  harness.onQueue([&] { EXPECT_EQ(harness.task->state(), CloudStorageState::kFinished); });
}

TEST(FileServiceUpload, APathWithoutCodeIsASuccessAndAHostGainsTheScheme) {
  UploadHarness harness(1);
  const auto end = harness.startAndEndFirstTransfer(0, 200, R"({"path":"files.test/files/k.png"})");
  EXPECT_EQ(end.code, CloudStorageResult::kSuccess);
  EXPECT_EQ(end.url, "https://files.test/files/k.png");
}

TEST(FileServiceUpload, MissingOrEmptyPathFails) {
  for (const char* body : {R"({"code":0})", R"({"code":0,"path":""})"}) {
    LogCapture logs;
    UploadHarness harness(1);
    const auto end = harness.startAndEndFirstTransfer(0, 200, body);
    EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
    EXPECT_EQ(end.message, "path is empty");
    EXPECT_EQ(end.url, "");
    EXPECT_TRUE(
        logs.contains(log4cplus::ERROR_LOG_LEVEL, std::string("upload failed, code:200\n") + body));
  }
}

TEST(FileServiceUpload, AServerRefusalCarriesItsMessage) {
  LogCapture logs;
  UploadHarness withMessage(1);
  auto end = withMessage.startAndEndFirstTransfer(0, 200, R"({"code":17,"msg":"no quota"})");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "no quota");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload file error: 17msg: no quota"));

  UploadHarness withoutMessage(1);
  end = withoutMessage.startAndEndFirstTransfer(0, 200, R"({"code":5})");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload file error: 5msg: "));
}

TEST(FileServiceUpload, AReplyThatIsNotJsonFails) {
  LogCapture logs;
  UploadHarness harness(1);
  const auto end = harness.startAndEndFirstTransfer(0, 200, "<html>oops</html>");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "parse response failed");
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL, "parse response failed\n<html>oops</html>"));
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload failed, code:200\n<html>oops</html>"));
}

TEST(FileServiceUpload, ACancelledTransferEndsWithCodeThreeAndStillLogs) {
  LogCapture logs;
  UploadHarness harness(1);
  const auto end = harness.startAndEndFirstTransfer(1, 0, "aborted");
  EXPECT_EQ(end.code, CloudStorageResult::kCancelled);
  EXPECT_EQ(end.message, "");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload failed, code:0\naborted"));
}

TEST(FileServiceUpload, AFailedTransferCarriesTheDescription) {
  UploadHarness harness(1);
  auto end = harness.startAndEndFirstTransfer(2, 500, "HTTP/1.1 500 Internal Server Error");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "HTTP/1.1 500 Internal Server Error");

  UploadHarness silent(1);
  end = silent.startAndEndFirstTransfer(2, 0, "");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "") << "this route adds no text of its own";
}

TEST(FileServiceUpload, AnIncompleteConfigurationStartsNoTransfer) {
  LogCapture logs;
  UploadHarness harness(1);
  harness.config.aid.clear();
  EXPECT_TRUE(harness.start());
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kFailed);
  EXPECT_EQ(harness.lastEnd().message, "upload request invaild");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload parts is empty"));
  EXPECT_TRUE(harness.transport->startedCalls().empty());
}

TEST(FileServiceUpload, AnEmptyUrlStartsNoTransfer) {
  LogCapture logs;
  UploadHarness harness(1);
  harness.config.imageUploadUrl.clear();
  EXPECT_TRUE(harness.start());
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().message, "upload request invaild");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, " upload url is empty"));
  EXPECT_TRUE(harness.transport->startedCalls().empty());
}

TEST(FileServiceUpload, ProgressOnlyWithAProgressCallback) {
  UploadHarness quiet(1);
  ASSERT_TRUE(quiet.start());
  ASSERT_TRUE(quiet.transport->waitForCalls(1));
  EXPECT_FALSE(quiet.transport->call(0).spec.progress);

  UploadHarness reporting(1);
  reporting.recorded.recordProgress();
  ASSERT_TRUE(reporting.start());
  ASSERT_TRUE(reporting.transport->waitForCalls(1));
  const auto id = reporting.transport->call(0).id;
  ASSERT_TRUE(reporting.transport->call(0).spec.progress);
  reporting.transport->progress(id, 25, 100);
  reporting.transport->progress(id, 80, 100);
  reporting.transport->end(id, 0, 200, R"({"code":0,"path":"//h/p"})");
  ASSERT_TRUE(reporting.waitEnded());
  EXPECT_EQ(reporting.recorded.percents(), (std::vector<int>{25, 80}));
}

TEST(FileServiceUpload, AReplyForAGoneTaskIsDropped) {
  UploadHarness harness(1);
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  const auto id = harness.transport->call(0).id;
  std::weak_ptr<cloud::UploadTask> watch = harness.task;
  harness.task.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(harness.transport->cancelledIds(), (std::vector<std::string>{id}))
      << "an abandoned upload is stopped";
  harness.transport->drain();
  harness.onQueue([] {});
  EXPECT_EQ(harness.endCount(), 0);
}
