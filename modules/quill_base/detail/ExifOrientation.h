#pragma once

#include <cstddef>

namespace quill_base_detail {

// The orientation tag (0x0112) of an EXIF block ("Exif\0\0" and a TIFF structure, as a JPEG's APP1
// marker carries it): 1 (upright) when the block has none, 0 when the block cannot be read.
int exifOrientation(const unsigned char* data, std::size_t length);

}  // namespace quill_base_detail
