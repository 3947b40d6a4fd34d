// The polar coordinates effect's parameter block, its coordinate mapping and
// its two part functions.
//
// The mapping turns a destination pixel (column x, row y) into a position in
// the source bitmap, either wrapping a rectangular picture around the centre
// (rectangular to polar) or unrolling a polar picture (polar to rectangular).
// The part functions sample the source bilinearly at that position and write
// the background colour where the position falls outside the source.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imaging/mp_filter.h"

// Geometry and options of one run. The class fills the options; each part
// function fills the geometry (width .. centerY) in its own copy.
struct PolarizeSettings {
  double roundness;            // 0: percent; 100 keeps the radius the same in every direction
  uint8_t flipMapping;         // 8: nonzero: angles run clockwise across the columns
  uint8_t centerAtTop;         // 9: nonzero: row 0 lies at the centre
  uint8_t rectangularToPolar;  // 10: nonzero: rectangular to polar, zero: polar to rectangular
  double angleOffset;          // 16: radians added to every angle
  int32_t width;               // 24
  int32_t height;              // 28
  double centerX;              // 32: (width - 1) * 0.5
  double centerY;              // 40: (height - 1) * 0.5
};
static_assert(offsetof(PolarizeSettings, flipMapping) == 8);
static_assert(offsetof(PolarizeSettings, centerAtTop) == 9);
static_assert(offsetof(PolarizeSettings, rectangularToPolar) == 10);
static_assert(offsetof(PolarizeSettings, angleOffset) == 16);
static_assert(offsetof(PolarizeSettings, width) == 24);
static_assert(offsetof(PolarizeSettings, height) == 28);
static_assert(offsetof(PolarizeSettings, centerX) == 32);
static_assert(offsetof(PolarizeSettings, centerY) == 40);
static_assert(sizeof(PolarizeSettings) == 48);

struct PolarCoordinatesParams {
  GenericMPParams head;         // 0: filled by the engine
  PolarizeSettings settings;    // 88
  uint8_t backColor8[8];        // 136: background samples in the source's channel order
  uint16_t backColor16[8];      // 144: the same for 16-bit sources
};
static_assert(offsetof(PolarCoordinatesParams, settings) == 88);
static_assert(offsetof(PolarCoordinatesParams, backColor8) == 136);
static_assert(offsetof(PolarCoordinatesParams, backColor16) == 144);
static_assert(sizeof(PolarCoordinatesParams) == 160);

// Maps destination pixel (x, y) to its unrounded source position. Returns
// false, leaving both out-arguments untouched, when the position lies outside
// the source (including non-finite positions). Pure: safe on any thread.
bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings);

// Part functions: block is an MPParamBlock whose params is a
// PolarCoordinatesParams. The 8-bit part reads srcPixelBytes samples per pixel,
// the 16-bit part srcPixelBytes / 2. Both set done and return nil.
void* PolarCoordinatesPart(void* block);
void* PolarCoordinatesPart16(void* block);
