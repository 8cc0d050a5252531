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
        postIfAlive(weak, queue, [code, desc = std::move(desc), ended](DownloadTask& task) mutable {
          task.noteEndCause(ended);
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
