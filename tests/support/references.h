// The plain reference kernels: every destination byte of the four effects is
// defined by these. They work on one pixel and one channel at a time, literally
// and in the written order of operations (the polar and barrel mappings
// evaluated in full for every pixel, every oil paint neighbourhood gathered
// anew), and serve as the expected result of the fast kernels in effects/ and
// as the yardstick of the benchmarks.
#pragma once

#include "effects/barrel/barrel_kernels.h"
#include "effects/interlace/interlace_kernels.h"
#include "effects/oilpaint/oilpaint_kernels.h"
#include "effects/polar/polar_kernels.h"

namespace rawfx::reference {

// An effect's part functions by depth (8, 16 bits) and variant: plain, then
// masked (interlace, oil paint) or bilinear (barrel). Where an effect has one
// depth or one variant, the table repeats it. Each takes an MPParamBlock whose
// params is the effect's block; polar ignores any column table of the block.
using PartTable = PartFunction[2][2];
extern const PartTable kInterlaceParts, kPolarParts, kBarrelParts, kOilPaintParts;

// Maps destination pixel (x, y) to its unrounded source position. Returns
// false, leaving both out-arguments untouched, when the position lies outside
// the source (including non-finite positions).
bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings);

// The part's rows in order, one progress step after each, stopping after the
// row during which a cancel was requested.
template <class Row>
void ForEachRow(const MPParamBlock& part, GenericMPParams& head, Row row) {
  int32_t y = part.firstRow;
  while (y < part.endRow) {
    row(y);
    ++y;
    if (!FinishRow(head)) return;
  }
}

}  // namespace rawfx::reference
