// The InterlaceEffectRaw class: settings, their accessors and the two apply
// methods, which check the settings, prepare an InterlaceParams block and hand
// the run to the engine of the superclass.
#include <cstddef>

#include "effects/interlace/interlace_kernels.h"
#include "imaging/color_order.h"
#include "imaging/mp_filter.h"
#include "imaging/raw_bitmap.h"
#include "plugin/class_definition.h"
#include "plugin/held_object.h"
#include "plugin/class_records.h"
#include "plugin/host_binding.h"

namespace {

// The instance data. The host reads and writes interlaceAlpha itself at byte 16.
struct InterlaceData {
  int64_t horizontalType;  // 0
  int64_t verticalType;    // 8
  uint8_t interlaceAlpha;  // 16
  uint8_t pad17[7];
  REALobject backColor;    // 24: one reference held, never nil after construction
  REALobject mask;         // 32: one reference held when not nil
};
static_assert(offsetof(InterlaceData, verticalType) == 8);
static_assert(offsetof(InterlaceData, interlaceAlpha) == 16);
static_assert(offsetof(InterlaceData, backColor) == 24);
static_assert(offsetof(InterlaceData, mask) == 32);
static_assert(sizeof(InterlaceData) == 40);

void Constructor(REALobject self);
void Destructor(REALobject self);
REALobject GetMask(REALobject self, int64_t parameter);
void SetMask(REALobject self, int64_t parameter, REALobject value);
REALobject GetGenericBackColor(REALobject self, int64_t parameter);
void SetGenericBackColor(REALobject self, int64_t parameter, REALobject value);
int64_t GetHorizontalInterlaceType(REALobject self, int64_t parameter);
void SetHorizontalInterlaceType(REALobject self, int64_t parameter, int64_t value);
int64_t GetVerticalInterlaceType(REALobject self, int64_t parameter);
void SetVerticalInterlaceType(REALobject self, int64_t parameter, int64_t value);
REALobject ApplyEffect(REALobject self, REALobject source);
void ApplyEffectInPlace(REALobject self, REALobject source);

using rawfx::DirectProperty;
using rawfx::Enum;
using rawfx::Fn;
using rawfx::Method;
using rawfx::Property;

constexpr const char* kInterlaceType = "InterlaceEffectRaw.InterlaceTypeValues";

const ClassPropertyEntry InterlaceProperties[] = {
    Property("Mask", "RawBitmapMask", Fn(GetMask), Fn(SetMask)),
    Property("BackColor", "ZandoriaColors.GenericColor", Fn(GetGenericBackColor), Fn(SetGenericBackColor)),
    Property("HorizontalInterlaceType", kInterlaceType, Fn(GetHorizontalInterlaceType), Fn(SetHorizontalInterlaceType)),
    Property("VerticalInterlaceType", kInterlaceType, Fn(GetVerticalInterlaceType), Fn(SetVerticalInterlaceType)),
    DirectProperty("InterlaceAlphaChannel", "Boolean", offsetof(InterlaceData, interlaceAlpha)),
};

const ClassMethodEntry InterlaceMethods[] = {
    Method(Fn(ApplyEffect), "Apply(source as RawBitmap) as RawBitmap"),
    Method(Fn(ApplyEffectInPlace), "ApplyInPlace(source as RawBitmap)"),
};

const char* const kInterlaceTypeValues[] = {"INTERLACE_NONE = 0", "INTERLACE_ODD = 1", "INTERLACE_EVEN = 2"};

const ClassEnumEntry InterlaceEnums[] = {
    Enum("InterlaceTypeValues", kInterlaceTypeValues),
};

}  // namespace

REALclassDefinition InterlaceEffectRawClass = rawfx::FilterClassRecord(
    "InterlaceEffectRaw", sizeof(InterlaceData), Constructor, Destructor, rawfx::kSyncInterfaces,
    {InterlaceProperties, rawfx::RowCount(InterlaceProperties), InterlaceMethods, rawfx::RowCount(InterlaceMethods),
     InterlaceEnums, rawfx::RowCount(InterlaceEnums)});

namespace {

constexpr int32_t kModeCode = 2;

InterlaceData* DataOf(REALobject self) {
  return static_cast<InterlaceData*>(REALGetClassData(self, &InterlaceEffectRawClass));
}

// ---- construction ---------------------------------------------------------------

void Constructor(REALobject self) {
  InterlaceData* data = DataOf(self);
  data->mask = nullptr;
  data->interlaceAlpha = 1;
  data->backColor = NewDefaultBackColour();  // its reference belongs to the effect
}

void Destructor(REALobject self) {
  InterlaceData* data = DataOf(self);
  rawfx::ReleaseHeld(data->mask);
  rawfx::ReleaseHeld(data->backColor);
}

// ---- accessors ------------------------------------------------------------------

// Getters hand the caller its own reference (a nil mask is "locked" too).
REALobject GetMask(REALobject self, int64_t) { return rawfx::HandOut(DataOf(self)->mask); }

// A nil value removes the mask.
void SetMask(REALobject self, int64_t, REALobject value) { rawfx::ReplaceHeld(DataOf(self)->mask, value); }

REALobject GetGenericBackColor(REALobject self, int64_t) { return rawfx::HandOut(DataOf(self)->backColor); }

// A nil colour is ignored: the effect always has one to fill with.
void SetGenericBackColor(REALobject self, int64_t, REALobject value) {
  if (value) rawfx::ReplaceHeld(DataOf(self)->backColor, value);
}

// The type setters store any value; Apply refuses values outside 0..2.
int64_t GetHorizontalInterlaceType(REALobject self, int64_t) { return DataOf(self)->horizontalType; }
void SetHorizontalInterlaceType(REALobject self, int64_t, int64_t value) { DataOf(self)->horizontalType = value; }
int64_t GetVerticalInterlaceType(REALobject self, int64_t) { return DataOf(self)->verticalType; }
void SetVerticalInterlaceType(REALobject self, int64_t, int64_t value) { DataOf(self)->verticalType = value; }

// ---- apply ----------------------------------------------------------------------

// Everything the engine call needs once the checks have passed.
struct InterlaceRun {
  InterlaceParams params{};
  RawBitmap* bitmap = nullptr;
  PartFunction part = nullptr;
  PartFunction maskPart = nullptr;
  int32_t formatFlags = 0;
};

enum class Preparation { Refused, NothingToDo, Ready };

bool IsInterlaceType(int64_t type) { return type >= kInterlaceNone && type <= kInterlaceEven; }

// Picks the kernels for the source's depth. A pixel may have at most 8
// channels, one per colour entry; wider pixels are refused like other depths.
bool ChooseKernels(InterlaceRun& run) {
  const RawBitmap& bitmap = *run.bitmap;
  if (bitmap.bitsPerChannel == 16 && bitmap.channelCount <= kMaxChannels) {
    run.part = InterlacePart16;
    run.maskPart = InterlaceMaskPart16;
    run.formatFlags = rawfx::kFormatFlags16;
    return true;
  }
  if (bitmap.bitsPerChannel == 8 && bitmap.bytesPerPixel <= kMaxChannels) {
    run.part = InterlacePart;
    run.maskPart = InterlaceMaskPart;
    run.formatFlags = rawfx::kFormatFlags8;
    return true;
  }
  return false;
}

// The checks in their fixed order: the horizontal type, then the no-op case
// (both types NONE with a source), then the vertical type and the source, and
// the depth last, after the colour has been ordered.
Preparation Prepare(InterlaceData& data, REALobject source, InterlaceRun& run) {
  if (!IsInterlaceType(data.horizontalType)) {
    rawfx::StoreError(&data, rawfx::kErrorInvalidArgument);
    return Preparation::Refused;
  }
  if (data.horizontalType == kInterlaceNone && source && data.verticalType == kInterlaceNone)
    return Preparation::NothingToDo;
  if (!IsInterlaceType(data.verticalType) || !source) {
    rawfx::StoreError(&data, rawfx::kErrorInvalidArgument);
    return Preparation::Refused;
  }
  run.params.horizontalType = data.horizontalType;
  run.params.verticalType = data.verticalType;
  run.params.interlaceAlpha = data.interlaceAlpha;
  run.bitmap = GetRawBitmapData(source);
  if (!run.bitmap) {  // a host that cannot give the bitmap's data
    rawfx::StoreError(&data, rawfx::kErrorInvalidArgument);
    return Preparation::Refused;
  }
  OrderBackgroundColour(data.backColor, run.bitmap, static_cast<signed char>(data.interlaceAlpha),
                        run.params.channelValues, ColourTestOrder::ByBitmapFamily);
  if (!ChooseKernels(run)) {
    rawfx::StoreError(&data, rawfx::kErrorUnsupportedDepth);
    return Preparation::Refused;
  }
  return Preparation::Ready;
}

// "Apply": a new bitmap, the source itself (with one more reference) when there
// is nothing to do, or nil on a refused setting or a failed run.
REALobject ApplyEffect(REALobject self, REALobject source) {
  InterlaceData* data = DataOf(self);
  InterlaceRun run;
  switch (Prepare(*data, source, run)) {
    case Preparation::Refused:
      return nullptr;
    case Preparation::NothingToDo:
      REALLockObject(source);
      return source;
    case Preparation::Ready:
      break;
  }
  MPImageFilterData* engine = rawfx::EngineOf(data);
  return engine->ops->ProcessParts(engine, &run.params, run.part, run.maskPart, run.bitmap, data->mask, kModeCode,
                                   run.formatFlags, rawfx::kResultFlag);
}

// "ApplyInPlace": the kernels write into the source's own pixels.
void ApplyEffectInPlace(REALobject self, REALobject source) {
  InterlaceData* data = DataOf(self);
  InterlaceRun run;
  if (Prepare(*data, source, run) != Preparation::Ready) return;
  MPImageFilterData* engine = rawfx::EngineOf(data);
  engine->ops->ProcessPartsInPlace(engine, &run.params, run.part, run.maskPart, run.bitmap, data->mask, kModeCode,
                                   run.formatFlags);
}

}  // namespace
