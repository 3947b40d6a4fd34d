// The plain barrel distortion kernels: every destination byte of the effect is
// defined by these. They map every pixel on its own, literally and in the
// written order of operations, and serve as the expected result of the fast
// kernels in effects/barrel and as the yardstick of the benchmarks.
#pragma once

#include "effects/barrel/barrel_kernels.h"

namespace rawfx::reference {

// Part functions: block is an MPParamBlock* whose params is a BarrelDistortionParams*.
void* BarrelDistort8BitPart(void* block);
void* BarrelDistortInterpolate8BitPart(void* block);
void* BarrelDistort16BitPart(void* block);
void* BarrelDistortInterpolate16BitPart(void* block);

}  // namespace rawfx::reference
