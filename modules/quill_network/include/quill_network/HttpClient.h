#pragma once

#include <quill_network/HttpPartData.h>
#include <quill_network/HttpRequest.h>
#include <quill_network/HttpResponse.h>
#include <quill_network/quill_network_export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Asynchronous HTTP(S) transfers on one process-wide engine (one network thread drives them all).
//
// Every operation copies its arguments, returns a non-empty transfer id at once and runs the
// transfer in the background. `progress(done, total)` is called on the network thread while bytes
// move (bytes sent for uploads; bytes received against Content-Length for downloads), at most about
// 20 times a second plus once at the end; an empty function is allowed. `completion` is called
// exactly once per transfer on the network thread, also after cancelRequest().
//
// A download creates the file at `path` and writes into it as bytes arrive. The file must not exist
// yet: a download to a name that is taken (a symbolic link included, which is never followed) fails
// without touching it. The file is private to its owner while it grows and gets the permissions of
// an ordinary new file once complete. A download that fails or is cancelled removes the file it
// created, and only that.
//
// A download whose body is cut off after some of it arrived (connection reset or closed early, a
// body shorter than its Content-Length, the stall guard, a timeout, a TLS read error) asks for the
// rest with Range and If-Range (the first reply's strong ETag, else its Last-Modified) and appends
// it; a server that sends the whole file again instead is written from the start. An attempt that
// brought new bytes is followed at once by the next; attempts that bring none wait 0.5, 1, 2, 4 and
// 8 s (QUILL_HTTP_RESUME_WAIT_MS sets the first wait), and a sixth such attempt fails the download.
// None of this shows in the callbacks: progress keeps moving forward, and completion comes once.
// How a download may take up the partial file an earlier download of the same URL left at its path
// (after the process that ran it died): with the validator that file's bytes were fetched under,
// the rest is asked for with Range and If-Range; without one, or when no file is there, the
// download starts afresh.
struct HttpDownloadResume {
  // The ETag or Last-Modified the earlier download's first reply carried; empty: start afresh.
  std::string validator;
  // Called on the network thread with the validator of the file being written, once it is known
  // (at the first reply, and again when the server sends the whole file anew), for the caller to
  // keep with the partial file; `length` is the whole file's size in bytes, -1 when the reply does
  // not tell.
  std::function<void(const std::string& validator, std::int64_t length)> onValidator;
};

class QUILL_NETWORK_EXPORT HttpClient {
public:
  using ProgressFunction = std::function<void(double done, double total)>;
  using CompletionFunction = std::function<void(std::shared_ptr<HttpResponse>)>;
  using RequestSetup = std::function<void(HttpRequest&)>;

  // GET `url` into a new file at `path`.
  static std::string downloadFile(const std::string& url, const std::string& path,
                                  ProgressFunction progress, CompletionFunction completion);
  // The same, taking up a partial file at `path` as `resume` says.
  static std::string downloadFile(const std::string& url, const std::string& path,
                                  ProgressFunction progress, CompletionFunction completion,
                                  HttpDownloadResume resume);

  // POST the parts as multipart/form-data, file parts streamed from disk.
  static std::string uploadMultipartData(const std::string& url,
                                         const std::vector<HttpPartData>& parts,
                                         ProgressFunction progress, CompletionFunction completion);

  // PUT the bytes of the local file, streamed from disk.
  static std::string uploadFile(const std::string& url, const std::string& filePath,
                                ProgressFunction progress, CompletionFunction completion);

  // POST the form as application/x-www-form-urlencoded, fields in the map's key order. `setup` may
  // add headers before the request is sent.
  static std::string executePost(const std::string& url,
                                 const std::map<std::string, std::string>& form, RequestSetup setup,
                                 CompletionFunction completion);

  // Cancels the transfer; its completion follows with outcome 1. Unknown or finished ids are
  // ignored.
  static void cancelRequest(const std::string& id);
};
