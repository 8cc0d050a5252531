// Direct multipart uploads: /file/uploadImg.action and the multipart form of
// /file/uploadBySignature.action, over HTTP and HTTPS.
#include "FileServiceTestSupport.h"

#include <filesystem>

using namespace fileservice_test;

namespace {

class UploadRoutes : public ServiceTest {
protected:
  httplib::Result upload(const std::string& path, httplib::MultipartFormDataItems form) {
    return clientFor(*service)->Post(path.c_str(), form);
  }
  // Regular files in the store's "files" area.
  std::size_t storedFileCount() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(data.file("store/files"))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
};

TEST_P(UploadRoutes, UploadImgStoresTheFileUnderAFreshKeyWithItsExtension) {
  const std::string bytes = randomBytes(300 * 1024);
  auto form = identityForm();
  form.push_back({"upload", bytes, "photo.jpg", "image/jpeg"});

  const auto result = upload("/file/uploadImg.action", form);
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
  const Json::Value reply = parseJson(result->body);
  EXPECT_EQ(reply["code"].asInt(), 0);
  const std::string path = reply["path"].asString();
  EXPECT_THAT(path, MatchesPattern("//" + hostPattern() + "/files/" + kUuidPattern + "\\.jpg"));

  const std::string stored = service->storedFile(pathOf(path));
  ASSERT_FALSE(stored.empty());
  EXPECT_TRUE(sameBytes(readFile(stored), bytes));

  const auto download = clientFor(*service)->Get(pathOf(path).c_str());
  ASSERT_TRUE(download);
  EXPECT_EQ(download->status, 200);
  EXPECT_TRUE(sameBytes(download->body, bytes));
}

TEST_P(UploadRoutes, KeysAreFreshForEveryUpload) {
  auto form = identityForm();
  form.push_back({"upload", "same bytes", "a.png", "image/png"});
  const auto first = upload("/file/uploadImg.action", form);
  const auto second = upload("/file/uploadImg.action", form);
  ASSERT_TRUE(first && second);
  EXPECT_NE(parseJson(first->body)["path"].asString(), parseJson(second->body)["path"].asString());
  EXPECT_EQ(storedFileCount(), 2u);
}

TEST_P(UploadRoutes, AFileNameWithoutExtensionGivesABareKey) {
  auto form = identityForm();
  form.push_back({"upload", "plain", "README", "application/octet-stream"});
  const auto result = upload("/file/uploadImg.action", form);
  ASSERT_TRUE(result);
  const std::string path = parseJson(result->body)["path"].asString();
  EXPECT_THAT(path, MatchesPattern("//" + hostPattern() + "/files/" + kUuidPattern));
  EXPECT_EQ(readFile(service->storedFile(pathOf(path))), "plain");
}

TEST_P(UploadRoutes, EachMissingOrEmptyIdentityFieldIsRefusedWithANonZeroCode) {
  for (const std::string field : {"appId", "pin", "aid"}) {
    for (const bool empty : {false, true}) {
      httplib::MultipartFormDataItems form;
      for (const auto& item : identityForm()) {
        if (item.name != field) {
          form.push_back(item);
        } else if (empty) {
          form.push_back({field, "", "", ""});
        }
      }
      form.push_back({"upload", "bytes", "a.jpg", "image/jpeg"});
      const auto result = upload("/file/uploadImg.action", form);
      ASSERT_TRUE(result);
      EXPECT_EQ(result->status, 200) << field;
      const Json::Value reply = parseJson(result->body);
      EXPECT_NE(reply["code"].asInt(), 0) << field;
      EXPECT_NE(reply["msg"].asString().find(field), std::string::npos) << reply["msg"].asString();
      EXPECT_FALSE(reply.isMember("path"));
    }
  }
  EXPECT_EQ(storedFileCount(), 0u);
}

TEST_P(UploadRoutes, AMissingUploadPartIsRefused) {
  auto form = identityForm();
  form.push_back({"other", "bytes", "a.jpg", "image/jpeg"});
  const auto result = upload("/file/uploadImg.action", form);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  const Json::Value reply = parseJson(result->body);
  EXPECT_NE(reply["code"].asInt(), 0);
  EXPECT_FALSE(reply["msg"].asString().empty());
  EXPECT_EQ(storedFileCount(), 0u);
}

TEST_P(UploadRoutes, ABodyThatIsNotMultipartIsRefusedAndTheConnectionStaysUsable) {
  auto client = clientFor(*service);
  const auto refused = client->Post("/file/uploadImg.action", "a=b", "text/plain");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 400);
  EXPECT_NE(parseJson(refused->body)["code"].asInt(), 0);
  const auto next = client->Get("/_control/stats");
  ASSERT_TRUE(next);
  EXPECT_EQ(next->status, 200);
}

TEST_P(UploadRoutes, UploadBySignatureAlsoTakesADirectMultipartUpload) {
  const std::string bytes = randomBytes(70000, 7);
  auto form = identityForm();
  form.push_back({"upload", bytes, "movie.mp4", "video/mp4"});
  const auto result = upload("/file/uploadBySignature.action", form);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  const Json::Value reply = parseJson(result->body);
  EXPECT_EQ(reply["code"].asInt(), 0);
  const std::string path = reply["path"].asString();
  EXPECT_THAT(path, MatchesPattern("//" + hostPattern() + "/files/" + kUuidPattern + "\\.mp4"));
  EXPECT_TRUE(sameBytes(readFile(service->storedFile(pathOf(path))), bytes));
}

TEST_P(UploadRoutes, TheReplyNamesTheHostTheRequestWasSentTo) {
  auto form = identityForm();
  form.push_back({"upload", "x", "a.gif", "image/gif"});
  const auto result = clientFor(*service, "localhost")->Post("/file/uploadImg.action", form);
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  const std::string path = parseJson(result->body)["path"].asString();
  EXPECT_EQ(path.rfind("//localhost:" + std::to_string(service->port()) + "/files/", 0), 0u)
      << path;
}

TEST_P(UploadRoutes, RequestsAreCounted) {
  const std::uint64_t before = service->requestCount();
  auto client = clientFor(*service);
  ASSERT_TRUE(client->Get("/files/nothing-here"));
  ASSERT_TRUE(client->Get("/no/such/route"));
  EXPECT_EQ(service->requestCount(), before + 2);
}

INSTANTIATE_TEST_SUITE_P(Transports, UploadRoutes, ::testing::Bool(), transportName);

}  // namespace
