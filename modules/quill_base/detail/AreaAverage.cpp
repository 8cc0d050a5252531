#include "AreaAverage.h"

#include <algorithm>
#include <cmath>

namespace quill_base_detail {
namespace {

// Weights are fixed point; the taps of one position add up to exactly one. Down the rows they
// have 8 fraction bits, so that a row summed down (at most 255 << 8) fits 16 bits and the loop
// runs on 16-bit lanes; across, 14 bits, which on top of the 8 still fits 32 bits.
constexpr int kRowWeightBits = 8;
constexpr int kColumnWeightBits = 14;
constexpr int kResultShift = kRowWeightBits + kColumnWeightBits;

#if defined(_MSC_VER)
#define QUILL_RESTRICT __restrict
#else
#define QUILL_RESTRICT __restrict__
#endif

// One target row averaged across. Span is the number of taps of every position: a constant for
// the common spans, so that the inner loops unroll, and 0 for any other (then given as `span`).
// The byte stores to `out` could alias anything as far as the compiler knows; restrict tells it
// they do not.
template <int Channels, int Span>
void averageAcross(const std::uint16_t* QUILL_RESTRICT in, const int* QUILL_RESTRICT start,
                   const std::uint32_t* QUILL_RESTRICT weights, int span,
                   unsigned char* QUILL_RESTRICT out, int width) {
  const int taps = Span > 0 ? Span : span;
  for (int x = 0; x < width; ++x) {
    std::uint32_t sum[Channels] = {};
    const std::uint16_t* pixel = in + static_cast<std::size_t>(start[x]) * Channels;
    const std::uint32_t* weight = weights + static_cast<std::size_t>(x) * taps;
    for (int k = 0; k < taps; ++k) {
      for (int c = 0; c < Channels; ++c) {
        sum[c] += weight[k] * pixel[k * Channels + c];
      }
    }
    for (int c = 0; c < Channels; ++c) {
      const std::uint32_t value = (sum[c] + (1u << (kResultShift - 1))) >> kResultShift;
      out[x * Channels + c] = static_cast<unsigned char>(std::min<std::uint32_t>(value, 255));
    }
  }
}

template <int Channels>
void averageAcross(const std::uint16_t* in, const int* start, const std::uint32_t* weights,
                   int span, unsigned char* out, int width) {
  switch (span) {
    case 2:
      return averageAcross<Channels, 2>(in, start, weights, span, out, width);
    case 3:
      return averageAcross<Channels, 3>(in, start, weights, span, out, width);
    case 4:
      return averageAcross<Channels, 4>(in, start, weights, span, out, width);
    default:
      return averageAcross<Channels, 0>(in, start, weights, span, out, width);
  }
}

}  // namespace

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

AreaAverage::AreaAverage(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight,
                         int channels)
    : targetWidth(targetWidth),
      targetHeight(targetHeight),
      channels(channels),
      sourceStride(static_cast<std::size_t>(sourceWidth) * channels),
      columns(tapsFor(sourceWidth, targetWidth, kColumnWeightBits)),
      rows(tapsFor(sourceHeight, targetHeight, kRowWeightBits)),
      target(static_cast<std::size_t>(targetWidth) * targetHeight * channels) {
  // Padding: the last positions may read up to span taps past their start; it stays zero.
  for (auto& row : sums) {
    row.assign(sourceStride + static_cast<std::size_t>(columns.span) * channels, 0);
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
    std::uint16_t* into = sums[y & 1].data();
    for (std::size_t i = 0; i < sourceStride; ++i) {
      into[i] = static_cast<std::uint16_t>(into[i] + weight * row[i]);
    }
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
  if (channels == 3) {
    averageAcross<3>(rowSums.data(), columns.start.data(), columns.weights.data(), columns.span,
                     out, targetWidth);
  } else {
    averageAcross<1>(rowSums.data(), columns.start.data(), columns.weights.data(), columns.span,
                     out, targetWidth);
  }
  std::fill(rowSums.begin(), rowSums.begin() + static_cast<std::ptrdiff_t>(sourceStride), 0);
}

}  // namespace quill_base_detail
