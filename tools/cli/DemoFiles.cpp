#include "DemoFiles.h"

#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <vector>

namespace quill_cli {

bool writePatternFile(const std::string& path, std::size_t size, unsigned seed) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
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

bool writeJpegPicture(const std::string& path, int width, int height) {
  // A binary PPM is the simplest picture to write by hand; the image library turns it into a JPEG.
  const std::string raw = path + ".ppm";
  {
    std::ofstream out(raw, std::ios::binary | std::ios::trunc);
    out << "P6\n" << width << " " << height << "\n255\n";
    std::vector<char> row(static_cast<std::size_t>(width) * 3);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const double u = static_cast<double>(x) / width;
        const double v = static_cast<double>(y) / height;
        const double ring = 0.5 + 0.5 * std::sin(40.0 * std::hypot(u - 0.5, v - 0.5));
        auto* pixel = &row[static_cast<std::size_t>(x) * 3];
        pixel[0] = static_cast<char>(static_cast<int>(255 * u * ring));
        pixel[1] = static_cast<char>(static_cast<int>(255 * v));
        pixel[2] = static_cast<char>(static_cast<int>(255 * (1 - u) * (0.3 + 0.7 * ring)));
      }
      out.write(row.data(), static_cast<std::streamsize>(row.size()));
    }
    if (!out) {
      return false;
    }
  }
  const bool ok = ImageUtils::scaleImage(std::max(width, height), raw, path);
  FileUtils::removeFile(raw);
  return ok;
}

bool jpegSize(const std::string& path, int& width, int& height) {
  std::ifstream in(path, std::ios::binary);
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
