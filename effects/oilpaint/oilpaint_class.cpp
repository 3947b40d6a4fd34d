// The OilPaintEffectRaw class: an intensity-histogram oil paint filter over
// 8-bit RawBitmaps, optionally under a mask.
#include "effects/oilpaint/oilpaint_class.h"

#include <algorithm>

#include "imaging/mp_filter.h"
#include "plugin/class_definition.h"
#include "plugin/held_object.h"
#include "plugin/class_records.h"
#include "plugin/host_binding.h"

namespace {

void Constructor(REALobject self);
void Destructor(REALobject self);
REALobject GetMask(REALobject self, long long);
void SetMask(REALobject self, long long, REALobject value);
uint8_t GetBrushSize(REALobject self, long long);
void SetBrushSize(REALobject self, long long, unsigned char value);
float GetSmoothness(REALobject self, long long);
void SetSmoothness(REALobject self, long long, float value);
REALobject ApplyEffect(REALobject self, REALobject source);

using rawfx::Fn;
using rawfx::Method;
using rawfx::Property;

const ClassPropertyEntry OilPaintProperties[] = {
    Property("Mask", "RawBitmapMask", Fn(GetMask), Fn(SetMask)),
    Property("BrushSize", "UInt8", Fn(GetBrushSize), Fn(SetBrushSize)),
    Property("Smoothness", "Single", Fn(GetSmoothness), Fn(SetSmoothness)),
};

const ClassMethodEntry OilPaintMethods[] = {
    Method(Fn(ApplyEffect), "Apply(source as RawBitmap) as RawBitmap"),
};

}  // namespace

REALclassDefinition OilPaintEffectRawClass =
    rawfx::FilterClassRecord("OilPaintEffectRaw", sizeof(OilPaintData), Constructor, Destructor, rawfx::kSyncInterfaces,
                             {.properties = OilPaintProperties,
                              .propertyCount = rawfx::RowCount(OilPaintProperties),
                              .methods = OilPaintMethods,
                              .methodCount = rawfx::RowCount(OilPaintMethods)});

namespace {

constexpr uint8_t kMinBrushSize = 1;
constexpr uint8_t kMaxBrushSize = 5;
constexpr float kMinSmoothness = 0.04f;
constexpr float kMaxSmoothness = 1.0f;
constexpr int32_t kModeCode = 3;
constexpr int32_t kFormatFlags = 5;  // 8-bit sources only

OilPaintData* DataOf(REALobject self) {
  return static_cast<OilPaintData*>(REALGetClassData(self, &OilPaintEffectRawClass));
}

// ---- construction -----------------------------------------------------------

void Constructor(REALobject self) {
  OilPaintData* data = DataOf(self);
  data->mask = nullptr;
  data->brushSize = 2;
  data->smoothness = 0.4f;
}

void Destructor(REALobject self) {
  OilPaintData* data = DataOf(self);
  rawfx::ReleaseHeld(data->mask);
}

// ---- accessors --------------------------------------------------------------

// The caller gets its own lock on the mask (the host ignores a lock of nil).
REALobject GetMask(REALobject self, long long) { return rawfx::HandOut(DataOf(self)->mask); }

// A nil value removes the mask.
void SetMask(REALobject self, long long, REALobject value) { rawfx::ReplaceHeld(DataOf(self)->mask, value); }

uint8_t GetBrushSize(REALobject self, long long) { return DataOf(self)->brushSize; }

void SetBrushSize(REALobject self, long long, unsigned char value) {
  DataOf(self)->brushSize = std::clamp(value, kMinBrushSize, kMaxBrushSize);
}

float GetSmoothness(REALobject self, long long) { return DataOf(self)->smoothness; }

// The lower bound is compared in double; std::min(1.0, NaN) gives 1.0, so a
// NaN is stored as the upper bound.
void SetSmoothness(REALobject self, long long, float value) {
  const double wide = value;
  DataOf(self)->smoothness = wide < 0.04 ? kMinSmoothness : static_cast<float>(std::min(1.0, wide));
}

// ---- Apply ------------------------------------------------------------------

// Compared in single precision so that every value SetSmoothness stores passes.
bool SettingsAreValid(const OilPaintData& data) {
  return data.brushSize >= kMinBrushSize && data.brushSize <= kMaxBrushSize && data.smoothness >= kMinSmoothness &&
         data.smoothness <= kMaxSmoothness;
}

REALobject ApplyEffect(REALobject self, REALobject source) {
  OilPaintData* data = DataOf(self);
  RawBitmap* bitmap = source && SettingsAreValid(*data) ? GetRawBitmapData(source) : nullptr;
  if (!bitmap) {
    rawfx::StoreError(data, rawfx::kErrorInvalidArgument);
    return nullptr;
  }
  OilPaintParams params{};
  rawfx::oilpaint::PrepareParams(*data, *bitmap, params);
  if (bitmap->bitsPerChannel != 8) {
    rawfx::StoreError(data, rawfx::kErrorUnsupportedDepth);
    return nullptr;
  }
  MPImageFilterData* engine = rawfx::EngineOf(data);
  return engine->ops->ProcessParts(engine, &params, OilPaintPart8bit, OilPaintMaskPart8bit, bitmap, data->mask,
                                   kModeCode, kFormatFlags, rawfx::kResultFlag);
}

}  // namespace

namespace rawfx::oilpaint {

// maxLevel is multiplied in single precision: 10 for 0.04, 102 for 0.4, 255 for 1.0.
// One-channel formats read their grey at redOffset for all three colour channels.
void PrepareParams(const OilPaintData& data, const RawBitmap& bitmap, OilPaintParams& params) {
  params.brushSize = data.brushSize;
  params.smoothness = data.smoothness;
  params.maxLevel = static_cast<int16_t>(data.smoothness * 255.0f);
  const bool oneChannel = IsSingleChannelFormat(bitmap.format);
  params.redOffset = bitmap.redOffset;
  params.greenOffset = oneChannel ? bitmap.redOffset : bitmap.greenOffset;
  params.blueOffset = oneChannel ? bitmap.redOffset : bitmap.blueOffset;
}

}  // namespace rawfx::oilpaint
