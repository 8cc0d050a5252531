#pragma once

#include "detail/HttpLib.h"
#include "detail/Reply.h"
#include "detail/ServiceContext.h"

// The service's routes, one group per file. Each group registers its routes on the server; the
// routes keep a reference to the context, which outlives the server.
namespace quill_fileservice::detail {

// POST /file/uploadImg.action and POST /file/uploadBySignature.action (direct multipart uploads,
// and the latter's url-encoded signature requests).
void addUploadRoutes(httplib::Server& server, ServiceContext& context);

// POST /file/getUploadVideoSignature.action.
void addSignatureRoutes(httplib::Server& server, ServiceContext& context);
// The url-encoded form of POST /file/uploadBySignature.action: issues an object-storage upload.
Reply issueObjectSignature(ServiceContext& context, const httplib::Request& request,
                           const httplib::ContentReader& reader);

// PUT /objects/<key> (signed) and POST /vod/upload (token).
void addObjectRoutes(httplib::Server& server, ServiceContext& context);

// GET /files/<key>, /objects/<key>, /vod/<id>.mp4 and /redirect.
void addDownloadRoutes(httplib::Server& server, ServiceContext& context);

// /_control/faults (POST adds, DELETE clears, GET lists) and GET /_control/stats; never faulted.
void addControlRoutes(httplib::Server& server, ServiceContext& context);

}  // namespace quill_fileservice::detail
