// Downloads: GET (and HEAD) of every stored path, streamed from disk with Content-Length and byte
// ranges; 404 for nothing stored, 400 for an invalid key. GET /redirect?to=<path>&hops=<n> answers
// 302 to /redirect?to=<path>&hops=<n-1>, and at one hop (or fewer) 302 to <path> itself.
#include "detail/Dispatch.h"
#include "detail/Forms.h"
#include "detail/Routes.h"

#include <charconv>

namespace quill_fileservice::detail {

namespace {

Reply download(ServiceContext& context, const httplib::Request& request) {
  const std::string areaText = request.matches[1];
  const std::string key = request.matches[2];
  const Area area = areaText == "files"     ? Area::Files
                    : areaText == "objects" ? Area::Objects
                                            : Area::Vod;
  if (!isValidKey(key)) {
    return Reply::text(400, "invalid key\n");
  }
  const std::string path = context.storage.existingFile(area, key);
  if (path.empty()) {
    return Reply::text(404, "not found\n");
  }
  return Reply::file(path, contentTypeFor(key));
}

Reply redirect(const httplib::Request& request) {
  const std::string target = request.get_param_value("to");
  if (target.empty()) {
    return Reply::text(400, "missing \"to\"\n");
  }
  const std::string hopsText = request.get_param_value("hops");
  long hops = 1;
  const auto parsed = std::from_chars(hopsText.data(), hopsText.data() + hopsText.size(), hops);
  if (hopsText.empty() || parsed.ec != std::errc()) {
    hops = 1;
  }
  if (hops <= 1) {
    return Reply::redirect(target);
  }
  return Reply::redirect("/redirect?to=" + percentEncode(target) +
                         "&hops=" + std::to_string(hops - 1));
}

}  // namespace

void addDownloadRoutes(httplib::Server& server, ServiceContext& context) {
  server.Get("/(files|objects|vod)/(.*)",
             withFaults(context, PlainRoute([&context](const httplib::Request& request) {
                          return download(context, request);
                        })));
  server.Get("/redirect", withFaults(context, PlainRoute([](const httplib::Request& request) {
                                       return redirect(request);
                                     })));
}

}  // namespace quill_fileservice::detail
