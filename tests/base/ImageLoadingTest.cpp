// libvips is loaded only when an image needs it: this process links quill_base and libjpeg but not
// libvips, and looks at its own memory map to see when libvips arrives.
#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using quill_test::TempDir;

namespace {

bool libvipsLoaded() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find("libvips.so") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// A plain 400 x 300 baseline JPEG, written with libjpeg alone.
void writeJpeg(const std::string& path) {
  jpeg_compress_struct encoder;
  jpeg_error_mgr errors;
  encoder.err = jpeg_std_error(&errors);
  jpeg_create_compress(&encoder);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  jpeg_stdio_dest(&encoder, file);
  encoder.image_width = 400;
  encoder.image_height = 300;
  encoder.input_components = 3;
  encoder.in_color_space = JCS_RGB;
  jpeg_set_defaults(&encoder);
  jpeg_start_compress(&encoder, TRUE);
  std::vector<unsigned char> row(400 * 3);
  for (std::size_t i = 0; i < row.size(); ++i) {
    row[i] = static_cast<unsigned char>(i % 251);
  }
  while (encoder.next_scanline < encoder.image_height) {
    JSAMPROW rows[] = {row.data()};
    jpeg_write_scanlines(&encoder, rows, 1);
  }
  jpeg_finish_compress(&encoder);
  jpeg_destroy_compress(&encoder);
  std::fclose(file);
}

// A 4 x 4 RGB PNG.
const unsigned char kTinyPng[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48, 0x44, 0x52,
    0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00, 0x04, 0x08, 0x02, 0x00, 0x00, 0x00, 0x26, 0x93, 0x09,
    0x29, 0x00, 0x00, 0x00, 0x13, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9c, 0x63, 0xf8, 0xcf, 0xc0, 0xc0,
    0x00, 0xc6, 0x40, 0xc0, 0x40, 0x1c, 0x07, 0x00, 0x4a, 0x06, 0x17, 0xe9, 0x6f, 0x21, 0xa0, 0x2d,
    0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

}  // namespace

TEST(ImageLoading, LibvipsIsLoadedOnlyWhenAnImageNeedsIt) {
  ASSERT_FALSE(libvipsLoaded()) << "linked, not loaded on demand";
  TempDir dir;

  const auto jpeg = dir.file("photo.jpg");
  writeJpeg(jpeg);
  ASSERT_TRUE(ImageUtils::scaleImage(200, jpeg, dir.file("photo-200.jpg")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("photo-200.jpg")));
  EXPECT_FALSE(libvipsLoaded()) << "a plain JPEG takes the fast path, without libvips";

  const auto png = dir.file("tiny.png");
  std::ofstream(png, std::ios::binary)
      .write(reinterpret_cast<const char*>(kTinyPng), sizeof(kTinyPng));
  ASSERT_TRUE(ImageUtils::scaleImage(200, png, dir.file("tiny-200.jpg")));
  EXPECT_TRUE(FileUtils::fileExists(dir.file("tiny-200.jpg")));
  EXPECT_TRUE(libvipsLoaded()) << "a PNG needs libvips, which is loaded for it";
}
