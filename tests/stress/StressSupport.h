#pragma once

#include "TestFiles.h"

// Helpers of the stress and lifetime runs: sizes from the environment, and counts of the process's
// threads, file descriptors and files below a directory.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

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
// in-process file service's workers keep the program's name and come and go with its connections.
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

}  // namespace quill_test
