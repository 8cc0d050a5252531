#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Real images for tests, the same way on Linux and Windows: pictures made in memory (noise, so that
// encoders produce realistic amounts of data; gradients; transparency; coloured quadrants that
// show how a picture was turned), encoded as JPEG with libjpeg (optionally with an EXIF
// orientation), and as PNG, GIF or BMP with the platform's own encoders (the Windows Imaging
// Component on Windows, libvips on Linux, which also writes WebP). Scaled results are read back
// with libjpeg. Paths are UTF-8, as in the library's API.
namespace quill_test {

// An 8-bit interleaved picture, rows top to bottom: 1 channel (grey), 3 (RGB) or 4 (RGBA, straight
// alpha).
struct TestPicture {
  int width = 0;
  int height = 0;
  int channels = 0;
  std::vector<unsigned char> pixels;

  bool empty() const { return width == 0 || height == 0; }
  const unsigned char* at(int x, int y) const {
    return pixels.data() + (static_cast<std::size_t>(y) * width + x) * channels;
  }
};

// Grey Gaussian noise as RGB; `seed` shifts the mean so that pictures of the same size differ.
TestPicture noisePicture(int width, int height, int seed = 0);

// A smooth colour gradient, different for each seed: compresses like a photograph rather than like
// noise, so it is quick to encode, download and decode.
TestPicture gradientPicture(int width, int height, int seed = 0);

// RGBA: fully transparent black.
TestPicture transparentPicture(int width, int height);

// RGBA: a red disc, opaque, in the middle of a fully transparent square.
TestPicture discOnTransparentPicture(int side);

// RGB: four flat quadrants, red top left, green top right, blue bottom left, yellow bottom right.
// Each of the eight EXIF orientations shows them in a different arrangement.
TestPicture quadrantPicture(int width, int height);

// The picture as one grey channel (Rec. 601 luma).
TestPicture greyVersion(const TestPicture& picture);

enum class ImageFormat { kJpeg, kPng, kGif, kBmp, kWebp };

// Whether this platform's test encoders write the format (WebP only with libvips).
bool canEncode(ImageFormat format);

// The picture as a JPEG (libjpeg, baseline). A non-zero orientation is written as an EXIF APP1
// marker carrying that orientation tag, as cameras and phones do. Alpha is dropped.
std::string encodeJpeg(const TestPicture& picture, int quality = 90, int orientation = 0);

// The picture encoded in the format, as bytes; "" (and a test failure) when it cannot be.
std::string encodeImage(const TestPicture& picture, ImageFormat format);

inline std::string noiseImage(int width, int height, ImageFormat format, int seed = 0) {
  return encodeImage(noisePicture(width, height, seed), format);
}

inline std::string gradientImage(int width, int height, ImageFormat format, int seed = 0) {
  return encodeImage(gradientPicture(width, height, seed), format);
}

// PNG and JPEG headers that claim width x height but carry no picture data.
std::string pngHeaderClaiming(unsigned width, unsigned height);
std::string jpegHeaderClaiming(unsigned width, unsigned height);
// A GIF whose screen and only frame claim width x height (at most 65535 each) and that carries a
// single pixel: whole for 1 x 1.
std::string gifClaiming(unsigned width, unsigned height);

// Files at UTF-8 paths (wide calls on Windows).
bool writeBytes(const std::string& path, const std::string& bytes);
std::string readBytes(const std::string& path);
bool pathExists(const std::string& path);
bool makeDirectories(const std::string& path);
// Names (UTF-8) of the entries of a directory; empty when it cannot be read.
std::vector<std::string> entryNames(const std::string& directory);

// A JPEG file decoded with libjpeg: 1 channel for a greyscale JPEG, 3 otherwise; empty when the
// file is not a whole, readable JPEG.
TestPicture decodeJpegFile(const std::string& path);

struct ImageSize {
  int width = 0;
  int height = 0;
};

// Width and height of a JPEG file; 0 x 0 when it cannot be read.
ImageSize imageSizeOf(const std::string& path);

bool isJpegFile(const std::string& path);

}  // namespace quill_test
