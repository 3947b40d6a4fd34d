// Fuzz target: the four effects of the plug-in, run through the embedding host
// as a program would run them. The input bytes choose a class, its settings
// (NaN, infinities, out-of-range enums and brush sizes, nil colours and masks
// included), a source bitmap (0 to 64 pixels each way, any format, 8 or 16
// bits or a record patched to another depth, padded rows) and a method
// (synchronous, asynchronous or in place). After every run:
//   - the source is unchanged, except in place, where only its pixels may change;
//   - every destination byte is what the effect's reference kernel gives for the
//     run's own parameter block over the engine's own parts, and the result's
//     row padding is still zero;
//   - a refused run stored 4 or 6 and never reached the engine; an asynchronous
//     run that reached it completed exactly once;
//   - once the program has let go of everything, no object is left alive.
// A failed check aborts, so libFuzzer keeps the input as a crash artefact.
//
// Input layout, read front to back (bytes past the end read as 0): class,
// method (not for oil paint), format, depth, width, height, padding, 4 bytes of
// pixel seed, the patched depth (depth choice 7 only), split policy, colour
// kind and its components, mask kind, channel and inversion, then the class's
// own settings (ReadSettings). Each choice is a byte taken modulo its count.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "effects/barrel/barrel_class.h"
#include "effects/oilpaint/oilpaint_class.h"
#include "host/host.h"
#include "support/barrel_reference.h"
#include "support/interlace_reference.h"
#include "support/oilpaint_kernel_reference.h"
#include "support/polar_reference.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::Host;
using rawfx::host::SplitPolicy;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr const char* kPolarApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";
constexpr int kWorkers = 3;
constexpr int64_t kMaxSide = 64;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "effects_fuzzer: %s\n", what.c_str());
  std::abort();
}

void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// ---- reading the input ------------------------------------------------------------------

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  int Pick(int choices) { return Byte() % choices; }
  bool Flag() { return (Byte() & 1) != 0; }

  template <class T>
  T Raw() {
    uint8_t bytes[sizeof(T)];
    for (uint8_t& b : bytes) b = Byte();
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }

  // Values that break arithmetic most often, then any bit pattern.
  double Double() {
    static const double kSpecial[] = {0.0,   -0.0, 0.5, -0.5, 1.0, -1.0, 2.0, -2.0, 1e-300, 1e300,
                                      -1e300, std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      std::numeric_limits<double>::denorm_min(), 0.1, -0.1, 0.25, -0.75};
    constexpr int kCount = static_cast<int>(std::size(kSpecial));
    const int choice = Byte();
    return choice < kCount ? kSpecial[choice] : choice < 128 ? (choice - 80) / 16.0 : Raw<double>();
  }

  // Mostly the valid enum values 0..2 and their neighbours, sometimes any int64.
  int64_t Enum() {
    const int choice = Byte();
    return choice < 240 ? choice % 5 - 1 : Raw<int64_t>();
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// ---- the run being checked ----------------------------------------------------------------

enum class Effect { Interlace, Polar, Barrel, OilPaint };
enum class Method { Apply, PolarApply4, InPlace, Async };

const char* ClassName(Effect effect) {
  switch (effect) {
    case Effect::Interlace: return "InterlaceEffectRaw";
    case Effect::Polar: return "PolarCoordinatesEffectRaw";
    case Effect::Barrel: return "BarrelDistortEffectRaw";
    case Effect::OilPaint: return "OilPaintEffectRaw";
  }
  return "";
}

size_t ParamsBytes(Effect effect) {
  switch (effect) {
    case Effect::Interlace: return sizeof(InterlaceParams);
    case Effect::Polar: return sizeof(PolarCoordinatesParams);
    case Effect::Barrel: return sizeof(BarrelDistortionParams);
    case Effect::OilPaint: return sizeof(OilPaintParams);
  }
  return 0;
}

Method ChooseMethod(Effect effect, Input& in) {
  switch (effect) {
    case Effect::Interlace: return in.Flag() ? Method::InPlace : Method::Apply;
    case Effect::Polar: {
      const Method methods[] = {Method::Apply, Method::PolarApply4, Method::Async};
      return methods[in.Pick(3)];
    }
    case Effect::Barrel: return in.Flag() ? Method::Async : Method::Apply;
    case Effect::OilPaint: return Method::Apply;
  }
  return Method::Apply;
}

// What the inspector saw of the run: a copy of the parameter block while it was
// alive, the parts, and the destination.
struct Inspection {
  size_t paramsBytes = 0;  // set before the run
  int runs = 0;
  EngineCall call;
  std::vector<uint8_t> params;
  std::vector<MPParamBlock> parts;
  REALobject destination = nullptr;
};

struct World {
  std::unique_ptr<Host> host;
  Inspection inspection;
  int completions = 0;
  REALobject asyncResult = nullptr;  // locked by the completion
};
World* gWorld = nullptr;

void KeepAsyncResult(REALobject, REALobject result) {
  ++gWorld->completions;
  if (result) gWorld->host->Lock(result);
  gWorld->asyncResult = result;
}

void Inspect(const EngineCall& call, const GenericMPParams& params, const std::vector<MPParamBlock>& parts,
             REALobject destination) {
  Inspection& seen = gWorld->inspection;
  ++seen.runs;
  seen.call = call;
  const auto* bytes = reinterpret_cast<const uint8_t*>(&params);
  seen.params.assign(bytes, bytes + seen.paramsBytes);
  seen.parts = parts;
  seen.destination = destination;
}

// ---- building the run ----------------------------------------------------------------------

struct Setup {
  Effect effect;
  Method method;
  REALobject object = nullptr;  // the effect
  REALobject source = nullptr;
  REALobject colourArgument = nullptr;  // the four-argument Apply's colour
  signed char rectangularToPolar = 0, flipMapping = 0;
  bool interpolate = false;  // barrel: the part the effect will pick
  std::vector<REALobject> held;  // released at the end
};

REALobject Hold(Setup& setup, REALobject object) {
  if (object) setup.held.push_back(object);
  return object;
}

// A source bitmap as the input describes it; nil when the input asks for none.
REALobject MakeSource(Host& host, Input& in, Setup& setup) {
  const auto& formats = rawfx::host::Formats();
  const rawfx::host::FormatInfo& format = formats[in.Pick(static_cast<int>(formats.size()))];
  const int depthChoice = in.Pick(8);
  const int bits = depthChoice < 4 ? 8 : 16;
  const int64_t width = in.Pick(kMaxSide + 1), height = in.Pick(kMaxSide + 1);
  const int64_t padding = in.Pick(9) * (bits / 8);
  const uint32_t seed = in.Raw<uint32_t>();
  if (width == 0 && height == 0 && depthChoice == 0) return nullptr;
  REALobject source = Hold(setup, host.NewBitmap(std::max<int64_t>(width, 1), std::max<int64_t>(height, 1),
                                                 format.code, bits, padding));
  Check(source != nullptr, "the host refused a bitmap it should make");
  const BitmapView view = host.Bitmap(source);
  uint32_t state = seed | 1;
  for (int64_t i = 0; i < view.rowBytes * view.height; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    view.pixels[i] = static_cast<uint8_t>(state >> 24);
  }
  // A record that says no pixels, or another depth, than the memory has.
  if (width == 0) view.record->width = 0;
  if (height == 0) view.record->height = 0;
  if (depthChoice == 7) {
    const uint8_t other = in.Byte();
    view.record->bitsPerChannel = other == 8 || other == 16 ? 0 : other;
  }
  return source;
}

REALobject MakeColour(Host& host, Input& in, Setup& setup, int kind) {
  switch (kind) {
    case 2: return Hold(setup, host.NewRGBColor(in.Byte(), in.Byte(), in.Byte(), in.Byte()));
    case 3: return Hold(setup, host.NewRGBColor16(in.Raw<uint16_t>(), in.Raw<uint16_t>(), in.Raw<uint16_t>(),
                                                  in.Raw<uint16_t>()));
    case 4: return Hold(setup, host.NewCMYKColor(in.Byte(), in.Byte(), in.Byte(), in.Byte(), in.Byte()));
    default: return nullptr;
  }
}

// Colour kinds: 0 the default, 1 nil, 2 RGB, 3 16-bit RGB, 4 CMYK, 5 an object
// that is not a colour (only a method argument can be that).
void SetColour(Host& host, Input& in, Setup& setup) {
  const int kind = in.Pick(6);
  REALobject colour = kind == 5 ? setup.source : MakeColour(host, in, setup, kind);
  if (setup.method == Method::PolarApply4) {
    setup.colourArgument = colour;
    return;
  }
  if (setup.effect == Effect::OilPaint || kind == 0 || kind == 5) return;
  host.Set<REALobject>(setup.object, "BackColor", colour);  // nil is ignored
}

// Mask kinds: 0 none, 1 a grey bitmap of the source's size, 2 a channel of the
// source itself, 3 a bitmap one row short (the engine refuses it), 4 set, then removed.
void SetMask(Host& host, Input& in, Setup& setup) {
  const int kind = in.Pick(5);
  const uint8_t channel = in.Byte();
  const bool inverted = in.Flag();
  if (setup.effect != Effect::Interlace && setup.effect != Effect::OilPaint) return;
  if (kind == 0 || !setup.source) return;
  const BitmapView view = host.Bitmap(setup.source);
  const int64_t width = std::max<int64_t>(view.width, 1), height = std::max<int64_t>(view.height, 1);
  REALobject maskBitmap = setup.source;
  if (kind != 2) {
    maskBitmap = Hold(setup, host.NewBitmap(width, kind == 3 ? std::max<int64_t>(height - 1, 1) : height, 0, 8));
    const BitmapView maskView = host.Bitmap(maskBitmap);
    for (int64_t i = 0; i < maskView.rowBytes * maskView.height; ++i)
      maskView.pixels[i] = static_cast<uint8_t>(i * 37 + channel);
  }
  REALobject mask = Hold(setup, host.NewMask(maskBitmap, inverted, kind == 2 ? channel % 8 : 0));
  host.Set<REALobject>(setup.object, "Mask", mask);
  if (kind == 4) host.Set(setup.object, "Mask", nullptr);
}

void ReadSettings(Host& host, Input& in, Setup& setup) {
  REALobject effect = setup.object;
  switch (setup.effect) {
    case Effect::Interlace:
      host.Set<int64_t>(effect, "HorizontalInterlaceType", in.Enum());
      host.Set<int64_t>(effect, "VerticalInterlaceType", in.Enum());
      host.Set<bool>(effect, "InterlaceAlphaChannel", in.Flag());
      break;
    case Effect::Polar: {
      // The flags are bytes the host writes itself; any value may lie there.
      auto* flags = static_cast<uint8_t*>(host.ClassData(effect, ClassName(setup.effect)));
      flags[0] = in.Byte() % 3;
      flags[1] = in.Byte() % 3;
      setup.rectangularToPolar = static_cast<signed char>(in.Byte());
      setup.flipMapping = static_cast<signed char>(in.Byte());
      break;
    }
    case Effect::Barrel:
      host.Set<bool>(effect, "Interpolate", in.Flag());
      host.Set<double>(effect, "Distortion", in.Double());
      host.Set<double>(effect, "VerticalKeystone", in.Double());
      host.Set<double>(effect, "HorizontalKeystone", in.Double());
      setup.interpolate = static_cast<BarrelDistortionData*>(host.ClassData(effect, ClassName(setup.effect)))
                              ->interpolate != 0;
      break;
    case Effect::OilPaint: {
      host.Set<uint8_t>(effect, "BrushSize", in.Byte());
      host.Set<float>(effect, "Smoothness", in.Raw<float>());
      // Values the setters would clamp, written straight into the instance data.
      auto* data = static_cast<OilPaintData*>(host.ClassData(effect, ClassName(setup.effect)));
      if (in.Pick(4) == 0) data->brushSize = in.Byte();
      if (in.Pick(4) == 0) data->smoothness = in.Raw<float>();
      break;
    }
  }
}

// ---- checking the run --------------------------------------------------------------------------

std::vector<uint8_t> AllBytes(const BitmapView& view) {
  return {view.pixels, view.pixels + view.rowBytes * view.height};
}

PartFunction ReferencePart(const Setup& setup, int bits, bool masked) {
  const bool wide = bits == 16;
  switch (setup.effect) {
    case Effect::Interlace:
      if (wide) return masked ? rawfx::reference::InterlaceMaskPart16 : rawfx::reference::InterlacePart16;
      return masked ? rawfx::reference::InterlaceMaskPart : rawfx::reference::InterlacePart;
    case Effect::Polar:
      return wide ? rawfx::reference::PolarCoordinatesPart16 : rawfx::reference::PolarCoordinatesPart;
    case Effect::Barrel:
      if (wide)
        return setup.interpolate ? rawfx::reference::BarrelDistortInterpolate16BitPart
                                 : rawfx::reference::BarrelDistort16BitPart;
      return setup.interpolate ? rawfx::reference::BarrelDistortInterpolate8BitPart
                               : rawfx::reference::BarrelDistort8BitPart;
    case Effect::OilPaint:
      return masked ? rawfx::reference::OilPaintMaskPart8bit : rawfx::reference::OilPaintPart8bit;
  }
  return nullptr;
}

// Runs the reference kernel over the run's own block and parts, on the source
// as it was before the run, and compares every destination byte. An in-place
// run is repeated on the source's own memory, put back as it was, since a mask
// may read that memory too.
void CheckAgainstReference(Host& host, const Setup& setup, const std::vector<uint8_t>& sourceBefore) {
  const Inspection& seen = gWorld->inspection;
  std::vector<uint8_t> block = seen.params;
  auto& head = *reinterpret_cast<GenericMPParams*>(block.data());
  const BitmapView destination = host.Bitmap(seen.destination);
  const std::vector<uint8_t> actual = AllBytes(destination);
  std::vector<uint8_t> source = sourceBefore;
  std::vector<uint8_t> separate(actual.size(), 0);
  uint8_t* expected = separate.data();
  if (setup.method == Method::InPlace) {
    expected = destination.pixels;
    std::copy(sourceBefore.begin(), sourceBefore.end(), expected);
  }
  head.srcPixels = setup.method == Method::InPlace ? expected : source.data();
  head.dstPixels = expected;
  head.progress = 0;
  head.cancel = 0;
  const PartFunction part = ReferencePart(setup, head.srcBitmap->bitsPerChannel, seen.call.mask != nullptr);
  for (const MPParamBlock& engines : seen.parts) {
    MPParamBlock mine{engines.firstRow, engines.endRow, 0, {}, block.data()};
    part(&mine);
  }
  const int64_t rowPixelsBytes = destination.width * destination.pixelBytes;
  for (int64_t y = 0; y < destination.height; ++y)
    for (int64_t i = 0; i < destination.rowBytes; ++i) {
      const size_t at = static_cast<size_t>(y * destination.rowBytes + i);
      if (actual[at] != expected[at])
        Fail(std::string(ClassName(setup.effect)) + ": destination byte " + std::to_string(i) + " of row " +
             std::to_string(y) + (i < rowPixelsBytes ? " differs from the reference" : " (padding) was written"));
    }
}

// A refused run stored its code and ran nothing; an accepted run's result (if
// any) is the inspected destination.
void CheckOutcome(Host& host, const Setup& setup, REALobject result, int64_t lastError, int64_t asyncStarted) {
  const Inspection& seen = gWorld->inspection;
  Check(lastError == 0 || lastError == 4 || lastError == 6, "an error code other than 4 or 6");
  if (lastError != 0)
    Check(seen.runs == 0 && asyncStarted == 0 && !result, "a refused run reached the engine or gave a result");
  if (setup.method == Method::Async)
    Check(gWorld->completions == (asyncStarted > 0 ? 1 : 0), "an asynchronous run did not complete exactly once");
  Check(seen.runs <= 1, "one call made more than one run");
  if (result && result != setup.source) {
    Check(seen.runs == 1 && result == seen.destination, "a result that is not the run's destination");
    const BitmapView made = host.Bitmap(result), from = host.Bitmap(setup.source);
    Check(made.width == from.width && made.height == from.height && made.format == from.format &&
              made.bitsPerChannel == from.bitsPerChannel,
          "a result of another shape than its source");
  }
  if (result == setup.source && result)
    Check(setup.effect == Effect::Interlace && seen.runs == 0, "only interlace with nothing to do returns its source");
}

// ---- one input ------------------------------------------------------------------------------

void RunOne(Host& host, Input& in) {
  Setup setup;
  setup.effect = static_cast<Effect>(in.Pick(4));
  setup.method = ChooseMethod(setup.effect, in);
  setup.object = Hold(setup, host.New(ClassName(setup.effect)));
  setup.source = MakeSource(host, in, setup);
  const SplitPolicy policies[] = {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                                  SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts};
  host.SetSplitPolicy(policies[in.Pick(5)]);
  SetColour(host, in, setup);
  SetMask(host, in, setup);
  ReadSettings(host, in, setup);

  const std::vector<uint8_t> sourceBefore =
      setup.source ? AllBytes(host.Bitmap(setup.source)) : std::vector<uint8_t>{};
  Inspection& seen = gWorld->inspection;
  seen = Inspection{};
  seen.paramsBytes = ParamsBytes(setup.effect);
  gWorld->completions = 0;
  gWorld->asyncResult = nullptr;
  const int64_t asyncBefore = host.asyncCounts().started;

  REALobject result = nullptr;
  switch (setup.method) {
    case Method::Apply: result = host.Call<REALobject>(setup.object, kApply, setup.source); break;
    case Method::PolarApply4:
      result = host.Call<REALobject>(setup.object, kPolarApply4, setup.source, setup.rectangularToPolar,
                                     setup.flipMapping, setup.colourArgument);
      break;
    case Method::InPlace: host.Call<void>(setup.object, kApplyInPlace, setup.source); break;
    case Method::Async:
      host.Call<void>(setup.object, kApplyAsync, setup.source, setup.object,
                      reinterpret_cast<void*>(&KeepAsyncResult));
      host.WaitForAsync();
      result = gWorld->asyncResult;
      break;
  }
  Hold(setup, result);

  CheckOutcome(host, setup, result, host.LastError(setup.object), host.asyncCounts().started - asyncBefore);
  if (setup.source && setup.method != Method::InPlace)
    Check(AllBytes(host.Bitmap(setup.source)) == sourceBefore, "the source was written");
  const bool completed = seen.runs == 1 && reinterpret_cast<GenericMPParams*>(seen.params.data())->cancel == 0;
  if (completed) CheckAgainstReference(host, setup, sourceBefore);

  for (REALobject object : setup.held) host.Unlock(object);
  host.WaitForAsync();
  if (host.LiveObjectCount() != 0) Fail("objects left alive after the program let go of everything");
  if (host.StrayLockCalls() != 0) Fail("a lock or unlock of an object that was not alive");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static World world;
  rawfx::host::HostOptions options;
  options.threads = kWorkers;
  world.host = std::make_unique<Host>(options);
  world.host->SetRunInspector(&Inspect);
  gWorld = &world;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  RunOne(*gWorld->host, in);
  return 0;
}
