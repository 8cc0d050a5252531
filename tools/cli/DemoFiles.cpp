#include "DemoFiles.h"

#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

namespace quill_cli {

bool writePatternFile(const std::string& path, std::size_t size, unsigned seed) {
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
  std::string block(64 * 1024, '\0');
  std::size_t written = 0;
  while (out && written < size) {
    for (std::size_t i = 0; i < block.size(); ++i) {
      const auto position = static_cast<std::uint64_t>(written + i);
      block[i] = static_cast<char>(((position * 2654435761u) >> 13) ^ seed);
    }
    const auto chunk = std::min(block.size(), size - written);
    out.write(block.data(), static_cast<std::streamsize>(chunk));
    written += chunk;
  }
  out.close();
  return static_cast<bool>(out) && written == size;
}

namespace {

// The picture's pixels, row by row from the top, red, green, blue.
std::vector<unsigned char> picturePixels(int width, int height) {
  std::vector<unsigned char> pixels(static_cast<std::size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double u = static_cast<double>(x) / width;
      const double v = static_cast<double>(y) / height;
      const double ring = 0.5 + 0.5 * std::sin(40.0 * std::hypot(u - 0.5, v - 0.5));
      auto* pixel = &pixels[(static_cast<std::size_t>(y) * width + x) * 3];
      pixel[0] = static_cast<unsigned char>(static_cast<int>(255 * u * ring));
      pixel[1] = static_cast<unsigned char>(static_cast<int>(255 * v));
      pixel[2] = static_cast<unsigned char>(static_cast<int>(255 * (1 - u) * (0.3 + 0.7 * ring)));
    }
  }
  return pixels;
}

#if defined(_WIN32)
void putLittleEndian(std::ofstream& out, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) {
    out.put(static_cast<char>((value >> (8 * i)) & 0xFF));
  }
}
#endif

// The simplest picture to write by hand that the image library reads: a binary PPM for libvips, a
// 24-bit BMP for the Windows Imaging Component (which has no PPM decoder).
bool writeRawPicture(const std::string& path, int width, int height) {
  const auto pixels = picturePixels(width, height);
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
#if defined(_WIN32)
  const std::uint32_t rowBytes = (static_cast<std::uint32_t>(width) * 3 + 3) & ~3u;
  const std::uint32_t imageBytes = rowBytes * static_cast<std::uint32_t>(height);
  out << "BM";
  putLittleEndian(out, 54 + imageBytes, 4);
  putLittleEndian(out, 0, 4);
  putLittleEndian(out, 54, 4);
  putLittleEndian(out, 40, 4);
  putLittleEndian(out, static_cast<std::uint32_t>(width), 4);
  putLittleEndian(out, static_cast<std::uint32_t>(height), 4);
  putLittleEndian(out, 1, 2);
  putLittleEndian(out, 24, 2);
  for (int field = 0; field < 6; ++field) {
    putLittleEndian(out, 0, 4);
  }
  // Bottom row first, blue, green, red, each row padded to four bytes.
  std::vector<char> row(rowBytes, '\0');
  for (int y = height - 1; y >= 0; --y) {
    for (int x = 0; x < width; ++x) {
      const auto* pixel = &pixels[(static_cast<std::size_t>(y) * width + x) * 3];
      row[static_cast<std::size_t>(x) * 3] = static_cast<char>(pixel[2]);
      row[static_cast<std::size_t>(x) * 3 + 1] = static_cast<char>(pixel[1]);
      row[static_cast<std::size_t>(x) * 3 + 2] = static_cast<char>(pixel[0]);
    }
    out.write(row.data(), static_cast<std::streamsize>(row.size()));
  }
#else
  out << "P6\n" << width << " " << height << "\n255\n";
  out.write(reinterpret_cast<const char*>(pixels.data()),
            static_cast<std::streamsize>(pixels.size()));
#endif
  out.close();
  return static_cast<bool>(out);
}

}  // namespace

bool writeJpegPicture(const std::string& path, int width, int height) {
#if defined(_WIN32)
  const std::string raw = path + ".bmp";
#else
  const std::string raw = path + ".ppm";
#endif
  if (!writeRawPicture(raw, width, height)) {
    FileUtils::removeFile(raw);
    return false;
  }
  const bool ok = ImageUtils::scaleImage(std::max(width, height), raw, path);
  FileUtils::removeFile(raw);
  return ok;
}

bool jpegSize(const std::string& path, int& width, int& height) {
  std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
  const std::string data((std::istreambuf_iterator<char>(in)), {});
  const auto byte = [&data](std::size_t i) { return static_cast<unsigned char>(data[i]); };
  if (data.size() < 4 || byte(0) != 0xFF || byte(1) != 0xD8) {
    return false;
  }
  std::size_t at = 2;
  while (at + 9 < data.size()) {
    if (byte(at) != 0xFF) {
      return false;
    }
    const unsigned marker = byte(at + 1);
    if (marker == 0xFF) {
      ++at;
      continue;
    }
    const std::size_t length = byte(at + 2) << 8 | byte(at + 3);
    const bool frame =
        marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (frame) {
      height = byte(at + 5) << 8 | byte(at + 6);
      width = byte(at + 7) << 8 | byte(at + 8);
      return true;
    }
    at += 2 + length;
  }
  return false;
}

}  // namespace quill_cli
