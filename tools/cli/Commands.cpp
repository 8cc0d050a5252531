#include "Commands.h"

#include "AvatarListener.h"

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>
#include <quill_cloud/AvatarManager.h>

#include <json/json.h>

#include <cstdio>
#include <map>
#include <set>

namespace quill_cli {
namespace {

std::string toJsonLine(const TransferState& state) {
  Json::Value value(Json::objectValue);
  value["operation"] = state.operation;
  value["kind"] = state.kind;
  value["source"] = state.source;
  value["code"] = state.code;
  value["ok"] = state.succeeded();
  value["message"] =
      state.message.empty() && !state.succeeded() ? describeCode(state.code) : state.message;
  value["url"] = state.url;
  value["path"] = state.path;
  value["route"] = state.route;
  value["bytes"] = static_cast<Json::Int64>(state.bytes);
  value["seconds"] = state.seconds();
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

int reportResults(const CommonOptions& common, const TransferList& transfers, bool interrupted) {
  bool failed = false;
  for (const auto& transfer : transfers) {
    const auto state = transfer->snapshot();
    failed = failed || !state.succeeded();
    if (common.json) {
      std::printf("%s\n", toJsonLine(state).c_str());
      continue;
    }
    if (state.succeeded()) {
      std::printf("%s\n", (state.operation == "upload" ? state.url : state.path).c_str());
      continue;
    }
    std::fprintf(stderr, "quill-cloud: %s %s failed: result %d (%s)%s%s\n", state.operation.c_str(),
                 state.source.c_str(), state.code, describeCode(state.code).c_str(),
                 state.message.empty() ? "" : ": ", state.message.c_str());
  }
  std::fflush(stdout);
  if (interrupted) {
    std::fprintf(stderr, "quill-cloud: interrupted; every transfer was cancelled\n");
    return kExitInterrupted;
  }
  return failed ? kExitFailed : kExitOk;
}

int runDownload(const CommonOptions& common, const DownloadOptions& options) {
  if (!options.name.empty() && options.urls.size() != 1) {
    std::fprintf(stderr, "quill-cloud: --name needs exactly one URL\n");
    return kExitUsage;
  }
  std::vector<std::string> names;
  std::set<std::string> seen;
  for (const auto& url : options.urls) {
    names.push_back(options.name.empty() ? nameFromUrl(url) : options.name);
    if (!seen.insert(names.back()).second) {
      std::fprintf(stderr, "quill-cloud: two downloads would both be saved as %s\n",
                   names.back().c_str());
      return kExitUsage;
    }
  }
  if (!FileUtils::makeDirectory(options.directory)) {
    std::fprintf(stderr, "quill-cloud: cannot make the directory %s\n", options.directory.c_str());
    return kExitFailed;
  }

  Session session(common);
  Display display(Display::chooseMode(common.quiet || common.json));
  TransferList transfers;
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    transfers.push_back(
        session.download(options.urls[i], options.directory, names[i], options.image ? 1 : 2));
  }
  const bool completed = session.wait(transfers, display);
  return reportResults(common, transfers, !completed);
}

int runUpload(const CommonOptions& common, const UploadOptions& options) {
  if (!common.hasIdentity()) {
    std::fprintf(stderr,
                 "quill-cloud: uploads need an identity: --app-id, --aid and --pin (or "
                 "QUILL_APP_ID, QUILL_AID and QUILL_PIN)\n");
    return kExitUsage;
  }
  Session session(common);
  Display display(Display::chooseMode(common.quiet || common.json));
  TransferList transfers;
  for (const auto& file : options.files) {
    transfers.push_back(session.upload(file, options.kind));
  }
  const bool completed = session.wait(transfers, display);
  return reportResults(common, transfers, !completed);
}

int runAvatar(const CommonOptions& common, const AvatarOptions& options) {
  if (options.timeoutSeconds <= 0) {
    std::fprintf(stderr, "quill-cloud: --timeout must be positive\n");
    return kExitUsage;
  }
  Session session(common);
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

  Display display(Display::chooseMode(common.quiet || common.json));
  TransferList transfers;
  std::set<std::string> seen;
  const auto timeout = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.timeoutSeconds));
  for (const auto& url : options.urls) {
    // The manager makes one download per URL and announces it once.
    if (!seen.insert(url).second) {
      continue;
    }
    const TransferState initial = avatarTransferState(url, manager->avatarPath(url));
    auto transfer = std::make_shared<Transfer>(initial);
    transfer->requestId = TextUtils::UUID_String();
    transfer->deadline = Clock::now() + timeout;
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
      transfer->end(2, "already cached");
    } else if (initial.path.empty()) {
      transfer->end(-1, "the avatar manager refused the URL");
    }
  }

  const bool completed = session.wait(transfers, display);
  const int status = reportResults(common, transfers, !completed);

  // Nothing may call the listener once it is gone: drop the manager, then the service (no callback
  // starts after its destructor), then let the queue run whatever was already posted.
  manager.reset();
  session.shutdown();
  drain(*queue);
  return status;
}

}  // namespace quill_cli
