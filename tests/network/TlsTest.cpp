// Certificate checks: the engine trusts the CA in QUILL_CA_BUNDLE (or the system's) and nothing
// else, whatever connections it already holds.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"
#include "TrustedRootCertificate.h"

#include <gtest/gtest.h>

#include <memory>

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
    return downloadFrom(fileService(Scheme::Https).baseUrl() + urlPath, path);
  }

  static std::shared_ptr<HttpResponse> downloadFrom(const std::string& url,
                                                    const std::string& path) {
    auto record = TransferRecord::make();
    HttpClient::downloadFile(url, path, nullptr, record->completion());
    return record->wait();
  }

  // A started HTTPS service with a CA of its own, its data in `data`; null when it cannot start.
  static std::unique_ptr<quill_fileservice::FileService> ownTlsService(const TempDir& data) {
    quill_fileservice::Options options;
    options.dataDirectory = data.path();
    options.tls = true;
    auto service = std::make_unique<quill_fileservice::FileService>(options);
    if (!service->start()) {
      ADD_FAILURE() << service->lastError();
      return nullptr;
    }
    return service;
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
  auto other = ownTlsService(otherData);
  ASSERT_NE(other, nullptr);

  ScopedEnv wrongBundle("QUILL_CA_BUNDLE", other->caCertificatePath());
  auto response = download(dir.file("out"));
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 0);
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out")));
}

#if defined(_WIN32)
// Without QUILL_CA_BUNDLE, Windows trusts its certificate store: a CA an administrator added to
// the machine's roots (a company's own) is trusted. A service of its own, so that no connection
// or TLS session trusted some other way exists for it.
TEST_F(Tls, OnWindowsARootInTheCertificateStoreIsTrusted) {
  TempDir ownData;
  auto own = ownTlsService(ownData);
  ASSERT_NE(own, nullptr);
  const auto ownPath = own->addFile("store.bin", dir.file("source"));
  ASSERT_FALSE(ownPath.empty());
  const std::string ownUrl = own->baseUrl() + ownPath;
  ScopedEnv noBundle("QUILL_CA_BUNDLE", std::nullopt);

  auto untrusted = downloadFrom(ownUrl, dir.file("before"));
  ASSERT_NE(untrusted, nullptr);
  EXPECT_EQ(untrusted->outcome, HttpResponse::kFailed) << "trusted before it was in the store";

  TrustedRootCertificate root(own->caCertificatePath());
  if (root.accessDenied()) {
    GTEST_SKIP() << "adding a root needs administrator rights: " << root.error();
  }
  ASSERT_TRUE(root.installed()) << root.error();
  auto response = downloadFrom(ownUrl, dir.file("out"));
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_TRUE(holdsPattern(dir.file("out"), 5000));
}
#endif
