#include "detail/MultipartUpload.h"

namespace quill_fileservice::detail {

namespace {

constexpr std::size_t kMaxFieldSize = 64 * 1024;
constexpr std::size_t kMaxFieldCount = 64;

}  // namespace

MultipartUpload::MultipartUpload(const Storage& storage, Area area, std::string fileField)
    : fileField(std::move(fileField)), staged(storage, area) {}

MultipartUpload::Outcome MultipartUpload::read(const httplib::ContentReader& reader) {
  const bool ok =
      reader([this](const httplib::MultipartFormData& part) { return beginPart(part); },
             [this](const char* data, std::size_t size) { return receive(data, size); });
  target = Target::Nothing;
  if (!ok) {
    staged.discard();
    fileSeen = false;
    return failure != Outcome::Read ? failure : Outcome::Malformed;
  }
  return Outcome::Read;
}

bool MultipartUpload::beginPart(const httplib::MultipartFormData& part) {
  const bool first = partCount++ == 0;
  const bool wanted = !fileSeen && (fileField.empty() ? first : part.name == fileField);
  if (wanted) {
    if (!staged.open()) {
      failure = Outcome::StoreFailed;
      return false;
    }
    fileSeen = true;
    storedFileName = part.filename;
    target = Target::File;
    return true;
  }
  // A repeated field keeps its first value; the parts of other files are skipped.
  if (!part.filename.empty() || fields.count(part.name) > 0) {
    target = Target::Nothing;
    return true;
  }
  if (fields.size() >= kMaxFieldCount) {
    failure = Outcome::TooLarge;
    return false;
  }
  fields.emplace(part.name, std::string());
  currentField = part.name;
  target = Target::Field;
  return true;
}

bool MultipartUpload::receive(const char* data, std::size_t size) {
  switch (target) {
    case Target::File:
      if (!staged.write(data, size)) {
        failure = Outcome::StoreFailed;
        return false;
      }
      return true;
    case Target::Field: {
      std::string& value = fields[currentField];
      if (value.size() + size > kMaxFieldSize) {
        failure = Outcome::TooLarge;
        return false;
      }
      value.append(data, size);
      return true;
    }
    case Target::Nothing:
      return true;
  }
  return true;
}

std::string MultipartUpload::field(const std::string& name) const {
  const auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

}  // namespace quill_fileservice::detail
