// The plain oil paint kernels: every destination byte of the effect is defined
// by these. They gather the whole neighbourhood of every pixel, computing each
// neighbour's bin anew, and scan every bin per pixel; they serve as the
// expected result of the fast kernels in effects/oilpaint and as the yardstick
// of the benchmarks.
#pragma once

#include "effects/oilpaint/oilpaint_kernels.h"

namespace rawfx::reference {

// Part functions over an MPParamBlock whose params is an OilPaintParams.
extern const PartFunction OilPaintPart8bit, OilPaintMaskPart8bit;

}  // namespace rawfx::reference
