#include "JpegThumbnail.h"

#include "AreaAverage.h"

#include <quill_base/FileUtils.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <jpeglib.h>

namespace quill_base_detail {
namespace {

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
  int targetWidth = 0;
  int targetHeight = 0;
  int channels = 0;
};

// Decodes at the smallest DCT scale whose size still covers the target, feeding each row to the
// averager as it comes: the full-size picture is never held.
JpegThumbnailResult decode(const std::vector<unsigned char>& bytes, int size,
                           std::uint64_t maxPixels, Plan& plan,
                           std::unique_ptr<AreaAverage>& averager,
                           std::vector<unsigned char>& rowBuffer) {
  jpeg_decompress_struct decoder;
  ErrorManager errors;
  decoder.err = &errors.base;
  useErrorManager(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_decompress(&decoder);
    return JpegThumbnailResult::kNotHandled;
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
  plan.targetWidth =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(width) * scale)), 1, size);
  plan.targetHeight =
      std::clamp(static_cast<int>(std::lround(static_cast<double>(height) * scale)), 1, size);
  plan.channels = grey ? 1 : 3;
  decoder.scale_num = 8;
  decoder.scale_denom = 8;
  // Only the 1/8, 1/4, 1/2 and full-size inverse DCTs are vectorised in libjpeg-turbo; the others
  // cost more than decoding a little larger.
  for (unsigned eighths : {1u, 2u, 4u}) {
    const auto scaledWidth = (width * eighths + 7) / 8;
    const auto scaledHeight = (height * eighths + 7) / 8;
    if (scaledWidth >= static_cast<std::uint64_t>(plan.targetWidth) &&
        scaledHeight >= static_cast<std::uint64_t>(plan.targetHeight)) {
      decoder.scale_num = eighths;
      break;
    }
  }
  decoder.out_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
  // The pixels are averaged down afterwards, which hides the small differences of the fast DCT
  // and of plain chroma upsampling.
  decoder.dct_method = JDCT_IFAST;
  decoder.do_fancy_upsampling = FALSE;
  jpeg_start_decompress(&decoder);
  const int decodedWidth = static_cast<int>(decoder.output_width);
  const int decodedHeight = static_cast<int>(decoder.output_height);
  averager = std::make_unique<AreaAverage>(decodedWidth, decodedHeight, plan.targetWidth,
                                           plan.targetHeight, plan.channels);
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
  // A truncated or damaged stream is only warned about (and padded with grey): leave it to the
  // general path, which refuses it with a reason.
  const bool clean = errors.base.num_warnings == 0;
  jpeg_destroy_decompress(&decoder);
  return clean ? JpegThumbnailResult::kWritten : JpegThumbnailResult::kNotHandled;
}

// Compresses into `output`, which holds room for any picture of this size: libjpeg then never
// reallocates it (a reallocation would be lost on a longjmp).
bool encode(const std::vector<unsigned char>& pixels, const Plan& plan,
            std::vector<unsigned char>& output, unsigned long& outputSize) {
  jpeg_compress_struct encoder;
  ErrorManager errors;
  encoder.err = &errors.base;
  useErrorManager(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_compress(&encoder);
    return false;
  }
  jpeg_create_compress(&encoder);
  encoder.image_width = static_cast<JDIMENSION>(plan.targetWidth);
  encoder.image_height = static_cast<JDIMENSION>(plan.targetHeight);
  encoder.input_components = plan.channels;
  encoder.in_color_space = plan.channels == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&encoder);
  jpeg_set_quality(&encoder, kQuality, TRUE);
  unsigned char* buffer = output.data();
  outputSize = static_cast<unsigned long>(output.size());
  jpeg_mem_dest(&encoder, &buffer, &outputSize);
  jpeg_start_compress(&encoder, TRUE);
  const std::size_t stride = static_cast<std::size_t>(plan.targetWidth) * plan.channels;
  while (encoder.next_scanline < encoder.image_height) {
    auto row = const_cast<JSAMPROW>(pixels.data() + stride * encoder.next_scanline);
    jpeg_write_scanlines(&encoder, &row, 1);
  }
  jpeg_finish_compress(&encoder);
  jpeg_destroy_compress(&encoder);
  // Had it outgrown the room, libjpeg would have moved it to a buffer of its own.
  if (buffer != output.data()) {
    std::free(buffer);
    return false;
  }
  return true;
}

}  // namespace

JpegThumbnailResult writeJpegThumbnail(int size, const std::string& source,
                                       const std::string& target, std::uint64_t maxPixels) {
  Scratch& scratch = threadScratch();
  const ScratchTrim trim(scratch);
  if (size < 1 || !readJpeg(source, scratch.bytes)) {
    return JpegThumbnailResult::kNotHandled;
  }
  Plan plan;
  std::unique_ptr<AreaAverage> averager;
  const auto decoded = decode(scratch.bytes, size, maxPixels, plan, averager, scratch.rows);
  if (decoded != JpegThumbnailResult::kWritten) {
    return decoded;
  }
  // Far more than a compressed picture of this size can take.
  scratch.output.resize(
      static_cast<std::size_t>(plan.targetWidth) * plan.targetHeight * plan.channels * 2 + 65536);
  unsigned long outputSize = 0;
  if (!encode(averager->pixels(), plan, scratch.output, outputSize) ||
      !FileUtils::writeNewFile(target, scratch.output.data(), outputSize)) {
    return JpegThumbnailResult::kNotHandled;
  }
  return JpegThumbnailResult::kWritten;
}

}  // namespace quill_base_detail
