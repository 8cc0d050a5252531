#include "Platform.h"

#include "Display.h"

#if defined(_WIN32)
#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>

#include <cstdlib>
#else
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#endif

namespace quill_cli {

#if defined(_WIN32)

namespace {

HANDLE errorConsole() {
  const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
  DWORD mode = 0;
  return handle != INVALID_HANDLE_VALUE && handle != nullptr && GetConsoleMode(handle, &mode) != 0
             ? handle
             : nullptr;
}

}  // namespace

std::vector<std::string> commandLineArguments(int argc, char** argv) {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  if (wide == nullptr) {
    arguments.assign(argv, argv + argc);
  } else {
    for (int i = 0; i < count; ++i) {
      arguments.push_back(fromPath(std::filesystem::path(wide[i])));
    }
    LocalFree(wide);
  }
  // The console outlives the tool: its code page is given back at exit.
  static const UINT consoleCodePage = GetConsoleOutputCP();
  if (consoleCodePage != 0 && consoleCodePage != CP_UTF8 && SetConsoleOutputCP(CP_UTF8) != 0) {
    std::atexit([] { SetConsoleOutputCP(consoleCodePage); });
  }
  return arguments;
}

void setEnvironmentVariable(const std::string& name, const std::string& value) {
  _putenv_s(name.c_str(), value.c_str());
}

TerminalSize errorTerminalSize() {
  TerminalSize size;
  CONSOLE_SCREEN_BUFFER_INFO info{};
  const HANDLE console = errorConsole();
  if (console != nullptr && GetConsoleScreenBufferInfo(console, &info) != 0) {
    // The visible window, not the whole scroll-back buffer.
    size.columns = info.srWindow.Right - info.srWindow.Left + 1;
    size.rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  }
  return size;
}

bool errorTerminalTakesEscapes() {
  const HANDLE console = errorConsole();
  if (console == nullptr) {
    return false;
  }
  // TERM is rarely set on Windows; where it is, "dumb" still means no cursor control.
  if (const char* term = std::getenv("TERM");
      term != nullptr && !terminalUnderstandsEscapes(term)) {
    return false;
  }
  DWORD mode = 0;
  if (GetConsoleMode(console, &mode) == 0) {
    return false;
  }
  if ((mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0) {
    return true;
  }
  // Older consoles refuse the flag: they would print the escape sequences as text.
  return SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

#else

namespace {

winsize terminalSize() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) {
    size = winsize{};
  }
  return size;
}

}  // namespace

std::vector<std::string> commandLineArguments(int argc, char** argv) {
  return std::vector<std::string>(argv, argv + argc);
}

void setEnvironmentVariable(const std::string& name, const std::string& value) {
  setenv(name.c_str(), value.c_str(), 1);
}

TerminalSize errorTerminalSize() {
  const auto size = terminalSize();
  return {size.ws_col, size.ws_row};
}

bool errorTerminalTakesEscapes() {
  return isatty(STDERR_FILENO) != 0 && terminalUnderstandsEscapes(std::getenv("TERM"));
}

#endif

}  // namespace quill_cli
