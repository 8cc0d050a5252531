#include "Commands.h"

#include "AvatarListener.h"
#include "Platform.h"
#include "PreChecks.h"
#include "Results.h"

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/AvatarManager.h>

#include <cstdio>
#include <filesystem>
#include <set>

namespace quill_cli {
namespace {

int usage(const std::string& error) {
  std::fprintf(stderr, "quill-cloud: %s\n", error.c_str());
  return kExitUsage;
}

// When a run with --timeout gives up; never for 0.
Clock::time_point deadlineAfter(double seconds) {
  if (seconds <= 0) {
    return Clock::time_point::max();
  }
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string absolute(const std::string& path) {
  std::error_code error;
  const auto made = std::filesystem::absolute(toPath(path), error);
  return error ? path : fromPath(made.lexically_normal());
}

// Waits for the transfers, printing each result as it ends; the exit status.
int follow(const CommonOptions& common, Session& session, const TransferList& transfers,
           Clock::time_point deadline) {
  Display display(Display::chooseMode(common.quiet || common.json));
  Reporter reporter(common.json);
  const bool completed = session.wait(
      transfers, display,
      [&reporter](const TransferState& state) { return reporter.announce(state); }, deadline);
  return reporter.exitStatus(!completed);
}

}  // namespace

int runDownload(const CommonOptions& common, const DownloadOptions& options) {
  std::string error;
  if (options.nameGiven && options.urls.size() != 1) {
    return usage("--name needs exactly one URL");
  }
  if (options.timeoutSeconds < 0) {
    return usage("--timeout cannot be negative");
  }
  for (const auto& url : options.urls) {
    if (!checkUrl(url, error)) {
      return usage(error);
    }
  }
  if (!prepareDirectory(options.directory, error)) {
    return usage(error);
  }
  const auto directory = absolute(options.directory);
  std::vector<std::string> names;
  std::set<std::string> seen;
  for (const auto& url : options.urls) {
    names.push_back(options.nameGiven ? options.name : nameFromUrl(url));
    if (!checkFileName(directory, names.back(), error)) {
      return usage(error);
    }
    if (!seen.insert(names.back()).second) {
      return usage("two downloads would both be saved as " + names.back());
    }
  }

  Session session(common, false);
  if (!session.ready()) {
    return kExitFailed;
  }
  TransferList transfers;
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    const auto destination = FileUtils::appendComponent(directory, names[i]);
    if (options.noClobber && FileUtils::fileExists(destination)) {
      TransferState refused =
          downloadTransferState(options.urls[i], directory, names[i], options.image ? 1 : 2);
      refused.cause = destination + " exists (--no-clobber); it was left as it is";
      auto transfer = std::make_shared<Transfer>(refused);
      transfer->end(CloudStorageResult::kFailed, "");
      transfers.push_back(transfer);
      continue;
    }
    transfers.push_back(
        session.download(options.urls[i], directory, names[i], options.image ? 1 : 2));
  }
  return follow(common, session, transfers, deadlineAfter(options.timeoutSeconds));
}

int runUpload(const CommonOptions& common, const UploadOptions& options) {
  if (!common.hasIdentity()) {
    return usage(
        "uploads need an identity: --app-id, --aid and --pin (or QUILL_APP_ID, QUILL_AID and "
        "QUILL_PIN)");
  }
  if (options.timeoutSeconds < 0) {
    return usage("--timeout cannot be negative");
  }
  for (const auto& file : options.files) {
    if (file.empty()) {
      return usage("a file name is empty");
    }
  }
  Session session(common, true);
  if (!session.ready()) {
    return kExitFailed;
  }
  TransferList transfers;
  for (const auto& file : options.files) {
    transfers.push_back(session.upload(file, options.kind));
  }
  return follow(common, session, transfers, deadlineAfter(options.timeoutSeconds));
}

int runAvatar(const CommonOptions& common, const AvatarOptions& options) {
  if (options.timeoutSeconds <= 0) {
    return usage("--timeout must be positive");
  }
  std::string error;
  for (const auto& url : options.urls) {
    if (!checkUrl(url, error)) {
      return usage(error);
    }
  }
  Session session(common, false);
  if (!session.ready()) {
    return kExitFailed;
  }
  const std::string root = options.root.empty()
                               ? FileUtils::appendComponent(session.userDirectory(), "avatars")
                               : options.root;

  // The listener outlives the manager and every closure of its queue (see the end).
  AvatarListener listener;
  auto queue = std::make_shared<SerialQueue>("quill-cloud avatars");
  auto manager = std::make_shared<AvatarManager>(queue, session.service());
  manager->addListener(&listener);
  if (!manager->createAvatarPath(root, options.user)) {
    std::fprintf(stderr, "quill-cloud: cannot make the avatar directories under %s\n",
                 root.c_str());
    return kExitFailed;
  }

  TransferList transfers;
  std::set<std::string> seen;
  const auto deadline = deadlineAfter(options.timeoutSeconds);
  for (const auto& url : options.urls) {
    // The manager makes one download per URL and announces it once.
    if (!seen.insert(url).second) {
      continue;
    }
    const TransferState initial = avatarTransferState(url, manager->avatarPath(url));
    auto transfer = std::make_shared<Transfer>(initial);
    transfer->requestId = TextUtils::UUID_String();
    transfer->deadline = deadline;
    listener.expect(transfer->requestId, transfer);
    transfers.push_back(transfer);

    const auto cached = manager->downloadAvatar(transfer->requestId, url);
    if (!cached.empty()) {
      const auto size = static_cast<std::int64_t>(FileUtils::fileSize(cached));
      transfer->update([&](TransferState& state) {
        state.path = cached;
        state.bytes = size;
        state.route = "cache";
      });
      transfer->end(CloudStorageResult::kSuccess, "already cached");
    } else if (initial.path.empty()) {
      transfer->end(CloudStorageResult::kFailed, "the avatar manager refused the URL");
    }
  }

  const int status = follow(common, session, transfers, Clock::time_point::max());

  // Nothing may call the listener once it is gone: drop the manager, then the service (no callback
  // starts after its destructor), then let the queue run whatever was already posted.
  manager.reset();
  session.shutdown();
  drain(*queue);
  return status;
}

}  // namespace quill_cli
