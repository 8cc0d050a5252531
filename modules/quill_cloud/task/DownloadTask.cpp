#include "task/DownloadTask.h"

#include "inner/Deployment.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <cstring>
#include <utility>

namespace cloud {

DownloadTask::DownloadTask(const std::string& cachePath, int type,
                           std::shared_ptr<CloudStorageRequest> request,
                           std::shared_ptr<SerialQueue> queue,
                           CompletionCallback completionCallback)
    : ITask(cachePath, type, std::move(request), std::move(queue), std::move(completionCallback)),
      staticHost(Deployment::staticHost()),
      imageCdnHost(Deployment::imageCdnHost()) {}

bool DownloadTask::startWithConfig(CloudStorageConfig* config) {
  if (config == nullptr || !request || !queue) {
    return false;
  }
  this->config = config;

  if (taskType != CloudStorageTaskType::kImageDownload &&
      taskType != CloudStorageTaskType::kFileDownload) {
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
  if (!FileUtils::isPlainFileName(request->fileName)) {
    // Names often come from servers and messages: one that climbs out of `directory` (or names
    // something other than a file in it) is refused before anything is written.
    noteEndCause("the file name \"" + TextUtils::printable(request->fileName) +
                 "\" is not a plain file name: it holds a path separator or a NUL, or is . or ..");
    fail("the download file name is not a plain file name", false);
    QLOG_ERROR(
        "download file name is not a plain name: " << TextUtils::printable(request->fileName));
    return false;
  }
  if (!FileUtils::directoryExists(request->directory)) {
    fail("the download cache path not exists", false);
    QLOG_ERROR("the download cache path not exists, " << request->directory);
    return false;
  }

  // Deliberately not "<cache directory>/<fileName>", nor the final path itself when there is no
  // cache directory: two downloads of one name (in this process or another sharing the user
  // directory) would write into the same file, a failure would delete a file the user already had,
  // and a link planted at a predictable name would redirect the write. Each download gets a file
  // of its own instead, under a random name, in the cache directory or else beside the final path;
  // the engine creates it exclusively and never follows a link. It is renamed over the final path
  // only once complete, so what the host observes is unchanged.
  const auto& tempDirectory =
      FileUtils::directoryExists(cachePath) ? cachePath : request->directory;
  tempFilePath = FileUtils::temporaryPath(tempDirectory, request->fileName);
  if (!enterRunning()) {
    return false;
  }
  startDownload();
  return true;
}

int DownloadTask::resultCodeFor(const HttpResponse& response) {
  if (response.outcome == HttpResponse::kCompleted) {
    return CloudStorageResult::kSuccess;
  }
  if (response.outcome == HttpResponse::kCancelled) {
    return CloudStorageResult::kCancelled;
  }
  switch (response.status) {
    case 400:
      return CloudStorageResult::kBadRequest;
    case 403:
      return CloudStorageResult::kForbidden;
    case 404:
      return CloudStorageResult::kNotFound;
    default:
      return CloudStorageResult::kTransferFailed;
  }
}

void DownloadTask::startDownload() {
  const std::weak_ptr<DownloadTask> weak =
      std::static_pointer_cast<DownloadTask>(shared_from_this());

  auto progress = makeProgressFunction();

  const auto transfer = openTransfer();
  auto completion = [weak, queue = std::weak_ptr<SerialQueue>(queue),
                     transfer](std::shared_ptr<HttpResponse> response) {
    const HttpResponse ended = response ? *response : HttpResponse{};
    const int code = resultCodeFor(ended);
    if (ended.outcome != HttpResponse::kCompleted) {
      QLOG_ERROR("download response code:" << ended.status << " desc:" << ended.text);
    }
    std::string desc =
        code == CloudStorageResult::kSuccess ? std::string() : TextUtils::toString(ended.status);
    postTransferEnd(weak, queue, transfer,
                    [code, desc = std::move(desc), ended](DownloadTask& task) mutable {
                      task.noteEndCause(ended);
                      task.processDownloadCompletion(code, std::move(desc));
                    });
  };

  holdTransfer(HttpClient::downloadFile(request->url, tempFilePath, std::move(progress),
                                        std::move(completion)));
}

void DownloadTask::processDownloadCompletion(int code, std::string desc) {
  QLOG_INFO("cloud::DownloadTask::processDownloadCompletion"
            << " enter");
  bool retry = false;

  if (code == CloudStorageResult::kSuccess) {
    if (moveDownloadFile()) {
      finish(CloudStorageState::kFinished, code, desc, retry);
      return;
    }
    code = CloudStorageResult::kFailed;
  } else if (taskType == CloudStorageTaskType::kImageDownload &&
             code == CloudStorageResult::kTransferFailed && request && !staticHost.empty() &&
             request->url.find(staticHost) != std::string::npos) {
    const std::string previousUrl = request->url;
    TextUtils::replaceAll(request->url, staticHost, imageCdnHost);
    QLOG_WARN("retry download image " << CloudStorageResult::kTransferFailed << "," << previousUrl);
    retry = true;
  }

  FileUtils::removeFile(tempFilePath);
  finish(CloudStorageState::kFinished, code, desc, retry);
}

bool DownloadTask::moveDownloadFile() {
  const auto size = FileUtils::fileSize(tempFilePath);
  if (size == 0) {
    noteEndCause(FileUtils::fileExists(tempFilePath) ? "the server sent an empty file"
                                                     : "the downloaded file is missing");
    QLOG_ERROR("download file size error");
    return false;
  }
  const auto finalPath = FileUtils::appendComponent(request->directory, request->fileName);
  int error = 0;
  const bool moved = FileUtils::moveFile(tempFilePath, finalPath, &error);
  if (!moved) {
    noteEndCause("cannot move the download to " + finalPath + ": " + std::strerror(error), error);
    QLOG_ERROR("failed to move temp file to cache path \n " << finalPath);
    return false;
  }
  request->bytesDone = static_cast<std::int64_t>(size);
  request->bytesTotal = static_cast<std::int64_t>(size);
  return true;
}

void DownloadTask::cancel() {
  if (request) {
    request->resultCode = CloudStorageResult::kCancelled;
  }
  if (!hasTransfer()) {
    QLOG_INFO(" cancel the waiting task");
    finish(CloudStorageState::kFinished, CloudStorageResult::kCancelled, "", false);
    return;
  }
  // The transfer's cancelled reply ends the task (and removes its partial file).
  cancelTransfer();
}

}  // namespace cloud
