// The url-encoding of signature forms: every form survives a round trip through a decoder written
// here, and the encoded text holds nothing but unreserved characters, escapes, '=' and '&'.

#include <quill_network/detail/HttpTransport.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

bool unreserved(unsigned char c) {
  return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;  // escapes are written in upper case
}

std::string decode(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      check(unreserved(static_cast<unsigned char>(text[i])), "only unreserved characters plain");
      out += text[i];
      continue;
    }
    check(i + 2 < text.size(), "an escape has two digits");
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    check(high >= 0 && low >= 0, "an escape is two upper-case hex digits");
    const auto byte = static_cast<unsigned char>(high * 16 + low);
    check(!unreserved(byte), "unreserved characters are not escaped");
    out += static_cast<char>(byte);
    i += 2;
  }
  return out;
}

}  // namespace

// The input is a list of "name\0value\0" pairs.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::map<std::string, std::string> form;
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t at = 0;
  while (at < input.size()) {
    auto nameEnd = input.find('\0', at);
    if (nameEnd == std::string::npos) {
      nameEnd = input.size();
    }
    auto valueEnd = nameEnd < input.size() ? input.find('\0', nameEnd + 1) : std::string::npos;
    if (valueEnd == std::string::npos) {
      valueEnd = input.size();
    }
    const auto name = input.substr(at, nameEnd - at);
    const auto value =
        nameEnd < input.size() ? input.substr(nameEnd + 1, valueEnd - nameEnd - 1) : std::string();
    form.emplace(name, value);
    at = valueEnd + 1;
  }

  const auto encoded = quill_network_detail::testing::encodeForm(form);
  std::map<std::string, std::string> decoded;
  std::size_t start = 0;
  while (!form.empty() && start <= encoded.size()) {
    auto end = encoded.find('&', start);
    if (end == std::string::npos) {
      end = encoded.size();
    }
    const auto pair = encoded.substr(start, end - start);
    const auto equals = pair.find('=');
    check(equals != std::string::npos, "every field has a '='");
    check(decoded.emplace(decode(pair.substr(0, equals)), decode(pair.substr(equals + 1))).second,
          "no field twice");
    start = end + 1;
  }
  check(decoded == form, "the form survives the round trip");
  return 0;
}
