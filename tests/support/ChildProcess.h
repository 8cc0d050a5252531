#pragma once

#include "ChildOutput.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quill_test {

// The environment a child starts with: the test program's own (nothing of it when `clear`), less
// the variables in `unset`, with those in `set`.
struct ChildEnvironment {
  bool clear = false;
  std::vector<std::string> unset;
  std::vector<std::pair<std::string, std::string>> set;

  // "NAME=value" entries, as execve takes them. On Windows names are compared without case, as the
  // system does, and `clear` keeps the few variables without which a program cannot start there
  // (PATH, to find its DLLs; SystemRoot and windir; SystemDrive).
  std::vector<std::string> entries() const;
};

// Where one of the child's standard streams goes.
struct ChildStream {
  enum class To { Inherited, Pipe, File };
  To to = To::Inherited;
  // For File: created, or truncated, by the child.
  std::string path;

  static ChildStream pipe() { return {To::Pipe, {}}; }
  static ChildStream file(std::string path) { return {To::File, std::move(path)}; }
};

struct TerminalSize {
  unsigned short rows = 24;
  unsigned short columns = 80;
};

// How to start a child process.
struct ChildLaunch {
  // The program's path, then its arguments.
  std::vector<std::string> command;
  ChildEnvironment environment;
  ChildStream output;
  ChildStream errors;
  // Standard input, output and error all on a new pseudo-terminal of this size instead (output
  // and errors above are then not used), read through output(). POSIX only: on Windows the child
  // is not started.
  std::optional<TerminalSize> terminal;
  // When not -1 (and the tests run as root), the child runs as this user and group id. POSIX only:
  // on Windows the child is not started.
  long runAs = -1;
};

// A program run as a child process. Only its standard streams reach it, with the signal mask and
// the SIGINT disposition of a fresh process whatever the test program has set. Killed, if still
// running, when destroyed. On Windows it is started in a process group of its own, so that a
// console control event can be sent to it alone (see signal()).
class ChildProcess {
public:
  explicit ChildProcess(const ChildLaunch& launch);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid > 0; }
  // The process id (on Windows the system's process id).
  pid_t id() const { return pid; }

  // Standard output (or the terminal) and standard error, where they go into a pipe.
  ChildOutput& output() { return out; }
  const ChildOutput& output() const { return out; }
  ChildOutput& errors() { return err; }
  const ChildOutput& errors() const { return err; }

  // False when the child is not running or the signal could not be sent. On Windows SIGINT and
  // SIGTERM are sent as a CTRL_BREAK_EVENT to the child's process group (it shares the test
  // program's console); where the system refuses that event (Wine 8), as a CTRL_C_EVENT to that
  // group, which reaches a child that takes Ctrl-C again as quill-cloud does. Other numbers cannot
  // be sent there.
  bool signal(int number);
  // Whether signal() can reach a child at all: always on POSIX; on Windows only when the test
  // program has a console for its children to share (it tries to get one before the first child).
  static bool signalsReachChildren();
  // Waits up to `timeout` for the child to end: its exit status, 128 + the signal's number when a
  // signal ended it, -1 when it did not end in time.
  int waitForExit(std::chrono::milliseconds timeout);
  // Reads `stream` until the child closes it, which it does when it ends, then waits for the end;
  // the status as waitForExit(). When that takes longer than `timeout` the child is killed and the
  // status is -1.
  int finish(ChildOutput& stream, std::chrono::milliseconds timeout);
  // Ends the child with SIGKILL (on Windows TerminateProcess, exit status 137) and waits for it.
  void kill();

private:
  pid_t pid = -1;
#if defined(_WIN32)
  void* process = nullptr;
#endif
  bool waitedFor = false;
  int status = -1;
  ChildOutput out;
  ChildOutput err;
};

}  // namespace quill_test
