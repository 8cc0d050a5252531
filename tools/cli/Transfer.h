#pragma once

#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quill_cli {

using Clock = std::chrono::steady_clock;

// What the tool knows about one transfer at a given moment.
struct TransferState {
  // "download", "upload", "avatar"
  std::string operation;
  // "image", "file", "video"
  std::string kind;
  // Short name shown next to the progress bar.
  std::string label;
  // Where it comes from: a URL for downloads and avatars, a local path for uploads.
  std::string source;
  // Which way it went, filled in when it has ended (e.g. "file service", "signed object").
  std::string route;

  // Whole percent reported by the library; -1 until the first report.
  int percent = -1;
  // Bytes moved so far, as the library reports them; the file's size once it has ended.
  std::int64_t bytes = 0;
  // The whole size when known, else -1.
  std::int64_t totalBytes = -1;
  // Set at the first progress report: the transfer has left the library's queue and bytes move.
  bool started = false;
  Clock::time_point startedAt;

  bool ended = false;
  // The library's result code: 1 not ended, 2 success, 3 cancelled, negative failures.
  int code = 1;
  std::string message;
  // Why it ended, in words (the library's end cause, or the tool's own reason); empty on success.
  std::string cause;
  // How the library's last transfer for it went (method "" when none ran).
  CloudStorageTimeline timeline;
  // The tool's --timeout ran out and cancelled it.
  bool timedOut = false;
  // Upload: the stored object's URL. Download: the URL it came from in the end.
  std::string url;
  // The local file: download destination, upload source, cached avatar.
  std::string path;

  Clock::time_point submitted = Clock::now();
  Clock::time_point finished;

  // Seconds since the transfer started moving bytes (time spent waiting in the library's queue is
  // not counted); since it was handed over when it never reported progress.
  double seconds() const {
    const auto end = ended ? finished : Clock::now();
    return std::chrono::duration<double>(end - (started ? startedAt : submitted)).count();
  }
  bool succeeded() const { return ended && code == CloudStorageResult::kSuccess; }
};

// One transfer as the tool follows it. The library's callbacks write to it on the service's queue
// (the avatar listener on the tool's own queue); the main thread reads snapshots to draw progress.
class Transfer {
public:
  explicit Transfer(TransferState initial) : state(std::move(initial)) {}
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  TransferState snapshot() const {
    std::lock_guard<std::mutex> lock(mutex);
    return state;
  }
  void update(const std::function<void(TransferState&)>& change) {
    std::lock_guard<std::mutex> lock(mutex);
    change(state);
  }
  // Marks the transfer ended with this outcome, unless it has ended already. True when it did.
  bool end(int code, const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex);
    if (state.ended) {
      return false;
    }
    state.ended = true;
    state.code = code;
    state.message = message;
    state.finished = Clock::now();
    return true;
  }
  // Records a progress report: bytes so far, the whole size when known, the percentage.
  void progress(int percent, std::int64_t done, std::int64_t total) {
    std::lock_guard<std::mutex> lock(mutex);
    if (state.ended) {
      return;
    }
    if (!state.started) {
      state.started = true;
      state.startedAt = Clock::now();
    }
    state.percent = std::max(state.percent, percent);
    state.bytes = std::max(state.bytes, done);
    if (total > 0) {
      state.totalBytes = total;
    }
  }
  bool ended() const {
    std::lock_guard<std::mutex> lock(mutex);
    return state.ended;
  }

  // The request handed to the library; null for avatar downloads, whose requests the avatar
  // manager makes.
  std::shared_ptr<CloudStorageRequest> request;
  // The request id the library knows the transfer by (also for avatars), for cancelling it.
  std::string requestId;
  // Avatars only: when to give up waiting for the listener.
  Clock::time_point deadline = Clock::time_point::max();

private:
  mutable std::mutex mutex;
  TransferState state;
};

using TransferList = std::vector<std::shared_ptr<Transfer>>;

}  // namespace quill_cli
