#pragma once

#include <cstddef>
#include <vector>

namespace quill_base_detail {

// Compresses an 8-bit greyscale (1 channel), RGB (3) or RGBX (4, the fourth byte ignored) picture
// as a quality-85 JPEG, the form every scaled image is stored in. `output` is reused between calls
// (it is sized here); true with `size` set to the length of the JPEG at its start.
bool compressJpeg(const unsigned char* pixels, int width, int height, int channels,
                  std::vector<unsigned char>& output, std::size_t& size);

}  // namespace quill_base_detail
