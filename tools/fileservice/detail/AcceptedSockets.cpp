#include "detail/AcceptedSockets.h"

#include "detail/HttpLib.h"

#include <algorithm>
#include <mutex>

namespace quill_fileservice::detail {

namespace {

std::mutex& listMutex() {
  static std::mutex mutex;
  return mutex;
}

std::vector<SOCKET>& list() {
  static std::vector<SOCKET> sockets;
  return sockets;
}

bool isSocket(SOCKET socket) {
  int type = 0;
  int length = sizeof type;
  return getsockopt(socket, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0;
}

// Drops the entries closed since: their handles may have been reused by anything.
void prune(std::vector<SOCKET>& sockets) {
  sockets.erase(std::remove_if(sockets.begin(), sockets.end(),
                               [](SOCKET socket) { return !isSocket(socket); }),
                sockets.end());
}

}  // namespace

void noteAcceptedSocket(SOCKET socket) {
  std::lock_guard<std::mutex> lock(listMutex());
  auto& sockets = list();
  // Pruning now and then keeps a long-running service's list as short as its open connections.
  if (sockets.size() >= 64 && (sockets.size() & (sockets.size() - 1)) == 0) {
    prune(sockets);
  }
  if (std::find(sockets.begin(), sockets.end(), socket) == sockets.end()) {
    sockets.push_back(socket);
  }
}

std::vector<SOCKET> acceptedSockets() {
  std::lock_guard<std::mutex> lock(listMutex());
  prune(list());
  return list();
}

}  // namespace quill_fileservice::detail

namespace httplib {

SOCKET accept(SOCKET listening, sockaddr* address, int* addressLength) {
  const SOCKET accepted = ::accept(listening, address, addressLength);
  if (accepted != INVALID_SOCKET) {
    quill_fileservice::detail::noteAcceptedSocket(accepted);
  }
  return accepted;
}

}  // namespace httplib
