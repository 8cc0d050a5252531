#include "inner/ServiceFactory.h"

#include "inner/CloudStorageLogic.h"

#include <optional>

namespace cloud {

namespace {

// Set by make() for the one constructor call it makes, on its own thread.
thread_local std::optional<std::chrono::milliseconds> constructingWithInterval;

}  // namespace

std::unique_ptr<CloudStorageService> ServiceFactory::make(bool waitForConfig,
                                                          std::chrono::milliseconds retryInterval) {
  constructingWithInterval = retryInterval;
  std::unique_ptr<CloudStorageService> service;
  try {
    service = std::make_unique<CloudStorageService>(waitForConfig);
  } catch (...) {
    constructingWithInterval.reset();
    throw;
  }
  constructingWithInterval.reset();
  return service;
}

std::shared_ptr<CloudStorageLogic> ServiceFactory::makeLogic(bool waitForConfig) {
  if (!constructingWithInterval) {
    return std::make_shared<CloudStorageLogic>(waitForConfig);
  }
  return std::make_shared<CloudStorageLogic>(waitForConfig, CloudStorageLogic::TaskFactory(),
                                             *constructingWithInterval);
}

}  // namespace cloud
