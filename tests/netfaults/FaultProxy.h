#pragma once

// A TCP proxy on 127.0.0.1 that makes the network between the library and a server worse: it adds
// latency, holds back some chunks for a while as a lost and retransmitted segment would, resets
// connections after a random number of bytes, or stops forwarding altogether. It forwards bytes as
// they are (TLS passes through untouched), on non-blocking sockets driven by one poll loop.

#include "ProxySockets.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace quill_test {

class FaultProxy {
public:
  // What happens to the connections accepted from now on. Counts of bytes are per connection, both
  // directions together.
  struct Plan {
    // Every chunk read from either side is forwarded this much later (a delay line: chunks keep
    // their order and several may be in flight).
    std::chrono::milliseconds latency{0};
    // Chunks per ten thousand that are held back for a random time in [stallMin, stallMax] on top
    // of the latency; what follows them in the same direction waits behind them.
    int stallsPer10000 = 0;
    std::chrono::milliseconds stallMin{200};
    std::chrono::milliseconds stallMax{400};
    // After a random number of bytes in [resetAfterMin, resetAfterMax], both sides of the
    // connection are reset (closed with SO_LINGER 0, which sends RST). Negative: never.
    std::int64_t resetAfterMin = -1;
    std::int64_t resetAfterMax = -1;
    // After this many bytes nothing more is read or forwarded; the connection stays open until a
    // side closes it. Negative: never.
    std::int64_t freezeAfter = -1;
  };

  struct Stats {
    std::uint64_t connections = 0;  // accepted
    std::uint64_t bytes = 0;        // forwarded, both directions
    std::uint64_t stalls = 0;       // chunks held back
    std::uint64_t resets = 0;       // connections reset by the plan
    std::uint64_t freezes = 0;      // connections frozen by the plan
  };

  // Forwards to 127.0.0.1:targetPort. `seed` drives every random choice.
  FaultProxy(int targetPort, unsigned seed);
  ~FaultProxy();  // stops the loop and closes every socket
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  // Listens on 127.0.0.1 (a free port) and starts the loop; false when the socket cannot be made.
  bool start();
  int port() const { return listenPort; }

  // Takes effect for new connections; the open ones are closed (FIN), so that a client's idle
  // connection made under the previous plan is not used under this one.
  void setPlan(const Plan& plan);
  Stats stats() const;
  // Connections open at the moment.
  int openConnections() const { return open.load(); }

private:
  struct Connection;
  struct Direction;

  void run();
  void wake();

  const int targetPort;
  int listenPort = 0;
  proxy_sockets::Socket listener = proxy_sockets::kNoSocket;
  proxy_sockets::WakeChannel wakeChannel;
  std::thread loop;
  std::atomic<bool> stopping{false};

  mutable std::mutex mutex;  // guards plan and generation
  Plan plan;
  std::uint64_t generation = 0;
  std::mt19937 random;  // used by the loop thread only

  std::atomic<std::uint64_t> connections{0};
  std::atomic<std::uint64_t> bytes{0};
  std::atomic<std::uint64_t> stalls{0};
  std::atomic<std::uint64_t> resets{0};
  std::atomic<std::uint64_t> freezes{0};
  std::atomic<int> open{0};
};

}  // namespace quill_test
