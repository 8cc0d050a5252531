// ImageUtils::scaleImage as a user sees its results, on Linux and Windows alike: the size of the
// avatar, what it shows, and the formats and file names it works with.
#include "ImageScalingSupport.h"

#include <quill_base/ImageUtils.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quill_test;

namespace {

// Scales `source` into the box at `target` and reads the result back.
TestPicture scaled(const std::string& source, const std::string& target) {
  EXPECT_TRUE(ImageUtils::scaleImage(kBox, source, target)) << source;
  EXPECT_TRUE(isJpegFile(target)) << target;
  TestPicture result = decodeJpegFile(target);
  EXPECT_FALSE(result.empty()) << "cannot read back " << target;
  return result;
}

struct Shape {
  int width;
  int height;
  int expectedWidth;
  int expectedHeight;
};

}  // namespace

TEST(ImageScaling, FitsTheBoxKeepingTheAspectRatio) {
  const Shape shapes[] = {
      {800, 400, 200, 100}, {300, 900, 67, 200}, {500, 500, 200, 200}, {1600, 1200, 200, 150}};
  for (const ImageFormat format : {ImageFormat::kJpeg, ImageFormat::kPng}) {
    for (const Shape& shape : shapes) {
      SCOPED_TRACE(std::to_string(shape.width) + "x" + std::to_string(shape.height) + " format " +
                   std::to_string(static_cast<int>(format)));
      ImageDirectory dir;
      const TestPicture picture = gradientPicture(shape.width, shape.height, 3);
      const auto source = dir.write("source", encodeImage(picture, format));
      const TestPicture result = scaled(source, dir.path("avatar.jpg"));
      EXPECT_EQ(result.width, shape.expectedWidth);
      EXPECT_EQ(result.height, shape.expectedHeight);
      ASSERT_FALSE(result.empty());
      EXPECT_LT(differenceFromSource(result, picture), 4.0) << "the same picture, smaller";
    }
  }
}

// Stored 300 x 200 with red, green, blue and yellow quadrants; each orientation must show them
// where a viewer that honours EXIF shows them.
TEST(ImageScaling, AppliesEachExifOrientation) {
  struct Expected {
    int orientation;
    Colour topLeft, topRight, bottomLeft, bottomRight;
  };
  const Expected cases[] = {
      {1, kRed, kGreen, kBlue, kYellow},  // as stored
      {2, kGreen, kRed, kYellow, kBlue},  // mirrored left to right
      {3, kYellow, kBlue, kGreen, kRed},  // turned half-way
      {4, kBlue, kYellow, kRed, kGreen},  // mirrored top to bottom
      {5, kRed, kBlue, kGreen, kYellow},  // mirrored along the main diagonal
      {6, kBlue, kRed, kYellow, kGreen},  // turned a quarter clockwise
      {7, kYellow, kGreen, kBlue, kRed},  // mirrored along the other diagonal
      {8, kGreen, kYellow, kRed, kBlue},  // turned a quarter anticlockwise
  };
  for (const Expected& expected : cases) {
    SCOPED_TRACE("orientation " + std::to_string(expected.orientation));
    ImageDirectory dir;
    const auto source =
        dir.write("photo.jpg", encodeJpeg(quadrantPicture(300, 200), 92, expected.orientation));
    const TestPicture result = scaled(source, dir.path("avatar.jpg"));
    const bool sideways = expected.orientation >= 5;
    EXPECT_EQ(result.width, sideways ? 133 : 200);
    EXPECT_EQ(result.height, sideways ? 200 : 133);
    ASSERT_FALSE(result.empty());
    const int left = result.width / 4;
    const int right = result.width * 3 / 4;
    const int top = result.height / 4;
    const int bottom = result.height * 3 / 4;
    EXPECT_TRUE(near(colourAt(result, left, top), expected.topLeft, 40)) << "top left";
    EXPECT_TRUE(near(colourAt(result, right, top), expected.topRight, 40)) << "top right";
    EXPECT_TRUE(near(colourAt(result, left, bottom), expected.bottomLeft, 40)) << "bottom left";
    EXPECT_TRUE(near(colourAt(result, right, bottom), expected.bottomRight, 40)) << "bottom right";
  }
}

TEST(ImageScaling, TransparentPartsOfAPngComeOutWhite) {
  ImageDirectory dir;
  const auto source =
      dir.write("disc.png", encodeImage(discOnTransparentPicture(400), ImageFormat::kPng));
  const TestPicture result = scaled(source, dir.path("avatar.jpg"));
  EXPECT_EQ(result.width, 200);
  EXPECT_EQ(result.height, 200);
  ASSERT_FALSE(result.empty());
  for (const auto& corner : {std::pair<int, int>{5, 5}, {194, 5}, {5, 194}, {194, 194}}) {
    EXPECT_TRUE(near(colourAt(result, corner.first, corner.second), kWhite, 8))
        << "transparent corner at " << corner.first << ", " << corner.second;
  }
  EXPECT_TRUE(near(colourAt(result, 100, 100), kRed, 40)) << "the opaque disc stays red";

  const auto clear =
      dir.write("clear.png", encodeImage(transparentPicture(300, 600), ImageFormat::kPng));
  const TestPicture white = scaled(clear, dir.path("clear.jpg"));
  EXPECT_EQ(white.width, 100);
  EXPECT_EQ(white.height, 200);
  ASSERT_FALSE(white.empty());
  EXPECT_TRUE(near(colourAt(white, 50, 100), kWhite, 3)) << "all transparent: all white";
}

namespace {

// A 3:2 quadrant picture fitted to the box: 200 x 133, each colour still in its own corner.
void expectQuadrantsFittedFromThreeByTwo(const TestPicture& result) {
  EXPECT_EQ(result.width, 200);
  EXPECT_EQ(result.height, 133);
  ASSERT_FALSE(result.empty());
  EXPECT_TRUE(near(colourAt(result, 50, 33), kRed, 40));
  EXPECT_TRUE(near(colourAt(result, 150, 33), kGreen, 40));
  EXPECT_TRUE(near(colourAt(result, 50, 100), kBlue, 40));
  EXPECT_TRUE(near(colourAt(result, 150, 100), kYellow, 40));
}

}  // namespace

TEST(ImageScaling, ASmallPictureIsEnlargedToTheBox) {
  for (const ImageFormat format : {ImageFormat::kJpeg, ImageFormat::kPng}) {
    SCOPED_TRACE("format " + std::to_string(static_cast<int>(format)));
    ImageDirectory dir;
    const auto source = dir.write("small", encodeImage(quadrantPicture(60, 40), format));
    const TestPicture result = scaled(source, dir.path("avatar.jpg"));
    expectQuadrantsFittedFromThreeByTwo(result);
  }
}

TEST(ImageScaling, AGreyscaleJpegStaysGrey) {
  ImageDirectory dir;
  const TestPicture grey = greyVersion(gradientPicture(800, 400, 5));
  const auto source = dir.write("grey.jpg", encodeJpeg(grey));
  const TestPicture result = scaled(source, dir.path("avatar.jpg"));
  EXPECT_EQ(result.width, 200);
  EXPECT_EQ(result.height, 100);
  EXPECT_EQ(result.channels, 1) << "a greyscale JPEG";
  ASSERT_FALSE(result.empty());
  EXPECT_LT(differenceFromSource(result, grey), 4.0);
}

TEST(ImageScaling, ReadsGifAndBmp) {
  for (const ImageFormat format : {ImageFormat::kGif, ImageFormat::kBmp}) {
    SCOPED_TRACE("format " + std::to_string(static_cast<int>(format)));
    ImageDirectory dir;
    const auto source = dir.write("picture", encodeImage(quadrantPicture(300, 200), format));
    const TestPicture result = scaled(source, dir.path("avatar.jpg"));
    expectQuadrantsFittedFromThreeByTwo(result);
  }
}

TEST(ImageScaling, AnExistingTargetIsReplacedAndNoTemporaryFileIsLeft) {
  ImageDirectory dir;
  const auto target = dir.write("avatar.jpg", "the previous avatar");
  for (const auto& source :
       {dir.write("photo.jpg", encodeJpeg(gradientPicture(640, 480, 1))),
        dir.write("photo.png", encodeImage(gradientPicture(480, 640, 2), ImageFormat::kPng))}) {
    SCOPED_TRACE(source);
    const ImageSize before = imageSizeOf(target);
    const TestPicture result = scaled(source, target);
    EXPECT_NE(result.width, before.width) << "the target was rewritten";
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"avatar.jpg", "photo.jpg", "photo.png"}));
  }
}

TEST(ImageScaling, WorksWithNamesBeyondAscii) {
  ImageDirectory dir;
  const std::string folder = dir.path("Zoë 文件");
  ASSERT_TRUE(makeDirectories(folder));
  const std::string png = folder + "/头像 Zoë.png";
  const std::string jpeg = folder + "/头像 Zoë.jpg";
  ASSERT_TRUE(writeBytes(png, encodeImage(gradientPicture(400, 300, 4), ImageFormat::kPng)));
  ASSERT_TRUE(writeBytes(jpeg, encodeJpeg(gradientPicture(300, 400, 6))));
  const std::string fromPng = folder + "/小 Zoë png.jpg";
  const std::string fromJpeg = folder + "/小 Zoë jpeg.jpg";

  const TestPicture wide = scaled(png, fromPng);
  EXPECT_EQ(wide.width, 200);
  EXPECT_EQ(wide.height, 150);
  const TestPicture tall = scaled(jpeg, fromJpeg);
  EXPECT_EQ(tall.width, 150);
  EXPECT_EQ(tall.height, 200);
  EXPECT_EQ(entryNames(folder), (std::vector<std::string>{"头像 Zoë.jpg", "头像 Zoë.png",
                                                          "小 Zoë jpeg.jpg", "小 Zoë png.jpg"}));
}
