// The portable half of the test images: pictures made in memory, JPEG written and read with
// libjpeg, crafted headers and files at UTF-8 paths. PNG, GIF, BMP and WebP are encoded in
// TestImagesWic.cpp (Windows) or TestImagesVips.cpp (Linux).
#include "TestImages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <jpeglib.h>

namespace quill_test {
namespace {

unsigned char clampToByte(double value) {
  return static_cast<unsigned char>(std::clamp(std::lround(value), 0L, 255L));
}

// splitmix64: the same sequence everywhere, unlike the standard distributions.
class Random {
public:
  explicit Random(std::uint64_t seed) : state(seed * 0x9E3779B97F4A7C15ull + 1) {}
  double uniform() {  // in (0, 1]
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return (static_cast<double>(z >> 11) + 1.0) / 9007199254740992.0;
  }
  double gaussian() {  // Box-Muller
    const double radius = std::sqrt(-2.0 * std::log(uniform()));
    return radius * std::cos(6.283185307179586 * uniform());
  }

private:
  std::uint64_t state;
};

TestPicture blankPicture(int width, int height, int channels) {
  TestPicture picture;
  picture.width = width;
  picture.height = height;
  picture.channels = channels;
  picture.pixels.assign(static_cast<std::size_t>(width) * height * channels, 0);
  return picture;
}

struct JpegErrorJump {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

void jumpOnJpegError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<JpegErrorJump*>(info->err)->jump, 1);
}

void countJpegWarnings(j_common_ptr info, int level) {
  if (level < 0) {
    info->err->num_warnings += 1;
  }
}

jpeg_error_mgr* jumpingErrors(JpegErrorJump& errors) {
  jpeg_std_error(&errors.base);
  errors.base.error_exit = jumpOnJpegError;
  errors.base.emit_message = countJpegWarnings;
  return &errors.base;
}

// An APP1 EXIF block holding only the orientation tag (little-endian TIFF, one directory entry).
std::vector<unsigned char> exifWithOrientation(int orientation) {
  // "Exif\0\0"; a little-endian TIFF header whose first directory is at 8; that directory with
  // one entry: tag 0x0112 (orientation), type SHORT, one value; the value; no next directory.
  std::vector<unsigned char> exif = {'E', 'x', 'i', 'f', 0,    0,    'I', 'I', 42, 0, 8, 0,
                                     0,   0,   1,   0,   0x12, 0x01, 3,   0,   1,  0, 0, 0};
  exif.insert(exif.end(), {static_cast<unsigned char>(orientation), 0, 0, 0, 0, 0, 0, 0});
  return exif;
}

// Compresses into `output` (set by libjpeg, freed by the caller with free()). False on a libjpeg
// error. Nothing here owns memory across the longjmp.
bool compressJpeg(const TestPicture& picture, const unsigned char* rows, int channels, int quality,
                  const std::vector<unsigned char>& exif, unsigned char** output,
                  unsigned long* size) {
  jpeg_compress_struct encoder;
  JpegErrorJump errors;
  encoder.err = jumpingErrors(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_compress(&encoder);
    return false;
  }
  jpeg_create_compress(&encoder);
  jpeg_mem_dest(&encoder, output, size);
  encoder.image_width = static_cast<JDIMENSION>(picture.width);
  encoder.image_height = static_cast<JDIMENSION>(picture.height);
  encoder.input_components = channels;
  encoder.in_color_space = channels == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&encoder);
  jpeg_set_quality(&encoder, quality, TRUE);
  // A camera's file carries EXIF instead of a JFIF marker.
  encoder.write_JFIF_header = exif.empty() ? TRUE : FALSE;
  jpeg_start_compress(&encoder, TRUE);
  if (!exif.empty()) {
    jpeg_write_marker(&encoder, JPEG_APP0 + 1, exif.data(), static_cast<unsigned>(exif.size()));
  }
  const std::size_t stride = static_cast<std::size_t>(picture.width) * channels;
  while (encoder.next_scanline < encoder.image_height) {
    auto row = const_cast<JSAMPROW>(rows + stride * encoder.next_scanline);
    jpeg_write_scanlines(&encoder, &row, 1);
  }
  jpeg_finish_compress(&encoder);
  jpeg_destroy_compress(&encoder);
  return true;
}

// Decodes `bytes` into `picture` (already empty); false on an error or any warning (truncated or
// corrupt data).
bool decompressJpeg(const std::string& bytes, TestPicture& picture) {
  jpeg_decompress_struct decoder;
  JpegErrorJump errors;
  decoder.err = jumpingErrors(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_decompress(&decoder);
    return false;
  }
  jpeg_create_decompress(&decoder);
  jpeg_mem_src(&decoder, reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<unsigned long>(bytes.size()));
  jpeg_read_header(&decoder, TRUE);
  const bool grey = decoder.jpeg_color_space == JCS_GRAYSCALE;
  decoder.out_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_start_decompress(&decoder);
  picture.width = static_cast<int>(decoder.output_width);
  picture.height = static_cast<int>(decoder.output_height);
  picture.channels = grey ? 1 : 3;
  picture.pixels.resize(static_cast<std::size_t>(picture.width) * picture.height *
                        picture.channels);
  while (decoder.output_scanline < decoder.output_height) {
    JSAMPROW row = picture.pixels.data() + static_cast<std::size_t>(decoder.output_scanline) *
                                               picture.width * picture.channels;
    jpeg_read_scanlines(&decoder, &row, 1);
  }
  jpeg_finish_decompress(&decoder);
  const bool clean = errors.base.num_warnings == 0;
  jpeg_destroy_decompress(&decoder);
  return clean;
}

std::uint32_t crc32(const std::string& bytes) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
  }
  return crc ^ 0xFFFFFFFFu;
}

void appendBigEndian32(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>((value >> shift) & 0xFF));
  }
}

void appendPngChunk(std::string& out, const std::string& type, const std::string& data) {
  appendBigEndian32(out, static_cast<std::uint32_t>(data.size()));
  const std::string typed = type + data;
  out += typed;
  appendBigEndian32(out, crc32(typed));
}

std::FILE* openUtf8(const std::string& path, const char* mode) {
#if defined(_WIN32)
  const std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
  return _wfopen(std::filesystem::u8path(path).c_str(), wideMode.c_str());
#else
  return std::fopen(path.c_str(), mode);
#endif
}

}  // namespace

TestPicture noisePicture(int width, int height, int seed) {
  TestPicture picture = blankPicture(width, height, 3);
  Random random(static_cast<std::uint64_t>(seed));
  const double mean = 100.0 + seed % 50;
  for (std::size_t i = 0; i < picture.pixels.size(); i += 3) {
    const unsigned char value = clampToByte(mean + 40.0 * random.gaussian());
    std::fill_n(picture.pixels.begin() + static_cast<std::ptrdiff_t>(i), 3, value);
  }
  return picture;
}

TestPicture gradientPicture(int width, int height, int seed) {
  TestPicture picture = blankPicture(width, height, 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char* pixel = picture.pixels.data() + (static_cast<std::size_t>(y) * width + x) * 3;
      pixel[0] = clampToByte(200.0 * x / width + seed % 56);
      pixel[1] = clampToByte(200.0 * y / height + (seed * 7) % 56);
      pixel[2] = clampToByte(-100.0 * x / width + 150 + (seed * 13) % 100);
    }
  }
  return picture;
}

TestPicture transparentPicture(int width, int height) {
  return blankPicture(width, height, 4);
}

TestPicture discOnTransparentPicture(int side) {
  TestPicture picture = blankPicture(side, side, 4);
  const double centre = side / 2.0;
  const double radius = side / 4.0;
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      if (std::hypot(x + 0.5 - centre, y + 0.5 - centre) <= radius) {
        unsigned char* pixel = picture.pixels.data() + (static_cast<std::size_t>(y) * side + x) * 4;
        pixel[0] = 255;
        pixel[3] = 255;
      }
    }
  }
  return picture;
}

TestPicture quadrantPicture(int width, int height) {
  static const unsigned char kColours[4][3] = {
      {255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}};
  TestPicture picture = blankPicture(width, height, 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int quadrant = (y < height / 2 ? 0 : 2) + (x < width / 2 ? 0 : 1);
      std::copy_n(kColours[quadrant], 3,
                  picture.pixels.data() + (static_cast<std::size_t>(y) * width + x) * 3);
    }
  }
  return picture;
}

TestPicture greyVersion(const TestPicture& picture) {
  TestPicture grey = blankPicture(picture.width, picture.height, 1);
  for (int y = 0; y < picture.height; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      const unsigned char* pixel = picture.at(x, y);
      grey.pixels[static_cast<std::size_t>(y) * picture.width + x] =
          picture.channels < 3
              ? pixel[0]
              : clampToByte(0.299 * pixel[0] + 0.587 * pixel[1] + 0.114 * pixel[2]);
    }
  }
  return grey;
}

std::string encodeJpeg(const TestPicture& picture, int quality, int orientation) {
  // libjpeg takes grey or RGB: alpha is dropped first.
  std::vector<unsigned char> rgb;
  const unsigned char* rows = picture.pixels.data();
  int channels = picture.channels;
  if (channels == 4) {
    rgb.reserve(picture.pixels.size() / 4 * 3);
    for (std::size_t i = 0; i < picture.pixels.size(); i += 4) {
      rgb.insert(rgb.end(), picture.pixels.begin() + static_cast<std::ptrdiff_t>(i),
                 picture.pixels.begin() + static_cast<std::ptrdiff_t>(i + 3));
    }
    rows = rgb.data();
    channels = 3;
  }
  const auto exif =
      orientation != 0 ? exifWithOrientation(orientation) : std::vector<unsigned char>();
  unsigned char* output = nullptr;
  unsigned long size = 0;
  const bool ok = compressJpeg(picture, rows, channels, quality, exif, &output, &size);
  std::string bytes = ok ? std::string(reinterpret_cast<const char*>(output), size) : "";
  std::free(output);
  if (!ok) {
    ADD_FAILURE() << "libjpeg cannot encode a " << picture.width << "x" << picture.height
                  << " picture";
  }
  return bytes;
}

std::string pngHeaderClaiming(unsigned width, unsigned height) {
  std::string png("\x89PNG\r\n\x1a\n", 8);
  std::string header;
  appendBigEndian32(header, width);
  appendBigEndian32(header, height);
  header += std::string("\x08\x02\x00\x00\x00", 5);  // 8-bit RGB, no interlace
  appendPngChunk(png, "IHDR", header);
  appendPngChunk(png, "IEND", "");
  return png;
}

std::string jpegHeaderClaiming(unsigned width, unsigned height) {
  std::string jpeg = encodeJpeg(noisePicture(16, 16), 90);
  // The frame header (SOF0): marker, length, precision, then height and width.
  const auto frame = jpeg.find("\xFF\xC0");
  if (frame == std::string::npos || frame + 9 > jpeg.size()) {
    ADD_FAILURE() << "no frame header in the JPEG libjpeg wrote";
    return jpeg;
  }
  jpeg[frame + 5] = static_cast<char>(height >> 8);
  jpeg[frame + 6] = static_cast<char>(height & 0xFF);
  jpeg[frame + 7] = static_cast<char>(width >> 8);
  jpeg[frame + 8] = static_cast<char>(width & 0xFF);
  return jpeg;
}

std::string gifClaiming(unsigned width, unsigned height) {
  std::string sides;
  for (const unsigned side : {width, height}) {
    sides.push_back(static_cast<char>(side & 0xFF));
    sides.push_back(static_cast<char>((side >> 8) & 0xFF));
  }
  std::string gif = "GIF89a" + sides;
  gif += std::string("\x00\x00\x00", 3);  // no global colour table
  // The frame at the origin, with a two-colour local table (black, white).
  gif += std::string("\x2C\x00\x00\x00\x00", 5) + sides + std::string("\x80", 1);
  gif += std::string("\x00\x00\x00\xFF\xFF\xFF", 6);
  // LZW, minimum code size 2: clear (4), pixel 0, end (5) in 3-bit codes.
  gif += std::string("\x02\x02\x44\x01\x00", 5);
  gif.push_back('\x3B');
  return gif;
}

bool writeBytes(const std::string& path, const std::string& bytes) {
  std::FILE* file = openUtf8(path, "wb");
  if (file == nullptr) {
    return false;
  }
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && written;
}

std::string readBytes(const std::string& path) {
  std::string bytes;
  std::FILE* file = openUtf8(path, "rb");
  if (file == nullptr) {
    return bytes;
  }
  char buffer[65536];
  std::size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
    bytes.append(buffer, got);
  }
  std::fclose(file);
  return bytes;
}

bool pathExists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::u8path(path), error);
}

bool makeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::u8path(path), error);
  return !error;
}

std::vector<std::string> entryNames(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator it(std::filesystem::u8path(directory), error), end;
       !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename().u8string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TestPicture decodeJpegFile(const std::string& path) {
  const std::string bytes = readBytes(path);
  TestPicture picture;
  if (bytes.size() < 3 || !decompressJpeg(bytes, picture)) {
    return {};
  }
  return picture;
}

ImageSize imageSizeOf(const std::string& path) {
  const TestPicture picture = decodeJpegFile(path);
  return {picture.width, picture.height};
}

bool isJpegFile(const std::string& path) {
  const std::string bytes = readBytes(path);
  return bytes.size() >= 3 && bytes.compare(0, 3, "\xFF\xD8\xFF") == 0;
}

}  // namespace quill_test
