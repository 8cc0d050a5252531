#pragma once

// Files and directories named by UTF-8 paths, for the tests whose names are not ASCII: on Windows
// a narrow path would be read in the ANSI code page, so these go through std::filesystem::u8path.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace quill_test {

inline bool makeDirectoriesUtf8(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::u8path(path), ec);
  return !ec && std::filesystem::is_directory(std::filesystem::u8path(path), ec);
}

inline bool writeFileUtf8(const std::string& path, const std::string& bytes) {
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

// The whole file as bytes; "" when it cannot be read.
inline std::string readFileUtf8(const std::string& path) {
  std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline bool fileExistsUtf8(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(std::filesystem::u8path(path), ec);
}

// `size` bytes that differ from block to block, so that misplaced data shows.
inline std::string patternBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i * 2654435761u >> 13 ^ seed);
  }
  return bytes;
}

}  // namespace quill_test
