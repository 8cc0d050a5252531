#pragma once

// Helpers of the file service's tests: a running service per test (over HTTP or HTTPS), httplib
// clients that trust its CA, and small file and JSON utilities.
#include "TestSupport.h"

#include <quill_base/JSONUtils.h>
#include <quill_fileservice/FileService.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "detail/HttpLib.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#if defined(_WIN32)
#include <regex>
#endif
#include <sstream>
#include <string>

namespace fileservice_test {

// A version 4 UUID, as a regular expression for MatchesPattern.
inline const char* const kUuidPattern =
    "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";

// The whole string matches the regular expression. GoogleTest's own MatchesRegex takes POSIX
// expressions on Linux but only a small subset of them on Windows, where std::regex does instead.
// Not std::regex on Linux: its template code in this program would take the place of the copy
// inside cpp-httplib's shared library, whose static regexes ThreadSanitizer then sees used by
// instrumented code without having seen them made, and reports as races.
#if defined(_WIN32)
MATCHER_P(MatchesPattern, pattern,
          std::string(negation ? "does not match " : "matches ") + std::string(pattern)) {
  return std::regex_match(std::string(arg), std::regex(std::string(pattern)));
}
#else
inline auto MatchesPattern(const std::string& pattern) {
  return ::testing::MatchesRegex(pattern);
}
#endif

// Random bytes, different for each seed.
inline std::string randomBytes(std::size_t size, unsigned seed = 1) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) {
    byte = static_cast<char>(generator() & 0xff);
  }
  return bytes;
}

// Compares bodies without printing them: a failure tells the sizes and the first differing byte.
inline ::testing::AssertionResult sameBytes(const std::string& actual,
                                            const std::string& expected) {
  if (actual == expected) {
    return ::testing::AssertionSuccess();
  }
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) {
    ++at;
  }
  return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                       << " were expected; they differ from byte " << at;
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  // Paths are UTF-8: u8path keeps them so on Windows.
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline Json::Value parseJson(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(JSONUtils::parseJSON(text, json)) << "not JSON: " << text;
  return json;
}

// "/files/x?y" from "//host/files/x?y" or "scheme://host/files/x?y".
inline std::string pathOf(const std::string& url) {
  std::string::size_type start = 0;
  if (url.rfind("//", 0) == 0) {
    start = 2;
  } else if (const auto scheme = url.find("://"); scheme != std::string::npos) {
    start = scheme + 3;
  } else {
    return url;
  }
  const auto slash = url.find('/', start);
  return slash == std::string::npos ? "/" : url.substr(slash);
}

// A client of the service. `host` names the server in the URL and so in the Host header (and, over
// TLS, in the certificate check); it always connects to 127.0.0.1.
inline std::unique_ptr<httplib::Client> clientFor(const quill_fileservice::FileService& service,
                                                  const std::string& host = "127.0.0.1") {
  auto client =
      std::make_unique<httplib::Client>(std::string(service.tls() ? "https" : "http") + "://" +
                                        host + ":" + std::to_string(service.port()));
  client->set_hostname_addr_map({{"localhost", "127.0.0.1"}});
  client->set_connection_timeout(std::chrono::seconds(5));
  client->set_read_timeout(std::chrono::seconds(30));
  client->set_write_timeout(std::chrono::seconds(30));
  client->set_keep_alive(true);
  // Paths go out exactly as the tests write them.
  client->set_url_encode(false);
  if (service.tls()) {
    client->set_ca_cert_path(service.caCertificatePath());
    client->enable_server_certificate_verification(true);
  }
  return client;
}

inline httplib::MultipartFormDataItems identityForm() {
  return {{"appId", "app-1", "", ""},
          {"pin", "pin-1", "", ""},
          {"aid", "aid-1", "", ""},
          {"clientType", "pc", "", ""}};
}

// A service on 127.0.0.1 and a free port, over HTTPS when the test parameter says so, with its
// data in a temporary directory.
class ServiceTest : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    quill_fileservice::Options options;
    options.dataDirectory = data.file("store");
    options.tls = GetParam();
    options.caOut = data.file("ca/ca.pem");
    configure(options);
    service = std::make_unique<quill_fileservice::FileService>(options);
    ASSERT_TRUE(service->start()) << service->lastError();
  }
  void TearDown() override { service.reset(); }

  // Lets a test suite change the options before the service starts.
  virtual void configure(quill_fileservice::Options&) {}

  std::string host() const { return "127.0.0.1:" + std::to_string(service->port()); }
  // host() with its dots escaped, for regular expressions.
  std::string hostPattern() const { return "127\\.0\\.0\\.1:" + std::to_string(service->port()); }
  std::string scheme() const { return GetParam() ? "https" : "http"; }

  quill_test::TempDir data;
  std::unique_ptr<quill_fileservice::FileService> service;
};

inline std::string transportName(const ::testing::TestParamInfo<bool>& info) {
  return info.param ? "Https" : "Http";
}

}  // namespace fileservice_test
