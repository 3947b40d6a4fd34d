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
// method (only for classes with more than one), format, depth, width, height,
// padding, 4 bytes of pixel seed, the patched depth (depth choice 7 only), split
// policy, colour kind and its components, mask kind, channel and inversion,
// then the class's own settings (see ReadSettings). Each choice is a byte taken
// modulo its count.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "effects/oilpaint/oilpaint_class.h"
#include "host/host.h"
#include "support/references.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::Host;
namespace ref = rawfx::reference;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr const char* kPolarApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";
constexpr int64_t kMaxSide = 64;

void Check(bool condition, const std::string& what) {
  if (condition) return;
  std::fprintf(stderr, "effects_fuzzer: %s\n", what.c_str());
  std::abort();
}

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  int Pick(int choices) { return Byte() % choices; }

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
    using Limits = std::numeric_limits<double>;
    static const double kSpecial[] = {0.0,  -0.0, 0.5,    -0.5,  1.0,    -1.0, 2.0, -2.0, 1e-300, 1e300, -1e300,
                                      Limits::quiet_NaN(),  Limits::infinity(),  -Limits::infinity(),
                                      Limits::denorm_min(), 0.1, -0.1, 0.25, -0.75};
    const int choice = Byte();
    return choice < int(std::size(kSpecial)) ? kSpecial[choice] : choice < 128 ? (choice - 80) / 16.0 : Raw<double>();
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

// ---- the classes, as data ----------------------------------------------------------------

enum class Method { Apply, PolarApply4, InPlace, Async };

struct EffectRow {
  const char* className;
  size_t paramsBytes;
  std::vector<Method> methods;  // one input byte picks among more than one
  const ref::PartTable* parts;  // the reference kernels
};

const EffectRow kEffects[] = {
    {"InterlaceEffectRaw",
     sizeof(InterlaceParams),
     {Method::Apply, Method::InPlace},
     &ref::kInterlaceParts},
    {"PolarCoordinatesEffectRaw",
     sizeof(PolarCoordinatesParams),
     {Method::Apply, Method::PolarApply4, Method::Async},
     &ref::kPolarParts},
    {"BarrelDistortEffectRaw",
     sizeof(BarrelDistortionParams),
     {Method::Apply, Method::Async},
     &ref::kBarrelParts},
    // Oil paint refuses 16-bit sources before any kernel.
    {"OilPaintEffectRaw",
     sizeof(OilPaintParams),
     {Method::Apply},
     &ref::kOilPaintParts},
};
enum { kInterlace, kPolar, kBarrel, kOilPaint };  // rows of kEffects

// ---- the run being checked ---------------------------------------------------------------

// One input's objects and what its run did: what the run inspector saw (a copy
// of the parameter block while it was alive, the parts and the destination) and
// what the completion method was given.
struct Run {
  int index = 0;
  const EffectRow* row = nullptr;
  Method method = Method::Apply;
  REALobject object = nullptr, source = nullptr;  // the effect and its source
  REALobject colourArgument = nullptr;            // the four-argument Apply's colour
  signed char rectangularToPolar = 0, flipMapping = 0;
  std::vector<REALobject> held;  // released at the end

  int runs = 0, completions = 0;
  rawfx::host::EngineCall call;
  std::vector<uint8_t> params;
  std::vector<MPParamBlock> parts;
  REALobject destination = nullptr, asyncResult = nullptr;  // the result locked by the completion

  REALobject Hold(REALobject made) {
    if (made) held.push_back(made);
    return made;
  }
};
Host* gHost = nullptr;
Run* gRun = nullptr;  // the input under way

std::vector<uint8_t> AllBytes(const BitmapView& view) {
  return {view.pixels, view.pixels + view.rowBytes * view.height};
}

// A source bitmap as the input describes it; nil when the input asks for none.
// The record may say no pixels, or another depth, than the memory has.
REALobject MakeSource(Host& host, Input& in, Run& run) {
  const auto& formats = rawfx::host::Formats();
  const rawfx::host::FormatInfo& format = formats[in.Pick(static_cast<int>(formats.size()))];
  const int depthChoice = in.Pick(8), bits = depthChoice < 4 ? 8 : 16;
  const int64_t width = in.Pick(kMaxSide + 1), height = in.Pick(kMaxSide + 1), padding = in.Pick(9) * (bits / 8);
  std::minstd_rand random(in.Raw<uint32_t>());  // the pixels, from the seed
  if (width == 0 && height == 0 && depthChoice == 0) return nullptr;
  REALobject source =
      run.Hold(host.NewBitmap(std::max<int64_t>(width, 1), std::max<int64_t>(height, 1), format.code, bits, padding));
  Check(source != nullptr, "the host refused a bitmap it should make");
  const BitmapView view = host.Bitmap(source);
  for (int64_t i = 0; i < view.rowBytes * view.height; ++i) view.pixels[i] = static_cast<uint8_t>(random() >> 16);
  if (width == 0) view.record->width = 0;
  if (height == 0) view.record->height = 0;
  if (depthChoice == 7) {
    const uint8_t other = in.Byte();
    view.record->bitsPerChannel = other == 8 || other == 16 ? 0 : other;
  }
  return source;
}

// Colour kinds: 0 the default, 1 nil, 2 RGB, 3 16-bit RGB, 4 CMYK, 5 an object
// that is not a colour (only a method argument can be that).
void SetColour(Host& host, Input& in, Run& run) {
  const int kind = in.Pick(6);
  REALobject colour = nullptr;
  if (kind == 2) colour = host.NewRGBColor(in.Byte(), in.Byte(), in.Byte(), in.Byte());
  if (kind == 3)
    colour = host.NewRGBColor16(in.Raw<uint16_t>(), in.Raw<uint16_t>(), in.Raw<uint16_t>(), in.Raw<uint16_t>());
  if (kind == 4) colour = host.NewCMYKColor(in.Byte(), in.Byte(), in.Byte(), in.Byte(), in.Byte());
  run.Hold(colour);
  if (kind == 5) colour = run.source;
  if (run.method == Method::PolarApply4)
    run.colourArgument = colour;
  else if (run.index != kOilPaint && kind != 0 && kind != 5)
    host.Set<REALobject>(run.object, "BackColor", colour);  // nil is ignored
}

// Mask kinds: 0 none, 1 a grey bitmap of the source's size, 2 a channel of the
// source itself, 3 a bitmap one row short (the engine refuses it), 4 set, then removed.
void SetMask(Host& host, Input& in, Run& run) {
  const int kind = in.Pick(5);
  const uint8_t channel = in.Byte();
  const bool inverted = in.Pick(2) == 1;
  if ((run.index != kInterlace && run.index != kOilPaint) || kind == 0 || !run.source) return;
  const BitmapView view = host.Bitmap(run.source);
  const int64_t width = std::max<int64_t>(view.width, 1), height = std::max<int64_t>(view.height, 1);
  REALobject maskBitmap = run.source;
  if (kind != 2) {
    maskBitmap = run.Hold(host.NewBitmap(width, kind == 3 ? std::max<int64_t>(height - 1, 1) : height, 0, 8));
    const BitmapView maskView = host.Bitmap(maskBitmap);
    for (int64_t i = 0; i < maskView.rowBytes * maskView.height; ++i)
      maskView.pixels[i] = static_cast<uint8_t>(i * 37 + channel);
  }
  host.Set<REALobject>(run.object, "Mask", run.Hold(host.NewMask(maskBitmap, inverted, kind == 2 ? channel % 8 : 0)));
  if (kind == 4) host.Set(run.object, "Mask", nullptr);
}

// The class's settings through its setters, in this order, then what the
// setters would not let through.
void ReadSettings(Host& host, Input& in, Run& run) {
  void* data = host.ClassData(run.object, run.row->className);
  if (run.index == kInterlace) {
    for (const char* type : {"HorizontalInterlaceType", "VerticalInterlaceType"})
      host.Set<int64_t>(run.object, type, in.Enum());
    host.Set<bool>(run.object, "InterlaceAlphaChannel", in.Pick(2) == 1);
  }
  if (run.index == kBarrel) {
    host.Set<bool>(run.object, "Interpolate", in.Pick(2) == 1);
    for (const char* setting : {"Distortion", "VerticalKeystone", "HorizontalKeystone"})
      host.Set<double>(run.object, setting, in.Double());
  }
  if (run.index == kPolar) {
    // The flags are bytes the host writes itself; any value may lie there.
    static_cast<uint8_t*>(data)[0] = in.Byte() % 3;
    static_cast<uint8_t*>(data)[1] = in.Byte() % 3;
    run.rectangularToPolar = static_cast<signed char>(in.Byte());
    run.flipMapping = static_cast<signed char>(in.Byte());
  }
  if (run.index == kOilPaint) {  // then values the setters would clamp, written straight into the instance data
    host.Set<uint8_t>(run.object, "BrushSize", in.Byte());
    host.Set<float>(run.object, "Smoothness", in.Raw<float>());
    if (in.Pick(4) == 0) static_cast<OilPaintData*>(data)->brushSize = in.Byte();
    if (in.Pick(4) == 0) static_cast<OilPaintData*>(data)->smoothness = in.Raw<float>();
  }
}

// ---- checking the run -------------------------------------------------------------------

// Runs the reference kernel over the run's own block and parts, on the source
// as it was before the run, and compares every destination byte. An in-place
// run is repeated on the source's own memory, put back as it was, since a mask
// may read that memory too.
void CheckAgainstReference(Host& host, Run& run, const std::vector<uint8_t>& sourceBefore) {
  std::vector<uint8_t> source = sourceBefore;
  auto& head = *reinterpret_cast<GenericMPParams*>(run.params.data());
  const BitmapView destination = host.Bitmap(run.destination);
  const std::vector<uint8_t> actual = AllBytes(destination);
  std::vector<uint8_t> separate(actual.size(), 0);
  const bool inPlace = run.method == Method::InPlace;
  uint8_t* expected = inPlace ? destination.pixels : separate.data();
  if (inPlace) std::copy(sourceBefore.begin(), sourceBefore.end(), expected);
  head.srcPixels = inPlace ? expected : source.data();
  head.dstPixels = expected;
  head.progress = head.cancel = 0;
  const bool variant = run.call.mask != nullptr || (run.index == kBarrel && host.Get<bool>(run.object, "Interpolate"));
  const PartFunction part = (*run.row->parts)[head.srcBitmap->bitsPerChannel == 16][variant];
  for (const MPParamBlock& engines : run.parts) {
    MPParamBlock mine{engines.firstRow, engines.endRow, 0, {}, run.params.data()};
    part(&mine);
  }
  const size_t at = std::mismatch(actual.begin(), actual.end(), expected).first - actual.begin();
  Check(at == actual.size(), std::string(run.row->className) + ": destination byte " + std::to_string(at) +
                                 " (row padding included) differs from the reference");
}

// ---- one input -----------------------------------------------------------------------------

void RunOne(Host& host, Input& in) {
  Run run;
  gRun = &run;
  run.index = in.Pick(4);
  run.row = &kEffects[run.index];
  const std::vector<Method>& methods = run.row->methods;
  run.method = methods.size() > 1 ? methods[size_t(in.Pick(int(methods.size())))] : methods[0];
  run.object = run.Hold(host.New(run.row->className));
  run.source = MakeSource(host, in, run);
  host.SetSplitPolicy(static_cast<rawfx::host::SplitPolicy>(in.Pick(5)));  // the policies in their declared order
  SetColour(host, in, run);
  SetMask(host, in, run);
  ReadSettings(host, in, run);

  const std::vector<uint8_t> sourceBefore = run.source ? AllBytes(host.Bitmap(run.source)) : std::vector<uint8_t>{};
  const int64_t asyncBefore = host.asyncCounts().started;
  REALobject result = nullptr;
  if (run.method == Method::Apply) result = host.Call<REALobject>(run.object, kApply, run.source);
  if (run.method == Method::PolarApply4)
    result = host.Call<REALobject>(run.object, kPolarApply4, run.source, run.rectangularToPolar, run.flipMapping,
                                   run.colourArgument);
  if (run.method == Method::InPlace) host.Call<void>(run.object, kApplyInPlace, run.source);
  if (run.method == Method::Async) {
    host.Call<void>(run.object, kApplyAsync, run.source, run.object,
                    reinterpret_cast<void*>(+[](REALobject, REALobject done) {
                      ++gRun->completions;
                      if (done) gHost->Lock(done);
                      gRun->asyncResult = done;
                    }));
    host.WaitForAsync();
    result = run.asyncResult;
  }
  run.Hold(result);

  // A refused run stored its code and ran nothing; an accepted run's result (if
  // any) is the inspected destination, of its source's shape.
  const int64_t lastError = host.LastError(run.object), asyncStarted = host.asyncCounts().started - asyncBefore;
  Check(lastError == 0 || lastError == 4 || lastError == 6, "an error code other than 4 or 6");
  Check(lastError == 0 || (run.runs == 0 && asyncStarted == 0 && !result),
        "a refused run reached the engine or gave a result");
  Check(run.method != Method::Async || run.completions == (asyncStarted > 0 ? 1 : 0),
        "an asynchronous run did not complete exactly once");
  Check(run.runs <= 1, "one call made more than one run");
  if (result && result != run.source) {
    Check(run.runs == 1 && result == run.destination, "a result that is not the run's destination");
    const BitmapView made = host.Bitmap(result), from = host.Bitmap(run.source);
    Check(made.width == from.width && made.height == from.height && made.format == from.format &&
              made.bitsPerChannel == from.bitsPerChannel,
          "a result of another shape than its source");
  }
  Check(!result || result != run.source || (run.index == kInterlace && run.runs == 0),
        "only interlace with nothing to do returns its source");
  Check(!run.source || run.method == Method::InPlace || AllBytes(host.Bitmap(run.source)) == sourceBefore,
        "the source was written");
  if (run.runs == 1 && reinterpret_cast<GenericMPParams*>(run.params.data())->cancel == 0)
    CheckAgainstReference(host, run, sourceBefore);

  for (REALobject object : run.held) host.Unlock(object);
  host.WaitForAsync();
  Check(host.LiveObjectCount() == 0, "objects left alive after the program let go of everything");
  Check(host.StrayLockCalls() == 0, "a lock or unlock of an object that was not alive");
  gRun = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rawfx::host::HostOptions options;
  options.threads = 3;
  static Host host(options);
  gHost = &host;
  gHost->SetRunInspector([](const rawfx::host::EngineCall& call, const GenericMPParams& params,
                            const std::vector<MPParamBlock>& parts, REALobject destination) {
    Run& run = *gRun;
    ++run.runs;
    run.call = call;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&params);
    run.params.assign(bytes, bytes + run.row->paramsBytes);
    run.parts = parts;
    run.destination = destination;
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  RunOne(*gHost, in);
  return 0;
}
