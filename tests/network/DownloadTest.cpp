// downloadFile() against the reference file service, over HTTP and HTTPS.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "LogCapture.h"
#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"
#include "ThreadNames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>

using namespace quill_test;

namespace {

class Download : public OverBothSchemes {
protected:
  std::shared_ptr<HttpResponse> download(const std::string& url, const std::string& path,
                                         const std::shared_ptr<TransferRecord>& record) {
    HttpClient::downloadFile(url, path, record->progress(), record->completion());
    return record->wait();
  }
};

}  // namespace

// Profiles and debuggers tell the network thread from the serial queues by its name; unnamed, it
// would carry the name of whichever thread first used the client.
TEST_P(Download, CompletesOnTheNamedNetworkThread) {
  const auto urlPath = storePattern("named-thread.bin", 1000);
  auto record = TransferRecord::make();
  std::string threadName;
  const auto recordCompletion = record->completion();
  HttpClient::downloadFile(url(urlPath), dir.file("named-thread.bin"), nullptr,
                           [&threadName, recordCompletion](std::shared_ptr<HttpResponse> response) {
                             threadName = currentThreadName();
                             recordCompletion(std::move(response));
                           });
  const auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted);
  EXPECT_EQ(threadName, "quill network");
}

TEST_P(Download, WritesTheBytesAndReportsProgressUpToTheTotal) {
  const std::uint64_t size = 3 * 1024 * 1024 + 123;
  const auto urlPath = storePattern("three-mib.bin", size);
  auto record = TransferRecord::make();
  auto response = download(url(urlPath), dir.file("out.bin"), record);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  expectProgressEndsAtTotal(record->progressReports(), static_cast<double>(size));
  for (const auto& thread : record->threads()) {
    EXPECT_NE(thread, std::this_thread::get_id())
        << "progress and completion run on the network thread";
  }
}

TEST_P(Download, TheWholeFileIsReportedOnceAtTheEnd) {
  // 16 KiB usually arrives in one read; 3 MiB in many. Either way, only the report at the end
  // carries the whole size: each report is a hop to the caller's thread, and one that repeats the
  // last is wasted.
  for (const std::uint64_t size : {std::uint64_t{16 * 1024}, std::uint64_t{3 * 1024 * 1024}}) {
    const auto name = "whole-" + std::to_string(size) + ".bin";
    const auto urlPath = storePattern(name, size);
    auto record = TransferRecord::make();
    auto response = download(url(urlPath), dir.file(name), record);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
    const auto reports = record->progressReports();
    expectProgressEndsAtTotal(reports, static_cast<double>(size));
    const auto whole = std::count_if(reports.begin(), reports.end(), [&](const auto& report) {
      return report.first == static_cast<double>(size);
    });
    EXPECT_EQ(whole, 1) << size << " bytes: " << reports.size() << " reports";
  }
}

TEST_P(Download, AnEmptyFileGivesAnEmptyFile) {
  const auto urlPath = storePattern("empty.bin", 0);
  auto record = TransferRecord::make();
  auto response = download(url(urlPath), dir.file("out.bin"), record);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_TRUE(FileUtils::fileExists(dir.file("out.bin")));
  EXPECT_EQ(FileUtils::fileSize(dir.file("out.bin")), 0u);
  expectProgressEndsAtTotal(record->progressReports(), 0);
}

TEST_P(Download, LeavesATakenPathAloneAndFails) {
  const auto urlPath = storePattern("small.bin", 1000);
  writeWholeFile(dir.file("out.bin"), std::string(5000, 'x'));
  auto response = download(url(urlPath), dir.file("out.bin"), TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->systemError, EEXIST) << response->text;
  EXPECT_NE(response->text.find(dir.file("out.bin")), std::string::npos) << response->text;
  EXPECT_EQ(readWholeFile(dir.file("out.bin")), std::string(5000, 'x'));
}

TEST_P(Download, NeverWritesThroughALinkAtThePath) {
  const auto urlPath = storePattern("small.bin", 1000);
  const auto victim = dir.file("victim");
  writeWholeFile(victim, "belongs to someone else");
  std::error_code error;
  std::filesystem::create_symlink(victim, dir.file("planted"), error);
  if (error) {
    GTEST_SKIP() << "cannot make a symbolic link here: " << error.message();
  }
  auto response = download(url(urlPath), dir.file("planted"), TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_NE(response->systemError, 0) << response->text;
  EXPECT_EQ(readWholeFile(victim), "belongs to someone else");
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("planted")))
      << "the link itself is not removed either";
}

TEST_P(Download, ErrorStatusesFailAndLeaveNoFile) {
  const auto urlPath = storePattern("guarded.bin", 4096);
  for (const int status : {400, 403, 404, 500}) {
    SCOPED_TRACE(status);
    const auto path = dir.file("out-" + std::to_string(status));
    auto record = TransferRecord::make();
    auto response = download(
        url(urlPath + "?quill_status=" + std::to_string(status) + "&quill_body=error%20page"), path,
        record);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kFailed);
    EXPECT_EQ(response->status, status);
    EXPECT_TRUE(isStatusLine(response->text, status))
        << "the status line describes the failure: " << response->text;
    EXPECT_FALSE(FileUtils::fileExists(path)) << "the error body must not end up in a file";
    EXPECT_TRUE(record->progressReports().empty()) << "an error body is no download progress";
  }
}

TEST_P(Download, AMissingFileIsNotFound) {
  auto response = download(url("/files/never-stored.bin"), dir.file("out"), TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 404);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out")));
}

TEST_P(Download, CancelMidTransferCompletesOnceAndLeavesNoFile) {
  const std::uint64_t size = 4 * 1024 * 1024;
  const auto urlPath = storePattern("slow.bin", size);
  auto record = TransferRecord::make();
  const auto path = dir.file("out.bin");
  // 256 KiB a second: the whole file would take 16 seconds.
  const auto id = HttpClient::downloadFile(url(urlPath + "?quill_rate=262144"), path,
                                           record->progress(), record->completion());
  ASSERT_TRUE(eventually([&] { return !record->progressReports().empty(); })) << "no byte arrived";
  EXPECT_TRUE(FileUtils::fileExists(path)) << "the download writes as bytes arrive";
  const auto cancelledAt = std::chrono::steady_clock::now();
  HttpClient::cancelRequest(id);
  auto response = record->wait(std::chrono::seconds(5));
  ASSERT_NE(response, nullptr) << "cancel did not end the transfer";
  EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, std::chrono::seconds(2));
  EXPECT_EQ(response->outcome, HttpResponse::kCancelled);
  EXPECT_FALSE(FileUtils::fileExists(path));
  HttpClient::cancelRequest(id);
  drainEngine();
  EXPECT_EQ(record->completionCount(), 1);
  EXPECT_LT(record->progressReports().back().first, static_cast<double>(size));
}

TEST_P(Download, ProgressComesAtMostAboutTwentyTimesASecond) {
  const std::uint64_t size = 1024 * 1024;
  const auto urlPath = storePattern("paced.bin", size);
  auto record = TransferRecord::make();
  const auto started = std::chrono::steady_clock::now();
  // 512 KiB a second: about two seconds of steady arrivals.
  auto response = download(url(urlPath + "?quill_rate=524288"), dir.file("out.bin"), record);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  const auto reports = record->progressReports();
  expectProgressEndsAtTotal(reports, static_cast<double>(size));
  EXPECT_GE(reports.size(), 5u) << "progress is reported while the bytes arrive";
  EXPECT_LE(static_cast<double>(reports.size()), 20 * seconds + 2) << "over " << seconds << " s";
}

TEST_P(Download, RedirectsAreFollowed) {
  const auto urlPath = storePattern("moved.bin", 10000);
  auto response = download(url("/redirect?to=" + urlPath + "&hops=5"), dir.file("out.bin"),
                           TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), 10000));
}

TEST_P(Download, MoreThanFiveRedirectsFail) {
  const auto urlPath = storePattern("far.bin", 10000);
  auto response = download(url("/redirect?to=" + urlPath + "&hops=6"), dir.file("out.bin"),
                           TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_GE(response->status, 300);
  EXPECT_LT(response->status, 400);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin")));
}

// A stall that does not go away: the first reply stalls after 64 KiB, and every request for the
// rest stalls before its first byte. After six of those the download fails with the guard's words
// and the status its file began with.
TEST_P(Download, AStallThatNeverEndsFailsWithTheGuardsMessage) {
  ScopedEnv stall("QUILL_HTTP_STALL_SECONDS", std::string("1"));
  ScopedEnv waits("QUILL_HTTP_RESUME_WAIT_MS", std::string("20"));
  const auto urlPath = storePattern("stalls.bin", 1024 * 1024);
  const auto started = std::chrono::steady_clock::now();
  auto response = download(url(urlPath + "?quill_stall_after=65536"), dir.file("out.bin"),
                           TransferRecord::make());
  const auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 200) << "the reply had begun";
  EXPECT_EQ(response->text, "the transfer stalled: no byte moved for 1 seconds");
  // Seven attempts, each ended by the guard, and five short waits.
  EXPECT_GE(elapsed, std::chrono::milliseconds(6000));
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin")));
}

// A connection dropped at the same byte of the file however often the rest is asked for.
TEST_P(Download, ADropThatNeverEndsFails) {
  ScopedEnv waits("QUILL_HTTP_RESUME_WAIT_MS", std::string("20"));
  const auto urlPath = storePattern("dropped.bin", 1024 * 1024);
  auto response = download(url(urlPath + "?quill_drop_after=65536"), dir.file("out.bin"),
                           TransferRecord::make());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 200);
  EXPECT_FALSE(response->text.empty());
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin")));
}

TEST_P(Download, ConnectionsAreReusedAcrossTransfers) {
  const auto urlPath = storePattern("again.bin", 2000);
  std::vector<HttpTimeline> timelines;
  for (int i = 0; i < 4; ++i) {
    auto record = TransferRecord::make();
    HttpClient::downloadFile(url(urlPath), dir.file("out" + std::to_string(i)), nullptr,
                             record->completion());
    auto response = record->wait();
    ASSERT_NE(response, nullptr);
    ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
    timelines.push_back(response->timeline);
  }
  // A transfer that opened no connection of its own has no connect time in its timeline.
  for (std::size_t i = 1; i < timelines.size(); ++i) {
    EXPECT_EQ(timelines[i].connectMs, -1) << "transfer " << i << " opened a connection of its own";
    EXPECT_EQ(timelines[i].tlsMs, -1);
  }
}

INSTANTIATE_TEST_SUITE_P(Schemes, Download, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
