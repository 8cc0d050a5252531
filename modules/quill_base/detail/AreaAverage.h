#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quill_base_detail {

// Shrinks an 8-bit interleaved image by area averaging, one source row at a time, so that the
// whole source never has to be held: memory is two rows of the source and the target itself.
// Rows are first summed down (16-bit lanes, a loop the compiler vectorises), then each finished
// target row is averaged across. Integer arithmetic throughout, with fixed-point weights that add
// up exactly, so that a flat colour stays exactly that colour.
//
// Channels are 1 (grey), 3 (RGB) or 4 (RGB plus a padding byte, as libjpeg-turbo decodes to
// RGBX): with four, a pixel fills 64 bits and is averaged across with SIMD (AreaAverageKernels).
class AreaAverage {
public:
  // The target must not be larger than the source in either direction.
  AreaAverage(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight, int channels);

  // Feeds the next source row (sourceWidth * channels bytes, top to bottom).
  void addRow(const unsigned char* row);

  // The target, targetWidth * targetHeight * channels bytes; complete once every source row has
  // been added.
  const std::vector<unsigned char>& pixels() const { return target; }

private:
  // The source positions that each target position covers: start to last, as `span` consecutive
  // taps from start (padded with zero weights where a position covers fewer).
  struct Taps {
    int span = 0;
    std::vector<int> start;
    std::vector<int> last;
    std::vector<std::uint32_t> weights;  // span per target position
  };
  // For four channels: the weights of each position by pairs of taps, every weight repeated
  // for the four channels (8 lanes of 16 bits per pair), ready to multiply two pixels at once.
  static std::vector<std::uint16_t> lanesFor(const Taps& taps);
  static Taps tapsFor(int sourceLength, int targetLength, int weightBits);

  void finishRow(int targetRow, std::vector<std::uint16_t>& sums);

  int targetWidth;
  int targetHeight;
  int channels;
  std::size_t sourceStride;
  Taps columns;
  Taps rows;
  std::vector<std::uint16_t> columnLanes;
  int nextSourceRow = 0;
  int nextTargetRow = 0;
  // Target rows nextTargetRow and the one after, summed down at full width, plus zero padding.
  std::vector<std::uint16_t> sums[2];
  std::vector<unsigned char> target;
};

}  // namespace quill_base_detail
