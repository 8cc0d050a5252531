// The quill-fileservice program run as a separate process: --port 0 prints the port as the first
// line, --tls with --ca-out writes a CA that clients can trust, the control endpoint drives faults
// from outside, and SIGTERM (or SIGINT) stops it cleanly with exit status 0.
#include "FileServiceTestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
  explicit Program(const std::vector<std::string>& arguments, const std::string& errorFile = "") {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
      return;
    }
    std::vector<std::string> all{QUILL_FILESERVICE_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      dup2(out[1], STDOUT_FILENO);
      if (!errorFile.empty()) {
        const int error = open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(error, STDERR_FILENO);
      }
      // Only standard input, output and error reach the program.
      for (int fd = 3; fd < 1024; ++fd) {
        close(fd);
      }
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(out[1]);
    output = out[0];
  }
  ~Program() {
    if (pid > 0 && !exited) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (output >= 0) {
      close(output);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // The first line of standard output, waited for up to the timeout; "" when none came.
  std::string firstLine(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = Clock::now() + timeout;
    std::string line;
    while (Clock::now() < deadline) {
      pollfd entry{output, POLLIN, 0};
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (poll(&entry, 1, static_cast<int>(std::max<long long>(left, 1))) <= 0) {
        continue;
      }
      char c = 0;
      const ssize_t got = read(output, &c, 1);
      if (got <= 0) {
        return {};
      }
      if (c == '\n') {
        return line;
      }
      line.push_back(c);
    }
    return {};
  }

  // Everything left on standard output until the program closes it (or the timeout passes).
  std::string remainingOutput(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = Clock::now() + timeout;
    std::string text;
    char buffer[4096];
    while (Clock::now() < deadline) {
      pollfd entry{output, POLLIN, 0};
      if (poll(&entry, 1, 100) <= 0) {
        continue;
      }
      const ssize_t got = read(output, buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
  }

  // Sends the signal and waits for the exit; the exit status, or -1 on a timeout or a death by
  // signal.
  int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    kill(pid, signal);
    return wait(timeout);
  }

  // Waits for the program to exit by itself; as stop().
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    int status = 0;
    const bool done =
        quill_test::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!done) {
      return -1;
    }
    exited = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  pid_t pid = -1;

private:
  int output = -1;
  bool exited = false;
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
  ASSERT_GT(program.pid, 0);
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
