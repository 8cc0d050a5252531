#pragma once

#include <quill_network/detail/HttpTransport.h>

#include <memory>

namespace quill_network_detail {

// The process-wide libcurl engine, made on first use.
std::shared_ptr<HttpTransport> curlTransport();

}  // namespace quill_network_detail
