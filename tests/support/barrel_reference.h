// The plain barrel distortion kernels: every destination byte of the effect is
// defined by these. They map every pixel on its own, literally and in the
// written order of operations, and serve as the expected result of the fast
// kernels in effects/barrel and as the yardstick of the benchmarks.
#pragma once

#include "effects/barrel/barrel_kernels.h"

namespace rawfx::reference {

// Part functions: block is an MPParamBlock* whose params is a BarrelDistortionParams*.
extern const PartFunction BarrelDistort8BitPart, BarrelDistortInterpolate8BitPart, BarrelDistort16BitPart,
    BarrelDistortInterpolate16BitPart;

}  // namespace rawfx::reference
