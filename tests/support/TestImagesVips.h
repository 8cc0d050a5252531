#pragma once

#include "TestImages.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

#include <memory>

// Pictures made with libvips itself, for the Linux tests that compare scaleImage with libvips' own
// results. Portable tests use TestImages.h alone.
namespace quill_test {

struct VipsImageDeleter {
  void operator()(VipsImage* image) const { g_object_unref(image); }
};
using VipsImagePtr = std::unique_ptr<VipsImage, VipsImageDeleter>;

inline VipsImagePtr adoptImage(VipsImage* image) {
  return VipsImagePtr(image);
}

inline void initVips() {
  EXPECT_EQ(VIPS_INIT("quill_tests"), 0);
  // Tests rewrite files under the same names; libvips' operation cache would answer a second
  // vips_thumbnail of a name with the first file's pixels.
  vips_cache_set_max(0);
}

// The image with its values cast to bytes and tagged as sRGB.
inline VipsImagePtr asSrgbBytes(VipsImage* image) {
  VipsImage* cast = nullptr;
  EXPECT_EQ(vips_cast_uchar(image, &cast, nullptr), 0);
  auto bytes = adoptImage(cast);
  VipsImage* tagged = nullptr;
  EXPECT_EQ(vips_copy(bytes.get(), &tagged, "interpretation", VIPS_INTERPRETATION_sRGB, nullptr),
            0);
  return adoptImage(tagged);
}

// Three one-band images as the red, green and blue of an sRGB byte image.
inline VipsImagePtr joinAsSrgb(VipsImage* red, VipsImage* green, VipsImage* blue) {
  VipsImage* joined = nullptr;
  VipsImage* bands[] = {red, green, blue};
  EXPECT_EQ(vips_bandjoin(bands, &joined, 3, nullptr), 0);
  auto rgb = adoptImage(joined);
  return asSrgbBytes(rgb.get());
}

// A noisy sRGB image; `seed` shifts the mean so that images of the same size differ.
inline VipsImagePtr makeNoise(int width, int height, int seed = 0) {
  initVips();
  VipsImage* noise = nullptr;
  EXPECT_EQ(vips_gaussnoise(&noise, width, height, "mean", 100.0 + seed % 50, "sigma", 40.0, "seed",
                            seed, nullptr),
            0);
  auto grey = adoptImage(noise);
  return joinAsSrgb(grey.get(), grey.get(), grey.get());
}

// A smooth sRGB colour gradient, different for each seed.
inline VipsImagePtr makeGradient(int width, int height, int seed = 0) {
  initVips();
  VipsImage* coordinates = nullptr;
  EXPECT_EQ(vips_xyz(&coordinates, width, height, nullptr), 0);
  auto xy = adoptImage(coordinates);
  VipsImage* x = nullptr;
  VipsImage* y = nullptr;
  EXPECT_EQ(vips_extract_band(xy.get(), &x, 0, nullptr), 0);
  EXPECT_EQ(vips_extract_band(xy.get(), &y, 1, nullptr), 0);
  auto xs = adoptImage(x);
  auto ys = adoptImage(y);
  VipsImage* red = nullptr;
  VipsImage* green = nullptr;
  VipsImage* blue = nullptr;
  EXPECT_EQ(vips_linear1(xs.get(), &red, 200.0 / width, seed % 56, nullptr), 0);
  EXPECT_EQ(vips_linear1(ys.get(), &green, 200.0 / height, (seed * 7) % 56, nullptr), 0);
  EXPECT_EQ(vips_linear1(xs.get(), &blue, -100.0 / width, 150 + (seed * 13) % 100, nullptr), 0);
  auto r = adoptImage(red);
  auto g = adoptImage(green);
  auto b = adoptImage(blue);
  return joinAsSrgb(r.get(), g.get(), b.get());
}

// A fully transparent black image with an alpha band.
inline VipsImagePtr makeTransparent(int width, int height) {
  initVips();
  VipsImage* black = nullptr;
  EXPECT_EQ(vips_black(&black, width, height, "bands", 4, nullptr), 0);
  auto rgba = adoptImage(black);
  return asSrgbBytes(rgba.get());
}

}  // namespace quill_test
