#include "JpegWriter.h"

#include "JpegErrors.h"

#include <cstdlib>

namespace quill_base_detail {
namespace {

constexpr int kQuality = 85;

// Compresses into `output`, which already holds room for any picture of this size: libjpeg then
// never reallocates it (a reallocation would be lost on a longjmp).
bool compressInto(const unsigned char* pixels, int width, int height, int channels,
                  std::vector<unsigned char>& output, unsigned long& outputSize) {
  jpeg_compress_struct encoder;
  JpegErrors errors;
  encoder.err = useJpegErrors(errors);
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_compress(&encoder);
    return false;
  }
  jpeg_create_compress(&encoder);
  encoder.image_width = static_cast<JDIMENSION>(width);
  encoder.image_height = static_cast<JDIMENSION>(height);
  encoder.input_components = channels;
  encoder.in_color_space = channels == 1 ? JCS_GRAYSCALE : channels == 3 ? JCS_RGB : JCS_EXT_RGBX;
  jpeg_set_defaults(&encoder);
  jpeg_set_quality(&encoder, kQuality, TRUE);
  unsigned char* buffer = output.data();
  outputSize = static_cast<unsigned long>(output.size());
  jpeg_mem_dest(&encoder, &buffer, &outputSize);
  jpeg_start_compress(&encoder, TRUE);
  const std::size_t stride = static_cast<std::size_t>(width) * static_cast<std::size_t>(channels);
  while (encoder.next_scanline < encoder.image_height) {
    auto row = const_cast<JSAMPROW>(pixels + stride * encoder.next_scanline);
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

bool compressJpeg(const unsigned char* pixels, int width, int height, int channels,
                  std::vector<unsigned char>& output, std::size_t& size) {
  if (width < 1 || height < 1 || (channels != 1 && channels != 3 && channels != 4)) {
    return false;
  }
  // Far more than a compressed picture of this size can take.
  output.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                    static_cast<std::size_t>(channels) * 2 +
                65536);
  unsigned long outputSize = 0;
  if (!compressInto(pixels, width, height, channels, output, outputSize)) {
    return false;
  }
  size = outputSize;
  return true;
}

}  // namespace quill_base_detail
