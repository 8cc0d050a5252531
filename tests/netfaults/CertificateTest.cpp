// Servers whose certificate must not be accepted: signed by a CA that QUILL_CA_BUNDLE does not
// hold, expired, or made for another host. Downloads and uploads on every route end with -100 and
// not one request reaches the server. The same server with a good certificate is the control.

#include "NetFaultsEnvironment.h"

#include <gtest/gtest.h>

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace quill_test {
namespace {

using std::chrono::seconds;

enum class Certificate { Good, Untrusted, Expired, WrongHost };

std::string nameOf(Certificate certificate) {
  switch (certificate) {
    case Certificate::Good:
      return "Good";
    case Certificate::Untrusted:
      return "Untrusted";
    case Certificate::Expired:
      return "Expired";
    case Certificate::WrongHost:
      return "WrongHost";
  }
  return "?";
}

TestCertificates::ServerSpec specOf(Certificate certificate) {
  TestCertificates::ServerSpec spec;
  spec.dnsNames = {"localhost"};
  spec.ipAddresses = {"127.0.0.1"};
  switch (certificate) {
    case Certificate::Good:
      break;
    case Certificate::Untrusted:
      spec.signedByTrustedCa = false;
      break;
    case Certificate::Expired:
      spec.notBeforeSeconds = -30L * 24 * 3600;
      spec.notAfterSeconds = -24L * 3600;
      break;
    case Certificate::WrongHost:
      spec.dnsNames = {"files.elsewhere.example"};
      spec.ipAddresses = {"127.0.0.2"};
      break;
  }
  return spec;
}

// A file service of its own with the certificate under test, and the library's hosts pointed at
// it for as long as the test runs.
class Certificates : public ::testing::TestWithParam<Certificate> {
protected:
  void SetUp() override {
    auto& certificates = NetFaultsEnvironment::certificates();
    const auto files = certificates.makeServer(
        "server-" + nameOf(GetParam()) + "-" + TextUtils::UUID_String(), specOf(GetParam()));
    ASSERT_EQ(certificates.error(), "");
    quill_fileservice::Options options;
    options.tls = true;
    options.certFile = files.certificate;
    options.keyFile = files.key;
    server = std::make_unique<quill_fileservice::FileService>(options);
    ASSERT_TRUE(server->start()) << server->lastError();
    served =
        server->addFile("certificate.bin", writePattern(sources.file("source.bin"), 64 * 1024, 9));
    ASSERT_FALSE(served.empty());
    writePattern(sources.file("photo.png"), 32 * 1024, 2);
    writePattern(sources.file("report.pdf"), 32 * 1024, 3);
    writePattern(sources.file("clip.mov"), 32 * 1024, 4);

    // No transfer is in flight here: the library reads the hosts when the service is made.
    pointHostsAt(server->hostPort());
    service = std::make_unique<CloudStorageService>(true);
    service->changeUser("cert-app", "cert-pin", user.path());
    service->changeAid("cert-aid");
  }

  void TearDown() override {
    service.reset();
    pointHostsAt(NetFaultsEnvironment::proxyHost());
  }

  RecordedRequest& start(bool upload, int kind, const std::string& fileName) {
    auto transfer = std::make_unique<RecordedRequest>(upload, kind);
    if (upload) {
      transfer->request->directory = sources.path();
      transfer->request->fileName = fileName;
    } else {
      transfer->request->url = server->baseUrl() + served;
      transfer->request->directory = downloads.path();
      transfer->request->fileName = fileName;
    }
    EXPECT_TRUE(service->excuteRequest(transfer->request));
    transfers.push_back(std::move(transfer));
    return *transfers.back();
  }

  TempDir user;
  TempDir sources;
  TempDir downloads;
  std::unique_ptr<quill_fileservice::FileService> server;
  std::string served;
  std::unique_ptr<CloudStorageService> service;
  std::vector<std::unique_ptr<RecordedRequest>> transfers;
};

TEST_P(Certificates, DecideWhetherAnythingIsTransferred) {
  auto& download = start(false, CloudStorageKind::kFile, "downloaded.bin");
  auto& imageUpload = start(true, CloudStorageKind::kImage, "photo.png");
  auto& fileUpload = start(true, CloudStorageKind::kFile, "report.pdf");
  auto& videoUpload = start(true, CloudStorageKind::kVideo, "clip.mov");
  for (const auto& transfer : transfers) {
    ASSERT_TRUE(transfer->waitEnded(seconds(60)));
    EXPECT_EQ(transfer->endCount(), 1);
  }
  const auto finalFile = FileUtils::appendComponent(downloads.path(), "downloaded.bin");
  for (const auto& transfer : transfers) {
    std::printf("%s certificate, %s kind %d: %d \"%s\"\n", nameOf(GetParam()).c_str(),
                transfer->request->isUpload ? "upload" : "download", transfer->request->kind,
                transfer->code(), transfer->message().c_str());
  }

  if (GetParam() == Certificate::Good) {
    EXPECT_EQ(download.code(), CloudStorageResult::kSuccess) << download.message();
    EXPECT_TRUE(FileUtils::sameContent(finalFile, sources.file("source.bin")));
    for (RecordedRequest* upload : {&imageUpload, &fileUpload, &videoUpload}) {
      EXPECT_EQ(upload->code(), CloudStorageResult::kSuccess)
          << upload->request->fileName << ": " << upload->message();
    }
    EXPECT_GE(server->requestCount(), 6u);
    return;
  }

  // Refused during the handshake: no status ever arrived.
  EXPECT_EQ(download.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(download.message(), "0");
  EXPECT_FALSE(download.ended().fileAtEnd);
  EXPECT_FALSE(FileUtils::fileExists(finalFile));
  // The file-service upload reports the transfer's description; the signed routes fail at their
  // signature request.
  EXPECT_EQ(imageUpload.code(), CloudStorageResult::kTransferFailed);
  EXPECT_FALSE(imageUpload.message().empty());
  // The description names the reason the certificate was refused (libcurl's wording).
  const char* reason = GetParam() == Certificate::Untrusted ? "local issuer"
                       : GetParam() == Certificate::Expired ? "expired"
                                                            : "subject name";
  EXPECT_NE(imageUpload.message().find(reason), std::string::npos) << imageUpload.message();
  EXPECT_EQ(fileUpload.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(fileUpload.message(), "request signature failed, 0");
  EXPECT_EQ(videoUpload.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(videoUpload.message(), "request signature failed, 0");
  for (const auto& transfer : transfers) {
    EXPECT_EQ(transfer->url(), transfer->request->isUpload ? "" : transfer->request->url);
  }
  // Never accepted: not one request got through to the server.
  EXPECT_EQ(server->requestCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Server, Certificates,
                         ::testing::Values(Certificate::Good, Certificate::Untrusted,
                                           Certificate::Expired, Certificate::WrongHost),
                         [](const ::testing::TestParamInfo<Certificate>& info) {
                           return nameOf(info.param);
                         });

}  // namespace
}  // namespace quill_test
