#include "AreaAverage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define QUILL_AREA_AVERAGE_SSE2 1
#endif

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

#if defined(QUILL_AREA_AVERAGE_SSE2)
// Four channels, two taps a step: eight 16-bit sums (two pixels) times their eight weights,
// widened to 32 bits from the low and high halves of the products, both taps added in. The same
// integer arithmetic as the scalar loop, so the results are the same to the bit.
void averageAcrossFourChannels(const std::uint16_t* in, const int* start,
                               const std::uint16_t* lanes, int pairs, unsigned char* out,
                               int width) {
  const __m128i rounding = _mm_set1_epi32(1 << (kResultShift - 1));
  for (int x = 0; x < width; ++x) {
    const std::uint16_t* pixel = in + static_cast<std::size_t>(start[x]) * 4;
    const std::uint16_t* weight = lanes + static_cast<std::size_t>(x) * pairs * 8;
    __m128i sum = rounding;
    for (int p = 0; p < pairs; ++p) {
      const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixel + p * 8));
      const __m128i weights = _mm_loadu_si128(reinterpret_cast<const __m128i*>(weight + p * 8));
      const __m128i low = _mm_mullo_epi16(values, weights);
      const __m128i high = _mm_mulhi_epu16(values, weights);
      sum = _mm_add_epi32(sum, _mm_unpacklo_epi16(low, high));
      sum = _mm_add_epi32(sum, _mm_unpackhi_epi16(low, high));
    }
    // At most 255 by then (the weights add up to one): the saturating packs change nothing.
    const __m128i values = _mm_srli_epi32(sum, kResultShift);
    const __m128i words = _mm_packs_epi32(values, values);
    const int packed = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
    std::memcpy(out + static_cast<std::size_t>(x) * 4, &packed, 4);
  }
}
#endif

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
#if defined(QUILL_AREA_AVERAGE_SSE2)
  if (channels == 4) {
    columnLanes = lanesFor(columns);
  }
#endif
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
  if (channels == 4) {
#if defined(QUILL_AREA_AVERAGE_SSE2)
    averageAcrossFourChannels(rowSums.data(), columns.start.data(), columnLanes.data(),
                              (columns.span + 1) / 2, out, targetWidth);
#else
    averageAcross<4>(rowSums.data(), columns.start.data(), columns.weights.data(), columns.span,
                     out, targetWidth);
#endif
  } else if (channels == 3) {
    averageAcross<3>(rowSums.data(), columns.start.data(), columns.weights.data(), columns.span,
                     out, targetWidth);
  } else {
    averageAcross<1>(rowSums.data(), columns.start.data(), columns.weights.data(), columns.span,
                     out, targetWidth);
  }
  std::fill(rowSums.begin(), rowSums.begin() + static_cast<std::ptrdiff_t>(sourceStride), 0);
}

}  // namespace quill_base_detail
