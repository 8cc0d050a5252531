// Certificate checks: the engine trusts the CA in QUILL_CA_BUNDLE (or the system's) and nothing
// else, whatever connections it already holds.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

class Tls : public ::testing::Test {
protected:
  void SetUp() override {
    writePatternFile(dir.file("source"), 5000);
    urlPath = fileService(Scheme::Https).addFile("tls.bin", dir.file("source"));
    ASSERT_FALSE(urlPath.empty());
  }

  std::shared_ptr<HttpResponse> download(const std::string& path) {
    auto record = TransferRecord::make();
    HttpClient::downloadFile(fileService(Scheme::Https).baseUrl() + urlPath, path, nullptr,
                             record->completion());
    return record->wait();
  }

  TempDir dir;
  std::string urlPath;
};

}  // namespace

TEST_F(Tls, TheConfiguredCaIsTrusted) {
  auto response = download(dir.file("out"));
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_TRUE(holdsPattern(dir.file("out"), 5000));
}

TEST_F(Tls, WithoutTheCaTheCertificateIsRefused) {
  // A trusted connection to the same server is open first: it must not be reused for a transfer
  // that does not trust the server.
  auto trusted = download(dir.file("trusted"));
  ASSERT_NE(trusted, nullptr);
  ASSERT_EQ(trusted->outcome, HttpResponse::kCompleted) << trusted->text;

  ScopedEnv noBundle("QUILL_CA_BUNDLE", std::nullopt);
  auto response = download(dir.file("out"));
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 0);
  EXPECT_FALSE(response->text.empty());
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out")));
}

TEST_F(Tls, AnotherCaIsRefused) {
  TempDir otherData;
  quill_fileservice::Options options;
  options.dataDirectory = otherData.path();
  options.tls = true;
  quill_fileservice::FileService other(options);
  ASSERT_TRUE(other.start()) << other.lastError();

  ScopedEnv wrongBundle("QUILL_CA_BUNDLE", other.caCertificatePath());
  auto response = download(dir.file("out"));
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 0);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out")));
}
