#pragma once

#include "ToolProcess.h"

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace cli_test {

// The quill-cloud program run on a pseudo-terminal of a given size, standard output and standard
// error both on it, as in an interactive shell. Everything it writes is collected, byte for byte.
class TerminalProcess {
public:
  TerminalProcess(const std::vector<std::string>& arguments, unsigned short rows,
                  unsigned short columns, const Environment& environment = {});
  ~TerminalProcess();
  TerminalProcess(const TerminalProcess&) = delete;
  TerminalProcess& operator=(const TerminalProcess&) = delete;

  bool started() const { return pid > 0; }
  // Reads until the program has closed the terminal and waits for it; its exit status, or -1 when
  // it did not end in time (it is then killed).
  int finish(std::chrono::milliseconds timeout);
  const std::string& output() const { return out; }

private:
  pid_t pid = -1;
  int master = -1;
  bool exited = false;
  std::string out;
};

// What a terminal of `rows` rows does with the cursor-moving part of `bytes`: a line feed on the
// last row scrolls the screen, cursor-up stops at the top row. Other escape sequences and text are
// skipped (lines are assumed not to wrap).
struct ScreenTrace {
  // Lines scrolled off the top of the screen.
  int scrolled = 0;
  // The largest single cursor-up movement asked for.
  int largestMoveUp = 0;
  // Line feeds and escape sequences seen.
  int lineFeeds = 0;
  int escapes = 0;
};
ScreenTrace traceScreen(const std::string& bytes, int rows);

}  // namespace cli_test
