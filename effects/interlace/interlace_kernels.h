// The interlace effect's parameter block and its four part functions.
//
// A part replaces every other row and/or every other pixel of its rows with the
// background colour (optionally mixed with the source under a mask) and copies
// the rest. The row and column phases are countdowns local to one part call:
// phase 1 fills and becomes 2, any other value copies and decreases by one, so
// 1 fills the first, third ... rows (pixels), 2 the second, fourth ..., and 0
// never fills.
//
// Preconditions set by the class before a run: the source pixel has at most 8
// channels (one per entry of channelValues), and the engine has filled the head.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imaging/color_order.h"
#include "imaging/mp_filter.h"

struct InterlaceParams {
  GenericMPParams head;          // 0: filled by the engine
  int64_t horizontalType;        // 88: start of the row phase
  int64_t verticalType;          // 96: start of the column phase
  int32_t channelValues[8];      // 104: background colour in the source's channel order
  uint8_t interlaceAlpha;        // 136: nonzero: alpha is filled like the colour channels
};
static_assert(offsetof(InterlaceParams, horizontalType) == 88);
static_assert(offsetof(InterlaceParams, verticalType) == 96);
static_assert(offsetof(InterlaceParams, channelValues) == 104);
static_assert(offsetof(InterlaceParams, interlaceAlpha) == 136);
static_assert(sizeof(InterlaceParams::channelValues) / sizeof(int32_t) == kMaxChannels);

// The phase values of HorizontalInterlaceType and VerticalInterlaceType.
inline constexpr int64_t kInterlaceNone = 0;
inline constexpr int64_t kInterlaceOdd = 1;
inline constexpr int64_t kInterlaceEven = 2;

// Part functions: block is an MPParamBlock whose params is an InterlaceParams.
// 8-bit parts walk srcPixelBytes / dstPixelBytes per pixel and bytesPerPixel
// channels; 16-bit parts walk channelCount samples of the source / destination.
// The mask variants need head.maskData. All work in place and return nil.
void* InterlacePart(void* block);
void* InterlaceMaskPart(void* block);
void* InterlacePart16(void* block);
void* InterlaceMaskPart16(void* block);
