#pragma once

// Internal to the project: the seam between HttpClient and the engine that moves the bytes. The
// shipped library always uses the libcurl engine; the test build of the library
// (quill_network_testing, for the project's tests and benchmarks) lets a test install a scripted
// engine to produce exact outcomes. This header is visible only to the module and to that build.

#include <quill_network/HttpClient.h>
#include <quill_network/quill_network_export.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quill_network_detail {

// One transfer as HttpClient hands it to the engine; everything copied from the caller.
struct TransferSpec {
  enum class Kind { Download, MultipartPost, PutFile, FormPost };

  Kind kind = Kind::Download;
  std::string url;
  // Download: the file written. PutFile: the file sent.
  std::string path;
  // MultipartPost: the parts in order.
  std::vector<HttpPartData> parts;
  // FormPost: the fields, sent in key order.
  std::map<std::string, std::string> form;
  // Extra headers (from the request-setup function of a form post).
  std::vector<std::pair<std::string, std::string>> headers;
  HttpClient::ProgressFunction progress;
  HttpClient::CompletionFunction completion;
  // Download: how to take up a partial file an earlier download left at `path`.
  HttpDownloadResume resume;
};

class HttpTransport {
public:
  virtual ~HttpTransport() = default;
  // Starts the transfer under the id; must not call `spec.completion` before returning.
  virtual void start(const std::string& id, TransferSpec spec) = 0;
  // Cancels the transfer with that id, if it is still running; its completion (outcome 1) follows.
  virtual void cancel(const std::string& id) = 0;
};

// Routes every HttpClient call to `transport` from now on; null restores the libcurl engine.
// Returns the transport that was in place (null for the default engine). Defined in
// quill_network_testing only.
QUILL_NETWORK_EXPORT std::shared_ptr<HttpTransport> installTransport(
    std::shared_ptr<HttpTransport> transport);

// "a=1&b=x%20y": the form url-encoded in key order (RFC 3986 unreserved characters kept).
std::string encodeForm(const std::map<std::string, std::string>& form);

// The Content-Range of a reply: "bytes <first>-<last>/<complete>" (complete "*": -1) or, answering
// a range that cannot be satisfied, "bytes */<complete>" (first and last -1).
struct ContentRange {
  std::int64_t first = -1;
  std::int64_t last = -1;
  std::int64_t complete = -1;
};
// False, `range` unchanged, for anything but those two forms with first <= last < complete.
bool parseContentRange(const std::string& value, ContentRange& range);

// What the project's tests reach of the engine's internals; defined and exported in
// quill_network_testing only (the shipped library keeps them to itself, also as a DLL).
namespace testing {
QUILL_NETWORK_EXPORT std::string encodeForm(const std::map<std::string, std::string>& form);
QUILL_NETWORK_EXPORT bool parseContentRange(const std::string& value, ContentRange& range);
}  // namespace testing

}  // namespace quill_network_detail
