#include "detail/Connections.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <system_error>

namespace quill_fileservice::detail {

namespace {

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
  socklen_t length = sizeof storage;
  return getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length) == 0 &&
         toEndpoint(storage, endpoint);
}

bool remoteEndpoint(int socket, Endpoint& endpoint) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  return getpeername(socket, reinterpret_cast<sockaddr*>(&storage), &length) == 0 &&
         toEndpoint(storage, endpoint);
}

// Calls `visit` with every socket descriptor of this process until it returns true.
void forEachSocket(const std::function<bool(int)>& visit) {
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

bool peerHasGone(int socket) {
  pollfd entry{};
  entry.fd = socket;
  entry.events = POLLRDHUP;
  const int ready = poll(&entry, 1, 0);
  if (ready < 0) {
    return errno != EINTR;
  }
  return ready > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

void shutDownConnections(int port) {
  forEachSocket([port](int socket) {
    Endpoint local;
    Endpoint remote;
    int listening = 0;
    socklen_t length = sizeof listening;
    if (localEndpoint(socket, local) && local.port == port && remoteEndpoint(socket, remote) &&
        getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening == 0) {
      shutdown(socket, SHUT_RDWR);
    }
    return false;
  });
}

void widenBacklog(int listeningSocket) {
  listen(listeningSocket, SOMAXCONN);
}

void listeningSocketOptions(int socket) {
  int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

}  // namespace quill_fileservice::detail
