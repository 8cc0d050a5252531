#include "ToolProcess.h"

#include <quill_base/TextUtils.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

namespace cli_test {
namespace {

using Clock = std::chrono::steady_clock;

int millisecondsLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long long>(left, 0));
}

int statusOf(int raw) {
  if (WIFEXITED(raw)) {
    return WEXITSTATUS(raw);
  }
  if (WIFSIGNALED(raw)) {
    return 128 + WTERMSIG(raw);
  }
  return -1;
}

}  // namespace

std::vector<std::string> Environment::entries() const {
  std::vector<std::string> result;
  if (!clear) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string text = *entry;
      const auto name = text.substr(0, text.find('='));
      bool dropped = std::find(unset.begin(), unset.end(), name) != unset.end();
      for (const auto& [setName, value] : set) {
        dropped = dropped || setName == name;
      }
      if (!dropped) {
        result.push_back(text);
      }
    }
  }
  for (const auto& [name, value] : set) {
    result.push_back(name + "=" + value);
  }
  return result;
}

std::vector<char*> programArguments(const std::vector<std::string>& arguments,
                                    std::vector<std::string>& storage) {
  storage = {QUILL_CLOUD_PROGRAM};
  storage.insert(storage.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (auto& argument : storage) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<char*> environmentPointers(const Environment& environment,
                                       std::vector<std::string>& storage) {
  storage = environment.entries();
  std::vector<char*> pointers;
  for (auto& entry : storage) {
    pointers.push_back(entry.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const Environment& environment)
    : outputFile(
          (std::filesystem::temp_directory_path() / ("quill-cli-out-" + TextUtils::UUID_String()))
              .string()) {
  int pipeEnds[2];
  if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
    return;
  }
  // Built before the fork: the child only calls what is safe between fork and exec.
  std::vector<std::string> argumentStorage;
  std::vector<std::string> environmentStorage;
  const auto argv = programArguments(arguments, argumentStorage);
  const auto envp = environmentPointers(environment, environmentStorage);
  const long runAs = environment.runAs;
  pid = fork();
  if (pid == 0) {
    const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(pipeEnds[1], STDERR_FILENO);
    for (int fd = 3; fd < 1024; ++fd) {
      close(fd);
    }
    // The signal mask and dispositions of the test program must not leak into the tool.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_DFL);
    if (runAs >= 0) {
      const auto id = static_cast<uid_t>(runAs);
      if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0) {
        _exit(126);
      }
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(pipeEnds[1]);
  errorPipe = pipeEnds[0];
}

ToolProcess::~ToolProcess() {
  if (pid > 0 && !exited) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  if (errorPipe >= 0) {
    close(errorPipe);
  }
  std::error_code error;
  std::filesystem::remove(outputFile, error);
}

bool ToolProcess::readErrors(std::chrono::milliseconds timeout) {
  if (errorPipe < 0) {
    return false;
  }
  pollfd entry{errorPipe, POLLIN, 0};
  if (poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) {
    return true;
  }
  char buffer[4096];
  const ssize_t got = read(errorPipe, buffer, sizeof buffer);
  if (got <= 0) {
    close(errorPipe);
    errorPipe = -1;
    return false;
  }
  err.append(buffer, static_cast<std::size_t>(got));
  return true;
}

bool ToolProcess::waitForError(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (err.find(text) == std::string::npos) {
    if (Clock::now() >= deadline ||
        !readErrors(std::chrono::milliseconds(millisecondsLeft(deadline)))) {
      return err.find(text) != std::string::npos;
    }
  }
  return true;
}

int ToolProcess::finish(std::chrono::milliseconds timeout) {
  if (pid <= 0) {
    return -1;
  }
  const auto deadline = Clock::now() + timeout;
  // Standard error closes when the program ends (no other process holds the pipe).
  while (errorPipe >= 0 && Clock::now() < deadline) {
    readErrors(std::chrono::milliseconds(millisecondsLeft(deadline)));
  }
  int raw = 0;
  int status = -1;
  if (errorPipe < 0 && waitpid(pid, &raw, 0) == pid) {
    status = statusOf(raw);
  } else {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  exited = true;
  std::ifstream in(outputFile, std::ios::binary);
  out.assign(std::istreambuf_iterator<char>(in), {});
  return status;
}

Outcome runTool(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
                const Environment& environment) {
  ToolProcess process(arguments, environment);
  Outcome outcome;
  outcome.status = process.finish(timeout);
  outcome.output = process.output();
  outcome.errors = process.errors();
  return outcome;
}

}  // namespace cli_test
