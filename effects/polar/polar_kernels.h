// The polar coordinates effect's parameter block, its coordinate mapping and
// its two part functions.
//
// The mapping turns a destination pixel (column x, row y) into a position in
// the source bitmap, either wrapping a rectangular picture around the centre
// (rectangular to polar) or unrolling a polar picture (polar to rectangular).
// The part functions sample the source bilinearly at that position and write
// the background colour where the position falls outside the source.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "imaging/mp_filter.h"

namespace rawfx::polar {

// The angle constants of the mapping, exactly these doubles: their last bits
// decide the results.
inline constexpr double kHalfPi = 1.5707963267948966;
inline constexpr double kPi = 3.141592653589793;
inline constexpr double kThreeHalfPi = 4.71238898038469;
inline constexpr double kTwoPi = 6.283185307179586;

// Samples a pixel may have: the entries of the background arrays.
inline constexpr int kMaxSamples = 8;

}  // namespace rawfx::polar

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

// The polar-to-rectangular mapping of one destination column: everything but
// the row's share of the radius, so a run can work it out once per column
// instead of once per pixel (it costs a tangent, a sine and a cosine).
struct PolarColumn {
  double xStep;   // +-sin of the folded angle, signed as the column's quadrant moves sx
  double yStep;   // +-cos of the folded angle, signed as the column's quadrant moves sy
  double radius;  // the polar radius R along the column's angle
};

// The columns of one polar-to-rectangular run, made before the run in memory
// the effect owns for it. The header records what the columns were made for:
// a part uses them only when that matches its own geometry and options, and
// otherwise maps every pixel in full. After it come the columns' three values
// as three arrays of `stride` doubles (the width rounded up to a whole lane
// group, the last column repeated), so lanes of columns load side by side.
struct PolarColumnTable {
  int32_t width;
  int32_t height;
  double roundness;
  double angleOffset;
  uint8_t flipMapping;  // 0 or 1
  int32_t stride;
  const double* XSteps() const { return reinterpret_cast<const double*>(this + 1); }
  const double* YSteps() const { return XSteps() + stride; }
  const double* Radii() const { return YSteps() + stride; }
};
static_assert(sizeof(PolarColumnTable) % alignof(double) == 0);

// Rectangular to polar, the four pixels mirrored about both centre lines,
// (x, y), (W - 1 - x, y), (x, H - 1 - y) and (W - 1 - x, H - 1 - y), have
// offsets from the centre that are the same exact doubles up to sign:
// cx = (W - 1) * 0.5 and cy are multiples of 0.5, so x - cx and
// cx - (W - 1 - x) are one exact value, and likewise cy - y and
// (H - 1 - y) - cy. The mapping feeds those offsets only into the atan
// argument, the distance, the border's slope (through fabs) and so the radius
// and source row: all four share them bit for bit, and only the angle's
// quadrant formula differs. A pixel and its mirror in the same row share them
// within the row; a row and its mirror about the centre row share the atans,
// the costly part, through the run's ray table.
//
// The ray table of one rectangular-to-polar run, made before the run in memory
// the effect owns for it. Each row above the centre and its mirror below have
// one row of angles, atan(u / along) for the row's pairs of columns (`stride`
// doubles, the pairs right of the centre rounded up to a whole lane group), and
// one state: whichever of the two rows a part maps first claims the angles,
// fills them and marks them ready; the other reads them when they are ready,
// and otherwise works its own out. Nothing waits, and the values are the same
// either way, so the result does not depend on which part runs when.
struct PolarRayTable {
  int32_t width;
  int32_t height;
  int32_t stride;
  int32_t rowPairs;  // the rows above the centre
  enum State : uint8_t { kFree, kClaimed, kReady };
  // The states, one byte a row pair, padded so that the angles after them lie on doubles.
  static constexpr size_t StatesBytes(size_t rowPairs) { return (rowPairs + 7) / 8 * 8; }
  std::atomic<uint8_t>* States() { return reinterpret_cast<std::atomic<uint8_t>*>(this + 1); }
  double* Angles(int32_t rowPair) {
    return reinterpret_cast<double*>(reinterpret_cast<std::byte*>(States()) + StatesBytes(rowPairs)) +
           static_cast<size_t>(rowPair) * static_cast<size_t>(stride);
  }
};
static_assert(sizeof(PolarRayTable) % alignof(double) == 0);
static_assert(sizeof(std::atomic<uint8_t>) == 1 && std::atomic<uint8_t>::is_always_lock_free);

struct PolarCoordinatesParams {
  GenericMPParams head;         // 0: filled by the engine
  PolarizeSettings settings;    // 88
  uint8_t backColor8[8];        // 136: background samples in the source's channel order
  uint16_t backColor16[8];      // 144: the same for 16-bit sources
  const PolarColumnTable* columnTable;  // 160: nil, or the run's columns (only read)
  PolarRayTable* rayTable;              // 168: nil, or the run's rays (the parts fill and read it)
};
static_assert(offsetof(PolarCoordinatesParams, settings) == 88);
static_assert(offsetof(PolarCoordinatesParams, backColor8) == 136);
static_assert(offsetof(PolarCoordinatesParams, backColor16) == 144);
static_assert(offsetof(PolarCoordinatesParams, columnTable) == 160);
static_assert(offsetof(PolarCoordinatesParams, rayTable) == 168);
static_assert(sizeof(PolarCoordinatesParams) == 176);

// True when the parts can address every pixel of a width x height source of
// pixelBytes per pixel with unpadded rows: they form row and column offsets as
// 32-bit products. (Padding that pushes the offsets past 32 bits shows only in
// the run's head; the parts then write the background and read nothing.)
bool PolarSourceAddressable(int64_t width, int64_t height, int64_t pixelBytes);

// Bytes of a column table for a width x height bitmap (header included); 0 when
// a run takes none (a width outside 1 .. 2^20, a height outside 1 .. the
// largest int32).
size_t PolarColumnTableBytes(int64_t width, int64_t height);

// Makes the column table of a polar-to-rectangular run over a width x height
// bitmap with the options of settings, in storage of
// PolarColumnTableBytes(width, height) bytes aligned for a double, and returns it.
const PolarColumnTable* MakePolarColumnTable(void* storage, const PolarizeSettings& settings, int32_t width,
                                             int32_t height);

// Bytes of a ray table for a width x height bitmap (header included); 0 when a
// run takes none (fewer than two rows, or a size outside what a column table
// takes).
size_t PolarRayTableBytes(int64_t width, int64_t height);

// Makes the ray table of a rectangular-to-polar run over a width x height
// bitmap, every row pair free, in storage of PolarRayTableBytes(width, height)
// bytes aligned for a double, and returns it.
PolarRayTable* MakePolarRayTable(void* storage, int32_t width, int32_t height);

// Bytes of the table that a run over a width x height source of pixelBytes a
// pixel takes, 0 for none. Polar to rectangular takes the column table, whose
// per-column work (a tangent, a sine and a cosine) it saves on every row.
// Rectangular to polar takes the ray table, which halves its atans, when the
// parts can address the source (else they read nothing) and the table takes
// no more memory than the source's pixels (it takes about two bytes a pixel).
size_t PolarRunTableBytes(int64_t width, int64_t height, int64_t pixelBytes, bool toPolar);

// Maps destination pixel (x, y) to its unrounded source position. Returns
// false, leaving both out-arguments untouched, when the position lies outside
// the source (including non-finite positions). Pure: safe on any thread.
bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings);

// Part functions: block is an MPParamBlock whose params is a
// PolarCoordinatesParams. The 8-bit part reads srcPixelBytes samples per pixel,
// the 16-bit part srcPixelBytes / 2. Both set done and return nil. The source
// and the destination must be different bitmaps whose pixels do not overlap
// (the destination step holds at least the samples written), as the engine's
// new result bitmap of the source's format always is: the parts may write the
// pixels of a row in any order.
void* PolarCoordinatesPart(void* block);
void* PolarCoordinatesPart16(void* block);
