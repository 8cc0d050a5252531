#pragma once

#include <cstdint>
#include <string>

namespace quill_fileservice::detail {

// Issues and checks the two kinds of upload permission, both HMAC-SHA256 with the service's secret:
// - object-storage signatures over "<key>\n<expires>" (the same for any method), carried as the
//   query parameters expires=<unix time>&signature=<hex>;
// - video tokens "<id>.<expires>.<hex>", the HMAC taken over "vod\n<id>\n<expires>".
// A permission is good until its expiry time (inclusive); the lifetime may be zero or negative,
// which issues permissions that are already stale.
class Signer {
public:
  enum class Verdict { Valid, BadSignature, Expired };

  struct ObjectGrant {
    std::int64_t expires = 0;
    std::string signature;
  };

  // An empty secret picks a random one.
  Signer(std::string secret, int lifetimeSeconds);

  ObjectGrant grantObject(const std::string& key) const;
  Verdict checkObject(const std::string& key, const std::string& expires,
                      const std::string& signature) const;

  std::string videoToken(const std::string& id) const;
  // On success `id` is the video id the token was issued for.
  Verdict checkVideoToken(const std::string& token, std::string& id) const;

  // Lowercase hex of HMAC-SHA256(secret, message).
  static std::string hmacHex(const std::string& secret, const std::string& message);

private:
  std::int64_t expiryFromNow() const;
  Verdict check(const std::string& message, const std::string& expires,
                const std::string& signature) const;

  std::string secret;
  int lifetimeSeconds;
};

}  // namespace quill_fileservice::detail
