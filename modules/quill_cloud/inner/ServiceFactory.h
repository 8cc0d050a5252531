#pragma once

#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <memory>

namespace cloud {

class CloudStorageLogic;

// Makes a CloudStorageService whose scheduler restarts retried tasks after `retryInterval` instead
// of CloudStorageLogic::kRetryInterval. Internal to the library (not exported): the library's own
// tests use it so that a retry does not cost them two real seconds.
//
// The service has no constructor for this: a Windows DLL exports every member of an exported
// class, a private one too. Its public constructor asks makeLogic instead, which honours the
// interval that make() set for the constructor it is running on this thread.
class ServiceFactory {
public:
  static std::unique_ptr<CloudStorageService> make(bool waitForConfig,
                                                   std::chrono::milliseconds retryInterval);

  // The scheduler of a service being constructed on this thread.
  static std::shared_ptr<CloudStorageLogic> makeLogic(bool waitForConfig);
};

}  // namespace cloud
