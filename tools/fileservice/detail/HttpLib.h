#pragma once

// The one place that includes cpp-httplib. The build defines the CPPHTTPLIB_* feature macros that
// the system's compiled library was built with (see CMakeLists.txt), so the classes declared here
// have the library's layout.
#if defined(_WIN32)
// On Windows there is no /proc/self/fd to find the connections the server accepted, so the
// service keeps a list of them (detail/AcceptedSockets.h). cpp-httplib calls accept() unqualified
// from inside namespace httplib: this declaration, seen before its code, is the one it calls.
#include <winsock2.h>

namespace httplib {
SOCKET accept(SOCKET listening, sockaddr* address, int* addressLength);
}  // namespace httplib

// Winsock keeps the first backlog a socket listens with (a second listen() does not widen it, see
// widenBacklog) and refuses connections beyond it: the header-only build takes the full one.
#define CPPHTTPLIB_LISTEN_BACKLOG SOMAXCONN
#endif

#include <httplib.h>
