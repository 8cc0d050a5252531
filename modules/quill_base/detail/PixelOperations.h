#pragma once

#include <cstdint>
#include <vector>

namespace quill_base_detail {

struct Dimensions {
  int width = 0;
  int height = 0;
};

// The largest size within size x size with the aspect ratio of width x height, rounded to whole
// pixels, each side at least 1. Larger than the source when the source is smaller than the box.
Dimensions fitWithin(int size, std::uint64_t width, std::uint64_t height);

// An 8-bit interleaved picture, rows top to bottom without padding.
struct Picture {
  int width = 0;
  int height = 0;
  int channels = 0;
  std::vector<unsigned char> pixels;
};

// Whether EXIF orientation `orientation` turns the stored picture by a quarter (5 to 8), so that
// it is shown with its sides swapped.
bool swapsSides(int orientation);

// The picture as EXIF orientation `orientation` says it is to be shown (2 mirrored, 3 turned
// half-way, 6 turned a quarter clockwise, and so on). 1 and unknown values leave it as it is.
Picture applyOrientation(Picture picture, int orientation);

// Bilinear enlargement to width x height, for pictures smaller than the box (pixel centres
// aligned, edges repeated).
Picture enlarge(const Picture& picture, int width, int height);

// One row of 8-bit BGRA (straight alpha) laid over white, as RGB.
void flattenBgraOntoWhite(const unsigned char* bgra, int width, unsigned char* rgb);

}  // namespace quill_base_detail
