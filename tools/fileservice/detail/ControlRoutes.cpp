// The control endpoint, for tests that run the service as a separate process:
// - POST /_control/faults with a JSON fault object, or an array of them, adds fault rules (member
//   names as in Fault: "pathPrefix", "host", "times", "status", "body", "delayMs",
//   "bytesPerSecond", "dropAfterBytes", "stallAfterBytes"); {"code":0,"added":<n>}, or 400
//   {"code":400,"msg":<reason>} and nothing added.
// - DELETE /_control/faults removes every rule; {"code":0}.
// - GET /_control/faults lists the rules: {"faults":[...]}.
// - GET /_control/stats: {"requests":<requests received so far>}.
#include "detail/Forms.h"
#include "detail/Routes.h"

#include <quill_base/JSONUtils.h>

#include <vector>

namespace quill_fileservice::detail {

namespace {

constexpr std::size_t kMaxControlBody = 1024 * 1024;

Reply badRequest(const std::string& message) {
  Json::Value json(Json::objectValue);
  json["code"] = 400;
  json["msg"] = message;
  return Reply::json(json, 400);
}

Reply addFaults(ServiceContext& context, const httplib::Request& request,
                const httplib::ContentReader& reader) {
  std::string body;
  if (!readSmallBody(request, reader, body, kMaxControlBody)) {
    Reply reply = badRequest("expected a JSON body of at most 1 MiB");
    reply.closeConnection = true;
    return reply;
  }
  Json::Value json;
  if (!JSONUtils::parseJSON(body, json)) {
    return badRequest("the body is not JSON");
  }
  std::vector<Fault> faults;
  const auto parseOne = [&faults](const Json::Value& value, std::string& error) {
    Fault fault;
    if (!faultFromJson(value, fault, error)) {
      return false;
    }
    faults.push_back(fault);
    return true;
  };
  std::string error;
  if (json.isArray()) {
    for (const Json::Value& item : json) {
      if (!parseOne(item, error)) {
        return badRequest(error);
      }
    }
  } else if (!parseOne(json, error)) {
    return badRequest(error);
  }
  for (const Fault& fault : faults) {
    context.faults.add(fault);
  }
  Json::Value reply(Json::objectValue);
  reply["code"] = 0;
  reply["added"] = static_cast<Json::UInt64>(faults.size());
  return Reply::json(reply);
}

}  // namespace

void addControlRoutes(httplib::Server& server, ServiceContext& context) {
  const StopSignal& stop = context.stop;
  server.Post("/_control/faults",
              httplib::Server::HandlerWithContentReader(
                  [&context, &stop](const httplib::Request& request, httplib::Response& response,
                                    const httplib::ContentReader& reader) {
                    render(addFaults(context, request, reader), nullptr, stop, request, response);
                  }));
  server.Delete("/_control/faults",
                [&context](const httplib::Request& request, httplib::Response& response) {
                  context.faults.clear();
                  Json::Value json(Json::objectValue);
                  json["code"] = 0;
                  render(Reply::json(json), nullptr, context.stop, request, response);
                });
  server.Get("/_control/faults",
             [&context](const httplib::Request& request, httplib::Response& response) {
               Json::Value json(Json::objectValue);
               json["faults"] = Json::Value(Json::arrayValue);
               for (const Fault& fault : context.faults.list()) {
                 json["faults"].append(faultToJson(fault));
               }
               render(Reply::json(json), nullptr, context.stop, request, response);
             });
  server.Get("/_control/stats",
             [&context](const httplib::Request& request, httplib::Response& response) {
               Json::Value json(Json::objectValue);
               json["requests"] = static_cast<Json::UInt64>(context.requests.load());
               render(Reply::json(json), nullptr, context.stop, request, response);
             });
}

}  // namespace quill_fileservice::detail
