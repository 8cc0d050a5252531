#pragma once

#include <quill_base/quill_base_export.h>

#include <json/value.h>

#include <string>

// JSON helpers on JsonCpp. Lookups never throw: a missing member, a member of another type or a
// value that is not an object all give the caller's default.
class QUILL_BASE_EXPORT JSONUtils {
public:
  // Parses a complete JSON document (nothing but white space may follow it). False for malformed
  // text, and `out` is left as it was.
  static bool parseJSON(const std::string& text, Json::Value& out);

  // The member's value when it is an integer that fits in an int (a float with an integral value
  // counts); the default otherwise.
  static int optInt(const std::string& key, const Json::Value& object, int defaultValue);

  // The member's value when it is a string; the default otherwise.
  static std::string optString(const std::string& key, const Json::Value& object,
                               const std::string& defaultValue);
};
