#pragma once

#include "detail/CurlHandles.h"

#include <cstddef>
#include <vector>

namespace quill_network_detail {

// The easy handles of ended transfers, kept for the next ones. Making a handle clears several
// kilobytes and sets every default anew, and a stream of small downloads made and freed one per
// file; a reset handle (curl_easy_reset) is in the state of a new one and costs neither. At most
// `keep` handles wait here; the network thread alone uses the pool.
class EasyHandlePool {
public:
  explicit EasyHandlePool(std::size_t keep) : keep(keep) {}
  EasyHandlePool(const EasyHandlePool&) = delete;
  EasyHandlePool& operator=(const EasyHandlePool&) = delete;

  // A handle with every option at its default; empty when libcurl could not make one.
  EasyHandle take();
  // Takes back the handle of a transfer that is out of the multi handle. It is reset at once, so
  // that it no longer points at anything of the transfer that used it.
  void give(EasyHandle handle);
  // Frees every kept handle.
  void clear() { std::vector<EasyHandle>().swap(idle); }

private:
  std::size_t keep;
  std::vector<EasyHandle> idle;
};

}  // namespace quill_network_detail
