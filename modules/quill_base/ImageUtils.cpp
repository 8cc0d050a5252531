#include <quill_base/ImageUtils.h>

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>

#include "detail/JpegThumbnail.h"

#include <vips/vips.h>

#include <cstdint>
#include <mutex>
#include <vector>

namespace {

bool initialiseVips() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] {
    if (VIPS_INIT("quill_base") != 0) {
      QLOG_ERROR("libvips failed to start: " << vips_error_buffer());
      vips_error_clear();
      return;
    }
    // Avatars are rewritten under the same names; a cached operation could answer with old pixels.
    vips_cache_set_max(0);
    ready = true;
  });
  return ready;
}

// Owns one VipsImage reference.
class ImageRef {
public:
  ImageRef() = default;
  ImageRef(const ImageRef&) = delete;
  ImageRef& operator=(const ImageRef&) = delete;
  ~ImageRef() {
    if (image != nullptr) {
      g_object_unref(image);
    }
  }
  VipsImage** out() { return &image; }
  VipsImage* get() const { return image; }

private:
  VipsImage* image = nullptr;
};

std::string takeVipsError() {
  std::string text = vips_error_buffer();
  vips_error_clear();
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

// Sources larger than this are refused before any pixel is decoded: some decoders (GIF among them)
// allocate the whole canvas a file's header claims, so a few hundred bytes could ask for gigabytes.
constexpr std::uint64_t kMaxSourcePixels = 100'000'000;

// Reads the header only; true when the image's dimensions are within kMaxSourcePixels.
bool sourceSizeAcceptable(const std::string& source) {
  ImageRef header;
  *header.out() =
      vips_image_new_from_file(source.c_str(), "access", VIPS_ACCESS_SEQUENTIAL, nullptr);
  if (header.get() == nullptr) {
    return true;  // unreadable: vips_thumbnail reports why
  }
  const auto pixels = static_cast<std::uint64_t>(vips_image_get_width(header.get())) *
                      static_cast<std::uint64_t>(vips_image_get_height(header.get()));
  if (pixels > kMaxSourcePixels) {
    QLOG_WARN("image too large to scale: " << source << " (" << vips_image_get_width(header.get())
                                           << "x" << vips_image_get_height(header.get()) << ")");
    return false;
  }
  return true;
}

// The scaled image is written beside its target and renamed over it: readers see the old file or
// the new one, never half of one.
bool moveIntoPlace(const std::string& staging, const std::string& target) {
  if (!FileUtils::moveFile(staging, target)) {
    QLOG_WARN("cannot move scaled image to " << target);
    FileUtils::removeFile(staging);
    return false;
  }
  return true;
}

}  // namespace

bool ImageUtils::scaleImage(int size, const std::string& source, const std::string& target) {
  if (size < 1 || source.empty() || target.empty() || !FileUtils::fileExists(source) ||
      !initialiseVips()) {
    return false;
  }

  // Most avatars are plain JPEGs: they take the fast path, everything else the general one.
  const std::string staging = target + ".part-" + TextUtils::UUID_String();
  switch (quill_base_detail::writeJpegThumbnail(size, source, staging, kMaxSourcePixels)) {
    case quill_base_detail::JpegThumbnailResult::kWritten:
      return moveIntoPlace(staging, target);
    case quill_base_detail::JpegThumbnailResult::kTooLarge:
      QLOG_WARN("image too large to scale: " << source);
      return false;
    case quill_base_detail::JpegThumbnailResult::kNotHandled:
      FileUtils::removeFile(staging);
      break;
  }

  if (!sourceSizeAcceptable(source)) {
    vips_error_clear();
    return false;
  }

  // Shrink-on-load, orientation and colour management all happen inside vips_thumbnail; a
  // truncated file must fail rather than come out with a grey lower half.
  ImageRef thumbnail;
  if (vips_thumbnail(source.c_str(), thumbnail.out(), size, "height", size, "fail_on",
                     VIPS_FAIL_ON_TRUNCATED, nullptr) != 0) {
    QLOG_WARN("cannot read image " << source << ": " << takeVipsError());
    return false;
  }

  VipsImage* opaque = thumbnail.get();
  ImageRef flattened;
  if (vips_image_hasalpha(opaque)) {
    const bool sixteenBit =
        opaque->Type == VIPS_INTERPRETATION_RGB16 || opaque->Type == VIPS_INTERPRETATION_GREY16;
    const double maxAlpha = sixteenBit ? 65535.0 : 255.0;
    std::vector<double> white(static_cast<std::size_t>(opaque->Bands - 1), maxAlpha);
    VipsArrayDouble* background =
        vips_array_double_new(white.data(), static_cast<int>(white.size()));
    const int failed = vips_flatten(opaque, flattened.out(), "background", background, "max_alpha",
                                    maxAlpha, nullptr);
    vips_area_unref(VIPS_AREA(background));
    if (failed != 0) {
      QLOG_WARN("cannot flatten image " << source << ": " << takeVipsError());
      return false;
    }
    opaque = flattened.get();
  }

  if (vips_jpegsave(opaque, staging.c_str(), "Q", 85, "strip", TRUE, nullptr) != 0) {
    QLOG_WARN("cannot scale image " << source << " to " << target << ": " << takeVipsError());
    FileUtils::removeFile(staging);
    return false;
  }
  return moveIntoPlace(staging, target);
}
