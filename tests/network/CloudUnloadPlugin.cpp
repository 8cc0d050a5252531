// A plug-in DLL that uses quill_cloud.dll, loaded and freed by CloudUnloadProbe (Windows): one
// download through CloudStorageService, then the service is destroyed before the entry returns.

#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

struct Outcome {
  std::mutex mutex;
  std::condition_variable changed;
  bool ended = false;
  int code = 0;
};

}  // namespace

// Downloads `url` to `directory`/`fileName` for a user whose directory is `userDirectory` (all
// UTF-8); 1 when it succeeded within a minute, 0 otherwise. The service is gone when it returns.
extern "C" __declspec(dllexport) int quill_probe_cloud_download(const char* url,
                                                                const char* userDirectory,
                                                                const char* directory,
                                                                const char* fileName) {
  auto outcome = std::make_shared<Outcome>();
  auto request = std::make_shared<CloudStorageRequest>(false);
  request->kind = CloudStorageKind::kFile;
  request->requestId = "unload-probe";
  request->url = url;
  request->directory = directory;
  request->fileName = fileName;
  request->stateCallback = [outcome](std::shared_ptr<CloudStorageRequest> ended, int) {
    std::lock_guard<std::mutex> lock(outcome->mutex);
    outcome->ended = true;
    outcome->code = ended->resultCode;
    outcome->changed.notify_all();
  };

  auto service = std::make_unique<CloudStorageService>(false);
  service->changeUser("app", "pin", userDirectory);
  if (!service->excuteRequest(request)) {
    return 0;
  }
  bool succeeded = false;
  {
    std::unique_lock<std::mutex> lock(outcome->mutex);
    succeeded = outcome->changed.wait_for(lock, std::chrono::minutes(1), [&] {
      return outcome->ended;
    }) && outcome->code == CloudStorageResult::kSuccess;
  }
  service.reset();
  return succeeded ? 1 : 0;
}
