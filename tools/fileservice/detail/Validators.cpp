#include "detail/Validators.h"

#include <quill_base/FileUtils.h>

#include <atomic>
#include <cstdio>
#include <ctime>

namespace quill_fileservice::detail {

namespace {

// Suffixes of changed ETags; unique within the process.
std::atomic<std::uint64_t> changes{0};

}  // namespace

std::string httpDate(std::int64_t unixSeconds) {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t time = static_cast<std::time_t>(unixSeconds);
  std::tm utc{};
#if defined(_WIN32)
  gmtime_s(&utc, &time);
#else
  gmtime_r(&time, &utc);
#endif
  char text[40];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[utc.tm_wday % 7],
                utc.tm_mday, kMonths[utc.tm_mon % 12], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
                utc.tm_sec);
  return text;
}

FileValidators validatorsOf(const std::string& path, std::uint64_t size, bool changed) {
  const std::int64_t modified = FileUtils::modificationTime(path);
  char etag[64];
  std::snprintf(etag, sizeof etag, "\"%llx-%llx", static_cast<unsigned long long>(size),
                static_cast<unsigned long long>(modified < 0 ? 0 : modified));
  FileValidators validators;
  validators.etag = etag;
  if (changed) {
    validators.etag += "-c" + std::to_string(changes.fetch_add(1) + 1);
  }
  validators.etag += '"';
  validators.lastModified = httpDate(modified < 0 ? 0 : modified);
  return validators;
}

bool ifRangeHolds(const httplib::Request& request, const FileValidators& current) {
  if (!request.has_header("If-Range")) {
    return true;
  }
  const std::string condition = request.get_header_value("If-Range");
  if (!condition.empty() && (condition[0] == '"' || condition.rfind("W/", 0) == 0)) {
    // Only a strong ETag can validate a range: a weak one never matches.
    return condition == current.etag;
  }
  return condition == current.lastModified;
}

}  // namespace quill_fileservice::detail
