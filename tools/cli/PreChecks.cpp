#include "PreChecks.h"

#include "Platform.h"

#if defined(_WIN32)
#include <quill_base/TextUtils.h>

#include <windows.h>

#include <system_error>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace quill_cli {
namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

#if defined(_WIN32)
std::string systemMessage(DWORD code) {
  return std::system_category().message(static_cast<int>(code));
}

// Windows decides by access-control lists that no mode bit shows: a file is made there and
// removed again (by the system, when closed).
bool canWriteInto(const std::string& directory, std::string& reason) {
  const auto probe = toPath(directory) / (".quill-cloud-check-" + TextUtils::UUID_String());
  const HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    reason = systemMessage(GetLastError());
    return false;
  }
  CloseHandle(file);
  return true;
}

// The longest name component the volume holding `directory` takes, in UTF-16 units; 0 when unknown.
long nameLimit(const std::string& directory) {
  const std::wstring wide = toPath(directory).wstring();
  wchar_t root[MAX_PATH + 1] = {};
  DWORD longest = 0;
  if (GetVolumePathNameW(wide.c_str(), root, MAX_PATH) == 0 ||
      GetVolumeInformationW(root, nullptr, 0, nullptr, &longest, nullptr, nullptr, 0) == 0) {
    return 0;
  }
  return static_cast<long>(longest);
}
#endif

}  // namespace

bool checkUrl(const std::string& url, std::string& error) {
  if (url.empty()) {
    error = "a URL is empty";
    return false;
  }
  const auto colon = url.find("://");
  const auto scheme = colon == std::string::npos ? std::string() : lowered(url.substr(0, colon));
  if (scheme != "http" && scheme != "https") {
    error = url + ": only http:// and https:// URLs can be downloaded";
    return false;
  }
  if (url.size() == colon + 3 || url.find_first_of("/?#", colon + 3) == colon + 3) {
    error = url + ": the URL names no host";
    return false;
  }
  return true;
}

bool prepareDirectory(const std::string& directory, std::string& error) {
  if (directory.empty()) {
    error = "the destination directory (--dir) is empty";
    return false;
  }
#if defined(_WIN32)
  const auto target = toPath(directory);
  std::error_code made;
  std::filesystem::create_directories(target, made);
  std::error_code looked;
  const auto status = std::filesystem::status(target, looked);
  if (!std::filesystem::exists(status)) {
    error = "cannot make the directory " + directory + ": " + (made ? made : looked).message();
    return false;
  }
  if (!std::filesystem::is_directory(status)) {
    error = directory + " is not a directory";
    return false;
  }
  std::string reason;
  if (!canWriteInto(directory, reason)) {
    error = "cannot write into " + directory + ": " + reason;
    return false;
  }
  return true;
#else
  std::error_code made;
  std::filesystem::create_directories(directory, made);
  struct stat info {};
  if (stat(directory.c_str(), &info) != 0) {
    error = "cannot make the directory " + directory + ": " +
            (made ? made.message() : std::string(std::strerror(errno)));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    error = directory + " is not a directory";
    return false;
  }
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    error = "cannot write into " + directory + ": " + std::strerror(errno);
    return false;
  }
  return true;
#endif
}

bool checkFileName(const std::string& directory, const std::string& name, std::string& error) {
  if (name.empty()) {
    error = "the file name is empty";
    return false;
  }
#if defined(_WIN32)
  // A backslash separates components too, and a colon names a drive or a stream.
  const bool separated = name.find_first_of("/\\:") != std::string::npos;
#else
  const bool separated = name.find('/') != std::string::npos;
#endif
  if (separated || name == "." || name == "..") {
    error = "\"" + name + "\" cannot be a file name (a name is one path component)";
    return false;
  }
#if defined(_WIN32)
  const long limit = nameLimit(directory);
  const auto length = static_cast<long>(toPath(name).wstring().size());
  if (limit > 0 && length > limit) {
    error = "the file name " + name.substr(0, 40) + "... is " + std::to_string(length) +
            " characters long; the file system of " + directory + " allows " +
            std::to_string(limit);
    return false;
  }
  const auto path = toPath(directory) / toPath(name);
  std::error_code looked;
  if (std::filesystem::is_directory(path, looked)) {
    error = fromPath(path) + " is a directory; choose another name with --name";
    return false;
  }
#else
  errno = 0;
  const long limit = pathconf(directory.c_str(), _PC_NAME_MAX);
  if (limit > 0 && static_cast<long>(name.size()) > limit) {
    error = "the file name " + name.substr(0, 40) + "... is " + std::to_string(name.size()) +
            " bytes long; the file system of " + directory + " allows " + std::to_string(limit);
    return false;
  }
  const auto path = (std::filesystem::path(directory) / name).string();
  struct stat info {};
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    error = path + " is a directory; choose another name with --name";
    return false;
  }
#endif
  return true;
}

}  // namespace quill_cli
