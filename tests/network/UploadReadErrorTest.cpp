// A file that cannot be read while it is being uploaded: the transfer fails with a text that names
// the file and the reason, not libcurl's bare "aborted by callback".
//
// The server accepts the connection and reads nothing until the test lets it, so that the engine
// is still reading the file; meanwhile the test turns the engine's descriptor of that file into a
// directory's, on which every read fails (EISDIR).

#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#if defined(__linux__)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

using quill_test::TempDir;
using quill_test::TransferRecord;

namespace {

// One connection on 127.0.0.1: accepted at once, read only after release(), then drained to its
// end and closed.
class HoldingServer {
public:
  HoldingServer() {
    listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port = ntohs(address.sin_port);
    serving = std::thread([this, released = released.get_future()] {
      const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) {
        return;
      }
      released.wait();
      char buffer[65536];
      while (::recv(connection, buffer, sizeof(buffer), 0) > 0) {
      }
      ::close(connection);
    });
  }
  ~HoldingServer() {
    release();
    ::shutdown(listener, SHUT_RDWR);
    if (serving.joinable()) {
      serving.join();
    }
    ::close(listener);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/put"; }
  bool listening() const { return port != 0; }
  void release() {
    if (!releasedOnce) {
      releasedOnce = true;
      released.set_value();
    }
  }

private:
  int listener = -1;
  int port = 0;
  std::promise<void> released;
  bool releasedOnce = false;
  std::thread serving;
};

// The descriptor this process holds open on `path`; -1 when there is none (yet).
int descriptorOf(const std::string& path) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    std::error_code linkError;
    if (std::filesystem::read_symlink(entry.path(), linkError) == path) {
      return std::stoi(entry.path().filename().string());
    }
  }
  return -1;
}

}  // namespace

TEST(UploadReadError, AFileThatCannotBeReadEndsTheUploadWithItsNameAndReason) {
  TempDir dir;
  const auto path = dir.file("unreadable.bin");
  // Far more than the socket buffers hold: the engine is still reading when the server waits.
  quill_test::writeWholeFile(path, "");
  std::filesystem::resize_file(path, 64 * 1024 * 1024);
  HoldingServer server;
  ASSERT_TRUE(server.listening());

  auto record = TransferRecord::make();
  const auto id = HttpClient::uploadFile(server.url(), path, nullptr, record->completion());
  ASSERT_FALSE(id.empty());

  int descriptor = -1;
  ASSERT_TRUE(quill_test::eventually([&] {
    descriptor = descriptorOf(path);
    return descriptor >= 0;
  })) << "the engine never opened the file";
  const int directory = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(directory, 0);
  ASSERT_EQ(::dup2(directory, descriptor), descriptor);
  ::close(directory);
  server.release();

  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->text, "cannot read " + path + ": " + std::strerror(EISDIR));
  EXPECT_EQ(response->systemError, EISDIR);
}

#endif  // __linux__
