#pragma once

#include "ChildProcess.h"
#include "ScreenTrace.h"
#include "ToolProcess.h"

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

  bool started() const { return child.started(); }
  // Reads until the program has closed the terminal and waits for it; its exit status, or -1 when
  // it did not end in time (it is then killed).
  int finish(std::chrono::milliseconds timeout) { return child.finish(child.output(), timeout); }
  const std::string& output() const { return child.output().text(); }

private:
  quill_test::ChildProcess child;
};

}  // namespace cli_test
