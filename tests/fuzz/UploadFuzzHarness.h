#pragma once

// Drives one real cloud::UploadTask per fuzz input: the transfers it starts are recorded by a
// transport that moves no bytes, and the test plays the network thread by calling their
// completion functions with the reply under test. Findings are reported by abort(), which libFuzzer
// turns into a crash with the input saved.

#include "task/UploadTask.h"

#include <quill_base/SerialQueue.h>
#include <quill_network/HttpResponse.h>
#include <quill_network/detail/HttpTransport.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <unistd.h>

namespace quill_fuzz {

inline void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

// Records every transfer and never ends one by itself.
class RecordingTransport : public quill_network_detail::HttpTransport {
public:
  struct Call {
    std::string id;
    quill_network_detail::TransferSpec spec;
  };

  void start(const std::string& id, quill_network_detail::TransferSpec spec) override {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back({id, std::move(spec)});
  }
  void cancel(const std::string&) override {}

  std::vector<Call> take() {
    std::lock_guard<std::mutex> lock(mutex);
    auto taken = std::move(calls);
    calls.clear();
    return taken;
  }

private:
  std::mutex mutex;
  std::vector<Call> calls;
};

// The response a fuzz input stands for: the first byte picks the outcome and the status, the rest
// is the reply text.
inline std::shared_ptr<HttpResponse> responseFrom(const std::uint8_t* data, std::size_t size) {
  auto response = std::make_shared<HttpResponse>();
  if (size == 0) {
    return response;
  }
  static const int statuses[] = {200, 403, 500, 0};
  response->outcome = data[0] % 3;
  response->status = statuses[(data[0] / 3) % 4];
  response->text.assign(reinterpret_cast<const char*>(data + 1), size - 1);
  return response;
}

// One process-wide queue, transport and file to upload; one task per input.
class UploadFuzzHarness {
public:
  struct End {
    int count = 0;
    int code = 0;
    std::string message;
    std::string url;
  };

  static UploadFuzzHarness& instance() {
    static UploadFuzzHarness harness;
    return harness;
  }

  // Makes a task of `type` for a file named `fileName` and starts it; returns the transfers it
  // started (the signature request or the upload).
  std::vector<RecordingTransport::Call> start(int type, const std::string& fileName) {
    transport->take();
    end = End{};
    request = std::make_shared<CloudStorageRequest>(true);
    request->kind = type == 5 ? 3 : type;
    request->requestId = "fuzz";
    request->directory = directory.string();
    request->fileName = fileName;
    task = std::make_shared<cloud::UploadTask>("", type, request, queue,
                                               [this](std::shared_ptr<cloud::ITask> ended, bool) {
                                                 auto endedRequest = ended->getRequest();
                                                 std::lock_guard<std::mutex> lock(mutex);
                                                 ++end.count;
                                                 end.code = endedRequest->resultCode;
                                                 end.message = endedRequest->resultMessage;
                                                 end.url = endedRequest->url;
                                               });
    onQueue([this] { check(task->startWithConfig(&config), "the upload starts"); });
    return transport->take();
  }

  // Runs `work` on the queue and waits until it, and everything queued before it, has run.
  void onQueue(std::function<void()> work) {
    std::mutex doneMutex;
    std::condition_variable doneChanged;
    bool done = false;
    queue->dispatch([&] {
      work();
      std::lock_guard<std::mutex> lock(doneMutex);
      done = true;
      doneChanged.notify_all();
    });
    std::unique_lock<std::mutex> lock(doneMutex);
    check(doneChanged.wait_for(lock, std::chrono::seconds(30), [&] { return done; }),
          "the queue answers");
  }

  End ended() {
    std::lock_guard<std::mutex> lock(mutex);
    return end;
  }

  std::vector<RecordingTransport::Call> laterCalls() { return transport->take(); }

  // Drops the task on the queue, as the scheduler does.
  void release() {
    onQueue([this] { task.reset(); });
    request.reset();
  }

  ~UploadFuzzHarness() {
    queue.reset();
    quill_network_detail::installTransport(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
  UploadFuzzHarness(const UploadFuzzHarness&) = delete;
  UploadFuzzHarness& operator=(const UploadFuzzHarness&) = delete;

  CloudStorageConfig config;

private:
  UploadFuzzHarness() {
    quill_network_detail::installTransport(transport);
    directory = std::filesystem::temp_directory_path() /
                ("quill-fuzz-" + std::to_string(static_cast<long>(::getpid())));
    std::filesystem::create_directories(directory);
    for (const char* name : {"photo.png", "report.pdf", "clip.mov"}) {
      std::ofstream(directory / name, std::ios::binary) << "some bytes to upload";
    }
    config.appId = "app";
    config.aid = "aid";
    config.pin = "pin";
    config.uploadMode = 1;
    config.imageUploadUrl = "https://files.test/file/uploadImg.action";
    config.signatureUrl = "https://files.test/file/uploadBySignature.action";
    config.videoSignatureUrl = "https://files.test/file/getUploadVideoSignature.action";
  }

  std::shared_ptr<RecordingTransport> transport = std::make_shared<RecordingTransport>();
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("fuzz");
  std::filesystem::path directory;
  std::shared_ptr<CloudStorageRequest> request;
  std::shared_ptr<cloud::UploadTask> task;
  std::mutex mutex;
  End end;
};

inline bool hasScheme(const std::string& url) {
  return url.rfind("https://", 0) == 0 || url.rfind("http://", 0) == 0;
}

}  // namespace quill_fuzz
