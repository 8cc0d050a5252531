#pragma once

#include "CloudTestSupport.h"
#include "LogCapture.h"
#include "Recorder.h"
#include "ScriptedTransport.h"

#include <gtest/gtest.h>

#include "task/UploadTask.h"

#include <quill_base/FileUtils.h>

#include <fstream>
#include <memory>
#include <string>

namespace quill_test {

// One UploadTask on its own queue, with a scripted transport, a complete configuration and a file
// to send. The task's ends are recorded (code and message at that moment).
struct UploadHarness {
  struct End {
    int code;
    std::string message;
    std::string url;
    bool retry;
  };

  std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
  ScopedTransport installed{transport};
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("upload test");
  TempDir files;
  CloudStorageConfig config;
  RecordedRequest recorded;
  // The task does not guard against a second ending (a cancelled transfer still reports its own
  // end afterwards), and that report may arrive while the harness is being torn down: the record
  // is shared with the completion callback so that a late ending never writes into a dead harness.
  std::shared_ptr<Recorder<End>> record = std::make_shared<Recorder<End>>();
  std::shared_ptr<cloud::UploadTask> task;

  explicit UploadHarness(int type, const std::string& fileName = "photo.png",
                         const std::string& content = "file content")
      : recorded(type != 3 && type != 4, type == 5 ? 3 : (type == 2 ? 2 : 1)) {
    config.appId = "app 1";
    config.aid = "aid&2";
    config.pin = "pin=3";
    config.imageUploadUrl = "https://files.test/file/uploadImg.action";
    config.signatureUrl = "https://files.test/file/uploadBySignature.action";
    config.videoSignatureUrl = "https://files.test/file/getUploadVideoSignature.action";
    recorded.request->directory = files.path();
    recorded.request->fileName = fileName;
    if (!fileName.empty()) {
      std::ofstream(files.file(fileName), std::ios::binary) << content;
    }
    auto shared = record;
    std::weak_ptr<CloudStorageRequest> weakRequest = recorded.request;
    task = std::make_shared<cloud::UploadTask>(
        "", type, recorded.request, queue,
        [shared, weakRequest](std::shared_ptr<cloud::ITask>, bool retry) {
          auto request = weakRequest.lock();
          if (!request) {
            return;
          }
          shared->record({request->resultCode, request->resultMessage, request->url, retry});
        });
  }

  ~UploadHarness() {
    // Let queued work finish before the task goes.
    runOnQueue(*queue, [] {});
  }

  std::string filePath() const {
    return FileUtils::appendComponent(files.path(), recorded.request->fileName);
  }

  bool start() {
    bool started = false;
    runOnQueue(*queue, [&] { started = task->startWithConfig(&config); });
    return started;
  }

  void onQueue(const std::function<void()>& work) { runOnQueue(*queue, work); }

  bool waitEnded(int count = 1) { return record->waitFor(count); }

  // Starts the task, ends its first transfer with the outcome, status and body given, and returns
  // the task's end.
  End startAndEndFirstTransfer(int outcome, int status, const std::string& body) {
    EXPECT_TRUE(start());
    EXPECT_TRUE(transport->waitForCalls(1));
    transport->end(transport->call(0).id, outcome, status, body);
    EXPECT_TRUE(waitEnded());
    return lastEnd();
  }

  End lastEnd() { return record->last(); }

  int endCount() { return record->count(); }
};

}  // namespace quill_test
