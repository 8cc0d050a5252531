#pragma once

#if defined(_WIN32)
#include <string>

namespace quill_test {

// Adds a PEM certificate to the local machine's trusted root store (where an administrator
// deploys a company's own CA) for as long as the object lives, and removes it again. Adding needs
// administrator rights, which Wine gives; on Windows without them accessDenied() says so.
class TrustedRootCertificate {
public:
  explicit TrustedRootCertificate(const std::string& pemFile);
  ~TrustedRootCertificate();
  TrustedRootCertificate(const TrustedRootCertificate&) = delete;
  TrustedRootCertificate& operator=(const TrustedRootCertificate&) = delete;

  bool installed() const { return added != nullptr; }
  bool accessDenied() const { return denied; }
  // Why it was not installed.
  const std::string& error() const { return reason; }

private:
  void fail(const std::string& what);

  void* store = nullptr;        // HCERTSTORE
  const void* added = nullptr;  // PCCERT_CONTEXT of the copy in the store
  bool denied = false;
  std::string reason;
};

}  // namespace quill_test
#endif
