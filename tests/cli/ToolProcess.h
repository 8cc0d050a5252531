#pragma once

#include "ChildProcess.h"

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace cli_test {

// The environment the program gets (see ChildEnvironment), and the user it runs as.
struct Environment : quill_test::ChildEnvironment {
  // When not -1 (and the test runs as root), the program runs as this user and group id.
  long runAs = -1;
};

// How the quill-cloud program is started with these arguments and this environment; its standard
// streams are left for the caller to direct.
quill_test::ChildLaunch toolLaunch(const std::vector<std::string>& arguments,
                                   const Environment& environment);

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

  bool started() const { return child.started(); }
  pid_t processId() const { return child.id(); }
  // Asks the program to stop as Ctrl-C does: SIGINT, on Windows a CTRL_BREAK_EVENT to its own
  // process group. False when it could not be sent.
  bool interrupt();
  // Ends the program at once, as a crash or a power cut would: SIGKILL (TerminateProcess).
  void kill() { child.kill(); }

  // Reads standard error until it holds `text`; false when the timeout passed or the pipe closed.
  bool waitForError(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Waits for the program to exit and collects what it wrote. The exit status, or -1 when it did
  // not exit in time (it is then killed), or 128 + signal when a signal ended it.
  int finish(std::chrono::milliseconds timeout = std::chrono::seconds(60));

  const std::string& output() const { return out; }
  const std::string& errors() const { return child.errors().text(); }

private:
  std::string outputFile;
  quill_test::ChildProcess child;
  std::string out;
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

}  // namespace cli_test
