#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace quill_network_detail {

// The file a download writes into. Small received pieces are gathered into chunks of `chunkBytes`
// and each chunk goes to the file in one write, so the file sees few large writes however small the
// pieces the network delivers; pieces of a sixteenth of a chunk or more, and a piece that ends the
// body with nothing gathered before it (all of a small file, often), are written as they come,
// without the copy. Memory stays at one chunk whatever the size of the download.
class DownloadFile {
public:
  DownloadFile(std::string path, std::size_t chunkBytes);
  ~DownloadFile();  // discards the file unless commit() succeeded
  DownloadFile(const DownloadFile&) = delete;
  DownloadFile& operator=(const DownloadFile&) = delete;

  // Creates the file, which must not exist yet (a link there is refused, never followed); false
  // when it cannot be created.
  bool open();
  // Takes up a file an earlier download left, to add to it (never through a link); false when
  // there is none. The file is then this object's: discard() removes it like one it created.
  bool openExisting();
  bool isOpen() const { return file != nullptr; }
  // Whether openExisting() took up an earlier download's file.
  bool takenUp() const { return tookUp; }
  // False when the bytes could not be written (the reason is in error()). `endsTheBody`: no byte of
  // the body follows these.
  bool write(const char* data, std::size_t size, bool endsTheBody = false);
  // Drops every byte written so far and goes on from the file's start, for a server that sends the
  // whole file again where the rest was asked for; false on a file error.
  bool restart();
  // Writes what is gathered and closes the file, which then stays; false on a write error.
  bool commit();
  // Closes the file and removes it from disk, if this object created it: a file that was there
  // before is never touched.
  void discard();

  std::size_t bytesWritten() const { return total; }
  const std::string& error() const { return lastError; }
  // errno of the last failure; 0 when none.
  int systemError() const { return lastErrno; }

private:
  bool flush();
  void fail(const std::string& what);

  std::string path;
  std::size_t chunkBytes;
  std::FILE* file = nullptr;
  std::vector<char> pending;
  std::size_t total = 0;
  bool created = false;
  bool tookUp = false;
  bool committed = false;
  std::string lastError;
  int lastErrno = 0;
};

}  // namespace quill_network_detail
