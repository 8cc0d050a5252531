#pragma once

// The URL lists the bench programs take: one URL a line, empty lines skipped.

#include <fstream>
#include <string>
#include <vector>

namespace quill_bench {

inline std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace quill_bench
