#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>

#include "TestImagesVips.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

#include <filesystem>
#include <fstream>
#include <memory>

using quill_test::TempDir;

namespace {

using quill_test::adoptImage;
using quill_test::makeNoise;
using quill_test::makeTransparent;

quill_test::ImageSize sizeOf(const std::string& path) {
  const auto size = quill_test::imageSizeOf(path);
  if (size.width == 0) {
    ADD_FAILURE() << "cannot read back " << path;
  }
  return size;
}

bool isJpeg(const std::string& path) {
  return quill_test::isJpegFile(path);
}

bool onlyFileIn(const std::string& directory, const std::string& name) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    ++count;
    if (entry.path().filename() != name) {
      return false;
    }
  }
  return count == 1;
}

}  // namespace

TEST(ImageUtils, ScalesAJpegWithinTheBoxKeepingTheAspectRatio) {
  TempDir dir;
  const auto source = dir.file("photo.jpg");
  ASSERT_EQ(vips_jpegsave(makeNoise(1600, 1200).get(), source.c_str(), nullptr), 0);
  FileUtils::makeDirectory(dir.file("out"));
  const auto target = dir.file("out/avatar.jpg");

  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  EXPECT_TRUE(isJpeg(target));
  const auto size = sizeOf(target);
  EXPECT_EQ(size.width, 200);
  EXPECT_EQ(size.height, 150);
  EXPECT_TRUE(onlyFileIn(dir.file("out"), "avatar.jpg")) << "no temporary file left behind";
}

TEST(ImageUtils, ScalesAPngAndFlattensTransparencyOntoWhite) {
  TempDir dir;
  const auto source = dir.file("clear.png");
  ASSERT_EQ(vips_pngsave(makeTransparent(300, 600).get(), source.c_str(), nullptr), 0);
  const auto target = dir.file("avatar.jpg");

  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  EXPECT_TRUE(isJpeg(target));
  auto result = adoptImage(vips_image_new_from_file(target.c_str(), nullptr));
  ASSERT_TRUE(result);
  EXPECT_EQ(vips_image_get_width(result.get()), 100);
  EXPECT_EQ(vips_image_get_height(result.get()), 200);
  EXPECT_EQ(vips_image_get_bands(result.get()), 3);
  double average = 0;
  ASSERT_EQ(vips_avg(result.get(), &average, nullptr), 0);
  EXPECT_GT(average, 250.0) << "transparent pixels become white, not black";
}

TEST(ImageUtils, ScalesAWebp) {
  TempDir dir;
  const auto source = dir.file("picture.webp");
  ASSERT_EQ(vips_webpsave(makeNoise(1000, 500).get(), source.c_str(), nullptr), 0);
  const auto target = dir.file("avatar.jpg");
  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  EXPECT_TRUE(isJpeg(target));
  const auto size = sizeOf(target);
  EXPECT_EQ(size.width, 200);
  EXPECT_EQ(size.height, 100);
}

TEST(ImageUtils, EnlargesASmallImageToTheBox) {
  TempDir dir;
  const auto source = dir.file("small.png");
  ASSERT_EQ(vips_pngsave(makeNoise(50, 40).get(), source.c_str(), nullptr), 0);
  const auto target = dir.file("avatar.jpg");
  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  const auto size = sizeOf(target);
  EXPECT_EQ(size.width, 200);
  EXPECT_EQ(size.height, 160);
}

TEST(ImageUtils, AppliesTheExifOrientation) {
  TempDir dir;
  const auto source = dir.file("rotated.jpg");
  auto image = makeNoise(400, 200);
  VipsImage* copy = nullptr;
  ASSERT_EQ(vips_copy(image.get(), &copy, nullptr), 0);
  auto oriented = adoptImage(copy);
  vips_image_set_int(oriented.get(), VIPS_META_ORIENTATION, 6);  // stored sideways
  ASSERT_EQ(vips_jpegsave(oriented.get(), source.c_str(), nullptr), 0);
  ASSERT_EQ(sizeOf(source).width, 400);

  const auto target = dir.file("avatar.jpg");
  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  const auto size = sizeOf(target);
  EXPECT_EQ(size.width, 100);
  EXPECT_EQ(size.height, 200);
}

TEST(ImageUtils, RefusesATruncatedJpeg) {
  TempDir dir;
  const auto source = dir.file("cut.jpg");
  ASSERT_EQ(vips_jpegsave(makeNoise(1200, 900).get(), source.c_str(), nullptr), 0);
  const auto fullSize = std::filesystem::file_size(source);
  std::filesystem::resize_file(source, fullSize / 2);
  const auto target = dir.file("avatar.jpg");

  EXPECT_FALSE(ImageUtils::scaleImage(200, source, target));
  EXPECT_FALSE(FileUtils::fileExists(target));
  EXPECT_TRUE(onlyFileIn(dir.path(), "cut.jpg")) << "no temporary file left behind";
}

TEST(ImageUtils, RefusesWhatIsNotAnImage) {
  TempDir dir;
  const auto text = dir.file("notes.jpg");
  std::ofstream(text) << "this is not an image at all\n";
  const auto target = dir.file("avatar.jpg");
  EXPECT_FALSE(ImageUtils::scaleImage(200, text, target));
  EXPECT_FALSE(ImageUtils::scaleImage(200, dir.file("missing.png"), target));
  const auto empty = dir.file("empty.png");
  std::ofstream(empty).flush();
  EXPECT_FALSE(ImageUtils::scaleImage(200, empty, target));
  EXPECT_FALSE(FileUtils::fileExists(target));
}

TEST(ImageUtils, RefusesABadSizeOrTarget) {
  TempDir dir;
  const auto source = dir.file("photo.png");
  ASSERT_EQ(vips_pngsave(makeNoise(64, 64).get(), source.c_str(), nullptr), 0);
  EXPECT_FALSE(ImageUtils::scaleImage(0, source, dir.file("a.jpg")));
  EXPECT_FALSE(ImageUtils::scaleImage(-5, source, dir.file("a.jpg")));
  EXPECT_FALSE(ImageUtils::scaleImage(200, source, ""));
  EXPECT_FALSE(ImageUtils::scaleImage(200, source, dir.file("no/such/dir/a.jpg")));
  EXPECT_TRUE(onlyFileIn(dir.path(), "photo.png"));
}

TEST(ImageUtils, ReplacesAnExistingTargetWithTheNewPicture) {
  TempDir dir;
  const auto wide = dir.file("wide.png");
  const auto tall = dir.file("tall.png");
  ASSERT_EQ(vips_pngsave(makeNoise(400, 100).get(), wide.c_str(), nullptr), 0);
  ASSERT_EQ(vips_pngsave(makeNoise(100, 400).get(), tall.c_str(), nullptr), 0);
  const auto target = dir.file("avatar.jpg");
  ASSERT_TRUE(ImageUtils::scaleImage(200, wide, target));
  EXPECT_EQ(sizeOf(target).width, 200);
  // The same names again with other pixels: no cached result may come back.
  std::filesystem::rename(tall, wide);
  ASSERT_TRUE(ImageUtils::scaleImage(200, wide, target));
  EXPECT_EQ(sizeOf(target).width, 50);
}

namespace {

// Mean absolute difference per band value between two images of the same size.
double meanDifference(VipsImage* a, VipsImage* b) {
  VipsImage* difference = nullptr;
  EXPECT_EQ(vips_subtract(a, b, &difference, nullptr), 0);
  auto owned = adoptImage(difference);
  VipsImage* magnitude = nullptr;
  EXPECT_EQ(vips_abs(owned.get(), &magnitude, nullptr), 0);
  auto absolute = adoptImage(magnitude);
  double mean = 0;
  EXPECT_EQ(vips_avg(absolute.get(), &mean, nullptr), 0);
  return mean;
}

}  // namespace

TEST(ImageUtils, APlainJpegComesOutLikeTheGeneralPipelineWouldMakeIt) {
  TempDir dir;
  for (const auto& side :
       {std::pair<int, int>{1600, 1200}, {300, 300}, {640, 640}, {300, 900}, {333, 250}}) {
    const auto source = dir.file("smooth.jpg");
    ASSERT_EQ(vips_jpegsave(quill_test::makeGradient(side.first, side.second, 7).get(),
                            source.c_str(), "Q", 95, nullptr),
              0);
    const auto target = dir.file("avatar.jpg");
    ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));

    VipsImage* reference = nullptr;
    ASSERT_EQ(vips_thumbnail(source.c_str(), &reference, 200, "height", 200, nullptr), 0);
    auto expected = adoptImage(reference);
    auto actual = adoptImage(vips_image_new_from_file(target.c_str(), nullptr));
    ASSERT_TRUE(actual);
    EXPECT_NEAR(vips_image_get_width(actual.get()), vips_image_get_width(expected.get()), 1)
        << side.first << "x" << side.second;
    EXPECT_NEAR(vips_image_get_height(actual.get()), vips_image_get_height(expected.get()), 1);
    EXPECT_EQ(std::max(vips_image_get_width(actual.get()), vips_image_get_height(actual.get())),
              200);
    if (side.first == side.second || side.first == 1600) {
      // The same size both ways (200 x 150, 200 x 200): compare the pixels.
      ASSERT_EQ(vips_image_get_width(actual.get()), vips_image_get_width(expected.get()));
      ASSERT_EQ(vips_image_get_height(actual.get()), vips_image_get_height(expected.get()));
      const double difference = meanDifference(actual.get(), expected.get());
      EXPECT_LT(difference, 4.0) << "the same picture, " << side.first << "x" << side.second;
    }
  }
}

TEST(ImageUtils, AGreyscaleJpegIsScaled) {
  TempDir dir;
  const auto source = dir.file("grey.jpg");
  VipsImage* grey = nullptr;
  ASSERT_EQ(vips_colourspace(makeNoise(800, 400).get(), &grey, VIPS_INTERPRETATION_B_W, nullptr),
            0);
  auto owned = adoptImage(grey);
  ASSERT_EQ(vips_jpegsave(owned.get(), source.c_str(), nullptr), 0);
  const auto target = dir.file("avatar.jpg");
  ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
  EXPECT_EQ(sizeOf(target).width, 200);
  EXPECT_EQ(sizeOf(target).height, 100);
}

TEST(ImageUtils, RefusesAJpegWhoseHeaderClaimsTooManyPixels) {
  TempDir dir;
  const auto source = dir.file("huge.jpg");
  ASSERT_EQ(vips_jpegsave(makeNoise(64, 64).get(), source.c_str(), nullptr), 0);
  // Rewrite the frame header to claim 60000 x 60000 pixels; nothing may be decoded.
  std::string bytes;
  {
    std::ifstream in(source, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  const auto frame = bytes.find("\xFF\xC0");
  ASSERT_NE(frame, std::string::npos);
  const char claimed[] = {'\xEA', '\x60', '\xEA', '\x60'};  // 60000, big-endian, twice
  bytes.replace(frame + 5, 4, claimed, 4);
  std::ofstream(source, std::ios::binary | std::ios::trunc) << bytes;
  const auto target = dir.file("avatar.jpg");

  EXPECT_FALSE(ImageUtils::scaleImage(200, source, target));
  EXPECT_TRUE(onlyFileIn(dir.path(), "huge.jpg")) << "no temporary file left behind";
}

TEST(ImageUtils, ALinkAtTheTargetIsReplacedNotWrittenThrough) {
  TempDir dir;
  const auto jpeg = dir.file("photo.jpg");
  const auto png = dir.file("photo.png");
  ASSERT_EQ(vips_jpegsave(makeNoise(400, 300).get(), jpeg.c_str(), nullptr), 0);
  ASSERT_EQ(vips_pngsave(makeNoise(400, 300).get(), png.c_str(), nullptr), 0);
  const auto victim = dir.file("victim");
  std::ofstream(victim) << "someone else's";
  // Both the JPEG fast path and the general path write the target through a staging file.
  for (const auto& source : {jpeg, png}) {
    SCOPED_TRACE(source);
    FileUtils::makeDirectory(dir.file("out"));
    const auto target = dir.file("out/avatar.jpg");
    std::error_code error;
    std::filesystem::create_symlink(victim, target, error);
    if (error) {
      GTEST_SKIP() << "this user cannot make symbolic links";
    }
    ASSERT_TRUE(ImageUtils::scaleImage(200, source, target));
    EXPECT_FALSE(std::filesystem::is_symlink(target));
    EXPECT_TRUE(isJpeg(target));
    std::ifstream in(victim);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "someone else's");
    EXPECT_TRUE(onlyFileIn(dir.file("out"), "avatar.jpg")) << "no staging file left behind";
    std::filesystem::remove_all(dir.file("out"));
  }
}
