// Direct uploads: one multipart POST carrying the account identity ("appId", "pin", "aid",
// "clientType") and the file part "upload". The file is stored under a fresh key and the reply
// names it: {"code":0,"path":"//<host>/files/<key>"}. Refusals are {"code":<non-zero>,"msg":...}.
#include "detail/Dispatch.h"
#include "detail/Forms.h"
#include "detail/MultipartUpload.h"
#include "detail/Routes.h"

#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>

namespace quill_fileservice::detail {

namespace {

// Refusal codes of the direct upload (any non-zero code is a refusal to clients).
constexpr int kMissingIdentity = 1001;
constexpr int kMissingFile = 1002;
constexpr int kStoreFailed = 1003;
constexpr int kMalformed = 1004;

Reply refusal(int code, const std::string& message, int status = 200) {
  Json::Value json(Json::objectValue);
  json["code"] = code;
  json["msg"] = message;
  return Reply::json(json, status);
}

Reply storeDirectUpload(ServiceContext& context, const httplib::Request& request,
                        const httplib::ContentReader& reader) {
  if (!request.is_multipart_form_data()) {
    Reply reply = refusal(kMalformed, "expected a multipart/form-data body", 400);
    reply.closeConnection = !discardBody(request, reader);
    return reply;
  }
  MultipartUpload upload(context.storage, Area::Files, "upload");
  switch (upload.read(reader)) {
    case MultipartUpload::Outcome::Read:
      break;
    case MultipartUpload::Outcome::Malformed: {
      Reply reply = refusal(kMalformed, "malformed multipart body", 400);
      reply.closeConnection = true;
      return reply;
    }
    case MultipartUpload::Outcome::TooLarge: {
      Reply reply = refusal(kMalformed, "form fields too large", 413);
      reply.closeConnection = true;
      return reply;
    }
    case MultipartUpload::Outcome::StoreFailed: {
      Reply reply = refusal(kStoreFailed, "cannot store the file", 500);
      reply.closeConnection = true;
      return reply;
    }
  }
  for (const char* name : {"appId", "pin", "aid"}) {
    if (upload.field(name).empty()) {
      return refusal(kMissingIdentity, std::string("missing ") + name);
    }
  }
  if (!upload.hasFile()) {
    return refusal(kMissingFile, "missing file part \"upload\"");
  }
  const std::string key = TextUtils::UUID_String() + plainExtension(upload.fileName());
  const std::uint64_t size = upload.file().size();
  if (!upload.file().commit(key)) {
    QLOG_WARN("cannot store upload " << key);
    return refusal(kStoreFailed, "cannot store the file", 500);
  }
  QLOG_DEBUG("stored " << key << " (" << size << " bytes)");
  Json::Value json(Json::objectValue);
  json["code"] = 0;
  json["path"] = "//" + context.hostOf(request) + Storage::urlPath(Area::Files, key);
  return Reply::json(json);
}

}  // namespace

void addUploadRoutes(httplib::Server& server, ServiceContext& context) {
  server.Post("/file/uploadImg.action",
              withFaults(context, BodyRoute([&context](const httplib::Request& request,
                                                       const httplib::ContentReader& reader) {
                           return storeDirectUpload(context, request, reader);
                         })));
  // One path, two requests: a multipart body is a direct upload, anything else a signature request.
  server.Post("/file/uploadBySignature.action",
              withFaults(context, BodyRoute([&context](const httplib::Request& request,
                                                       const httplib::ContentReader& reader) {
                           return request.is_multipart_form_data()
                                      ? storeDirectUpload(context, request, reader)
                                      : issueObjectSignature(context, request, reader);
                         })));
}

}  // namespace quill_fileservice::detail
