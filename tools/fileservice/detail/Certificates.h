#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace quill_fileservice::detail {

struct X509Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

// A server certificate for 127.0.0.1, ::1 and localhost, with the CA that signed it. Both are
// made fresh (EC P-256 keys, valid from an hour ago for 30 days): the CA with basicConstraints
// CA:TRUE, the server certificate with the subjectAltName entries and serverAuth.
struct TlsIdentity {
  X509Ptr certificate;
  PkeyPtr key;
  // The CA's certificate as PEM, for clients to trust.
  std::string caPem;
};

// False, with the reason, when OpenSSL fails.
bool makeTlsIdentity(TlsIdentity& identity, std::string& error);

// Writes the text to a temporary file beside `path` and renames it into place (parent directories
// are created).
bool writeFileAtomically(const std::string& path, const std::string& text, std::string& error);

}  // namespace quill_fileservice::detail
