#pragma once

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace quill_test {

// Writes `size` bytes of a repeating, position-dependent pattern (so that misplaced blocks show)
// and returns the path.
inline std::string writePattern(const std::string& path, std::size_t size, unsigned seed = 1) {
  std::string block(64 * 1024, '\0');
  std::ofstream out(path, std::ios::binary);
  std::size_t written = 0;
  while (written < size) {
    for (std::size_t i = 0; i < block.size(); ++i) {
      block[i] = static_cast<char>((written + i) * 2654435761u >> 13 ^ seed);
    }
    const auto chunk = std::min(block.size(), size - written);
    out.write(block.data(), static_cast<std::streamsize>(chunk));
    written += chunk;
  }
  return path;
}

// The whole file as bytes; "" when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// How many entries (files, directories, links) the directory holds; 0 when it cannot be read.
inline std::size_t entriesIn(const std::string& directory) {
  std::size_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace quill_test
