#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace quill_network_detail {

// The local file a PUT sends, read piece by piece as libcurl asks for bytes; rewound when libcurl
// has to send the body again (after a redirect that keeps the method, say).
class UploadFile {
public:
  explicit UploadFile(std::string path);
  ~UploadFile();
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  // False when the file cannot be opened for reading.
  bool open();
  std::uint64_t size() const { return bytes; }
  // Why the file could not be opened or read ("cannot read <path>: <reason>"); empty while all is
  // well. systemError() is the errno behind it.
  const std::string& error() const { return lastError; }
  int systemError() const { return lastErrno; }

  // Fits CURLOPT_READFUNCTION / CURLOPT_SEEKFUNCTION with this object as the user pointer.
  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self);
  static int onSeek(void* self, curl_off_t offset, int origin);

private:
  std::string path;
  std::FILE* file = nullptr;
  std::uint64_t bytes = 0;
  std::string lastError;
  int lastErrno = 0;
};

}  // namespace quill_network_detail
