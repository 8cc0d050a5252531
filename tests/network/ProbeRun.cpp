#include "ProbeRun.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/wait.h>

#include <cstdlib>
#endif

namespace quill_test {

#if defined(_WIN32)

namespace {

std::wstring widen(const std::string& utf8) {
  if (utf8.empty()) {
    return {};
  }
  const int length =
      MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), length);
  return wide;
}

// One argument quoted the way the C runtime splits a command line: backslashes are literal except
// before a quote, where each is doubled along with the escaped quote.
std::wstring quoted(const std::wstring& argument) {
  std::wstring out = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    if (c == L'"') {
      out.append(backslashes * 2 + 1, L'\\');
    } else {
      out.append(backslashes, L'\\');
    }
    backslashes = 0;
    out.push_back(c);
  }
  out.append(backslashes * 2, L'\\');
  out.push_back(L'"');
  return out;
}

}  // namespace

int runProbe(const std::string& program, const std::vector<std::string>& arguments,
             std::chrono::seconds limit) {
  const std::wstring path = widen(program);
  std::wstring commandLine = quoted(path);
  for (const auto& argument : arguments) {
    commandLine += L" " + quoted(widen(argument));
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                      nullptr, &startup, &process)) {
    return -1;
  }
  CloseHandle(process.hThread);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(limit).count();
  int result = -1;
  if (WaitForSingleObject(process.hProcess, static_cast<DWORD>(milliseconds)) == WAIT_OBJECT_0) {
    DWORD code = 0;
    // A crash ends the process with its exception code (0xC0000005 and the like): not a status.
    if (GetExitCodeProcess(process.hProcess, &code) && code < 0xC0000000u) {
      result = static_cast<int>(code);
    }
  } else {
    TerminateProcess(process.hProcess, 1);
    WaitForSingleObject(process.hProcess, INFINITE);
  }
  CloseHandle(process.hProcess);
  return result;
}

#else

namespace {

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

}  // namespace

int runProbe(const std::string& program, const std::vector<std::string>& arguments,
             std::chrono::seconds limit) {
  std::string command = "timeout -s KILL " + std::to_string(limit.count()) + " " + quoted(program);
  for (const auto& argument : arguments) {
    command += " " + quoted(argument);
  }
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif

}  // namespace quill_test
