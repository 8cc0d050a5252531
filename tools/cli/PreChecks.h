#pragma once

#include <string>

namespace quill_cli {

// What the tool can find wrong before handing anything to the library. Each returns false with a
// sentence in `error` for the user; the command then stops with a usage error.

// A URL the library can fetch: not empty, http:// or https:// (the scheme in any case).
bool checkUrl(const std::string& url, std::string& error);

// Makes `directory` if missing (as mkdir -p, with the user's umask) and checks that files can be
// made in it.
bool prepareDirectory(const std::string& directory, std::string& error);

// A file name the download can be saved as inside `directory` (which exists): not empty, no '/'
// (on Windows no '\' or ':' either), not "." or "..", no longer than the file system allows there
// (NAME_MAX; on Windows the volume's longest component), and not the name of a directory already
// there.
bool checkFileName(const std::string& directory, const std::string& name, std::string& error);

}  // namespace quill_cli
