#pragma once

#include "CloudTestSupport.h"
#include "ScriptedTransport.h"

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include "inner/ServiceFactory.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

namespace quill_test {

inline std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A service on a scripted transport, with a signed-in user whose directory is a fresh temp dir and
// a destination directory for downloads.
struct DownloadFixture {
  std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
  ScopedTransport installed{transport};
  TempDir userDirectory;
  TempDir destination;
  static constexpr std::chrono::milliseconds kRetryInterval = kShortRetryInterval;
  std::unique_ptr<CloudStorageService> service = cloud::ServiceFactory::make(true, kRetryInterval);

  std::string cacheDirectory() const {
    return FileUtils::appendComponent(userDirectory.path(), "cloud_storage_caches");
  }

  void signIn() {
    service->changeUser("app", "pin", userDirectory.path());
    service->changeAid("aid");
  }

  RecordedRequest download(int kind, const std::string& url, const std::string& fileName) {
    RecordedRequest recorded(false, kind);
    recorded.request->url = url;
    recorded.request->directory = destination.path();
    recorded.request->fileName = fileName;
    return recorded;
  }
};

}  // namespace quill_test
