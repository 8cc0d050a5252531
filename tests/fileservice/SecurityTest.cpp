// Refusals: bad, tampered and expired signatures and video tokens, and paths that try to leave the
// data directory, over HTTP and HTTPS.
#include "FileServiceTestSupport.h"

#include <filesystem>

using namespace fileservice_test;

namespace {

class Security : public ServiceTest {
protected:
  std::string uploadPathFor(const std::string& key) {
    const auto reply = clientFor(*service)->Post(
        "/file/uploadBySignature.action",
        httplib::Params{
            {"appId", "a"}, {"aid", "b"}, {"pin", "c"}, {"clientType", "pc"}, {"key", key}});
    EXPECT_TRUE(reply);
    return pathOf(parseJson(reply->body)["uploadPath"].asString());
  }
  std::string videoUploadPath() {
    const auto reply = clientFor(*service)->Post("/file/getUploadVideoSignature.action",
                                                 httplib::Params{{"appId", "a"},
                                                                 {"aid", "b"},
                                                                 {"pin", "c"},
                                                                 {"clientType", "pc"},
                                                                 {"fileName", "v.mp4"},
                                                                 {"fileSize", "3"},
                                                                 {"type", "3"}});
    EXPECT_TRUE(reply);
    return pathOf(parseJson(reply->body)["uploadUrl"].asString());
  }
  int put(const std::string& path, const std::string& body = "payload") {
    const auto result = clientFor(*service)->Put(path.c_str(), body, "application/octet-stream");
    EXPECT_TRUE(result) << path;
    return result ? result->status : -1;
  }
  int postVideo(const std::string& path) {
    const auto result = clientFor(*service)->Post(
        path.c_str(), httplib::MultipartFormDataItems{{"v.mp4", "vvv", "v.mp4", "video/mp4"}});
    EXPECT_TRUE(result) << path;
    return result ? result->status : -1;
  }
  std::size_t storedCount(const std::string& area) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(data.file("store/" + area))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
};

TEST_P(Security, AGoodSignatureIsTheBaseline) {
  EXPECT_EQ(put(uploadPathFor("good.bin")), 200);
  EXPECT_EQ(storedCount("objects"), 1u);
}

TEST_P(Security, BadMissingAndTamperedSignaturesAreRefusedWith403) {
  const std::string granted = uploadPathFor("k1.bin");  // /objects/k1.bin?expires=E&signature=S
  const auto query = granted.find('?');
  const std::string expires = granted.substr(granted.find("expires=") + 8,
                                             granted.find('&') - granted.find("expires=") - 8);
  const std::string signature = granted.substr(granted.find("signature=") + 10);
  ASSERT_EQ(signature.size(), 64u);
  std::string flipped = signature;
  flipped[0] = flipped[0] == 'a' ? 'b' : 'a';

  EXPECT_EQ(put(granted.substr(0, query)), 403);
  EXPECT_EQ(put("/objects/k1.bin?expires=" + expires + "&signature=" + flipped), 403);
  EXPECT_EQ(put("/objects/k1.bin?expires=" + expires), 403);
  EXPECT_EQ(put("/objects/k1.bin?signature=" + signature), 403);
  // Another key, or a later expiry, with the same signature.
  EXPECT_EQ(put("/objects/k2.bin?expires=" + expires + "&signature=" + signature), 403);
  EXPECT_EQ(put("/objects/k1.bin?expires=" + std::to_string(std::stoll(expires) + 1) +
                "&signature=" + signature),
            403);
  EXPECT_EQ(storedCount("objects"), 0u);
  // The refused body was read and thrown away: the same connection carries the next request.
  auto client = clientFor(*service);
  const auto refused = client->Put("/objects/k1.bin", randomBytes(3 * 1024 * 1024), "x/y");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 403);
  EXPECT_FALSE(refused->body.empty());
  const auto after = client->Put(granted.c_str(), "ok", "text/plain");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
}

TEST_P(Security, BadAndTamperedVideoTokensAreRefusedWith403) {
  const std::string granted = videoUploadPath();  // /vod/upload?token=<id>.<expires>.<hex>
  const std::string token = granted.substr(granted.find("token=") + 6);
  std::string otherId = token;
  otherId[0] = otherId[0] == 'a' ? 'b' : 'a';
  std::string otherMac = token;
  otherMac.back() = otherMac.back() == 'a' ? 'b' : 'a';

  EXPECT_EQ(postVideo("/vod/upload"), 403);
  EXPECT_EQ(postVideo("/vod/upload?token=garbage"), 403);
  EXPECT_EQ(postVideo("/vod/upload?token=" + otherId), 403);
  EXPECT_EQ(postVideo("/vod/upload?token=" + otherMac), 403);
  EXPECT_EQ(storedCount("vod"), 0u);
  EXPECT_EQ(postVideo(granted), 200);
  EXPECT_EQ(storedCount("vod"), 1u);
}

// Permissions issued with a negative lifetime are already stale: correctly signed, yet refused.
class ExpiredPermissions : public Security {
protected:
  void configure(quill_fileservice::Options& options) override {
    options.signatureLifetimeSeconds = -5;
  }
};

TEST_P(ExpiredPermissions, AnExpiredSignatureIsRefusedWith403) {
  const auto result = clientFor(*service)->Put(uploadPathFor("late.bin").c_str(), "x", "a/b");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 403);
  EXPECT_NE(result->body.find("expired"), std::string::npos) << result->body;
  EXPECT_EQ(storedCount("objects"), 0u);
}

TEST_P(ExpiredPermissions, AnExpiredVideoTokenIsRefusedWith403) {
  const auto result = clientFor(*service)->Post(
      videoUploadPath().c_str(), httplib::MultipartFormDataItems{{"v", "v", "v.mp4", "video/mp4"}});
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 403);
  EXPECT_NE(result->body.find("expired"), std::string::npos) << result->body;
  EXPECT_EQ(storedCount("vod"), 0u);
}

TEST_P(Security, PathsThatLeaveTheirDirectoryAreRefused) {
  // A file beside the data directory that no request may reach.
  writeFile(data.file("secret.txt"), "secret");
  writeFile(data.file("store/secret.txt"), "secret");
  auto client = clientFor(*service);
  for (const char* path : {"/files/..", "/files/%2e%2e", "/files/%2E%2E", "/files/../secret.txt",
                           "/files/%2e%2e%2fsecret.txt", "/files/..%2f..%2fsecret.txt",
                           "/files/%2e%2e%2f%2e%2e%2fsecret.txt", "/objects/..%5c..%5csecret.txt",
                           "/files/a%5cb", "/files/a%00b", "/files/", "/vod/%2e%2e%2fsecret.txt",
                           "/files/.hidden", "/files/sub%2Fdir"}) {
    const auto result = client->Get(path);
    ASSERT_TRUE(result) << path;
    EXPECT_EQ(result->status, 400) << path;
    EXPECT_EQ(result->body.find("secret"), std::string::npos) << path;
  }
  // Paths outside the stored areas are simply not found.
  EXPECT_EQ(client->Get("/secret.txt")->status, 404);
  EXPECT_EQ(client->Get("/files/../../secret.txt")->status, 400);
  EXPECT_EQ(client->Get("/x/../secret.txt")->status, 404);
}

TEST_P(Security, UploadsToKeysThatLeaveTheirDirectoryAreRefused) {
  for (const char* path : {"/objects/%2e%2e", "/objects/..%2fescape", "/objects/a%5cb",
                           "/objects/a%00b", "/objects/"}) {
    EXPECT_EQ(put(std::string(path) + "?expires=1&signature=0"), 400) << path;
  }
  EXPECT_FALSE(std::filesystem::exists(data.file("store/escape")));
  EXPECT_FALSE(std::filesystem::exists(data.file("escape")));
}

INSTANTIATE_TEST_SUITE_P(Transports, Security, ::testing::Bool(), transportName);
INSTANTIATE_TEST_SUITE_P(Transports, ExpiredPermissions, ::testing::Bool(), transportName);

}  // namespace
