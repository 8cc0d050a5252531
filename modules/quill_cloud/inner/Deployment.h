#pragma once

#include <string>

namespace cloud {

// Host names of the deployment the library talks to (a host may carry a port). Each is built in
// (CMake cache variables of the same names) and can be overridden by an environment variable of the
// same name, read on every call.
struct Deployment {
  static std::string fileServiceHost();     // QUILL_FILE_SERVICE_HOST
  static std::string preFileServiceHost();  // QUILL_PRE_FILE_SERVICE_HOST
  static std::string staticHost();          // QUILL_STATIC_HOST: where image downloads come from
  static std::string imageCdnHost();        // QUILL_IMAGE_CDN_HOST: where failed ones are retried
};

}  // namespace cloud
