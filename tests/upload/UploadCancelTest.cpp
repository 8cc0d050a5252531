#include "UploadTestSupport.h"

#include <gtest/gtest.h>

using quill_test::LogCapture;
using quill_test::UploadHarness;

TEST(UploadCancel, AWaitingTaskEndsAtOnce) {
  LogCapture logs;
  UploadHarness harness(1);
  harness.onQueue([&] { harness.task->cancel(); });
  ASSERT_EQ(harness.endCount(), 1);
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(harness.lastEnd().message, "");
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "cancel the waiting task"));
  EXPECT_TRUE(harness.transport->cancelledIds().empty());
}

TEST(UploadCancel, DuringTheSignatureRequestOnlyThatIsCancelled) {
  LogCapture logs;
  UploadHarness harness(2);
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.onQueue([&] { harness.task->cancel(); });
  EXPECT_EQ(harness.endCount(), 1);
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(harness.lastEnd().message, "");
  EXPECT_EQ(harness.transport->cancelledIds(),
            (std::vector<std::string>{harness.transport->call(0).id}));
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "cancel signature request"));
  harness.transport->drain();
  harness.onQueue([] {});
  EXPECT_EQ(harness.transport->startedCalls().size(), 1u) << "no upload follows";
}

TEST(UploadCancel, DuringAnObjectStorageUploadTheTransferIsCancelled) {
  LogCapture logs;
  UploadHarness harness(2);
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.transport->end(
      harness.transport->call(0).id, 0, 200,
      R"({"code":1,"uploadPath":"https://o.test/objects/k","path":"//o.test/objects/k"})");
  ASSERT_TRUE(harness.transport->waitForCalls(2));
  harness.onQueue([&] { harness.task->cancel(); });
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(harness.transport->cancelledIds(),
            (std::vector<std::string>{harness.transport->call(1).id}));
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "cancel upload request"));
}

TEST(UploadCancel, DuringAFileServiceUploadTheTransferIsCancelled) {
  LogCapture logs;
  UploadHarness harness(1);
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.onQueue([&] { harness.task->cancel(); });
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(harness.transport->cancelledIds(),
            (std::vector<std::string>{harness.transport->call(0).id}));
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "cancel upload request"));
}

TEST(UploadCancel, DuringAVideoUploadTheVideoTransferIsCancelledAsTheSignatureRequest) {
  LogCapture logs;
  UploadHarness harness(5, "clip.mp4");
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.transport->end(
      harness.transport->call(0).id, 0, 200,
      R"({"uploadUrl":"https://v.test/vod/upload?token=t","payUrl":"//v.test/vod/7.mp4"})");
  ASSERT_TRUE(harness.transport->waitForCalls(2));
  harness.onQueue([&] { harness.task->cancel(); });
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
  EXPECT_EQ(harness.transport->cancelledIds(),
            (std::vector<std::string>{harness.transport->call(1).id}));
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "cancel signature request"));
}
