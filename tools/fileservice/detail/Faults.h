#pragma once

#include <quill_fileservice/FileService.h>

#include <json/value.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quill_fileservice::detail {

// True when the fault changes the reply itself (status or body) rather than how it is sent.
bool replacesReply(const Fault& fault);
// True when the fault changes how the reply body is sent (rate, drop, stall, cuts).
bool shapesBody(const Fault& fault);

// A fault from a request's query parameters quill_status, quill_body, quill_delay_ms, quill_rate,
// quill_drop_after, quill_stall_after, quill_cut_every, quill_ignore_range and quill_change_etag
// (both on unless "0"); nothing when none is present. Values that are not numbers are ignored.
std::optional<Fault> faultFromQuery(const std::multimap<std::string, std::string>& params);

// A fault from a JSON object with the Fault's member names ("pathPrefix", "host", "times",
// "status", "body", "delayMs", "bytesPerSecond", "dropAfterBytes", "stallAfterBytes",
// "cutEveryBytes", "ignoreRange", "changeEtag"); a "body" member sets hasBody. False, with the
// reason, for anything else.
bool faultFromJson(const Json::Value& json, Fault& fault, std::string& error);
Json::Value faultToJson(const Fault& fault);

// The fault rules of a service, thread-safe. A rule matches a request whose path starts with its
// prefix and whose Host header equals its host (compared without regard to case); rules are tried
// in the order added and the first match is used, using up one of its times.
class FaultRules {
public:
  void add(const Fault& fault);
  void clear();
  std::vector<Fault> list() const;
  std::optional<Fault> take(const std::string& path, const std::string& host);

private:
  mutable std::mutex mutex;
  std::vector<Fault> rules;
};

}  // namespace quill_fileservice::detail
