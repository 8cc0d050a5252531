#include "TestCertificates.h"

#include "detail/Certificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstring>

namespace quill_test {
namespace {

// The owners of OpenSSL's objects are the reference file service's.
using quill_fileservice::detail::PkeyPtr;
using quill_fileservice::detail::X509Ptr;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

std::string openSslError(const std::string& what) {
  const unsigned long code = ERR_get_error();
  char text[256] = {};
  if (code != 0) {
    ERR_error_string_n(code, text, sizeof text);
  }
  return what + ": " + text;
}

// Adds one X509v3 extension written in the configuration syntax ("critical,CA:TRUE").
bool addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  if (extension == nullptr) {
    return false;
  }
  const bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

bool setSubject(X509* certificate, const std::string& commonName) {
  X509_NAME* name = X509_get_subject_name(certificate);
  return X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>("quill netfaults"), -1,
                                    -1, 0) == 1 &&
         X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                    -1, 0) == 1;
}

bool writePem(const std::string& path, X509* certificate, EVP_PKEY* key) {
  BioPtr file(BIO_new_file(path.c_str(), "w"));
  if (!file) {
    return false;
  }
  if (certificate != nullptr) {
    return PEM_write_bio_X509(file.get(), certificate) == 1;
  }
  return PEM_write_bio_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

}  // namespace

struct TestCertificates::Authority {
  X509Ptr certificate;
  PkeyPtr key;
};

namespace {

// A fresh EC P-256 key.
PkeyPtr newKey() {
  return PkeyPtr(EVP_EC_gen("P-256"));
}

}  // namespace

TestCertificates::TestCertificates(std::string directoryPath)
    : directory(std::move(directoryPath)) {
  const auto makeAuthority = [this](const std::string& name) -> std::unique_ptr<Authority> {
    auto authority = std::make_unique<Authority>();
    authority->key = newKey();
    authority->certificate.reset(X509_new());
    X509* ca = authority->certificate.get();
    if (!authority->key || ca == nullptr || X509_set_version(ca, 2) != 1 ||
        ASN1_INTEGER_set(X509_get_serialNumber(ca), serial++) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(ca), -3600) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(ca), 30L * 24 * 3600) == nullptr ||
        X509_set_pubkey(ca, authority->key.get()) != 1 || !setSubject(ca, name) ||
        X509_set_issuer_name(ca, X509_get_subject_name(ca)) != 1 ||
        !addExtension(ca, ca, NID_basic_constraints, "critical,CA:TRUE") ||
        !addExtension(ca, ca, NID_key_usage, "critical,keyCertSign,cRLSign") ||
        !addExtension(ca, ca, NID_subject_key_identifier, "hash") ||
        X509_sign(ca, authority->key.get(), EVP_sha256()) == 0) {
      failure = openSslError("making the CA " + name);
      return nullptr;
    }
    return authority;
  };
  trusted = makeAuthority("quill netfaults trusted CA");
  untrusted = makeAuthority("quill netfaults unknown CA");
  if (!failure.empty()) {
    return;
  }
  trustedCaPath = directory + "/trusted-ca.pem";
  if (!writePem(trustedCaPath, trusted->certificate.get(), nullptr)) {
    failure = openSslError("writing " + trustedCaPath);
    trustedCaPath.clear();
  }
}

TestCertificates::~TestCertificates() = default;

TestCertificates::ServerFiles TestCertificates::makeServer(const std::string& name,
                                                           const ServerSpec& spec) {
  const Authority* issuer = spec.signedByTrustedCa ? trusted.get() : untrusted.get();
  if (issuer == nullptr) {
    failure = "no CA to sign " + name;
    return {};
  }
  std::string altNames;
  for (const auto& dns : spec.dnsNames) {
    altNames += (altNames.empty() ? "DNS:" : ",DNS:") + dns;
  }
  for (const auto& ip : spec.ipAddresses) {
    altNames += (altNames.empty() ? "IP:" : ",IP:") + ip;
  }
  const std::string commonName = !spec.dnsNames.empty()      ? spec.dnsNames.front()
                                 : !spec.ipAddresses.empty() ? spec.ipAddresses.front()
                                                             : name;
  auto key = newKey();
  X509Ptr certificate(X509_new());
  X509* leaf = certificate.get();
  X509* ca = issuer->certificate.get();
  if (!key || leaf == nullptr || X509_set_version(leaf, 2) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(leaf), serial++) != 1 ||
      X509_gmtime_adj(X509_getm_notBefore(leaf), spec.notBeforeSeconds) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(leaf), spec.notAfterSeconds) == nullptr ||
      X509_set_pubkey(leaf, key.get()) != 1 || !setSubject(leaf, commonName) ||
      X509_set_issuer_name(leaf, X509_get_subject_name(ca)) != 1 ||
      !addExtension(leaf, ca, NID_basic_constraints, "critical,CA:FALSE") ||
      !addExtension(leaf, ca, NID_key_usage, "critical,digitalSignature") ||
      !addExtension(leaf, ca, NID_ext_key_usage, "serverAuth") ||
      !addExtension(leaf, ca, NID_authority_key_identifier, "keyid:always") ||
      (!altNames.empty() && !addExtension(leaf, ca, NID_subject_alt_name, altNames)) ||
      X509_sign(leaf, issuer->key.get(), EVP_sha256()) == 0) {
    failure = openSslError("making the certificate " + name);
    return {};
  }
  ServerFiles files{directory + "/" + name + ".crt", directory + "/" + name + ".key"};
  if (!writePem(files.certificate, leaf, nullptr) || !writePem(files.key, nullptr, key.get())) {
    failure = openSslError("writing the certificate " + name);
    return {};
  }
  return files;
}

}  // namespace quill_test
