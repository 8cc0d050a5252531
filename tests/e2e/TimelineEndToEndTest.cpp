// What the host learns of a request's transfer through its endCause: the timeline of a success,
// of a download that survived cuts (one stateCallback, the resumes counted), and of failures, with
// their cause in words.
#include "CloudEnvironment.h"
#include "SignedInFixture.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>

using quill_test::CloudEnvironment;
using quill_test::readFile;
using quill_test::Tracked;

namespace {

struct Timeline : quill_test::SignedInFixture {
  void TearDown() override { CloudEnvironment::server().clearFaults(); }

  Tracked download(const std::string& url, const std::string& name) {
    Tracked tracked(false, CloudStorageKind::kFile);
    tracked.request->url = url;
    tracked.request->directory = destination.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }
};

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

TEST_F(Timeline, ADownloadCutThreeTimesIsOneSuccessWithThreeResumes) {
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
