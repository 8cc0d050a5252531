// Times ImageUtils::scaleImage on a fixed set of pictures and compares results between runs, for
// the release figures (run by hand; not a test):
//   quill_image_scaling_probe make <dir>                 writes the pictures
//   quill_image_scaling_probe time <dir> <out> [runs]    scales each to 200 x 200 into <out>
//   quill_image_scaling_probe compare <out-a> <out-b>    mean absolute difference of the results
#include "TestImages.h"

#include <quill_base/ImageUtils.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace quill_test;

namespace {

// A smooth picture with a little grain, which compresses roughly like a photograph.
TestPicture photoLike(int width, int height, int seed) {
  TestPicture picture = gradientPicture(width, height, seed);
  const TestPicture grain = noisePicture(width, height, seed);
  for (std::size_t i = 0; i < picture.pixels.size(); ++i) {
    const int value = picture.pixels[i] + (grain.pixels[i] - 100 - seed % 50) / 4;
    picture.pixels[i] = static_cast<unsigned char>(std::clamp(value, 0, 255));
  }
  return picture;
}

// The photograph with an alpha channel fading from opaque at the left to clear at the right.
TestPicture withAlphaRamp(const TestPicture& rgb) {
  TestPicture rgba;
  rgba.width = rgb.width;
  rgba.height = rgb.height;
  rgba.channels = 4;
  for (int y = 0; y < rgb.height; ++y) {
    for (int x = 0; x < rgb.width; ++x) {
      const unsigned char* pixel = rgb.at(x, y);
      rgba.pixels.insert(rgba.pixels.end(), pixel, pixel + 3);
      rgba.pixels.push_back(static_cast<unsigned char>(255 - 255 * x / std::max(1, rgb.width - 1)));
    }
  }
  return rgba;
}

const char* const kNames[] = {
    "photo-4000x3000.jpg", "photo-1600x1200.jpg", "photo-640x640.jpg",  "alpha-800x600.png",
    "photo-3000x2000.png", "small-300x200.gif",   "photo-1024x768.bmp", "rotated6-2000x1500.jpg",
};

int makePictures(const std::string& dir) {
  makeDirectories(dir);
  const std::string files[] = {
      encodeJpeg(photoLike(4000, 3000, 1), 90),
      encodeJpeg(photoLike(1600, 1200, 2), 90),
      encodeJpeg(photoLike(640, 640, 3), 90),
      encodeImage(withAlphaRamp(photoLike(800, 600, 4)), ImageFormat::kPng),
      encodeImage(photoLike(3000, 2000, 5), ImageFormat::kPng),
      encodeImage(photoLike(300, 200, 6), ImageFormat::kGif),
      encodeImage(photoLike(1024, 768, 7), ImageFormat::kBmp),
      encodeJpeg(photoLike(2000, 1500, 8), 90, 6),
  };
  for (std::size_t i = 0; i < std::size(kNames); ++i) {
    if (files[i].empty() || !writeBytes(dir + "/" + kNames[i], files[i])) {
      std::fprintf(stderr, "cannot make %s\n", kNames[i]);
      return 1;
    }
    std::printf("%-24s %9zu bytes\n", kNames[i], files[i].size());
  }
  return 0;
}

std::string resultName(const std::string& name) {
  return name.substr(0, name.find('.')) + ".out.jpg";
}

int timeScaling(const std::string& dir, const std::string& out, int runs) {
  makeDirectories(out);
  std::printf("%-24s %10s %9s %8s\n", "image", "median ms", "WxH", "bytes");
  for (const char* name : kNames) {
    const std::string source = dir + "/" + name;
    const std::string target = out + "/" + resultName(name);
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
      const auto start = std::chrono::steady_clock::now();
      const bool ok = ImageUtils::scaleImage(200, source, target);
      const auto end = std::chrono::steady_clock::now();
      if (!ok) {
        std::fprintf(stderr, "cannot scale %s\n", source.c_str());
        return 1;
      }
      times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    }
    std::sort(times.begin(), times.end());
    const ImageSize size = imageSizeOf(target);
    std::printf("%-24s %10.2f %4dx%-4d %8zu\n", name, times[times.size() / 2], size.width,
                size.height, readBytes(target).size());
  }
  return 0;
}

int compareResults(const std::string& a, const std::string& b) {
  std::printf("%-24s %9s %9s %9s\n", "image", "a WxH", "b WxH", "mean |d|");
  for (const char* name : kNames) {
    const TestPicture first = decodeJpegFile(a + "/" + resultName(name));
    const TestPicture second = decodeJpegFile(b + "/" + resultName(name));
    std::printf("%-24s %4dx%-4d %4dx%-4d ", name, first.width, first.height, second.width,
                second.height);
    if (first.empty() || first.width != second.width || first.height != second.height ||
        first.channels != second.channels) {
      std::printf("%9s\n", "-");
      continue;
    }
    double total = 0;
    for (std::size_t i = 0; i < first.pixels.size(); ++i) {
      total += std::abs(first.pixels[i] - second.pixels[i]);
    }
    std::printf("%9.2f\n", total / static_cast<double>(first.pixels.size()));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "make" && argc == 3) {
    return makePictures(argv[2]);
  }
  if (command == "time" && (argc == 4 || argc == 5)) {
    return timeScaling(argv[2], argv[3], argc == 5 ? std::atoi(argv[4]) : 5);
  }
  if (command == "compare" && argc == 4) {
    return compareResults(argv[2], argv[3]);
  }
  std::fprintf(stderr, "usage: %s make <dir> | time <dir> <out> [runs] | compare <out-a> <out-b>\n",
               argv[0]);
  return 2;
}
