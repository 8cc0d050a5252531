#include <quill_base/LockedFile.h>

#include <filesystem>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#if defined(_WIN32)
// A handle opened without sharing is the lock: no other handle can open the file while it lives.
struct LockedFile::Handle {
  HANDLE file = INVALID_HANDLE_VALUE;
  ~Handle() {
    if (file != INVALID_HANDLE_VALUE) {
      CloseHandle(file);
    }
  }
};

std::unique_ptr<LockedFile> LockedFile::tryLock(const std::string& path) {
  auto handle = std::make_unique<Handle>();
  handle->file = CreateFileW(std::filesystem::u8path(path).wstring().c_str(),
                             GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle->file == INVALID_HANDLE_VALUE) {
    return nullptr;
  }
  return std::unique_ptr<LockedFile>(new LockedFile(path, std::move(handle)));
}

std::string LockedFile::read() {
  std::string content;
  if (SetFilePointer(handle->file, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
    return content;
  }
  char buffer[4096];
  DWORD got = 0;
  while (ReadFile(handle->file, buffer, sizeof buffer, &got, nullptr) && got > 0) {
    content.append(buffer, got);
  }
  return content;
}

bool LockedFile::replace(const std::string& content) {
  if (SetFilePointer(handle->file, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER ||
      !SetEndOfFile(handle->file)) {
    return false;
  }
  DWORD written = 0;
  return content.empty() || (WriteFile(handle->file, content.data(),
                                       static_cast<DWORD>(content.size()), &written, nullptr) &&
                             written == content.size());
}

bool LockedFile::remove() {
  FILE_DISPOSITION_INFO disposition{};
  disposition.DeleteFile = TRUE;
  return SetFileInformationByHandle(handle->file, FileDispositionInfo, &disposition,
                                    sizeof disposition) != 0;
}
#else
// flock: held by the open file description, so a second open of the same file (in this process
// or another) cannot take it either; released when the descriptor closes, also at process death.
struct LockedFile::Handle {
  int descriptor = -1;
  ~Handle() {
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }
};

std::unique_ptr<LockedFile> LockedFile::tryLock(const std::string& path) {
  auto handle = std::make_unique<Handle>();
  handle->descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (handle->descriptor < 0) {
    return nullptr;
  }
  struct stat info {};
  if (::fstat(handle->descriptor, &info) != 0 || !S_ISREG(info.st_mode) ||
      ::flock(handle->descriptor, LOCK_EX | LOCK_NB) != 0) {
    return nullptr;
  }
  // The holder before may have deleted the file between our open and our lock: then the lock is
  // on a file nobody will find again, and the path is someone else's to take.
  struct stat now {};
  if (::stat(path.c_str(), &now) != 0 || now.st_ino != info.st_ino || now.st_dev != info.st_dev) {
    return nullptr;
  }
  return std::unique_ptr<LockedFile>(new LockedFile(path, std::move(handle)));
}

std::string LockedFile::read() {
  std::string content;
  char buffer[4096];
  off_t at = 0;
  while (true) {
    const ssize_t got = ::pread(handle->descriptor, buffer, sizeof buffer, at);
    if (got <= 0) {
      break;
    }
    content.append(buffer, static_cast<std::size_t>(got));
    at += got;
  }
  return content;
}

bool LockedFile::replace(const std::string& content) {
  if (::ftruncate(handle->descriptor, 0) != 0) {
    return false;
  }
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t wrote = ::pwrite(handle->descriptor, content.data() + done, content.size() - done,
                                   static_cast<off_t>(done));
    if (wrote <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(wrote);
  }
  return true;
}

bool LockedFile::remove() {
  return ::unlink(filePath.c_str()) == 0;
}
#endif

LockedFile::LockedFile(std::string path, std::unique_ptr<Handle> handle)
    : filePath(std::move(path)), handle(std::move(handle)) {}

LockedFile::~LockedFile() = default;
