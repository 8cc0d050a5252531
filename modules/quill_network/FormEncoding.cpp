#include <quill_network/detail/HttpTransport.h>

namespace quill_network_detail {
namespace {

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

void appendEncoded(std::string& out, const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  for (const unsigned char c : text) {
    if (isUnreserved(c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0x0f]);
    }
  }
}

}  // namespace

std::string encodeForm(const std::map<std::string, std::string>& form) {
  std::string body;
  for (const auto& [name, value] : form) {
    if (!body.empty()) {
      body.push_back('&');
    }
    appendEncoded(body, name);
    body.push_back('=');
    appendEncoded(body, value);
  }
  return body;
}

}  // namespace quill_network_detail
