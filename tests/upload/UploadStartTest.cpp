#include "UploadTestSupport.h"

#include <gtest/gtest.h>

using quill_test::LogCapture;
using quill_test::UploadHarness;
using Kind = quill_test::ScriptedTransport::Spec::Kind;

TEST(UploadStart, RefusesOtherTypes) {
  for (int type : {6, 0, 3, 4}) {
    LogCapture logs;
    UploadHarness harness(type);
    EXPECT_FALSE(harness.start());
    ASSERT_EQ(harness.endCount(), 1) << "ended before startWithConfig returned";
    EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kFailed);
    EXPECT_EQ(harness.lastEnd().message, "upload task type error");
    EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                              "upload task type error, type:" + std::to_string(type)));
    EXPECT_TRUE(harness.transport->startedCalls().empty());
  }
}

TEST(UploadStart, RefusesAnEmptyDirectoryOrFileName) {
  LogCapture logs;
  UploadHarness noName(1, "");
  EXPECT_FALSE(noName.start());
  EXPECT_EQ(noName.lastEnd().code, CloudStorageResult::kFailed);
  EXPECT_EQ(noName.lastEnd().message, "upload file dir invaild");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "upload file path invaild:" + noName.files.path() + " file name:"));

  UploadHarness noDirectory(1);
  noDirectory.recorded.request->directory.clear();
  EXPECT_FALSE(noDirectory.start());
  EXPECT_EQ(noDirectory.lastEnd().message, "upload file dir invaild");
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload file path invaild: file name:photo.png"));
}

TEST(UploadStart, AnEmptyFileIsRefusedLikeAMissingOne) {
  LogCapture logs;
  UploadHarness empty(2, "empty.txt", "");
  EXPECT_FALSE(empty.start());
  EXPECT_EQ(empty.lastEnd().code, CloudStorageResult::kFailed);
  EXPECT_EQ(empty.lastEnd().message, "upload file not exists");
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload file not exists, " + empty.filePath()));

  UploadHarness missing(2, "here.txt");
  missing.recorded.request->fileName = "gone.txt";
  EXPECT_FALSE(missing.start());
  EXPECT_EQ(missing.lastEnd().message, "upload file not exists");
  EXPECT_TRUE(
      logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload file not exists, " + missing.filePath()));
}

TEST(UploadStart, WithoutConfigurationNothingHappens) {
  UploadHarness harness(1);
  bool started = true;
  harness.onQueue([&] { started = harness.task->startWithConfig(nullptr); });
  EXPECT_FALSE(started);
  EXPECT_EQ(harness.endCount(), 0);
  EXPECT_EQ(harness.recorded.request->resultCode, CloudStorageResult::kPending);
}

TEST(UploadStart, AnImageGoesToTheFileServiceWhateverReservedSays) {
  for (int reserved : {0, 1}) {
    UploadHarness harness(1, "photo.png", "12345");
    harness.recorded.request->reserved = reserved;
    EXPECT_TRUE(harness.start());
    ASSERT_TRUE(harness.transport->waitForCalls(1));
    const auto call = harness.transport->call(0);
    EXPECT_EQ(call.spec.kind, Kind::MultipartPost);
    EXPECT_EQ(call.spec.url, "https://files.test/file/uploadImg.action");
    EXPECT_EQ(harness.recorded.request->fileSize, 5);
    harness.onQueue([&] { EXPECT_EQ(harness.task->state(), CloudStorageState::kRunning); });
  }
}

TEST(UploadStart, FilesAndVideosAskForASignatureInUploadModeOne) {
  UploadHarness file(2, "report.pdf");
  EXPECT_TRUE(file.start());
  ASSERT_TRUE(file.transport->waitForCalls(1));
  EXPECT_EQ(file.transport->call(0).spec.kind, Kind::FormPost);
  EXPECT_EQ(file.transport->call(0).spec.url, "https://files.test/file/uploadBySignature.action");

  UploadHarness video(5, "clip.mp4");
  EXPECT_TRUE(video.start());
  ASSERT_TRUE(video.transport->waitForCalls(1));
  EXPECT_EQ(video.transport->call(0).spec.kind, Kind::FormPost);
  EXPECT_EQ(video.transport->call(0).spec.url,
            "https://files.test/file/getUploadVideoSignature.action");
}

TEST(UploadStart, OtherUploadModesSendFilesAndVideosStraightToTheSignatureUrl) {
  for (int type : {2, 5}) {
    UploadHarness harness(type, "data.bin");
    harness.config.uploadMode = 0;
    EXPECT_TRUE(harness.start());
    ASSERT_TRUE(harness.transport->waitForCalls(1));
    const auto call = harness.transport->call(0);
    EXPECT_EQ(call.spec.kind, Kind::MultipartPost) << type;
    EXPECT_EQ(call.spec.url, "https://files.test/file/uploadBySignature.action");
    ASSERT_EQ(call.spec.parts.size(), 5u);
    EXPECT_EQ(call.spec.parts[4].name, "upload");
  }
}

TEST(UploadStart, CompleteUrlScheme) {
  using cloud::UploadTask;
  EXPECT_EQ(UploadTask::completeUrlScheme(""), "");
  EXPECT_EQ(UploadTask::completeUrlScheme("https://h/x"), "https://h/x");
  EXPECT_EQ(UploadTask::completeUrlScheme("http://h/x"), "http://h/x");
  EXPECT_EQ(UploadTask::completeUrlScheme("//h/x"), "https://h/x");
  EXPECT_EQ(UploadTask::completeUrlScheme("h/x"), "https://h/x");
  EXPECT_EQ(UploadTask::completeUrlScheme("/x"), "https:///x");
}
