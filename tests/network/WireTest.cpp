// The exact requests the engine puts on the wire, and how it reads replies, checked against a
// recording server on loopback.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "CaptureServer.h"
#include "NetworkTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

const std::string kUserAgent = std::string("quill_cloud/") + QUILL_VERSION;

class Wire : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(server.ok()) << "the recording server did not start"; }

  std::shared_ptr<HttpResponse> post(const std::string& path,
                                     const std::map<std::string, std::string>& form,
                                     HttpClient::RequestSetup setup = nullptr) {
    auto record = TransferRecord::make();
    HttpClient::executePost(server.url(path), form, std::move(setup), record->completion());
    return record->wait();
  }

  CaptureServer::Request onlyRequest() {
    const auto all = server.requests();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? CaptureServer::Request{} : all.front();
  }

  CaptureServer server;
  TempDir dir;
};

}  // namespace

TEST_F(Wire, AFormPostSendsTheEncodedFieldsInKeyOrder) {
  auto response = post("/echo", {{"b key", "x y"}, {"a", "\xC3\xA9&="}, {"c", "1"}});
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->text, "ok");
  const auto request = onlyRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, "a=%C3%A9%26%3D&b%20key=x%20y&c=1");
  EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
  EXPECT_EQ(request.header("User-Agent"), kUserAgent);
}

TEST_F(Wire, SetupHeadersAreSentAndReplaceTheClientsOwn) {
  auto response = post("/echo", {{"a", "1"}}, [](HttpRequest& request) {
    request.appendHeader("X-Quill-Trace", "t-1");
    request.appendHeader("Content-Type", "application/json; charset=utf-8");
  });
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  const auto request = onlyRequest();
  EXPECT_EQ(request.header("X-Quill-Trace"), "t-1");
  EXPECT_EQ(request.headerCount("Content-Type"), 1u);
  EXPECT_EQ(request.header("Content-Type"), "application/json; charset=utf-8");
  EXPECT_EQ(request.body, "a=1");
}

TEST_F(Wire, MultipartPartsGoInOrderWithFileNamesAndTypes) {
  const auto photo = dir.file("photo 1.jpg");
  const auto thumb = dir.file("thumb.bin");
  writePatternFile(photo, 70000);
  writeWholeFile(thumb, "PNG bytes");
  auto record = TransferRecord::make();
  HttpPartData typed = HttpPartData::makePart("thumb", thumb, true);
  typed.contentType = "image/png";
  HttpClient::uploadMultipartData(server.url("/echo"),
                                  {HttpPartData::makePart("appId", "quill", false),
                                   HttpPartData::makePart("upload", photo, true),
                                   HttpPartData::makePart("note", "h\xC3\xA9 & co", false), typed},
                                  record->progress(), record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->text, "ok");
  const auto request = onlyRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.header("User-Agent"), kUserAgent);
  EXPECT_EQ(request.header("Content-Type").rfind("multipart/form-data; boundary=", 0), 0u);
  ASSERT_EQ(request.parts.size(), 4u);
  EXPECT_EQ(request.parts[0].name, "appId");
  EXPECT_EQ(request.parts[0].content, "quill");
  EXPECT_EQ(request.parts[0].filename, "");
  EXPECT_EQ(request.parts[0].contentType, "");
  EXPECT_EQ(request.parts[1].name, "upload");
  EXPECT_EQ(request.parts[1].filename, "photo 1.jpg") << "the file's own name, without its folder";
  EXPECT_EQ(request.parts[1].contentType, "application/octet-stream")
      << "no type guessed from the extension";
  EXPECT_EQ(request.parts[1].content, readWholeFile(photo));
  EXPECT_EQ(request.parts[2].name, "note");
  EXPECT_EQ(request.parts[2].content, "h\xC3\xA9 & co");
  EXPECT_EQ(request.parts[3].name, "thumb");
  EXPECT_EQ(request.parts[3].filename, "thumb.bin");
  EXPECT_EQ(request.parts[3].contentType, "image/png");
  EXPECT_EQ(request.parts[3].content, "PNG bytes");
  EXPECT_EQ(request.header("Content-Length"),
            TextUtils::toString(static_cast<long long>(record->progressReports().back().second)))
      << "upload progress counts every byte of the body";
}

TEST_F(Wire, APutSendsTheFileWithItsLength) {
  const auto file = dir.file("object.bin");
  writePatternFile(file, 300000);
  auto record = TransferRecord::make();
  HttpClient::uploadFile(server.url("/echo"), file, record->progress(), record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->text, "ok");
  const auto request = onlyRequest();
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.header("Content-Length"), "300000");
  EXPECT_EQ(request.body, readWholeFile(file));
  EXPECT_EQ(request.header("User-Agent"), kUserAgent);
  expectProgressEndsAtTotal(record->progressReports(), 300000);
}

TEST_F(Wire, ADownloadSendsTheUserAgent) {
  auto record = TransferRecord::make();
  HttpClient::downloadFile(server.url("/user-agent"), dir.file("ua"), nullptr,
                           record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->text, "") << "a completed download has nothing to say";
  EXPECT_EQ(readWholeFile(dir.file("ua")), kUserAgent);
}

TEST_F(Wire, TheReplyTextIsCappedAtOneMiB) {
  auto response = post("/big-reply", {});
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text.substr(0, 200);
  EXPECT_EQ(response->text, std::string(1024 * 1024, 'r'));
}

TEST_F(Wire, AnyStatusOutside2xxIsAFailureDescribedByItsStatusLine) {
  auto response = post("/teapot", {});
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 418);
  EXPECT_EQ(response->text, "HTTP/1.1 418 I'm a teapot");
}

TEST_F(Wire, NoContentIsASuccess) {
  auto response = post("/no-content", {});
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 204);
  EXPECT_EQ(response->text, "");
}

TEST_F(Wire, TheStandardProxyVariablesAreHonoured) {
  // The recording server stands in for the proxy; the target host does not exist, so the request
  // can only arrive through the proxy.
  ScopedEnv proxy("http_proxy", server.url(""));
  ScopedEnv exempt("no_proxy", std::string("localhost"));
  ScopedEnv exemptUpper("NO_PROXY", std::nullopt);
  auto record = TransferRecord::make();
  HttpClient::executePost("http://quill-target.invalid/echo", {{"a", "1"}}, nullptr,
                          record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->text, "proxied");
  const auto request = onlyRequest();
  EXPECT_EQ(request.path, "http://quill-target.invalid/echo");
  EXPECT_EQ(request.header("Host"), "quill-target.invalid");
  EXPECT_EQ(request.body, "a=1");
}

TEST_F(Wire, AHeaderWithALineBreakIsRefusedBeforeAnythingIsSent) {
  auto response = post("/echo", {{"a", "1"}}, [](HttpRequest& request) {
    request.appendHeader("X-Quill-Trace", "t-1\r\nX-Injected: yes");
  });
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 0);
  EXPECT_NE(response->text.find("X-Quill-Trace"), std::string::npos) << response->text;
  drainEngine();
  EXPECT_TRUE(server.requests().empty());
}
