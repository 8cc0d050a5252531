#pragma once

#include "FaultProxy.h"
#include "FileServiceEnvironment.h"
#include "RecordedRequest.h"
#include "TestCertificates.h"
#include "TestFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <quill_fileservice/FileService.h>

#include <memory>
#include <string>

namespace quill_test {

// For the whole test program: certificates made for the run (QUILL_CA_BUNDLE names the trusted
// CA), the reference file service over HTTPS with a certificate of that CA for 127.0.0.1 and
// localhost, and a FaultProxy in front of it. Every deployment host points at the proxy: the file
// service and image CDN hosts as 127.0.0.1:<proxy>, the static-content host as
// localhost:<proxy>, so TLS is verified end to end through the proxy.
//
// QUILL_NETFAULTS_SEED sets the proxy's random seed (printed at start).
class NetFaultsEnvironment : public FileServiceEnvironment {
public:
  NetFaultsEnvironment();

  void SetUp() override;
  void TearDown() override;

  static quill_fileservice::FileService& server();
  static FaultProxy& proxy();
  static TestCertificates& certificates();
  // A fresh directory that lives as long as the environment.
  static std::string scratch();

  // "https://127.0.0.1:<proxy>" + path
  static std::string proxiedUrl(const std::string& path);
  // "https://localhost:<proxy>" + path: through the static-content host
  static std::string proxiedStaticUrl(const std::string& path);
  static std::string proxyHost();  // "127.0.0.1:<proxy>"

protected:
  // The service's certificate: one of the run's trusted CA, for 127.0.0.1 and localhost.
  void prepare(quill_fileservice::Options& options) override;

private:
  std::unique_ptr<TestCertificates> madeForTheRun;
  std::unique_ptr<FaultProxy> inFront;
};

// Regular files below a directory, recursively.
std::size_t filesBelow(const std::string& directory);
// The path part of an http(s) URL ("https://host:1/files/a" gives "/files/a").
std::string urlPath(const std::string& url);

}  // namespace quill_test
