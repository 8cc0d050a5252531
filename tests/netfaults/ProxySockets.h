#pragma once

// The few socket calls the fault proxy makes, over POSIX sockets on Linux and Winsock on Windows:
// non-blocking sockets on 127.0.0.1, one poll loop, and a channel that wakes the loop.

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#include <winsock2.h>
#else
#include <poll.h>
#endif

namespace quill_test::proxy_sockets {

#if defined(_WIN32)
using Socket = SOCKET;
using PollEntry = WSAPOLLFD;
constexpr Socket kNoSocket = INVALID_SOCKET;
// Winsock reports the peer's FIN as POLLHUP whatever events are asked for.
constexpr short kPeerClosed = 0;
#else
using Socket = int;
using PollEntry = pollfd;
constexpr Socket kNoSocket = -1;
constexpr short kPeerClosed = POLLRDHUP;
#endif

// Sets Winsock up for the process (once; nothing to do elsewhere). False when it cannot be used.
bool ready();

// A TCP socket; non-blocking when asked.
Socket makeStreamSocket(bool nonBlocking);
// Accepts one connection as a non-blocking socket; kNoSocket when none is waiting.
Socket acceptNonBlocking(Socket listener);
// Binds to 127.0.0.1:port (0: a free port) and listens; the port bound, or -1.
int listenOnLoopback(Socket socket, int port, int backlog);
// Connects (blocking) to 127.0.0.1:port.
bool connectToLoopback(Socket socket, int port);

void setNonBlocking(Socket socket);
void setNoDelay(Socket socket);
void closeSocket(Socket socket);
// Closing with a zero linger time discards what is unsent and sends RST instead of FIN.
void resetAndClose(Socket socket);
void shutDownWriting(Socket socket);

// As send() and recv(), without SIGPIPE; negative on an error.
std::int64_t sendSome(Socket socket, const char* data, std::size_t size);
std::int64_t receiveSome(Socket socket, char* data, std::size_t size);
// True when the last failed call only had to wait (or was interrupted).
bool lastCallWouldBlock();

// poll() or WSAPoll(); negative on an error other than an interruption.
int pollSockets(PollEntry* entries, std::size_t count, int timeoutMilliseconds);

// Wakes a poll loop from another thread: poll its socket for POLLIN, drain it when it fires.
class WakeChannel {
public:
  WakeChannel() = default;
  ~WakeChannel();
  WakeChannel(const WakeChannel&) = delete;
  WakeChannel& operator=(const WakeChannel&) = delete;

  bool open();
  void wake();
  void drain();
  Socket pollable() const { return readEnd; }

private:
  Socket readEnd = kNoSocket;
  Socket writeEnd = kNoSocket;
};

}  // namespace quill_test::proxy_sockets
