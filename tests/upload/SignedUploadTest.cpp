#include "UploadTestSupport.h"

#include <gtest/gtest.h>

using quill_test::LogCapture;
using quill_test::UploadHarness;
using Kind = quill_test::ScriptedTransport::Spec::Kind;

namespace {

const char* const kFileSignature =
    R"({"code":1,"uploadPath":"https://o.test/objects/k","path":"//o.test/objects/k"})";
const char* const kVideoSignature =
    R"({"uploadUrl":"https://v.test/vod/upload?token=t","payUrl":"//v.test/vod/7.mp4"})";

// Starts the upload, accepts its signature and returns the id of the transfer that follows.
std::string signAndStart(UploadHarness& harness, const char* signature) {
  EXPECT_TRUE(harness.start());
  EXPECT_TRUE(harness.transport->waitForCalls(1));
  harness.transport->end(harness.transport->call(0).id, 0, 200, signature);
  EXPECT_TRUE(harness.transport->waitForCalls(2));
  return harness.transport->call(1).id;
}

}  // namespace

TEST(SignedUpload, ACompletedTransferIgnoresTheReplyBody) {
  UploadHarness harness(2);
  const auto id = signAndStart(harness, kFileSignature);
  harness.transport->end(id, 0, 200, R"({"code":500,"msg":"error text"})");
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(harness.lastEnd().message, "");
  EXPECT_EQ(harness.lastEnd().url, "https://o.test/objects/k");
}

TEST(SignedUpload, FailuresWithAndWithoutDescription) {
  LogCapture logs;
  UploadHarness described(2);
  auto id = signAndStart(described, kFileSignature);
  described.transport->end(id, 2, 500, "HTTP/1.1 500 Internal Server Error");
  ASSERT_TRUE(described.waitEnded());
  EXPECT_EQ(described.lastEnd().code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(described.lastEnd().message, "HTTP/1.1 500 Internal Server Error");
  EXPECT_EQ(described.lastEnd().url, "");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL,
                            "upload failed, code:500 desc:HTTP/1.1 500 Internal Server Error"));

  UploadHarness bare(2);
  id = signAndStart(bare, kFileSignature);
  bare.transport->end(id, 2, 403, "");
  ASSERT_TRUE(bare.waitEnded());
  EXPECT_EQ(bare.lastEnd().code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(bare.lastEnd().message, "upload failed, 403");
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload failed, code:403 desc:"));
}

TEST(SignedUpload, ACancelledTransferSaysUploadCancel) {
  for (auto signature : {kFileSignature, kVideoSignature}) {
    UploadHarness harness(signature == kFileSignature ? 2 : 5, "clip.mp4");
    const auto id = signAndStart(harness, signature);
    harness.transport->end(id, 1, 0, "");
    ASSERT_TRUE(harness.waitEnded());
    EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
    EXPECT_EQ(harness.lastEnd().message, "upload cancel");
  }
}

TEST(SignedUpload, AnEmptyUploadPathStillCallsTheNetworkAndFails) {
  UploadHarness harness(2);
  const auto id = signAndStart(harness, R"({"code":1,"uploadPath":" ","path":"//o.test/k"})");
  EXPECT_EQ(harness.transport->call(1).spec.kind, Kind::PutFile);
  harness.transport->end(id, 2, 0, "URL rejected: Malformed input to a URL function");
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kTransferFailed);
}

TEST(SignedUpload, TheVideoIsOnePartNamedAfterTheFile) {
  UploadHarness harness(5, "clip.mov", "movie");
  const auto id = signAndStart(harness, kVideoSignature);
  const auto spec = harness.transport->call(1).spec;
  EXPECT_EQ(spec.kind, Kind::MultipartPost);
  EXPECT_EQ(spec.url, "https://v.test/vod/upload?token=t");
  ASSERT_EQ(spec.parts.size(), 1u);
  EXPECT_TRUE(spec.parts[0].isFile);
  EXPECT_EQ(spec.parts[0].name, "clip.mov");
  EXPECT_EQ(spec.parts[0].value, harness.filePath());
  EXPECT_EQ(spec.parts[0].contentType, "video/mp4");

  harness.transport->end(id, 0, 200, "");
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(harness.lastEnd().url, "https://v.test/vod/7.mp4");
}

TEST(SignedUpload, AVideoWhoseConfigurationLostItsPinStaysRunning) {
  LogCapture logs;
  UploadHarness harness(5, "clip.mp4");
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.onQueue([&] { harness.config.pin.clear(); });
  harness.transport->end(harness.transport->call(0).id, 0, 200, kVideoSignature);
  ASSERT_TRUE(quill_test::eventually(
      [&] { return logs.contains(log4cplus::ERROR_LOG_LEVEL, "upload parts is empty"); }));
  harness.onQueue([&] { EXPECT_EQ(harness.task->state(), CloudStorageState::kRunning); });
  EXPECT_EQ(harness.transport->startedCalls().size(), 1u);
  EXPECT_EQ(harness.endCount(), 0);

  harness.onQueue([&] { harness.task->cancel(); });
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kCancelled);
}
