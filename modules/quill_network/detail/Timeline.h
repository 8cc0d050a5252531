#pragma once

#include <quill_network/HttpResponse.h>
#include <quill_network/detail/HttpTransport.h>

#include <curl/curl.h>

#include <string>

namespace quill_network_detail {

// What is known of a transfer's end, for its cause in words.
struct EndFacts {
  CURLcode result = CURLE_OK;
  // The system's error number behind a connection failure (CURLINFO_OS_ERRNO); 0 when none.
  long osErrno = 0;
  long status = 0;
  bool cancelled = false;
  // Ended by the stall guard after this many seconds without a byte (0: not by the guard).
  long stalledSeconds = 0;
  // A file of ours could not be written or read.
  bool fileFailed = false;
  // Why this side ended the transfer, when it did for another reason than a file.
  std::string localFailure;
  // The body ended short of its Content-Length.
  bool shortBody = false;
};

// A timeline with what is known before anything moves: the method and the host.
HttpTimeline timelineOf(const TransferSpec& spec);

// "reset by peer", "stalled 30 s", "TLS certificate rejected", "HTTP 503", "cancelled", ... ; empty
// for a transfer that completed.
std::string causeInWords(const EndFacts& facts);

// Reads libcurl's measurements of the attempt that just ended on `easy` into `timeline`: the times
// to resolve, connect, finish TLS and the first byte (-1 for a step the attempt did not take, as on
// a reused connection) and the HTTP version.
void readAttemptTimes(CURL* easy, HttpTimeline& timeline);

// The host of a URL ("127.0.0.1", "example.com"); empty when it has none.
std::string hostOf(const std::string& url);

// The line the engine logs when a transfer ends:
// "transfer <id> GET 127.0.0.1 HTTP/1.1 200: 4194304 bytes, 0 resumes, resolve 0.1 ms, connect
// 0.3 ms, tls -, first byte 2.0 ms, end 40.2 ms, 104.3 MB/s" and, for a failure, ", failed:
// <cause>".
std::string timelineLine(const std::string& transferId, const HttpTimeline& timeline);

}  // namespace quill_network_detail
