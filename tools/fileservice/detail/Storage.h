#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quill_fileservice::detail {

// The three kinds of stored object, each served under its own URL prefix and kept in its own
// subdirectory of the data directory: "/files/<key>", "/objects/<key>", "/vod/<id>.mp4".
enum class Area { Files, Objects, Vod };

const char* areaName(Area area);

// A key names a stored file inside its area. Refused: empty or longer than 255 bytes, a leading dot
// ("." and ".." and the staging files of uploads in progress all start with one), "..", a slash or
// backslash, NUL and other control characters. Everything else is taken as it is.
bool isValidKey(const std::string& key);

// The extension of an uploaded file's name, with its dot (".jpg"), when it is short and plain
// (letters and digits only); "" otherwise.
std::string plainExtension(const std::string& fileName);

// The file store under the data directory. Files appear whole or not at all: they are written to a
// staging file in the same directory and renamed into place (see StagedFile).
class Storage {
public:
  explicit Storage(std::string root);

  // Creates the data directory and its areas; false (with the reason) when it cannot.
  bool prepare(std::string& error) const;

  const std::string& root() const { return rootDirectory; }
  std::string directory(Area area) const;
  // The local path of a key; "" for an invalid key.
  std::string pathOf(Area area, const std::string& key) const;
  // The local path of a key when a file is stored there; "" otherwise.
  std::string existingFile(Area area, const std::string& key) const;

  // Splits "/files/<key>", "/objects/<key>" or "/vod/<key>" (percent-encoded or not; a scheme and
  // host in front and a query behind are ignored) into its area and decoded key. False for any
  // other path and for invalid keys.
  static bool parseUrlPath(const std::string& urlPath, Area& area, std::string& key);
  // "/<area>/<key>" with the key percent-encoded as one path segment.
  static std::string urlPath(Area area, const std::string& key);

private:
  std::string rootDirectory;
};

// A file being written into an area: bytes go to a hidden staging file beside the final place, and
// commit() renames it to its key. Removed unless committed.
class StagedFile {
public:
  StagedFile(const Storage& storage, Area area);
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  bool open();
  bool isOpen() const { return file != nullptr; }
  bool write(const char* data, std::size_t size);
  // Flushes, closes and renames the file to its key (replacing a file stored there).
  bool commit(const std::string& key);
  // Closes and deletes the staging file.
  void discard();
  std::uint64_t size() const { return written; }

private:
  const Storage& storage;
  Area area;
  std::string stagingPath;
  std::FILE* file = nullptr;
  std::vector<char> buffer;
  std::uint64_t written = 0;
};

}  // namespace quill_fileservice::detail
