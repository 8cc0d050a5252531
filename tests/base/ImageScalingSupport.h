#pragma once

#include "TestImages.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace quill_test {

// A picture scaled into the avatar box, as the tests see it.
constexpr int kBox = 200;

struct Colour {
  int red;
  int green;
  int blue;
};

constexpr Colour kRed{255, 0, 0};
constexpr Colour kGreen{0, 255, 0};
constexpr Colour kBlue{0, 0, 255};
constexpr Colour kYellow{255, 255, 0};
constexpr Colour kWhite{255, 255, 255};

inline Colour colourAt(const TestPicture& picture, int x, int y) {
  const unsigned char* pixel = picture.at(x, y);
  if (picture.channels < 3) {
    return {pixel[0], pixel[0], pixel[0]};
  }
  return {pixel[0], pixel[1], pixel[2]};
}

// Whether the colour is within `tolerance` of the expected one in every channel.
inline ::testing::AssertionResult near(Colour actual, Colour expected, int tolerance) {
  if (std::abs(actual.red - expected.red) <= tolerance &&
      std::abs(actual.green - expected.green) <= tolerance &&
      std::abs(actual.blue - expected.blue) <= tolerance) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "(" << actual.red << ", " << actual.green << ", " << actual.blue << ") is not within "
         << tolerance << " of (" << expected.red << ", " << expected.green << ", " << expected.blue
         << ")";
}

// Mean absolute difference per channel value between a scaled result and its source, each result
// pixel compared with the source pixel under its centre. Small for smooth pictures scaled
// faithfully; large for the wrong picture, a wrong turn or a wrong crop.
inline double differenceFromSource(const TestPicture& result, const TestPicture& source) {
  double total = 0;
  for (int y = 0; y < result.height; ++y) {
    for (int x = 0; x < result.width; ++x) {
      const int sx = std::min(source.width - 1, (2 * x + 1) * source.width / (2 * result.width));
      const int sy = std::min(source.height - 1, (2 * y + 1) * source.height / (2 * result.height));
      const Colour a = colourAt(result, x, y);
      const Colour b = colourAt(source, sx, sy);
      total += std::abs(a.red - b.red) + std::abs(a.green - b.green) + std::abs(a.blue - b.blue);
    }
  }
  return total / (3.0 * result.width * result.height);
}

// A directory with a source written into it under `name`.
class ImageDirectory {
public:
  std::string path(const std::string& name) const { return dir.path() + "/" + name; }
  std::string write(const std::string& name, const std::string& bytes) const {
    const std::string file = path(name);
    EXPECT_TRUE(writeBytes(file, bytes)) << file;
    return file;
  }
  std::vector<std::string> entries() const { return entryNames(dir.path()); }

private:
  TempDir dir;
};

}  // namespace quill_test
