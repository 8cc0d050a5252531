#pragma once

// The reference file service for the e2e tests: one plain HTTP and one HTTPS instance on loopback,
// started once per test process before any test runs (see FileServiceEnvironment). QUILL_CA_BUNDLE
// names the HTTPS instance's CA, so the engine trusts it exactly as a deployment trusts its
// configured CA.

#include <quill_fileservice/FileService.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace quill_test {

enum class Scheme { Http, Https };

quill_fileservice::FileService& fileService(Scheme scheme);

// "Http" / "Https", for the names of parameterised tests.
std::string schemeName(const ::testing::TestParamInfo<Scheme>& info);

// "/files/key" from "//127.0.0.1:8080/files/key", as the service names stored files in replies.
std::string urlPathOf(const std::string& serviceReference);

// Asks the service, through executePost(), for a signed object upload of `key`; returns the URL to
// PUT the object to ("" with a test failure when the service refused).
std::string signedObjectUrl(quill_fileservice::FileService& service, const std::string& key);

// Runs a test once over HTTP and once over HTTPS.
class OverBothSchemes : public ::testing::TestWithParam<Scheme> {
protected:
  quill_fileservice::FileService& service() const { return fileService(GetParam()); }
  std::string url(const std::string& pathAndQuery) const {
    return service().baseUrl() + pathAndQuery;
  }
  // Places `size` pattern bytes in the service's store under `key`; returns the path to GET.
  std::string storePattern(const std::string& key, std::uint64_t size);

  // The test's own directory.
  TempDir dir;
};

}  // namespace quill_test
