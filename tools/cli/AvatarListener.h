#pragma once

#include "Transfer.h"

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_cloud/AvatarManager.h>

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace quill_cli {

// Hears of finished avatars on the avatar manager's queue and ends their transfers.
class AvatarListener final : public IAvatarManagerListener {
public:
  void expect(const std::string& identifier, std::shared_ptr<Transfer> transfer) {
    std::lock_guard<std::mutex> lock(mutex);
    expected[identifier] = std::move(transfer);
  }

  void avatarDownloaded(const std::string& identifier) override {
    std::shared_ptr<Transfer> transfer;
    {
      std::lock_guard<std::mutex> lock(mutex);
      const auto found = expected.find(identifier);
      if (found == expected.end()) {
        return;
      }
      transfer = found->second;
    }
    const auto path = transfer->snapshot().path;
    const auto size = static_cast<std::int64_t>(FileUtils::fileSize(path));
    transfer->update([size](TransferState& state) {
      state.bytes = size;
      state.percent = 100;
    });
    transfer->end(2, "");
  }

private:
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<Transfer>> expected;
};

// Runs everything queued on `queue` so far, waiting for it to be done.
inline void drain(SerialQueue& queue) {
  std::promise<void> done;
  auto future = done.get_future();
  queue.dispatch([&done] { done.set_value(); });
  future.wait();
}

}  // namespace quill_cli
