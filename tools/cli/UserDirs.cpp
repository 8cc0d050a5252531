#include "UserDirs.h"

#include "Platform.h"

#if defined(_WIN32)
#include <windows.h>
// After windows.h, which they need.
#include <knownfolders.h>
#include <shlobj.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#else
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>
#endif

#if defined(_WIN32)

namespace quill_cli {
namespace {

constexpr const char* kToolDirectory = "quill-cloud";
constexpr const char* kLogName = "quill-cloud.log";

// A variable of the environment as UTF-8, read through the wide API; empty when unset.
std::string environmentPath(const wchar_t* name) {
  const wchar_t* value = _wgetenv(name);
  return value == nullptr ? std::string() : fromPath(std::filesystem::path(value));
}

bool isAbsolute(const std::string& path) {
  return !path.empty() && toPath(path).is_absolute();
}

std::string knownFolder(REFKNOWNFOLDERID folder) {
  PWSTR wide = nullptr;
  std::string path;
  if (SUCCEEDED(SHGetKnownFolderPath(folder, KF_FLAG_DEFAULT, nullptr, &wide))) {
    path = fromPath(std::filesystem::path(wide));
  }
  CoTaskMemFree(wide);
  return path;
}

// %LOCALAPPDATA% when it is set and absolute, else the known folder, else below the profile.
std::string localApplicationData(std::string& error) {
  if (auto variable = environmentPath(L"LOCALAPPDATA"); isAbsolute(variable)) {
    return variable;
  }
  if (auto folder = knownFolder(FOLDERID_LocalAppData); isAbsolute(folder)) {
    return folder;
  }
  std::string profile = homeDirectory(error);
  if (profile.empty()) {
    return std::string();
  }
  return fromPath(toPath(profile) / "AppData" / "Local");
}

}  // namespace

std::string homeDirectory(std::string& error) {
  if (auto profile = environmentPath(L"USERPROFILE"); isAbsolute(profile)) {
    return profile;
  }
  if (auto folder = knownFolder(FOLDERID_Profile); isAbsolute(folder)) {
    return folder;
  }
  error = "neither LOCALAPPDATA nor USERPROFILE is set and the system names no profile folder";
  return std::string();
}

bool resolveUserPaths(const std::string& cacheOverride, UserPaths& paths, std::string& error) {
  const auto base = localApplicationData(error);
  if (base.empty()) {
    return false;
  }
  const auto tool = toPath(base) / kToolDirectory;
  paths.cacheDirectory = cacheOverride.empty() ? fromPath(tool / "cache") : cacheOverride;
  paths.logFile = fromPath(tool / "log" / kLogName);
  return true;
}

bool makePrivateDirectories(const std::string& path, std::string& error) {
  // The folders below the user's profile are the user's alone already: new directories inherit
  // that access-control list.
  const auto target = toPath(path).lexically_normal();
  std::error_code made;
  std::filesystem::create_directories(target, made);
  std::error_code looked;
  if (!std::filesystem::is_directory(target, looked)) {
    error = made ? "cannot make " + fromPath(target) + ": " + made.message()
                 : fromPath(target) + " is not a directory";
    return false;
  }
  return true;
}

}  // namespace quill_cli

#else

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

#endif
