// The quill-fileservice program run as a separate process: --port 0 prints the port as the first
// line, --tls with --ca-out writes a CA that clients can trust, the control endpoint drives faults
// from outside, and SIGTERM (or SIGINT) stops it cleanly with exit status 0.
#include "ChildProcess.h"
#include "FileServiceTestSupport.h"

#include <signal.h>

#include <filesystem>
#include <vector>

using namespace fileservice_test;
using Clock = std::chrono::steady_clock;

namespace {

// A child process running the program, its standard output on a pipe. Killed if still running
// when destroyed.
class Program {
public:
  // Standard error goes to `errorFile` when given.
  explicit Program(const std::vector<std::string>& arguments, const std::string& errorFile = "")
      : child(launch(arguments, errorFile)) {}

  pid_t pid() const { return child.id(); }

  // The first line of standard output, waited for up to the timeout; "" when none came.
  std::string firstLine(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    if (!child.output().readUntil("\n", timeout)) {
      return {};
    }
    const auto& text = child.output().text();
    firstLineEnd = text.find('\n') + 1;
    return text.substr(0, firstLineEnd - 1);
  }

  // Everything left on standard output until the program closes it (or the timeout passes).
  std::string remainingOutput(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    child.output().readToEnd(timeout);
    return child.output().text().substr(firstLineEnd);
  }

  // Sends the signal and waits for the exit; as wait().
  int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    child.signal(signal);
    return wait(timeout);
  }

  // Waits for the program to exit by itself: the exit status, 128 + the signal's number when a
  // signal ended it, or -1 on a timeout.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return child.waitForExit(timeout);
  }

private:
  static quill_test::ChildLaunch launch(const std::vector<std::string>& arguments,
                                        const std::string& errorFile) {
    quill_test::ChildLaunch launch;
    launch.command = {QUILL_FILESERVICE_PROGRAM};
    launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
    launch.output = quill_test::ChildStream::pipe();
    if (!errorFile.empty()) {
      launch.errors = quill_test::ChildStream::file(errorFile);
    }
    return launch;
  }

  quill_test::ChildProcess child;
  std::size_t firstLineEnd = 0;
};

int parsePort(const std::string& line) {
  if (line.empty() || line.find_first_not_of("0123456789") != std::string::npos ||
      line.size() > 5) {
    return -1;
  }
  return std::stoi(line);
}

TEST(Program, ServesHttpsWithTheCaItWroteAndStopsCleanlyOnSigterm) {
  quill_test::TempDir dir;
  Program program(
      {"--tls", "--port", "0", "--data", dir.file("data"), "--ca-out", dir.file("out/ca.pem")});
  ASSERT_GT(program.pid(), 0);
  const std::string line = program.firstLine();
  const int port = parsePort(line);
  ASSERT_GT(port, 0) << "first line: '" << line << "'";
  ASSERT_TRUE(std::filesystem::exists(dir.file("out/ca.pem")));
  EXPECT_NE(readFile(dir.file("out/ca.pem")).find("-----BEGIN CERTIFICATE-----"),
            std::string::npos);

  writeFile(dir.file("data/files/hello.txt"), "hello over tls");
  httplib::SSLClient client("127.0.0.1", port);
  client.set_ca_cert_path(dir.file("out/ca.pem"));
  client.enable_server_certificate_verification(true);
  const auto result = client.Get("/files/hello.txt");
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->body, "hello over tls");

  // The certificate also holds for the name localhost.
  httplib::SSLClient byName("localhost", port);
  byName.set_hostname_addr_map({{"localhost", "127.0.0.1"}});
  byName.set_ca_cert_path(dir.file("out/ca.pem"));
  byName.enable_server_certificate_verification(true);
  const auto named = byName.Get("/files/hello.txt");
  ASSERT_TRUE(named) << httplib::to_string(named.error());
  EXPECT_EQ(named->status, 200);

  // Without the CA the certificate is not trusted.
  httplib::SSLClient untrusting("127.0.0.1", port);
  untrusting.set_ca_cert_path(dir.file("nothing.pem"));
  untrusting.enable_server_certificate_verification(true);
  const auto refused = untrusting.Get("/files/hello.txt");
  EXPECT_FALSE(refused);

  // Faults from outside the process.
  ASSERT_EQ(
      client
          .Post("/_control/faults", R"({"pathPrefix":"/files/","status":503})", "application/json")
          ->status,
      200);
  EXPECT_EQ(client.Get("/files/hello.txt")->status, 503);
  ASSERT_EQ(client.Delete("/_control/faults")->status, 200);
  EXPECT_EQ(client.Get("/files/hello.txt")->status, 200);
  EXPECT_GE(parseJson(client.Get("/_control/stats")->body)["requests"].asInt(), 6);

  // An idle keep-alive connection does not hold up the stop.
  const auto start = Clock::now();
  EXPECT_EQ(program.stop(SIGTERM), 0);
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(),
            5000);
  EXPECT_FALSE(client.Get("/files/hello.txt"));
  // The data given on the command line stays.
  EXPECT_TRUE(std::filesystem::exists(dir.file("data/files/hello.txt")));
}

TEST(Program, ServesPlainHttpAndStopsOnSigint) {
  quill_test::TempDir dir;
  Program program({"--port", "0", "--data", dir.file("data")});
  const int port = parsePort(program.firstLine());
  ASSERT_GT(port, 0);
  httplib::Client client("127.0.0.1", port);
  const auto signature = client.Post(
      "/file/uploadBySignature.action",
      httplib::Params{
          {"appId", "a"}, {"aid", "b"}, {"pin", "c"}, {"clientType", "pc"}, {"key", "p.bin"}});
  ASSERT_TRUE(signature);
  const std::string uploadPath = parseJson(signature->body)["uploadPath"].asString();
  EXPECT_EQ(uploadPath.rfind("http://127.0.0.1:" + std::to_string(port) + "/objects/p.bin?", 0),
            0u);
  ASSERT_EQ(client.Put(pathOf(uploadPath).c_str(), "plain", "text/plain")->status, 200);
  EXPECT_EQ(readFile(dir.file("data/objects/p.bin")), "plain");
  EXPECT_EQ(program.stop(SIGINT), 0);
}

TEST(Program, TwoProgramsRunSideBySideAndAPortInUseIsAnError) {
  quill_test::TempDir dir;
  Program first({"--port", "0", "--data", dir.file("a")});
  Program second({"--port", "0", "--data", dir.file("b")});
  const int firstPort = parsePort(first.firstLine());
  const int secondPort = parsePort(second.firstLine());
  ASSERT_GT(firstPort, 0);
  ASSERT_GT(secondPort, 0);
  EXPECT_NE(firstPort, secondPort);

  Program clash({"--port", std::to_string(firstPort), "--data", dir.file("c")},
                dir.file("clash.err"));
  EXPECT_EQ(clash.firstLine(), "");
  EXPECT_EQ(clash.wait(), 1);
  EXPECT_NE(readFile(dir.file("clash.err")).find("cannot listen"), std::string::npos);

  EXPECT_EQ(first.stop(SIGTERM), 0);
  EXPECT_EQ(second.stop(SIGTERM), 0);
}

TEST(Program, WithoutADataDirectoryItUsesATemporaryOneAndRemovesIt) {
  quill_test::TempDir dir;
  Program program({"--port", "0"}, dir.file("err.txt"));
  const int port = parsePort(program.firstLine());
  ASSERT_GT(port, 0);
  httplib::Client client("127.0.0.1", port);
  auto form = identityForm();
  form.push_back({"upload", "temporary", "t.txt", "text/plain"});
  const auto result = client.Post("/file/uploadImg.action", form);
  ASSERT_TRUE(result);
  const std::string path = pathOf(parseJson(result->body)["path"].asString());
  EXPECT_EQ(client.Get(path.c_str())->body, "temporary");

  // Standard error names the directory: "... data in <directory>".
  std::string errors;
  ASSERT_TRUE(quill_test::eventually([&] {
    errors = readFile(dir.file("err.txt"));
    return errors.find("data in ") != std::string::npos &&
           errors.find('\n', errors.find("data in ")) != std::string::npos;
  }));
  const auto from = errors.find("data in ") + 8;
  const std::string data = errors.substr(from, errors.find('\n', from) - from);
  EXPECT_TRUE(std::filesystem::is_directory(data)) << data;
  EXPECT_EQ(program.stop(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(data)) << data;
}

TEST(Program, HelpDescribesTheOptions) {
  Program program({"--help"});
  const std::string text = program.remainingOutput();
  for (const char* option : {"--data", "--port", "--tls", "--cert", "--key", "--ca-out",
                             "--threads", "quill_stall_after", "/_control/faults"}) {
    EXPECT_NE(text.find(option), std::string::npos) << option;
  }
  EXPECT_EQ(program.wait(), 0);
}

}  // namespace
