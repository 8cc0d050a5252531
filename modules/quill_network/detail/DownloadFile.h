#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace quill_network_detail {

// The file a download writes into. Small received pieces are gathered into chunks of `chunkBytes`
// and each chunk goes to the file in one write, so the file sees few large writes however small the
// pieces the network delivers; pieces of a sixteenth of a chunk or more are written as they come,
// without the copy. Memory stays at one chunk whatever the size of the download.
class DownloadFile {
public:
  DownloadFile(std::string path, std::size_t chunkBytes);
  ~DownloadFile();  // discards the file unless commit() succeeded
  DownloadFile(const DownloadFile&) = delete;
  DownloadFile& operator=(const DownloadFile&) = delete;

  // Creates or truncates the file; false when it cannot be opened for writing.
  bool open();
  // False when the bytes could not be written (the reason is in error()).
  bool write(const char* data, std::size_t size);
  // Writes what is gathered and closes the file, which then stays; false on a write error.
  bool commit();
  // Closes the file and removes it from disk.
  void discard();

  std::size_t bytesWritten() const { return total; }
  const std::string& error() const { return lastError; }

private:
  bool flush();

  std::string path;
  std::size_t chunkBytes;
  std::FILE* file = nullptr;
  std::vector<char> pending;
  std::size_t total = 0;
  bool committed = false;
  std::string lastError;
};

}  // namespace quill_network_detail
