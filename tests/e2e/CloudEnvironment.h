#pragma once

#include "TestFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/CloudStorageService.h>
#include <quill_fileservice/FileService.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quill_test {

// One reference file service over HTTPS for the whole test program, with the library pointed at
// it: the file service host is 127.0.0.1:<port>, the static-content host localhost:<port> and the
// image CDN host 127.0.0.1:<port> (the same server under two names), the CA in QUILL_CA_BUNDLE.
class CloudEnvironment : public ::testing::Environment {
public:
  static constexpr const char* kSigningSecret = "end-to-end secret";

  void SetUp() override;
  void TearDown() override;

  static quill_fileservice::FileService& server();
  // "https://127.0.0.1:<port>" + path
  static std::string url(const std::string& path);
  // "https://localhost:<port>" + path: the static-content host
  static std::string staticUrl(const std::string& path);
  static std::string staticHost();

private:
  std::unique_ptr<TempDir> data;
};

class Tracked;

// Records, in `seen`, how many requests the server had received since `baseline` when the first of
// the watched requests ended (a request's end is reported before the next waiting one starts).
void recordRequestsAtFirstEnd(Tracked& tracked, std::atomic<long>& seen, std::uint64_t baseline);

// A request whose end is recorded: code, message, url and cause at the time of stateCallback.
class Tracked {
public:
  Tracked(bool upload, int kind);

  std::shared_ptr<CloudStorageRequest> request;

  bool waitEnded(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  int endCount() const;
  int code() const;
  std::string message() const;
  std::string url() const;
  CloudStorageEndCause cause() const;
  std::vector<int> percents() const;

private:
  struct State {
    std::mutex mutex;
    int code = 0;
    std::string message;
    std::string url;
    CloudStorageEndCause cause;
    std::vector<int> percents;
    EventCounter endings;
  };
  std::shared_ptr<State> state;
};

}  // namespace quill_test
