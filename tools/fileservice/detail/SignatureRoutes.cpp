// Signature requests: url-encoded form POSTs that grant an upload elsewhere on this service.
// - File signature (uploadBySignature.action, form "appId", "aid", "pin", "clientType", "key"):
//   {"code":1,"desc":"","uploadPath":"<scheme>://<host>/objects/<key>?expires=..&signature=..",
//    "path":"//<host>/objects/<key>"}; refusals {"code":0,"desc":<reason>} (1 is success here).
// - Video signature (getUploadVideoSignature.action, form "appId", "aid", "pin", "clientType",
//   "fileName", "fileSize", "type"): {"uploadUrl":"<scheme>://<host>/vod/upload?token=..",
//   "payUrl":"//<host>/vod/<id>.mp4"}; refusals {"code":1,"desc":<reason>} without uploadUrl.
// "appId", "aid" and "pin" must be present and not empty, as must "key" and "fileName"/"fileSize"
// (a decimal size); "clientType" and "type" are accepted whatever they hold.
#include "detail/Dispatch.h"
#include "detail/Forms.h"
#include "detail/Routes.h"

#include <quill_base/TextUtils.h>

#include <algorithm>
#include <cctype>
#include <map>

namespace quill_fileservice::detail {

namespace {

// Signature forms are a few short fields; anything bigger is not one.
constexpr std::size_t kMaxFormSize = 64 * 1024;

using Form = std::map<std::string, std::string>;

// Reads the url-encoded form; on failure `refused` holds the reply.
bool readForm(const httplib::Request& request, const httplib::ContentReader& reader, Form& form,
              Reply& refused, const Json::Value& refusalCode) {
  std::string body;
  if (!readSmallBody(request, reader, body, kMaxFormSize)) {
    Json::Value json(Json::objectValue);
    json["code"] = refusalCode;
    json["desc"] = "the form is too large or unreadable";
    refused = Reply::json(json, 413);
    refused.closeConnection = true;
    return false;
  }
  form = parseUrlEncoded(body);
  return true;
}

// The first of `names` that is missing or empty in the form; nullptr when all are there.
const char* missingField(const Form& form, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const auto found = form.find(name);
    if (found == form.end() || found->second.empty()) {
      return name;
    }
  }
  return nullptr;
}

Reply refusal(int code, const std::string& description, int status = 200) {
  Json::Value json(Json::objectValue);
  json["code"] = code;
  json["desc"] = description;
  return Reply::json(json, status);
}

bool isDecimal(const std::string& text) {
  return !text.empty() && text.size() <= 19 &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

Reply issueVideoSignature(ServiceContext& context, const httplib::Request& request,
                          const httplib::ContentReader& reader) {
  constexpr int kRefused = 1;
  Form form;
  Reply refused;
  if (!readForm(request, reader, form, refused, kRefused)) {
    return refused;
  }
  if (const char* missing = missingField(form, {"appId", "aid", "pin", "fileName", "fileSize"})) {
    return refusal(kRefused, std::string("missing ") + missing);
  }
  if (!isDecimal(form["fileSize"])) {
    return refusal(kRefused, "fileSize is not a size");
  }
  const std::string id = TextUtils::UUID_String();
  const std::string host = context.hostOf(request);
  Json::Value json(Json::objectValue);
  json["uploadUrl"] = context.scheme() + "://" + host +
                      "/vod/upload?token=" + percentEncode(context.signer.videoToken(id));
  json["payUrl"] = "//" + host + Storage::urlPath(Area::Vod, id + ".mp4");
  return Reply::json(json);
}

}  // namespace

Reply issueObjectSignature(ServiceContext& context, const httplib::Request& request,
                           const httplib::ContentReader& reader) {
  constexpr int kRefused = 0;
  Form form;
  Reply refused;
  if (!readForm(request, reader, form, refused, kRefused)) {
    return refused;
  }
  if (const char* missing = missingField(form, {"appId", "aid", "pin", "key"})) {
    return refusal(kRefused, std::string("missing ") + missing);
  }
  const std::string& key = form["key"];
  if (!isValidKey(key)) {
    return refusal(kRefused, "invalid key", 400);
  }
  const Signer::ObjectGrant grant = context.signer.grantObject(key);
  const std::string host = context.hostOf(request);
  const std::string objectPath = Storage::urlPath(Area::Objects, key);
  Json::Value json(Json::objectValue);
  json["code"] = 1;
  json["desc"] = "";
  json["uploadPath"] = context.scheme() + "://" + host + objectPath +
                       "?expires=" + std::to_string(grant.expires) +
                       "&signature=" + grant.signature;
  json["path"] = "//" + host + objectPath;
  return Reply::json(json);
}

void addSignatureRoutes(httplib::Server& server, ServiceContext& context) {
  server.Post("/file/getUploadVideoSignature.action",
              withFaults(context, BodyRoute([&context](const httplib::Request& request,
                                                       const httplib::ContentReader& reader) {
                           return issueVideoSignature(context, request, reader);
                         })));
}

}  // namespace quill_fileservice::detail
