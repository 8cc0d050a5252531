#include "task/ResumeRecord.h"

#include <quill_base/FileUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_base/TextUtils.h>

#include <json/json.h>

namespace cloud {
namespace {

constexpr char kRecordEnding[] = ".resume";
constexpr char kPartialEnding[] = ".part";

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace

std::string ResumeRecord::toJson() const {
  Json::Value value(Json::objectValue);
  value["url"] = url;
  value["finalPath"] = finalPath;
  value["partial"] = partialName;
  value["validator"] = validator;
  value["bytes"] = static_cast<Json::Int64>(bytes);
  value["time"] = static_cast<Json::Int64>(time);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::optional<ResumeRecord> ResumeRecord::parse(const std::string& text) {
  Json::Value value;
  if (!JSONUtils::parseJSON(text, value) || !value.isObject()) {
    return std::nullopt;
  }
  const auto isText = [&](const char* name) {
    return value.isMember(name) && value[name].isString();
  };
  const auto isCount = [&](const char* name) {
    return value.isMember(name) && value[name].isIntegral() && !value[name].isBool() &&
           value[name].asInt64() >= 0;
  };
  if (!isText("url") || !isText("finalPath") || !isText("partial") || !isText("validator") ||
      !isCount("bytes") || !isCount("time")) {
    return std::nullopt;
  }
  ResumeRecord record;
  record.url = value["url"].asString();
  record.finalPath = value["finalPath"].asString();
  record.partialName = value["partial"].asString();
  record.validator = value["validator"].asString();
  record.bytes = value["bytes"].asInt64();
  record.time = value["time"].asInt64();
  if (record.url.empty() || record.finalPath.empty() ||
      !FileUtils::isPlainFileName(record.partialName) || !isPartialName(record.partialName)) {
    return std::nullopt;
  }
  return record;
}

bool ResumeRecord::isRecordName(const std::string& name) {
  return endsWith(name, kRecordEnding);
}

bool ResumeRecord::isPartialName(const std::string& name) {
  return endsWith(name, kPartialEnding);
}

std::string ResumeRecord::pathFor(const std::string& cacheDirectory, const std::string& url,
                                  const std::string& finalPath) {
  // The two joined by a character neither can hold, so that no other pair gives the same text.
  const std::string key = TextUtils::hashString(url + '\0' + finalPath).substr(0, 32);
  return FileUtils::appendComponent(cacheDirectory, "." + key + kRecordEnding);
}

}  // namespace cloud
