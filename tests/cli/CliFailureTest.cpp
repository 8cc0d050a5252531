// quill-cloud's failures: what it refuses before transferring (usage errors, exit 2), the cause it
// prints beside the library's result code, --timeout, and a download-only run that must not wait
// for an identity it never needs.
#include "CliFixture.h"

#if defined(_WIN32)
#include <winsock2.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>

using cli_test::CliTest;
using cli_test::Environment;
using cli_test::runTool;
using quill_test::CloudEnvironment;

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// A port on 127.0.0.1 that nothing listens on: bound once by the kernel's choice, then closed.
#if defined(_WIN32)
int closedPort() {
  WSADATA data{};
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    return -1;
  }
  const SOCKET fd = socket(AF_INET, SOCK_STREAM, 0);
  int port = -1;
  if (fd != INVALID_SOCKET) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port = ntohs(address.sin_port);
    }
    closesocket(fd);
  }
  WSACleanup();
  return port;
}
#else
int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    return -1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}
#endif

TEST_F(CliTest, ImageDownloadWithoutIdentityEndsAfterItsOneRetry) {
  const auto image = work.file("unavailable.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 32, 32));
  const auto path =
      CloudEnvironment::server().addFile("unavailable-" + TextUtils::UUID_String() + ".jpg", image);
  // Both the static host and the image CDN host (the same server) answer 503 for it.
  quill_fileservice::Fault fault;
  fault.pathPrefix = path;
  fault.status = 503;
  CloudEnvironment::server().addFault(fault);

  // No identity: nothing in this run needs one.
  const auto outcome = run({"download", "--image", CloudEnvironment::staticUrl(path), "--dir",
                            work.file("out"), "--user-dir", user.path()},
                           std::chrono::seconds(20));
  EXPECT_EQ(outcome.status, 1) << "did not end within 20 s (-1) or ended otherwise\n"
                               << outcome.errors;
  EXPECT_NE(outcome.errors.find("failed: result -100"), std::string::npos) << outcome.errors;
}

TEST_F(CliTest, TimeoutCancelsWhatIsLeftAndReportsItTimedOut) {
  const auto [local, path] = serve("stalled.bin", 256 * 1024);
  const auto [quickLocal, quickPath] = serve("quick.bin", 1000);
  const auto destination = work.file("timeout");
  // The first stalls after 1000 bytes and would never end by itself.
  const auto outcome = run(
      withIdentity({"download", CloudEnvironment::url(path + "?quill_stall_after=1000"),
                    CloudEnvironment::url(quickPath), "--dir", destination, "--timeout", "1.5"}),
      std::chrono::seconds(40));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_NE(outcome.errors.find(CloudEnvironment::url(path + "?quill_stall_after=1000") +
                                " failed: result 3 (cancelled): timed out"),
            std::string::npos)
      << outcome.errors;
  // The quick one was saved; the cancelled one left nothing behind.
  EXPECT_TRUE(FileUtils::sameContent(
      FileUtils::appendComponent(destination, FileUtils::fileName(quickPath)), quickLocal));
  EXPECT_FALSE(
      FileUtils::fileExists(FileUtils::appendComponent(destination, FileUtils::fileName(path))));
  EXPECT_EQ(entries(destination), 1u);

  EXPECT_EQ(run(withIdentity({"download", CloudEnvironment::url(quickPath), "--dir", destination,
                              "--timeout", "-1"}))
                .status,
            2);
}

TEST_F(CliTest, UnresolvableHostIsNamedAsTheCause) {
  const auto outcome =
      run(withIdentity({"download", "https://nohost.invalid/file.bin", "--dir", work.file("out")}),
          std::chrono::seconds(20));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_NE(outcome.errors.find("result -100 (transfer or server failure): "), std::string::npos)
      << outcome.errors;
  EXPECT_NE(lowered(outcome.errors).find("resolve"), std::string::npos) << outcome.errors;
  EXPECT_NE(outcome.errors.find("nohost.invalid"), std::string::npos) << outcome.errors;
}

TEST_F(CliTest, RefusedConnectionIsNamedAsTheCause) {
  const int port = closedPort();
  ASSERT_GT(port, 0);
  const auto url = "http://127.0.0.1:" + std::to_string(port) + "/file.bin";
  const auto outcome =
      run(withIdentity({"download", url, "--dir", work.file("out")}), std::chrono::seconds(20));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_NE(outcome.errors.find(url + " failed: result -100 (transfer or server failure): "),
            std::string::npos)
      << outcome.errors;
  EXPECT_NE(lowered(outcome.errors).find("connect"), std::string::npos) << outcome.errors;
}

TEST_F(CliTest, UntrustedCertificateIsNamedAsTheCause) {
  const auto [local, path] = serve("trusted.bin", 100);
  // Without the reference service's CA the system's CAs are used, which do not know it.
  Environment untrusted = environment();
  untrusted.unset = {"QUILL_CA_BUNDLE"};
  const auto outcome =
      runTool(withIdentity({"download", CloudEnvironment::url(path), "--dir", work.file("out")}),
              std::chrono::seconds(20), untrusted);
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_NE(outcome.errors.find("result -100 (transfer or server failure): "), std::string::npos)
      << outcome.errors;
  EXPECT_NE(lowered(outcome.errors).find("certificate"), std::string::npos) << outcome.errors;
}

TEST_F(CliTest, WhatCanBeCheckedFirstIsAUsageError) {
  const auto out = work.file("checked");
  const auto fileUrl = run(withIdentity({"download", "file:///etc/hostname", "--dir", out}));
  EXPECT_EQ(fileUrl.status, 2);
  EXPECT_NE(fileUrl.errors.find("only http:// and https://"), std::string::npos) << fileUrl.errors;

  EXPECT_EQ(run(withIdentity({"download", "", "--dir", out})).status, 2);
  EXPECT_EQ(
      run(withIdentity({"download", "https://127.0.0.1/x", "--name", "", "--dir", out})).status, 2);

  const std::string longName(300, 'n');
  const auto tooLong =
      run(withIdentity({"download", CloudEnvironment::url("/files/" + longName), "--dir", out}));
  EXPECT_EQ(tooLong.status, 2);
#if defined(_WIN32)
  // The volume's limit counts UTF-16 units there.
  EXPECT_NE(tooLong.errors.find("is 300 characters long"), std::string::npos) << tooLong.errors;
#else
  EXPECT_NE(tooLong.errors.find("is 300 bytes long"), std::string::npos) << tooLong.errors;
#endif

  // A directory below a regular file can be made by nobody, root included.
  const auto regular = work.file("plain-file");
  ASSERT_TRUE(quill_cli::writePatternFile(regular, 10, 1));
  const auto underFile = run(
      withIdentity({"download", CloudEnvironment::url("/files/x.bin"), "--dir", regular + "/sub"}));
  EXPECT_EQ(underFile.status, 2);
  EXPECT_NE(underFile.errors.find("cannot make the directory " + regular + "/sub"),
            std::string::npos)
      << underFile.errors;

#if !defined(_WIN32)
  // Mode bits do not stop a Windows process from writing; its access lists are not tried here.
  if (geteuid() != 0) {
    const auto locked = work.file("locked");
    ASSERT_TRUE(FileUtils::makeDirectory(locked));
    ASSERT_EQ(chmod(locked.c_str(), 0500), 0);
    const auto unwritable =
        run(withIdentity({"download", CloudEnvironment::url("/files/x.bin"), "--dir", locked}));
    chmod(locked.c_str(), 0700);
    EXPECT_EQ(unwritable.status, 2);
    EXPECT_NE(unwritable.errors.find("cannot write into " + locked), std::string::npos)
        << unwritable.errors;
  }
#endif

  ASSERT_TRUE(FileUtils::makeDirectory(FileUtils::appendComponent(out, "taken")));
  const auto directory = run(withIdentity(
      {"download", CloudEnvironment::url("/files/x.bin"), "--dir", out, "--name", "taken"}));
  EXPECT_EQ(directory.status, 2);
  EXPECT_NE(directory.errors.find(normalPath(FileUtils::appendComponent(out, "taken")) +
                                  " is a directory"),
            std::string::npos)
      << directory.errors;
}

TEST_F(CliTest, EmptyBodyIsSaidInWords) {
  const auto [local, path] = serve("empty.bin", 0);
  const auto outcome =
      run(withIdentity({"download", CloudEnvironment::url(path), "--dir", work.file("out")}));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_NE(outcome.errors.find("the server sent an empty file"), std::string::npos)
      << outcome.errors;
}

}  // namespace
