// The uploads of UploadTask that follow a signature: the file PUT to object storage, and the video
// POSTed as a one-part form to the video service.
#define QUILL_LOG_SOURCE "modules/quill_cloud/task/UploadTask"

#include "task/UploadTask.h"

#include <quill_base/Logger.h>
#include <quill_network/HttpClient.h>

#include <utility>

namespace cloud {

void UploadTask::uploadToTarn(std::string uploadUrl, std::string path) {
  startSignedUpload(Step::Upload, std::move(path), [&](auto progress, auto completion) {
    return HttpClient::uploadFile(uploadUrl, uploadFilePath, std::move(progress),
                                  std::move(completion));
  });
}

void UploadTask::uploadVideoToVOD(std::string uploadUrl, std::string payUrl) {
  std::vector<HttpPartData> parts;
  if (!uploadVideoParts(parts)) {
    return;  // nothing started: the task stays running until it is cancelled
  }
  startSignedUpload(Step::Signature, std::move(payUrl), [&](auto progress, auto completion) {
    return HttpClient::uploadMultipartData(uploadUrl, parts, std::move(progress),
                                           std::move(completion));
  });
}

void UploadTask::startSignedUpload(
    Step step, std::string resultPath,
    const std::function<std::string(HttpClient::ProgressFunction, HttpClient::CompletionFunction)>&
        start) {
  const auto transfer = openStep(step);
  auto completion = [weak = weakSelf(), queue = std::weak_ptr<SerialQueue>(queue), transfer,
                     resultPath = std::move(resultPath)](std::shared_ptr<HttpResponse> response) {
    reportSignedUploadEnd(weak, queue, transfer, response ? *response : HttpResponse{}, resultPath);
  };
  holdTransfer(start(makeProgressFunction(), std::move(completion)));
}

bool UploadTask::uploadVideoParts(std::vector<HttpPartData>& parts) {
  if (config == nullptr || !config->isValid()) {
    QLOG_ERROR("upload parts is empty");
    return false;
  }
  HttpPartData part;
  part.isFile = true;
  part.name = request->fileName;
  part.value = uploadFilePath;
  part.contentType = "video/mp4";
  parts.push_back(part);
  return true;
}

void UploadTask::reportSignedUploadEnd(const std::weak_ptr<UploadTask>& task,
                                       const std::weak_ptr<SerialQueue>& queue,
                                       std::uint64_t transfer, const HttpResponse& response,
                                       const std::string& resultPath) {
  int code = CloudStorageResult::kTransferFailed;
  std::string path;
  std::string message;
  if (response.outcome == HttpResponse::kCompleted) {
    // The signature already named the stored object: the reply body is not read.
    code = CloudStorageResult::kSuccess;
    path = resultPath;
  } else if (response.outcome == HttpResponse::kCancelled) {
    code = CloudStorageResult::kCancelled;
    message = "upload cancel";
  } else {
    message =
        response.text.empty() ? "upload failed, " + std::to_string(response.status) : response.text;
  }
  if (response.outcome != HttpResponse::kCompleted) {
    QLOG_ERROR("upload failed, code:" << response.status << " desc:" << response.text);
  }
  CloudStorageEndCause cause;
  if (code != CloudStorageResult::kSuccess) {
    cause = causeOfFailedUpload(response, message);
  }
  postTransferEnd(task, queue, transfer,
                  [path, code, message, cause, timeline = response.timeline](UploadTask& alive) {
                    alive.noteEndCause(cause);
                    alive.noteTimeline(timeline);
                    alive.processUploadCompletion(path, code, message, false);
                  });
}

}  // namespace cloud
