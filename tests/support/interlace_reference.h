// The plain interlace kernels: every destination byte of the effect is defined
// by these. They decide, fill, mix and copy one pixel and one channel at a time,
// strictly left to right, and serve as the expected result of the fast kernels
// in effects/interlace and as the yardstick of the benchmarks.
#pragma once

#include "effects/interlace/interlace_kernels.h"

namespace rawfx::reference {

// Part functions over an MPParamBlock whose params is an InterlaceParams.
extern const PartFunction InterlacePart, InterlaceMaskPart, InterlacePart16, InterlaceMaskPart16;

}  // namespace rawfx::reference
