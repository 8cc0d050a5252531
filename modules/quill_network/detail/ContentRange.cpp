#include <quill_network/detail/HttpTransport.h>

#include <cctype>
#include <cstddef>
#include <limits>

namespace quill_network_detail {
namespace {

// Reads a run of decimal digits at `at` into `value`; false when there is none or it overflows.
bool readNumber(const std::string& text, std::size_t& at, std::int64_t& value) {
  const std::size_t start = at;
  std::int64_t number = 0;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
    const int digit = text[at] - '0';
    if (number > (std::numeric_limits<std::int64_t>::max() - digit) / 10) {
      return false;
    }
    number = number * 10 + digit;
    ++at;
  }
  value = number;
  return at > start;
}

bool take(const std::string& text, std::size_t& at, char expected) {
  if (at < text.size() && text[at] == expected) {
    ++at;
    return true;
  }
  return false;
}

}  // namespace

bool parseContentRange(const std::string& value, ContentRange& range) {
  std::size_t at = 0;
  while (at < value.size() && (value[at] == ' ' || value[at] == '\t')) {
    ++at;
  }
  static const char kUnit[] = "bytes";
  for (const char* c = kUnit; *c != '\0'; ++c, ++at) {
    if (at >= value.size() ||
        std::tolower(static_cast<unsigned char>(value[at])) != static_cast<unsigned char>(*c)) {
      return false;
    }
  }
  if (!take(value, at, ' ')) {
    return false;
  }
  ContentRange parsed;
  if (take(value, at, '*')) {
    // "bytes */<complete>": the answer to a range that cannot be satisfied.
    if (!take(value, at, '/') || !readNumber(value, at, parsed.complete)) {
      return false;
    }
  } else {
    if (!readNumber(value, at, parsed.first) || !take(value, at, '-') ||
        !readNumber(value, at, parsed.last) || parsed.last < parsed.first ||
        !take(value, at, '/')) {
      return false;
    }
    if (!take(value, at, '*') &&
        (!readNumber(value, at, parsed.complete) || parsed.last >= parsed.complete)) {
      return false;
    }
  }
  while (at < value.size() && (value[at] == ' ' || value[at] == '\t')) {
    ++at;
  }
  if (at != value.size()) {
    return false;
  }
  range = parsed;
  return true;
}

}  // namespace quill_network_detail
