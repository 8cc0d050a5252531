#include "FaultProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <vector>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

// Bytes read from a side at a time: one chunk of the delay line.
constexpr std::size_t kChunkBytes = 16 * 1024;
// Bytes a direction may hold before the proxy stops reading from its source (the "window").
constexpr std::size_t kQueueLimit = 1024 * 1024;

void setNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void setNoDelay(int fd) {
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Closing with a zero linger time discards what is unsent and sends RST instead of FIN.
void resetAndClose(int fd) {
  if (fd < 0) {
    return;
  }
  linger hard{};
  hard.l_onoff = 1;
  hard.l_linger = 0;
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  close(fd);
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

struct FaultProxy::Direction {
  struct Chunk {
    Clock::time_point due;
    std::string data;
    std::size_t sent = 0;
  };
  int from = -1;
  int to = -1;
  std::deque<Chunk> queue;
  std::size_t queued = 0;
  Clock::time_point lastDue{};
  bool readClosed = false;  // the source sent FIN
  bool writeShut = false;   // the FIN was passed on

  bool frontDue(Clock::time_point now) const { return !queue.empty() && queue.front().due <= now; }
};

struct FaultProxy::Connection {
  int client = -1;
  int server = -1;
  Plan plan;
  std::int64_t moved = 0;
  std::int64_t resetAt = -1;
  bool frozen = false;
  bool dead = false;
  Direction up;    // client to server
  Direction down;  // server to client

  void closeGracefully() {
    close(client);
    close(server);
    dead = true;
  }
  void reset() {
    resetAndClose(client);
    resetAndClose(server);
    dead = true;
  }
};

FaultProxy::FaultProxy(int targetPort, unsigned seed) : targetPort(targetPort), random(seed) {}

FaultProxy::~FaultProxy() {
  if (loop.joinable()) {
    stopping = true;
    wake();
    loop.join();
  }
  if (listener >= 0) {
    close(listener);
  }
  if (wakeRead >= 0) {
    close(wakeRead);
    close(wakeWrite);
  }
}

bool FaultProxy::start() {
  int pipeEnds[2];
  if (pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0) {
    return false;
  }
  wakeRead = pipeEnds[0];
  wakeWrite = pipeEnds[1];
  listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener < 0) {
    return false;
  }
  const int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  auto address = loopback(0);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 64) != 0) {
    return false;
  }
  socklen_t length = sizeof address;
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return false;
  }
  listenPort = ntohs(address.sin_port);
  loop = std::thread([this] { run(); });
  return true;
}

void FaultProxy::setPlan(const Plan& next) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    plan = next;
    ++generation;
  }
  wake();
}

FaultProxy::Stats FaultProxy::stats() const {
  Stats now;
  now.connections = connections;
  now.bytes = bytes;
  now.stalls = stalls;
  now.resets = resets;
  now.freezes = freezes;
  return now;
}

void FaultProxy::wake() {
  const char byte = 1;
  [[maybe_unused]] const auto written = write(wakeWrite, &byte, 1);
}

void FaultProxy::run() {
  std::vector<std::unique_ptr<Connection>> live;
  std::uint64_t seenGeneration = 0;
  Plan current;
  {
    std::lock_guard<std::mutex> lock(mutex);
    current = plan;
    seenGeneration = generation;
  }
  std::vector<char> buffer(kChunkBytes);
  std::vector<pollfd> fds;

  // Forwards what is due in one direction; false when the destination failed.
  const auto flush = [this](Direction& direction, Clock::time_point now) {
    while (direction.frontDue(now)) {
      auto& chunk = direction.queue.front();
      const auto sent = send(direction.to, chunk.data.data() + chunk.sent,
                             chunk.data.size() - chunk.sent, MSG_NOSIGNAL);
      if (sent < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
      }
      chunk.sent += static_cast<std::size_t>(sent);
      direction.queued -= static_cast<std::size_t>(sent);
      bytes += static_cast<std::uint64_t>(sent);
      if (chunk.sent == chunk.data.size()) {
        direction.queue.pop_front();
      }
    }
    if (direction.readClosed && direction.queue.empty() && !direction.writeShut) {
      shutdown(direction.to, SHUT_WR);
      direction.writeShut = true;
    }
    return true;
  };

  // Reads one chunk from a direction's source and queues it under the plan.
  const auto receive = [&](Connection& connection, Direction& direction) {
    const auto got = recv(direction.from, buffer.data(), buffer.size(), 0);
    if (got == 0) {
      direction.readClosed = true;
      return;
    }
    if (got < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        connection.reset();  // the source was reset: pass it on
      }
      return;
    }
    connection.moved += got;
    const auto& rules = connection.plan;
    if (connection.resetAt >= 0 && connection.moved >= connection.resetAt) {
      ++resets;
      connection.reset();
      return;
    }
    if (rules.freezeAfter >= 0 && connection.moved >= rules.freezeAfter) {
      ++freezes;
      connection.frozen = true;
      connection.up.queue.clear();
      connection.down.queue.clear();
      return;
    }
    auto due = Clock::now() + rules.latency;
    if (rules.stallsPer10000 > 0 && static_cast<int>(random() % 10000) < rules.stallsPer10000) {
      const auto span = std::max<long long>(0, (rules.stallMax - rules.stallMin).count());
      due += rules.stallMin + std::chrono::milliseconds(random() % (span + 1));
      ++stalls;
    }
    due = std::max(due, direction.lastDue);
    direction.lastDue = due;
    direction.queue.push_back({due, std::string(buffer.data(), static_cast<std::size_t>(got)), 0});
    direction.queued += static_cast<std::size_t>(got);
  };

  // Bounded by the stop flag, which the destructor sets before it wakes the loop.
  while (!stopping) {
    live.erase(std::remove_if(live.begin(), live.end(),
                              [this](const std::unique_ptr<Connection>& connection) {
                                if (connection->dead) {
                                  --open;
                                }
                                return connection->dead;
                              }),
               live.end());

    const auto now = Clock::now();
    auto nextDue = Clock::time_point::max();
    fds.clear();
    fds.push_back({wakeRead, POLLIN, 0});
    fds.push_back({listener, POLLIN, 0});
    for (auto& connection : live) {
      short clientEvents = 0;
      short serverEvents = 0;
      if (connection->frozen) {
        clientEvents = serverEvents = POLLRDHUP;
      } else {
        for (Direction* direction : {&connection->up, &connection->down}) {
          const bool fromClient = direction == &connection->up;
          if (!direction->readClosed && direction->queued < kQueueLimit) {
            (fromClient ? clientEvents : serverEvents) |= POLLIN;
          }
          if (direction->frontDue(now)) {
            (fromClient ? serverEvents : clientEvents) |= POLLOUT;
          } else if (!direction->queue.empty()) {
            nextDue = std::min(nextDue, direction->queue.front().due);
          }
        }
      }
      // A side that is done both ways would only report POLLHUP over and over: leave it out.
      const bool clientDone = connection->up.readClosed && connection->down.writeShut;
      const bool serverDone = connection->down.readClosed && connection->up.writeShut;
      fds.push_back({clientDone ? -1 : connection->client, clientEvents, 0});
      fds.push_back({serverDone ? -1 : connection->server, serverEvents, 0});
    }
    int timeout = 1000;
    if (nextDue != Clock::time_point::max()) {
      const auto wait =
          std::chrono::duration_cast<std::chrono::microseconds>(nextDue - now).count();
      timeout = static_cast<int>(std::clamp<long long>((wait + 999) / 1000, 0, 1000));
    }
    if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
      break;
    }

    if (fds[0].revents != 0) {
      char drain[64];
      while (read(wakeRead, drain, sizeof drain) > 0) {
      }
    }
    // fds[2 + 2i] and fds[3 + 2i] belong to live[i]; connections accepted below come after.
    const std::size_t polled = live.size();
    // The plan is checked and new connections accepted under the lock: a connection made after
    // setPlan returned is never accepted under the previous plan, nor closed as one of its own.
    std::unique_lock<std::mutex> lock(mutex);
    if (generation != seenGeneration) {
      seenGeneration = generation;
      current = plan;
      for (auto& connection : live) {
        connection->closeGracefully();
      }
    }
    if (fds[1].revents & POLLIN) {
      for (int accepted = 0; accepted < 64; ++accepted) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0) {
          break;
        }
        const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        auto target = loopback(targetPort);
        if (server < 0 ||
            connect(server, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
          if (server >= 0) {
            close(server);
          }
          resetAndClose(client);
          continue;
        }
        setNonBlocking(server);
        setNoDelay(server);
        setNoDelay(client);
        auto connection = std::make_unique<Connection>();
        connection->client = client;
        connection->server = server;
        connection->plan = current;
        if (current.resetAfterMin >= 0) {
          const auto span =
              std::max<std::int64_t>(0, current.resetAfterMax - current.resetAfterMin);
          connection->resetAt =
              current.resetAfterMin +
              static_cast<std::int64_t>(random() % static_cast<unsigned>(span + 1));
        }
        connection->up.from = client;
        connection->up.to = server;
        connection->down.from = server;
        connection->down.to = client;
        ++connections;
        ++open;
        live.push_back(std::move(connection));
      }
    }
    lock.unlock();

    const auto later = Clock::now();
    for (std::size_t i = 0; i < polled; ++i) {
      auto& connection = *live[i];
      if (connection.dead) {
        continue;
      }
      const auto clientEvents = fds[2 + 2 * i].revents;
      const auto serverEvents = fds[3 + 2 * i].revents;
      if (connection.frozen) {
        if ((clientEvents | serverEvents) & (POLLRDHUP | POLLHUP | POLLERR)) {
          connection.reset();
        }
        continue;
      }
      if ((clientEvents | serverEvents) & POLLERR) {
        connection.reset();
        continue;
      }
      if (!connection.up.readClosed && (clientEvents & (POLLIN | POLLHUP))) {
        receive(connection, connection.up);
      }
      if (!connection.dead && !connection.frozen && !connection.down.readClosed &&
          (serverEvents & (POLLIN | POLLHUP))) {
        receive(connection, connection.down);
      }
      if (connection.dead || connection.frozen) {
        continue;
      }
      if (!flush(connection.up, later) || !flush(connection.down, later)) {
        connection.reset();
        continue;
      }
      if (connection.up.writeShut && connection.down.writeShut) {
        connection.closeGracefully();
      }
    }
  }

  for (auto& connection : live) {
    if (!connection->dead) {
      connection->closeGracefully();
    }
    --open;
  }
}

}  // namespace quill_test
