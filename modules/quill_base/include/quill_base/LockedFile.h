#pragma once

#include <quill_base/quill_base_export.h>

#include <memory>
#include <string>

// A small file held open under an exclusive lock, for state that one owner at a time may use:
// while one LockedFile holds a path, no other LockedFile of this process or of another can take
// it. The lock ends with the object, or with the process however it ends.
class QUILL_BASE_EXPORT LockedFile {
public:
  // Opens `path` (created, private to its owner, when missing; never through a symbolic link) and
  // takes the lock without waiting; null when the file cannot be opened or another holds it.
  static std::unique_ptr<LockedFile> tryLock(const std::string& path);
  ~LockedFile();
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

  const std::string& path() const { return filePath; }
  // The whole content; empty when it cannot be read.
  std::string read();
  // Replaces the content; false when it could not be written.
  bool replace(const std::string& content);
  // Deletes the file; the lock is released with the object.
  bool remove();

private:
  struct Handle;
  LockedFile(std::string path, std::unique_ptr<Handle> handle);

  std::string filePath;
  std::unique_ptr<Handle> handle;
};
