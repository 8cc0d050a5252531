// Creating files that nobody else can have prepared: temporary names nobody can guess, files made
// exclusively, links never followed.
#include <quill_base/FileUtils.h>

#include <quill_base/TextUtils.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

// A temporary name keeps this much of the final name, so that the whole stays well within the
// 255 bytes a file-name component may have.
constexpr std::size_t kKeptNameBytes = 100;

// The first `limit` bytes of a UTF-8 string, never cutting a character in two.
std::string utf8Prefix(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) {
    return text;
  }
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
    --end;
  }
  return text.substr(0, end);
}

#if !defined(_WIN32)
// The process's umask, read without changing it (umask(2) can only be read by setting it, which
// would race with other threads creating files). Linux tells it in /proc/self/status; elsewhere the
// common 022 is assumed.
mode_t currentUmask() {
  static const mode_t mask = [] {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("Umask:", 0) == 0) {
        try {
          return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
        } catch (...) {
          break;
        }
      }
    }
    return static_cast<mode_t>(022);
  }();
  return mask;
}
#endif

}  // namespace

std::FILE* FileUtils::createNewFile(const std::string& path) {
  if (path.empty()) {
    errno = ENOENT;
    return nullptr;
  }
#if defined(_WIN32)
  // _O_EXCL makes CreateFile use CREATE_NEW, which fails on any existing name, links included.
  const std::wstring wide = std::filesystem::u8path(path).wstring();
  int descriptor = -1;
  if (_wsopen_s(&descriptor, wide.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _SH_DENYNO,
                _S_IREAD | _S_IWRITE) != 0) {
    return nullptr;
  }
  std::FILE* file = _fdopen(descriptor, "wb");
  if (file == nullptr) {
    _close(descriptor);
  }
  return file;
#else
  // O_EXCL alone already refuses an existing link; O_NOFOLLOW says so again for systems that
  // would not.
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (descriptor < 0) {
    return nullptr;
  }
  std::FILE* file = ::fdopen(descriptor, "wb");
  if (file == nullptr) {
    const int error = errno;
    ::close(descriptor);
    ::unlink(path.c_str());
    errno = error;
  }
  return file;
#endif
}

bool FileUtils::makeShareable(std::FILE* file) {
  if (file == nullptr) {
    return false;
  }
#if defined(_WIN32)
  return true;
#else
  return ::fchmod(::fileno(file), 0666 & ~currentUmask()) == 0;
#endif
}

std::FILE* FileUtils::openForAppend(const std::string& path, std::uint64_t& size) {
  size = 0;
  if (path.empty()) {
    errno = ENOENT;
    return nullptr;
  }
#if defined(_WIN32)
  const std::wstring wide = std::filesystem::u8path(path).wstring();
  std::error_code ec;
  const auto status = std::filesystem::symlink_status(std::filesystem::u8path(path), ec);
  if (ec || !std::filesystem::is_regular_file(status)) {
    errno = ec ? ENOENT : EINVAL;
    return nullptr;
  }
  int descriptor = -1;
  if (_wsopen_s(&descriptor, wide.c_str(), _O_WRONLY | _O_BINARY, _SH_DENYNO, 0) != 0) {
    return nullptr;
  }
  const long long end = _lseeki64(descriptor, 0, SEEK_END);
  std::FILE* file = end < 0 ? nullptr : _fdopen(descriptor, "ab");
#else
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) {
    return nullptr;
  }
  struct stat info {};
  if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(descriptor);
    errno = EINVAL;
    return nullptr;
  }
  const off_t end = ::lseek(descriptor, 0, SEEK_END);
  std::FILE* file = end < 0 ? nullptr : ::fdopen(descriptor, "ab");
#endif
  if (file == nullptr) {
#if defined(_WIN32)
    _close(descriptor);
#else
    ::close(descriptor);
#endif
    return nullptr;
  }
  size = static_cast<std::uint64_t>(end);
  return file;
}

bool FileUtils::truncateFile(std::FILE* file, std::uint64_t size) {
  if (file == nullptr) {
    errno = EBADF;
    return false;
  }
  if (std::fflush(file) != 0) {
    return false;
  }
#if defined(_WIN32)
  return _chsize_s(_fileno(file), static_cast<long long>(size)) == 0 &&
         _fseeki64(file, static_cast<long long>(size), SEEK_SET) == 0;
#else
  return ::ftruncate(::fileno(file), static_cast<off_t>(size)) == 0 &&
         ::fseeko(file, static_cast<off_t>(size), SEEK_SET) == 0;
#endif
}

bool FileUtils::writeNewFile(const std::string& path, const void* data, std::size_t size) {
  std::FILE* file = createNewFile(path);
  if (file == nullptr) {
    return false;
  }
  const bool written = (size == 0 || std::fwrite(data, 1, size, file) == size) &&
                       std::fflush(file) == 0 && makeShareable(file);
  int error = errno;
  const bool closed = std::fclose(file) == 0;
  if (written && closed) {
    return true;
  }
  if (written) {
    error = errno;
  }
  removeFile(path);
  errno = error;
  return false;
}

std::string FileUtils::temporaryPath(const std::string& directory, const std::string& name) {
  std::string kept = utf8Prefix(name, kKeptNameBytes);
  for (char& c : kept) {
    if (c == '/' || c == '\\' || c == ':' || c == '\0') {
      c = '_';
    }
  }
  return appendComponent(directory, "." + kept + "." + TextUtils::UUID_String() + ".part");
}

bool FileUtils::isPlainFileName(const std::string& name) {
  if (name.empty() || name == "." || name == "..") {
    return false;
  }
#if defined(_WIN32)
  const char* const forbidden = "/\\:";
#else
  const char* const forbidden = "/\\";
#endif
  return name.find('\0') == std::string::npos && name.find_first_of(forbidden) == std::string::npos;
}
