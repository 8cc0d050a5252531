#include "inner/ServiceFactory.h"

#include "inner/CloudStorageLogic.h"

namespace cloud {

std::unique_ptr<CloudStorageService> ServiceFactory::make(bool waitForConfig,
                                                          std::chrono::milliseconds retryInterval) {
  // Not make_unique: the constructor is private, and this class is its friend.
  return std::unique_ptr<CloudStorageService>(
      new CloudStorageService(std::make_shared<CloudStorageLogic>(
          waitForConfig, CloudStorageLogic::TaskFactory(), retryInterval)));
}

}  // namespace cloud
