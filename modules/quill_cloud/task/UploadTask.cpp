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

std::weak_ptr<UploadTask> UploadTask::weakSelf() {
  return std::static_pointer_cast<UploadTask>(shared_from_this());
}

std::uint64_t UploadTask::openStep(Step next) {
  step = next;
  return openTransfer();
}

bool UploadTask::startWithConfig(CloudStorageConfig* config) {
  if (config == nullptr || !request || !queue) {
    return false;
  }
  this->config = config;

  if (taskType != CloudStorageTaskType::kImageUpload &&
      taskType != CloudStorageTaskType::kFileUpload &&
      taskType != CloudStorageTaskType::kVideoUpload) {
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
  if (!enterRunning()) {
    return false;
  }

  if (config->uploadMode == 1 && taskType != CloudStorageTaskType::kImageUpload) {
    if (taskType == CloudStorageTaskType::kFileUpload) {
      requestFileSignature();
    } else {
      requestVideoSignature();
    }
    return true;
  }
  // `reserved` selects nothing for images: both values upload the same way.
  const auto& url = taskType == CloudStorageTaskType::kImageUpload ? config->imageUploadUrl
                                                                   : config->signatureUrl;
  const auto id = uploadToFileVela(url);
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
  if (!request) {
    return;
  }
  request->url = url.empty() ? std::string() : completeUrlScheme(url);
  finish(CloudStorageState::kFinished, code, desc, retry);
}

void UploadTask::cancel() {
  // An upload ends at once with code 3; the reply of the cancelled transfer is then stale.
  if (!hasTransfer()) {
    QLOG_INFO("cancel the waiting task");
  } else {
    cancelTransfer();
    QLOG_INFO((step == Step::Signature ? "cancel signature request" : "cancel upload request"));
  }
  finish(CloudStorageState::kFinished, CloudStorageResult::kCancelled, "", false);
}

}  // namespace cloud
