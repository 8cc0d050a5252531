#pragma once

#include "Transfer.h"

#include <json/value.h>

#include <string>

namespace quill_cli {

// The reason to print for a failed transfer: the cause the library gave (or the tool's own), else
// the library's result message.
std::string failureReason(const TransferState& state);

// One JSON object for a finished transfer: operation, kind, source, code, ok (boolean), message,
// cause, url, path (only when that file exists: a saved download, a cached avatar, an upload's
// source), route, bytes, seconds (to the millisecond), and timeline (see timelineJson) when the
// library ran a transfer for it.
std::string toJsonLine(const TransferState& state);

// The library's timeline of a transfer as JSON: method, host, httpVersion, status, bytes, resumes,
// resolveMs, connectMs, tlsMs, firstByteMs, endMs (null for a step that did not happen),
// bytesPerSecond and cause (empty after a success).
Json::Value timelineJson(const CloudStorageTimeline& timeline);

// Prints each transfer's result as it ends: with --json its JSON object on standard output;
// otherwise the URL (uploads) or path (downloads, avatars) of a success on standard output and a
// failure's code, meaning and cause on standard error.
class Reporter {
public:
  explicit Reporter(bool json) : json(json) {}

  // Prints the result of an ended transfer. True: a failure was printed on standard error (the
  // progress display then need not print it again).
  bool announce(const TransferState& state);

  // 130 when interrupted, 1 when a transfer failed, else 0.
  int exitStatus(bool interrupted) const;

private:
  bool json;
  bool failed = false;
};

}  // namespace quill_cli
