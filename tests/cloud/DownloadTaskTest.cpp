#include "DownloadTestSupport.h"
#include "LogCapture.h"
#include "TestFiles.h"

#include "task/DownloadTask.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

using quill_test::DownloadFixture;
using quill_test::entriesIn;
using quill_test::LogCapture;
using quill_test::readAll;
using quill_test::RecordedRequest;
using quill_test::TempDir;

namespace {

struct DownloadTaskTest : ::testing::Test, DownloadFixture {};

// A download's temporary file: hidden, in `directory`, named after the file it becomes.
bool isTemporaryFor(const std::string& path, const std::string& directory,
                    const std::string& name) {
  const auto base = FileUtils::fileName(path);
  return FileUtils::fileDir(path) == directory && base.rfind("." + name + ".", 0) == 0 &&
         base.size() > name.size() + 7 && base.compare(base.size() - 5, 5, ".part") == 0;
}

}  // namespace

TEST_F(DownloadTaskTest, DownloadsThroughTheCacheIntoTheDestination) {
  signIn();
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/report.pdf", "report.pdf");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  EXPECT_EQ(call.spec.kind, quill_test::ScriptedTransport::Spec::Kind::Download);
  EXPECT_EQ(call.spec.url, "https://files.test/report.pdf");
  EXPECT_TRUE(isTemporaryFor(call.spec.path, cacheDirectory(), "report.pdf")) << call.spec.path;

  transport->succeedDownload(call.id, "%PDF-1.7 body");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().state, CloudStorageState::kFinished);
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(recorded.ended().message, "");
  EXPECT_EQ(recorded.ended().cause.text, "");
  EXPECT_EQ(recorded.ended().bytesDone, 13);
  EXPECT_EQ(recorded.ended().bytesTotal, 13);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "report.pdf");
  EXPECT_EQ(readAll(finalPath), "%PDF-1.7 body");
  EXPECT_FALSE(FileUtils::fileExists(call.spec.path)) << "moved, not copied";
}

TEST_F(DownloadTaskTest, WithoutAUserGrowsBesideTheFinalPath) {
  auto recorded = download(CloudStorageKind::kImage, "https://img.test/a.png", "a.png");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "a.png");
  EXPECT_TRUE(isTemporaryFor(call.spec.path, destination.path(), "a.png")) << call.spec.path;
  transport->succeedDownload(call.id, "png bytes");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(readAll(finalPath), "png bytes");
  EXPECT_EQ(entriesIn(destination.path()), 1u) << "the temporary file became the final one";
}

TEST_F(DownloadTaskTest, TwoDownloadsOfOneNameGrowInFilesOfTheirOwn) {
  signIn();
  TempDir otherDestination;
  auto first = download(CloudStorageKind::kFile, "https://files.test/one", "same.bin");
  auto second = download(CloudStorageKind::kFile, "https://files.test/two", "same.bin");
  second.request->directory = otherDestination.path();
  ASSERT_TRUE(service->excuteRequest(first.request));
  ASSERT_TRUE(service->excuteRequest(second.request));
  ASSERT_TRUE(transport->waitForCalls(2));
  EXPECT_NE(transport->call(0).spec.path, transport->call(1).spec.path);
  transport->succeedDownload(transport->call(1).id, "second body");
  transport->succeedDownload(transport->call(0).id, "first body");
  ASSERT_TRUE(first.waitEnded());
  ASSERT_TRUE(second.waitEnded());
  EXPECT_EQ(readAll(FileUtils::appendComponent(destination.path(), "same.bin")), "first body");
  EXPECT_EQ(readAll(FileUtils::appendComponent(otherDestination.path(), "same.bin")),
            "second body");
}

TEST_F(DownloadTaskTest, AFailedDownloadLeavesTheUsersFileAsItWas) {
  for (const bool withUser : {false, true}) {
    SCOPED_TRACE(withUser ? "with a cache directory" : "without a cache directory");
    if (withUser) {
      signIn();
    }
    const auto name = std::string("kept-") + (withUser ? "1" : "0") + ".txt";
    const auto finalPath = FileUtils::appendComponent(destination.path(), name);
    std::ofstream(finalPath, std::ios::binary) << "the user's own words";
    auto recorded = download(CloudStorageKind::kFile, "https://files.test/" + name, name);
    ASSERT_TRUE(service->excuteRequest(recorded.request));
    ASSERT_TRUE(transport->waitForCalls(withUser ? 2 : 1));
    const auto call = transport->call(withUser ? 1 : 0);
    EXPECT_NE(call.spec.path, finalPath);
    std::ofstream(call.spec.path) << "partial";  // what the engine had written
    transport->end(call.id, 2, 500, "HTTP/1.1 500 Internal Server Error");
    ASSERT_TRUE(recorded.waitEnded());
    EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
    EXPECT_EQ(readAll(finalPath), "the user's own words");
    EXPECT_FALSE(FileUtils::fileExists(call.spec.path));
  }
}

TEST_F(DownloadTaskTest, RefusesNamesThatAreNotOnePlainComponent) {
  LogCapture logs;
  signIn();
  TempDir root;
  const auto inner = FileUtils::appendComponent(root.path(), "a/b");
  ASSERT_TRUE(FileUtils::makeDirectory(inner));
  const std::vector<std::string> names = {"../../x", "../x", "..",   ".",
                                          "a/b",     "/abs", "a\\b", std::string("x\0y", 3)};
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    auto recorded = download(CloudStorageKind::kFile, "https://files.test/evil", name);
    recorded.request->directory = inner;
    ASSERT_TRUE(service->excuteRequest(recorded.request));
    ASSERT_TRUE(recorded.waitEnded());
    EXPECT_EQ(recorded.ended().code, CloudStorageResult::kFailed);
    EXPECT_EQ(recorded.ended().message, "the download file name is not a plain file name");
    EXPECT_NE(recorded.ended().cause.text.find("not a plain file name"), std::string::npos);
  }
  EXPECT_TRUE(quill_test::eventually([&] {
    return logs.contains(log4cplus::ERROR_LOG_LEVEL,
                         "download file name is not a plain name: ../../x") &&
           logs.contains(log4cplus::ERROR_LOG_LEVEL,
                         "download file name is not a plain name: x\\x00y");
  }));
  EXPECT_EQ(transport->startedCalls().size(), 0u);
  EXPECT_EQ(entriesIn(inner), 0u);
  EXPECT_EQ(entriesIn(root.path()), 1u) << "only a/ itself";
  EXPECT_EQ(entriesIn(cacheDirectory()), 0u);
}

TEST_F(DownloadTaskTest, MapsTransferFailuresToResultCodes) {
  LogCapture logs;
  signIn();
  struct Row {
    int outcome;
    int status;
    int code;
    std::string message;
  };
  const std::vector<Row> rows = {{2, 404, -2, "404"},   {2, 403, -3, "403"}, {2, 400, -4, "400"},
                                 {2, 500, -100, "500"}, {2, 0, -100, "0"},   {1, 0, 3, "0"}};
  for (std::size_t i = 0; i < rows.size(); ++i) {
    auto recorded = download(CloudStorageKind::kFile, "https://files.test/f" + std::to_string(i),
                             "f" + std::to_string(i));
    ASSERT_TRUE(service->excuteRequest(recorded.request));
    ASSERT_TRUE(transport->waitForCalls(i + 1));
    const auto call = transport->call(i);
    std::ofstream(call.spec.path) << "partial";  // what the engine had written
    transport->end(call.id, rows[i].outcome, rows[i].status, "reason " + std::to_string(i));
    ASSERT_TRUE(recorded.waitEnded());
    EXPECT_EQ(recorded.ended().code, rows[i].code) << i;
    EXPECT_EQ(recorded.ended().message, rows[i].message) << i;
    EXPECT_EQ(recorded.ended().cause.text,
              rows[i].outcome == 1 ? "cancelled" : "reason " + std::to_string(i))
        << i;
    EXPECT_EQ(recorded.ended().cause.httpStatus, rows[i].status) << i;
    EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                              "download response code:" + std::to_string(rows[i].status) +
                                  " desc:reason " + std::to_string(i)));
    EXPECT_FALSE(FileUtils::fileExists(call.spec.path)) << "temporary file removed";
    EXPECT_FALSE(FileUtils::fileExists(
        FileUtils::appendComponent(destination.path(), "f" + std::to_string(i))));
  }
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL,
                            "cloud::DownloadTask::processDownloadCompletion enter"));
}

TEST_F(DownloadTaskTest, AnEmptyBodyIsAFailureAndLandsNothing) {
  LogCapture logs;
  signIn();
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/empty", "empty.bin");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  transport->succeedDownload(call.id, "");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kFailed);
  EXPECT_EQ(recorded.ended().message, "");
  EXPECT_EQ(recorded.ended().cause.text, "the server sent an empty file");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "download file size error"));
  EXPECT_FALSE(FileUtils::fileExists(call.spec.path));
  EXPECT_FALSE(FileUtils::fileExists(FileUtils::appendComponent(destination.path(), "empty.bin")));
}

TEST_F(DownloadTaskTest, AFailedMoveIsAFailure) {
  LogCapture logs;
  signIn();
  // A directory where the file should go makes the move fail.
  const auto finalPath = FileUtils::appendComponent(destination.path(), "blocked");
  ASSERT_TRUE(FileUtils::makeDirectory(FileUtils::appendComponent(finalPath, "inside")));
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/blocked", "blocked");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  transport->succeedDownload(call.id, "bytes");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kFailed);
  EXPECT_EQ(recorded.ended().message, "");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "failed to move temp file to cache path \n " + finalPath));
  EXPECT_EQ(recorded.ended().cause.systemError, EISDIR);
  EXPECT_NE(recorded.ended().cause.text.find(finalPath), std::string::npos)
      << recorded.ended().cause.text;
  EXPECT_FALSE(FileUtils::fileExists(call.spec.path));
}

TEST_F(DownloadTaskTest, RefusesRequestsThatCannotStart) {
  LogCapture logs;
  struct Row {
    std::string url;
    std::string directory;
    std::string fileName;
    std::string message;
    std::string log;
  };
  const auto missing = destination.file("missing");
  const std::vector<Row> rows = {
      {"", destination.path(), "a", "download url invaild", "download url invaild"},
      {"https://x/a", "", "a", "the download cache path is empty",
       "download cache path invaild: file name:a"},
      {"https://x/a", destination.path(), "", "the download cache path is empty",
       "download cache path invaild:" + destination.path() + " file name:"},
      {"https://x/a", missing, "a", "the download cache path not exists",
       "the download cache path not exists, " + missing},
  };
  for (const auto& row : rows) {
    RecordedRequest recorded(false, CloudStorageKind::kFile);
    recorded.request->url = row.url;
    recorded.request->directory = row.directory;
    recorded.request->fileName = row.fileName;
    ASSERT_TRUE(service->excuteRequest(recorded.request));
    ASSERT_TRUE(recorded.waitEnded()) << row.message;
    EXPECT_EQ(recorded.ended().code, CloudStorageResult::kFailed);
    EXPECT_EQ(recorded.ended().message, row.message);
    // The failure is reported first, then logged.
    EXPECT_TRUE(quill_test::eventually([&] {
      return logs.contains(log4cplus::ERROR_LOG_LEVEL, row.log);
    })) << row.log;
  }
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST(DownloadTaskDirect, RefusesOtherTypesBeforeReturning) {
  LogCapture logs;
  auto queue = std::make_shared<SerialQueue>("download direct");
  for (int type : {5, 0, 1}) {
    auto request = std::make_shared<CloudStorageRequest>(false);
    request->url = "https://x/a";
    std::vector<bool> retries;
    auto task = std::make_shared<cloud::DownloadTask>(
        "", type, request, queue,
        [&](std::shared_ptr<cloud::ITask>, bool retry) { retries.push_back(retry); });
    CloudStorageConfig config;
    EXPECT_FALSE(task->startWithConfig(&config));
    ASSERT_EQ(retries.size(), 1u) << "the failure is reported before startWithConfig returns";
    EXPECT_FALSE(retries[0]);
    EXPECT_EQ(request->resultCode, CloudStorageResult::kFailed);
    EXPECT_EQ(request->resultMessage, "download task type error");
    EXPECT_EQ(task->state(), CloudStorageState::kFinished);
    EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                              "download task type error, type:" + std::to_string(type)));
  }
}

TEST(DownloadTaskDirect, WithoutConfigurationRequestOrQueueNothingHappens) {
  auto queue = std::make_shared<SerialQueue>("download nothing");
  auto request = std::make_shared<CloudStorageRequest>(false);
  int completions = 0;
  auto completion = [&](std::shared_ptr<cloud::ITask>, bool) { ++completions; };
  CloudStorageConfig config;
  auto noConfig = std::make_shared<cloud::DownloadTask>("", 3, request, queue, completion);
  EXPECT_FALSE(noConfig->startWithConfig(nullptr));
  auto noRequest = std::make_shared<cloud::DownloadTask>("", 3, nullptr, queue, completion);
  EXPECT_FALSE(noRequest->startWithConfig(&config));
  auto noQueue = std::make_shared<cloud::DownloadTask>("", 3, request, nullptr, completion);
  EXPECT_FALSE(noQueue->startWithConfig(&config));
  EXPECT_EQ(completions, 0);
  EXPECT_EQ(request->resultCode, CloudStorageResult::kPending);
}

TEST_F(DownloadTaskTest, ReportsProgressAsWholePercentages) {
  signIn();
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/big", "big");
  recorded.recordProgress();
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  ASSERT_TRUE(call.spec.progress) << "a progress function is passed when the request has one";
  for (double done : {0.0, 10.4, 10.9, 11.0, 50.0, 99.9, 100.0}) {
    transport->progress(call.id, done, 100);
  }
  transport->succeedDownload(call.id, "x");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.percents(), (std::vector<int>{10, 11, 50, 99}));
}

TEST_F(DownloadTaskTest, PassesNoProgressFunctionWithoutAProgressCallback) {
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/quiet", "quiet");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  EXPECT_FALSE(transport->call(0).spec.progress);
}

TEST_F(DownloadTaskTest, CancelsAWaitingDownloadWithoutTheNetwork) {
  LogCapture logs;
  std::vector<RecordedRequest> requests;
  for (int i = 0; i < 5; ++i) {
    requests.push_back(download(CloudStorageKind::kFile, "https://files.test/" + std::to_string(i),
                                std::to_string(i)));
    requests.back().request->requestId = "d" + std::to_string(i);
    ASSERT_TRUE(service->excuteRequest(requests.back().request));
  }
  ASSERT_TRUE(transport->waitForCalls(4));
  service->cancelReqestWithID("d4");
  ASSERT_TRUE(requests[4].waitEnded());
  EXPECT_EQ(requests[4].ended().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(requests[4].ended().message, "");
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, " cancel the waiting task"));
  EXPECT_TRUE(transport->cancelledIds().empty());
  EXPECT_EQ(transport->startedCalls().size(), 4u);
}

TEST_F(DownloadTaskTest, CancelsARunningDownloadThroughTheNetwork) {
  signIn();
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/slow", "slow");
  recorded.request->requestId = "slow";
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  std::ofstream(call.spec.path) << "half";
  service->cancelReqestWithID("slow");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(transport->cancelledIds(), (std::vector<std::string>{call.id}));
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(recorded.ended().message, "0");
  EXPECT_FALSE(FileUtils::fileExists(call.spec.path));
  EXPECT_FALSE(FileUtils::fileExists(FileUtils::appendComponent(destination.path(), "slow")));
}

TEST_F(DownloadTaskTest, CancelAllEndsWaitingAndRunningDownloads) {
  std::vector<RecordedRequest> requests;
  for (int i = 0; i < 6; ++i) {
    requests.push_back(download(CloudStorageKind::kImage, "https://files.test/" + std::to_string(i),
                                std::to_string(i)));
    ASSERT_TRUE(service->excuteRequest(requests.back().request));
  }
  ASSERT_TRUE(transport->waitForCalls(4));
  service->cancelAllReqest();
  for (auto& request : requests) {
    ASSERT_TRUE(request.waitEnded());
    EXPECT_EQ(request.ended().code, CloudStorageResult::kCancelled);
  }
  EXPECT_EQ(transport->cancelledIds().size(), 4u);
}
