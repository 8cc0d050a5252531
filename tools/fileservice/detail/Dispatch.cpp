#include "detail/Dispatch.h"

#include "detail/Forms.h"

#include <chrono>
#include <optional>

namespace quill_fileservice::detail {

namespace {

std::optional<Fault> faultFor(ServiceContext& context, const httplib::Request& request) {
  if (std::optional<Fault> fault = faultFromQuery(request.params)) {
    return fault;
  }
  return context.faults.take(request.path, context.hostOf(request));
}

void finish(ServiceContext& context, const httplib::Request& request, httplib::Response& response,
            Reply reply, const std::optional<Fault>& fault) {
  if (fault && fault->delayMs > 0) {
    context.stop.waitFor(std::chrono::milliseconds(fault->delayMs));
  }
  render(std::move(reply), fault ? &*fault : nullptr, context.stop, request, response);
}

}  // namespace

Reply faultReply(const Fault& fault) {
  Reply reply = Reply::text(fault.status != 0 ? fault.status : 200,
                            fault.hasBody ? fault.body : std::string("injected fault\n"));
  if (fault.hasBody && !fault.body.empty() && (fault.body[0] == '{' || fault.body[0] == '[')) {
    reply.contentType = "application/json";
  }
  return reply;
}

httplib::Server::HandlerWithContentReader withFaults(ServiceContext& context, BodyRoute route) {
  return [&context, route = std::move(route)](const httplib::Request& request,
                                              httplib::Response& response,
                                              const httplib::ContentReader& reader) {
    const std::optional<Fault> fault = faultFor(context, request);
    Reply reply;
    if (fault && replacesReply(*fault)) {
      const bool drained = discardBody(request, reader);
      reply = faultReply(*fault);
      reply.closeConnection = !drained;
    } else {
      reply = route(request, reader);
    }
    finish(context, request, response, std::move(reply), fault);
  };
}

httplib::Server::Handler withFaults(ServiceContext& context, PlainRoute route) {
  return [&context, route = std::move(route)](const httplib::Request& request,
                                              httplib::Response& response) {
    const std::optional<Fault> fault = faultFor(context, request);
    Reply reply = fault && replacesReply(*fault) ? faultReply(*fault) : route(request);
    finish(context, request, response, std::move(reply), fault);
  };
}

void addFallbackRoutes(httplib::Server& server) {
  const httplib::Server::HandlerWithContentReader unknown =
      [](const httplib::Request& request, httplib::Response& response,
         const httplib::ContentReader& reader) {
        Reply reply = Reply::text(404, "not found\n");
        reply.closeConnection = !discardBody(request, reader);
        render(std::move(reply), nullptr, StopSignal(), request, response);
      };
  server.Post(".*", unknown);
  server.Put(".*", unknown);
  server.Patch(".*", unknown);
}

}  // namespace quill_fileservice::detail
