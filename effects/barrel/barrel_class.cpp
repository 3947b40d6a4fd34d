// The BarrelDistortEffectRaw class: a radial barrel/pincushion distortion with
// horizontal and vertical keystone correction, nearest-sample or bilinear.
#include "effects/barrel/barrel_class.h"

#include "imaging/color_order.h"
#include "imaging/mp_filter.h"
#include "imaging/raw_bitmap.h"
#include "plugin/class_definition.h"
#include "plugin/held_object.h"
#include "plugin/class_records.h"
#include "plugin/host_binding.h"

namespace {

void Constructor(REALobject self);
void Destructor(REALobject self);
REALobject GetGenericBackColor(REALobject self, long long);
void SetGenericBackColor(REALobject self, long long, REALobject value);
double BarrelDistortion_getDistortion(REALobject self, long long);
void BarrelDistortion_setDistortion(REALobject self, long long, double value);
double BarrelDistortio_getVKeystone(REALobject self, long long);
void BarrelDistortio_setVKeystone(REALobject self, long long, double value);
double BarrelDistortio_getHKeystone(REALobject self, long long);
void BarrelDistortio_setHKeystone(REALobject self, long long, double value);
REALobject ApplyEffect(REALobject self, REALobject source);
void ApplyEffectAsync(REALobject self, REALobject source, REALobject completeTarget, void* completeMethod);

using rawfx::DirectProperty;
using rawfx::Fn;
using rawfx::Method;
using rawfx::Property;

const ClassPropertyEntry BarrelDistortionProperties[] = {
    DirectProperty("Interpolate", "Boolean", offsetof(BarrelDistortionData, interpolate)),
    Property("BackColor", "ZandoriaColors.GenericColor", Fn(GetGenericBackColor), Fn(SetGenericBackColor)),
    Property("Distortion", "Double", Fn(BarrelDistortion_getDistortion), Fn(BarrelDistortion_setDistortion)),
    Property("VerticalKeystone", "Double", Fn(BarrelDistortio_getVKeystone), Fn(BarrelDistortio_setVKeystone)),
    Property("HorizontalKeystone", "Double", Fn(BarrelDistortio_getHKeystone), Fn(BarrelDistortio_setHKeystone)),
};

const ClassMethodEntry BarrelDistortionMethods[] = {
    Method(Fn(ApplyEffect), "Apply(source as RawBitmap) as RawBitmap"),
    Method(Fn(ApplyEffectAsync), "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)"),
};

}  // namespace

REALclassDefinition BarrelDistortionEfffectRaw = rawfx::FilterClassRecord(
    "BarrelDistortEffectRaw", sizeof(BarrelDistortionData), Constructor, Destructor, rawfx::kAsyncInterfaces,
    {.properties = BarrelDistortionProperties,
     .propertyCount = rawfx::RowCount(BarrelDistortionProperties),
     .methods = BarrelDistortionMethods,
     .methodCount = rawfx::RowCount(BarrelDistortionMethods)});

namespace {

using namespace BarrelKeystone;

constexpr int32_t kModeCode = 3;

BarrelDistortionData* DataOf(REALobject self) {
  return static_cast<BarrelDistortionData*>(REALGetClassData(self, &BarrelDistortionEfffectRaw));
}

// ---- construction -----------------------------------------------------------

void Constructor(REALobject self) {
  BarrelDistortionData* data = DataOf(self);
  double* k = data->params.keystone;
  for (int cell = k00; cell <= k22; ++cell) k[cell] = 0.0;
  k[k00] = k[k11] = k[k22] = 1.0;
  data->running.store(0, std::memory_order_relaxed);
  data->interpolate = 1;
  data->distortion = 0.0;
  // The reference that comes with the new colour is the effect's lock.
  data->backColor = NewDefaultBackColour();
}

void Destructor(REALobject self) {
  BarrelDistortionData* data = DataOf(self);
  rawfx::ReleaseHeld(data->backColor);
}

// ---- accessors --------------------------------------------------------------

// The caller gets its own lock on the colour.
REALobject GetGenericBackColor(REALobject self, long long) { return rawfx::HandOut(DataOf(self)->backColor); }

// nil is ignored so that backColor is never nil.
void SetGenericBackColor(REALobject self, long long, REALobject value) {
  if (value) rawfx::ReplaceHeld(DataOf(self)->backColor, value);
}

double BarrelDistortion_getDistortion(REALobject self, long long) { return DataOf(self)->distortion; }

void BarrelDistortion_setDistortion(REALobject self, long long, double value) { DataOf(self)->distortion = value; }

// The keystones live in the block's matrix, which stays symmetric:
// (1 0 H / 0 1 V / H V 1). While a run reads the matrix a new value is not
// stored, so no run ever sees half of a change.
void SetKeystone(BarrelDistortionData* data, Cell row, Cell column, double value) {
  if (data->running.load(std::memory_order_acquire) != 0) return;
  data->params.keystone[row] = data->params.keystone[column] = value;
}

double BarrelDistortio_getVKeystone(REALobject self, long long) { return DataOf(self)->params.keystone[k12]; }

void BarrelDistortio_setVKeystone(REALobject self, long long, double value) {
  SetKeystone(DataOf(self), k12, k21, value);
}

double BarrelDistortio_getHKeystone(REALobject self, long long) { return DataOf(self)->params.keystone[k02]; }

void BarrelDistortio_setHKeystone(REALobject self, long long, double value) {
  SetKeystone(DataOf(self), k02, k20, value);
}

// ---- Apply ------------------------------------------------------------------

struct PreparedRun {
  RawBitmap* source;
  PartFunction part;
  int32_t formatFlags;
};

// The keystone matrix is already in the block; the rest follows the source.
void FillGeometry(BarrelDistortionData* data, const RawBitmap& bitmap) {
  BarrelDistortionParams& params = data->params;
  params.centerX = static_cast<double>(bitmap.width) * 0.5;
  params.centerY = static_cast<double>(bitmap.height) * 0.5;
  params.distortion = data->distortion;
  params.distortionPlusOne = data->distortion + 1.0;
}

template <class Sample, int N>
void StoreBackground(Sample (&samples)[N], const ChannelValues& channelValues) {
  for (int i = 0; i < N; ++i) samples[i] = static_cast<Sample>(channelValues[i]);
}

// The checks and the block filling shared by Apply and ApplyAsync. On a failure
// the error code is stored and false returned; the engine must not be called.
bool PrepareRun(BarrelDistortionData* data, REALobject sourceObject, PreparedRun& run) {
  RawBitmap* source = sourceObject ? GetRawBitmapData(sourceObject) : nullptr;
  if (!source) {
    rawfx::StoreError(data, rawfx::kErrorInvalidArgument);
    return false;
  }
  // Alpha included: a bitmap with alpha gets the colour's alpha as background.
  ChannelValues channelValues{};
  OrderBackgroundColour(data->backColor, source, 1, channelValues, ColourTestOrder::RGBFirst);
  FillGeometry(data, *source);

  BarrelDistortionParams& params = data->params;
  const bool interpolate = data->interpolate != 0;
  switch (source->bitsPerChannel) {
    case 16:
      StoreBackground(params.backColor16, channelValues);
      run = {source, interpolate ? BarrelDistortInterpolate16BitPart : BarrelDistort16BitPart,
             rawfx::kFormatFlags16};
      return true;
    case 8:
      StoreBackground(params.backColor8, channelValues);
      run = {source, interpolate ? BarrelDistortInterpolate8BitPart : BarrelDistort8BitPart, rawfx::kFormatFlags8};
      return true;
    default:
      rawfx::StoreError(data, rawfx::kErrorUnsupportedDepth);
      return false;
  }
}

// Takes params for one run; false, with lastError 4, while an earlier run
// still holds it: the block is then left untouched.
bool ClaimBlock(BarrelDistortionData* data) {
  if (data->running.exchange(1, std::memory_order_acquire) == 0) return true;
  rawfx::StoreError(data, rawfx::kErrorInvalidArgument);
  return false;
}

void ReleaseBlock(BarrelDistortionData* data) { data->running.store(0, std::memory_order_release); }

// The delete callback of an asynchronous run: the engine is done with the
// block, which lives on in the instance data and is free for the next run.
int BarrelBlockReturned(REALobject, GenericMPParams* params) {
  auto* block = reinterpret_cast<uint8_t*>(params) - offsetof(BarrelDistortionData, params);
  ReleaseBlock(reinterpret_cast<BarrelDistortionData*>(block));
  return 0;
}

REALobject ApplyEffect(REALobject self, REALobject source) {
  BarrelDistortionData* data = DataOf(self);
  if (!ClaimBlock(data)) return nullptr;
  PreparedRun run;
  REALobject result = nullptr;
  if (PrepareRun(data, source, run)) {
    MPImageFilterData* engine = rawfx::EngineOf(data);
    result = engine->ops->ProcessParts(engine, &data->params, run.part, run.part, run.source, nullptr, kModeCode,
                                       run.formatFlags, rawfx::kResultFlag);
  }
  ReleaseBlock(data);
  return result;
}

// The block stays in the instance data for the run; the engine hands it back
// through the delete callback instead of freeing it.
void ApplyEffectAsync(REALobject self, REALobject source, REALobject completeTarget, void* completeMethod) {
  BarrelDistortionData* data = DataOf(self);
  if (!ClaimBlock(data)) return;
  PreparedRun run;
  if (!PrepareRun(data, source, run)) {
    ReleaseBlock(data);
    return;
  }
  MPImageFilterData* engine = rawfx::EngineOf(data);
  engine->ops->ProcessPartsAsync(self, engine, source, &data->params, run.part, run.part, run.source, nullptr,
                                 kModeCode, run.formatFlags, rawfx::kResultFlag, completeTarget, completeMethod,
                                 BarrelBlockReturned);
}

}  // namespace
