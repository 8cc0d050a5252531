#pragma once

#include <quill_base/quill_base_export.h>

#include <array>
#include <charconv>
#include <string>
#include <type_traits>

// Byte-string helpers. Strings are UTF-8; comparisons are byte for byte.
class QUILL_BASE_EXPORT TextUtils {
public:
  static bool isEquals(const std::string& a, const std::string& b);
  static bool hasPrefix(const std::string& text, const std::string& prefix);

  // Replaces every occurrence of `from` in `text`, left to right, without rescanning what was
  // inserted. An empty `from` changes nothing.
  static void replaceAll(std::string& text, const std::string& from, const std::string& to);

  // SHA-256 of the bytes as 64 lowercase hex digits: stable across runs and platforms and usable as
  // a file name. Empty only for empty input.
  static std::string hashString(const std::string& text);

  // A random (version 4) UUID from a cryptographically secure source, 36 lowercase characters.
  static std::string UUID_String();

  // The text with its control characters (NUL, line breaks, escapes...) written as \xNN, for
  // showing a name that came from outside in a log line or a message.
  static std::string printable(const std::string& text);

  // Decimal text of a number in the "C" locale: integers exactly, floating point in the shortest
  // form that reads back to the same value; bools as "true"/"false".
  template <typename T>
  static std::string toString(T value) {
    static_assert(std::is_arithmetic_v<T>, "toString takes numbers and bools");
    if constexpr (std::is_same_v<T, bool>) {
      return value ? "true" : "false";
    } else {
      std::array<char, 64> buffer{};
      const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
      return std::string(buffer.data(), result.ptr);
    }
  }
};
