#include "detail/Signer.h"

#include <quill_base/TextUtils.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <charconv>
#include <chrono>

namespace quill_fileservice::detail {

namespace {

std::int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool parseInt64(const std::string& text, std::int64_t& value) {
  if (text.empty()) {
    return false;
  }
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

std::string randomSecret() {
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    // No randomness from OpenSSL: two UUIDs carry 244 random bits from the base library.
    return TextUtils::UUID_String() + TextUtils::UUID_String();
  }
  return std::string(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

}  // namespace

Signer::Signer(std::string secret, int lifetimeSeconds)
    : secret(secret.empty() ? randomSecret() : std::move(secret)),
      lifetimeSeconds(lifetimeSeconds) {}

std::string Signer::hmacHex(const std::string& secret, const std::string& message) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
           reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest,
           &length) == nullptr) {
    return {};
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0x0f]);
  }
  return hex;
}

std::int64_t Signer::expiryFromNow() const {
  return unixNow() + lifetimeSeconds;
}

Signer::ObjectGrant Signer::grantObject(const std::string& key) const {
  ObjectGrant grant;
  grant.expires = expiryFromNow();
  grant.signature = hmacHex(secret, key + "\n" + std::to_string(grant.expires));
  return grant;
}

Signer::Verdict Signer::check(const std::string& message, const std::string& expires,
                              const std::string& signature) const {
  std::int64_t expiry = 0;
  if (!parseInt64(expires, expiry)) {
    return Verdict::BadSignature;
  }
  const std::string expected = hmacHex(secret, message);
  if (expected.empty() || signature.size() != expected.size() ||
      CRYPTO_memcmp(signature.data(), expected.data(), expected.size()) != 0) {
    return Verdict::BadSignature;
  }
  return unixNow() > expiry ? Verdict::Expired : Verdict::Valid;
}

Signer::Verdict Signer::checkObject(const std::string& key, const std::string& expires,
                                    const std::string& signature) const {
  return check(key + "\n" + expires, expires, signature);
}

std::string Signer::videoToken(const std::string& id) const {
  const std::string expires = std::to_string(expiryFromNow());
  return id + "." + expires + "." + hmacHex(secret, "vod\n" + id + "\n" + expires);
}

Signer::Verdict Signer::checkVideoToken(const std::string& token, std::string& id) const {
  const auto second = token.rfind('.');
  if (second == std::string::npos || second == 0) {
    return Verdict::BadSignature;
  }
  const auto first = token.rfind('.', second - 1);
  if (first == std::string::npos || first == 0) {
    return Verdict::BadSignature;
  }
  const std::string tokenId = token.substr(0, first);
  const std::string expires = token.substr(first + 1, second - first - 1);
  const Verdict verdict =
      check("vod\n" + tokenId + "\n" + expires, expires, token.substr(second + 1));
  if (verdict == Verdict::Valid) {
    id = tokenId;
  }
  return verdict;
}

}  // namespace quill_fileservice::detail
