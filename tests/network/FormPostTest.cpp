// executePost() against the reference file service, over HTTP and HTTPS.

#include <quill_base/JSONUtils.h>
#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

class FormPost : public OverBothSchemes {};

}  // namespace

TEST_P(FormPost, TheSignatureReplyIsHandedBack) {
  auto record = TransferRecord::make();
  HttpClient::executePost(
      url("/file/uploadBySignature.action"),
      {{"appId", "quill-test"},
       {"aid", "account-7"},
       {"pin", "user 1 & co"},
       {"clientType", "desktop"},
       {"key", "report 2024.pdf"}},
      [](HttpRequest& request) { request.appendHeader("X-Quill-Trace", "t-1"); },
      record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(response->status, 200);
  Json::Value json;
  ASSERT_TRUE(JSONUtils::parseJSON(response->text, json)) << response->text;
  EXPECT_EQ(JSONUtils::optInt("code", json, -1), 1) << response->text;
  const auto uploadPath = JSONUtils::optString("uploadPath", json, "");
  EXPECT_EQ(uploadPath.rfind(service().baseUrl() + "/objects/", 0), 0u) << uploadPath;
  EXPECT_TRUE(record->progressReports().empty()) << "executePost reports no progress";
}

TEST_P(FormPost, AMissingFieldIsRefusedInTheReply) {
  auto record = TransferRecord::make();
  HttpClient::executePost(url("/file/uploadBySignature.action"), {{"appId", "quill-test"}}, nullptr,
                          record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << "HTTP 200 with a refusal inside";
  Json::Value json;
  ASSERT_TRUE(JSONUtils::parseJSON(response->text, json)) << response->text;
  EXPECT_EQ(JSONUtils::optInt("code", json, -1), 0) << response->text;
}

INSTANTIATE_TEST_SUITE_P(Schemes, FormPost, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
