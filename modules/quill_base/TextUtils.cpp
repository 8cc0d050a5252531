#include <quill_base/TextUtils.h>

#include <openssl/evp.h>

#include <cerrno>
#include <cstdint>
#include <random>

#if defined(__linux__)
#include <sys/random.h>
#endif

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHex(std::string& out, const unsigned char* bytes, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    out.push_back(kHexDigits[bytes[i] >> 4]);
    out.push_back(kHexDigits[bytes[i] & 0x0f]);
  }
}

// Straight from the operating system, not from OpenSSL's generator: OpenSSL keeps a generator per
// thread, and the serial queue's threads (which name temporary files) may still be ending while
// OpenSSL's exit handler frees that state, which then gets freed twice.
void secureRandomBytes(unsigned char* bytes, std::size_t count) {
#if defined(__linux__)
  std::size_t filled = 0;
  while (filled < count) {
    const ssize_t got = ::getrandom(bytes + filled, count - filled, 0);
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (got < 0 && errno != EINTR) {
      break;
    }
  }
  if (filled == count) {
    return;
  }
#endif
  // std::random_device reads the system's generator too (getrandom, /dev/urandom, or
  // BCryptGenRandom on Windows).
  std::random_device device;
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<unsigned char>(device());
  }
}

}  // namespace

bool TextUtils::isEquals(const std::string& a, const std::string& b) {
  return a == b;
}

bool TextUtils::hasPrefix(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

void TextUtils::replaceAll(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) {
    return;
  }
  std::string::size_type at = 0;
  while ((at = text.find(from, at)) != std::string::npos) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
}

std::string TextUtils::hashString(const std::string& text) {
  if (text.empty()) {
    return {};
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  std::string hex;
  hex.reserve(length * 2);
  appendHex(hex, digest, length);
  return hex;
}

std::string TextUtils::UUID_String() {
  unsigned char bytes[16];
  secureRandomBytes(bytes, sizeof bytes);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  std::string uuid;
  uuid.reserve(36);
  appendHex(uuid, bytes, 4);
  uuid.push_back('-');
  appendHex(uuid, bytes + 4, 2);
  uuid.push_back('-');
  appendHex(uuid, bytes + 6, 2);
  uuid.push_back('-');
  appendHex(uuid, bytes + 8, 2);
  uuid.push_back('-');
  appendHex(uuid, bytes + 10, 6);
  return uuid;
}

std::string TextUtils::printable(const std::string& text) {
  static const char* const kHex = "0123456789abcdef";
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      shown += "\\x";
      shown += kHex[byte >> 4];
      shown += kHex[byte & 0xf];
    } else {
      shown += c;
    }
  }
  return shown;
}
