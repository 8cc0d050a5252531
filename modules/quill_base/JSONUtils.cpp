#include <quill_base/JSONUtils.h>

#include <json/reader.h>

#include <memory>

namespace {

std::unique_ptr<Json::CharReader> makeReader() {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = false;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

const Json::Value* findMember(const std::string& key, const Json::Value& object) {
  if (!object.isObject()) {
    return nullptr;
  }
  return object.find(key.data(), key.data() + key.size());
}

}  // namespace

bool JSONUtils::parseJSON(const std::string& text, Json::Value& out) {
  Json::Value parsed;
  std::string errors;
  const auto reader = makeReader();
  if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
    return false;
  }
  out = std::move(parsed);
  return true;
}

int JSONUtils::optInt(const std::string& key, const Json::Value& object, int defaultValue) {
  const Json::Value* member = findMember(key, object);
  if (member == nullptr || !member->isInt() || member->isBool()) {
    return defaultValue;
  }
  return member->asInt();
}

std::string JSONUtils::optString(const std::string& key, const Json::Value& object,
                                 const std::string& defaultValue) {
  const Json::Value* member = findMember(key, object);
  if (member == nullptr || !member->isString()) {
    return defaultValue;
  }
  return member->asString();
}
