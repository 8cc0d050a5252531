#include "detail/Timeline.h"

#include <cerrno>
#include <cstdio>

namespace quill_network_detail {
namespace {

#if defined(_WIN32)
// Winsock's error numbers, which libcurl reports as its OS errno on Windows.
constexpr long kConnectionReset = 10054;    // WSAECONNRESET
constexpr long kConnectionRefused = 10061;  // WSAECONNREFUSED
#else
constexpr long kConnectionReset = ECONNRESET;
constexpr long kConnectionRefused = ECONNREFUSED;
#endif

// libcurl's microseconds as milliseconds; -1 for a step that was not taken (0).
double stepMs(CURL* easy, CURLINFO info) {
  curl_off_t micros = 0;
  if (curl_easy_getinfo(easy, info, &micros) != CURLE_OK || micros <= 0) {
    return -1;
  }
  return static_cast<double>(micros) / 1000.0;
}

std::string versionName(long version) {
  switch (version) {
    case CURL_HTTP_VERSION_1_0:
      return "1.0";
    case CURL_HTTP_VERSION_1_1:
      return "1.1";
    case CURL_HTTP_VERSION_2_0:
      return "2";
    case CURL_HTTP_VERSION_3:
      return "3";
    default:
      return "";
  }
}

std::string milliseconds(double value) {
  if (value < 0) {
    return "-";
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", value);
  return text;
}

}  // namespace

std::string causeInWords(const EndFacts& facts) {
  if (facts.cancelled) {
    return "cancelled";
  }
  if (facts.stalledSeconds > 0) {
    return "stalled " + std::to_string(facts.stalledSeconds) + " s";
  }
  if (facts.fileFailed) {
    return "file error";
  }
  if (!facts.localFailure.empty()) {
    return facts.localFailure;
  }
  if (facts.shortBody) {
    return "body shorter than its Content-Length";
  }
  switch (facts.result) {
    case CURLE_OK:
      return facts.status >= 300 ? "HTTP " + std::to_string(facts.status) : std::string();
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return facts.osErrno == kConnectionReset ? "reset by peer" : "connection lost";
    case CURLE_PARTIAL_FILE:
      return "closed before the end of the body";
    case CURLE_GOT_NOTHING:
      return "closed without a reply";
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return "HTTP/2 stream reset";
    case CURLE_COULDNT_CONNECT:
      return facts.osErrno == kConnectionRefused ? "connection refused" : "could not connect";
    case CURLE_COULDNT_RESOLVE_HOST:
      return "host not found";
    case CURLE_COULDNT_RESOLVE_PROXY:
      return "proxy not found";
    case CURLE_OPERATION_TIMEDOUT:
      return "timed out";
    case CURLE_PEER_FAILED_VERIFICATION:
      return "TLS certificate rejected";
    case CURLE_SSL_CONNECT_ERROR:
      return "TLS handshake failed";
    case CURLE_SSL_CACERT_BADFILE:
      return "CA file unusable";
    case CURLE_TOO_MANY_REDIRECTS:
      return "too many redirects";
    case CURLE_UNSUPPORTED_PROTOCOL:
      return "protocol not allowed";
    case CURLE_URL_MALFORMAT:
      return "malformed URL";
    case CURLE_READ_ERROR:
    case CURLE_WRITE_ERROR:
      return "file error";
    default:
      return curl_easy_strerror(facts.result);
  }
}

HttpTimeline timelineOf(const TransferSpec& spec) {
  HttpTimeline timeline;
  switch (spec.kind) {
    case TransferSpec::Kind::Download:
      timeline.method = "GET";
      break;
    case TransferSpec::Kind::PutFile:
      timeline.method = "PUT";
      break;
    case TransferSpec::Kind::MultipartPost:
    case TransferSpec::Kind::FormPost:
      timeline.method = "POST";
      break;
  }
  timeline.host = hostOf(spec.url);
  return timeline;
}

void readAttemptTimes(CURL* easy, HttpTimeline& timeline) {
  long connections = 0;
  curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connections);
  if (connections > 0) {
    timeline.resolveMs = stepMs(easy, CURLINFO_NAMELOOKUP_TIME_T);
    timeline.connectMs = stepMs(easy, CURLINFO_CONNECT_TIME_T);
    timeline.tlsMs = stepMs(easy, CURLINFO_APPCONNECT_TIME_T);
  }
  timeline.firstByteMs = stepMs(easy, CURLINFO_STARTTRANSFER_TIME_T);
  long version = 0;
  curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
  if (version != 0) {
    timeline.httpVersion = versionName(version);
  }
}

std::string hostOf(const std::string& url) {
  std::string host;
  CURLU* parsed = curl_url();
  if (parsed == nullptr) {
    return host;
  }
  char* part = nullptr;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parsed, CURLUPART_HOST, &part, 0) == CURLUE_OK) {
    host = part;
    curl_free(part);
  }
  curl_url_cleanup(parsed);
  return host;
}

std::string timelineLine(const std::string& transferId, const HttpTimeline& timeline) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.1f MB/s", timeline.bytesPerSecond / 1e6);
  std::string line = "transfer " + transferId + " " + timeline.method + " " + timeline.host + " ";
  line += timeline.httpVersion.empty()
              ? std::string("(no reply)")
              : "HTTP/" + timeline.httpVersion + " " + std::to_string(timeline.status);
  line += ": " + std::to_string(timeline.bytes) + " bytes, " + std::to_string(timeline.resumes) +
          (timeline.resumes == 1 ? " resume" : " resumes") + ", resolve " +
          milliseconds(timeline.resolveMs) + ", connect " + milliseconds(timeline.connectMs) +
          ", tls " + milliseconds(timeline.tlsMs) + ", first byte " +
          milliseconds(timeline.firstByteMs) + ", end " + milliseconds(timeline.endMs) + ", " +
          rate;
  if (!timeline.cause.empty()) {
    line += ", failed: " + timeline.cause;
  }
  return line;
}

}  // namespace quill_network_detail
