#pragma once

#include "detail/HttpLib.h"
#include "detail/Reply.h"
#include "detail/ServiceContext.h"

#include <functional>

namespace quill_fileservice::detail {

// A route that reads a request body itself, streamed, through httplib's content reader.
using BodyRoute = std::function<Reply(const httplib::Request&, const httplib::ContentReader&)>;
// A route without a request body.
using PlainRoute = std::function<Reply(const httplib::Request&)>;

// Wraps a route with fault injection. The fault of a request is the one its quill_* query
// parameters describe, else the first fault rule that matches it. A fault that replaces the reply
// (status, body) skips the route: a request body is read and thrown away first, so the connection
// stays usable. Then the delay, then the reply is written, its body shaped (rate, drop, stall).
httplib::Server::HandlerWithContentReader withFaults(ServiceContext& context, BodyRoute route);
httplib::Server::Handler withFaults(ServiceContext& context, PlainRoute route);

// The reply a status or body fault puts in place of the route's.
Reply faultReply(const Fault& fault);

// Catch-all routes, registered last: requests with a body to an unknown path have it read and
// thrown away (instead of collected in memory by httplib) and get 404.
void addFallbackRoutes(httplib::Server& server);

}  // namespace quill_fileservice::detail
