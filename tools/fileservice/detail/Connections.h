#pragma once

#include "detail/HttpLib.h"

#include <string>

// Socket-level helpers for what cpp-httplib does not expose: the socket behind a request (to notice
// a client that gave up while a reply is stalled on purpose), and the accepted connections of a
// port (to wake the workers that serve them when the service stops).
namespace quill_fileservice::detail {

// Identifies a request's connection by its two endpoints; over TLS, by its SSL object.
struct ConnectionId {
  std::string localAddress;
  int localPort = -1;
  std::string remoteAddress;
  int remotePort = -1;
  const void* ssl = nullptr;
};

ConnectionId connectionOf(const httplib::Request& request);

// The descriptor of the connection's socket in this process; -1 when it cannot be found.
int findSocket(const ConnectionId& connection);

// True when the peer has closed or reset the connection. `overTls`: the connection carries TLS, and
// the reply on it is stalled, so that whatever the client sends can only be its close_notify (on
// Windows a FIN behind unread bytes does not show: those bytes are taken as the sign instead).
bool peerHasGone(int socket, bool overTls);

// Shuts down (without closing: their owners still do that) every accepted socket of this process
// whose local port is `port`, so that whatever blocks on them returns at once.
void shutDownConnections(int port);

// Lets more connections wait for accept() than cpp-httplib's built-in backlog of five.
void widenBacklog(int listeningSocket);

// The options the service's listening socket gets: address reuse for quick restarts, and no port
// sharing, so that a port in use makes start() fail.
void listeningSocketOptions(int socket);

}  // namespace quill_fileservice::detail
