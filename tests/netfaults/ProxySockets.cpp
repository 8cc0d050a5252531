#include "ProxySockets.h"

#if defined(_WIN32)
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace quill_test::proxy_sockets {

namespace {

#if defined(_WIN32)
using AddressLength = int;
#else
using AddressLength = socklen_t;
#endif

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

#if defined(_WIN32)

bool ready() {
  static const bool started = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}

Socket makeStreamSocket(bool nonBlocking) {
  const Socket made = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (made != kNoSocket && nonBlocking) {
    setNonBlocking(made);
  }
  return made;
}

Socket acceptNonBlocking(Socket listener) {
  // An accepted socket takes its listener's non-blocking mode, but setting it again costs nothing.
  const Socket accepted = accept(listener, nullptr, nullptr);
  if (accepted != kNoSocket) {
    setNonBlocking(accepted);
  }
  return accepted;
}

void setNonBlocking(Socket socket) {
  u_long on = 1;
  ioctlsocket(socket, FIONBIO, &on);
}

void closeSocket(Socket socket) {
  closesocket(socket);
}

void shutDownWriting(Socket socket) {
  shutdown(socket, SD_SEND);
}

std::int64_t sendSome(Socket socket, const char* data, std::size_t size) {
  return send(socket, data, static_cast<int>(size), 0);
}

std::int64_t receiveSome(Socket socket, char* data, std::size_t size) {
  return recv(socket, data, static_cast<int>(size), 0);
}

bool lastCallWouldBlock() {
  const int error = WSAGetLastError();
  return error == WSAEWOULDBLOCK || error == WSAEINTR;
}

int pollSockets(PollEntry* entries, std::size_t count, int timeoutMilliseconds) {
  const int ready = WSAPoll(entries, static_cast<ULONG>(count), timeoutMilliseconds);
  return ready < 0 && WSAGetLastError() == WSAEINTR ? 0 : ready;
}

// Winsock polls sockets only: the channel is a UDP socket on loopback that sends to itself.
bool WakeChannel::open() {
  readEnd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (readEnd == kNoSocket) {
    return false;
  }
  auto address = loopback(0);
  AddressLength length = sizeof address;
  if (bind(readEnd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(readEnd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      connect(readEnd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  setNonBlocking(readEnd);
  writeEnd = readEnd;
  return true;
}

WakeChannel::~WakeChannel() {
  if (readEnd != kNoSocket) {
    closesocket(readEnd);
  }
}

void WakeChannel::wake() {
  const char byte = 1;
  send(writeEnd, &byte, 1, 0);
}

void WakeChannel::drain() {
  char drained[64];
  while (recv(readEnd, drained, sizeof drained, 0) > 0) {
  }
}

#else

bool ready() {
  return true;
}

Socket makeStreamSocket(bool nonBlocking) {
  return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0);
}

Socket acceptNonBlocking(Socket listener) {
  return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

void setNonBlocking(Socket socket) {
  const int flags = fcntl(socket, F_GETFL, 0);
  fcntl(socket, F_SETFL, flags | O_NONBLOCK);
}

void closeSocket(Socket socket) {
  close(socket);
}

void shutDownWriting(Socket socket) {
  shutdown(socket, SHUT_WR);
}

std::int64_t sendSome(Socket socket, const char* data, std::size_t size) {
  return send(socket, data, size, MSG_NOSIGNAL);
}

std::int64_t receiveSome(Socket socket, char* data, std::size_t size) {
  return recv(socket, data, size, 0);
}

bool lastCallWouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

int pollSockets(PollEntry* entries, std::size_t count, int timeoutMilliseconds) {
  const int ready = poll(entries, count, timeoutMilliseconds);
  return ready < 0 && errno == EINTR ? 0 : ready;
}

bool WakeChannel::open() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    return false;
  }
  readEnd = ends[0];
  writeEnd = ends[1];
  return true;
}

WakeChannel::~WakeChannel() {
  if (readEnd != kNoSocket) {
    close(readEnd);
    close(writeEnd);
  }
}

void WakeChannel::wake() {
  const char byte = 1;
  [[maybe_unused]] const auto written = write(writeEnd, &byte, 1);
}

void WakeChannel::drain() {
  char drained[64];
  while (read(readEnd, drained, sizeof drained) > 0) {
  }
}

#endif

int listenOnLoopback(Socket socket, int port, int backlog) {
  const int one = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof one);
  auto address = loopback(port);
  if (bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket, backlog) != 0) {
    return -1;
  }
  AddressLength length = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  return ntohs(address.sin_port);
}

bool connectToLoopback(Socket socket, int port) {
  auto target = loopback(port);
  return connect(socket, reinterpret_cast<sockaddr*>(&target), sizeof target) == 0;
}

void setNoDelay(Socket socket) {
  const int one = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

void resetAndClose(Socket socket) {
  if (socket == kNoSocket) {
    return;
  }
  linger hard{};
  hard.l_onoff = 1;
  hard.l_linger = 0;
  setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
  closeSocket(socket);
}

}  // namespace quill_test::proxy_sockets
