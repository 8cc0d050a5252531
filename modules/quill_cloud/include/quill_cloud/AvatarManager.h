#pragma once

#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/quill_cloud_export.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CloudStorageService;
class SerialQueue;

// Told when an avatar asked for with AvatarManager::downloadAvatar is ready in the cache.
class QUILL_CLOUD_EXPORT IAvatarManagerListener {
public:
  IAvatarManagerListener() = default;
  IAvatarManagerListener(const IAvatarManagerListener&) = default;
  IAvatarManagerListener(IAvatarManagerListener&&) = default;
  IAvatarManagerListener& operator=(const IAvatarManagerListener&) = default;
  IAvatarManagerListener& operator=(IAvatarManagerListener&&) = default;

  // Called on the manager's queue, once per avatar download that left a scaled file in the cache,
  // with the identifier given to downloadAvatar. Failures are not reported.
  virtual void avatarDownloaded(const std::string& identifier) = 0;

protected:
  // The manager never deletes its listener.
  ~IAvatarManagerListener() = default;
};

// A per-user cache of avatar images on disk, on top of CloudStorageService.
//
// An avatar is known by its URL. downloadAvatar answers at once with the cached file when there is
// one; otherwise it downloads the image into the shared "temps" directory, scales it to 200 pixels
// into "<user>/avatars/<key>.jpg" and tells the listener. A scaled avatar appears at its final path
// whole or not at all. uploadAvatarImage sends a local image as a new avatar and hands the stored
// file's URL to the caller.
//
// Threads: the public operations may be called from any thread. Every completion (listener calls,
// upload callbacks) runs on the queue given to the constructor. Completions still in flight when
// the manager is destroyed are dropped: nothing is called after the last owner has let go.
//
// Must be owned by a std::shared_ptr.
class QUILL_CLOUD_EXPORT AvatarManager : public std::enable_shared_from_this<AvatarManager> {
public:
  AvatarManager(std::shared_ptr<SerialQueue> queue, std::shared_ptr<CloudStorageService> service);
  ~AvatarManager();
  AvatarManager(const AvatarManager&) = delete;
  AvatarManager& operator=(const AvatarManager&) = delete;

  // Sets the one listener, replacing any earlier one. Not owned: it must outlive the manager, or
  // be replaced before it goes. Set it before the first download.
  void addListener(IAvatarManagerListener* listener);

  // Makes "<rootDirectory>/temps" and "<rootDirectory>/<userId>/avatars" (with missing parents).
  // False, with an error logged, when either cannot be made, and, with nothing made, for a user id
  // that would leave the root: empty, absolute, or holding a ".." segment or a NUL.
  bool createAvatarPath(const std::string& rootDirectory, const std::string& userId);

  // Where the scaled avatar of `url` is (or will be) kept; "" before createAvatarPath succeeded.
  std::string avatarPath(const std::string& url);

  // The cached avatar's path when it is on disk. Otherwise "" and, unless a download of the same
  // URL is already in flight, a download starts; the listener is told `identifier` when the scaled
  // avatar is ready. Safe to call from any thread.
  std::string downloadAvatar(const std::string& identifier, const std::string& url);

  // Uploads the image as an avatar. `callback` gets the stored file's URL, or "" on failure: at
  // once on this thread when the upload cannot start (no service, no such file), else on the
  // queue. An empty callback makes this do nothing.
  void uploadAvatarImage(const std::string& filePath,
                         std::function<void(const std::string&)> callback);

  // Keeps the avatar directory and the temporary directory each within `value` bytes, deleting the
  // least recently written files first.
  void cleanCache(unsigned long long value);

private:
  std::string avatarTempPath(const std::string& url);
  void downloadStateChanged(const std::string& url, std::shared_ptr<CloudStorageRequest> request,
                            int state);
  static bool scaleDownloaded(const std::string& temp, const std::string& final);
  void downloadComplete(const std::string& url, bool success);
  void uploadStateChanged(std::function<void(const std::string&)> callback,
                          std::shared_ptr<CloudStorageRequest> request, int state);
  void uploadComplete(std::function<void(const std::string&)> callback, const std::string& url);
  void weakAsync(std::function<void()> function);

  std::shared_ptr<SerialQueue> queue;
  std::shared_ptr<CloudStorageService> service;
  std::recursive_mutex mutex;
  std::string avatarDirectory;
  std::string tempDirectory;
  std::map<std::string, std::string> pendingDownloads;
  IAvatarManagerListener* listener = nullptr;
  // Guards pendingDownloads, which downloadAvatar (any thread) and downloadComplete (the queue)
  // both change.
  std::mutex pendingMutex;
  // Downloaded avatars are scaled on these, one per core, so that a burst of avatars is not
  // scaled one after another on the queue; the outcome goes back to the queue.
  std::vector<std::shared_ptr<SerialQueue>> scalers;
  std::atomic<unsigned> nextScaler{0};
};
