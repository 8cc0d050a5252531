// Signed uploads: the file signature request and the PUT to object storage, the video signature
// request and the video upload, over HTTP and HTTPS.
#include "FileServiceTestSupport.h"

using namespace fileservice_test;

namespace {

class SignatureRoutes : public ServiceTest {
protected:
  httplib::Result signFile(const httplib::Params& form) {
    return clientFor(*service)->Post("/file/uploadBySignature.action", form);
  }
  httplib::Result signVideo(const httplib::Params& form) {
    return clientFor(*service)->Post("/file/getUploadVideoSignature.action", form);
  }
  static httplib::Params fileForm(const std::string& key) {
    return {
        {"appId", "app-1"}, {"aid", "aid-1"}, {"pin", "pin-1"}, {"clientType", "pc"}, {"key", key}};
  }
  static httplib::Params videoForm() {
    return {{"appId", "app-1"},    {"aid", "aid-1"},     {"pin", "pin-1"}, {"clientType", "pc"},
            {"fileName", "a.mp4"}, {"fileSize", "1234"}, {"type", "3"}};
  }
};

TEST_P(SignatureRoutes, AFileSignatureGrantsAPutThatStoresTheBodyUnderThePath) {
  const auto signature = signFile(fileForm("0f4c.bin"));
  ASSERT_TRUE(signature) << httplib::to_string(signature.error());
  EXPECT_EQ(signature->status, 200);
  EXPECT_EQ(signature->get_header_value("Content-Type"), "application/json");
  const Json::Value reply = parseJson(signature->body);
  EXPECT_EQ(reply["code"].asInt(), 1);
  EXPECT_EQ(reply["desc"].asString(), "");
  EXPECT_EQ(reply["path"].asString(), "//" + host() + "/objects/0f4c.bin");
  const std::string uploadPath = reply["uploadPath"].asString();
  EXPECT_THAT(uploadPath,
              MatchesPattern(scheme() + "://" + hostPattern() +
                             "/objects/0f4c\\.bin\\?expires=[0-9]+&signature=[0-9a-f]{64}"));

  const std::string bytes = randomBytes(512 * 1024, 3);
  auto client = clientFor(*service);
  const auto put = client->Put(pathOf(uploadPath).c_str(), bytes, "application/octet-stream");
  ASSERT_TRUE(put) << httplib::to_string(put.error());
  EXPECT_EQ(put->status, 200);
  EXPECT_TRUE(sameBytes(readFile(service->storedFile("/objects/0f4c.bin")), bytes));

  const auto get = client->Get("/objects/0f4c.bin");
  ASSERT_TRUE(get);
  EXPECT_EQ(get->status, 200);
  EXPECT_EQ(get->get_header_value("Content-Length"), std::to_string(bytes.size()));
  EXPECT_TRUE(sameBytes(get->body, bytes));
}

TEST_P(SignatureRoutes, APutReplacesAnObjectWhole) {
  const std::string uploadPath =
      pathOf(parseJson(signFile(fileForm("again.txt"))->body)["uploadPath"].asString());
  auto client = clientFor(*service);
  ASSERT_EQ(client->Put(uploadPath.c_str(), "first version, longer", "text/plain")->status, 200);
  ASSERT_EQ(client->Put(uploadPath.c_str(), "second", "text/plain")->status, 200);
  EXPECT_EQ(client->Get("/objects/again.txt")->body, "second");
}

TEST_P(SignatureRoutes, EachMissingFieldOfAFileSignatureIsRefusedWithCodeZero) {
  for (const std::string field : {"appId", "aid", "pin", "key"}) {
    httplib::Params form = fileForm("k.bin");
    form.erase(field);
    const auto result = signFile(form);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    const Json::Value reply = parseJson(result->body);
    EXPECT_EQ(reply["code"].asInt(), 0) << field;
    EXPECT_NE(reply["desc"].asString().find(field), std::string::npos) << reply["desc"].asString();
    EXPECT_FALSE(reply.isMember("uploadPath"));
  }
}

TEST_P(SignatureRoutes, AKeyThatLeavesItsDirectoryIsRefused) {
  for (const std::string key : {"../escape", "a/b", "..", "a\\b", ".hidden"}) {
    const auto result = signFile(fileForm(key));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 400) << key;
    const Json::Value reply = parseJson(result->body);
    EXPECT_EQ(reply["code"].asInt(), 0) << key;
    EXPECT_FALSE(reply.isMember("uploadPath")) << key;
  }
}

TEST_P(SignatureRoutes, AKeyWithBlanksAndNonAsciiCharactersIsEncodedInThePaths) {
  const std::string key = "my file \xc3\xa9t\xc3\xa9+1.txt";
  const Json::Value reply = parseJson(signFile(fileForm(key))->body);
  const std::string encoded = "my%20file%20%C3%A9t%C3%A9%2B1.txt";
  EXPECT_EQ(reply["path"].asString(), "//" + host() + "/objects/" + encoded);
  auto client = clientFor(*service);
  const auto put =
      client->Put(pathOf(reply["uploadPath"].asString()).c_str(), "hello", "text/plain");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 200);
  EXPECT_EQ(readFile(service->storedFile("/objects/" + encoded)), "hello");
  EXPECT_EQ(client->Get(("/objects/" + encoded).c_str())->body, "hello");
}

TEST_P(SignatureRoutes, AVideoSignatureGrantsAMultipartUploadServedUnderThePayUrl) {
  const auto signature = signVideo(videoForm());
  ASSERT_TRUE(signature);
  EXPECT_EQ(signature->status, 200);
  const Json::Value reply = parseJson(signature->body);
  const std::string uploadUrl = reply["uploadUrl"].asString();
  const std::string payUrl = reply["payUrl"].asString();
  EXPECT_THAT(uploadUrl,
              MatchesPattern(scheme() + "://" + hostPattern() + "/vod/upload\\?token=.+"));
  ASSERT_THAT(payUrl, MatchesPattern("//" + hostPattern() + "/vod/" + kUuidPattern + "\\.mp4"));
  // The token names the video's id.
  const std::string id = payUrl.substr(payUrl.rfind('/') + 1, 36);
  EXPECT_NE(uploadUrl.find("token=" + id + "."), std::string::npos) << uploadUrl;

  // The video form has one part, named after the file.
  const std::string bytes = randomBytes(800 * 1024, 5);
  auto client = clientFor(*service);
  const auto upload =
      client->Post(pathOf(uploadUrl).c_str(),
                   httplib::MultipartFormDataItems{{"clip.mov", bytes, "clip.mov", "video/mp4"}});
  ASSERT_TRUE(upload) << httplib::to_string(upload.error());
  EXPECT_EQ(upload->status, 200);
  EXPECT_EQ(parseJson(upload->body)["code"].asInt(), 0);

  EXPECT_TRUE(sameBytes(readFile(service->storedFile(payUrl)), bytes));
  const auto get = client->Get(pathOf(payUrl).c_str());
  ASSERT_TRUE(get);
  EXPECT_EQ(get->status, 200);
  EXPECT_EQ(get->get_header_value("Content-Type"), "video/mp4");
  EXPECT_TRUE(sameBytes(get->body, bytes));
}

TEST_P(SignatureRoutes, EachMissingFieldOfAVideoSignatureIsRefusedWithoutAnUploadUrl) {
  for (const std::string field : {"appId", "aid", "pin", "fileName", "fileSize"}) {
    httplib::Params form = videoForm();
    form.erase(field);
    const auto result = signVideo(form);
    ASSERT_TRUE(result);
    const Json::Value reply = parseJson(result->body);
    EXPECT_NE(reply["code"].asInt(), 0) << field;
    EXPECT_NE(reply["desc"].asString().find(field), std::string::npos) << reply["desc"].asString();
    EXPECT_FALSE(reply.isMember("uploadUrl")) << field;
  }
  httplib::Params form = videoForm();
  form.erase("fileSize");
  form.emplace("fileSize", "12x");
  const Json::Value reply = parseJson(signVideo(form)->body);
  EXPECT_NE(reply["code"].asInt(), 0);
  EXPECT_FALSE(reply.isMember("uploadUrl"));
}

TEST_P(SignatureRoutes, RepliesNameTheHostTheRequestWasSentTo) {
  auto client = clientFor(*service, "localhost");
  const std::string expectedHost = "localhost:" + std::to_string(service->port());
  const auto file = client->Post("/file/uploadBySignature.action", fileForm("h.bin"));
  ASSERT_TRUE(file) << httplib::to_string(file.error());
  const Json::Value fileReply = parseJson(file->body);
  EXPECT_EQ(fileReply["path"].asString(), "//" + expectedHost + "/objects/h.bin");
  EXPECT_EQ(fileReply["uploadPath"].asString().rfind(scheme() + "://" + expectedHost + "/", 0), 0u);
  const Json::Value video =
      parseJson(client->Post("/file/getUploadVideoSignature.action", videoForm())->body);
  EXPECT_EQ(video["uploadUrl"].asString().rfind(scheme() + "://" + expectedHost + "/", 0), 0u);
  EXPECT_EQ(video["payUrl"].asString().rfind("//" + expectedHost + "/vod/", 0), 0u);
}

INSTANTIATE_TEST_SUITE_P(Transports, SignatureRoutes, ::testing::Bool(), transportName);

}  // namespace
