#include "CloudEnvironment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace quill_test {
namespace {

quill_fileservice::FileService* running = nullptr;

// Registered before main runs; GoogleTest owns it from then on.
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new CloudEnvironment);

}  // namespace

void CloudEnvironment::SetUp() {
  data = std::make_unique<TempDir>();
  quill_fileservice::Options options;
  options.dataDirectory = data->path();
  options.tls = true;
  options.signingSecret = kSigningSecret;
  running = new quill_fileservice::FileService(options);
  ASSERT_TRUE(running->start()) << running->lastError();

  const auto port = std::to_string(running->port());
  setenv("QUILL_CA_BUNDLE", running->caCertificatePath().c_str(), 1);
  setenv("QUILL_FILE_SERVICE_HOST", ("127.0.0.1:" + port).c_str(), 1);
  setenv("QUILL_PRE_FILE_SERVICE_HOST", ("127.0.0.1:" + port).c_str(), 1);
  setenv("QUILL_STATIC_HOST", ("localhost:" + port).c_str(), 1);
  setenv("QUILL_IMAGE_CDN_HOST", ("127.0.0.1:" + port).c_str(), 1);
}

void CloudEnvironment::TearDown() {
  delete running;
  running = nullptr;
  data.reset();
}

quill_fileservice::FileService& CloudEnvironment::server() {
  return *running;
}

std::string CloudEnvironment::url(const std::string& path) {
  return "https://127.0.0.1:" + std::to_string(running->port()) + path;
}

std::string CloudEnvironment::staticHost() {
  return "localhost:" + std::to_string(running->port());
}

std::string CloudEnvironment::staticUrl(const std::string& path) {
  return "https://" + staticHost() + path;
}

void recordRequestsAtFirstEnd(Tracked& tracked, std::atomic<long>& seen, std::uint64_t baseline) {
  auto record = tracked.request->stateCallback;
  tracked.request->stateCallback = [&seen, baseline, record](
                                       std::shared_ptr<CloudStorageRequest> request, int state) {
    long unset = -1;
    seen.compare_exchange_strong(
        unset, static_cast<long>(CloudEnvironment::server().requestCount() - baseline));
    record(request, state);
  };
}

Tracked::Tracked(bool upload, int kind)
    : request(std::make_shared<CloudStorageRequest>(upload)), state(std::make_shared<State>()) {
  request->kind = kind;
  request->requestId = TextUtils::UUID_String();
  auto shared = state;
  request->stateCallback = [shared](std::shared_ptr<CloudStorageRequest> ended, int) {
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->code = ended->resultCode;
      shared->message = ended->resultMessage;
      shared->url = ended->url;
      shared->cause = ended->endCause;
    }
    shared->endings.add();
  };
  request->progressCallback = [shared](std::shared_ptr<CloudStorageRequest>, int percent) {
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->percents.push_back(percent);
  };
}

bool Tracked::waitEnded(std::chrono::milliseconds timeout) {
  return state->endings.waitFor(1, timeout);
}
int Tracked::endCount() const {
  return state->endings.value();
}
int Tracked::code() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->code;
}
std::string Tracked::message() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->message;
}
std::string Tracked::url() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->url;
}
CloudStorageEndCause Tracked::cause() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->cause;
}
std::vector<int> Tracked::percents() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->percents;
}

}  // namespace quill_test
