// The plain polar coordinates kernels: every destination byte of the effect is
// defined by these. They evaluate the full mapping for every pixel, literally and
// in the written order of operations, and serve as the expected result of the
// fast kernels in effects/polar and as the yardstick of the benchmarks.
#pragma once

#include "effects/polar/polar_kernels.h"

namespace rawfx::reference {

// Maps destination pixel (x, y) to its unrounded source position. Returns
// false, leaving both out-arguments untouched, when the position lies outside
// the source (including non-finite positions).
bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings);

// Part functions over an MPParamBlock whose params is a PolarCoordinatesParams;
// they ignore any column table of the block.
extern const PartFunction PolarCoordinatesPart, PolarCoordinatesPart16;

}  // namespace rawfx::reference
