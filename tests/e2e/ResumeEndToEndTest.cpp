// Downloads through the service that survive cuts (one stateCallback, the resumes counted in the
// timeline), restart from zero when the file changed or the server ignores Range, and fail with
// -100 and no partial file when the rest never comes; and what the host learns of a request's
// transfer through its endCause: the timeline of a success and of failures, with their cause in
// words.
#include "CloudEnvironment.h"
#include "Environment.h"
#include "SignedInFixture.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>

#include <filesystem>

using quill_test::CloudEnvironment;
using quill_test::readFile;
using quill_test::Tracked;

namespace {

struct ResumeAndTimeline : quill_test::SignedInFixture {
  void TearDown() override {
    CloudEnvironment::server().clearFaults();
    quill_test::unsetEnvironment("QUILL_HTTP_RESUME_WAIT_MS");
  }

  quill_fileservice::Fault faultOn(const std::string& path, int times) {
    quill_fileservice::Fault fault;
    fault.pathPrefix = path;
    fault.times = times;
    return fault;
  }

  std::size_t filesIn(const std::string& directory) {
    std::size_t count = 0;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(std::filesystem::u8path(directory))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }

  Tracked download(const std::string& url, const std::string& name) {
    Tracked tracked(false, CloudStorageKind::kFile);
    tracked.request->url = url;
    tracked.request->directory = destination.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }
};

// The suites' names say what they are about; the fixture is the same.
using Resume = ResumeAndTimeline;
using Timeline = ResumeAndTimeline;

}  // namespace

TEST_F(Timeline, ASuccessTellsWhereItsTimeWent) {
  const auto [local, path] = store(300 * 1024, 3);
  auto done = download(CloudEnvironment::url(path), "done.bin");
  ASSERT_TRUE(done.waitEnded());
  ASSERT_EQ(done.code(), CloudStorageResult::kSuccess) << done.cause().text;
  const CloudStorageTimeline timeline = done.cause().timeline;
  EXPECT_EQ(done.cause().text, "") << "a success has no cause";
  EXPECT_EQ(timeline.method, "GET");
  EXPECT_EQ(timeline.host, "127.0.0.1");
  EXPECT_FALSE(timeline.httpVersion.empty());
  EXPECT_EQ(timeline.httpStatus, 200);
  EXPECT_EQ(timeline.bytes, 300 * 1024);
  EXPECT_EQ(timeline.resumes, 0);
  EXPECT_GT(timeline.firstByteMs, 0);
  EXPECT_GE(timeline.endMs, timeline.firstByteMs);
  EXPECT_GT(timeline.bytesPerSecond, 0);
  EXPECT_EQ(timeline.cause, "");
}

TEST_F(Resume, ADownloadCutThreeTimesIsOneSuccessWithThreeResumes) {
  const auto [local, path] = store(1024 * 1024 + 3, 4);
  quill_fileservice::Fault cuts;
  cuts.pathPrefix = path;
  cuts.cutEveryBytes = 300 * 1024;
  CloudEnvironment::server().addFault(cuts);
  auto cut = download(CloudEnvironment::url(path), "cut.bin");
  ASSERT_TRUE(cut.waitEnded());
  EXPECT_EQ(cut.code(), CloudStorageResult::kSuccess) << cut.cause().text;
  EXPECT_EQ(cut.endCount(), 1);
  EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "cut.bin")), readFile(local));
  EXPECT_EQ(cut.cause().timeline.resumes, 3);
  EXPECT_EQ(cut.cause().timeline.bytes, 1024 * 1024 + 3);
  EXPECT_EQ(cut.cause().timeline.httpStatus, 200);
}

TEST_F(Timeline, FailuresSayTheirCauseInWords) {
  const auto [local, path] = store(1000, 5);
  auto refused = download(CloudEnvironment::url(path + "?quill_status=503"), "refused.bin");
  ASSERT_TRUE(refused.waitEnded());
  EXPECT_EQ(refused.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(refused.cause().timeline.cause, "HTTP 503");
  EXPECT_EQ(refused.cause().timeline.httpStatus, 503);

  auto nowhere = download("http://127.0.0.1:1/nothing-listens-here", "nowhere.bin");
  ASSERT_TRUE(nowhere.waitEnded());
  EXPECT_EQ(nowhere.cause().timeline.cause, "connection refused");
  EXPECT_EQ(nowhere.cause().timeline.httpVersion, "") << "no reply came";
  EXPECT_EQ(nowhere.cause().timeline.httpStatus, 0);
}

TEST_F(Resume, A256MiBDownloadCutEvery32MiBArrivesWholeWithSevenResumes) {
  const std::size_t size = 256u * 1024 * 1024;
  const auto [local, path] = store(size, 6);
  auto cuts = faultOn(path, -1);
  cuts.cutEveryBytes = 32 * 1024 * 1024;
  CloudEnvironment::server().addFault(cuts);
  auto big = download(CloudEnvironment::url(path), "big.bin");
  ASSERT_TRUE(big.waitEnded(std::chrono::minutes(5)));
  EXPECT_EQ(big.code(), CloudStorageResult::kSuccess) << big.cause().text;
  EXPECT_EQ(big.endCount(), 1);
  EXPECT_EQ(big.cause().timeline.resumes, 7);
  EXPECT_EQ(big.cause().timeline.bytes, static_cast<std::int64_t>(size));
  EXPECT_TRUE(
      FileUtils::sameContent(FileUtils::appendComponent(destination.path(), "big.bin"), local));
}

TEST_F(Resume, AFileChangedMidWayOrARangeIgnoredStartsOverAndArrivesWhole) {
  for (const bool ignoreRange : {false, true}) {
    SCOPED_TRACE(ignoreRange ? "Range ignored" : "ETag changed");
    const auto [local, path] = store(3 * 1024 * 1024, ignoreRange ? 7 : 8);
    auto cut = faultOn(path, 1);
    cut.dropAfterBytes = 1024 * 1024;
    auto whole = faultOn(path, 1);
    whole.ignoreRange = ignoreRange;
    whole.changeEtag = !ignoreRange;
    CloudEnvironment::server().addFault(cut);
    CloudEnvironment::server().addFault(whole);
    const std::string name = ignoreRange ? "ignored.bin" : "changed.bin";
    auto again = download(CloudEnvironment::url(path), name);
    ASSERT_TRUE(again.waitEnded());
    EXPECT_EQ(again.code(), CloudStorageResult::kSuccess) << again.cause().text;
    EXPECT_EQ(again.endCount(), 1);
    EXPECT_EQ(again.cause().timeline.resumes, 1);
    EXPECT_EQ(again.cause().timeline.bytes, 4 * 1024 * 1024) << "1 MiB, then the whole 3 MiB";
    EXPECT_TRUE(
        FileUtils::sameContent(FileUtils::appendComponent(destination.path(), name), local));
  }
}

TEST_F(Resume, SixCutsInARowWithoutAByteFailWithMinus100AndLeaveNothing) {
  quill_test::setEnvironment("QUILL_HTTP_RESUME_WAIT_MS", "20");
  const auto [local, path] = store(2 * 1024 * 1024, 9);
  auto cut = faultOn(path, -1);
  cut.dropAfterBytes = 500 * 1024;  // counted from the file's start: the rest never comes
  CloudEnvironment::server().addFault(cut);
  auto never = download(CloudEnvironment::url(path), "never.bin");
  ASSERT_TRUE(never.waitEnded());
  EXPECT_EQ(never.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(never.message(), "200");
  EXPECT_EQ(never.endCount(), 1);
  EXPECT_EQ(never.cause().timeline.resumes, 6);
  EXPECT_EQ(never.cause().timeline.cause, "closed before the end of the body");
  EXPECT_EQ(filesIn(destination.path()), 0u) << "no file at the final path";
  EXPECT_EQ(filesIn(FileUtils::appendComponent(user.path(), "cloud_storage_caches")), 0u)
      << "no partial file left";
}
