#include "PixelOperations.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace quill_base_detail {

Dimensions fitWithin(int size, std::uint64_t width, std::uint64_t height) {
  const double scale = std::min(static_cast<double>(size) / static_cast<double>(width),
                                static_cast<double>(size) / static_cast<double>(height));
  Dimensions fitted;
  fitted.width =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(width) * scale)), 1, size);
  fitted.height =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(height) * scale)), 1, size);
  return fitted;
}

bool swapsSides(int orientation) {
  return orientation >= 5 && orientation <= 8;
}

Picture applyOrientation(Picture picture, int orientation) {
  if (orientation < 2 || orientation > 8) {
    return picture;
  }
  const int w = picture.width;
  const int h = picture.height;
  const int channels = picture.channels;
  Picture shown;
  shown.width = swapsSides(orientation) ? h : w;
  shown.height = swapsSides(orientation) ? w : h;
  shown.channels = channels;
  shown.pixels.resize(picture.pixels.size());
  for (int y = 0; y < shown.height; ++y) {
    for (int x = 0; x < shown.width; ++x) {
      // The stored pixel that lands at (x, y) once shown.
      int sx = x;
      int sy = y;
      switch (orientation) {
        case 2:
          sx = w - 1 - x;
          break;
        case 3:
          sx = w - 1 - x;
          sy = h - 1 - y;
          break;
        case 4:
          sy = h - 1 - y;
          break;
        case 5:
          sx = y;
          sy = x;
          break;
        case 6:
          sx = y;
          sy = h - 1 - x;
          break;
        case 7:
          sx = w - 1 - y;
          sy = h - 1 - x;
          break;
        case 8:
          sx = w - 1 - y;
          sy = x;
          break;
        default:
          break;
      }
      const auto from = (static_cast<std::size_t>(sy) * w + sx) * channels;
      const auto to = (static_cast<std::size_t>(y) * shown.width + x) * channels;
      std::copy_n(picture.pixels.data() + from, channels, shown.pixels.data() + to);
    }
  }
  return shown;
}

namespace {

// For each target position along one side: the two source positions around its centre and the
// weight (of 256) of the second.
struct Taps {
  std::vector<int> first;
  std::vector<int> second;
  std::vector<int> weight;
};

Taps tapsFor(int sourceLength, int targetLength) {
  Taps taps;
  const double step = static_cast<double>(sourceLength) / targetLength;
  for (int i = 0; i < targetLength; ++i) {
    const double centre = std::clamp((i + 0.5) * step - 0.5, 0.0, sourceLength - 1.0);
    const int first = static_cast<int>(centre);
    taps.first.push_back(first);
    taps.second.push_back(std::min(first + 1, sourceLength - 1));
    taps.weight.push_back(static_cast<int>(std::lround((centre - first) * 256)));
  }
  return taps;
}

}  // namespace

Picture enlarge(const Picture& picture, int width, int height) {
  const int channels = picture.channels;
  const Taps columns = tapsFor(picture.width, width);
  const Taps rows = tapsFor(picture.height, height);
  Picture larger;
  larger.width = width;
  larger.height = height;
  larger.channels = channels;
  larger.pixels.resize(static_cast<std::size_t>(width) * height * channels);
  const auto at = [&](int x, int y, int c) {
    return static_cast<int>(
        picture.pixels[(static_cast<std::size_t>(y) * picture.width + x) * channels + c]);
  };
  for (int y = 0; y < height; ++y) {
    const int wy = rows.weight[y];
    for (int x = 0; x < width; ++x) {
      const int wx = columns.weight[x];
      for (int c = 0; c < channels; ++c) {
        const int top = at(columns.first[x], rows.first[y], c) * (256 - wx) +
                        at(columns.second[x], rows.first[y], c) * wx;
        const int bottom = at(columns.first[x], rows.second[y], c) * (256 - wx) +
                           at(columns.second[x], rows.second[y], c) * wx;
        const int value = (top * (256 - wy) + bottom * wy + (1 << 15)) >> 16;
        larger.pixels[(static_cast<std::size_t>(y) * width + x) * channels + c] =
            static_cast<unsigned char>(value);
      }
    }
  }
  return larger;
}

void flattenBgraOntoWhite(const unsigned char* bgra, int width, unsigned char* rgb) {
  for (int x = 0; x < width; ++x, bgra += 4, rgb += 3) {
    const unsigned alpha = bgra[3];
    const unsigned white = 255 * (255 - alpha);
    // Rounded division by 255 of colour * alpha + 255 * (255 - alpha).
    rgb[0] = static_cast<unsigned char>((bgra[2] * alpha + white + 127) / 255);
    rgb[1] = static_cast<unsigned char>((bgra[1] * alpha + white + 127) / 255);
    rgb[2] = static_cast<unsigned char>((bgra[0] * alpha + white + 127) / 255);
  }
}

}  // namespace quill_base_detail
