#include "AreaAverage.h"

#include "AreaAverageKernels.h"

#include <algorithm>
#include <cmath>

namespace quill_base_detail {

AreaAverage::Taps AreaAverage::tapsFor(int sourceLength, int targetLength, int weightBits) {
  const std::uint32_t one = 1u << weightBits;
  const double ratio = static_cast<double>(sourceLength) / targetLength;
  Taps result;
  result.span = static_cast<int>(std::ceil(ratio)) + 1;
  result.start.resize(static_cast<std::size_t>(targetLength));
  result.last.resize(static_cast<std::size_t>(targetLength));
  result.weights.assign(static_cast<std::size_t>(targetLength) * result.span, 0);
  for (int i = 0; i < targetLength; ++i) {
    const double begin = i * ratio;
    const double end = std::min<double>(sourceLength, (i + 1) * ratio);
    const int from = std::clamp(static_cast<int>(std::floor(begin)), 0, sourceLength - 1);
    const int to = std::clamp(static_cast<int>(std::ceil(end)), from + 1,
                              std::min(sourceLength, from + result.span));
    result.start[static_cast<std::size_t>(i)] = from;
    result.last[static_cast<std::size_t>(i)] = to - 1;
    std::uint32_t* weights = result.weights.data() + static_cast<std::size_t>(i) * result.span;
    std::uint32_t total = 0;
    for (int j = from; j < to; ++j) {
      const double covered =
          std::max(0.0, std::min<double>(end, j + 1) - std::max<double>(begin, j));
      weights[j - from] = static_cast<std::uint32_t>(std::lround(covered / (end - begin) * one));
      total += weights[j - from];
    }
    // Rounding may leave the sum a little off: the heaviest tap takes up the difference, so that a
    // flat colour stays exactly that colour.
    auto* heaviest = std::max_element(weights, weights + (to - from));
    *heaviest = *heaviest + one - total;
  }
  return result;
}

std::vector<std::uint16_t> AreaAverage::lanesFor(const Taps& taps) {
  const int pairs = (taps.span + 1) / 2;
  const std::size_t positions = taps.start.size();
  std::vector<std::uint16_t> lanes(positions * static_cast<std::size_t>(pairs) * 8, 0);
  for (std::size_t x = 0; x < positions; ++x) {
    for (int k = 0; k < taps.span; ++k) {
      // At most one (1 << kColumnWeightBits): fits 16 bits.
      const auto weight = static_cast<std::uint16_t>(taps.weights[x * taps.span + k]);
      std::uint16_t* lane = lanes.data() + (x * pairs + static_cast<std::size_t>(k / 2)) * 8 +
                            static_cast<std::size_t>(k % 2) * 4;
      std::fill(lane, lane + 4, weight);
    }
  }
  return lanes;
}

AreaAverage::AreaAverage(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight,
                         int channels)
    : targetWidth(targetWidth),
      targetHeight(targetHeight),
      channels(channels),
      sourceStride(static_cast<std::size_t>(sourceWidth) * channels),
      columns(tapsFor(sourceWidth, targetWidth, kColumnWeightBits)),
      rows(tapsFor(sourceHeight, targetHeight, kRowWeightBits)),
      target(static_cast<std::size_t>(targetWidth) * targetHeight * channels) {
  // Padding: the last positions may read up to span taps past their start (one more when four
  // channels are read by pairs of taps); it stays zero.
  for (auto& row : sums) {
    row.assign(sourceStride + static_cast<std::size_t>(columns.span + 1) * channels, 0);
  }
  if (channels == 4) {
    columnLanes = lanesFor(columns);
  }
}

void AreaAverage::addRow(const unsigned char* row) {
  const int sourceRow = nextSourceRow++;
  // The row counts towards every target row whose taps reach it: with a target no taller than the
  // source, the current target row and perhaps the next.
  for (int y = nextTargetRow; y < targetHeight && y <= nextTargetRow + 1; ++y) {
    const auto at = static_cast<std::size_t>(y);
    if (sourceRow < rows.start[at] || sourceRow > rows.last[at]) {
      continue;
    }
    const auto weight = static_cast<std::uint16_t>(
        rows.weights[at * static_cast<std::size_t>(rows.span) +
                     static_cast<std::size_t>(sourceRow - rows.start[at])]);
    sumDown(sums[y & 1].data(), row, weight, sourceStride);
  }
  // Target rows whose last tap this was are complete.
  while (nextTargetRow < targetHeight &&
         sourceRow >= rows.last[static_cast<std::size_t>(nextTargetRow)]) {
    finishRow(nextTargetRow, sums[nextTargetRow & 1]);
    ++nextTargetRow;
  }
}

void AreaAverage::finishRow(int targetRow, std::vector<std::uint16_t>& rowSums) {
  unsigned char* out = target.data() + static_cast<std::size_t>(targetRow) * targetWidth * channels;
  averageAcross(rowSums.data(), columns.start.data(), columns.weights.data(), columnLanes.data(),
                columns.span, channels, out, targetWidth);
  std::fill(rowSums.begin(), rowSums.begin() + static_cast<std::ptrdiff_t>(sourceStride), 0);
}

}  // namespace quill_base_detail
