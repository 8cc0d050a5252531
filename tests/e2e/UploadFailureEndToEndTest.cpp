#include "CloudEnvironment.h"
#include "SignedInFixture.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <ctime>

using quill_test::CloudEnvironment;
using quill_test::Tracked;
using quill_test::writePattern;

namespace {

struct UploadFailure : quill_test::SignedInFixture {
  void TearDown() override { CloudEnvironment::server().clearFaults(); }

  // Uploads `size` pattern bytes from a file of the source directory.
  Tracked upload(int kind, const std::string& name, std::size_t size = 16 * 1024) {
    writePattern(source.file(name), size);
    Tracked tracked(true, kind);
    tracked.request->directory = source.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }

  void replyWith(const std::string& pathPrefix, int status, const std::string& body) {
    quill_fileservice::Fault fault;
    fault.pathPrefix = pathPrefix;
    fault.status = status;
    fault.hasBody = true;
    fault.body = body;
    CloudEnvironment::server().addFault(fault);
  }
};

std::string hmacHex(const std::string& key, const std::string& message) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xf]);
  }
  return hex;
}

}  // namespace

TEST_F(UploadFailure, TheFileServiceRefusesWithAndWithoutAMessage) {
  replyWith("/file/uploadImg.action", 200, R"({"code":3,"msg":"quota exceeded"})");
  auto refused = upload(CloudStorageKind::kImage, "a.png");
  ASSERT_TRUE(refused.waitEnded());
  EXPECT_EQ(refused.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(refused.message(), "quota exceeded");
  EXPECT_EQ(refused.url(), "");

  CloudEnvironment::server().clearFaults();
  replyWith("/file/uploadImg.action", 200, R"({"code":3})");
  auto silent = upload(CloudStorageKind::kImage, "b.png");
  ASSERT_TRUE(silent.waitEnded());
  EXPECT_EQ(silent.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(silent.message(), "");
}

TEST_F(UploadFailure, MalformedRepliesAndServerErrors) {
  replyWith("/file/uploadImg.action", 200, "{not json");
  auto malformed = upload(CloudStorageKind::kImage, "m.png");
  ASSERT_TRUE(malformed.waitEnded());
  EXPECT_EQ(malformed.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(malformed.message(), "parse response failed");

  CloudEnvironment::server().clearFaults();
  replyWith("/file/uploadImg.action", 500, "internal error");
  auto broken = upload(CloudStorageKind::kImage, "e.png");
  ASSERT_TRUE(broken.waitEnded());
  EXPECT_EQ(broken.code(), CloudStorageResult::kTransferFailed);
  EXPECT_NE(broken.message().find("500"), std::string::npos) << broken.message();
}

TEST_F(UploadFailure, SignatureRefusals) {
  replyWith("/file/uploadBySignature.action", 200, R"({"code":0,"desc":"account frozen"})");
  auto described = upload(CloudStorageKind::kFile, "d.pdf");
  ASSERT_TRUE(described.waitEnded());
  EXPECT_EQ(described.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(described.message(), "account frozen");

  CloudEnvironment::server().clearFaults();
  replyWith("/file/uploadBySignature.action", 200, R"({"code":0})");
  auto bare = upload(CloudStorageKind::kFile, "e.pdf");
  ASSERT_TRUE(bare.waitEnded());
  EXPECT_EQ(bare.message(), "request signature,0");

  CloudEnvironment::server().clearFaults();
  replyWith("/file/uploadBySignature.action", 200, "<html>");
  auto malformed = upload(CloudStorageKind::kFile, "f.pdf");
  ASSERT_TRUE(malformed.waitEnded());
  EXPECT_EQ(malformed.message(), "parse signature response failed");

  CloudEnvironment::server().clearFaults();
  replyWith("/file/uploadBySignature.action", 500, "");
  auto failed = upload(CloudStorageKind::kFile, "g.pdf");
  ASSERT_TRUE(failed.waitEnded());
  EXPECT_EQ(failed.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(failed.message(), "request signature failed, 500");
}

TEST_F(UploadFailure, AnExpiredSignatureIsRefusedWith403) {
  // A signature correctly made for a time that has passed.
  const auto key = TextUtils::UUID_String() + ".bin";
  const auto expires = std::to_string(std::time(nullptr) - 60);
  const auto signature = hmacHex(CloudEnvironment::kSigningSecret, key + "\n" + expires);
  replyWith("/file/uploadBySignature.action", 200,
            R"({"code":1,"desc":"","uploadPath":")" +
                CloudEnvironment::url("/objects/" + key + "?expires=" + expires +
                                      "&signature=" + signature) +
                R"(","path":"//)" + CloudEnvironment::server().hostPort() + "/objects/" + key +
                R"("})");
  auto expired = upload(CloudStorageKind::kFile, "x.bin");
  ASSERT_TRUE(expired.waitEnded());
  EXPECT_EQ(expired.code(), CloudStorageResult::kTransferFailed);
  EXPECT_NE(expired.message().find("403"), std::string::npos) << expired.message();
  EXPECT_TRUE(CloudEnvironment::server().storedFile("/objects/" + key).empty());
}

TEST_F(UploadFailure, CancelMidUploadOnEachRoute) {
  // Each route's transfer is held by the server long enough to be cancelled in flight.
  for (const auto& [kind, prefix] : std::vector<std::pair<int, std::string>>{
           {1, "/file/uploadImg.action"}, {2, "/objects/"}, {3, "/vod/upload"}}) {
    quill_fileservice::Fault slow;
    slow.pathPrefix = prefix;
    slow.delayMs = 5000;
    CloudEnvironment::server().addFault(slow);
    const auto before = CloudEnvironment::server().requestCount();
    auto tracked = upload(kind, "cancel" + std::to_string(kind) + ".bin", 64 * 1024);
    // Kind 1 sends one request; the others a signature request first.
    const auto requests = kind == 1 ? 1u : 2u;
    ASSERT_TRUE(quill_test::eventually(
        [&] { return CloudEnvironment::server().requestCount() - before >= requests; }));
    service->cancelReqestWithID(tracked.request->requestId);
    ASSERT_TRUE(tracked.waitEnded(std::chrono::seconds(3)));
    EXPECT_EQ(tracked.code(), CloudStorageResult::kCancelled) << prefix;
    EXPECT_EQ(tracked.message(), "") << prefix;
    EXPECT_EQ(tracked.url(), "");
    CloudEnvironment::server().clearFaults();
  }
}
