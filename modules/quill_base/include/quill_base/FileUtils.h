#pragma once

#include <quill_base/quill_base_export.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
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
  // Last modification of the file or directory, in whole seconds since 1970-01-01 UTC; -1 when it
  // is missing.
  static std::int64_t modificationTime(const std::string& path);

  // Directory part of a path ("a/b/c.txt" -> "a/b"); "" when there is none.
  static std::string fileDir(const std::string& path);
  // Name part of a path ("a/b/c.txt" -> "c.txt").
  static std::string fileName(const std::string& path);
  // Extension of the name part without the dot ("c.tar.gz" -> "gz"); "" when there is none.
  static std::string fileExtension(const std::string& path);

  // Moves a file, replacing the target. An atomic rename within one file system; across file
  // systems a copy into a temporary file next to the target (with the permissions of a new file),
  // then a rename. Moving a file onto
  // itself succeeds and changes nothing. False when the source is missing or the move failed (the
  // source is then left where it was and the target untouched); `systemError`, when given, then
  // holds the system's error number (0 when the source was missing).
  static bool moveFile(const std::string& from, const std::string& to, int* systemError = nullptr);
  // moveFile for a source the caller has just found to be a regular file (by fileSize, say): the
  // same move, without looking at the source again. Given anything else, it moves that as rename
  // would.
  static bool moveRegularFile(const std::string& from, const std::string& to,
                              int* systemError = nullptr);

  // fopen of a UTF-8 path with fopen's modes; on Windows through the wide-character API, so that
  // every name opens, whatever the system's code page. Null (errno set) when it cannot.
  static std::FILE* openFile(const std::string& path, const char* mode);
  // Creates a new file and opens it for writing (binary, unbuffered by the caller's choice). Fails
  // when anything already has that name, a symbolic link included, which is never followed: a link
  // planted by someone else cannot redirect the write. The file is readable and writable by its
  // owner only. Null on failure, with errno set.
  static std::FILE* createNewFile(const std::string& path);
  // Gives a file made by createNewFile the permissions an ordinary new file of the process gets
  // (0666 less the umask), for a temporary file that becomes a user's file once complete. Nothing
  // to do on Windows. False when the permissions could not be changed.
  static bool makeShareable(std::FILE* file);
  // Opens an existing regular file for writing at its end, to add to it; never through a symbolic
  // link. Null (errno set) when it is missing or not a regular file; `size` receives its length.
  static std::FILE* openForAppend(const std::string& path, std::uint64_t& size);
  // Cuts an open file (written through the stdio stream `file`) to `size` bytes and puts the
  // stream's position there, for a writer that starts part of its output over. False, with errno
  // set, when it cannot.
  static bool truncateFile(std::FILE* file, std::uint64_t size);
  // createNewFile, the bytes written, the file made shareable (it is whole by then) and closed;
  // false (nothing left behind) on failure, with errno set.
  static bool writeNewFile(const std::string& path, const void* data, std::size_t size);

  // A path in `directory` for a temporary file that will become `name`, unique across threads and
  // processes (128 random bits): "<directory>/.<name>.<random>.part", the name shortened when the
  // whole would not fit in one file-name component. Creates nothing.
  static std::string temporaryPath(const std::string& directory, const std::string& name);
  // True for one plain file-name component: not empty, not "." or "..", no NUL and no path
  // separator ('/' or '\\', both refused everywhere so that a name behaves the same on every
  // platform; on Windows also no ':', which names a drive or a stream).
  static bool isPlainFileName(const std::string& name);

  // True when both are readable regular files with the same bytes; compared a chunk at a time,
  // never reading either whole.
  static bool sameContent(const std::string& first, const std::string& second);

  // Deletes a file; true when a file was removed.
  static bool removeFile(const std::string& path);

  // Deletes a directory with everything in it (links are removed, never followed), or a file.
  // Entries that another thread or process removes meanwhile are no error. True when nothing is
  // left at `path`.
  static bool removeTree(const std::string& path);

  // Keeps the directory's regular files (not its subdirectories) within a byte budget: deletes the
  // least recently modified files until their total size is at most `value` (0 empties it). False
  // when the directory is missing or a file could not be deleted.
  static bool removeFiles(const std::string& directory, unsigned long long value);
};
