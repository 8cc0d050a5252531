#include "JpegThumbnail.h"

#include "AreaAverage.h"
#include "ExifOrientation.h"
#include "JpegErrors.h"
#include "JpegWriter.h"
#include "PixelOperations.h"

#include <quill_base/FileUtils.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <jpeglib.h>

namespace quill_base_detail {
namespace {

// The whole source, read with one call when its first bytes are a JPEG's: avatars are small, and
// decoding from memory spares libjpeg's 4 KiB reads. Anything else is left unread for the general
// path.
bool readJpeg(const std::string& path, std::vector<unsigned char>& bytes) {
  std::FILE* file = FileUtils::openFile(path, "rb");
  if (file == nullptr) {
    return false;
  }
  unsigned char magic[3] = {};
  bool ok = std::fread(magic, 1, 3, file) == 3 && magic[0] == 0xFF && magic[1] == 0xD8 &&
            magic[2] == 0xFF && std::fseek(file, 0, SEEK_END) == 0;
  const long size = ok ? std::ftell(file) : -1;
  ok = size > 0 && std::fseek(file, 0, SEEK_SET) == 0;
  if (ok) {
    bytes.resize(static_cast<std::size_t>(size));
    ok = std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
  }
  std::fclose(file);
  return ok;
}

bool startsWith(const jpeg_saved_marker_ptr marker, const char* prefix, std::size_t length) {
  return marker->data_length >= length && std::memcmp(marker->data, prefix, length) == 0;
}

// What the markers say about reading the pixels: the EXIF orientation (1 when there is none) and
// whether an ICC profile is embedded.
struct Markers {
  int orientation = 1;
  bool colourProfile = false;
};

Markers readMarkers(j_decompress_ptr decoder) {
  Markers markers;
  for (auto marker = decoder->marker_list; marker != nullptr; marker = marker->next) {
    if (marker->marker == JPEG_APP0 + 1 && startsWith(marker, "Exif\0\0", 6)) {
      markers.orientation = exifOrientation(marker->data, marker->data_length);
    }
    if (marker->marker == JPEG_APP0 + 2 && startsWith(marker, "ICC_PROFILE\0", 12)) {
      markers.colourProfile = true;
    }
  }
  return markers;
}

// Buffers each thread keeps between calls: avatars are scaled one after another on a few
// long-lived threads, and fresh buffers of a few hundred KiB every time cost clearing and page
// faults (glibc maps blocks that large afresh for each allocation).
struct Scratch {
  std::vector<unsigned char> bytes;   // the source file
  std::vector<unsigned char> rows;    // decoded rows on their way to the averager
  std::vector<unsigned char> output;  // the compressed thumbnail
};

Scratch& threadScratch() {
  thread_local Scratch scratch;
  return scratch;
}

// After a call on a large picture, its buffers are given back rather than kept.
class ScratchTrim {
public:
  explicit ScratchTrim(Scratch& scratch) : scratch(scratch) {}
  ScratchTrim(const ScratchTrim&) = delete;
  ScratchTrim& operator=(const ScratchTrim&) = delete;
  ~ScratchTrim() {
    for (auto* buffer : {&scratch.bytes, &scratch.rows, &scratch.output}) {
      if (buffer->capacity() > kKeptScratchBytes) {
        std::vector<unsigned char>().swap(*buffer);
      }
    }
  }

private:
  static constexpr std::size_t kKeptScratchBytes = 1024 * 1024;
  Scratch& scratch;
};

// What the header said and what the decode chose, kept by the caller: nothing here may own memory
// across libjpeg's longjmp.
struct Plan {
  // The size as stored (before the orientation is applied) that the averager produces.
  int storedWidth = 0;
  int storedHeight = 0;
  // Larger than the stored size when a small picture is enlarged afterwards.
  int enlargedWidth = 0;
  int enlargedHeight = 0;
  int channels = 0;
  int orientation = 1;
};

// Decodes at the smallest DCT scale whose size still covers the target, feeding each row to the
// averager as it comes: the full-size picture is never held.
JpegThumbnailResult decode(const std::vector<unsigned char>& bytes, int size,
                           std::uint64_t maxPixels, JpegThumbnailOptions options, Plan& plan,
                           std::unique_ptr<AreaAverage>& averager,
                           std::vector<unsigned char>& rowBuffer) {
  jpeg_decompress_struct decoder;
  JpegErrors errors;
  decoder.err = useJpegErrors(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_decompress(&decoder);
    return JpegThumbnailResult::kDamaged;
  }
  jpeg_create_decompress(&decoder);
  jpeg_mem_src(&decoder, bytes.data(), static_cast<unsigned long>(bytes.size()));
  jpeg_save_markers(&decoder, JPEG_APP0 + 1, 0xFFFF);
  jpeg_save_markers(&decoder, JPEG_APP0 + 2, 0xFFFF);
  jpeg_read_header(&decoder, TRUE);

  const auto width = static_cast<std::uint64_t>(decoder.image_width);
  const auto height = static_cast<std::uint64_t>(decoder.image_height);
  const bool grey = decoder.jpeg_color_space == JCS_GRAYSCALE;
  const bool plainColours =
      decoder.jpeg_color_space == JCS_YCbCr || grey || decoder.jpeg_color_space == JCS_RGB;
  const Markers markers = readMarkers(&decoder);
  const bool smallerThanBox =
      width <= static_cast<std::uint64_t>(size) && height <= static_cast<std::uint64_t>(size);
  JpegThumbnailResult verdict = JpegThumbnailResult::kWritten;
  if (width * height > maxPixels) {
    verdict = JpegThumbnailResult::kTooLarge;
  } else if (!plainColours || width == 0 || height == 0) {
    verdict = JpegThumbnailResult::kNotHandled;
  } else if (!options.complete &&
             (markers.orientation != 1 || markers.colourProfile || smallerThanBox)) {
    verdict = JpegThumbnailResult::kNotHandled;
  }
  if (verdict != JpegThumbnailResult::kWritten) {
    jpeg_destroy_decompress(&decoder);
    return verdict;
  }

  // The box is fitted to the picture as it is shown; the decode works on it as it is stored.
  plan.orientation = markers.orientation;
  const bool turned = swapsSides(plan.orientation);
  const Dimensions shown = turned ? fitWithin(size, height, width) : fitWithin(size, width, height);
  const int targetWidth = turned ? shown.height : shown.width;
  const int targetHeight = turned ? shown.width : shown.height;
  const bool enlarging = static_cast<std::uint64_t>(targetWidth) > width ||
                         static_cast<std::uint64_t>(targetHeight) > height;
  plan.storedWidth = enlarging ? static_cast<int>(width) : targetWidth;
  plan.storedHeight = enlarging ? static_cast<int>(height) : targetHeight;
  plan.enlargedWidth = enlarging ? targetWidth : plan.storedWidth;
  plan.enlargedHeight = enlarging ? targetHeight : plan.storedHeight;
  // Colour is decoded as RGBX: a pixel is then 64 bits in the averager, which averages it across
  // with SIMD, and the encoder takes the padded pixels as they are.
  plan.channels = grey ? 1 : 4;
  decoder.scale_num = 8;
  decoder.scale_denom = 8;
  // Only the 1/8, 1/4, 1/2 and full-size inverse DCTs are vectorised in libjpeg-turbo; the others
  // cost more than decoding a little larger.
  for (unsigned eighths : {1u, 2u, 4u}) {
    const auto scaledWidth = (width * eighths + 7) / 8;
    const auto scaledHeight = (height * eighths + 7) / 8;
    if (scaledWidth >= static_cast<std::uint64_t>(plan.storedWidth) &&
        scaledHeight >= static_cast<std::uint64_t>(plan.storedHeight)) {
      decoder.scale_num = eighths;
      break;
    }
  }
  decoder.out_color_space = grey ? JCS_GRAYSCALE : JCS_EXT_RGBX;
  // The pixels are averaged down afterwards, which hides the small differences of the fast DCT
  // and of plain chroma upsampling.
  decoder.dct_method = JDCT_IFAST;
  decoder.do_fancy_upsampling = FALSE;
  jpeg_start_decompress(&decoder);
  const int decodedWidth = static_cast<int>(decoder.output_width);
  const int decodedHeight = static_cast<int>(decoder.output_height);
  averager = std::make_unique<AreaAverage>(decodedWidth, decodedHeight, plan.storedWidth,
                                           plan.storedHeight, plan.channels);
  // As many rows at a time as the decoder produces in one go (one iMCU row of a scaled decode).
  const int batch = std::max(1, decoder.rec_outbuf_height);
  const std::size_t stride = static_cast<std::size_t>(decodedWidth) * plan.channels;
  rowBuffer.resize(stride * static_cast<std::size_t>(batch));
  JSAMPROW rows[16];
  for (int i = 0; i < batch && i < 16; ++i) {
    rows[i] = rowBuffer.data() + stride * static_cast<std::size_t>(i);
  }
  while (decoder.output_scanline < decoder.output_height) {
    const auto got =
        jpeg_read_scanlines(&decoder, rows, static_cast<JDIMENSION>(std::min(batch, 16)));
    for (JDIMENSION i = 0; i < got; ++i) {
      averager->addRow(rows[i]);
    }
  }
  jpeg_finish_decompress(&decoder);
  // A truncated or damaged stream is only warned about (and padded with grey): never stored.
  const bool clean = errors.base.num_warnings == 0;
  jpeg_destroy_decompress(&decoder);
  return clean ? JpegThumbnailResult::kWritten : JpegThumbnailResult::kDamaged;
}

}  // namespace

JpegThumbnailResult writeJpegThumbnail(int size, const std::string& source,
                                       const std::string& target, std::uint64_t maxPixels,
                                       JpegThumbnailOptions options) {
  Scratch& scratch = threadScratch();
  const ScratchTrim trim(scratch);
  if (size < 1 || !readJpeg(source, scratch.bytes)) {
    return JpegThumbnailResult::kNotHandled;
  }
  Plan plan;
  std::unique_ptr<AreaAverage> averager;
  const auto decoded =
      decode(scratch.bytes, size, maxPixels, options, plan, averager, scratch.rows);
  if (decoded != JpegThumbnailResult::kWritten) {
    return decoded;
  }
  const std::vector<unsigned char>* pixels = &averager->pixels();
  int width = plan.storedWidth;
  int height = plan.storedHeight;
  Picture finished;
  if (plan.orientation != 1 || plan.enlargedWidth != plan.storedWidth ||
      plan.enlargedHeight != plan.storedHeight) {
    finished = Picture{plan.storedWidth, plan.storedHeight, plan.channels, averager->pixels()};
    if (plan.enlargedWidth != plan.storedWidth || plan.enlargedHeight != plan.storedHeight) {
      finished = enlarge(finished, plan.enlargedWidth, plan.enlargedHeight);
    }
    finished = applyOrientation(std::move(finished), plan.orientation);
    pixels = &finished.pixels;
    width = finished.width;
    height = finished.height;
  }
  std::size_t outputSize = 0;
  if (!compressJpeg(pixels->data(), width, height, plan.channels, scratch.output, outputSize) ||
      !FileUtils::writeNewFile(target, scratch.output.data(), outputSize)) {
    return JpegThumbnailResult::kNotHandled;
  }
  return JpegThumbnailResult::kWritten;
}

}  // namespace quill_base_detail
