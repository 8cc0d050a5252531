#pragma once

// The few things the tool asks of the operating system that differ between POSIX and Windows:
// paths as UTF-8 strings, its own environment and the terminal standard error goes to. (The
// requests to stop are in tools/common/StopRequests.h, shared with the file service.)
#include <filesystem>
#include <string>
#include <vector>

namespace quill_cli {

// A UTF-8 path as std::filesystem takes it, and back (on Windows the narrow encoding of
// std::filesystem is the ANSI code page, not UTF-8; on POSIX both are the bytes as they are).
inline std::filesystem::path toPath(const std::string& utf8) {
  return std::filesystem::u8path(utf8);
}
inline std::string fromPath(const std::filesystem::path& path) {
  return path.u8string();
}

// The command line as UTF-8 strings, the program first. On Windows read again in UTF-16 (the
// narrow argv is in the ANSI code page, which cannot hold every file name), and the console is
// told that the tool writes UTF-8.
std::vector<std::string> commandLineArguments(int argc, char** argv);

// Sets a variable of the tool's own environment, for the library's getenv and the file service.
void setEnvironmentVariable(const std::string& name, const std::string& value);

// The size of the terminal standard error is on; zero in a dimension that cannot be told.
struct TerminalSize {
  int columns = 0;
  int rows = 0;
};
TerminalSize errorTerminalSize();

// Whether standard error is a terminal (a console on Windows) on which the live progress block,
// drawn with cursor-moving escape sequences, can be shown. On Windows this turns the console's
// escape-sequence processing on; a console that cannot take it gets plain lines.
bool errorTerminalTakesEscapes();

}  // namespace quill_cli
