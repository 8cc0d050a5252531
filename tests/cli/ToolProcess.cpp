#include "ToolProcess.h"

#include <quill_base/TextUtils.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace cli_test {
namespace {

quill_test::ChildLaunch outputToFileErrorsToPipe(quill_test::ChildLaunch launch,
                                                 const std::string& outputFile) {
  launch.output = quill_test::ChildStream::file(outputFile);
  launch.errors = quill_test::ChildStream::pipe();
  return launch;
}

}  // namespace

quill_test::ChildLaunch toolLaunch(const std::vector<std::string>& arguments,
                                   const Environment& environment) {
  quill_test::ChildLaunch launch;
  launch.command = {QUILL_CLOUD_PROGRAM};
  launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
  launch.environment = environment;
  launch.runAs = environment.runAs;
  return launch;
}

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const Environment& environment)
    : outputFile(
          (std::filesystem::temp_directory_path() / ("quill-cli-out-" + TextUtils::UUID_String()))
              .u8string()),
      child(outputToFileErrorsToPipe(toolLaunch(arguments, environment), outputFile)) {}

ToolProcess::~ToolProcess() {
  child.kill();
  std::error_code error;
  std::filesystem::remove(std::filesystem::u8path(outputFile), error);
}

bool ToolProcess::interrupt() {
  return child.signal(SIGINT);
}

bool ToolProcess::waitForError(const std::string& text, std::chrono::milliseconds timeout) {
  return child.errors().readUntil(text, timeout);
}

int ToolProcess::finish(std::chrono::milliseconds timeout) {
  if (!child.started()) {
    return -1;
  }
  // Standard error closes when the program ends (no other process holds the pipe).
  const int status = child.finish(child.errors(), timeout);
  std::ifstream in(std::filesystem::u8path(outputFile), std::ios::binary);
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
