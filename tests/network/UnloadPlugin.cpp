// A plug-in that uses quill_network, loaded and unloaded by UnloadProbe to unload the library
// while a transfer is in flight.

#include <quill_network/HttpClient.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

struct Arrival {
  std::mutex mutex;
  std::condition_variable changed;
  bool bytes = false;
};

}  // namespace

// Starts a download and returns 1 once its first bytes arrived (0 when none came in 20 seconds),
// leaving the transfer running.
extern "C" __attribute__((visibility("default"))) int quill_probe_start_download(const char* url,
                                                                                 const char* path) {
  auto arrival = std::make_shared<Arrival>();
  HttpClient::downloadFile(
      url, path,
      [arrival](double done, double) {
        if (done > 0) {
          std::lock_guard<std::mutex> lock(arrival->mutex);
          arrival->bytes = true;
          arrival->changed.notify_all();
        }
      },
      [](std::shared_ptr<HttpResponse>) {});
  std::unique_lock<std::mutex> lock(arrival->mutex);
  return arrival->changed.wait_for(lock, std::chrono::seconds(20), [&] { return arrival->bytes; })
             ? 1
             : 0;
}
