// The PolarCoordinatesEffectRaw class: maps a bitmap from rectangular to polar
// coordinates or back, synchronously (two forms of Apply) or in the background
// (ApplyAsync).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "effects/polar/polar_kernels.h"
#include "imaging/color_order.h"
#include "imaging/mp_filter.h"
#include "imaging/raw_bitmap.h"
#include "plugin/class_definition.h"
#include "plugin/held_object.h"
#include "plugin/class_records.h"
#include "plugin/host_binding.h"

namespace {

// The instance data; the host reads and writes the two flags itself.
struct PolarCoordinatesData {
  uint8_t rectangularToPolar;  // 0: the RectangularToPolar property
  uint8_t flipMapping;         // 1: the FlipMapping property
  REALobject backColor;        // 8: held with one lock; never nil after construction
};
static_assert(offsetof(PolarCoordinatesData, rectangularToPolar) == 0);
static_assert(offsetof(PolarCoordinatesData, flipMapping) == 1);
static_assert(offsetof(PolarCoordinatesData, backColor) == 8);
static_assert(sizeof(PolarCoordinatesData) == 16);

void Constructor(REALobject self);
void Destructor(REALobject self);
REALobject PolarGetBackColor(REALobject self, long long);
void PolarSetBackColor(REALobject self, long long, REALobject value);
REALobject ApplyEffect(REALobject self, REALobject source, signed char rectangularToPolar, signed char flipMapping,
                       REALobject backColor);
REALobject IEffectApply(REALobject self, REALobject source);
void ApplyEffectAsync(REALobject self, REALobject source, REALobject completeTarget, void* completeMethod);

using rawfx::DirectProperty;
using rawfx::Fn;
using rawfx::Method;
using rawfx::Property;

const ClassPropertyEntry PolarCoordinatesProperties[] = {
    DirectProperty("FlipMapping", "Boolean", offsetof(PolarCoordinatesData, flipMapping)),
    DirectProperty("RectangularToPolar", "Boolean", offsetof(PolarCoordinatesData, rectangularToPolar)),
    Property("BackColor", "ZandoriaColors.GenericColor", Fn(PolarGetBackColor), Fn(PolarSetBackColor)),
};

const ClassMethodEntry PolarCoordinatesMethods[] = {
    Method(Fn(ApplyEffect),
           "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
           "backColor as ZandoriaColors.GenericColor) as RawBitmap"),
    Method(Fn(IEffectApply), "Apply(source as RawBitmap) as RawBitmap"),
    Method(Fn(ApplyEffectAsync), "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)"),
};

}  // namespace

REALclassDefinition PolarCoordinatesEffectRawClass = rawfx::FilterClassRecord(
    "PolarCoordinatesEffectRaw", sizeof(PolarCoordinatesData), Constructor, Destructor, rawfx::kAsyncInterfaces,
    {.properties = PolarCoordinatesProperties,
     .propertyCount = rawfx::RowCount(PolarCoordinatesProperties),
     .methods = PolarCoordinatesMethods,
     .methodCount = rawfx::RowCount(PolarCoordinatesMethods)});

namespace {

constexpr int32_t kModeCode = 2;

PolarCoordinatesData* DataOf(REALobject self) {
  return static_cast<PolarCoordinatesData*>(REALGetClassData(self, &PolarCoordinatesEffectRawClass));
}

// ---- construction -----------------------------------------------------------

void Constructor(REALobject self) {
  PolarCoordinatesData* data = DataOf(self);
  data->rectangularToPolar = 1;
  data->flipMapping = 1;
  // The reference that comes with the new colour is the effect's lock.
  data->backColor = NewDefaultBackColour();
}

void Destructor(REALobject self) {
  PolarCoordinatesData* data = DataOf(self);
  rawfx::ReleaseHeld(data->backColor);
}

// ---- accessors --------------------------------------------------------------

// The caller gets its own lock on the colour.
REALobject PolarGetBackColor(REALobject self, long long) { return rawfx::HandOut(DataOf(self)->backColor); }

// nil is ignored, so the property always holds a colour.
void PolarSetBackColor(REALobject self, long long, REALobject value) {
  if (value) rawfx::ReplaceHeld(DataOf(self)->backColor, value);
}

// ---- Apply ------------------------------------------------------------------

template <class Sample, int N>
void StoreBackground(Sample (&samples)[N], const ChannelValues& channelValues) {
  static_assert(N == kMaxChannels);
  for (int i = 0; i < N; ++i) samples[i] = static_cast<Sample>(channelValues[i]);
}

// Checks the arguments and fills the effect's fields of params. Returns the
// source's record with the part function and format flags set, or nil after
// storing the error code (the out-arguments are then not to be used).
RawBitmap* PrepareParams(REALobject source, MPImageFilterData* engine, PolarCoordinatesParams* params,
                         signed char rectangularToPolar, signed char flipMapping, REALobject backColor,
                         PartFunction* partFunction, signed char* formatFlags) {
  if (!source || !backColor) {
    engine->lastError = rawfx::kErrorInvalidArgument;
    return nullptr;
  }
  PolarizeSettings& settings = params->settings;
  settings.roundness = 100.0;
  settings.flipMapping = static_cast<uint8_t>(flipMapping);
  settings.centerAtTop = 1;
  settings.rectangularToPolar = static_cast<uint8_t>(rectangularToPolar);
  settings.angleOffset = 0.0;

  RawBitmap* bitmap = GetRawBitmapData(source);
  // nil: a host that cannot give the bitmap's data. A source too large for the
  // parts' offsets is refused rather than mapped to background.
  if (!bitmap || !PolarSourceAddressable(bitmap->width, bitmap->height, bitmap->bytesPerPixel)) {
    engine->lastError = rawfx::kErrorInvalidArgument;
    return nullptr;
  }
  // A bitmap without alpha gets -1 (full) in its alpha position, whatever the colour's alpha.
  ChannelValues channelValues{};
  OrderBackgroundColour(backColor, bitmap, static_cast<signed char>(bitmap->hasAlpha), channelValues,
                        ColourTestOrder::RGBFirst);

  switch (bitmap->bitsPerChannel) {
    case 8:
      StoreBackground(params->backColor8, channelValues);
      *partFunction = PolarCoordinatesPart;
      *formatFlags = rawfx::kFormatFlags8;
      return bitmap;
    case 16:
      StoreBackground(params->backColor16, channelValues);
      *partFunction = PolarCoordinatesPart16;
      *formatFlags = rawfx::kFormatFlags16;
      return bitmap;
    default:
      engine->lastError = rawfx::kErrorUnsupportedDepth;
      return nullptr;
  }
}

size_t TableBytes(const RawBitmap& bitmap, bool toPolar) {
  return PolarRunTableBytes(bitmap.width, bitmap.height, bitmap.bytesPerPixel, toPolar);
}

size_t RunTableBytes(REALobject source, signed char rectangularToPolar) {
  const RawBitmap* bitmap = source ? GetRawBitmapData(source) : nullptr;
  return bitmap ? TableBytes(*bitmap, rectangularToPolar != 0) : 0;
}

// Makes the run's table in storage of tableBytes bytes, when there is storage
// and it was sized for this bitmap and direction.
void AttachRunTable(PolarCoordinatesParams* params, void* storage, size_t tableBytes, const RawBitmap& bitmap) {
  const bool toPolar = params->settings.rectangularToPolar != 0;
  if (!storage || tableBytes == 0 || tableBytes != TableBytes(bitmap, toPolar)) return;
  const auto width = static_cast<int32_t>(bitmap.width), height = static_cast<int32_t>(bitmap.height);
  if (toPolar)
    params->rayTable = MakePolarRayTable(storage, width, height);
  else
    params->columnTable = MakePolarColumnTable(storage, params->settings, width, height);
}

struct FreeTable {
  void operator()(void* table) const { ::operator delete(table); }
};

// The four-argument Apply: the arguments serve this call only, the properties keep their values.
// The block lives on the stack; a run table, if the run takes one, on the
// heap until the engine has run every part. Without memory for it the parts
// map every pixel in full, with the same result; so does a run whose result
// the engine could not make beside a ray table (no part ran: a part does its
// first row even when cancelled), which is run again without it.
REALobject ApplyEffect(REALobject self, REALobject source, signed char rectangularToPolar, signed char flipMapping,
                       REALobject backColor) {
  MPImageFilterData* engine = rawfx::EngineOf(DataOf(self));
  PolarCoordinatesParams params{};
  PartFunction part = nullptr;
  signed char formatFlags = 0;
  RawBitmap* bitmap =
      PrepareParams(source, engine, &params, rectangularToPolar, flipMapping, backColor, &part, &formatFlags);
  if (!bitmap) return nullptr;
  const size_t tableBytes = RunTableBytes(source, rectangularToPolar);
  std::unique_ptr<void, FreeTable> table(tableBytes ? ::operator new(tableBytes, std::nothrow) : nullptr);
  AttachRunTable(&params, table.get(), tableBytes, *bitmap);
  const auto run = [&] {
    return engine->ops->ProcessParts(engine, &params, part, part, bitmap, nullptr, kModeCode, formatFlags,
                                     rawfx::kResultFlag);
  };
  REALobject result = run();
  if (result || !params.rayTable || rawfx::ProgressOf(params.head) != 0) return result;
  params.rayTable = nullptr;
  table.reset();
  return run();
}

REALobject IEffectApply(REALobject self, REALobject source) {
  const PolarCoordinatesData* data = DataOf(self);
  return ApplyEffect(self, source, static_cast<signed char>(data->rectangularToPolar),
                     static_cast<signed char>(data->flipMapping), data->backColor);
}

// The block outlives this call: it is allocated with the global operator new
// and, handed over with no delete callback, released by the engine with the
// global operator delete after the run. A column table, if the run takes one,
// follows the block in the same allocation and so is released with it. If the
// checks fail the block is freed here. Allocation never throws: without
// memory for the block nothing runs, the completion method is not called and
// lastError says why.
void ApplyEffectAsync(REALobject self, REALobject source, REALobject completeTarget, void* completeMethod) {
  PolarCoordinatesData* data = DataOf(self);
  MPImageFilterData* engine = rawfx::EngineOf(data);
  // A ray table is not taken here: a result that the engine cannot make beside
  // it could not be retried without it.
  size_t tableBytes = data->rectangularToPolar ? 0 : RunTableBytes(source, 0);
  void* storage = tableBytes ? ::operator new(sizeof(PolarCoordinatesParams) + tableBytes, std::nothrow) : nullptr;
  if (!storage) {
    tableBytes = 0;  // without memory for the table the parts map every pixel in full
    storage = ::operator new(sizeof(PolarCoordinatesParams), std::nothrow);
  }
  if (!storage) {
    engine->lastError = rawfx::kErrorOutOfMemory;
    return;
  }
  std::memset(storage, 0, sizeof(PolarCoordinatesParams));  // AttachRunTable sets up the table
  auto* params = static_cast<PolarCoordinatesParams*>(storage);

  PartFunction part = nullptr;
  signed char formatFlags = 0;
  RawBitmap* bitmap = PrepareParams(source, engine, params, static_cast<signed char>(data->rectangularToPolar),
                                    static_cast<signed char>(data->flipMapping), data->backColor, &part,
                                    &formatFlags);
  if (!bitmap) {
    ::operator delete(storage);
    return;
  }
  AttachRunTable(params, params + 1, tableBytes, *bitmap);
  engine->ops->ProcessPartsAsync(self, engine, source, params, part, part, bitmap, nullptr, kModeCode, formatFlags,
                                 rawfx::kResultFlag, completeTarget, completeMethod, nullptr);
}

}  // namespace
