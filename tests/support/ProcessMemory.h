#pragma once

#if defined(_WIN32)
#include <windows.h>
// After windows.h, which it needs.
#include <psapi.h>
#endif

#include <cstdint>
#include <fstream>
#include <string>

namespace quill_test {

// The process's peak resident memory so far (VmHWM; on Windows the peak working set), in bytes.
inline std::uint64_t peakResidentBytes() {
#if defined(_WIN32)
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  return K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)
             ? static_cast<std::uint64_t>(counters.PeakWorkingSetSize)
             : 0;
#else
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) {
      return std::stoull(line.substr(6)) * 1024;  // the kernel states it in kB
    }
  }
  return 0;
#endif
}

}  // namespace quill_test
