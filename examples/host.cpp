// A minimal host of quill_cloud: uploads a file and downloads it back.
//
//   quill-host-example FILE DIRECTORY
//
// The endpoints come from the deployment variables (QUILL_FILE_SERVICE_HOST, QUILL_CA_BUNDLE, ...),
// the identity from QUILL_APP_ID, QUILL_AID and QUILL_PIN. Exit status 0 when the file came back
// whole.
#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>

namespace {

// Hands one request to the service and waits for its end; the callbacks run on the library's
// queue, so the outcome is passed back under a lock.
bool runRequest(CloudStorageService& service, const std::shared_ptr<CloudStorageRequest>& request) {
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  request->requestId = TextUtils::UUID_String();
  request->progressCallback = [](std::shared_ptr<CloudStorageRequest> r, int percent) {
    std::printf("  %s %d%%\n", r->isUpload ? "upload" : "download", percent);
  };
  request->stateCallback = [&](std::shared_ptr<CloudStorageRequest>, int) {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
    ended.notify_all();
  };
  if (!service.excuteRequest(request)) {
    return false;
  }
  std::unique_lock<std::mutex> lock(mutex);
  if (!ended.wait_for(lock, std::chrono::minutes(5), [&] { return done; })) {
    service.cancelReqestWithID(request->requestId);
    ended.wait(lock, [&] { return done; });
  }
  return request->resultCode == 2;
}

std::string environment(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FILE DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string file = argv[1];
  const std::string directory = argv[2];

  CloudStorageService service(true);
  service.changeUser(environment("QUILL_APP_ID", "example-app"),
                     environment("QUILL_PIN", "example-pin"), directory);
  service.changeAid(environment("QUILL_AID", "example-account"));

  auto upload = std::make_shared<CloudStorageRequest>(true);
  upload->kind = 2;  // a file
  upload->directory = FileUtils::fileDir(file);
  upload->fileName = FileUtils::fileName(file);
  if (!runRequest(service, upload)) {
    std::fprintf(stderr, "upload failed: %d %s\n", upload->resultCode,
                 upload->resultMessage.c_str());
    return 1;
  }
  std::printf("uploaded to %s\n", upload->url.c_str());

  auto download = std::make_shared<CloudStorageRequest>(false);
  download->kind = 2;
  download->url = upload->url;
  download->directory = directory;
  download->fileName = "copy-of-" + FileUtils::fileName(file);
  if (!runRequest(service, download)) {
    std::fprintf(stderr, "download failed: %d %s\n", download->resultCode,
                 download->resultMessage.c_str());
    return 1;
  }
  const auto copy = FileUtils::appendComponent(directory, download->fileName);
  const bool same = contents(copy) == contents(file);
  std::printf("downloaded to %s: %s\n", copy.c_str(), same ? "identical" : "DIFFERENT");
  return same ? 0 : 1;
}
