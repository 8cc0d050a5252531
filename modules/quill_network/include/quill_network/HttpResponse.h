#pragma once

#include <quill_network/quill_network_export.h>

#include <cstdint>
#include <string>

// How one transfer went, as libcurl measured it. Times are milliseconds from the moment the engine
// took the transfer up; a step that did not happen (no name to resolve, a connection reused, no
// TLS) is -1. A download resumed after a cut is timed from its first attempt's connection to the
// end of its last.
struct QUILL_NETWORK_EXPORT HttpTimeline {
  std::string method;       // "GET", "POST", "PUT"
  std::string host;         // the host of the URL asked for
  std::string httpVersion;  // "1.1", "2", ...; empty when no reply came
  int status = 0;           // HTTP status of the last reply; 0 when none
  // Body bytes received (every attempt of a download counted) and sent.
  std::int64_t bytes = 0;
  // How often a cut-off download asked for its rest.
  int resumes = 0;
  double resolveMs = -1;
  double connectMs = -1;
  double tlsMs = -1;
  double firstByteMs = -1;
  double endMs = 0;
  // bytes over the whole time.
  double bytesPerSecond = 0;
  // Why a transfer that did not complete ended, in words: "reset by peer", "stalled 30 s", "TLS
  // certificate rejected", "HTTP 503", "cancelled"...; empty after a success.
  std::string cause;
};

// The end of one transfer, as handed to its completion function.
struct QUILL_NETWORK_EXPORT HttpResponse {
  enum Outcome : int {
    kCompleted = 0,  // the transfer completed with a 2xx status
    kCancelled = 1,  // cancelRequest() ended it
    kFailed = 2,     // a transport error, or a status of 400 or more
  };

  int outcome = kFailed;
  // The HTTP status of the last response; 0 when none was received.
  int status = 0;
  // After a completed form post or upload: the reply body (at most 1 MiB of it). Otherwise an error
  // description: the transport's error text, or the status line.
  std::string text;
  // errno of a local file failure that ended the transfer (the download file could not be created
  // or written); 0 otherwise.
  int systemError = 0;
  // Where the transfer's time went; also written to the library's log as one line when it ends.
  HttpTimeline timeline;
};
