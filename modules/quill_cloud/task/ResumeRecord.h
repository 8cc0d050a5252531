#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cloud {

// What is kept beside a download's partial file in the per-user cache directory, so that the next
// download of the same URL to the same final path, in this process or after a restart, can take
// the file up and ask only for the rest. The record's own file name comes from the URL and the
// final path (see pathFor); the partial file's name is in the record.
struct ResumeRecord {
  std::string url;
  std::string finalPath;
  // Name (in the same directory) of the partial file.
  std::string partialName;
  // ETag or Last-Modified of the reply the partial file's bytes came with; empty until known.
  std::string validator;
  // Bytes written to the partial file when the record was last written.
  std::int64_t bytes = 0;
  // When the record was last written, in seconds since 1970.
  std::int64_t time = 0;

  std::string toJson() const;
  // Nothing for text that is not a whole record: every member present with its type, a partial
  // name that is one plain file name ending in ".part", no negative numbers.
  static std::optional<ResumeRecord> parse(const std::string& text);

  // "<cacheDirectory>/.<32 hex digits of SHA-256 of url and finalPath>.resume"
  static std::string pathFor(const std::string& cacheDirectory, const std::string& url,
                             const std::string& finalPath);
  // Whether a file name is one of a record ("*.resume"), or of a partial file ("*.part").
  static bool isRecordName(const std::string& name);
  static bool isPartialName(const std::string& name);
};

}  // namespace cloud
