#include "task/UploadTask.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <utility>

namespace cloud {

UploadTask::UploadTask(const std::string& cachePath, int type,
                       std::shared_ptr<CloudStorageRequest> request,
                       std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback)
    : ITask(cachePath, type, std::move(request), std::move(queue), std::move(completionCallback)) {}

UploadTask::~UploadTask() {
  if (!signatureRequestId.empty()) {
    HttpClient::cancelRequest(signatureRequestId);
  }
  if (!transferId.empty()) {
    HttpClient::cancelRequest(transferId);
  }
}

bool UploadTask::hasEnded() const {
  // An upload never restarts once it has ended, so a reply that arrives afterwards (the task was
  // cancelled while it was on its way) is stale and must not end the task a second time.
  return taskState == kFinished;
}

std::weak_ptr<UploadTask> UploadTask::weakSelf() {
  return std::static_pointer_cast<UploadTask>(shared_from_this());
}

bool UploadTask::startWithConfig(CloudStorageConfig* config) {
  if (config == nullptr || !request || !queue) {
    return false;
  }
  this->config = config;

  if (taskType != kImageUpload && taskType != kFileUpload && taskType != kVideoUpload) {
    fail("upload task type error", false);
    QLOG_ERROR("upload task type error, type:" << taskType);
    return false;
  }
  if (request->directory.empty() || request->fileName.empty()) {
    fail("upload file dir invaild", false);
    QLOG_ERROR("upload file path invaild:" << request->directory
                                           << " file name:" << request->fileName);
    return false;
  }
  uploadFilePath = FileUtils::appendComponent(request->directory, request->fileName);
  const auto size = FileUtils::fileSize(uploadFilePath);
  if (size == 0) {
    fail("upload file not exists", false);
    QLOG_ERROR("upload file not exists, " << uploadFilePath);
    return false;
  }
  request->fileSize = static_cast<std::int64_t>(size);
  taskState = kRunning;

  std::string id;
  if (taskType == kImageUpload) {
    // `reserved` selects nothing: both values upload the same way.
    id = uploadToFileVela(config->imageUploadUrl);
  } else if (config->uploadMode == 1) {
    if (taskType == kFileUpload) {
      requestFileSignature();
    } else {
      requestVideoSignature();
    }
    return true;
  } else {
    id = uploadToFileVela(config->signatureUrl);
  }
  transferId = id;
  if (id.empty()) {
    fail("upload request invaild", false);
  }
  return true;
}

CloudStorageEndCause UploadTask::causeOfFailedUpload(const HttpResponse& response,
                                                     const std::string& refusal) {
  CloudStorageEndCause cause;
  cause.httpStatus = response.status;
  if (response.outcome == HttpResponse::kCancelled) {
    cause.text = "cancelled";
  } else if (response.outcome == HttpResponse::kFailed) {
    cause.text = response.text;
    cause.systemError = response.systemError;
  } else {
    cause.text = refusal;
  }
  return cause;
}

std::string UploadTask::completeUrlScheme(const std::string& url) {
  if (url.empty()) {
    return {};
  }
  if (TextUtils::hasPrefix(url, "https://") || TextUtils::hasPrefix(url, "http://")) {
    return url;
  }
  if (TextUtils::hasPrefix(url, "//")) {
    return "https:" + url;
  }
  return "https://" + url;
}

void UploadTask::processUploadCompletion(const std::string& url, int code, const std::string& desc,
                                         bool retry) {
  QLOG_INFO("cloud::UploadTask::processUploadCompletion"
            << " enter");
  transferId.clear();
  if (!request) {
    return;
  }
  request->url = url.empty() ? std::string() : completeUrlScheme(url);
  finish(kFinished, code, desc, retry);
}

void UploadTask::cancel() {
  // Only one transfer is ever in flight: the signature request, or the video upload that keeps its
  // id in the same place, comes first.
  if (!signatureRequestId.empty()) {
    HttpClient::cancelRequest(signatureRequestId);
    QLOG_INFO("cancel signature request");
  } else if (!transferId.empty()) {
    HttpClient::cancelRequest(transferId);
    QLOG_INFO("cancel upload request");
  } else {
    QLOG_INFO("cancel the waiting task");
  }
  finish(kFinished, 3, "", false);
}

}  // namespace cloud
