#include "ProbeRun.h"

#include "ChildProcess.h"

namespace quill_test {

int runProbe(const std::string& program, const std::vector<std::string>& arguments,
             std::chrono::seconds limit) {
  ChildLaunch launch;
  launch.command.push_back(program);
  launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
  ChildProcess probe(launch);
  if (!probe.started()) {
    return -1;
  }
  const int status = probe.waitForExit(limit);
  if (status < 0) {
    probe.kill();
    return -1;
  }
  // A crash is no exit status: on POSIX a signal (128 + its number), on Windows the exception's
  // code (0xC0000005 and the like).
#if defined(_WIN32)
  return static_cast<unsigned>(status) >= 0xC0000000u ? -1 : status;
#else
  return status >= 128 ? -1 : status;
#endif
}

}  // namespace quill_test
