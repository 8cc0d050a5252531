#include "detail/ReceiveBufferHeap.h"

#include "detail/TransferSettings.h"

#include <cstdlib>

namespace quill_network_detail {

// libcurl allocates a receive buffer of CURLOPT_BUFFERSIZE bytes (512 KiB here) for every transfer
// and frees it when the transfer ends. glibc keeps freed memory at the top of a heap only up to its
// trim threshold, which starts at twice the largest block it has given back to the system (about
// 1 MiB once the first buffer has gone): with a few transfers at once, the buffers freed together
// went back to the system, and the next transfers' buffers were memory the kernel had to hand out
// again, a page fault for every page a reply was copied into. On a stream of small downloads that
// was most of the page faults and more than a tenth of the CPU time.
//
// glibc raises that threshold by itself whenever it gives a larger block back, as it does in this
// library after one large download. One block of four buffers, allocated and freed once, puts every
// process in that state from the start: the threshold becomes eight buffers' size (4 MiB), room for
// the buffers of every transfer that may run at once (four downloads, two uploads), and freed
// buffers stay in the heap to be used again. Nothing else about allocation changes; at most that
// much freed memory stays with the process.
void keepReceiveBuffersInTheHeap() {
#if defined(__GLIBC__)
  constexpr std::size_t kBlockBytes = 4 * static_cast<std::size_t>(kReceiveBufferBytes);
  // Through a volatile pointer, so that the pair is not optimised away.
  void* volatile block = std::malloc(kBlockBytes);
  std::free(block);
#endif
}

}  // namespace quill_network_detail
