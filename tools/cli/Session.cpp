#include "Session.h"

#include "Platform.h"
#include "StopRequests.h"
#include "UserDirs.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace quill_cli {
namespace {

// How long to go on waiting for cancelled requests to end before giving up on them.
constexpr auto kCancelGrace = std::chrono::seconds(30);
constexpr std::chrono::milliseconds kTick(50);

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(toPath(path), error);
  return error ? path : fromPath(absolute.lexically_normal());
}

}  // namespace

std::string kindName(int kind) {
  switch (kind) {
    case CloudStorageKind::kImage:
      return "image";
    case CloudStorageKind::kFile:
      return "file";
    case CloudStorageKind::kVideo:
      return "video";
    default:
      return "kind " + std::to_string(kind);
  }
}

std::string uploadRoute(const std::string& url) {
  if (url.find("/objects/") != std::string::npos) {
    return "signature + object storage";
  }
  if (url.find("/vod/") != std::string::npos) {
    return "video signature + upload";
  }
  if (url.find("/files/") != std::string::npos) {
    return "file service";
  }
  return "-";
}

std::string hostOfUrl(const std::string& url) {
  auto start = url.find("//");
  start = start == std::string::npos ? 0 : start + 2;
  const auto end = url.find_first_of("/?#", start);
  return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

TransferState downloadTransferState(const std::string& url, const std::string& directory,
                                    const std::string& name, int kind) {
  TransferState initial;
  initial.operation = "download";
  initial.kind = kindName(kind);
  initial.label = name;
  initial.source = url;
  initial.url = url;
  initial.path = FileUtils::appendComponent(absolutePath(directory), name);
  initial.route = "GET " + hostOfUrl(url);
  return initial;
}

TransferState avatarTransferState(const std::string& url, const std::string& path) {
  TransferState initial;
  initial.operation = "avatar";
  initial.kind = "image";
  initial.label = nameFromUrl(url);
  initial.source = url;
  initial.url = url;
  initial.path = path;
  initial.route = "GET " + hostOfUrl(url) + ", scaled to 200";
  return initial;
}

std::string nameFromUrl(const std::string& url) {
  auto end = url.find_first_of("?#");
  std::string path = url.substr(0, end);
  const auto hostStart = path.find("//");
  if (hostStart != std::string::npos) {
    const auto pathStart = path.find('/', hostStart + 2);
    path = pathStart == std::string::npos ? std::string() : path.substr(pathStart);
  }
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  const auto slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    return "download";
  }
  return name;
}

Session::Session(const CommonOptions& options, bool uploads)
    : userDir(absolutePath(options.userDirectory)) {
  std::string error;
  if (!makePrivateDirectories(userDir, error)) {
    std::fprintf(stderr, "quill-cloud: cannot make the user directory: %s\n", error.c_str());
    return;
  }
  if (options.verbose) {
    Logger::logToConsole();
  } else if (const char* file = std::getenv("QUILL_LOG_FILE"); file != nullptr && *file != '\0') {
    logPath = file;
  } else {
    logPath = options.logFile;
    const bool opened = makePrivateDirectories(FileUtils::fileDir(logPath), error) &&
                        Logger::logToRollingFile(logPath, kLogFileBytes, kLogBackups, &error);
    if (!opened) {
      std::fprintf(stderr, "quill-cloud: not writing the log to %s: %s; logging is off\n",
                   logPath.c_str(), error.c_str());
      Logger::setLevel("OFF");
      logPath.clear();
    }
  }

  cloud = std::make_shared<CloudStorageService>(uploads);
  cloud->changeUser(options.appId, options.pin, userDir);
  if (!options.aid.empty()) {
    cloud->changeAid(options.aid);
  }
}

Session::~Session() = default;

std::shared_ptr<Transfer> Session::download(const std::string& url, const std::string& directory,
                                            const std::string& name, int kind, EndHook onEnd) {
  const TransferState initial = downloadTransferState(url, directory, name, kind);
  auto transfer = std::make_shared<Transfer>(initial);

  auto request = std::make_shared<CloudStorageRequest>(false);
  request->kind = kind;
  request->requestId = TextUtils::UUID_String();
  request->url = url;
  request->directory = absolutePath(directory);
  request->fileName = name;
  transfer->request = request;
  transfer->requestId = request->requestId;

  // The request must not own its transfer (the transfer holds the request).
  const std::weak_ptr<Transfer> weak = transfer;
  const std::string finalPath = initial.path;
  const std::string sourceHost = hostOfUrl(url);
  request->progressCallback = [weak](std::shared_ptr<CloudStorageRequest> moving, int percent) {
    if (auto self = weak.lock(); self && moving) {
      self->progress(percent, moving->bytesDone, moving->bytesTotal);
    }
  };
  request->stateCallback = [weak, finalPath, sourceHost, onEnd](
                               std::shared_ptr<CloudStorageRequest> ended, int) {
    auto self = weak.lock();
    if (!self || !ended) {
      return;
    }
    if (onEnd) {
      onEnd(*ended);
    }
    const bool ok = ended->resultCode == CloudStorageResult::kSuccess;
    // The library gives a finished download's size in bytesDone; the file itself says it too.
    const auto bytes = !ok ? 0
                       : ended->bytesDone > 0
                           ? ended->bytesDone
                           : static_cast<std::int64_t>(FileUtils::fileSize(finalPath));
    const std::string finalUrl = ended->url;
    const std::string cause = ended->endCause.text;
    const CloudStorageTimeline timeline = ended->endCause.timeline;
    self->update([&](TransferState& state) {
      state.url = finalUrl;
      state.bytes = bytes;
      state.cause = cause;
      state.timeline = timeline;
      if (ok) {
        state.percent = 100;
      }
      const auto host = hostOfUrl(finalUrl);
      state.route = host == sourceHost ? "GET " + host : "GET " + sourceHost + ", retry " + host;
    });
    self->end(ended->resultCode, ended->resultMessage);
  };

  if (!cloud->excuteRequest(request)) {
    transfer->end(CloudStorageResult::kFailed, "the library refused the request");
  }
  return transfer;
}

std::shared_ptr<Transfer> Session::upload(const std::string& path, int kind) {
  const auto absolute = absolutePath(path);
  TransferState initial;
  initial.operation = "upload";
  initial.kind = kindName(kind);
  initial.label = FileUtils::fileName(absolute);
  initial.source = absolute;
  initial.path = absolute;
  initial.totalBytes = static_cast<std::int64_t>(FileUtils::fileSize(absolute));
  auto transfer = std::make_shared<Transfer>(initial);

  auto request = std::make_shared<CloudStorageRequest>(true);
  request->kind = kind;
  request->requestId = TextUtils::UUID_String();
  request->directory = FileUtils::fileDir(absolute);
  request->fileName = FileUtils::fileName(absolute);
  transfer->request = request;
  transfer->requestId = request->requestId;

  const std::weak_ptr<Transfer> weak = transfer;
  const auto total = initial.totalBytes;
  request->progressCallback = [weak, total](std::shared_ptr<CloudStorageRequest> moving,
                                            int percent) {
    if (auto self = weak.lock(); self && moving) {
      // Before the library reports bytes, the percentage of the file's size stands in for them.
      const auto done = moving->bytesDone > 0 ? moving->bytesDone : total * percent / 100;
      self->progress(percent, done, moving->bytesTotal > 0 ? moving->bytesTotal : total);
    }
  };
  request->stateCallback = [weak](std::shared_ptr<CloudStorageRequest> ended, int) {
    auto self = weak.lock();
    if (!self || !ended) {
      return;
    }
    const bool ok = ended->resultCode == CloudStorageResult::kSuccess;
    const std::string url = ended->url;
    const auto size = ended->fileSize;
    const std::string cause = ended->endCause.text;
    const CloudStorageTimeline timeline = ended->endCause.timeline;
    self->update([&](TransferState& state) {
      state.url = url;
      state.cause = cause;
      state.timeline = timeline;
      if (ok) {
        state.percent = 100;
        state.bytes = size;
        state.route = uploadRoute(url);
      }
    });
    self->end(ended->resultCode, ended->resultMessage);
  };

  if (!cloud->excuteRequest(request)) {
    transfer->end(CloudStorageResult::kFailed, "the library refused the request");
  }
  return transfer;
}

void Session::cancelEverything(const TransferList& transfers, bool timedOut) {
  // Marked before the cancel is sent: the library may report the end at once, on its own queue.
  if (timedOut) {
    for (const auto& transfer : transfers) {
      transfer->update([](TransferState& state) {
        if (!state.ended) {
          state.timedOut = true;
        }
      });
    }
  }
  cloud->cancelAllReqest();
  for (const auto& transfer : transfers) {
    // Avatar downloads end through the avatar manager's listener, which hears of successes only: a
    // cancelled one is never announced, so it is counted as ended here.
    if (!transfer->request) {
      transfer->end(CloudStorageResult::kCancelled, "cancelled");
    }
  }
}

bool Session::wait(const TransferList& transfers, Display& display,
                   const Display::Announce& announce, Clock::time_point deadline) {
  display.follow(transfers);
  auto giveUp = Clock::time_point::max();
  bool cancelled = false;
  bool interrupted = false;

  // Bounded: once everything is cancelled, the loop ends at the latest at giveUp.
  for (;;) {
    const auto now = Clock::now();
    bool allEnded = true;
    for (const auto& transfer : transfers) {
      if (transfer->ended()) {
        continue;
      }
      if (now >= transfer->deadline) {
        cloud->cancelReqestWithID(transfer->requestId);
        transfer->end(CloudStorageResult::kFailed,
                      "no avatar in time: the download or the scaling failed");
        continue;
      }
      allEnded = false;
    }
    display.refresh(announce);
    if (allEnded) {
      break;
    }
    if (now >= giveUp) {
      for (const auto& transfer : transfers) {
        transfer->end(3, "cancelled, but the library did not confirm it in time");
      }
      continue;
    }
    if (now >= deadline && !cancelled) {
      cancelled = true;
      giveUp = now + kCancelGrace;
      cancelEverything(transfers, true);
    }

    if (quill_tools::waitForStopRequest(kTick) && !interrupted) {
      interrupted = true;
      wasInterrupted = true;
      if (!cancelled) {
        cancelled = true;
        giveUp = Clock::now() + kCancelGrace;
        cancelEverything(transfers, false);
      }
    }
  }
  return !interrupted;
}

}  // namespace quill_cli
