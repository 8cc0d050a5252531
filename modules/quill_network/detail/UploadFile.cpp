#include "detail/UploadFile.h"

#include <quill_base/FileUtils.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace quill_network_detail {

UploadFile::UploadFile(std::string path) : path(std::move(path)) {}

UploadFile::~UploadFile() {
  if (file != nullptr) {
    std::fclose(file);
  }
}

bool UploadFile::open() {
  if (!FileUtils::fileExists(path)) {
    lastError = "cannot read " + path + ": no such file";
    return false;
  }
  file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    lastError = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  bytes = FileUtils::fileSize(path);
  return true;
}

std::size_t UploadFile::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto* upload = static_cast<UploadFile*>(self);
  const std::size_t wanted = size * count;
  const std::size_t got = std::fread(buffer, 1, wanted, upload->file);
  if (got < wanted && std::ferror(upload->file) != 0) {
    upload->lastError = "reading " + upload->path + " failed";
    return CURL_READFUNC_ABORT;
  }
  return got;
}

int UploadFile::onSeek(void* self, curl_off_t offset, int origin) {
  auto* upload = static_cast<UploadFile*>(self);
  // fseek takes a long, narrower than curl_off_t where long has 32 bits.
  if constexpr (sizeof(curl_off_t) > sizeof(long)) {
    if (offset > LONG_MAX || offset < LONG_MIN) {
      return CURL_SEEKFUNC_CANTSEEK;
    }
  }
  return std::fseek(upload->file, static_cast<long>(offset), origin) == 0 ? CURL_SEEKFUNC_OK
                                                                          : CURL_SEEKFUNC_FAIL;
}

}  // namespace quill_network_detail
