#include "detail/Connections.h"

#include <openssl/ssl.h>

#if defined(_WIN32)
#include "detail/AcceptedSockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#endif

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <system_error>

namespace quill_fileservice::detail {

namespace {

#if defined(_WIN32)
using AddressLength = int;
#else
using AddressLength = socklen_t;
#endif

struct Endpoint {
  std::string address;
  int port = -1;
};

bool toEndpoint(const sockaddr_storage& storage, Endpoint& endpoint) {
  char text[INET6_ADDRSTRLEN] = {};
  if (storage.ss_family == AF_INET) {
    const auto& in4 = reinterpret_cast<const sockaddr_in&>(storage);
    inet_ntop(AF_INET, &in4.sin_addr, text, sizeof text);
    endpoint = {text, ntohs(in4.sin_port)};
    return true;
  }
  if (storage.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
    inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
    endpoint = {text, ntohs(in6.sin6_port)};
    return true;
  }
  return false;
}

bool localEndpoint(int socket, Endpoint& endpoint) {
  sockaddr_storage storage{};
  AddressLength length = sizeof storage;
  return getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length) == 0 &&
         toEndpoint(storage, endpoint);
}

bool remoteEndpoint(int socket, Endpoint& endpoint) {
  sockaddr_storage storage{};
  AddressLength length = sizeof storage;
  return getpeername(socket, reinterpret_cast<sockaddr*>(&storage), &length) == 0 &&
         toEndpoint(storage, endpoint);
}

// Calls `visit` with every socket descriptor of this process until it returns true (on Windows,
// with every socket the service accepted: the only ones the callers look for).
void forEachSocket(const std::function<bool(int)>& visit) {
#if defined(_WIN32)
  for (const SOCKET socket : acceptedSockets()) {
    if (visit(static_cast<int>(socket))) {
      return;
    }
  }
#else
  std::error_code ec;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", ec), end; !ec && entry != end;
       entry.increment(ec)) {
    const std::string name = entry->path().filename().string();
    char* parsedEnd = nullptr;
    const long fd = std::strtol(name.c_str(), &parsedEnd, 10);
    if (parsedEnd == name.c_str() || *parsedEnd != '\0') {
      continue;
    }
    struct stat info {};
    if (fstat(static_cast<int>(fd), &info) != 0 || !S_ISSOCK(info.st_mode)) {
      continue;
    }
    if (visit(static_cast<int>(fd))) {
      return;
    }
  }
#endif
}

}  // namespace

ConnectionId connectionOf(const httplib::Request& request) {
  ConnectionId id;
  id.localAddress = request.local_addr;
  id.localPort = request.local_port;
  id.remoteAddress = request.remote_addr;
  id.remotePort = request.remote_port;
  id.ssl = request.ssl;
  return id;
}

int findSocket(const ConnectionId& connection) {
  if (connection.ssl != nullptr) {
    return SSL_get_fd(static_cast<const SSL*>(connection.ssl));
  }
  int found = -1;
  forEachSocket([&](int socket) {
    Endpoint local;
    Endpoint remote;
    if (localEndpoint(socket, local) && remoteEndpoint(socket, remote) &&
        local.port == connection.localPort && remote.port == connection.remotePort &&
        local.address == connection.localAddress && remote.address == connection.remoteAddress) {
      found = socket;
      return true;
    }
    return false;
  });
  return found;
}

bool peerHasGone(int socket, [[maybe_unused]] bool overTls) {
#if defined(_WIN32)
  WSAPOLLFD entry{};
  entry.fd = static_cast<SOCKET>(socket);
  entry.events = POLLRDNORM;
  const int ready = WSAPoll(&entry, 1, 0);
  if (ready < 0) {
    return true;
  }
  if (ready == 0) {
    return false;
  }
  if ((entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
    return true;
  }
  // Readable: the FIN (nothing to peek) or a reset, or bytes the client sent.
  char next = 0;
  const int peeked = recv(entry.fd, &next, 1, MSG_PEEK);
  return peeked <= 0 || overTls;
#else
  pollfd entry{};
  entry.fd = socket;
  entry.events = POLLRDHUP;
  const int ready = poll(&entry, 1, 0);
  if (ready < 0) {
    return errno != EINTR;
  }
  return ready > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
#endif
}

void shutDownConnections(int port) {
  forEachSocket([port](int socket) {
    Endpoint local;
    Endpoint remote;
    int listening = 0;
    AddressLength length = sizeof listening;
    if (localEndpoint(socket, local) && local.port == port && remoteEndpoint(socket, remote) &&
        getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char*>(&listening),
                   &length) == 0 &&
        listening == 0) {
#if defined(_WIN32)
      shutdown(static_cast<SOCKET>(socket), SD_BOTH);
#else
      shutdown(socket, SHUT_RDWR);
#endif
    }
    return false;
  });
}

void widenBacklog(int listeningSocket) {
#if defined(_WIN32)
  listen(static_cast<SOCKET>(listeningSocket), SOMAXCONN);
#else
  listen(listeningSocket, SOMAXCONN);
#endif
}

void listeningSocketOptions(int socket) {
#if defined(_WIN32)
  // SO_REUSEADDR on Windows would let another socket take the port over; the exclusive use is
  // what makes a port in use fail start(), and Windows needs nothing for quick restarts.
  int yes = 1;
  setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
             reinterpret_cast<const char*>(&yes), sizeof yes);
#else
  int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
#endif
}

}  // namespace quill_fileservice::detail
