// Linked into quill_network_testing only, in place of detail/DefaultTransport.cpp: the seam through
// which the project's tests and benchmarks replace the libcurl engine with a scripted one.
#include "detail/TransportChoice.h"

#include "detail/CurlTransport.h"

#include <mutex>
#include <utility>

namespace quill_network_detail {
namespace {

std::mutex transportMutex;
std::shared_ptr<HttpTransport> installedTransport;

}  // namespace

std::shared_ptr<HttpTransport> activeTransport() {
  {
    std::lock_guard<std::mutex> lock(transportMutex);
    if (installedTransport) {
      return installedTransport;
    }
  }
  return curlTransport();
}

std::shared_ptr<HttpTransport> installTransport(std::shared_ptr<HttpTransport> transport) {
  std::lock_guard<std::mutex> lock(transportMutex);
  auto previous = std::move(installedTransport);
  installedTransport = std::move(transport);
  return previous;
}

}  // namespace quill_network_detail
