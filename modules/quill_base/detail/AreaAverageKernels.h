#pragma once

#include <cstddef>
#include <cstdint>

namespace quill_base_detail {

// The inner loops of AreaAverage: summing a source row down into 16-bit row sums, and averaging
// finished row sums across into target pixels. Each has a plain C++ form and, on x86, SSE2 and AVX2
// forms chosen once by what the processor offers; all compute the same integers, so the results
// are the same to the bit whichever runs.

// Weights are fixed point; the taps of one position add up to exactly one. Down the rows they
// have 8 fraction bits, so that a row summed down (at most 255 << 8) fits 16 bits and the loop
// runs on 16-bit lanes; across, 14 bits, which on top of the 8 still fits 32 bits.
constexpr int kRowWeightBits = 8;
constexpr int kColumnWeightBits = 14;
constexpr int kResultShift = kRowWeightBits + kColumnWeightBits;

// into[i] += weight * row[i] for the `count` bytes of the row (in 16-bit arithmetic).
void sumDown(std::uint16_t* into, const unsigned char* row, std::uint16_t weight,
             std::size_t count);

// One target row of `width` pixels of `channels` (1, 3 or 4) from row sums: pixel x is the sum of
// `span` taps from in[start[x]] on, weighted by weights[x * span + k]. `lanes` (four channels
// only; may be null otherwise) holds the same weights as AreaAverage lays them out for SIMD:
// by pairs of taps, each weight repeated for the four channels.
void averageAcross(const std::uint16_t* in, const int* start, const std::uint32_t* weights,
                   const std::uint16_t* lanes, int span, int channels, unsigned char* out,
                   int width);

// Whether the AVX2 forms may run where the processor has AVX2 (the default). For tests, which
// compare them with the others on one machine.
void allowWideVectors(bool allowed);

}  // namespace quill_base_detail
