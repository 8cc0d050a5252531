// The file-service upload of UploadTask: one multipart POST with the account fields and the file.
#define QUILL_LOG_SOURCE "modules/quill_cloud/task/UploadTask"

#include "task/UploadTask.h"

#include <quill_base/JSONUtils.h>
#include <quill_base/Logger.h>
#include <quill_network/HttpClient.h>

namespace cloud {

std::string UploadTask::uploadToFileVela(const std::string& url) {
  if (url.empty()) {
    QLOG_ERROR(" upload url is empty");
    return {};
  }
  std::vector<HttpPartData> parts;
  if (!uploadFileParts(parts)) {
    return {};
  }
  const auto weak = weakSelf();
  auto progress = makeProgressFunction();
  const auto transfer = openStep(Step::Upload);
  auto completion = [weak, queue = std::weak_ptr<SerialQueue>(queue),
                     transfer](std::shared_ptr<HttpResponse> response) {
    reportFileServiceReply(weak, queue, transfer, response ? *response : HttpResponse{});
  };
  auto id = HttpClient::uploadMultipartData(url, parts, std::move(progress), std::move(completion));
  holdTransfer(id);
  return id;
}

bool UploadTask::uploadFileParts(std::vector<HttpPartData>& parts) {
  if (config == nullptr || !config->isValid()) {
    QLOG_ERROR("upload parts is empty");
    return false;
  }
  // The order is the service's: "pin" goes before "aid".
  parts.push_back(HttpPartData::makePart("appId", config->appId, false));
  parts.push_back(HttpPartData::makePart("pin", config->pin, false));
  parts.push_back(HttpPartData::makePart("aid", config->aid, false));
  parts.push_back(HttpPartData::makePart("clientType", "pc", false));
  parts.push_back(HttpPartData::makePart("upload", uploadFilePath, true));
  return true;
}

void UploadTask::reportFileServiceReply(const std::weak_ptr<UploadTask>& task,
                                        const std::weak_ptr<SerialQueue>& queue,
                                        std::uint64_t transfer, const HttpResponse& response) {
  int code = CloudStorageResult::kTransferFailed;
  std::string path;
  std::string message;
  if (response.outcome == HttpResponse::kCompleted) {
    Json::Value reply;
    if (!JSONUtils::parseJSON(response.text, reply)) {
      message = "parse response failed";
      QLOG_ERROR(message << "\n" << response.text);
    } else {
      const int serverCode = JSONUtils::optInt("code", reply, 0);
      if (serverCode != 0) {
        message = JSONUtils::optString("msg", reply, "");
        QLOG_ERROR("upload file error: " << serverCode << "msg: " << message);
      } else {
        path = JSONUtils::optString("path", reply, "");
        if (path.empty()) {
          message = "path is empty";
        } else {
          code = CloudStorageResult::kSuccess;
        }
      }
    }
  } else if (response.outcome == HttpResponse::kCancelled) {
    code = CloudStorageResult::kCancelled;
  } else {
    message = response.text;
  }
  if (code != CloudStorageResult::kSuccess) {
    QLOG_ERROR("upload failed, code:" << response.status << "\n" << response.text);
  }
  CloudStorageEndCause cause;
  if (code != CloudStorageResult::kSuccess) {
    cause = causeOfFailedUpload(response, "the file service did not accept the upload: " + message);
  }
  postTransferEnd(task, queue, transfer,
                  [path, code, message, cause, timeline = response.timeline](UploadTask& alive) {
                    alive.noteEndCause(cause);
                    alive.noteTimeline(timeline);
                    alive.processUploadCompletion(path, code, message, false);
                  });
}

}  // namespace cloud
