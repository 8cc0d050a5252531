#include "detail/EasyHandlePool.h"

#include <utility>

namespace quill_network_detail {

EasyHandle EasyHandlePool::take() {
  if (idle.empty()) {
    return EasyHandle(curl_easy_init());
  }
  EasyHandle handle = std::move(idle.back());
  idle.pop_back();
  return handle;
}

void EasyHandlePool::give(EasyHandle handle) {
  if (!handle || idle.size() >= keep) {
    return;  // a handle not kept is freed as it goes
  }
  // Options, and what they point to, are forgotten; connections stay with the multi handle and TLS
  // sessions with the share handle, as for a new handle.
  curl_easy_reset(handle.get());
  idle.push_back(std::move(handle));
}

}  // namespace quill_network_detail
