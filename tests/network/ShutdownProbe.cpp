// A process that ends while a transfer is in flight, for ShutdownTest. It starts a download, waits
// until its first bytes arrived, then ends in the way the first argument names:
//   return        returns from main(): static destructors run with the transfer in flight
//   exit-network  calls std::exit() from the network thread, inside the progress function
// Arguments: <mode> <url> <download path>. Exit status 0 (return) or 7 (exit-network) when the
// process ended as meant; 2 when no byte arrived; anything else means it crashed.

#include <quill_network/HttpClient.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

namespace {

struct Arrival {
  std::mutex mutex;
  std::condition_variable changed;
  bool bytes = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: " << argv[0] << " return|exit-network <url> <path>\n";
    return 64;
  }
  const std::string mode = argv[1];
  auto arrival = std::make_shared<Arrival>();
  const bool exitFromNetworkThread = mode == "exit-network";
  HttpClient::downloadFile(
      argv[2], argv[3],
      [arrival, exitFromNetworkThread](double done, double) {
        if (done <= 0) {
          return;
        }
        if (exitFromNetworkThread) {
          std::exit(7);
        }
        std::lock_guard<std::mutex> lock(arrival->mutex);
        arrival->bytes = true;
        arrival->changed.notify_all();
      },
      [](std::shared_ptr<HttpResponse> response) {
        std::cerr << "unexpected completion: outcome " << response->outcome << ", "
                  << response->text << "\n";
      });
  std::unique_lock<std::mutex> lock(arrival->mutex);
  if (!arrival->changed.wait_for(lock, std::chrono::seconds(20), [&] { return arrival->bytes; })) {
    std::cerr << "no byte arrived\n";
    return 2;
  }
  std::cout << "bytes arrived; leaving with the transfer in flight" << std::endl;
  return 0;
}
