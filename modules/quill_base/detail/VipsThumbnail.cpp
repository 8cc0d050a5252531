#include "GeneralThumbnail.h"

#include "VipsLibrary.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

namespace quill_base_detail {
namespace {

// Owns one VipsImage reference.
class ImageRef {
public:
  explicit ImageRef(const VipsLibrary& vips) : vips(vips) {}
  ImageRef(const ImageRef&) = delete;
  ImageRef& operator=(const ImageRef&) = delete;
  ~ImageRef() {
    if (image != nullptr) {
      vips.objectUnref(image);
    }
  }
  VipsImage** out() { return &image; }
  VipsImage* get() const { return image; }

private:
  const VipsLibrary& vips;
  VipsImage* image = nullptr;
};

std::string takeVipsError(const VipsLibrary& vips) {
  std::string text = vips.errorBuffer();
  vips.errorClear();
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

// Reads the header only; true when the image's dimensions are within maxPixels.
bool sourceSizeAcceptable(const VipsLibrary& vips, const std::string& source,
                          std::uint64_t maxPixels) {
  ImageRef header(vips);
  *header.out() = vips.imageNewFromFile(source.c_str(), "access", VIPS_ACCESS_SEQUENTIAL, nullptr);
  if (header.get() == nullptr) {
    return true;  // unreadable: vips_thumbnail reports why
  }
  const int width = vips.imageGetWidth(header.get());
  const int height = vips.imageGetHeight(header.get());
  const auto pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  if (pixels > maxPixels) {
    QLOG_WARN("image too large to scale: " << source << " (" << width << "x" << height << ")");
    return false;
  }
  return true;
}

}  // namespace

bool writeGeneralThumbnail(int size, const std::string& source, const std::string& staging,
                           std::uint64_t maxPixels) {
  // Only now is libvips needed (and loaded, the first time).
  const VipsLibrary* loaded = quill_base_detail::vipsLibrary();
  if (loaded == nullptr) {
    return false;
  }
  const VipsLibrary& vips = *loaded;
  if (!sourceSizeAcceptable(vips, source, maxPixels)) {
    vips.errorClear();
    return false;
  }

  // Shrink-on-load, orientation and colour management all happen inside vips_thumbnail; a
  // truncated file must fail rather than come out with a grey lower half.
  ImageRef thumbnail(vips);
  if (vips.thumbnail(source.c_str(), thumbnail.out(), size, "height", size, "fail_on",
                     VIPS_FAIL_ON_TRUNCATED, nullptr) != 0) {
    QLOG_WARN("cannot read image " << source << ": " << takeVipsError(vips));
    return false;
  }

  VipsImage* opaque = thumbnail.get();
  ImageRef flattened(vips);
  if (vips.imageHasAlpha(opaque)) {
    const bool sixteenBit =
        opaque->Type == VIPS_INTERPRETATION_RGB16 || opaque->Type == VIPS_INTERPRETATION_GREY16;
    const double maxAlpha = sixteenBit ? 65535.0 : 255.0;
    std::vector<double> white(static_cast<std::size_t>(opaque->Bands - 1), maxAlpha);
    VipsArrayDouble* background = vips.arrayDoubleNew(white.data(), static_cast<int>(white.size()));
    const int failed = vips.flatten(opaque, flattened.out(), "background", background, "max_alpha",
                                    maxAlpha, nullptr);
    vips.areaUnref(VIPS_AREA(background));
    if (failed != 0) {
      QLOG_WARN("cannot flatten image " << source << ": " << takeVipsError(vips));
      return false;
    }
    opaque = flattened.get();
  }

  // Encoded to memory and written by us: the staging file is created exclusively, never through a
  // link someone planted at its name.
  void* encoded = nullptr;
  size_t encodedSize = 0;
  if (vips.jpegsaveBuffer(opaque, &encoded, &encodedSize, "Q", 85, "strip", TRUE, nullptr) != 0) {
    QLOG_WARN("cannot scale image " << source << ": " << takeVipsError(vips));
    return false;
  }
  const bool written = FileUtils::writeNewFile(staging, encoded, encodedSize);
  vips.free(encoded);
  if (!written) {
    QLOG_WARN("cannot write the scaled image " << staging << ": " << std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace quill_base_detail
