// Downloads whose body is cut off on the way: the engine asks again for the rest (Range, If-Range),
// starts over when the server sends the whole file again, waits longer and longer while attempts
// bring nothing, and gives up after five such waits; against the reference file service's cut,
// ignore-Range and changed-ETag faults, over HTTP and HTTPS.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "LogCapture.h"
#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace quill_test;

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

class Resume : public OverBothSchemes {
protected:
  void SetUp() override { service().clearFaults(); }
  void TearDown() override { service().clearFaults(); }

  quill_fileservice::Fault faultOn(const std::string& urlPath, int times) {
    quill_fileservice::Fault fault;
    fault.pathPrefix = urlPath;
    fault.times = times;
    return fault;
  }

  std::shared_ptr<HttpResponse> download(const std::string& urlPath,
                                         const std::shared_ptr<TransferRecord>& record) {
    HttpClient::downloadFile(url(urlPath), dir.file("out.bin"), record->progress(),
                             record->completion());
    return record->wait(std::chrono::seconds(60));
  }

  // Short waits between attempts that bring nothing; the schedule itself is the same.
  ScopedEnv waits{"QUILL_HTTP_RESUME_WAIT_MS", std::string("20")};

  // Requests the service received during `run`.
  template <typename Run>
  std::uint64_t requestsDuring(Run run) {
    const auto before = service().requestCount();
    run();
    return service().requestCount() - before;
  }
};

TEST_P(Resume, ACutEveryMebibyteIsResumedAndTheFileArrivesWhole) {
  const std::uint64_t size = 4 * kMiB + 1234;
  const auto urlPath = storePattern("cut-every.bin", size);
  auto cuts = faultOn(urlPath, -1);
  cuts.cutEveryBytes = static_cast<std::int64_t>(kMiB);
  service().addFault(cuts);
  auto record = TransferRecord::make();
  LogCapture logs;
  std::shared_ptr<HttpResponse> response;
  const auto requests = requestsDuring([&] { response = download(urlPath, record); });
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200) << "the status the file began with, not the ranges'";
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  EXPECT_EQ(requests, 5u) << "one request, then one for each of the four cuts";
  EXPECT_EQ(response->timeline.resumes, 4);
  EXPECT_EQ(response->timeline.bytes, static_cast<std::int64_t>(size));
  EXPECT_EQ(logs.countContaining(log4cplus::INFO_LOG_LEVEL, "asking for the rest now"), 4);
  expectProgressEndsAtTotal(record->progressReports(), static_cast<double>(size));
  EXPECT_EQ(record->completionCount(), 1);
}

TEST_P(Resume, AFileChangedMidWayIsFetchedAgainFromTheStart) {
  const std::uint64_t size = 2 * kMiB;
  const auto urlPath = storePattern("changed.bin", size);
  auto cut = faultOn(urlPath, 1);
  cut.dropAfterBytes = static_cast<std::int64_t>(kMiB + 7);
  auto changed = faultOn(urlPath, 1);
  changed.changeEtag = true;
  service().addFault(cut);
  service().addFault(changed);
  auto record = TransferRecord::make();
  LogCapture logs;
  std::shared_ptr<HttpResponse> response;
  const auto requests = requestsDuring([&] { response = download(urlPath, record); });
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  EXPECT_EQ(requests, 2u);
  EXPECT_EQ(logs.countContaining(log4cplus::INFO_LOG_LEVEL, "starting over from byte 0"), 1);
  expectProgressEndsAtTotal(record->progressReports(), static_cast<double>(size));
}

TEST_P(Resume, AServerThatIgnoresRangeIsReadFromTheStart) {
  const std::uint64_t size = 2 * kMiB + 5;
  const auto urlPath = storePattern("no-ranges.bin", size);
  auto cut = faultOn(urlPath, 1);
  cut.dropAfterBytes = static_cast<std::int64_t>(kMiB);
  auto whole = faultOn(urlPath, -1);
  whole.ignoreRange = true;
  service().addFault(cut);
  service().addFault(whole);
  auto record = TransferRecord::make();
  const auto response = download(urlPath, record);
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  expectProgressEndsAtTotal(record->progressReports(), static_cast<double>(size));
}

TEST_P(Resume, SixCutsInARowWithoutABytePutAnEndToIt) {
  const auto urlPath = storePattern("barren.bin", 2 * kMiB);
  // Counted from the file's start: every request for the rest gets nothing.
  auto cut = faultOn(urlPath, -1);
  cut.dropAfterBytes = 300000;
  service().addFault(cut);
  auto record = TransferRecord::make();
  LogCapture logs;
  std::shared_ptr<HttpResponse> response;
  const auto requests = requestsDuring([&] { response = download(urlPath, record); });
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_FALSE(response->text.empty());
  EXPECT_EQ(requests, 7u) << "the first request, one at once, then one after each of five waits";
  // The waits double from the first one (20 ms here), give or take a quarter.
  std::vector<long> waits;
  for (const auto& line : logs.lines()) {
    const auto at = line.message.find("asking for the rest in ");
    if (at != std::string::npos) {
      waits.push_back(std::stol(line.message.substr(at + 23)));
    }
  }
  ASSERT_EQ(waits.size(), 5u);
  for (std::size_t i = 0; i < waits.size(); ++i) {
    const long base = 20L << i;
    EXPECT_GE(waits[i], base * 3 / 4 - 1) << "wait " << i;
    EXPECT_LE(waits[i], base * 5 / 4) << "wait " << i;
  }
  EXPECT_EQ(logs.countContaining(log4cplus::WARN_LOG_LEVEL, "6 attempts in a row brought no byte"),
            1);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin"))) << "the partial file was left behind";
  EXPECT_EQ(record->completionCount(), 1);
}

// The reply came (200 and its headers), then the connection closed before a byte of the body:
// the download had begun, and is asked for again after the first wait.
TEST_P(Resume, AReplyCutBeforeItsFirstByteIsAskedForAgain) {
  const std::uint64_t size = kMiB;
  const auto urlPath = storePattern("never-began.bin", size);
  auto nothing = faultOn(urlPath, 1);
  nothing.dropAfterBytes = 0;
  service().addFault(nothing);
  auto record = TransferRecord::make();
  LogCapture logs;
  std::shared_ptr<HttpResponse> response;
  const auto requests = requestsDuring([&] { response = download(urlPath, record); });
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  EXPECT_EQ(requests, 2u);
  EXPECT_EQ(logs.countContaining(log4cplus::INFO_LOG_LEVEL, "asking for the rest in"), 1);
}

// Nothing of the download ever came: no connection. It ends at once, as it always did.
TEST_P(Resume, ADownloadThatNeverBeganIsNotAskedForAgain) {
  auto record = TransferRecord::make();
  LogCapture logs;
  HttpClient::downloadFile(refusedUrl(), dir.file("out.bin"), nullptr, record->completion());
  const auto response = record->wait();
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->timeline.resumes, 0);
  EXPECT_EQ(logs.countContaining(log4cplus::INFO_LOG_LEVEL, "asking for the rest"), 0);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin")));
}

TEST_P(Resume, AStalledBodyIsResumed) {
  ScopedEnv stallGuard("QUILL_HTTP_STALL_SECONDS", std::string("1"));
  const std::uint64_t size = kMiB + 99;
  const auto urlPath = storePattern("stalled.bin", size);
  auto stall = faultOn(urlPath, 1);
  stall.stallAfterBytes = 500000;
  service().addFault(stall);
  auto record = TransferRecord::make();
  LogCapture logs;
  const auto response = download(urlPath, record);
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_TRUE(holdsPattern(dir.file("out.bin"), size));
  EXPECT_EQ(logs.countContaining(log4cplus::INFO_LOG_LEVEL, "the transfer stalled"), 1);
}

TEST_P(Resume, ACancelDuringAWaitEndsTheDownloadAtOnce) {
  ScopedEnv longWaits("QUILL_HTTP_RESUME_WAIT_MS", std::string("60000"));
  const auto urlPath = storePattern("cancelled.bin", 2 * kMiB);
  auto first = faultOn(urlPath, 1);
  first.dropAfterBytes = 300000;
  auto nothing = faultOn(urlPath, -1);
  nothing.dropAfterBytes = 0;
  service().addFault(first);
  service().addFault(nothing);
  const auto before = service().requestCount();
  auto record = TransferRecord::make();
  const auto id =
      HttpClient::downloadFile(url(urlPath), dir.file("out.bin"), nullptr, record->completion());
  // The first request and the one resumed at once: the download then waits a minute.
  ASSERT_TRUE(
      eventually([&] { return service().requestCount() - before >= 2; }, std::chrono::seconds(30)));
  const auto cancelled = std::chrono::steady_clock::now();
  HttpClient::cancelRequest(id);
  const auto response = record->wait(std::chrono::seconds(30));
  ASSERT_NE(response, nullptr) << "no completion";
  EXPECT_EQ(response->outcome, HttpResponse::kCancelled);
  EXPECT_LT(std::chrono::steady_clock::now() - cancelled, std::chrono::seconds(20))
      << "the cancel waited for the resume";
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out.bin")));
  EXPECT_EQ(record->completionCount(), 1);
}

INSTANTIATE_TEST_SUITE_P(Schemes, Resume, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);

}  // namespace
