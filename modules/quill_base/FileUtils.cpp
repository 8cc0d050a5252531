#include <quill_base/FileUtils.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

namespace fs = std::filesystem;

namespace {

#if defined(_WIN32)
constexpr char kSeparator = '\\';
#else
constexpr char kSeparator = '/';
#endif

bool isSeparator(char c) {
  return c == '/' || c == kSeparator;
}

// std::filesystem takes char strings in the native narrow encoding; u8path reads them as UTF-8,
// which is what every string of this library holds.
fs::path toPath(const std::string& utf8) {
  return fs::u8path(utf8);
}

std::string fromPath(const fs::path& path) {
  return path.u8string();
}

// The errno value of a failed file system call: std::filesystem reports Windows' own error codes
// on Windows (5 for access denied), which callers compare with and print as errno values.
int errnoOf(const std::error_code& ec) {
  const auto condition = ec.default_error_condition();
  return condition.category() == std::generic_category() ? condition.value() : ec.value();
}

#if defined(_WIN32)
// Windows file systems allow 255 UTF-16 units a name; a longer one fails with whatever error the
// call happens to give (access denied, invalid name), which tells a user nothing.
bool nameTooLong(const fs::path& path) {
  return path.filename().wstring().size() > 255;
}
#endif

// Copies the bytes of `from` into a file that createNewFile makes at `to`; on failure nothing is
// left at `to` and `error` holds errno.
bool copyIntoNewFile(const std::string& from, const std::string& to, int& error) {
  std::ifstream source(toPath(from), std::ios::binary);
  if (!source) {
    error = errno != 0 ? errno : EIO;
    return false;
  }
  std::FILE* target = FileUtils::createNewFile(to);
  if (target == nullptr) {
    error = errno;
    return false;
  }
  std::vector<char> chunk(1 << 20);
  bool ok = true;
  while (ok && source) {
    source.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const auto got = static_cast<std::size_t>(source.gcount());
    ok = std::fwrite(chunk.data(), 1, got, target) == got;
  }
  ok = ok && source.eof();
  if (!ok) {
    error = errno != 0 ? errno : EIO;
  }
  ok = FileUtils::makeShareable(target) && ok;
  if (std::fclose(target) != 0 && ok) {
    error = errno;
    ok = false;
  }
  if (!ok) {
    FileUtils::removeFile(to);
  }
  return ok;
}

}  // namespace

std::string FileUtils::appendComponent(const std::string& directory, const std::string& name) {
  if (directory.empty()) {
    return name;
  }
  if (isSeparator(directory.back())) {
    return directory + name;
  }
  return directory + kSeparator + name;
}

bool FileUtils::directoryExists(const std::string& path) {
  if (path.empty()) {
    return false;
  }
#if defined(_WIN32)
  std::error_code ec;
  return fs::is_directory(toPath(path), ec);
#else
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
#endif
}

bool FileUtils::makeDirectory(const std::string& path) {
  if (path.empty()) {
    return false;
  }
  std::error_code ec;
  fs::create_directories(toPath(path), ec);
  return fs::is_directory(toPath(path), ec);
}

bool FileUtils::fileExists(const std::string& path) {
  if (path.empty()) {
    return false;
  }
#if defined(_WIN32)
  std::error_code ec;
  return fs::is_regular_file(toPath(path), ec);
#else
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
#endif
}

std::uint64_t FileUtils::fileSize(const std::string& path) {
  if (path.empty()) {
    return 0;
  }
#if defined(_WIN32)
  // One look: file_size fails for anything but a regular file (or a link to one).
  std::error_code ec;
  const auto size = fs::file_size(toPath(path), ec);
  return ec ? 0 : static_cast<std::uint64_t>(size);
#else
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return 0;
  }
  return static_cast<std::uint64_t>(info.st_size);
#endif
}

std::int64_t FileUtils::modificationTime(const std::string& path) {
  if (path.empty()) {
    return -1;
  }
  // stat rather than fs::last_write_time: the file clock's epoch differs between standard
  // libraries, and C++17 offers no exact conversion to the system clock.
#if defined(_WIN32)
  struct _stat64 info {};
  if (_wstat64(toPath(path).c_str(), &info) != 0) {
    return -1;
  }
#else
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return -1;
  }
#endif
  return static_cast<std::int64_t>(info.st_mtime);
}

std::string FileUtils::fileDir(const std::string& path) {
  return fromPath(toPath(path).parent_path());
}

std::string FileUtils::fileName(const std::string& path) {
  return fromPath(toPath(path).filename());
}

std::string FileUtils::fileExtension(const std::string& path) {
  auto extension = fromPath(toPath(path).extension());
  if (!extension.empty() && extension.front() == '.') {
    extension.erase(0, 1);
  }
  return extension;
}

bool FileUtils::moveFile(const std::string& from, const std::string& to, int* systemError) {
  if (systemError != nullptr) {
    *systemError = 0;
  }
  if (!fileExists(from)) {
    return false;
  }
  return moveRegularFile(from, to, systemError);
}

bool FileUtils::moveRegularFile(const std::string& from, const std::string& to, int* systemError) {
  int ignoredError = 0;
  int& error = systemError != nullptr ? *systemError : ignoredError;
  error = 0;
  if (from.empty() || to.empty()) {
    return false;
  }
  if (from == to) {
    return true;
  }
  // Rename first: it is the common case, and one system call. Whether the two names are one file
  // is asked only when it failed.
#if !defined(_WIN32)
  if (::rename(from.c_str(), to.c_str()) == 0) {
    return true;
  }
  std::error_code ec(errno, std::generic_category());
  const auto source = toPath(from);
  const auto target = toPath(to);
#else
  const auto source = toPath(from);
  const auto target = toPath(to);
  std::error_code ec;
  fs::rename(source, target, ec);
  if (!ec) {
    return true;
  }
#endif
  if (ec != std::errc::cross_device_link) {
    error = errnoOf(ec);
#if defined(_WIN32)
    if (nameTooLong(target)) {
      error = ENAMETOOLONG;
    }
#endif
    std::error_code ignored;
    return fs::equivalent(source, target, ignored);
  }
  // Another file system: copy next to the target first, into a file of our own making, so that the
  // target is replaced whole by a rename and never shows a half-written file.
  const auto staging = temporaryPath(fileDir(to), fileName(to));
  if (!copyIntoNewFile(from, staging, error)) {
    return false;
  }
  fs::rename(toPath(staging), target, ec);
  if (ec) {
    error = errnoOf(ec);
    fs::remove(toPath(staging), ec);
    return false;
  }
  fs::remove(source, ec);
  return true;
}

bool FileUtils::removeFile(const std::string& path) {
  if (path.empty()) {
    return false;
  }
#if defined(_WIN32)
  std::error_code ec;
  return fs::remove(toPath(path), ec) && !ec;
#else
  // What fs::remove does (unlink, or rmdir for an empty directory), without parsing the path.
  return ::remove(path.c_str()) == 0;
#endif
}

namespace {

// Removes what is in `directory`, depth first. Errors are ignored here: what is left is found by
// the caller's look at the path afterwards.
void removeContents(const fs::path& directory) {
  std::vector<fs::path> children;
  std::error_code ec;
  for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
    children.push_back(it->path());
  }
  for (const auto& child : children) {
    std::error_code childError;
    if (fs::symlink_status(child, childError).type() == fs::file_type::directory) {
      removeContents(child);
    }
    fs::remove(child, childError);
  }
}

}  // namespace

bool FileUtils::removeTree(const std::string& path) {
  if (path.empty()) {
    return false;
  }
  // Not fs::remove_all: libstdc++'s version gives up with ENOENT on Linux when an entry it listed
  // is gone before it gets to it, and on Windows spins for ever on such an entry, because remove()
  // reports neither success nor an error for it. Files do vanish under it: the partial file of an
  // abandoned download is removed by the network thread after its service is gone. A second pass
  // takes what a concurrent writer added during the first.
  const auto root = toPath(path);
  std::error_code ec;
  for (int pass = 0; pass < 3; ++pass) {
    if (fs::symlink_status(root, ec).type() == fs::file_type::directory) {
      removeContents(root);
    }
    fs::remove(root, ec);
    if (fs::symlink_status(root, ec).type() == fs::file_type::not_found) {
      return true;
    }
  }
  return false;
}

bool FileUtils::removeFiles(const std::string& directory, unsigned long long value) {
  if (!directoryExists(directory)) {
    return false;
  }
  struct Entry {
    fs::path path;
    fs::file_time_type modified;
    std::uintmax_t size;
  };
  std::vector<Entry> entries;
  unsigned long long total = 0;
  std::error_code ec;
  for (fs::directory_iterator it(toPath(directory), ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code entryError;
    if (!it->is_regular_file(entryError)) {
      continue;
    }
    const auto size = it->file_size(entryError);
    const auto modified = it->last_write_time(entryError);
    if (entryError) {
      continue;  // vanished while we looked: nothing to count
    }
    entries.push_back({it->path(), modified, size});
    total += size;
  }
  if (ec) {
    return false;
  }

  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.modified < b.modified; });
  bool removedAll = true;
  for (const auto& entry : entries) {
    if (total <= value) {
      break;
    }
    std::error_code removeError;
    if (fs::remove(entry.path, removeError) || !fs::exists(entry.path, removeError)) {
      total -= entry.size;
    } else {
      removedAll = false;
    }
  }
  return removedAll && total <= value;
}

std::FILE* FileUtils::openFile(const std::string& path, const char* mode) {
#ifdef _WIN32
  const std::string narrowMode(mode);
  return _wfopen(toPath(path).c_str(), std::wstring(narrowMode.begin(), narrowMode.end()).c_str());
#else
  return std::fopen(path.c_str(), mode);
#endif
}

bool FileUtils::sameContent(const std::string& first, const std::string& second) {
  if (!fileExists(first) || !fileExists(second) || fileSize(first) != fileSize(second)) {
    return false;
  }
  std::ifstream a(toPath(first), std::ios::binary);
  std::ifstream b(toPath(second), std::ios::binary);
  if (!a || !b) {
    return false;
  }
  std::vector<char> chunkA(1 << 20);
  std::vector<char> chunkB(1 << 20);
  while (a && b) {
    a.read(chunkA.data(), static_cast<std::streamsize>(chunkA.size()));
    b.read(chunkB.data(), static_cast<std::streamsize>(chunkB.size()));
    if (a.gcount() != b.gcount() ||
        std::memcmp(chunkA.data(), chunkB.data(), static_cast<std::size_t>(a.gcount())) != 0) {
      return false;
    }
  }
  return a.eof() && b.eof();
}
