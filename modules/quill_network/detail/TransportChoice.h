#pragma once

#include <quill_network/detail/HttpTransport.h>

#include <memory>

namespace quill_network_detail {

// The engine that HttpClient hands every transfer to. Defined at link time: the shipped library
// links detail/DefaultTransport.cpp (always the libcurl engine); the project's test build of the
// library links testing/InstallableTransport.cpp, which lets a test put a scripted engine in its
// place. The shipped library thus has no way to redirect its transfers.
std::shared_ptr<HttpTransport> activeTransport();

}  // namespace quill_network_detail
