// PNG, GIF, BMP and WebP for the tests on Linux, written with libvips (BMP through its ImageMagick
// saver): the library reads them there with libvips too.
#include "TestImages.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

namespace quill_test {

bool canEncode(ImageFormat) {
  return true;
}

std::string encodeImage(const TestPicture& picture, ImageFormat format) {
  if (format == ImageFormat::kJpeg) {
    return encodeJpeg(picture);
  }
  if (VIPS_INIT("quill_tests") != 0) {
    ADD_FAILURE() << "libvips does not start: " << vips_error_buffer();
    return {};
  }
  VipsImage* image =
      vips_image_new_from_memory_copy(picture.pixels.data(), picture.pixels.size(), picture.width,
                                      picture.height, picture.channels, VIPS_FORMAT_UCHAR);
  if (image == nullptr) {
    ADD_FAILURE() << vips_error_buffer();
    vips_error_clear();
    return {};
  }
  image->Type = picture.channels < 3 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB;
  void* buffer = nullptr;
  size_t length = 0;
  int result = -1;
  switch (format) {
    case ImageFormat::kPng:
      result = vips_pngsave_buffer(image, &buffer, &length, "compression", 1, nullptr);
      break;
    case ImageFormat::kGif:
      result = vips_gifsave_buffer(image, &buffer, &length, nullptr);
      break;
    case ImageFormat::kBmp:
      result = vips_magicksave_buffer(image, &buffer, &length, "format", "bmp", nullptr);
      break;
    case ImageFormat::kWebp:
      result = vips_webpsave_buffer(image, &buffer, &length, "effort", 0, nullptr);
      break;
    case ImageFormat::kJpeg:
      break;
  }
  g_object_unref(image);
  if (result != 0) {
    ADD_FAILURE() << "libvips cannot encode format " << static_cast<int>(format) << ": "
                  << vips_error_buffer();
    vips_error_clear();
    return {};
  }
  std::string bytes(static_cast<const char*>(buffer), length);
  g_free(buffer);
  return bytes;
}

}  // namespace quill_test
