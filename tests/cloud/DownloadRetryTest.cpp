#include "DownloadTestSupport.h"
#include "Environment.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

using quill_test::DownloadFixture;
using quill_test::LogCapture;

namespace {

// The image retry rewrites the static-content host to the image CDN host; both come from the
// environment when a download task is made.
struct DownloadRetryTest : ::testing::Test, DownloadFixture {
  DownloadRetryTest() {
    quill_test::setEnvironment("QUILL_STATIC_HOST", "static.quill.test");
    quill_test::setEnvironment("QUILL_IMAGE_CDN_HOST", "cdn.quill.test");
  }
  ~DownloadRetryTest() override {
    service.reset();
    quill_test::unsetEnvironment("QUILL_STATIC_HOST");
    quill_test::unsetEnvironment("QUILL_IMAGE_CDN_HOST");
  }
};

}  // namespace

TEST_F(DownloadRetryTest, RetriesAFailedImageOnceOnTheCdnHostAfterTheRetryInterval) {
  LogCapture logs;
  signIn();
  auto recorded =
      download(CloudStorageKind::kImage, "http://static.quill.test/avatars/u1.png", "u1.png");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto failedAt = std::chrono::steady_clock::now();
  transport->end(transport->call(0).id, 2, 500, "HTTP/1.1 500 Internal Server Error");

  ASSERT_TRUE(transport->waitForCalls(2, std::chrono::seconds(10)));
  EXPECT_GE(std::chrono::steady_clock::now() - failedAt, kRetryInterval);
  EXPECT_EQ(recorded.endCount(), 0) << "no callback in between";
  EXPECT_EQ(transport->call(1).spec.url, "http://cdn.quill.test/avatars/u1.png");
  EXPECT_NE(transport->call(1).spec.path, transport->call(0).spec.path)
      << "each transfer grows in a file of its own";
  EXPECT_EQ(FileUtils::fileDir(transport->call(1).spec.path), cacheDirectory());
  EXPECT_TRUE(logs.contains(log4cplus::WARN_LOG_LEVEL,
                            "retry download image -100,http://static.quill.test/avatars/u1.png"));

  // A second failure of the rewritten URL ends the request.
  transport->end(transport->call(1).id, 2, 500, "HTTP/1.1 500 Internal Server Error");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(recorded.ended().message, "500");
  EXPECT_EQ(recorded.endCount(), 1);
  EXPECT_EQ(transport->startedCalls().size(), 2u);
}

TEST_F(DownloadRetryTest, TheRetriedImageCanSucceed) {
  signIn();
  auto recorded = download(CloudStorageKind::kImage, "https://static.quill.test/a.jpg", "a.jpg");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  transport->end(transport->call(0).id, 2, 502, "bad gateway");
  ASSERT_TRUE(transport->waitForCalls(2, std::chrono::seconds(10)));
  transport->succeedDownload(transport->call(1).id, "jpeg");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(recorded.request->url, "https://cdn.quill.test/a.jpg");
  EXPECT_EQ(quill_test::readAll(FileUtils::appendComponent(destination.path(), "a.jpg")), "jpeg");
}

TEST_F(DownloadRetryTest, FileDownloadsAndKnownStatusesAreNotRetried) {
  signIn();
  struct Row {
    int kind;
    int status;
    int code;
  };
  std::size_t calls = 0;
  for (const Row& row : {Row{2, 500, -100}, Row{1, 404, -2}, Row{1, 403, -3}, Row{1, 400, -4}}) {
    auto recorded = download(row.kind, "http://static.quill.test/x", "x");
    ASSERT_TRUE(service->excuteRequest(recorded.request));
    ASSERT_TRUE(transport->waitForCalls(++calls));
    transport->end(transport->call(calls - 1).id, 2, row.status, "");
    ASSERT_TRUE(recorded.waitEnded(std::chrono::milliseconds(1500)))
        << "ended at once, kind " << row.kind << " status " << row.status;
    EXPECT_EQ(recorded.ended().code, row.code);
    EXPECT_EQ(recorded.request->url, "http://static.quill.test/x") << "not rewritten";
  }
}

TEST_F(DownloadRetryTest, AnImageFromAnotherHostIsNotRetried) {
  signIn();
  auto recorded = download(CloudStorageKind::kImage, "https://elsewhere.test/x.png", "x.png");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  transport->end(transport->call(0).id, 2, 500, "");
  ASSERT_TRUE(recorded.waitEnded(std::chrono::milliseconds(1500)));
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kTransferFailed);
}
