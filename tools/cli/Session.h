#pragma once

#include "Display.h"
#include "Transfer.h"

#include <quill_cloud/CloudStorageService.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace quill_cli {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;

// Options every command shares; environment variables fill in what the command line leaves out.
struct CommonOptions {
  std::string appId;
  std::string aid;
  std::string pin;
  // The library's user directory (its cache): --user-dir, else the XDG cache directory.
  std::string userDirectory;
  // The library's log, a rolling file (see UserDirs.h); unused with --verbose or QUILL_LOG_FILE.
  std::string logFile;
  bool json = false;
  bool verbose = false;
  bool quiet = false;

  bool hasIdentity() const { return !appId.empty() && !aid.empty() && !pin.empty(); }
};

// The log rolls over at this size, keeping this many older files (quill-cloud.log.1 ...).
constexpr long kLogFileBytes = 5L * 1024 * 1024;
constexpr int kLogBackups = 3;

// The library as the tool uses it: one CloudStorageService, set up for the user, and the
// transfers handed to it.
class Session {
public:
  // Makes the user directory (0700), sends the library's log to the rolling log file (or to the
  // console with verbose, or wherever QUILL_LOG_FILE says), then makes the service. `uploads`:
  // the run uploads, so the service holds uploads until the identity is complete; a run without
  // uploads must not ask for that (the library would hold an image download's retry too).
  Session(const CommonOptions& options, bool uploads);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::shared_ptr<CloudStorageService>& service() const { return cloud; }
  const std::string& userDirectory() const { return userDir; }
  // False when the user directory could not be made (the reason was printed).
  bool ready() const { return cloud != nullptr; }
  std::string logFile() const { return logPath; }

  // Called on the service's queue when a request has ended, before its transfer is marked ended.
  using EndHook = std::function<void(const CloudStorageRequest&)>;

  // Hands a download to the library: `url` into `directory`/`name`, of a CloudStorageKind.
  std::shared_ptr<Transfer> download(const std::string& url, const std::string& directory,
                                     const std::string& name, int kind, EndHook onEnd = nullptr);
  // Hands an upload of a CloudStorageKind to the library.
  std::shared_ptr<Transfer> upload(const std::string& path, int kind);

  // Waits until every transfer has ended, drawing progress and telling `announce` of each end as it
  // happens. On a stop request (Ctrl-C, SIGTERM: see Platform.h), or at `deadline` (the transfers
  // still running are then marked timed out), cancels everything (cancelAllReqest) and goes on
  // waiting until every request has ended. True unless interrupted by a stop request.
  bool wait(const TransferList& transfers, Display& display,
            const Display::Announce& announce = nullptr,
            Clock::time_point deadline = Clock::time_point::max());

  bool interrupted() const { return wasInterrupted; }

  // Lets go of the service: once it is destroyed no callback of it starts any more.
  void shutdown() { cloud.reset(); }

private:
  void cancelEverything(const TransferList& transfers, bool timedOut);

  std::string userDir;
  std::string logPath;
  std::shared_ptr<CloudStorageService> cloud;
  bool wasInterrupted = false;
};

// "upload", "image" ... for a kind number.
std::string kindName(int kind);
// The route a finished upload took, told by the path of the URL it got.
std::string uploadRoute(const std::string& url);
// The last path component of a URL, without query; "download" when there is none.
std::string nameFromUrl(const std::string& url);
// "host:port" of a URL.
std::string hostOfUrl(const std::string& url);
// The starting state of a download of `url` into `directory`/`name`.
TransferState downloadTransferState(const std::string& url, const std::string& directory,
                                    const std::string& name, int kind);
// The starting state of an avatar fetched from `url` and cached at `path`.
TransferState avatarTransferState(const std::string& url, const std::string& path);

}  // namespace quill_cli
