#include "TerminalProcess.h"

namespace cli_test {
namespace {

quill_test::ChildLaunch onTerminal(quill_test::ChildLaunch launch, unsigned short rows,
                                   unsigned short columns) {
  launch.terminal = quill_test::TerminalSize{rows, columns};
  return launch;
}

}  // namespace

TerminalProcess::TerminalProcess(const std::vector<std::string>& arguments, unsigned short rows,
                                 unsigned short columns, const Environment& environment)
    : child(onTerminal(toolLaunch(arguments, environment), rows, columns)) {}

}  // namespace cli_test
