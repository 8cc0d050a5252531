#pragma once

#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/quill_cloud_export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Where the time of a request's last transfer went, as the network library measured it. Times are
// milliseconds from the moment the transfer was taken up; a step that did not happen (no name to
// resolve, a connection reused, no TLS) is -1. A download resumed after a cut is timed from its
// first connection to the end of its last attempt.
struct CloudStorageTimeline {
  std::string method;       // "GET", "POST", "PUT"; empty when no transfer ran
  std::string host;         // the host of the URL asked for
  std::string httpVersion;  // "1.1", "2", ...; empty when no reply came
  int httpStatus = 0;
  // Body bytes received (every attempt of a download counted) and sent.
  std::int64_t bytes = 0;
  // How often a cut-off download asked for its rest.
  int resumes = 0;
  double resolveMs = -1;
  double connectMs = -1;
  double tlsMs = -1;
  double firstByteMs = -1;
  double endMs = 0;
  double bytesPerSecond = 0;
  // For a transfer that did not complete, why, in words: "reset by peer", "stalled 30 s", "TLS
  // certificate rejected", "HTTP 503", "cancelled", ...
  std::string cause;
};

// Why a request ended, in more detail than resultCode and resultMessage (which keep the values they
// have always had). The task writes it into the request just before stateCallback; it is empty
// while the request runs, and after a success only its timeline is set.
struct CloudStorageEndCause {
  // What happened, in words: the network library's error text ("Could not resolve host: x",
  // "SSL certificate problem: unable to get local issuer certificate"), the reply's status line
  // ("HTTP/1.1 503 Service Unavailable"), or a local failure ("cannot create /d/.f.part: Permission
  // denied", "the server sent an empty file"). "cancelled" for a cancelled request.
  std::string text;
  // The system's error number (errno; on Windows the system error code) of a local failure such as
  // a file that could not be created or moved; 0 when the cause was not one.
  int systemError = 0;
  // The HTTP status of the last reply received; 0 when none arrived.
  int httpStatus = 0;
  // The request's last transfer (the upload itself, once its signature was granted), also after a
  // success; empty (method "") when the request ended before any transfer ran.
  CloudStorageTimeline timeline;
};

// One download or upload as the host describes it. The host fills it in, hands it to
// CloudStorageService::excuteRequest as a shared pointer, and shares it with the task that serves
// it: the task writes the outcome (resultCode, resultMessage, and for uploads url and fileSize)
// into this same object before stateCallback is called.
//
// Kinds are the values of CloudStorageKind, result codes those of CloudStorageResult
// (CloudStorageCodes.h).
class QUILL_CLOUD_EXPORT CloudStorageRequest {
public:
  using Callback = std::function<void(std::shared_ptr<CloudStorageRequest>, int)>;

  // Everything empty or zero, resultCode CloudStorageResult::kPending. `kind` is 0, which no
  // request accepts: set it.
  explicit CloudStorageRequest(bool isUpload);
  CloudStorageRequest(const CloudStorageRequest&);
  CloudStorageRequest(CloudStorageRequest&&) noexcept;
  CloudStorageRequest& operator=(const CloudStorageRequest&);
  CloudStorageRequest& operator=(CloudStorageRequest&&) noexcept;
  ~CloudStorageRequest();

  // The host's own value; never read here.
  std::int64_t tag = 0;
  // Identity of the request: a second request with a known id (and the same kind) is dropped, and
  // cancelReqestWithID finds the request by it.
  std::string requestId;
  std::int32_t kind = 0;
  bool isUpload = false;
  std::int32_t reserved = 0;
  // Download: the source. Upload: the address of the stored object, written on success.
  std::string url;
  std::string auxText1;
  // Download: destination directory. Upload: directory of the file to send.
  std::string directory;
  // File name inside `directory`.
  std::string fileName;
  // Extension for the object key of a signed upload; the extension of fileName when empty.
  std::string auxText2;
  // Size in bytes of the file to upload, written when the upload starts.
  std::int64_t fileSize = 0;
  std::string auxText3;
  std::string auxText4;
  std::int32_t resultCode = CloudStorageResult::kPending;
  std::string resultMessage;
  // Why the request ended (see CloudStorageEndCause); written before stateCallback.
  CloudStorageEndCause endCause;
  // Bytes moved so far and the whole size (-1 while unknown). Written on the service's queue before
  // each progressCallback, and before stateCallback (a finished download: the file's size).
  std::int64_t bytesDone = 0;
  std::int64_t bytesTotal = -1;
  // Called once, on the service's serial queue, when the request has ended; the int is the task
  // state (CloudStorageState::kFinished). The outcome is in resultCode and resultMessage.
  Callback stateCallback;
  // Called on the service's serial queue while bytes move, with whole percentages 0 to 99, each at
  // most once and never decreasing.
  Callback progressCallback;
};
