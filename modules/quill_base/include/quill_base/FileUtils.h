#pragma once

#include <quill_base/quill_base_export.h>

#include <cstdint>
#include <string>

// File-system helpers on UTF-8 paths. None of them throws: failures are reported through the
// result.
class QUILL_BASE_EXPORT FileUtils {
public:
  // Joins a directory and a name with one separator ("a" + "b" -> "a/b", "a/" + "b" -> "a/b").
  // The name is taken as it is, separators included; an empty directory gives the name alone.
  static std::string appendComponent(const std::string& directory, const std::string& name);

  // False for "" and for anything that is not a directory.
  static bool directoryExists(const std::string& path);
  // Creates the directory and its missing parents; true when the directory exists afterwards.
  static bool makeDirectory(const std::string& path);

  // True for an existing regular file (or a link to one).
  static bool fileExists(const std::string& path);
  // Size of the regular file in bytes; 0 when it is missing or not a regular file.
  static std::uint64_t fileSize(const std::string& path);

  // Directory part of a path ("a/b/c.txt" -> "a/b"); "" when there is none.
  static std::string fileDir(const std::string& path);
  // Name part of a path ("a/b/c.txt" -> "c.txt").
  static std::string fileName(const std::string& path);
  // Extension of the name part without the dot ("c.tar.gz" -> "gz"); "" when there is none.
  static std::string fileExtension(const std::string& path);

  // Moves a file, replacing the target. An atomic rename within one file system; across file
  // systems a copy into a temporary file next to the target, then a rename. Moving a file onto
  // itself succeeds and changes nothing. False when the source is missing or the move failed (the
  // source is then left where it was and the target untouched).
  static bool moveFile(const std::string& from, const std::string& to);

  // True when both are readable regular files with the same bytes; compared a chunk at a time,
  // never reading either whole.
  static bool sameContent(const std::string& first, const std::string& second);

  // Deletes a file; true when a file was removed.
  static bool removeFile(const std::string& path);

  // Keeps the directory's regular files (not its subdirectories) within a byte budget: deletes the
  // least recently modified files until their total size is at most `value` (0 empties it). False
  // when the directory is missing or a file could not be deleted.
  static bool removeFiles(const std::string& directory, unsigned long long value);
};
