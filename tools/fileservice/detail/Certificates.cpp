#include "detail/Certificates.h"

#include <quill_base/TextUtils.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <system_error>
#include <utility>

namespace quill_fileservice::detail {

namespace {

constexpr long kValidBeforeNow = 60L * 60;
constexpr long kValidAfterNow = 30L * 24 * 60 * 60;

std::string openSslError(const std::string& what) {
  const unsigned long code = ERR_get_error();
  if (code == 0) {
    return what;
  }
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return what + ": " + text;
}

PkeyPtr makeKey() {
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
  EVP_PKEY* key = nullptr;
  if (context == nullptr || EVP_PKEY_keygen_init(context) != 1 ||
      EVP_PKEY_CTX_set_group_name(context, "P-256") != 1 || EVP_PKEY_keygen(context, &key) != 1) {
    key = nullptr;
  }
  EVP_PKEY_CTX_free(context);
  return PkeyPtr(key);
}

bool addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) {
    return false;
  }
  const bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

bool addName(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                    0) == 1;
}

bool randomSerial(X509* certificate) {
  BIGNUM* serial = BN_new();
  const bool ok = serial != nullptr &&
                  BN_rand(serial, 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
                  BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(certificate)) != nullptr;
  BN_free(serial);
  return ok;
}

// A certificate for `key`, named `commonName`, signed by the issuer (itself when issuer is null).
X509Ptr makeCertificate(EVP_PKEY* key, const std::string& commonName, X509* issuer,
                        EVP_PKEY* issuerKey,
                        std::initializer_list<std::pair<int, const char*>> extensions) {
  X509Ptr certificate(X509_new());
  if (!certificate || X509_set_version(certificate.get(), 2) != 1 ||
      !randomSerial(certificate.get()) ||
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kValidBeforeNow) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidAfterNow) == nullptr ||
      X509_set_pubkey(certificate.get(), key) != 1) {
    return nullptr;
  }
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  if (!addName(subject, "O", "quill_cloud test") || !addName(subject, "CN", commonName)) {
    return nullptr;
  }
  X509* signer = issuer != nullptr ? issuer : certificate.get();
  if (X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)) != 1) {
    return nullptr;
  }
  for (const auto& [nid, value] : extensions) {
    if (!addExtension(certificate.get(), signer, nid, value)) {
      return nullptr;
    }
  }
  if (X509_sign(certificate.get(), issuerKey != nullptr ? issuerKey : key, EVP_sha256()) <= 0) {
    return nullptr;
  }
  return certificate;
}

std::string toPem(X509* certificate) {
  BIO* bio = BIO_new(BIO_s_mem());
  std::string pem;
  if (bio != nullptr && PEM_write_bio_X509(bio, certificate) == 1) {
    BUF_MEM* memory = nullptr;
    BIO_get_mem_ptr(bio, &memory);
    if (memory != nullptr) {
      pem.assign(memory->data, memory->length);
    }
  }
  BIO_free(bio);
  return pem;
}

}  // namespace

bool makeTlsIdentity(TlsIdentity& identity, std::string& error) {
  PkeyPtr caKey = makeKey();
  PkeyPtr serverKey = makeKey();
  if (!caKey || !serverKey) {
    error = openSslError("cannot generate EC keys");
    return false;
  }
  X509Ptr ca = makeCertificate(caKey.get(), "quill-fileservice test CA", nullptr, nullptr,
                               {{NID_basic_constraints, "critical,CA:TRUE"},
                                {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                {NID_subject_key_identifier, "hash"}});
  if (!ca) {
    error = openSslError("cannot make the CA certificate");
    return false;
  }
  X509Ptr server = makeCertificate(serverKey.get(), "127.0.0.1", ca.get(), caKey.get(),
                                   {{NID_basic_constraints, "critical,CA:FALSE"},
                                    {NID_key_usage, "critical,digitalSignature"},
                                    {NID_ext_key_usage, "serverAuth"},
                                    {NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost"},
                                    {NID_subject_key_identifier, "hash"},
                                    {NID_authority_key_identifier, "keyid:always"}});
  if (!server) {
    error = openSslError("cannot make the server certificate");
    return false;
  }
  std::string pem = toPem(ca.get());
  if (pem.empty()) {
    error = openSslError("cannot write the CA certificate as PEM");
    return false;
  }
  identity.certificate = std::move(server);
  identity.key = std::move(serverKey);
  identity.caPem = std::move(pem);
  return true;
}

bool writeFileAtomically(const std::string& path, const std::string& text, std::string& error) {
  const std::filesystem::path target = std::filesystem::u8path(path);
  std::error_code ec;
  if (target.has_parent_path()) {
    std::filesystem::create_directories(target.parent_path(), ec);
  }
  const std::filesystem::path staging =
      target.parent_path() / ("." + target.filename().string() + "." + TextUtils::UUID_String());
  {
    std::ofstream out(staging, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
      std::filesystem::remove(staging, ec);
      error = "cannot write " + path;
      return false;
    }
  }
  std::filesystem::rename(staging, target, ec);
  if (ec) {
    std::filesystem::remove(staging, ec);
    error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace quill_fileservice::detail
