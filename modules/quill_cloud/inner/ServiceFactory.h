#pragma once

#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <memory>

namespace cloud {

// Makes a CloudStorageService whose scheduler restarts retried tasks after `retryInterval` instead
// of CloudStorageLogic::kRetryInterval. Internal to the library (not exported): the library's own
// tests use it so that a retry does not cost them two real seconds.
class ServiceFactory {
public:
  static std::unique_ptr<CloudStorageService> make(bool waitForConfig,
                                                   std::chrono::milliseconds retryInterval);
};

}  // namespace cloud
