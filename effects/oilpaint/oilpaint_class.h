// Instance data of OilPaintEffectRaw (after the superclass's engine object) and
// the filling of its parameter block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "effects/oilpaint/oilpaint_kernels.h"
#include "imaging/raw_bitmap.h"
#include "plugin/host_types.h"

struct OilPaintData {
  REALobject mask;    // held with one lock, or nil
  float smoothness;   // 0.04 .. 1.0
  uint8_t brushSize;  // 1 .. 5
};
static_assert(offsetof(OilPaintData, mask) == 0);
static_assert(offsetof(OilPaintData, smoothness) == 8);
static_assert(offsetof(OilPaintData, brushSize) == 12);
static_assert(sizeof(OilPaintData) == 16);

namespace rawfx::oilpaint {

// The effect's fields of the block for a run over bitmap; the head is left to
// the engine. The settings must have passed Apply's checks.
void PrepareParams(const OilPaintData& data, const RawBitmap& bitmap, OilPaintParams& params);

}  // namespace rawfx::oilpaint
