// The averager on its own: the four-channel path (SIMD where there is SSE2, wider where there is
// AVX2) must give the same bytes as the three-channel one (plain C++) for the same picture, at
// every ratio thumbnails see. The tests run with the AVX2 forms allowed and again with them held
// back, so that on a processor with AVX2 both SIMD forms are checked.

#include "detail/AreaAverage.h"
#include "detail/AreaAverageKernels.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using quill_base_detail::AreaAverage;

class AreaAverageForms : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override { quill_base_detail::allowWideVectors(GetParam()); }
  void TearDown() override { quill_base_detail::allowWideVectors(true); }
};

struct Shrunk {
  std::vector<unsigned char> rgb;
  std::vector<unsigned char> rgbx;
};

// Averages one random RGB picture twice: as RGB and as RGBX (the padding byte random too).
Shrunk shrinkBothWays(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight,
                      std::uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  AreaAverage rgb(sourceWidth, sourceHeight, targetWidth, targetHeight, 3);
  AreaAverage rgbx(sourceWidth, sourceHeight, targetWidth, targetHeight, 4);
  std::vector<unsigned char> rowRgb(static_cast<std::size_t>(sourceWidth) * 3);
  std::vector<unsigned char> rowRgbx(static_cast<std::size_t>(sourceWidth) * 4);
  for (int y = 0; y < sourceHeight; ++y) {
    for (int x = 0; x < sourceWidth; ++x) {
      for (int c = 0; c < 3; ++c) {
        const auto value = static_cast<unsigned char>(byte(random));
        rowRgb[static_cast<std::size_t>(x) * 3 + c] = value;
        rowRgbx[static_cast<std::size_t>(x) * 4 + c] = value;
      }
      rowRgbx[static_cast<std::size_t>(x) * 4 + 3] = static_cast<unsigned char>(byte(random));
    }
    rgb.addRow(rowRgb.data());
    rgbx.addRow(rowRgbx.data());
  }
  return {rgb.pixels(), rgbx.pixels()};
}

TEST_P(AreaAverageForms, FourChannelsGiveTheSameColoursAsThree) {
  struct Case {
    int sourceWidth, sourceHeight, targetWidth, targetHeight;
  };
  // Ratios of avatars decoded at a DCT scale (1.05 to 1.6), exact halves, large and odd ones,
  // one-pixel targets and one-row sources.
  const Case cases[] = {{300, 300, 200, 200}, {210, 210, 200, 200}, {320, 240, 200, 150},
                        {225, 300, 150, 200}, {400, 400, 200, 200}, {1000, 7, 13, 3},
                        {97, 61, 1, 1},       {5, 1, 3, 1},         {200, 200, 200, 200},
                        {641, 479, 199, 148}, {480, 480, 200, 200}, {999, 333, 201, 67},
                        {31, 17, 7, 5}};
  std::uint32_t seed = 1;
  for (const Case& shape : cases) {
    SCOPED_TRACE(::testing::Message() << shape.sourceWidth << "x" << shape.sourceHeight << " to "
                                      << shape.targetWidth << "x" << shape.targetHeight);
    const Shrunk shrunk = shrinkBothWays(shape.sourceWidth, shape.sourceHeight, shape.targetWidth,
                                         shape.targetHeight, seed++);
    const std::size_t pixels = static_cast<std::size_t>(shape.targetWidth) * shape.targetHeight;
    ASSERT_EQ(shrunk.rgb.size(), pixels * 3);
    ASSERT_EQ(shrunk.rgbx.size(), pixels * 4);
    std::size_t differing = 0;
    for (std::size_t i = 0; i < pixels; ++i) {
      for (std::size_t c = 0; c < 3; ++c) {
        differing += shrunk.rgb[i * 3 + c] != shrunk.rgbx[i * 4 + c] ? 1 : 0;
      }
    }
    EXPECT_EQ(differing, 0u);
  }
}

TEST_P(AreaAverageForms, AFlatColourStaysExactlyThatColour) {
  const unsigned char colour[4] = {255, 1, 128, 0};
  for (int channels : {1, 3, 4}) {
    SCOPED_TRACE(channels);
    AreaAverage averager(333, 250, 200, 150, channels);
    std::vector<unsigned char> row(333 * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i] = colour[i % static_cast<std::size_t>(channels)];
    }
    for (int y = 0; y < 250; ++y) {
      averager.addRow(row.data());
    }
    const auto& pixels = averager.pixels();
    ASSERT_EQ(pixels.size(), 200u * 150u * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < pixels.size(); ++i) {
      ASSERT_EQ(pixels[i], colour[i % static_cast<std::size_t>(channels)]) << "at byte " << i;
    }
  }
}

TEST_P(AreaAverageForms, AveragesTheSourcePixelsEachTargetPixelCovers) {
  // 4x2 to 2x1 with four channels: each target pixel is the mean of a 2x2 block.
  AreaAverage averager(4, 2, 2, 1, 4);
  const unsigned char top[16] = {0, 10, 200, 9, 100, 30, 200, 9, 50, 0, 0, 9, 50, 0, 255, 9};
  const unsigned char bottom[16] = {0, 10, 100, 9, 100, 30, 100, 9, 50, 4, 0, 9, 50, 4, 255, 9};
  averager.addRow(top);
  averager.addRow(bottom);
  const auto& pixels = averager.pixels();
  ASSERT_EQ(pixels.size(), 8u);
  EXPECT_EQ(pixels[0], 50);
  EXPECT_EQ(pixels[1], 20);
  EXPECT_EQ(pixels[2], 150);
  EXPECT_EQ(pixels[4], 50);
  EXPECT_EQ(pixels[5], 2);
  EXPECT_EQ(pixels[6], 128);  // 127.5 rounds up
}

INSTANTIATE_TEST_SUITE_P(AreaAverage, AreaAverageForms, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? std::string("WideVectorsAllowed")
                                             : std::string("WideVectorsHeldBack");
                         });

}  // namespace
