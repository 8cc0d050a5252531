#include "ChildProcess.h"

#include "TestSupport.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

// A child that has closed its output is on its way out: it gets this long to finish, whatever is
// left of the caller's timeout.
constexpr std::chrono::seconds kEndAfterClosing(10);

std::vector<char*> pointersInto(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
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

// True when the child has ended, so that waitpid() returns at once, within the timeout.
bool endsWithin(pid_t pid, std::chrono::milliseconds timeout) {
  // By its system call: glibc's wrapper is not declared for C++ everywhere.
  const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (descriptor < 0) {
    // No process descriptors here: asking is all there is.
    return eventually(
        [pid] {
          siginfo_t info{};
          return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                 info.si_pid == pid;
        },
        timeout);
  }
  const auto deadline = Clock::now() + timeout;
  pollfd entry{descriptor, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, static_cast<int>(timeLeft(deadline).count()));
  } while (ready < 0 && errno == EINTR && Clock::now() < deadline);
  close(descriptor);
  return ready > 0;
}

// Points `target` (standard output or error) where the stream goes; in the child, after fork().
void redirect(const ChildStream& stream, int pipeEnd, int target) {
  if (stream.to == ChildStream::To::Pipe) {
    dup2(pipeEnd, target);
  } else if (stream.to == ChildStream::To::File) {
    const int file = open(stream.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, target);
  }
}

// The child's side of the launch: only what is safe between fork() and exec. On a terminal, the
// standard streams are left on it.
[[noreturn]] void becomeChild(const ChildLaunch& launch, int outputPipe, int errorPipe,
                              char* const* argv, char* const* envp) {
  if (!launch.terminal) {
    redirect(launch.output, outputPipe, STDOUT_FILENO);
    redirect(launch.errors, errorPipe, STDERR_FILENO);
  }
  for (int fd = 3; fd < 1024; ++fd) {
    close(fd);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGINT, SIG_DFL);
  if (launch.runAs >= 0) {
    const auto id = static_cast<uid_t>(launch.runAs);
    if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0) {
      _exit(126);
    }
  }
  execve(argv[0], argv, envp);
  _exit(127);
}

// Where the stream goes into a pipe: one whose ends are closed on exec. {-1, -1} otherwise, or
// when no pipe could be made.
void pipeFor(const ChildStream& stream, int (&ends)[2]) {
  ends[0] = ends[1] = -1;
  if (stream.to == ChildStream::To::Pipe && pipe2(ends, O_CLOEXEC) != 0) {
    ends[0] = ends[1] = -1;
  }
}

}  // namespace

std::vector<std::string> ChildEnvironment::entries() const {
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

ChildProcess::ChildProcess(const ChildLaunch& launch) {
  if (launch.command.empty()) {
    return;
  }
  // Built before the fork: the child only calls what is safe between fork and exec.
  auto commandStorage = launch.command;
  auto environmentStorage = launch.environment.entries();
  const auto argv = pointersInto(commandStorage);
  const auto envp = pointersInto(environmentStorage);

  if (launch.terminal) {
    winsize size{};
    size.ws_row = launch.terminal->rows;
    size.ws_col = launch.terminal->columns;
    int terminal = -1;
    pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      becomeChild(launch, -1, -1, argv.data(), envp.data());
    }
    out = ChildOutput(terminal);
    return;
  }

  int outputPipe[2];
  int errorPipe[2];
  pipeFor(launch.output, outputPipe);
  pipeFor(launch.errors, errorPipe);
  // The reading ends are ours from here on, whatever happens.
  out = ChildOutput(outputPipe[0]);
  err = ChildOutput(errorPipe[0]);
  const bool piped = (launch.output.to != ChildStream::To::Pipe || out.open()) &&
                     (launch.errors.to != ChildStream::To::Pipe || err.open());
  if (piped) {
    pid = fork();
    if (pid == 0) {
      becomeChild(launch, outputPipe[1], errorPipe[1], argv.data(), envp.data());
    }
  }
  for (const int writing : {outputPipe[1], errorPipe[1]}) {
    if (writing >= 0) {
      close(writing);
    }
  }
}

ChildProcess::~ChildProcess() {
  kill();
}

bool ChildProcess::signal(int number) {
  return started() && !waitedFor && ::kill(pid, number) == 0;
}

int ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!started()) {
    return -1;
  }
  if (!waitedFor) {
    int raw = 0;
    if (!endsWithin(pid, timeout) || waitpid(pid, &raw, 0) != pid) {
      return -1;
    }
    waitedFor = true;
    status = statusOf(raw);
  }
  return status;
}

int ChildProcess::finish(ChildOutput& stream, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  int ended = -1;
  if (started() && stream.readToEnd(timeout)) {
    ended = waitForExit(std::max<std::chrono::milliseconds>(timeLeft(deadline), kEndAfterClosing));
  }
  if (ended == -1) {
    kill();
  }
  return ended;
}

void ChildProcess::kill() {
  if (started() && !waitedFor) {
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    waitedFor = true;
  }
}

}  // namespace quill_test
