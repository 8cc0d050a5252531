#include "AreaAverageKernels.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define QUILL_AREA_AVERAGE_SSE2 1
#endif

// AVX2 is compiled for chosen functions only (GCC and Clang's target attribute) and run only when
// the processor has it: the library itself targets plain x86-64.
#if defined(QUILL_AREA_AVERAGE_SSE2) && (defined(__GNUC__) || defined(__clang__)) && \
    (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define QUILL_AREA_AVERAGE_AVX2 1
#define QUILL_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace quill_base_detail {
namespace {

#if defined(_MSC_VER)
#define QUILL_RESTRICT __restrict
#else
#define QUILL_RESTRICT __restrict__
#endif

std::atomic<bool> wideVectorsAllowed{true};

bool useAvx2() {
#if defined(QUILL_AREA_AVERAGE_AVX2)
  static const bool present = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return present && wideVectorsAllowed.load(std::memory_order_relaxed);
#else
  return false;
#endif
}

// --- Down: a source row into the row sums ------------------------------------------------------

void sumDownPlain(std::uint16_t* QUILL_RESTRICT into, const unsigned char* QUILL_RESTRICT row,
                  std::uint16_t weight, std::size_t from, std::size_t count) {
  for (std::size_t i = from; i < count; ++i) {
    into[i] = static_cast<std::uint16_t>(into[i] + weight * row[i]);
  }
}

#if defined(QUILL_AREA_AVERAGE_SSE2)
// Sixteen bytes a step, widened to two times eight 16-bit lanes.
void sumDownSse2(std::uint16_t* into, const unsigned char* row, std::uint16_t weight,
                 std::size_t count) {
  const __m128i weights = _mm_set1_epi16(static_cast<short>(weight));
  const __m128i zero = _mm_setzero_si128();
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + i));
    auto* sums = reinterpret_cast<__m128i*>(into + i);
    const __m128i low = _mm_mullo_epi16(_mm_unpacklo_epi8(bytes, zero), weights);
    const __m128i high = _mm_mullo_epi16(_mm_unpackhi_epi8(bytes, zero), weights);
    _mm_storeu_si128(sums, _mm_add_epi16(_mm_loadu_si128(sums), low));
    _mm_storeu_si128(sums + 1, _mm_add_epi16(_mm_loadu_si128(sums + 1), high));
  }
  sumDownPlain(into, row, weight, i, count);
}
#endif

#if defined(QUILL_AREA_AVERAGE_AVX2)
// Thirty-two bytes a step.
QUILL_TARGET_AVX2 void sumDownAvx2(std::uint16_t* into, const unsigned char* row,
                                   std::uint16_t weight, std::size_t count) {
  const __m256i weights = _mm256_set1_epi16(static_cast<short>(weight));
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + i));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + i + 16));
    auto* sums = reinterpret_cast<__m256i*>(into + i);
    const __m256i lowSums = _mm256_mullo_epi16(_mm256_cvtepu8_epi16(low), weights);
    const __m256i highSums = _mm256_mullo_epi16(_mm256_cvtepu8_epi16(high), weights);
    _mm256_storeu_si256(sums, _mm256_add_epi16(_mm256_loadu_si256(sums), lowSums));
    _mm256_storeu_si256(sums + 1, _mm256_add_epi16(_mm256_loadu_si256(sums + 1), highSums));
  }
  sumDownPlain(into, row, weight, i, count);
}
#endif

// --- Across: row sums into target pixels --------------------------------------------------------

// Span is the number of taps of every position: a constant for the common spans, so that the inner
// loops unroll, and 0 for any other (then given as `span`). The byte stores to `out` could alias
// anything as far as the compiler knows; restrict tells it they do not.
template <int Channels, int Span>
void acrossPlain(const std::uint16_t* QUILL_RESTRICT in, const int* QUILL_RESTRICT start,
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
void acrossPlain(const std::uint16_t* in, const int* start, const std::uint32_t* weights, int span,
                 unsigned char* out, int width) {
  switch (span) {
    case 2:
      return acrossPlain<Channels, 2>(in, start, weights, span, out, width);
    case 3:
      return acrossPlain<Channels, 3>(in, start, weights, span, out, width);
    case 4:
      return acrossPlain<Channels, 4>(in, start, weights, span, out, width);
    default:
      return acrossPlain<Channels, 0>(in, start, weights, span, out, width);
  }
}

#if defined(QUILL_AREA_AVERAGE_SSE2)
// Four channels, two taps a step: eight 16-bit sums (two pixels) times their eight weights,
// widened to 32 bits from the low and high halves of the products, both taps added in. The same
// integer arithmetic as the plain loop. Pairs is a constant for the common counts of tap pairs (the
// loop over them then unrolls), 0 for any other.
template <int Pairs>
struct AcrossFourSse2 {
  static void run(const std::uint16_t* in, const int* start, const std::uint16_t* lanes,
                  int pairsGiven, unsigned char* out, int width) {
    const int pairs = Pairs > 0 ? Pairs : pairsGiven;
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
};
#endif

#if defined(QUILL_AREA_AVERAGE_AVX2)
// As AcrossFourSse2, two target pixels a step: each 128-bit half of the registers holds one.
template <int Pairs>
struct AcrossFourAvx2 {
  QUILL_TARGET_AVX2 static void run(const std::uint16_t* in, const int* start,
                                    const std::uint16_t* lanes, int pairsGiven, unsigned char* out,
                                    int width) {
    const int pairs = Pairs > 0 ? Pairs : pairsGiven;
    const __m256i rounding = _mm256_set1_epi32(1 << (kResultShift - 1));
    int x = 0;
    for (; x + 2 <= width; x += 2) {
      const std::uint16_t* first = in + static_cast<std::size_t>(start[x]) * 4;
      const std::uint16_t* second = in + static_cast<std::size_t>(start[x + 1]) * 4;
      // The lanes of position x + 1 follow those of x.
      const std::uint16_t* weight = lanes + static_cast<std::size_t>(x) * pairs * 8;
      __m256i sum = rounding;
      for (int p = 0; p < pairs; ++p) {
        const __m256i values = _mm256_inserti128_si256(
            _mm256_castsi128_si256(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(first + p * 8))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(second + p * 8)), 1);
        const __m256i weights = _mm256_inserti128_si256(
            _mm256_castsi128_si256(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(weight + p * 8))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(weight + (pairs + p) * 8)), 1);
        const __m256i low = _mm256_mullo_epi16(values, weights);
        const __m256i high = _mm256_mulhi_epu16(values, weights);
        sum = _mm256_add_epi32(sum, _mm256_unpacklo_epi16(low, high));
        sum = _mm256_add_epi32(sum, _mm256_unpackhi_epi16(low, high));
      }
      // The packs work within each half: the first four bytes of each are its pixel.
      const __m256i values = _mm256_srli_epi32(sum, kResultShift);
      const __m256i words = _mm256_packs_epi32(values, values);
      const __m256i bytes = _mm256_packus_epi16(words, words);
      const int firstPixel = _mm256_cvtsi256_si32(bytes);
      const int secondPixel = _mm_cvtsi128_si32(_mm256_extracti128_si256(bytes, 1));
      std::memcpy(out + static_cast<std::size_t>(x) * 4, &firstPixel, 4);
      std::memcpy(out + static_cast<std::size_t>(x) * 4 + 4, &secondPixel, 4);
    }
    if (x < width) {
      AcrossFourSse2<Pairs>::run(in, start + x, lanes + static_cast<std::size_t>(x) * pairs * 8,
                                 pairs, out + static_cast<std::size_t>(x) * 4, width - x);
    }
  }
};
#endif

#if defined(QUILL_AREA_AVERAGE_SSE2)
// Form<Pairs>::run for the number of tap pairs: one of the unrolled ones, or the general one.
template <template <int> class Form>
void acrossFour(const std::uint16_t* in, const int* start, const std::uint16_t* lanes, int pairs,
                unsigned char* out, int width) {
  switch (pairs) {
    case 1:
      return Form<1>::run(in, start, lanes, pairs, out, width);
    case 2:
      return Form<2>::run(in, start, lanes, pairs, out, width);
    case 3:
      return Form<3>::run(in, start, lanes, pairs, out, width);
    default:
      return Form<0>::run(in, start, lanes, pairs, out, width);
  }
}
#endif

}  // namespace

void sumDown(std::uint16_t* into, const unsigned char* row, std::uint16_t weight,
             std::size_t count) {
#if defined(QUILL_AREA_AVERAGE_AVX2)
  if (useAvx2()) {
    return sumDownAvx2(into, row, weight, count);
  }
#endif
#if defined(QUILL_AREA_AVERAGE_SSE2)
  sumDownSse2(into, row, weight, count);
#else
  sumDownPlain(into, row, weight, 0, count);
#endif
}

void averageAcross(const std::uint16_t* in, const int* start, const std::uint32_t* weights,
                   const std::uint16_t* lanes, int span, int channels, unsigned char* out,
                   int width) {
  if (channels == 4) {
    const int pairs = (span + 1) / 2;
#if defined(QUILL_AREA_AVERAGE_AVX2)
    if (useAvx2()) {
      return acrossFour<AcrossFourAvx2>(in, start, lanes, pairs, out, width);
    }
#endif
#if defined(QUILL_AREA_AVERAGE_SSE2)
    return acrossFour<AcrossFourSse2>(in, start, lanes, pairs, out, width);
#else
    static_cast<void>(lanes);
    return acrossPlain<4>(in, start, weights, span, out, width);
#endif
  }
  if (channels == 3) {
    return acrossPlain<3>(in, start, weights, span, out, width);
  }
  acrossPlain<1>(in, start, weights, span, out, width);
}

void allowWideVectors(bool allowed) {
  wideVectorsAllowed.store(allowed, std::memory_order_relaxed);
}

}  // namespace quill_base_detail
