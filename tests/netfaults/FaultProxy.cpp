#include "FaultProxy.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

namespace quill_test {

using namespace proxy_sockets;

namespace {

using Clock = std::chrono::steady_clock;

// Bytes read from a side at a time: one chunk of the delay line.
constexpr std::size_t kChunkBytes = 16 * 1024;
// Bytes a direction may hold before the proxy stops reading from its source (the "window").
constexpr std::size_t kQueueLimit = 1024 * 1024;

}  // namespace

struct FaultProxy::Direction {
  struct Chunk {
    Clock::time_point due;
    std::string data;
    std::size_t sent = 0;
  };
  Socket from = kNoSocket;
  Socket to = kNoSocket;
  std::deque<Chunk> queue;
  std::size_t queued = 0;
  Clock::time_point lastDue{};
  bool readClosed = false;  // the source sent FIN
  bool writeShut = false;   // the FIN was passed on

  bool frontDue(Clock::time_point now) const { return !queue.empty() && queue.front().due <= now; }
};

struct FaultProxy::Connection {
  Socket client = kNoSocket;
  Socket server = kNoSocket;
  Plan plan;
  std::int64_t moved = 0;
  std::int64_t resetAt = -1;
  bool frozen = false;
  bool dead = false;
  Direction up;    // client to server
  Direction down;  // server to client

  void closeGracefully() {
    closeSocket(client);
    closeSocket(server);
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
  if (listener != kNoSocket) {
    closeSocket(listener);
  }
}

bool FaultProxy::start() {
  if (!ready() || !wakeChannel.open()) {
    return false;
  }
  listener = makeStreamSocket(true);
  if (listener == kNoSocket) {
    return false;
  }
  listenPort = listenOnLoopback(listener, 0, 64);
  if (listenPort <= 0) {
    return false;
  }
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
  wakeChannel.wake();
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
  std::vector<PollEntry> fds;
  // Where live[i]'s client and server sockets are in fds, or -1 when left out of the poll.
  std::vector<std::pair<long, long>> slots;
  const auto eventsAt = [&fds](long slot) -> short { return slot < 0 ? 0 : fds[slot].revents; };

  // Forwards what is due in one direction; false when the destination failed.
  const auto flush = [this](Direction& direction, Clock::time_point now) {
    while (direction.frontDue(now)) {
      auto& chunk = direction.queue.front();
      const auto sent =
          sendSome(direction.to, chunk.data.data() + chunk.sent, chunk.data.size() - chunk.sent);
      if (sent < 0) {
        return lastCallWouldBlock();
      }
      chunk.sent += static_cast<std::size_t>(sent);
      direction.queued -= static_cast<std::size_t>(sent);
      bytes += static_cast<std::uint64_t>(sent);
      if (chunk.sent == chunk.data.size()) {
        direction.queue.pop_front();
      }
    }
    if (direction.readClosed && direction.queue.empty() && !direction.writeShut) {
      shutDownWriting(direction.to);
      direction.writeShut = true;
    }
    return true;
  };

  // Reads one chunk from a direction's source and queues it under the plan.
  const auto receive = [&](Connection& connection, Direction& direction) {
    const auto got = receiveSome(direction.from, buffer.data(), buffer.size());
    if (got == 0) {
      direction.readClosed = true;
      return;
    }
    if (got < 0) {
      if (!lastCallWouldBlock()) {
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
    slots.clear();
    fds.push_back({wakeChannel.pollable(), POLLIN, 0});
    fds.push_back({listener, POLLIN, 0});
    for (auto& connection : live) {
      short clientEvents = 0;
      short serverEvents = 0;
      if (connection->frozen) {
        clientEvents = serverEvents = kPeerClosed;
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
      const auto add = [&fds](bool done, Socket socket, short events) -> long {
        if (done) {
          return -1;
        }
        fds.push_back({socket, events, 0});
        return static_cast<long>(fds.size() - 1);
      };
      const long clientSlot = add(clientDone, connection->client, clientEvents);
      const long serverSlot = add(serverDone, connection->server, serverEvents);
      slots.emplace_back(clientSlot, serverSlot);
    }
    int timeout = 1000;
    if (nextDue != Clock::time_point::max()) {
      const auto wait =
          std::chrono::duration_cast<std::chrono::microseconds>(nextDue - now).count();
      timeout = static_cast<int>(std::clamp<long long>((wait + 999) / 1000, 0, 1000));
    }
    if (pollSockets(fds.data(), fds.size(), timeout) < 0) {
      break;
    }

    if (fds[0].revents != 0) {
      wakeChannel.drain();
    }
    // slots[i] places live[i] in fds; connections accepted below come after.
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
        const Socket client = acceptNonBlocking(listener);
        if (client == kNoSocket) {
          break;
        }
        const Socket server = makeStreamSocket(false);
        if (server == kNoSocket || !connectToLoopback(server, targetPort)) {
          if (server != kNoSocket) {
            closeSocket(server);
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
      const auto clientEvents = eventsAt(slots[i].first);
      const auto serverEvents = eventsAt(slots[i].second);
      if (connection.frozen) {
        if ((clientEvents | serverEvents) & (kPeerClosed | POLLHUP | POLLERR)) {
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
