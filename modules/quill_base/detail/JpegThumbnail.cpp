#include "JpegThumbnail.h"

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <jpeglib.h>

namespace quill_base_detail {
namespace {

constexpr int kChannels = 3;
constexpr int kQuality = 85;

// libjpeg reports fatal errors through error_exit, which must not return: jump back to the caller
// instead of letting the default handler end the process. Warnings are counted, never printed.
struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

void onFatalError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void onMessage(j_common_ptr info, int level) {
  if (level < 0) {
    info->err->num_warnings += 1;
  }
}

void useErrorManager(ErrorManager& errors) {
  jpeg_std_error(&errors.base);
  errors.base.error_exit = onFatalError;
  errors.base.emit_message = onMessage;
}

class File {
public:
  File(const std::string& path, const char* mode) : handle(std::fopen(path.c_str(), mode)) {}
  ~File() { close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  std::FILE* get() const { return handle; }
  bool close() {
    const bool ok = handle == nullptr || std::fclose(handle) == 0;
    handle = nullptr;
    return ok;
  }

private:
  std::FILE* handle;
};

struct Pixels {
  int width = 0;
  int height = 0;
  // Left uninitialised: the decoder fills every byte.
  std::unique_ptr<unsigned char[]> rgb;
};

bool startsWith(const jpeg_saved_marker_ptr marker, const char* prefix, std::size_t length) {
  return marker->data_length >= length && std::memcmp(marker->data, prefix, length) == 0;
}

// The orientation tag (0x0112) of an EXIF block's first image directory; 1 (upright) when the block
// has none, 0 when the block cannot be read.
int exifOrientation(const unsigned char* data, std::size_t length) {
  // "Exif\0\0", then a TIFF header: byte order, 42, offset of the first directory.
  const unsigned char* tiff = data + 6;
  const std::size_t size = length - 6;
  if (size < 8) {
    return 0;
  }
  const bool little = tiff[0] == 'I' && tiff[1] == 'I';
  if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) {
    return 0;
  }
  auto read16 = [&](std::size_t at) -> unsigned {
    return little ? tiff[at] | (tiff[at + 1] << 8) : (tiff[at] << 8) | tiff[at + 1];
  };
  auto read32 = [&](std::size_t at) -> std::size_t {
    return little ? read16(at) | (static_cast<std::size_t>(read16(at + 2)) << 16)
                  : (static_cast<std::size_t>(read16(at)) << 16) | read16(at + 2);
  };
  const std::size_t directory = read32(4);
  if (directory > size - 2) {
    return 0;
  }
  const unsigned entries = read16(directory);
  for (unsigned i = 0; i < entries; ++i) {
    const std::size_t entry = directory + 2 + static_cast<std::size_t>(i) * 12;
    if (entry > size - 12) {
      return 0;
    }
    if (read16(entry) == 0x0112) {
      return static_cast<int>(read16(entry + 8));
    }
  }
  return 1;
}

// Markers that change how the pixels must be read: an ICC profile, or an EXIF orientation other
// than upright.
bool needsColourOrOrientationWork(j_decompress_ptr decoder) {
  for (auto marker = decoder->marker_list; marker != nullptr; marker = marker->next) {
    if (marker->marker == JPEG_APP0 + 1 && startsWith(marker, "Exif\0\0", 6) &&
        exifOrientation(marker->data, marker->data_length) != 1) {
      return true;
    }
    if (marker->marker == JPEG_APP0 + 2 && startsWith(marker, "ICC_PROFILE\0", 12)) {
      return true;
    }
  }
  return false;
}

// Decodes at the smallest DCT scale whose size still covers target width x height.
JpegThumbnailResult decode(std::FILE* file, int size, std::uint64_t maxPixels, Pixels& pixels,
                           int& targetWidth, int& targetHeight) {
  jpeg_decompress_struct decoder;
  ErrorManager errors;
  decoder.err = &errors.base;
  useErrorManager(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_decompress(&decoder);
    return JpegThumbnailResult::kNotHandled;
  }
  jpeg_create_decompress(&decoder);
  jpeg_stdio_src(&decoder, file);
  jpeg_save_markers(&decoder, JPEG_APP0 + 1, 0xFFFF);
  jpeg_save_markers(&decoder, JPEG_APP0 + 2, 0xFFFF);
  jpeg_read_header(&decoder, TRUE);

  const auto width = static_cast<std::uint64_t>(decoder.image_width);
  const auto height = static_cast<std::uint64_t>(decoder.image_height);
  const bool plainColours = decoder.jpeg_color_space == JCS_YCbCr ||
                            decoder.jpeg_color_space == JCS_GRAYSCALE ||
                            decoder.jpeg_color_space == JCS_RGB;
  JpegThumbnailResult verdict = JpegThumbnailResult::kWritten;
  if (width * height > maxPixels) {
    verdict = JpegThumbnailResult::kTooLarge;
  } else if (!plainColours || needsColourOrOrientationWork(&decoder) || width == 0 || height == 0 ||
             (width <= static_cast<std::uint64_t>(size) &&
              height <= static_cast<std::uint64_t>(size))) {
    verdict = JpegThumbnailResult::kNotHandled;
  }
  if (verdict != JpegThumbnailResult::kWritten) {
    jpeg_destroy_decompress(&decoder);
    return verdict;
  }

  const double scale = std::min(static_cast<double>(size) / static_cast<double>(width),
                                static_cast<double>(size) / static_cast<double>(height));
  targetWidth =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(width) * scale)), 1, size);
  targetHeight =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(height) * scale)), 1, size);
  decoder.scale_num = 8;
  decoder.scale_denom = 8;
  // Only the 1/8, 1/4, 1/2 and full-size inverse DCTs are vectorised in libjpeg-turbo; the others
  // cost more than decoding a little larger.
  for (unsigned eighths : {1u, 2u, 4u}) {
    const auto scaledWidth = (width * eighths + 7) / 8;
    const auto scaledHeight = (height * eighths + 7) / 8;
    if (scaledWidth >= static_cast<std::uint64_t>(targetWidth) &&
        scaledHeight >= static_cast<std::uint64_t>(targetHeight)) {
      decoder.scale_num = eighths;
      break;
    }
  }
  decoder.out_color_space = JCS_RGB;
  // The pixels are averaged down afterwards, which hides the small differences of the fast DCT
  // and of plain chroma upsampling.
  decoder.dct_method = JDCT_IFAST;
  decoder.do_fancy_upsampling = FALSE;
  jpeg_start_decompress(&decoder);
  pixels.width = static_cast<int>(decoder.output_width);
  pixels.height = static_cast<int>(decoder.output_height);
  const std::size_t stride = static_cast<std::size_t>(pixels.width) * kChannels;
  pixels.rgb.reset(new unsigned char[stride * static_cast<std::size_t>(pixels.height)]);
  while (decoder.output_scanline < decoder.output_height) {
    JSAMPROW row = pixels.rgb.get() + stride * decoder.output_scanline;
    jpeg_read_scanlines(&decoder, &row, 1);
  }
  jpeg_finish_decompress(&decoder);
  // A truncated or damaged stream is only warned about (and padded with grey): leave it to the
  // general path, which refuses it with a reason.
  const bool clean = errors.base.num_warnings == 0;
  jpeg_destroy_decompress(&decoder);
  return clean ? JpegThumbnailResult::kWritten : JpegThumbnailResult::kNotHandled;
}

// For each output position, the source positions it covers and their share of it (area average).
struct Span {
  int first = 0;
  std::vector<float> weights;
};

std::vector<Span> spansFor(int sourceLength, int targetLength) {
  std::vector<Span> spans(static_cast<std::size_t>(targetLength));
  const double ratio = static_cast<double>(sourceLength) / targetLength;
  for (int i = 0; i < targetLength; ++i) {
    const double begin = i * ratio;
    const double end = std::min<double>(sourceLength, (i + 1) * ratio);
    auto& span = spans[static_cast<std::size_t>(i)];
    span.first = static_cast<int>(std::floor(begin));
    const int last = std::min(sourceLength, static_cast<int>(std::ceil(end)));
    for (int j = span.first; j < last; ++j) {
      const double covered = std::min<double>(end, j + 1) - std::max<double>(begin, j);
      span.weights.push_back(static_cast<float>(std::max(0.0, covered) / (end - begin)));
    }
  }
  return spans;
}

std::vector<unsigned char> averageDown(const Pixels& source, int width, int height) {
  const auto columns = spansFor(source.width, width);
  const auto rows = spansFor(source.height, height);
  const std::size_t sourceStride = static_cast<std::size_t>(source.width) * kChannels;
  std::vector<unsigned char> result(static_cast<std::size_t>(width) * height * kChannels);
  // Each output row: the source rows it covers, averaged into one row, then averaged across.
  std::vector<float> row(sourceStride);
  for (int y = 0; y < height; ++y) {
    const auto& rowSpan = rows[static_cast<std::size_t>(y)];
    std::fill(row.begin(), row.end(), 0.0f);
    for (std::size_t k = 0; k < rowSpan.weights.size(); ++k) {
      const float weight = rowSpan.weights[k];
      const unsigned char* in =
          source.rgb.get() + (static_cast<std::size_t>(rowSpan.first) + k) * sourceStride;
      for (std::size_t i = 0; i < sourceStride; ++i) {
        row[i] += weight * static_cast<float>(in[i]);
      }
    }
    unsigned char* out = result.data() + static_cast<std::size_t>(y) * width * kChannels;
    for (int x = 0; x < width; ++x) {
      const auto& span = columns[static_cast<std::size_t>(x)];
      float sum[kChannels] = {0, 0, 0};
      const float* pixel = row.data() + static_cast<std::size_t>(span.first) * kChannels;
      for (const float weight : span.weights) {
        for (int c = 0; c < kChannels; ++c) {
          sum[c] += weight * pixel[c];
        }
        pixel += kChannels;
      }
      for (int c = 0; c < kChannels; ++c) {
        // The weights add up to 1: the sum is within 0..255 but for rounding.
        out[x * kChannels + c] = static_cast<unsigned char>(std::min(255.0f, sum[c] + 0.5f));
      }
    }
  }
  return result;
}

bool encode(std::FILE* file, const std::vector<unsigned char>& rgb, int width, int height) {
  jpeg_compress_struct encoder;
  ErrorManager errors;
  encoder.err = &errors.base;
  useErrorManager(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_compress(&encoder);
    return false;
  }
  jpeg_create_compress(&encoder);
  jpeg_stdio_dest(&encoder, file);
  encoder.image_width = static_cast<JDIMENSION>(width);
  encoder.image_height = static_cast<JDIMENSION>(height);
  encoder.input_components = kChannels;
  encoder.in_color_space = JCS_RGB;
  jpeg_set_defaults(&encoder);
  jpeg_set_quality(&encoder, kQuality, TRUE);
  jpeg_start_compress(&encoder, TRUE);
  const std::size_t stride = static_cast<std::size_t>(width) * kChannels;
  while (encoder.next_scanline < encoder.image_height) {
    auto row = const_cast<JSAMPROW>(rgb.data() + stride * encoder.next_scanline);
    jpeg_write_scanlines(&encoder, &row, 1);
  }
  jpeg_finish_compress(&encoder);
  jpeg_destroy_compress(&encoder);
  return true;
}

bool looksLikeJpeg(std::FILE* file) {
  unsigned char magic[3] = {};
  const bool jpeg = std::fread(magic, 1, 3, file) == 3 && magic[0] == 0xFF && magic[1] == 0xD8 &&
                    magic[2] == 0xFF;
  std::rewind(file);
  return jpeg;
}

}  // namespace

JpegThumbnailResult writeJpegThumbnail(int size, const std::string& source,
                                       const std::string& target, std::uint64_t maxPixels) {
  File in(source, "rb");
  if (in.get() == nullptr || size < 1 || !looksLikeJpeg(in.get())) {
    return JpegThumbnailResult::kNotHandled;
  }
  Pixels pixels;
  int width = 0;
  int height = 0;
  const auto decoded = decode(in.get(), size, maxPixels, pixels, width, height);
  if (decoded != JpegThumbnailResult::kWritten) {
    return decoded;
  }
  in.close();
  const auto thumbnail = averageDown(pixels, width, height);
  File out(target, "wb");
  if (out.get() == nullptr || !encode(out.get(), thumbnail, width, height) || !out.close()) {
    return JpegThumbnailResult::kNotHandled;
  }
  return JpegThumbnailResult::kWritten;
}

}  // namespace quill_base_detail
