#include "detail/CurlTransport.h"

#include "detail/CurlEngine.h"

#include <new>

namespace quill_network_detail {
namespace {

// Stops the engine's network thread when the process exits or the library is unloaded. It is made
// on first use, after the logger and the rest of quill_base, so it runs before they go. Transfers
// in flight then are abandoned without completion (see CurlEngine).
struct ShutdownAtExit {
  CurlEngine* engine;
  ~ShutdownAtExit() { engine->shutdown(); }
};

}  // namespace

std::shared_ptr<HttpTransport> curlTransport() {
  // The engine lives in static storage and is never destroyed: a call that comes in after the
  // shutdown (from a later static destructor, or another thread while the process exits) finds a
  // stopped engine that drops the transfer, not freed memory. shutdown() releases everything the
  // engine holds on the heap, so nothing leaks when the library is unloaded either.
  alignas(CurlEngine) static unsigned char storage[sizeof(CurlEngine)];
  static CurlEngine* const engine = new (storage) CurlEngine;
  static ShutdownAtExit shutdownAtExit{engine};
  return std::shared_ptr<HttpTransport>(engine, [](HttpTransport*) {});
}

}  // namespace quill_network_detail
