// The signature requests of UploadTask: where a file or a video is to be uploaded, and under which
// address it will be reachable.
#define QUILL_LOG_SOURCE "modules/quill_cloud/task/UploadTask"

#include "task/UploadTask.h"

#include <quill_base/FileUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>
#include <quill_network/HttpClient.h>

#include <utility>

namespace cloud {
namespace {

void addFormHeader(HttpRequest& request) {
  request.appendHeader("Content-Type", "application/x-www-form-urlencoded;charset=utf-8");
}

// The JSON of a signature reply that arrived; false with the message set when it is not JSON.
bool parseSignatureReply(const HttpResponse& reply, Json::Value& json, std::string& message) {
  if (!JSONUtils::parseJSON(reply.text, json)) {
    message = "parse signature response failed";
    return false;
  }
  return true;
}

}  // namespace

std::map<std::string, std::string> UploadTask::signatureForm() {
  if (config == nullptr || !config->isValid()) {
    return {};
  }
  return {
      {"appId", config->appId}, {"aid", config->aid}, {"pin", config->pin}, {"clientType", "pc"}};
}

std::map<std::string, std::string> UploadTask::videoSignatureForm() {
  auto form = signatureForm();
  if (form.empty()) {
    return form;
  }
  form["fileName"] = request->fileName;
  form["fileSize"] = TextUtils::toString(request->fileSize);
  form["type"] = "3";
  return form;
}

bool UploadTask::acceptSignatureReply(const HttpResponse& reply, int code, std::string message) {
  noteTimeline(reply.timeline);
  if (reply.outcome == HttpResponse::kCancelled) {
    code = CloudStorageResult::kCancelled;
  }
  if (message.empty()) {
    message = "request signature failed, " + TextUtils::toString(reply.status);
  }
  if (code == CloudStorageResult::kSuccess) {
    return true;
  }
  QLOG_ERROR("request signature failed, code:" << reply.status << "\n" << reply.text);
  noteEndCause(causeOfFailedUpload(reply, "the signature reply was not accepted: " + message));
  finish(CloudStorageState::kFinished, code, message, false);
  return false;
}

bool UploadTask::requestFileSignature() {
  cancelTransfer();
  auto form = signatureForm();
  if (form.empty()) {
    fail("request file signature param invaild", false);
    return false;
  }
  auto key = TextUtils::UUID_String();
  const auto extension =
      request->auxText2.empty() ? FileUtils::fileExtension(request->fileName) : request->auxText2;
  if (!extension.empty()) {
    key += "." + extension;
  }
  form["key"] = key;
  sendSignatureRequest(config->signatureUrl, form, &UploadTask::processSignatureRespose);
  return true;
}

bool UploadTask::requestVideoSignature() {
  cancelTransfer();
  const auto form = videoSignatureForm();
  if (form.empty()) {
    fail("request video signature param invaild", false);
    return false;
  }
  sendSignatureRequest(config->videoSignatureUrl, form, &UploadTask::processVideoSignatureRespose);
  return true;
}

void UploadTask::sendSignatureRequest(const std::string& url,
                                      const std::map<std::string, std::string>& form,
                                      ReplyHandler handler) {
  const auto transfer = openStep(Step::Signature);
  auto reply = [weak = weakSelf(), queue = std::weak_ptr<SerialQueue>(queue), transfer,
                handler](std::shared_ptr<HttpResponse> response) {
    postTransferEnd(weak, queue, transfer,
                    [response, handler](UploadTask& task) { (task.*handler)(response); });
  };
  holdTransfer(HttpClient::executePost(url, form, addFormHeader, std::move(reply)));
}

void UploadTask::processSignatureRespose(std::shared_ptr<HttpResponse> response) {
  const HttpResponse reply = response ? *response : HttpResponse{};
  int code = CloudStorageResult::kTransferFailed;
  std::string message;
  std::string uploadPath;
  std::string path;

  Json::Value json;
  if (reply.outcome == HttpResponse::kCompleted && parseSignatureReply(reply, json, message)) {
    const int serverCode = JSONUtils::optInt("code", json, 0);
    if (serverCode != 1) {
      message = JSONUtils::optString("desc", json, "");
      if (message.empty()) {
        message = "request signature," + TextUtils::toString(serverCode);
      }
    } else {
      uploadPath = JSONUtils::optString("uploadPath", json, "");
      path = completeUrlScheme(JSONUtils::optString("path", json, ""));
      if (!uploadPath.empty() && !path.empty()) {
        code = CloudStorageResult::kSuccess;
      } else {
        message = "signature response data invaild";
      }
    }
  }
  if (acceptSignatureReply(reply, code, std::move(message))) {
    uploadToTarn(uploadPath, path);
  }
}

void UploadTask::processVideoSignatureRespose(std::shared_ptr<HttpResponse> response) {
  const HttpResponse reply = response ? *response : HttpResponse{};
  int code = CloudStorageResult::kTransferFailed;
  std::string message;
  std::string uploadUrl;
  std::string payUrl;

  Json::Value json;
  if (reply.outcome == HttpResponse::kCompleted && parseSignatureReply(reply, json, message)) {
    // No "code" to test: the two addresses are the answer.
    uploadUrl = JSONUtils::optString("uploadUrl", json, "");
    payUrl = completeUrlScheme(JSONUtils::optString("payUrl", json, ""));
    if (!uploadUrl.empty() && !payUrl.empty()) {
      code = CloudStorageResult::kSuccess;
      message = "signature response data success";
    } else {
      message = "signature response data invaild";
    }
  }
  if (acceptSignatureReply(reply, code, std::move(message))) {
    uploadVideoToVOD(uploadUrl, payUrl);
  }
}

}  // namespace cloud
