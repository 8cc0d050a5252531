#pragma once

#include "TestFiles.h"

// Helpers of the stress and lifetime runs: sizes from the environment, and counts of the process's
// threads, file descriptors (on Windows: handles) and files below a directory.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>
#endif

namespace quill_test {

// The value of an environment variable as a number, or `fallback` when unset or not a number.
inline int sizeFromEnvironment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') {
    return fallback;
  }
  char* end = nullptr;
  const long parsed = std::strtol(value, &end, 10);
  return (end != nullptr && *end == '\0' && parsed > 0) ? static_cast<int>(parsed) : fallback;
}

inline std::string firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// Threads that carry a name of their own: the library's (serial queues, the network engine). The
// in-process file service's workers keep the program's name (on Windows: no name) and come and go
// with its connections.
#if defined(_WIN32)
inline std::size_t namedThreadCount() {
  // GetThreadDescription came with Windows 10 1607: looked up at run time, as the library does.
  using Describe = HRESULT(WINAPI*)(HANDLE, PWSTR*);
  static const auto describe = reinterpret_cast<Describe>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
  if (describe == nullptr) {
    return 0;
  }
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) {
    return 0;
  }
  std::size_t count = 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (bool more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID != GetCurrentProcessId()) {
      continue;
    }
    const HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ThreadID);
    if (thread == nullptr) {
      continue;
    }
    PWSTR name = nullptr;
    if (SUCCEEDED(describe(thread, &name)) && name != nullptr) {
      count += name[0] != L'\0' ? 1 : 0;
      LocalFree(name);
    }
    CloseHandle(thread);
  }
  CloseHandle(snapshot);
  return count;
}
inline std::size_t openDescriptors() {
  DWORD handles = 0;
  return GetProcessHandleCount(GetCurrentProcess(), &handles) ? handles : 0;
}
#else
inline std::size_t namedThreadCount() {
  const auto program = firstLine("/proc/self/comm");
  std::size_t count = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc/self/task", ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto name = firstLine((it->path() / "comm").string());
    count += (!name.empty() && name != program) ? 1 : 0;
  }
  return count;
}
inline std::size_t openDescriptors() {
  return entriesIn("/proc/self/fd");
}
#endif

}  // namespace quill_test
