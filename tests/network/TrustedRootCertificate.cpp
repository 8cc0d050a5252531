#include "TrustedRootCertificate.h"

#if defined(_WIN32)
#include "TestFiles.h"

#include <windows.h>
// after windows.h, which it needs
#include <wincrypt.h>

#include <vector>

namespace quill_test {

TrustedRootCertificate::TrustedRootCertificate(const std::string& pemFile) {
  const std::string pem = readFile(pemFile);
  DWORD size = 0;
  if (pem.empty() ||
      !CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                            nullptr, &size, nullptr, nullptr)) {
    fail("no PEM certificate in " + pemFile);
    return;
  }
  std::vector<BYTE> der(size);
  if (!CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                            der.data(), &size, nullptr, nullptr)) {
    fail("cannot decode " + pemFile);
    return;
  }
  store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"Root");
  if (store == nullptr) {
    fail("cannot open the local machine's root store");
    return;
  }
  PCCERT_CONTEXT context = nullptr;
  if (!CertAddEncodedCertificateToStore(static_cast<HCERTSTORE>(store), X509_ASN_ENCODING,
                                        der.data(), size, CERT_STORE_ADD_REPLACE_EXISTING,
                                        &context)) {
    fail("cannot add the certificate to the root store");
    return;
  }
  added = context;
  // Wine keeps a system store's changes in memory until they are committed: other handles to the
  // store (libcurl opens its own) would not see the certificate. Windows writes them at once.
  CertControlStore(static_cast<HCERTSTORE>(store), 0, CERT_STORE_CTRL_COMMIT, nullptr);
}

TrustedRootCertificate::~TrustedRootCertificate() {
  if (added != nullptr) {
    // Frees the context too, whether or not the deletion succeeds.
    CertDeleteCertificateFromStore(static_cast<PCCERT_CONTEXT>(added));
    CertControlStore(static_cast<HCERTSTORE>(store), 0, CERT_STORE_CTRL_COMMIT, nullptr);
  }
  if (store != nullptr) {
    CertCloseStore(static_cast<HCERTSTORE>(store), 0);
  }
}

void TrustedRootCertificate::fail(const std::string& what) {
  const DWORD code = GetLastError();
  denied = code == ERROR_ACCESS_DENIED || static_cast<HRESULT>(code) == E_ACCESSDENIED;
  reason = what + " (error " + std::to_string(code) + ")";
}

}  // namespace quill_test
#endif
