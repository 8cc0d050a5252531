#include "detail/Faults.h"

#include <quill_base/TextUtils.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>

namespace quill_fileservice::detail {

namespace {

template <typename T>
bool parseNumber(const std::string& text, T& value) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool readInt64(const Json::Value& json, const char* name, std::int64_t& value, std::string& error) {
  const Json::Value* member = json.find(name, name + std::char_traits<char>::length(name));
  if (member == nullptr) {
    return true;
  }
  if (!member->isIntegral() || member->isBool()) {
    error = std::string("\"") + name + "\" must be an integer";
    return false;
  }
  value = member->asInt64();
  return true;
}

bool readInt(const Json::Value& json, const char* name, int& value, std::string& error) {
  std::int64_t wide = value;
  if (!readInt64(json, name, wide, error)) {
    return false;
  }
  if (wide < INT32_MIN || wide > INT32_MAX) {
    error = std::string("\"") + name + "\" is out of range";
    return false;
  }
  value = static_cast<int>(wide);
  return true;
}

bool readBool(const Json::Value& json, const char* name, bool& value, std::string& error) {
  const Json::Value* member = json.find(name, name + std::char_traits<char>::length(name));
  if (member == nullptr) {
    return true;
  }
  if (!member->isBool()) {
    error = std::string("\"") + name + "\" must be true or false";
    return false;
  }
  value = member->asBool();
  return true;
}

bool readString(const Json::Value& json, const char* name, std::string& value, bool& present,
                std::string& error) {
  const Json::Value* member = json.find(name, name + std::char_traits<char>::length(name));
  present = member != nullptr;
  if (member == nullptr) {
    return true;
  }
  if (!member->isString()) {
    error = std::string("\"") + name + "\" must be a string";
    return false;
  }
  value = member->asString();
  return true;
}

}  // namespace

bool replacesReply(const Fault& fault) {
  return fault.status != 0 || fault.hasBody;
}

bool shapesBody(const Fault& fault) {
  return fault.bytesPerSecond > 0 || fault.dropAfterBytes >= 0 || fault.stallAfterBytes >= 0 ||
         fault.cutEveryBytes > 0;
}

std::optional<Fault> faultFromQuery(const std::multimap<std::string, std::string>& params) {
  Fault fault;
  bool any = false;
  const auto value = [&params](const char* name) -> const std::string* {
    const auto found = params.find(name);
    return found == params.end() ? nullptr : &found->second;
  };
  if (const std::string* text = value("quill_status")) {
    any |= parseNumber(*text, fault.status);
  }
  if (const std::string* text = value("quill_body")) {
    fault.hasBody = true;
    fault.body = *text;
    any = true;
  }
  if (const std::string* text = value("quill_delay_ms")) {
    any |= parseNumber(*text, fault.delayMs);
  }
  if (const std::string* text = value("quill_rate")) {
    any |= parseNumber(*text, fault.bytesPerSecond);
  }
  if (const std::string* text = value("quill_drop_after")) {
    any |= parseNumber(*text, fault.dropAfterBytes);
  }
  if (const std::string* text = value("quill_stall_after")) {
    any |= parseNumber(*text, fault.stallAfterBytes);
  }
  if (const std::string* text = value("quill_cut_every")) {
    any |= parseNumber(*text, fault.cutEveryBytes);
  }
  if (const std::string* text = value("quill_ignore_range")) {
    fault.ignoreRange = *text != "0";
    any = true;
  }
  if (const std::string* text = value("quill_change_etag")) {
    fault.changeEtag = *text != "0";
    any = true;
  }
  if (!any) {
    return std::nullopt;
  }
  return fault;
}

bool faultFromJson(const Json::Value& json, Fault& fault, std::string& error) {
  if (!json.isObject()) {
    error = "a fault is a JSON object";
    return false;
  }
  static const char* const kKnown[] = {"pathPrefix",     "host",           "times",
                                       "status",         "body",           "delayMs",
                                       "bytesPerSecond", "dropAfterBytes", "stallAfterBytes",
                                       "cutEveryBytes",  "ignoreRange",    "changeEtag"};
  for (const auto& name : json.getMemberNames()) {
    if (std::none_of(std::begin(kKnown), std::end(kKnown),
                     [&name](const char* known) { return name == known; })) {
      error = "unknown fault member \"" + name + "\"";
      return false;
    }
  }
  Fault parsed;
  bool present = false;
  bool ok = readString(json, "pathPrefix", parsed.pathPrefix, present, error) &&
            readString(json, "host", parsed.host, present, error) &&
            readInt(json, "times", parsed.times, error) &&
            readInt(json, "status", parsed.status, error) &&
            readInt(json, "delayMs", parsed.delayMs, error) &&
            readInt64(json, "bytesPerSecond", parsed.bytesPerSecond, error) &&
            readInt64(json, "dropAfterBytes", parsed.dropAfterBytes, error) &&
            readInt64(json, "stallAfterBytes", parsed.stallAfterBytes, error) &&
            readInt64(json, "cutEveryBytes", parsed.cutEveryBytes, error) &&
            readBool(json, "ignoreRange", parsed.ignoreRange, error) &&
            readBool(json, "changeEtag", parsed.changeEtag, error);
  if (ok) {
    ok = readString(json, "body", parsed.body, present, error);
    parsed.hasBody = present;
  }
  if (ok && parsed.status != 0 && (parsed.status < 100 || parsed.status > 599)) {
    error = "\"status\" must be an HTTP status (100-599)";
    ok = false;
  }
  if (!ok) {
    return false;
  }
  fault = parsed;
  return true;
}

Json::Value faultToJson(const Fault& fault) {
  Json::Value json(Json::objectValue);
  json["pathPrefix"] = fault.pathPrefix;
  json["host"] = fault.host;
  json["times"] = fault.times;
  json["status"] = fault.status;
  if (fault.hasBody) {
    json["body"] = fault.body;
  }
  json["delayMs"] = fault.delayMs;
  json["bytesPerSecond"] = Json::Int64(fault.bytesPerSecond);
  json["dropAfterBytes"] = Json::Int64(fault.dropAfterBytes);
  json["stallAfterBytes"] = Json::Int64(fault.stallAfterBytes);
  json["cutEveryBytes"] = Json::Int64(fault.cutEveryBytes);
  json["ignoreRange"] = fault.ignoreRange;
  json["changeEtag"] = fault.changeEtag;
  return json;
}

void FaultRules::add(const Fault& fault) {
  if (fault.times == 0) {
    return;
  }
  std::lock_guard<std::mutex> lock(mutex);
  rules.push_back(fault);
}

void FaultRules::clear() {
  std::lock_guard<std::mutex> lock(mutex);
  rules.clear();
}

std::vector<Fault> FaultRules::list() const {
  std::lock_guard<std::mutex> lock(mutex);
  return rules;
}

std::optional<Fault> FaultRules::take(const std::string& path, const std::string& host) {
  std::lock_guard<std::mutex> lock(mutex);
  for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
    if (!TextUtils::hasPrefix(path, rule->pathPrefix)) {
      continue;
    }
    if (!rule->host.empty() && !equalsIgnoringCase(rule->host, host)) {
      continue;
    }
    Fault matched = *rule;
    if (rule->times > 0 && --rule->times == 0) {
      rules.erase(rule);
    }
    return matched;
  }
  return std::nullopt;
}

}  // namespace quill_fileservice::detail
