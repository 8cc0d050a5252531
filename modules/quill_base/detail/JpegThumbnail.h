#pragma once

#include <cstdint>
#include <string>

namespace quill_base_detail {

enum class JpegThumbnailResult {
  // The thumbnail was written to the target.
  kWritten,
  // The source's header claims more pixels than allowed; nothing was decoded.
  kTooLarge,
  // libjpeg warned about the data (truncated or corrupt): nothing was written.
  kDamaged,
  // Not a JPEG that this path handles (another format, CMYK, or, unless `complete`, an embedded
  // colour profile, an EXIF orientation other than upright, or a picture smaller than the box):
  // nothing was written and the general path should take it.
  kNotHandled,
};

struct JpegThumbnailOptions {
  // Also do what is otherwise left to the general path: apply the EXIF orientation, enlarge a
  // picture smaller than the box, and read past an embedded colour profile (the pixels are taken
  // as sRGB, as nearly every camera and phone writes them).
  bool complete = false;
};

// The fast path for the common avatar: a baseline or progressive JPEG. Reads the file with one
// call, decodes it from memory with libjpeg's DCT scaling to the smallest size that still covers
// the box, averages each row down as it is decoded (the full-size picture is never held) to fit
// within size x size (aspect ratio kept), and writes a quality-85 JPEG to `target` with one call.
// Greyscale stays greyscale. Several times cheaper than a general image pipeline for small images,
// where per-image set-up dominates.
JpegThumbnailResult writeJpegThumbnail(int size, const std::string& source,
                                       const std::string& target, std::uint64_t maxPixels,
                                       JpegThumbnailOptions options = {});

}  // namespace quill_base_detail
