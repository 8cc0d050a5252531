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
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

// Starts an upload of `path` to `url` with `start`, makes the file unreadable once the engine holds
// it open, and returns how the transfer ended.
std::shared_ptr<HttpResponse> uploadUnreadable(
    const TempDir& dir, const std::string& path,
    const std::function<std::string(const std::string& url, HttpClient::CompletionFunction)>&
        start) {
  // Far more than the socket buffers hold: the engine is still reading when the server waits.
  quill_test::writeWholeFile(path, "");
  std::filesystem::resize_file(path, 64 * 1024 * 1024);
  HoldingServer server;
  EXPECT_TRUE(server.listening());

  auto record = TransferRecord::make();
  EXPECT_FALSE(start(server.url(), record->completion()).empty());
  int descriptor = -1;
  EXPECT_TRUE(quill_test::eventually([&] {
    descriptor = descriptorOf(path);
    return descriptor >= 0;
  })) << "the engine never opened the file";
  const int directory = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_GE(directory, 0);
  if (descriptor >= 0 && directory >= 0) {
    EXPECT_EQ(::dup2(directory, descriptor), descriptor);
  }
  ::close(directory);
  server.release();
  return record->wait();
}

}  // namespace

TEST(UploadReadError, AFileThatCannotBeReadEndsTheUploadWithItsNameAndReason) {
  TempDir dir;
  const auto path = dir.file("unreadable.bin");
  auto response = uploadUnreadable(dir, path, [&](const std::string& url, auto completion) {
    return HttpClient::uploadFile(url, path, nullptr, std::move(completion));
  });
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->text, "cannot read " + path + ": " + std::strerror(EISDIR));
  EXPECT_EQ(response->systemError, EISDIR);
}

TEST(UploadReadError, AMultipartFileThatCannotBeReadEndsTheUploadWithItsNameAndReason) {
  TempDir dir;
  const auto path = dir.file("unreadable part.bin");
  auto response = uploadUnreadable(dir, path, [&](const std::string& url, auto completion) {
    const std::vector<HttpPartData> parts{HttpPartData::makePart("name", "value", false),
                                          HttpPartData::makePart("upload", path, true)};
    return HttpClient::uploadMultipartData(url, parts, nullptr, std::move(completion));
  });
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->text, "cannot read " + path + ": " + std::strerror(EISDIR));
  EXPECT_EQ(response->systemError, EISDIR);
}

#endif  // __linux__
