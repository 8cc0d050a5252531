#include <quill_cloud/CloudStorageService.h>

#include "inner/CloudStorageLogic.h"

CloudStorageService::CloudStorageService(bool waitForConfig)
    : logicPtr(std::make_shared<cloud::CloudStorageLogic>(waitForConfig)) {}

CloudStorageService::~CloudStorageService() {
  logicPtr->close();
  const bool onOwnQueue = logicPtr->getQueue()->isCurrentQueue();
  const auto lifetime = logicPtr->lifetime();
  logicPtr.reset();
  // A closure running on the queue may still hold the scheduler: wait until it lets go, so that
  // nothing of the service runs once this returns. On the queue itself that closure is our caller.
  if (!onOwnQueue) {
    lifetime->waitDestroyed();
  }
}

bool CloudStorageService::excuteRequest(std::shared_ptr<CloudStorageRequest> request) {
  return logicPtr->addRequest(std::move(request));
}

void CloudStorageService::cancelReqestWithID(const std::string& requestId) {
  logicPtr->cancelRequestWithId(requestId);
}

void CloudStorageService::cancelAllReqest() {
  logicPtr->cancelAllRequests();
}

void CloudStorageService::changeUser(const std::string& appId, const std::string& pin,
                                     const std::string& userDirectory) {
  logicPtr->changeUser(appId, pin, userDirectory);
}

void CloudStorageService::changeAid(const std::string& aid) {
  logicPtr->changeAid(aid);
}
