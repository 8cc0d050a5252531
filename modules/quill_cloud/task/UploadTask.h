#pragma once

#include "task/ITask.h"

#include <quill_network/HttpClient.h>
#include <quill_network/HttpPartData.h>
#include <quill_network/HttpResponse.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace cloud {

// Uploads one local file (directory/fileName of the request) by one of three routes:
// - the file-service upload: a multipart POST with the account fields and the file (images, and
//   files and videos when uploadMode is not 1);
// - a file signature request, then the file PUT to the signed object-storage address;
// - a video signature request, then the video POSTed as a one-part form to the video address.
// On success the request's url holds the stored object's address, with a scheme.
class UploadTask : public ITask {
public:
  UploadTask(const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
             std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback);
  bool startWithConfig(CloudStorageConfig* config) override;
  void cancel() override;

  // The one place where an upload route reports its outcome; on the queue.
  void processUploadCompletion(const std::string& url, int code, const std::string& desc,
                               bool retry);

  // Why an upload step ended without success: the transfer's own cause when it failed or was
  // cancelled, else (a reply arrived but was not accepted) `refusal` with the reply's status.
  static CloudStorageEndCause causeOfFailedUpload(const HttpResponse& response,
                                                  const std::string& refusal);

  // "//host/x" -> "https://host/x", "host/x" -> "https://host/x"; http(s) URLs as they are.
  static std::string completeUrlScheme(const std::string& url);

  // File-service upload.
  std::string uploadToFileVela(const std::string& url);
  bool uploadFileParts(std::vector<HttpPartData>& parts);

  // Signature requests, and the handling of their replies (on the queue).
  bool requestFileSignature();
  bool requestVideoSignature();
  void processSignatureRespose(std::shared_ptr<HttpResponse> response);
  void processVideoSignatureRespose(std::shared_ptr<HttpResponse> response);

  // Uploads to the signed addresses.
  void uploadToTarn(std::string uploadUrl, std::string path);
  void uploadVideoToVOD(std::string uploadUrl, std::string payUrl);
  bool uploadVideoParts(std::vector<HttpPartData>& parts);

private:
  // What the transfer in flight is, for the log line of a cancel. The video upload counts as the
  // signature step: cancelling it has always logged "cancel signature request".
  enum class Step { Signature, Upload };

  std::weak_ptr<UploadTask> weakSelf();
  using ReplyHandler = void (UploadTask::*)(std::shared_ptr<HttpResponse>);

  // Opens the task's next transfer (see ITask::openTransfer) as `step`.
  std::uint64_t openStep(Step step);
  // Posts a signature form to `url`; its reply goes to `handler` on the queue.
  void sendSignatureRequest(const std::string& url, const std::map<std::string, std::string>& form,
                            ReplyHandler handler);
  // Opens a transfer as `step` and starts it with `start`, whose end reports `resultPath` as the
  // stored object's address on success.
  void startSignedUpload(Step step, std::string resultPath,
                         const std::function<std::string(HttpClient::ProgressFunction,
                                                         HttpClient::CompletionFunction)>& start);
  // The network thread's end of a file-service upload: the reply parsed into (path, code, message).
  static void reportFileServiceReply(const std::weak_ptr<UploadTask>& task,
                                     const std::weak_ptr<SerialQueue>& queue,
                                     std::uint64_t transfer, const HttpResponse& response);
  // The network thread's end of an object-storage or video upload.
  static void reportSignedUploadEnd(const std::weak_ptr<UploadTask>& task,
                                    const std::weak_ptr<SerialQueue>& queue, std::uint64_t transfer,
                                    const HttpResponse& response, const std::string& resultPath);
  std::map<std::string, std::string> signatureForm();
  std::map<std::string, std::string> videoSignatureForm();
  // The common end of a signature reply: a cancelled request gives code 3, an empty message the
  // status text; a reply not accepted (code other than 2) is logged and ends the task. True when
  // the upload may go on.
  bool acceptSignatureReply(const HttpResponse& reply, int code, std::string message);

  Step step = Step::Upload;
  std::string uploadFilePath;
};

}  // namespace cloud
