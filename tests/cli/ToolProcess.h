#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace cli_test {

// The environment the program gets: the test program's own, or nothing when `clear`, with these
// variables removed and these set.
struct Environment {
  bool clear = false;
  std::vector<std::string> unset;
  std::vector<std::pair<std::string, std::string>> set;
  // When not -1 (and the test runs as root), the program runs as this user and group id.
  long runAs = -1;

  // "NAME=value" entries for execve.
  std::vector<std::string> entries() const;
};

// The quill-cloud program run as a child process: standard output goes to a file, standard error
// comes back through a pipe so that a test can wait for a line to appear. Killed when destroyed
// if still running.
class ToolProcess {
public:
  explicit ToolProcess(const std::vector<std::string>& arguments,
                       const Environment& environment = {});
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  bool started() const { return pid > 0; }
  pid_t processId() const { return pid; }

  // Reads standard error until it holds `text`; false when the timeout passed or the pipe closed.
  bool waitForError(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Waits for the program to exit and collects what it wrote. The exit status, or -1 when it did
  // not exit in time (it is then killed), or 128 + signal when a signal ended it.
  int finish(std::chrono::milliseconds timeout = std::chrono::seconds(60));

  const std::string& output() const { return out; }
  const std::string& errors() const { return err; }

private:
  // Reads what is available on the error pipe, waiting up to `timeout` for something; false at
  // end of file.
  bool readErrors(std::chrono::milliseconds timeout);

  pid_t pid = -1;
  int errorPipe = -1;
  bool exited = false;
  std::string outputFile;
  std::string out;
  std::string err;
};

// Runs the program to its end; shorthand for tests that need only the outcome.
struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};
Outcome runTool(const std::vector<std::string>& arguments,
                std::chrono::milliseconds timeout = std::chrono::seconds(60),
                const Environment& environment = {});

// argv for execv: the program, then `arguments`; the pointers point into `storage`.
std::vector<char*> programArguments(const std::vector<std::string>& arguments,
                                    std::vector<std::string>& storage);
// envp for execve, pointing into `storage`.
std::vector<char*> environmentPointers(const Environment& environment,
                                       std::vector<std::string>& storage);

}  // namespace cli_test
