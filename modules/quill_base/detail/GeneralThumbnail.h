#pragma once

#include <cstdint>
#include <string>

namespace quill_base_detail {

// The general path, for whatever the JPEG fast path leaves: decodes `source` in any format the
// platform's decoder knows, fits it within size x size (aspect ratio kept, EXIF orientation
// applied, transparency laid over white) and writes it as a quality-85 JPEG to `staging`, a new
// file. False, with the reason logged, for a source that cannot be read, is truncated, or claims
// more than maxPixels pixels. libvips on Linux, the Windows Imaging Component on Windows.
bool writeGeneralThumbnail(int size, const std::string& source, const std::string& staging,
                           std::uint64_t maxPixels);

}  // namespace quill_base_detail
