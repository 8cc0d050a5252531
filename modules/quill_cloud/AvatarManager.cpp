#include <quill_cloud/AvatarManager.h>
#include <quill_cloud/CloudStorageService.h>

#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <thread>

namespace {

// Avatars are kept as squares of at most this many pixels a side.
constexpr int kAvatarSize = 200;

// A user id names directories below the avatar root, and often comes from a server: it must stay
// below the root. Refused: empty, absolute (a leading separator, or a drive on Windows), a ".."
// segment, a NUL.
bool isSafeUserId(const std::string& userId) {
  if (userId.empty() || userId.find('\0') != std::string::npos || userId.front() == '/' ||
      userId.front() == '\\') {
    return false;
  }
#if defined(_WIN32)
  if (userId.find(':') != std::string::npos) {
    return false;
  }
#endif
  std::size_t start = 0;
  while (start <= userId.size()) {
    const auto end = userId.find_first_of("/\\", start);
    const auto segment =
        userId.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (segment == "..") {
      return false;
    }
    if (end == std::string::npos) {
      break;
    }
    start = end + 1;
  }
  return true;
}

}  // namespace

AvatarManager::AvatarManager(std::shared_ptr<SerialQueue> queue,
                             std::shared_ptr<CloudStorageService> service)
    : queue(std::move(queue)), service(std::move(service)) {
  const unsigned cores = std::max(1u, std::min(4u, std::thread::hardware_concurrency()));
  for (unsigned i = 0; i < cores; ++i) {
    scalers.push_back(std::make_shared<SerialQueue>("avatar scaler"));
  }
}

AvatarManager::~AvatarManager() {
  // The queue and the service go first; the rest follows in reverse order of declaration. Scaling
  // still queued is dropped with the scalers.
  queue.reset();
  service.reset();
}

void AvatarManager::addListener(IAvatarManagerListener* newListener) {
  listener = newListener;
}

bool AvatarManager::createAvatarPath(const std::string& rootDirectory, const std::string& userId) {
  if (!isSafeUserId(userId)) {
    QLOG_ERROR("avatar user id refused, it would leave the avatar root: \""
               << TextUtils::printable(userId) << "\"");
    return false;
  }
  std::lock_guard<std::recursive_mutex> lock(mutex);
  const std::string temps = FileUtils::appendComponent(rootDirectory, "temps");
  if (!FileUtils::makeDirectory(temps)) {
    QLOG_ERROR("make user directory failed, " << temps);
    return false;
  }
  tempDirectory = temps;
  // The user and "avatars" form one component: downloads in flight are shared by every user under
  // the root, finished avatars are kept per user.
  const std::string avatars = FileUtils::appendComponent(rootDirectory, userId + "/" + "avatars");
  if (!FileUtils::makeDirectory(avatars)) {
    QLOG_ERROR("make user directory failed, " << avatars);
    return false;
  }
  avatarDirectory = avatars;
  return true;
}

std::string AvatarManager::avatarPath(const std::string& url) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  const std::string key = TextUtils::hashString(url);
  if (key.empty() || avatarDirectory.empty()) {
    return "";
  }
  return FileUtils::appendComponent(avatarDirectory, key + ".jpg");
}

std::string AvatarManager::avatarTempPath(const std::string& url) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  const std::string key = TextUtils::hashString(url);
  if (key.empty() || tempDirectory.empty()) {
    return "";
  }
  return FileUtils::appendComponent(tempDirectory, key);
}

std::string AvatarManager::downloadAvatar(const std::string& identifier, const std::string& url) {
  if (!service || url.empty()) {
    return "";
  }
  const std::string path = avatarPath(url);
  if (path.empty()) {
    return path;
  }
  if (FileUtils::fileExists(path)) {
    return path;
  }
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    if (pendingDownloads.count(url) != 0) {
      // In flight: the listener hears of it when it ends.
      return "";
    }
    // A stale download of an earlier run is dropped; one in flight is left alone, so this happens
    // only once the URL is known not to be pending.
    FileUtils::removeFile(avatarTempPath(url));
    pendingDownloads.emplace(url, identifier);
  }

  auto request = std::make_shared<CloudStorageRequest>(false);
  request->requestId = identifier;
  request->kind = CloudStorageKind::kImage;
  request->url = url;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    request->directory = tempDirectory;
  }
  request->fileName = TextUtils::hashString(url);
  std::weak_ptr<AvatarManager> weakSelf = weak_from_this();
  // The avatar is known by the URL asked for: an image download retried on the image CDN host
  // ends with the request's url rewritten.
  request->stateCallback = [weakSelf, url](std::shared_ptr<CloudStorageRequest> ended, int state) {
    if (state != CloudStorageState::kFinished || !ended) {
      return;
    }
    if (auto self = weakSelf.lock()) {
      self->downloadStateChanged(url, ended, 3);
    }
  };
  service->excuteRequest(request);
  return "";
}

void AvatarManager::downloadStateChanged(const std::string& url,
                                         std::shared_ptr<CloudStorageRequest> request, int) {
  if (!request) {
    return;
  }
  if (request->resultCode != CloudStorageResult::kSuccess) {
    weakAsync([this, url] { downloadComplete(url, false); });
    return;
  }
  // The scaler holds no reference to the manager, so that a manager let go by its host is never
  // kept alive (nor destroyed) by a scaling in progress; the outcome is posted as weakAsync would.
  std::weak_ptr<AvatarManager> weakSelf = weak_from_this();
  std::shared_ptr<SerialQueue> target = queue;
  const std::string temp = avatarTempPath(url);
  const std::string final = avatarPath(url);
  auto& scaler = scalers[nextScaler.fetch_add(1) % scalers.size()];
  scaler->dispatch([weakSelf, target, url, temp, final] {
    const bool scaled = scaleDownloaded(temp, final);
    if (target) {
      target->dispatch([weakSelf, url, scaled] {
        if (auto self = weakSelf.lock()) {
          self->downloadComplete(url, scaled);
        }
      });
    }
  });
}

bool AvatarManager::scaleDownloaded(const std::string& temp, const std::string& final) {
  bool success = false;
  if (FileUtils::fileExists(temp)) {
    success = ImageUtils::scaleImage(kAvatarSize, temp, final) && FileUtils::fileExists(final);
  }
  FileUtils::removeFile(temp);
  return success;
}

// The download has ended and, when it succeeded, has been scaled: forget it, and tell the listener
// when the avatar is ready.
void AvatarManager::downloadComplete(const std::string& url, bool success) {
  std::string identifier;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    // Failed downloads are forgotten too, so that a later downloadAvatar starts afresh.
    const auto found = pendingDownloads.find(url);
    if (found != pendingDownloads.end()) {
      identifier = found->second;
      pendingDownloads.erase(found);
    }
  }
  if (success && !identifier.empty() && listener) {
    listener->avatarDownloaded(identifier);
  }
}

void AvatarManager::uploadAvatarImage(const std::string& filePath,
                                      std::function<void(const std::string&)> callback) {
  if (!callback) {
    return;
  }
  if (!service || !FileUtils::fileExists(filePath)) {
    callback("");
    return;
  }
  auto request = std::make_shared<CloudStorageRequest>(true);
  request->requestId = TextUtils::UUID_String();
  request->kind = CloudStorageKind::kImage;
  request->directory = FileUtils::fileDir(filePath);
  request->fileName = FileUtils::fileName(filePath);
  std::weak_ptr<AvatarManager> weakSelf = weak_from_this();
  request->stateCallback = [weakSelf, callback](std::shared_ptr<CloudStorageRequest> ended,
                                                int state) {
    if (auto self = weakSelf.lock()) {
      self->uploadStateChanged(callback, ended, state);
    }
  };
  service->excuteRequest(request);
}

void AvatarManager::uploadStateChanged(std::function<void(const std::string&)> callback,
                                       std::shared_ptr<CloudStorageRequest> request, int state) {
  weakAsync([this, callback, request, state] {
    if (!request || state != CloudStorageState::kFinished) {
      return;
    }
    if (request->resultCode != CloudStorageResult::kSuccess) {
      callback("");
    } else {
      uploadComplete(callback, request->url);
    }
  });
}

void AvatarManager::uploadComplete(std::function<void(const std::string&)> callback,
                                   const std::string& url) {
  if (callback) {
    callback(url);
  }
}

void AvatarManager::cleanCache(unsigned long long value) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  FileUtils::removeFiles(avatarDirectory, value);
  FileUtils::removeFiles(tempDirectory, value);
}

void AvatarManager::weakAsync(std::function<void()> function) {
  if (!function) {
    throw std::bad_function_call();
  }
  std::weak_ptr<AvatarManager> weakSelf = weak_from_this();
  // The queue is released only by the destructor, which cannot run while a caller holds the
  // manager; copy it all the same, so that a completion posted while the last owner lets go on
  // another thread still finds it.
  std::shared_ptr<SerialQueue> target = queue;
  if (!target) {
    return;
  }
  target->dispatch([weakSelf, function] {
    if (auto self = weakSelf.lock()) {
      function();
    }
  });
}
