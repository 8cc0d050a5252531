#include "detail/DownloadFile.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include <cerrno>
#include <cstring>

namespace quill_network_detail {

DownloadFile::DownloadFile(std::string path, std::size_t chunkBytes)
    : path(std::move(path)), chunkBytes(chunkBytes) {}

DownloadFile::~DownloadFile() {
  if (!committed) {
    discard();
  }
}

void DownloadFile::fail(const std::string& what) {
  lastErrno = errno;
  lastError = what + ": " + std::strerror(lastErrno);
}

bool DownloadFile::open() {
  file = FileUtils::createNewFile(path);
  if (file == nullptr) {
    fail("cannot create " + path);
    return false;
  }
  created = true;
  // The chunks are the buffer; a second one in stdio would only copy the bytes once more.
  std::setvbuf(file, nullptr, _IONBF, 0);
  return true;
}

bool DownloadFile::openExisting() {
  std::uint64_t size = 0;
  file = FileUtils::openForAppend(path, size);
  if (file == nullptr) {
    return false;
  }
  created = true;
  tookUp = true;
  total = static_cast<std::size_t>(size);
  std::setvbuf(file, nullptr, _IONBF, 0);
  return true;
}

bool DownloadFile::write(const char* data, std::size_t size, bool endsTheBody) {
  if (file == nullptr) {
    lastError = "the download file " + path + " is not open";
    return false;
  }
  if (pending.size() + size > chunkBytes && !flush()) {
    return false;
  }
  // A piece that is large on its own (plain HTTP hands over whatever the socket held, up to the
  // receive buffer) goes straight to the file: gathering it would only copy it once more. So does
  // the last piece when nothing waits before it: gathering it would save no write.
  if (size >= chunkBytes || (pending.empty() && (endsTheBody || size >= chunkBytes / 16))) {
    if (std::fwrite(data, 1, size, file) != size) {
      fail("writing " + path + " failed");
      return false;
    }
  } else {
    // The buffer grows as the pieces come (and then stays, cleared, for the next chunk): a small
    // file never costs a whole chunk of memory.
    pending.insert(pending.end(), data, data + size);
  }
  total += size;
  return true;
}

bool DownloadFile::flush() {
  if (pending.empty()) {
    return true;
  }
  const bool written = std::fwrite(pending.data(), 1, pending.size(), file) == pending.size();
  if (!written) {
    fail("writing " + path + " failed");
  }
  pending.clear();
  return written;
}

bool DownloadFile::restart() {
  if (file == nullptr) {
    lastError = "the download file " + path + " is not open";
    return false;
  }
  pending.clear();
  if (!FileUtils::truncateFile(file, 0)) {
    fail("emptying " + path + " failed");
    return false;
  }
  total = 0;
  return true;
}

bool DownloadFile::commit() {
  if (file == nullptr) {
    lastError = "the download file " + path + " is not open";
    return false;
  }
  const bool flushed = flush();
  // Private while it grows; once whole it is the user's file like any other.
  if (flushed && !FileUtils::makeShareable(file)) {
    QLOG_WARN("could not set the permissions of " << path << ": " << std::strerror(errno));
  }
  const bool closed = std::fclose(file) == 0;
  file = nullptr;
  if (flushed && !closed) {
    fail("closing " + path + " failed");
  }
  committed = flushed && closed;
  if (!committed) {
    FileUtils::removeFile(path);
  }
  return committed;
}

void DownloadFile::discard() {
  if (file != nullptr) {
    std::fclose(file);
    file = nullptr;
  }
  pending.clear();
  pending.shrink_to_fit();
  committed = false;
  if (created && FileUtils::fileExists(path) && !FileUtils::removeFile(path)) {
    QLOG_WARN("could not remove the unfinished download " << path);
  }
  // Once gone, the name is no longer ours: whatever appears there later is left alone.
  created = false;
}

}  // namespace quill_network_detail
