#pragma once

#include "detail/HttpLib.h"

#include <cstdint>
#include <string>

namespace quill_fileservice::detail {

// What a download says of the stored file's version, so that a client can resume it with If-Range
// and learn when it changed: a strong ETag made of the size and the modification time, and the
// modification time as an HTTP date.
struct FileValidators {
  std::string etag;
  std::string lastModified;
};

// `changed` gives the ETag a suffix no earlier reply carried, as if the file had been replaced
// since the client last asked (the "changeEtag" fault).
FileValidators validatorsOf(const std::string& path, std::uint64_t size, bool changed);

// False when the request's If-Range names another version than `current` (an ETag compared
// strongly, or a date that must equal Last-Modified): its Range is then ignored and the whole file
// is sent. True without an If-Range.
bool ifRangeHolds(const httplib::Request& request, const FileValidators& current);

// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string httpDate(std::int64_t unixSeconds);

}  // namespace quill_fileservice::detail
