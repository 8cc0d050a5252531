// uploadMultipartData() and uploadFile() against the reference file service, over HTTP and HTTPS.

#include <quill_base/FileUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

std::vector<HttpPartData> directUploadParts(const std::string& filePath) {
  return {HttpPartData::makePart("appId", "quill-test", false),
          HttpPartData::makePart("pin", "user-1", false),
          HttpPartData::makePart("aid", "account-7", false),
          HttpPartData::makePart("clientType", "desktop", false),
          HttpPartData::makePart("upload", filePath, true)};
}

class MultipartUpload : public OverBothSchemes {
protected:
};

class PutUpload : public OverBothSchemes {
protected:
  std::string signedUploadUrl(const std::string& key) { return signedObjectUrl(service(), key); }
};

}  // namespace

TEST_P(MultipartUpload, StoresTheFileAndHandsBackTheReply) {
  const std::uint64_t size = 2 * 1024 * 1024 + 7;
  const auto local = dir.file("photo.jpg");
  writePatternFile(local, size);
  auto record = TransferRecord::make();
  HttpClient::uploadMultipartData(url("/file/uploadImg.action"), directUploadParts(local),
                                  record->progress(), record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  Json::Value json;
  ASSERT_TRUE(JSONUtils::parseJSON(response->text, json)) << response->text;
  EXPECT_EQ(JSONUtils::optInt("code", json, -1), 0) << response->text;
  const auto stored = service().storedFile(urlPathOf(JSONUtils::optString("path", json, "")));
  ASSERT_FALSE(stored.empty()) << response->text;
  EXPECT_TRUE(holdsPattern(stored, size));

  // The bytes sent are the whole multipart body: the file and the framing around the parts.
  const auto reports = record->progressReports();
  ASSERT_FALSE(reports.empty());
  const double total = reports.back().second;
  EXPECT_GT(total, static_cast<double>(size));
  expectProgressEndsAtTotal(reports, total);
}

TEST_P(MultipartUpload, ARefusalReplyIsHandedBackAsItCame) {
  const auto local = dir.file("photo.jpg");
  writePatternFile(local, 100);
  auto parts = directUploadParts(local);
  parts.erase(parts.begin() + 1);  // no "pin"
  auto record = TransferRecord::make();
  HttpClient::uploadMultipartData(url("/file/uploadImg.action"), parts, nullptr,
                                  record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << "HTTP 200 with a refusal inside";
  Json::Value json;
  ASSERT_TRUE(JSONUtils::parseJSON(response->text, json)) << response->text;
  EXPECT_NE(JSONUtils::optInt("code", json, 0), 0);
}

TEST_P(PutUpload, ASignedPutStoresTheFile) {
  const std::uint64_t size = 3 * 1024 * 1024 + 1;
  const auto local = dir.file("document.pdf");
  writePatternFile(local, size);
  const auto uploadUrl = signedUploadUrl("put-test.pdf");
  ASSERT_FALSE(uploadUrl.empty());
  auto record = TransferRecord::make();
  HttpClient::uploadFile(uploadUrl, local, record->progress(), record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_GE(response->status, 200);
  EXPECT_LT(response->status, 300);
  const auto stored = service().storedFile("/objects/put-test.pdf");
  ASSERT_FALSE(stored.empty());
  EXPECT_TRUE(holdsPattern(stored, size));
  expectProgressEndsAtTotal(record->progressReports(), static_cast<double>(size));
}

TEST_P(PutUpload, AForgedSignatureIsRefused) {
  const auto local = dir.file("document.pdf");
  writePatternFile(local, 1000);
  auto uploadUrl = signedUploadUrl("forged.pdf");
  ASSERT_FALSE(uploadUrl.empty());
  const auto signature = uploadUrl.find("signature=");
  ASSERT_NE(signature, std::string::npos) << uploadUrl;
  uploadUrl = uploadUrl.substr(0, signature) + "signature=0000";
  auto record = TransferRecord::make();
  HttpClient::uploadFile(uploadUrl, local, nullptr, record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_GE(response->status, 400);
  EXPECT_TRUE(service().storedFile("/objects/forged.pdf").empty());
}

INSTANTIATE_TEST_SUITE_P(Schemes, MultipartUpload, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
INSTANTIATE_TEST_SUITE_P(Schemes, PutUpload, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
