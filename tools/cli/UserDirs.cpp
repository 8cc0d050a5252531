#include "UserDirs.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace quill_cli {
namespace {

constexpr const char* kToolDirectory = "quill-cloud";
constexpr const char* kLogName = "quill-cloud.log";

bool isAbsolute(const char* value) {
  return value != nullptr && value[0] == '/';
}

std::string join(const std::string& directory, const std::string& name) {
  return (std::filesystem::path(directory) / name).lexically_normal().string();
}

// $<variable>/quill-cloud when the variable holds an absolute path, else <home>/<fallback>/...;
// empty when the home is needed and unknown.
std::string baseDirectory(const char* variable, const char* fallback, std::string& home,
                          bool& homeLooked, std::string& error) {
  if (const char* value = std::getenv(variable); isAbsolute(value)) {
    return join(value, kToolDirectory);
  }
  if (!homeLooked) {
    homeLooked = true;
    home = homeDirectory(error);
  }
  if (home.empty()) {
    return std::string();
  }
  return join(join(home, fallback), kToolDirectory);
}

}  // namespace

std::string homeDirectory(std::string& error) {
  if (const char* home = std::getenv("HOME"); isAbsolute(home)) {
    return home;
  }
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size <= 0) {
    size = 16384;
  }
  std::vector<char> buffer(static_cast<std::size_t>(size));
  passwd entry{};
  passwd* found = nullptr;
  int status = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
  // The entry may not fit the suggested size: grow a few times, no more.
  for (int attempt = 0; status == ERANGE && attempt < 4; ++attempt) {
    buffer.resize(buffer.size() * 4);
    status = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
  }
  if (found == nullptr || !isAbsolute(entry.pw_dir)) {
    error = "HOME is not set and the password database has no home directory for user id " +
            std::to_string(getuid()) +
            (status != 0 ? std::string(" (") + std::strerror(status) + ")" : std::string());
    return std::string();
  }
  return entry.pw_dir;
}

bool resolveUserPaths(const std::string& cacheOverride, UserPaths& paths, std::string& error) {
  std::string home;
  bool homeLooked = false;
  if (!cacheOverride.empty()) {
    paths.cacheDirectory = cacheOverride;
  } else {
    paths.cacheDirectory = baseDirectory("XDG_CACHE_HOME", ".cache", home, homeLooked, error);
    if (paths.cacheDirectory.empty()) {
      return false;
    }
  }
  const auto state = baseDirectory("XDG_STATE_HOME", ".local/state", home, homeLooked, error);
  if (state.empty()) {
    return false;
  }
  paths.logFile = join(state, kLogName);
  return true;
}

bool makePrivateDirectories(const std::string& path, std::string& error) {
  const std::filesystem::path target = std::filesystem::path(path).lexically_normal();
  std::filesystem::path built;
  for (const auto& part : target) {
    built /= part;
    if (part.empty() || part == "/") {
      continue;
    }
    if (mkdir(built.c_str(), 0700) == 0 || errno == EEXIST) {
      continue;
    }
    error = "cannot make " + built.string() + ": " + std::strerror(errno);
    return false;
  }
  struct stat info {};
  if (stat(target.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    error = target.string() + " is not a directory";
    return false;
  }
  return true;
}

}  // namespace quill_cli
