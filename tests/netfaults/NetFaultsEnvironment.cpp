#include "NetFaultsEnvironment.h"

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace quill_test {
namespace {

struct Running {
  std::unique_ptr<TempDir> directory;
  std::unique_ptr<TestCertificates> certificates;
  std::unique_ptr<quill_fileservice::FileService> server;
  std::unique_ptr<FaultProxy> proxy;
};
Running* running = nullptr;

// Registered before main runs; GoogleTest owns it from then on.
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new NetFaultsEnvironment);

unsigned seedFromEnvironment() {
  const char* value = std::getenv("QUILL_NETFAULTS_SEED");
  if (value != nullptr && *value != '\0') {
    return static_cast<unsigned>(std::strtoul(value, nullptr, 10));
  }
  return std::random_device{}();
}

}  // namespace

void NetFaultsEnvironment::SetUp() {
  running = new Running;
  running->directory = std::make_unique<TempDir>();
  const auto certificateDirectory = running->directory->file("certificates");
  std::filesystem::create_directories(certificateDirectory);
  running->certificates = std::make_unique<TestCertificates>(certificateDirectory);
  auto& certificates = *running->certificates;
  ASSERT_EQ(certificates.error(), "");
  TestCertificates::ServerSpec good;
  good.dnsNames = {"localhost"};
  good.ipAddresses = {"127.0.0.1"};
  const auto files = certificates.makeServer("good", good);
  ASSERT_EQ(certificates.error(), "");

  quill_fileservice::Options options;
  options.dataDirectory = running->directory->file("store");
  options.tls = true;
  options.certFile = files.certificate;
  options.keyFile = files.key;
  running->server = std::make_unique<quill_fileservice::FileService>(options);
  ASSERT_TRUE(running->server->start()) << running->server->lastError();

  const unsigned seed = seedFromEnvironment();
  std::printf("netfaults seed %u (QUILL_NETFAULTS_SEED)\n", seed);
  running->proxy = std::make_unique<FaultProxy>(running->server->port(), seed);
  ASSERT_TRUE(running->proxy->start());

  setenv("QUILL_CA_BUNDLE", certificates.trustedCaFile().c_str(), 1);
  pointHostsAt(proxyHost());
}

void NetFaultsEnvironment::TearDown() {
  if (running != nullptr) {
    running->proxy.reset();
    running->server.reset();
  }
  delete running;
  running = nullptr;
}

quill_fileservice::FileService& NetFaultsEnvironment::server() {
  return *running->server;
}
FaultProxy& NetFaultsEnvironment::proxy() {
  return *running->proxy;
}
TestCertificates& NetFaultsEnvironment::certificates() {
  return *running->certificates;
}
std::string NetFaultsEnvironment::scratch() {
  const auto path = running->directory->file(TextUtils::UUID_String());
  std::filesystem::create_directories(path);
  return path;
}
std::string NetFaultsEnvironment::proxyHost() {
  return "127.0.0.1:" + std::to_string(running->proxy->port());
}
std::string NetFaultsEnvironment::proxiedUrl(const std::string& path) {
  return "https://" + proxyHost() + path;
}
std::string NetFaultsEnvironment::proxiedStaticUrl(const std::string& path) {
  return "https://localhost:" + std::to_string(running->proxy->port()) + path;
}

void pointHostsAt(const std::string& hostPort) {
  setenv("QUILL_FILE_SERVICE_HOST", hostPort.c_str(), 1);
  setenv("QUILL_PRE_FILE_SERVICE_HOST", hostPort.c_str(), 1);
  setenv("QUILL_IMAGE_CDN_HOST", hostPort.c_str(), 1);
  // The static-content host must differ from the image CDN host for the image retry to rewrite
  // anything: the same server under its other name.
  const auto colon = hostPort.rfind(':');
  const auto port = colon == std::string::npos ? std::string() : hostPort.substr(colon);
  setenv("QUILL_STATIC_HOST", ("localhost" + port).c_str(), 1);
}

std::size_t filesBelow(const std::string& directory) {
  std::size_t count = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(directory, ec), end; !ec && it != end;
       it.increment(ec)) {
    count += it->is_regular_file(ec) ? 1 : 0;
  }
  return count;
}

std::string urlPath(const std::string& url) {
  const auto scheme = url.find("://");
  const auto start = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  return start == std::string::npos ? std::string() : url.substr(start);
}

Transfer::Transfer(bool upload, int kind)
    : request(std::make_shared<CloudStorageRequest>(upload)), state(std::make_shared<State>()) {
  request->kind = kind;
  request->requestId = TextUtils::UUID_String();
  auto shared = state;
  request->stateCallback = [shared](std::shared_ptr<CloudStorageRequest> ended, int) {
    const bool exists = !ended->isUpload && FileUtils::fileExists(FileUtils::appendComponent(
                                                ended->directory, ended->fileName));
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->code = ended->resultCode;
      shared->message = ended->resultMessage;
      shared->url = ended->url;
      shared->fileAtEnd = exists;
      shared->endedAt = std::chrono::steady_clock::now();
    }
    shared->endings.add();
  };
}

bool Transfer::waitEnded(std::chrono::milliseconds timeout) {
  return state->endings.waitFor(1, timeout);
}
int Transfer::endings() const {
  return state->endings.value();
}
int Transfer::code() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->code;
}
std::string Transfer::message() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->message;
}
std::string Transfer::url() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->url;
}
std::chrono::steady_clock::time_point Transfer::endedAt() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->endedAt;
}
bool Transfer::fileAtEnd() const {
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->fileAtEnd;
}

}  // namespace quill_test
