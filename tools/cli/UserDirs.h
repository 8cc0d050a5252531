#pragma once

#include <string>

namespace quill_cli {

// Where the tool keeps its files. POSIX, after the XDG base-directory rules: the library's user
// directory (its cache) in $XDG_CACHE_HOME/quill-cloud (default ~/.cache/quill-cloud) and the log
// in $XDG_STATE_HOME/quill-cloud/quill-cloud.log (default ~/.local/state/quill-cloud); XDG values
// that are not absolute paths are ignored, as the rules say. Windows: below the user's local
// application data (%LOCALAPPDATA%, else its known folder), quill-cloud\cache and
// quill-cloud\log\quill-cloud.log.
struct UserPaths {
  std::string cacheDirectory;
  std::string logFile;
};

// The user's home: $HOME when it is set and absolute, else the password database's entry for the
// real user id (Windows: %USERPROFILE%, else the profile known folder). Empty when there is none
// (`error` then says why).
std::string homeDirectory(std::string& error);

// Fills `paths` in; `cacheOverride` (--user-dir), when not empty, replaces the cache directory.
// False, with the reason in `error`, when a directory depends on a home that cannot be found.
bool resolveUserPaths(const std::string& cacheOverride, UserPaths& paths, std::string& error);

// Makes `path` and any missing parents, each made 0700 (the tool's directories hold the user's
// cache and log, nobody else's business; on Windows they inherit the profile's access list). True
// when `path` is a directory at the end.
bool makePrivateDirectories(const std::string& path, std::string& error);

}  // namespace quill_cli
