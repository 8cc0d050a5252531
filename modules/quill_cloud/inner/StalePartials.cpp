#include "inner/StalePartials.h"

#include "task/ResumeRecord.h"

#include <quill_base/FileUtils.h>
#include <quill_base/LockedFile.h>
#include <quill_base/Logger.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace cloud {

std::size_t removeStalePartials(const std::string& cacheDirectory, std::int64_t now,
                                std::int64_t maxAgeSeconds) {
  std::vector<std::string> names;
  std::error_code ec;
  for (std::filesystem::directory_iterator entries(std::filesystem::u8path(cacheDirectory), ec),
       end;
       !ec && entries != end; entries.increment(ec)) {
    names.push_back(entries->path().filename().u8string());
  }
  std::size_t removed = 0;
  const std::int64_t oldest = now - maxAgeSeconds;
  // Records first: an old one takes its partial file with it, whatever that file's own age.
  for (const auto& name : names) {
    const auto path = FileUtils::appendComponent(cacheDirectory, name);
    if (!ResumeRecord::isRecordName(name)) {
      continue;
    }
    const std::int64_t modified = FileUtils::modificationTime(path);
    if (modified < 0 || modified >= oldest) {
      continue;
    }
    auto lock = LockedFile::tryLock(path);
    if (!lock) {
      continue;  // a download holds it
    }
    if (const auto record = ResumeRecord::parse(lock->read())) {
      const auto partial = FileUtils::appendComponent(cacheDirectory, record->partialName);
      if (FileUtils::fileExists(partial) && FileUtils::removeFile(partial)) {
        ++removed;
      }
    }
    if (lock->remove()) {
      ++removed;
    }
  }
  for (const auto& name : names) {
    const auto path = FileUtils::appendComponent(cacheDirectory, name);
    if (!ResumeRecord::isPartialName(name) || !FileUtils::fileExists(path)) {
      continue;
    }
    const std::int64_t modified = FileUtils::modificationTime(path);
    if (modified >= 0 && modified < oldest && FileUtils::removeFile(path)) {
      ++removed;
    }
  }
  if (removed > 0) {
    QLOG_INFO("removed " << removed << " partial download files older than "
                         << maxAgeSeconds / 86400 << " days from " << cacheDirectory);
  }
  return removed;
}

}  // namespace cloud
