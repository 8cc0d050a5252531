#pragma once

#if defined(_WIN32)
#include <winsock2.h>

#include <vector>

// The sockets cpp-httplib accepted in this process (Windows only: on Linux the service looks them
// up in /proc/self/fd). Entries are added as connections are accepted; a handle that is no longer
// a socket is dropped when the list is read, so the list stays as long as the open connections.
namespace quill_fileservice::detail {

void noteAcceptedSocket(SOCKET socket);

// The accepted sockets that are still sockets.
std::vector<SOCKET> acceptedSockets();

}  // namespace quill_fileservice::detail
#endif
