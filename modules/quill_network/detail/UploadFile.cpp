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
  file = FileUtils::openFile(path, "rb");
  if (file == nullptr) {
    lastErrno = errno;
    lastError = "cannot read " + path + ": " + std::strerror(lastErrno);
    return false;
  }
  bytes = FileUtils::fileSize(path);
  return true;
}

std::size_t UploadFile::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto* upload = static_cast<UploadFile*>(self);
  const std::size_t wanted = size * count;
  errno = 0;
  const std::size_t got = std::fread(buffer, 1, wanted, upload->file);
  if (got < wanted && std::ferror(upload->file) != 0) {
    // libcurl only learns that the read was aborted; the transfer's failure text comes from here.
    upload->lastErrno = errno != 0 ? errno : EIO;
    upload->lastError = "cannot read " + upload->path + ": " + std::strerror(upload->lastErrno);
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
