#include "detail/TransportChoice.h"

#include "detail/CurlTransport.h"

namespace quill_network_detail {

std::shared_ptr<HttpTransport> activeTransport() {
  return curlTransport();
}

}  // namespace quill_network_detail
