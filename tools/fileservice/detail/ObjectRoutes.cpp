// Uploads that a signature request granted:
// - PUT /objects/<key>?expires=..&signature=..: the raw body is the object (a multipart body: its
//   first part). 403 for a bad or expired signature, 400 for an invalid key; 200 {"code":0}.
// - POST /vod/upload?token=..: a multipart body whose single part is the video, stored as
//   /vod/<id>.mp4 for the id the token was issued for. 403 for a bad or expired token.
// Refused bodies are read and thrown away, so that the client sees the refusal.
#include "detail/Dispatch.h"
#include "detail/Forms.h"
#include "detail/MultipartUpload.h"
#include "detail/Routes.h"

#include <quill_base/Logger.h>

namespace quill_fileservice::detail {

namespace {

Reply refuse(const httplib::Request& request, const httplib::ContentReader& reader, int status,
             std::string text) {
  Reply reply = Reply::text(status, std::move(text));
  reply.closeConnection = !discardBody(request, reader);
  return reply;
}

Reply refuseVerdict(const httplib::Request& request, const httplib::ContentReader& reader,
                    Signer::Verdict verdict, const char* what) {
  return refuse(
      request, reader, 403,
      std::string(verdict == Signer::Verdict::Expired ? "expired " : "bad ") + what + "\n");
}

Reply storedReply() {
  Json::Value json(Json::objectValue);
  json["code"] = 0;
  return Reply::json(json);
}

Reply storeFailure(MultipartUpload::Outcome outcome) {
  Reply reply = outcome == MultipartUpload::Outcome::StoreFailed
                    ? Reply::text(500, "cannot store the file\n")
                    : Reply::text(400, "malformed multipart body\n");
  reply.closeConnection = true;
  return reply;
}

Reply putObject(ServiceContext& context, const httplib::Request& request,
                const httplib::ContentReader& reader) {
  const std::string key = request.matches[1];
  if (!isValidKey(key)) {
    return refuse(request, reader, 400, "invalid key\n");
  }
  const Signer::Verdict verdict = context.signer.checkObject(
      key, request.get_param_value("expires"), request.get_param_value("signature"));
  if (verdict != Signer::Verdict::Valid) {
    return refuseVerdict(request, reader, verdict, "signature");
  }
  if (request.is_multipart_form_data()) {
    MultipartUpload upload(context.storage, Area::Objects, "");
    const MultipartUpload::Outcome outcome = upload.read(reader);
    if (outcome != MultipartUpload::Outcome::Read) {
      return storeFailure(outcome);
    }
    if (!upload.hasFile() || !upload.file().commit(key)) {
      return Reply::text(upload.hasFile() ? 500 : 400, "nothing stored\n");
    }
    return storedReply();
  }
  StagedFile staged(context.storage, Area::Objects);
  if (!staged.open()) {
    return refuse(request, reader, 500, "cannot store the file\n");
  }
  bool stored = true;
  const bool read = reader([&staged, &stored](const char* data, std::size_t size) {
    stored = staged.write(data, size);
    return stored;
  });
  if (!read) {
    Reply reply = stored ? Reply::text(400, "incomplete body\n")
                         : Reply::text(500, "cannot store the file\n");
    reply.closeConnection = true;
    return reply;
  }
  const std::uint64_t size = staged.size();
  if (!staged.commit(key)) {
    return Reply::text(500, "cannot store the file\n");
  }
  QLOG_DEBUG("stored object " << key << " (" << size << " bytes)");
  return storedReply();
}

Reply uploadVideo(ServiceContext& context, const httplib::Request& request,
                  const httplib::ContentReader& reader) {
  std::string id;
  const Signer::Verdict verdict =
      context.signer.checkVideoToken(request.get_param_value("token"), id);
  if (verdict != Signer::Verdict::Valid) {
    return refuseVerdict(request, reader, verdict, "token");
  }
  if (!request.is_multipart_form_data()) {
    return refuse(request, reader, 400, "expected a multipart/form-data body\n");
  }
  MultipartUpload upload(context.storage, Area::Vod, "");
  const MultipartUpload::Outcome outcome = upload.read(reader);
  if (outcome != MultipartUpload::Outcome::Read) {
    return storeFailure(outcome);
  }
  if (!upload.hasFile()) {
    return Reply::text(400, "no part in the body\n");
  }
  if (!upload.file().commit(id + ".mp4")) {
    return Reply::text(500, "cannot store the file\n");
  }
  return storedReply();
}

}  // namespace

void addObjectRoutes(httplib::Server& server, ServiceContext& context) {
  server.Put("/objects/(.*)",
             withFaults(context, BodyRoute([&context](const httplib::Request& request,
                                                      const httplib::ContentReader& reader) {
                          return putObject(context, request, reader);
                        })));
  server.Post("/vod/upload",
              withFaults(context, BodyRoute([&context](const httplib::Request& request,
                                                       const httplib::ContentReader& reader) {
                           return uploadVideo(context, request, reader);
                         })));
}

}  // namespace quill_fileservice::detail
