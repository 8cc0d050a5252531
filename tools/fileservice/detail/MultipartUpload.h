#pragma once

#include "detail/HttpLib.h"
#include "detail/Storage.h"

#include <map>
#include <string>

namespace quill_fileservice::detail {

// Reads a multipart/form-data body as it arrives: the file part goes straight into a staged file
// of the store, text fields are kept (each at most 64 KiB), other file parts are skipped. Nothing
// of the file is held in memory.
class MultipartUpload {
public:
  enum class Outcome { Read, Malformed, TooLarge, StoreFailed };

  // `fileField` names the part to store; empty stores the body's first part, whatever its name.
  MultipartUpload(const Storage& storage, Area area, std::string fileField);

  // Reads the whole body. On any outcome but Read the body may have been left partly unread.
  Outcome read(const httplib::ContentReader& reader);

  // The first value of a text field; "" when absent.
  std::string field(const std::string& name) const;
  bool hasFile() const { return fileSeen; }
  const std::string& fileName() const { return storedFileName; }
  StagedFile& file() { return staged; }

private:
  enum class Target { Nothing, Field, File };

  bool beginPart(const httplib::MultipartFormData& part);
  bool receive(const char* data, std::size_t size);

  std::string fileField;
  StagedFile staged;
  std::map<std::string, std::string> fields;
  Target target = Target::Nothing;
  std::string currentField;
  std::size_t partCount = 0;
  bool fileSeen = false;
  std::string storedFileName;
  Outcome failure = Outcome::Read;
};

}  // namespace quill_fileservice::detail
