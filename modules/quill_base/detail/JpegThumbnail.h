#pragma once

#include <cstdint>
#include <string>

namespace quill_base_detail {

enum class JpegThumbnailResult {
  // The thumbnail was written to the target.
  kWritten,
  // The source's header claims more pixels than allowed; nothing was decoded.
  kTooLarge,
  // Not a plain JPEG that this path handles (another format, CMYK, an embedded colour profile, an
  // EXIF orientation other than upright, smaller than the box, or anything libjpeg warned about):
  // nothing was written and the general path should take it.
  kNotHandled,
};

// The fast path for the common avatar: a plain baseline or progressive JPEG larger than the box.
// Reads the file with one call, decodes it from memory with libjpeg's DCT scaling to the smallest
// size that still covers the box, averages each row down as it is decoded (the full-size picture is
// never held) to fit within size x size (aspect ratio kept), and writes a quality-85 JPEG to
// `target` with one call. Greyscale stays greyscale. Several times cheaper than a general image
// pipeline for small images, where per-image set-up dominates.
JpegThumbnailResult writeJpegThumbnail(int size, const std::string& source,
                                       const std::string& target, std::uint64_t maxPixels);

}  // namespace quill_base_detail
