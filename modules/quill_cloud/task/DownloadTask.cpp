#include "task/DownloadTask.h"

#include "inner/Deployment.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <utility>

namespace cloud {

DownloadTask::DownloadTask(const std::string& cachePath, int type,
                           std::shared_ptr<CloudStorageRequest> request,
                           std::shared_ptr<SerialQueue> queue,
                           CompletionCallback completionCallback)
    : ITask(cachePath, type, std::move(request), std::move(queue), std::move(completionCallback)),
      staticHost(Deployment::staticHost()),
      imageCdnHost(Deployment::imageCdnHost()) {}

DownloadTask::~DownloadTask() {
  if (!transferId.empty()) {
    HttpClient::cancelRequest(transferId);
  }
}

bool DownloadTask::startWithConfig(CloudStorageConfig* config) {
  if (config == nullptr || !request || !queue) {
    return false;
  }
  this->config = config;

  if (taskType != kImageDownload && taskType != kFileDownload) {
    fail("download task type error", false);
    QLOG_ERROR("download task type error, type:" << taskType);
    return false;
  }
  if (request->url.empty()) {
    fail("download url invaild", false);
    QLOG_ERROR("download url invaild");
    return false;
  }
  if (request->directory.empty() || request->fileName.empty()) {
    fail("the download cache path is empty", false);
    QLOG_ERROR("download cache path invaild:" << request->directory
                                              << " file name:" << request->fileName);
    return false;
  }
  if (!FileUtils::directoryExists(request->directory)) {
    fail("the download cache path not exists", false);
    QLOG_ERROR("the download cache path not exists, " << request->directory);
    return false;
  }

  // Without a cache directory the body goes straight to its final path; the move is then onto
  // itself.
  const auto& tempDirectory =
      FileUtils::directoryExists(cachePath) ? cachePath : request->directory;
  tempFilePath = FileUtils::appendComponent(tempDirectory, request->fileName);
  taskState = kRunning;
  startDownload();
  return true;
}

int DownloadTask::resultCodeFor(const HttpResponse& response) {
  if (response.outcome == HttpResponse::kCompleted) {
    return 2;
  }
  if (response.outcome == HttpResponse::kCancelled) {
    return 3;
  }
  switch (response.status) {
    case 400:
      return -4;
    case 403:
      return -3;
    case 404:
      return -2;
    default:
      return -100;
  }
}

void DownloadTask::startDownload() {
  const std::weak_ptr<DownloadTask> weak =
      std::static_pointer_cast<DownloadTask>(shared_from_this());

  auto progress = makeProgressFunction();

  auto completion =
      [weak, queue = std::weak_ptr<SerialQueue>(queue)](std::shared_ptr<HttpResponse> response) {
        const HttpResponse ended = response ? *response : HttpResponse{};
        const int code = resultCodeFor(ended);
        if (ended.outcome != HttpResponse::kCompleted) {
          QLOG_ERROR("download response code:" << ended.status << " desc:" << ended.text);
        }
        std::string desc = code == 2 ? std::string() : TextUtils::toString(ended.status);
        postIfAlive(weak, queue, [code, desc = std::move(desc)](DownloadTask& task) mutable {
          task.processDownloadCompletion(code, std::move(desc));
        });
      };

  transferId = HttpClient::downloadFile(request->url, tempFilePath, std::move(progress),
                                        std::move(completion));
}

void DownloadTask::processDownloadCompletion(int code, std::string desc) {
  QLOG_INFO("cloud::DownloadTask::processDownloadCompletion"
            << " enter");
  transferId.clear();
  bool retry = false;

  if (code == 2) {
    if (moveDownloadFile()) {
      finish(kFinished, code, desc, retry);
      return;
    }
    code = -1;
  } else if (taskType == kImageDownload && code == -100 && request && !staticHost.empty() &&
             request->url.find(staticHost) != std::string::npos) {
    const std::string previousUrl = request->url;
    TextUtils::replaceAll(request->url, staticHost, imageCdnHost);
    QLOG_WARN("retry download image " << -100 << "," << previousUrl);
    retry = true;
  }

  FileUtils::removeFile(tempFilePath);
  finish(kFinished, code, desc, retry);
}

bool DownloadTask::moveDownloadFile() {
  if (FileUtils::fileSize(tempFilePath) == 0) {
    QLOG_ERROR("download file size error");
    return false;
  }
  const auto finalPath = FileUtils::appendComponent(request->directory, request->fileName);
  const bool moved = FileUtils::moveFile(tempFilePath, finalPath);
  if (!moved) {
    QLOG_ERROR("failed to move temp file to cache path \n " << finalPath);
  }
  return moved;
}

void DownloadTask::cancel() {
  if (request) {
    request->resultCode = 3;
  }
  if (transferId.empty()) {
    QLOG_INFO(" cancel the waiting task");
    finish(kFinished, 3, "", false);
    return;
  }
  HttpClient::cancelRequest(transferId);
}

}  // namespace cloud
