#include <quill_cloud/CloudStorageService.h>

#include "inner/CloudStorageLogic.h"
#include "inner/ServiceFactory.h"

#include <utility>

CloudStorageService::CloudStorageService(bool waitForConfig)
    : logicPtr(cloud::ServiceFactory::makeLogic(waitForConfig)) {}

CloudStorageService::~CloudStorageService() {
  // Nothing of the service runs once this returns (unless it is called from one of its own
  // callbacks, whose closure is then the last thing the scheduler runs).
  cloud::CloudStorageLogic::shutDown(std::move(logicPtr));
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
