#pragma once

#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/quill_cloud_export.h>

#include <memory>
#include <string>

namespace cloud {
class CloudStorageLogic;
}  // namespace cloud

// The entry point of the library: the host makes one, tells it who the user is and hands it
// requests. At most 2 uploads and 4 downloads run at once; the others wait, oldest first.
//
// Every operation may be called from any thread and returns at once: the work runs on the service's
// own serial queue, where the request callbacks are called too.
//
// Destroying the service while transfers run is safe: transfers in flight are abandoned, nothing is
// reported, and no callback starts once the destructor has returned. (Destroying it from inside one
// of its own callbacks is allowed; the callbacks still due are then not called.)
class QUILL_CLOUD_EXPORT CloudStorageService {
public:
  // `waitForConfig`: true makes uploads wait until appId, aid and pin are all set.
  explicit CloudStorageService(bool waitForConfig);
  ~CloudStorageService();
  CloudStorageService(const CloudStorageService&) = delete;
  CloudStorageService& operator=(const CloudStorageService&) = delete;

  // Queues the request. False for a null request or an unknown (isUpload, kind) pair. True does not
  // promise a task: a request whose id is already known is dropped on the queue, without callback.
  bool excuteRequest(std::shared_ptr<CloudStorageRequest> request);

  // Cancels the request with that id (resultCode CloudStorageResult::kCancelled); unknown ids are
  // ignored.
  void cancelReqestWithID(const std::string& requestId);
  void cancelAllReqest();

  // A user signed in: sets the application id and pin, and makes the per-user cache directory
  // "cloud_storage_caches" below userDirectory (which must exist).
  void changeUser(const std::string& appId, const std::string& pin,
                  const std::string& userDirectory);
  // The account id became known; held uploads may start.
  void changeAid(const std::string& aid);

private:
  std::shared_ptr<cloud::CloudStorageLogic> logicPtr;
};
