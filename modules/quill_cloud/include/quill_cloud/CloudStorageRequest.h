#pragma once

#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/quill_cloud_export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Why a request ended, in more detail than resultCode and resultMessage (which keep the values they
// have always had). The task writes it into the request just before stateCallback; it is empty
// while the request runs and after a success.
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
