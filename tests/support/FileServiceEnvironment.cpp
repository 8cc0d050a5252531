#include "FileServiceEnvironment.h"
#include "Environment.h"

#include <quill_base/TextUtils.h>

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace quill_test {

FileServiceEnvironment::FileServiceEnvironment(Settings settings) : settings(std::move(settings)) {}

void FileServiceEnvironment::SetUp() {
  directory = std::make_unique<TempDir>();
  auto options = settings.options;
  options.dataDirectory = directory->file("store");
  prepare(options);
  if (::testing::Test::HasFatalFailure()) {
    return;
  }
  running = std::make_unique<quill_fileservice::FileService>(options);
  if (!running->start()) {
    const auto error = running->lastError();
    running.reset();
    FAIL() << "file service (" << (options.tls ? "HTTPS" : "HTTP") << "): " << error;
  }
  if (settings.trustItsCa) {
    ASSERT_FALSE(running->caCertificatePath().empty()) << "the file service made no CA";
    quill_test::setEnvironment("QUILL_CA_BUNDLE", running->caCertificatePath().c_str());
  }
  if (settings.pointHostsHere) {
    pointHostsAt(running->hostPort());
  }
}

void FileServiceEnvironment::TearDown() {
  running.reset();
  // GoogleTest deletes its environments late, if at all: the stored files go here.
  directory.reset();
}

quill_fileservice::FileService& FileServiceEnvironment::service() const {
  if (!running) {
    throw std::logic_error("the file service is not running");
  }
  return *running;
}

std::string FileServiceEnvironment::freshDirectory() const {
  if (!directory) {
    throw std::logic_error("the file service environment is not set up");
  }
  const auto path = directory->file(TextUtils::UUID_String());
  std::filesystem::create_directories(path);
  return path;
}

void pointHostsAt(const std::string& hostPort) {
  quill_test::setEnvironment("QUILL_FILE_SERVICE_HOST", hostPort.c_str());
  quill_test::setEnvironment("QUILL_PRE_FILE_SERVICE_HOST", hostPort.c_str());
  quill_test::setEnvironment("QUILL_IMAGE_CDN_HOST", hostPort.c_str());
  const auto colon = hostPort.rfind(':');
  const auto port = colon == std::string::npos ? std::string() : hostPort.substr(colon);
  quill_test::setEnvironment("QUILL_STATIC_HOST", ("localhost" + port).c_str());
}

}  // namespace quill_test
