// The oil paint effect's parameter block and its two 8-bit part functions.
//
// For every destination pixel a part builds a histogram of the intensities of
// the source pixels in the square of radius brushSize around it (clipped at the
// bitmap's borders), picks the most populated intensity bin (the lowest one on
// a tie) and writes the mean colour of the pixels in that bin. The masked part
// then mixes that colour with the source pixel by the mask value.
//
// Preconditions set by the class before a run: 8 bits per channel, smoothness
// within 0.04 .. 1.0, maxLevel = smoothness * 255 (single precision,
// truncated), brushSize within 1 .. 5, and the engine has filled the head
// with a destination apart from the source (the effect always paints into a
// new bitmap, never in place).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "imaging/mp_filter.h"

struct OilPaintParams {
  GenericMPParams head;  // 0: filled by the engine
  int32_t redOffset;     // 88: byte of the channel weighted 0.3
  int32_t greenOffset;   // 92: byte of the channel weighted 0.59
  int32_t blueOffset;    // 96: byte of the channel weighted 0.11
  float smoothness;      // 100: scales an intensity down to its bin
  int16_t maxLevel;      // 104: highest bin; the histogram has maxLevel + 1 bins
  uint8_t brushSize;     // 106: radius of the neighbourhood in pixels
};
static_assert(offsetof(OilPaintParams, redOffset) == 88);
static_assert(offsetof(OilPaintParams, greenOffset) == 92);
static_assert(offsetof(OilPaintParams, blueOffset) == 96);
static_assert(offsetof(OilPaintParams, smoothness) == 100);
static_assert(offsetof(OilPaintParams, maxLevel) == 104);
static_assert(offsetof(OilPaintParams, brushSize) == 106);

// Part functions: block is an MPParamBlock whose params is an OilPaintParams.
// The unmasked part sets the block's done flag as it returns; the masked part
// needs head.maskData and leaves done alone. Both return nil.
void* OilPaintPart8bit(void* block);
void* OilPaintMaskPart8bit(void* block);

namespace rawfx::oilpaint {

// The most pixels a neighbourhood holds: the square of radius 5.
inline constexpr uint32_t kMaxNeighbours = 121;

// 2^32 / count rounded up (plus one for powers of two), for count 1 .. 121.
inline constexpr std::array<uint64_t, kMaxNeighbours + 1> kCountReciprocals = [] {
  std::array<uint64_t, kMaxNeighbours + 1> reciprocals{};
  for (uint64_t count = 1; count <= kMaxNeighbours; ++count) reciprocals[count] = (uint64_t{1} << 32) / count + 1;
  return reciprocals;
}();

// sum / count, truncated, for a neighbourhood's channel sum (at most
// 255 x count) and its count (1 .. 121), without a division: the reciprocal
// exceeds 2^32 / count by at most 1, so the product exceeds the exact
// quotient by less than 2^15 / 2^32 = 2^-17, less than the 1 / count that
// separates it from the next integer.
inline uint32_t MeanOf(uint32_t sum, uint32_t count) {
  return static_cast<uint32_t>(uint64_t{sum} * kCountReciprocals[count] >> 32);
}

}  // namespace rawfx::oilpaint
