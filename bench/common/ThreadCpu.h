#pragma once

// CPU time of this process's threads, summed by thread name, as a JSON object for the bench
// programs' reply ({"quill network":0.081,"cloud storage":0.062,...}): which of the library's
// threads a run's CPU went to. Read from /proc (schedstat counts nanoseconds on the CPU); the
// threads must still be alive, so it is read before the service goes. "{}" where there is no /proc.

#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#if defined(__linux__)
#include <dirent.h>
#endif

namespace quill_bench {

inline std::string threadCpuJson() {
  std::map<std::string, double> seconds;
#if defined(__linux__)
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(tasks)) {
      const std::string task = entry->d_name;
      if (task == "." || task == "..") {
        continue;
      }
      std::ifstream comm("/proc/self/task/" + task + "/comm");
      std::ifstream schedstat("/proc/self/task/" + task + "/schedstat");
      std::string name;
      unsigned long long onCpuNs = 0;
      if (std::getline(comm, name) && (schedstat >> onCpuNs)) {
        seconds[name] += static_cast<double>(onCpuNs) / 1e9;
      }
    }
    closedir(tasks);
  }
#endif
  std::string json = "{";
  for (const auto& [name, value] : seconds) {
    char number[32];
    std::snprintf(number, sizeof number, "%.6f", value);
    json += (json.size() > 1 ? ",\"" : "\"") + name + "\":" + number;
  }
  return json + "}";
}

}  // namespace quill_bench
