#pragma once

// Certificates made for a test run with OpenSSL: a CA the client is told to trust, a second CA it
// is not, and server certificates signed by either, for any names and validity period. The
// reference file service makes only its own identity (a fresh CA and one certificate for loopback,
// valid now) and never hands out its CA's key: certificates of one CA that must be refused for
// their names or dates are made here.

#include <memory>
#include <string>
#include <vector>

namespace quill_test {

class TestCertificates {
public:
  struct ServerFiles {
    std::string certificate;  // PEM
    std::string key;          // PEM, unencrypted
  };
  struct ServerSpec {
    std::vector<std::string> dnsNames;
    std::vector<std::string> ipAddresses;
    bool signedByTrustedCa = true;
    // Validity relative to now, in seconds (negative: in the past).
    long notBeforeSeconds = -3600;
    long notAfterSeconds = 30L * 24 * 3600;
  };

  // Makes both CAs and writes the trusted one's PEM into `directory`.
  explicit TestCertificates(std::string directory);
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  // Empty when everything so far worked; else what OpenSSL refused.
  const std::string& error() const { return failure; }
  // The PEM of the trusted CA, for QUILL_CA_BUNDLE.
  const std::string& trustedCaFile() const { return trustedCaPath; }

  // Writes <name>.crt and <name>.key into the directory; empty paths (and error()) on failure.
  ServerFiles makeServer(const std::string& name, const ServerSpec& spec);

private:
  struct Authority;
  std::string directory;
  std::string failure;
  std::string trustedCaPath;
  std::unique_ptr<Authority> trusted;
  std::unique_ptr<Authority> untrusted;
  long serial = 1;
};

}  // namespace quill_test
