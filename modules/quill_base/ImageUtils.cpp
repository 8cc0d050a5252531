#include <quill_base/ImageUtils.h>

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include "detail/GeneralThumbnail.h"
#include "detail/JpegThumbnail.h"

#include <cstdint>

namespace {

// Sources larger than this are refused before any pixel is decoded: some decoders (GIF among them)
// allocate the whole canvas a file's header claims, so a few hundred bytes could ask for gigabytes.
constexpr std::uint64_t kMaxSourcePixels = 100'000'000;

#if defined(_WIN32)
// Without libvips, the JPEG path does all of a JPEG's work itself and has the last word on it.
constexpr bool kJpegPathIsComplete = true;
#else
constexpr bool kJpegPathIsComplete = false;
#endif

// The scaled image is written beside its target and renamed over it: readers see the old file or
// the new one, never half of one.
bool moveIntoPlace(const std::string& staging, const std::string& target) {
  if (!FileUtils::moveFile(staging, target)) {
    QLOG_WARN("cannot move scaled image to " << target);
    FileUtils::removeFile(staging);
    return false;
  }
  return true;
}

}  // namespace

bool ImageUtils::scaleImage(int size, const std::string& source, const std::string& target) {
  if (size < 1 || source.empty() || target.empty() || !FileUtils::fileExists(source)) {
    return false;
  }

  // Most avatars are plain JPEGs: they take the fast path, everything else the general one.
  const std::string staging =
      FileUtils::temporaryPath(FileUtils::fileDir(target), FileUtils::fileName(target));
  quill_base_detail::JpegThumbnailOptions options;
  options.complete = kJpegPathIsComplete;
  switch (quill_base_detail::writeJpegThumbnail(size, source, staging, kMaxSourcePixels, options)) {
    case quill_base_detail::JpegThumbnailResult::kWritten:
      return moveIntoPlace(staging, target);
    case quill_base_detail::JpegThumbnailResult::kTooLarge:
      QLOG_WARN("image too large to scale: " << source);
      return false;
    case quill_base_detail::JpegThumbnailResult::kDamaged:
      if (kJpegPathIsComplete) {
        QLOG_WARN("cannot read image " << source << ": truncated or corrupt JPEG data");
        return false;
      }
      break;  // the general path refuses it with its own reason, or reads past what was benign
    case quill_base_detail::JpegThumbnailResult::kNotHandled:
      FileUtils::removeFile(staging);
      break;
  }
  if (!quill_base_detail::writeGeneralThumbnail(size, source, staging, kMaxSourcePixels)) {
    FileUtils::removeFile(staging);
    return false;
  }
  return moveIntoPlace(staging, target);
}
