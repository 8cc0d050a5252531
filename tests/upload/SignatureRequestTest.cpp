#include "UploadTestSupport.h"

#include <gtest/gtest.h>

using quill_test::LogCapture;
using quill_test::UploadHarness;
using Kind = quill_test::ScriptedTransport::Spec::Kind;

namespace {

bool isUuid(const std::string& text) {
  if (text.size() != 36) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (text[i] == '-')) {
      return false;
    }
  }
  return true;
}

}  // namespace

TEST(SignatureRequest, SendsTheFormInKeyOrderWithTheHeader) {
  UploadHarness harness(2, "report.pdf");
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  const auto spec = harness.transport->call(0).spec;
  ASSERT_EQ(spec.form.size(), 5u);
  EXPECT_EQ(spec.form.at("appId"), "app 1");
  EXPECT_EQ(spec.form.at("aid"), "aid&2");
  EXPECT_EQ(spec.form.at("pin"), "pin=3");
  EXPECT_EQ(spec.form.at("clientType"), "pc");
  const auto key = spec.form.at("key");
  ASSERT_EQ(key.size(), 40u);
  EXPECT_TRUE(isUuid(key.substr(0, 36))) << key;
  EXPECT_EQ(key.substr(36), ".pdf");
  EXPECT_EQ(spec.headers,
            (std::vector<std::pair<std::string, std::string>>{
                {"Content-Type", "application/x-www-form-urlencoded;charset=utf-8"}}));
  // As it goes on the wire: keys in order, values percent-encoded.
  EXPECT_EQ(quill_network_detail::testing::encodeForm(spec.form),
            "aid=aid%262&appId=app%201&clientType=pc&key=" + key + "&pin=pin%3D3");
}

TEST(SignatureRequest, TheKeyTakesAuxText2OrNoExtensionAtAll) {
  UploadHarness bare(2, "README");
  ASSERT_TRUE(bare.start());
  ASSERT_TRUE(bare.transport->waitForCalls(1));
  EXPECT_TRUE(isUuid(bare.transport->call(0).spec.form.at("key")));

  UploadHarness chosen(2, "README");
  chosen.recorded.request->auxText2 = "txt";
  ASSERT_TRUE(chosen.start());
  ASSERT_TRUE(chosen.transport->waitForCalls(1));
  const auto key = chosen.transport->call(0).spec.form.at("key");
  EXPECT_EQ(key.substr(36), ".txt");
}

TEST(SignatureRequest, AnIncompleteConfigurationFailsWithoutARequest) {
  LogCapture logs;
  UploadHarness file(2);
  file.config.pin.clear();
  EXPECT_TRUE(file.start());
  ASSERT_TRUE(file.waitEnded());
  EXPECT_EQ(file.lastEnd().code, CloudStorageResult::kFailed);
  EXPECT_EQ(file.lastEnd().message, "request file signature param invaild");

  UploadHarness video(5);
  video.config.appId.clear();
  EXPECT_TRUE(video.start());
  ASSERT_TRUE(video.waitEnded());
  EXPECT_EQ(video.lastEnd().code, CloudStorageResult::kFailed);
  EXPECT_EQ(video.lastEnd().message, "request video signature param invaild");
  EXPECT_TRUE(file.transport->startedCalls().empty());
  EXPECT_TRUE(video.transport->startedCalls().empty());
  EXPECT_EQ(logs.count("request signature failed, code:0\n"), 0) << "param failures are not logged";
}

TEST(SignatureRequest, RefusalsAndFailures) {
  struct Row {
    int outcome;
    int status;
    std::string body;
    int code;
    std::string message;
  };
  const std::vector<Row> rows = {
      {0, 200, "not json", -100, "parse signature response failed"},
      {0, 200, R"({"code":0,"desc":"expired account"})", -100, "expired account"},
      {0, 200, R"({"code":0})", -100, "request signature,0"},
      {0, 200, R"({"code":7,"desc":""})", -100, "request signature,7"},
      {0, 200, R"({"code":1,"uploadPath":"https://o.test/k","path":""})", -100,
       "signature response data invaild"},
      {0, 200, R"({"code":1,"path":"//o.test/k"})", -100, "signature response data invaild"},
      {1, 0, "", 3, "request signature failed, 0"},
      {2, 500, "HTTP/1.1 500 Internal Server Error", -100, "request signature failed, 500"},
  };
  for (const auto& row : rows) {
    LogCapture logs;
    UploadHarness harness(2);
    const auto end = harness.startAndEndFirstTransfer(row.outcome, row.status, row.body);
    EXPECT_EQ(end.code, row.code) << row.body;
    EXPECT_EQ(end.message, row.message) << row.body;
    EXPECT_TRUE(logs.contains(
        log4cplus::ERROR_LOG_LEVEL,
        "request signature failed, code:" + std::to_string(row.status) + "\n" + row.body))
        << row.body;
    EXPECT_EQ(harness.transport->startedCalls().size(), 1u) << "no upload follows";
  }
}

TEST(SignatureRequest, AnAcceptedReplyStartsTheObjectStorageUpload) {
  UploadHarness harness(2, "report.pdf", "pdf bytes");
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  harness.transport->end(
      harness.transport->call(0).id, 0, 200,
      R"({"code":1,"desc":"","uploadPath":"https://o.test/objects/k?sig=1","path":"//o.test/objects/k"})");
  ASSERT_TRUE(harness.transport->waitForCalls(2));
  const auto put = harness.transport->call(1).spec;
  EXPECT_EQ(put.kind, Kind::PutFile);
  EXPECT_EQ(put.url, "https://o.test/objects/k?sig=1");
  EXPECT_EQ(put.path, harness.filePath());
  EXPECT_EQ(harness.endCount(), 0);
  harness.onQueue([&] { EXPECT_EQ(harness.task->state(), CloudStorageState::kRunning); });

  harness.transport->end(harness.transport->call(1).id, 0, 200, "");
  ASSERT_TRUE(harness.waitEnded());
  EXPECT_EQ(harness.lastEnd().code, CloudStorageResult::kSuccess);
  EXPECT_EQ(harness.lastEnd().url, "https://o.test/objects/k");
}

TEST(SignatureRequest, VideoFormAndAcceptanceDespiteAnErrorCode) {
  UploadHarness harness(5, "clip.mov", "0123456789");
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  const auto form = harness.transport->call(0).spec.form;
  EXPECT_EQ(form, (std::map<std::string, std::string>{{"appId", "app 1"},
                                                      {"aid", "aid&2"},
                                                      {"pin", "pin=3"},
                                                      {"clientType", "pc"},
                                                      {"fileName", "clip.mov"},
                                                      {"fileSize", "10"},
                                                      {"type", "3"}}));
  harness.transport->end(
      harness.transport->call(0).id, 0, 200,
      R"({"code":99,"uploadUrl":"https://v.test/vod/upload?token=t","payUrl":"//v.test/vod/1.mp4"})");
  ASSERT_TRUE(harness.transport->waitForCalls(2));
  EXPECT_EQ(harness.transport->call(1).spec.url, "https://v.test/vod/upload?token=t");
}

TEST(SignatureRequest, VideoRefusals) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"not json", "parse signature response failed"},
      {R"({"uploadUrl":"https://v.test/u"})", "signature response data invaild"},
      {R"({"payUrl":"//v.test/1.mp4"})", "signature response data invaild"},
  };
  for (const auto& [body, message] : rows) {
    LogCapture logs;
    UploadHarness harness(5, "clip.mp4");
    const auto end = harness.startAndEndFirstTransfer(0, 200, body);
    EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
    EXPECT_EQ(end.message, message);
    EXPECT_TRUE(
        logs.contains(log4cplus::ERROR_LOG_LEVEL, "request signature failed, code:200\n" + body));
  }
  UploadHarness failed(5, "clip.mp4");
  const auto end = failed.startAndEndFirstTransfer(2, 403, "HTTP/1.1 403 Forbidden");
  EXPECT_EQ(end.code, CloudStorageResult::kTransferFailed);
  EXPECT_EQ(end.message, "request signature failed, 403");
}

TEST(SignatureRequest, ASecondRequestCancelsTheFirst) {
  UploadHarness harness(2, "report.pdf");
  harness.transport->answerCancels = false;
  ASSERT_TRUE(harness.start());
  ASSERT_TRUE(harness.transport->waitForCalls(1));
  const auto first = harness.transport->call(0).id;
  bool sent = false;
  harness.onQueue([&] { sent = harness.task->requestFileSignature(); });
  EXPECT_TRUE(sent);
  ASSERT_TRUE(harness.transport->waitForCalls(2));
  EXPECT_EQ(harness.transport->cancelledIds(), (std::vector<std::string>{first}));
  EXPECT_NE(harness.transport->call(1).spec.form.at("key"),
            harness.transport->call(0).spec.form.at("key"));
}
