#pragma once

namespace quill_network_detail {

// Lets the receive buffers that libcurl allocates and frees for every transfer be used again from
// the heap instead of going back to the system between transfers. Called once, before the first
// transfer; does nothing where the C library needs no such help.
void keepReceiveBuffersInTheHeap();

}  // namespace quill_network_detail
