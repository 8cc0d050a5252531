#include "PreChecks.h"

#include <sys/stat.h>
#include <unistd.h>

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
}

bool checkFileName(const std::string& directory, const std::string& name, std::string& error) {
  if (name.empty()) {
    error = "the file name is empty";
    return false;
  }
  if (name.find('/') != std::string::npos || name == "." || name == "..") {
    error = "\"" + name + "\" cannot be a file name (a name is one path component)";
    return false;
  }
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
  return true;
}

}  // namespace quill_cli
