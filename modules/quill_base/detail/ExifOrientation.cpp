#include "ExifOrientation.h"

#include <cstring>

namespace quill_base_detail {

int exifOrientation(const unsigned char* data, std::size_t length) {
  // "Exif\0\0", then a TIFF header: byte order, 42, offset of the first directory.
  if (length < 6 + 8 || std::memcmp(data, "Exif\0\0", 6) != 0) {
    return 0;
  }
  const unsigned char* tiff = data + 6;
  const std::size_t size = length - 6;
  const bool little = tiff[0] == 'I' && tiff[1] == 'I';
  if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) {
    return 0;
  }
  auto read16 = [&](std::size_t at) -> unsigned {
    return little ? tiff[at] | (tiff[at + 1] << 8) : (tiff[at] << 8) | tiff[at + 1];
  };
  auto read32 = [&](std::size_t at) -> std::size_t {
    return little ? read16(at) | (static_cast<std::size_t>(read16(at + 2)) << 16)
                  : (static_cast<std::size_t>(read16(at)) << 16) | read16(at + 2);
  };
  const std::size_t directory = read32(4);
  if (directory > size - 2) {
    return 0;
  }
  const unsigned entries = read16(directory);
  for (unsigned i = 0; i < entries; ++i) {
    const std::size_t entry = directory + 2 + static_cast<std::size_t>(i) * 12;
    if (entry > size - 12) {
      return 0;
    }
    if (read16(entry) == 0x0112) {
      return static_cast<int>(read16(entry + 8));
    }
  }
  return 1;
}

}  // namespace quill_base_detail
