#include "detail/Forms.h"

#include <cctype>

namespace quill_fileservice::detail {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

}  // namespace

std::string percentDecode(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
      i += 2;
    } else if (c == '+' && plusIsSpace) {
      out.push_back(' ');
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string percentEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '-' || c == '.' || c == '_' || c == '~') {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 0x0f]);
    }
  }
  return out;
}

std::map<std::string, std::string> parseUrlEncoded(const std::string& body) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (start <= body.size()) {
    auto end = body.find('&', start);
    if (end == std::string::npos) {
      end = body.size();
    }
    const std::string pair = body.substr(start, end - start);
    if (!pair.empty()) {
      const auto equals = pair.find('=');
      const std::string name = percentDecode(pair.substr(0, equals), true);
      const std::string value = equals == std::string::npos
                                    ? std::string()
                                    : percentDecode(pair.substr(equals + 1), true);
      fields.emplace(name, value);
    }
    start = end + 1;
  }
  return fields;
}

bool readSmallBody(const httplib::Request& request, const httplib::ContentReader& reader,
                   std::string& out, std::size_t limit) {
  if (request.is_multipart_form_data()) {
    return false;
  }
  out.clear();
  return reader([&out, limit](const char* data, std::size_t size) {
    if (out.size() + size > limit) {
      return false;
    }
    out.append(data, size);
    return true;
  });
}

bool discardBody(const httplib::Request& request, const httplib::ContentReader& reader) {
  if (request.is_multipart_form_data()) {
    return reader([](const httplib::MultipartFormData&) { return true; },
                  [](const char*, std::size_t) { return true; });
  }
  return reader([](const char*, std::size_t) { return true; });
}

}  // namespace quill_fileservice::detail
