// ImageUtils::scaleImage refusing what it cannot or must not scale, on Linux and Windows alike:
// false, and nothing written (no target, no temporary file beside it).
#include "ImageScalingSupport.h"

#include <quill_base/ImageUtils.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quill_test;

namespace {

// Scaling `source` (a file in `dir`, its only entry) is refused and leaves the directory as it was.
void expectRefused(const ImageDirectory& dir, const std::string& source, int size = kBox) {
  const auto before = dir.entries();
  EXPECT_FALSE(ImageUtils::scaleImage(size, source, dir.path("avatar.jpg"))) << source;
  EXPECT_EQ(dir.entries(), before) << "nothing left behind";
}

std::string firstPart(const std::string& bytes, double fraction) {
  return bytes.substr(0, static_cast<std::size_t>(static_cast<double>(bytes.size()) * fraction));
}

}  // namespace

TEST(ImageRefusal, TruncatedJpegAndPng) {
  for (const ImageFormat format : {ImageFormat::kJpeg, ImageFormat::kPng}) {
    SCOPED_TRACE("format " + std::to_string(static_cast<int>(format)));
    ImageDirectory dir;
    const std::string whole = noiseImage(800, 600, format, 2);
    expectRefused(dir, dir.write("cut-short", firstPart(whole, 0.6)));
  }
}

TEST(ImageRefusal, FilesThatAreNoPicture) {
  ImageDirectory dir;
  expectRefused(dir, dir.write("notes.jpg", "these are not the pixels you are looking for\n"));
  ImageDirectory empty;
  expectRefused(empty, empty.write("empty.png", ""));
  ImageDirectory missing;
  EXPECT_FALSE(ImageUtils::scaleImage(kBox, missing.path("absent.jpg"), missing.path("a.jpg")));
  EXPECT_TRUE(missing.entries().empty());
}

TEST(ImageRefusal, HeadersClaimingTooManyPixels) {
  ImageDirectory jpeg;
  expectRefused(jpeg, jpeg.write("huge.jpg", jpegHeaderClaiming(60000, 60000)));
  ImageDirectory png;
  expectRefused(png, png.write("huge.png", pngHeaderClaiming(60000, 60000)));
  ImageDirectory gif;
  expectRefused(gif, gif.write("huge.gif", gifClaiming(60000, 60000)));
  // The same GIF at 1 x 1 is a whole picture: it is the size that is refused.
  const auto tiny = gif.write("tiny.gif", gifClaiming(1, 1));
  EXPECT_TRUE(ImageUtils::scaleImage(kBox, tiny, gif.path("tiny.jpg")));
}

TEST(ImageRefusal, SizesBelowOne) {
  ImageDirectory dir;
  const auto source = dir.write("photo.jpg", noiseImage(300, 200, ImageFormat::kJpeg));
  expectRefused(dir, source, 0);
  expectRefused(dir, source, -5);
}

TEST(ImageRefusal, ATargetThatCannotBeWritten) {
  ImageDirectory dir;
  const auto source = dir.write("photo.jpg", noiseImage(300, 200, ImageFormat::kJpeg));
  EXPECT_FALSE(ImageUtils::scaleImage(kBox, source, dir.path("no such folder/avatar.jpg")));
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"photo.jpg"});
}
