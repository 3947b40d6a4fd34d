// The demo's built-in pictures, generated in code and the same on every machine:
// a sample on which a person sees at once what an effect did (gradients, a grid,
// concentric rings, coloured discs, fine texture, a grey ramp), and a round mask.
#pragma once

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {

// 8-bit RGB, width x height (both at least 16).
Image SampleImage(int64_t width, int64_t height);

// 8-bit grey: black (the effect goes through) inside a centred circle, white (the
// source is kept) outside, with a soft edge.
Image SampleMask(int64_t width, int64_t height);

}  // namespace rawfx::tool
