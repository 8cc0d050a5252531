#pragma once

#include "Recorder.h"

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quill_test {

// What a request held when its stateCallback ran.
struct RequestEnd {
  int state = 0;
  int code = 0;
  std::string message;
  std::string url;
  CloudStorageEndCause cause;
  std::int64_t bytesDone = 0;
  std::int64_t bytesTotal = 0;
  // A download's final file (directory/fileName) existed at that moment; false for an upload.
  bool fileAtEnd = false;
  std::chrono::steady_clock::time_point at;
};

// A request whose every stateCallback is recorded, and after recordProgress() every progress
// percentage. Copies share the records. A request ends once: ended() and the accessors beside it
// read that end, endCount() shows a second one.
class RecordedRequest {
public:
  explicit RecordedRequest(bool isUpload, int kind,
                           const std::string& id = TextUtils::UUID_String())
      : request(std::make_shared<CloudStorageRequest>(isUpload)) {
    request->kind = kind;
    request->requestId = id;
    auto record = ends;
    request->stateCallback = [record](std::shared_ptr<CloudStorageRequest> ended, int state) {
      const bool fileAtEnd = !ended->isUpload && FileUtils::fileExists(FileUtils::appendComponent(
                                                     ended->directory, ended->fileName));
      record->record({state, ended->resultCode, ended->resultMessage, ended->url, ended->endCause,
                      ended->bytesDone, ended->bytesTotal, fileAtEnd,
                      std::chrono::steady_clock::now()});
    };
  }

  // Left out unless asked for: a request without a progressCallback is a case of its own.
  void recordProgress() {
    auto record = percentages;
    request->progressCallback = [record](std::shared_ptr<CloudStorageRequest>, int percent) {
      record->record(percent);
    };
  }

  bool waitEnded(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    return ends->waitFor(1, timeout);
  }
  int endCount() const { return ends->count(); }
  // The end; all zero while the request has not ended.
  RequestEnd ended() const { return ends->first(); }
  int code() const { return ended().code; }
  std::string message() const { return ended().message; }
  std::string url() const { return ended().url; }
  CloudStorageEndCause cause() const { return ended().cause; }

  std::vector<int> percents() const { return percentages->all(); }

  std::shared_ptr<CloudStorageRequest> request;

private:
  std::shared_ptr<Recorder<RequestEnd>> ends = std::make_shared<Recorder<RequestEnd>>();
  std::shared_ptr<Recorder<int>> percentages = std::make_shared<Recorder<int>>();
};

}  // namespace quill_test
