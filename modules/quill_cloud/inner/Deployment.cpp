#include "inner/Deployment.h"

#include <cstdlib>

namespace cloud {
namespace {

std::string fromEnvironment(const char* name, const char* builtIn) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : builtIn;
}

}  // namespace

std::string Deployment::fileServiceHost() {
  return fromEnvironment("QUILL_FILE_SERVICE_HOST", QUILL_FILE_SERVICE_HOST_DEFAULT);
}

std::string Deployment::preFileServiceHost() {
  return fromEnvironment("QUILL_PRE_FILE_SERVICE_HOST", QUILL_PRE_FILE_SERVICE_HOST_DEFAULT);
}

std::string Deployment::staticHost() {
  return fromEnvironment("QUILL_STATIC_HOST", QUILL_STATIC_HOST_DEFAULT);
}

std::string Deployment::imageCdnHost() {
  return fromEnvironment("QUILL_IMAGE_CDN_HOST", QUILL_IMAGE_CDN_HOST_DEFAULT);
}

}  // namespace cloud
