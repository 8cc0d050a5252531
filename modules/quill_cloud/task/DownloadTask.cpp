#include "task/DownloadTask.h"

#include "inner/Deployment.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <chrono>
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
  // Gone with its service, not with its process: the transfer abandoned with it removes the
  // partial file, and the record goes too. Only a process that dies leaves both for the next run.
  dropRecord();
}

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
  const auto finalPath = FileUtils::appendComponent(request->directory, request->fileName);
  if (FileUtils::directoryExists(cachePath)) {
    prepareResumeRecord(finalPath);
  } else {
    tempFilePath = FileUtils::temporaryPath(request->directory, request->fileName);
  }
  if (!enterRunning()) {
    dropRecord();
    return false;
  }
  startDownload();
  return true;
}

namespace {

// Bytes a download moves between two writes of its record.
constexpr std::int64_t kRecordEveryBytes = 16 * 1024 * 1024;
// Whether a file of `length` bytes (-1: unknown) gets a record: fetching a smaller one again after
// a crash costs less than keeping a record for every download.
bool worthARecord(std::int64_t length) {
  constexpr std::int64_t kRecordFromBytes = 1024 * 1024;
  return length < 0 || length >= kRecordFromBytes;
}

std::int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

void DownloadTask::prepareResumeRecord(const std::string& finalPath) {
  recordPath = ResumeRecord::pathFor(cachePath, request->url, finalPath);
  // Only a record that is there is looked at: opening one makes it.
  if (FileUtils::fileExists(recordPath)) {
    recordLock = LockedFile::tryLock(recordPath);
  }
  if (recordLock) {
    const auto found = ResumeRecord::parse(recordLock->read());
    if (found) {
      const auto partial = FileUtils::appendComponent(cachePath, found->partialName);
      if (found->url == request->url && found->finalPath == finalPath &&
          !found->validator.empty() && FileUtils::fileExists(partial)) {
        tempFilePath = partial;
        record = *found;
        resumeValidator = found->validator;
        QLOG_INFO("download " << TextUtils::printable(request->url) << " takes up " << partial
                              << " (" << FileUtils::fileSize(partial) << " bytes)");
        return;
      }
      // A record of no use: the file it names (if any) cannot be taken up either.
      FileUtils::removeFile(partial);
    }
    dropRecord();
  }
  tempFilePath = FileUtils::temporaryPath(cachePath, request->fileName);
  record = ResumeRecord{request->url, finalPath, FileUtils::fileName(tempFilePath), "", 0, 0};
}

void DownloadTask::writeRecord(std::int64_t bytes) {
  record.bytes = bytes;
  record.time = secondsNow();
  if (recordLock && !recordLock->replace(record.toJson())) {
    QLOG_WARN("cannot write the resume record " << recordLock->path());
  }
}

void DownloadTask::noteValidator(const std::string& validator, std::int64_t length) {
  if (!recordLock) {
    if (recordPath.empty() || !worthARecord(length)) {
      return;
    }
    recordLock = LockedFile::tryLock(recordPath);
    if (!recordLock) {
      return;  // another download of the same file keeps its record: this one goes without
    }
  }
  record.validator = validator;
  writeRecord(static_cast<std::int64_t>(FileUtils::fileSize(tempFilePath)));
}

void DownloadTask::bytesMoved(std::int64_t done) {
  if (recordLock && !record.validator.empty() && done - record.bytes >= kRecordEveryBytes) {
    writeRecord(done);
  }
}

void DownloadTask::dropRecord() {
  if (recordLock) {
    recordLock->remove();
    recordLock.reset();
  }
  resumeValidator.clear();
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

  HttpDownloadResume resume;
  resume.validator = resumeValidator;
  if (!recordPath.empty()) {
    // Without a record yet, a small file will not get one: then there is nothing to post.
    resume.onValidator = [weak, queue = std::weak_ptr<SerialQueue>(queue), transfer,
                          recorded = recordLock != nullptr](const std::string& validator,
                                                            std::int64_t length) {
      if (!recorded && !worthARecord(length)) {
        return;
      }
      postIfAlive(weak, queue, [transfer, validator, length](DownloadTask& alive) {
        if (alive.currentTransferIs(transfer)) {
          alive.noteValidator(validator, length);
        }
      });
    };
  }
  holdTransfer(HttpClient::downloadFile(request->url, tempFilePath, std::move(progress),
                                        std::move(completion), std::move(resume)));
}

void DownloadTask::processDownloadCompletion(int code, std::string desc) {
  QLOG_INFO("cloud::DownloadTask::processDownloadCompletion"
            << " enter");
  bool retry = false;

  if (code == CloudStorageResult::kSuccess) {
    if (moveDownloadFile()) {
      dropRecord();
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
  dropRecord();
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
  // A size above 0 says the file is a regular file: moveFile would only look at it again.
  const bool moved = FileUtils::moveRegularFile(tempFilePath, finalPath, &error);
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
