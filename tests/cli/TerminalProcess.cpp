#include "TerminalProcess.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace cli_test {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

TerminalProcess::TerminalProcess(const std::vector<std::string>& arguments, unsigned short rows,
                                 unsigned short columns, const Environment& environment) {
  std::vector<std::string> argumentStorage;
  std::vector<std::string> environmentStorage;
  const auto argv = programArguments(arguments, argumentStorage);
  const auto envp = environmentPointers(environment, environmentStorage);
  winsize size{};
  size.ws_row = rows;
  size.ws_col = columns;
  pid = forkpty(&master, nullptr, nullptr, &size);
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_DFL);
    for (int fd = 3; fd < 1024; ++fd) {
      close(fd);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
}

TerminalProcess::~TerminalProcess() {
  if (pid > 0 && !exited) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  if (master >= 0) {
    close(master);
  }
}

int TerminalProcess::finish(std::chrono::milliseconds timeout) {
  if (pid <= 0) {
    return -1;
  }
  const auto deadline = Clock::now() + timeout;
  // The terminal reads end of file (EIO on Linux) once the program and its children have closed it.
  bool open = master >= 0;
  while (open && Clock::now() < deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry{master, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(std::max<long long>(left, 0))) <= 0) {
      continue;
    }
    char buffer[8192];
    const ssize_t got = read(master, buffer, sizeof buffer);
    if (got > 0) {
      out.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      open = false;
    }
  }
  int raw = 0;
  int status = -1;
  if (!open && waitpid(pid, &raw, 0) == pid) {
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  } else {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  exited = true;
  return status;
}

ScreenTrace traceScreen(const std::string& bytes, int rows) {
  ScreenTrace trace;
  int row = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\n') {
      ++trace.lineFeeds;
      if (row == rows - 1) {
        ++trace.scrolled;
      } else {
        ++row;
      }
      continue;
    }
    if (c != '\x1b') {
      continue;
    }
    ++trace.escapes;
    if (i + 1 >= bytes.size() || bytes[i + 1] != '[') {
      continue;
    }
    // A control sequence: parameters, then a final byte from '@' to '~'.
    std::size_t end = i + 2;
    while (end < bytes.size() && !(bytes[end] >= '@' && bytes[end] <= '~')) {
      ++end;
    }
    if (end >= bytes.size()) {
      break;
    }
    if (bytes[end] == 'A') {
      const auto parameter = bytes.substr(i + 2, end - i - 2);
      const int count = parameter.empty() ? 1 : std::atoi(parameter.c_str());
      trace.largestMoveUp = std::max(trace.largestMoveUp, count);
      row = std::max(row - count, 0);
    }
    i = end;
  }
  return trace;
}

}  // namespace cli_test
