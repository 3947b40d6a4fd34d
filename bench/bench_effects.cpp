// Throughput of every effect on a 2048 x 2048 image with natural texture:
//  - through the host's Apply, end to end (result bitmap included), at one
//    thread and at all cores;
//  - the shipped kernels and the literal reference kernels (tests/support),
//    at one thread, called on hand-built parameter blocks over the same image
//    and a destination laid out as the engine lays out results (reused from
//    run to run, so no allocation or first touch of pages is timed);
//  - a plain copy of a buffer of the same size, the memory-bandwidth yardstick.
// Counter: megapixels per second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <thread>
#include <vector>

#include "bench/bench_image.h"
#include "effects/barrel/barrel_class.h"
#include "effects/interlace/interlace_kernels.h"
#include "effects/oilpaint/oilpaint_class.h"
#include "effects/polar/polar_kernels.h"
#include "support/references.h"

namespace {

using rawfx::bench::Fixture;
using rawfx::bench::kMegapixels;
using rawfx::bench::kSide;
using rawfx::host::Host;

// The engine pads result rows by this many bytes; the hand-built runs do too.
constexpr int64_t kResultRowPadding = 24;

int AllCores() { return static_cast<int>(std::thread::hardware_concurrency()); }

void Report(benchmark::State& state) {
  state.counters["MP/s"] = benchmark::Counter(kMegapixels * static_cast<double>(state.iterations()),
                                              benchmark::Counter::kIsRate);
}

// ---- the yardstick ------------------------------------------------------------------

void PlainCopy(benchmark::State& state, int pixelBytes) {
  const size_t bytes = static_cast<size_t>(kSide * kSide * pixelBytes);
  std::vector<uint8_t> from(bytes, 7), to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::DoNotOptimize(to.data());
  }
  Report(state);
}

// ---- through the host ---------------------------------------------------------------

// Runs "Apply" of an effect configured by configure on the fixture's source.
template <class Configure>
void RunApply(benchmark::State& state, const char* className, int channels, bool alpha, int bits,
              Configure configure) {
  Fixture fixture(channels, alpha, bits);
  Host& host = *fixture.host;
  host.SetThreads(static_cast<int>(state.range(0)));
  REALobject effect = host.New(className);
  configure(host, effect);
  for (auto _ : state) {
    REALobject result =
        host.Call<REALobject>(effect, "Apply(source as RawBitmap) as RawBitmap", fixture.source);
    if (!result) state.SkipWithError("Apply returned nil");
    host.Unlock(result);
  }
  host.Unlock(effect);
  Report(state);
}

void ConfigureInterlace(Host& host, REALobject e) {
  host.Set<int64_t>(e, "HorizontalInterlaceType", 1);
  host.Set<int64_t>(e, "VerticalInterlaceType", 2);
}

auto ConfigureBarrel(bool interpolate) {
  return [=](Host& host, REALobject e) {
    host.Set<double>(e, "Distortion", 0.4);
    host.Set<double>(e, "HorizontalKeystone", 0.1);
    host.Set<bool>(e, "Interpolate", interpolate);
  };
}

auto ConfigurePolar(bool toPolar) {
  return [=](Host& host, REALobject e) { host.Set<bool>(e, "RectangularToPolar", toPolar); };
}

auto ConfigureOilPaint(int brush) {
  return [=](Host& host, REALobject e) { host.Set<uint8_t>(e, "BrushSize", static_cast<uint8_t>(brush)); };
}

void Interlace(benchmark::State& state, int channels, bool alpha, int bits) {
  RunApply(state, "InterlaceEffectRaw", channels, alpha, bits, ConfigureInterlace);
}

void Barrel(benchmark::State& state, int channels, bool alpha, int bits, bool interpolate) {
  RunApply(state, "BarrelDistortEffectRaw", channels, alpha, bits, ConfigureBarrel(interpolate));
}

void Polar(benchmark::State& state, int channels, bool alpha, int bits, bool toPolar) {
  RunApply(state, "PolarCoordinatesEffectRaw", channels, alpha, bits, ConfigurePolar(toPolar));
}

void OilPaint(benchmark::State& state, int brush) {
  RunApply(state, "OilPaintEffectRaw", 4, true, 8, ConfigureOilPaint(brush));
}

// ---- the reference kernels ----------------------------------------------------------

// The fixture's image, a destination bitmap as the engine makes one and a
// head over both filled as the engine fills it; the part runs all rows.
struct HandBuiltRun {
  Fixture fixture;
  REALobject destination;

  HandBuiltRun(int channels, bool alpha, int bits)
      : fixture(channels, alpha, bits),
        destination(fixture.host->NewBitmap(kSide, kSide, rawfx::bench::FormatWith(channels, alpha).code, bits,
                                            kResultRowPadding)) {}
  ~HandBuiltRun() { fixture.host->Unlock(destination); }

  void FillHead(GenericMPParams& head) const {
    const auto src = fixture.view();
    const auto dst = fixture.host->Bitmap(destination);
    head = GenericMPParams{};
    head.width = static_cast<int32_t>(kSide);
    head.height = static_cast<int32_t>(kSide);
    head.srcPixels = src.pixels;
    head.dstPixels = dst.pixels;
    head.srcRowBytes = static_cast<int32_t>(src.rowBytes);
    head.dstRowBytes = static_cast<int32_t>(dst.rowBytes);
    head.srcPixelBytes = static_cast<int32_t>(src.pixelBytes);
    head.dstPixelBytes = static_cast<int32_t>(dst.pixelBytes);
    head.srcBitmap = src.record;
    head.dstBitmap = dst.record;
  }
};

// Times part over every row of params, whose head FillHead has filled, each
// run readied by ready (a run's own table, made as the class makes it).
template <class Params, class Ready = void (*)()>
void TimeParts(benchmark::State& state, Params& params, PartFunction part, Ready ready = [] {}) {
  for (auto _ : state) {
    ready();
    params.head.progress = 0;
    MPParamBlock block{0, static_cast<int32_t>(kSide), 0, {}, &params};
    part(&block);
    benchmark::DoNotOptimize(params.head.dstPixels);
  }
  Report(state);
}

// An effect object configured like its Apply benchmark, for reading its settings.
template <class Configure>
REALobject ConfiguredEffect(Host& host, const char* className, Configure configure) {
  REALobject effect = host.New(className);
  configure(host, effect);
  return effect;
}

// Opaque black (the effects' default background) in the format's channel order;
// entries without a colour component are -1.
void DefaultBackground(const rawfx::host::FormatInfo& format, int bits, int32_t (&values)[8]) {
  std::fill(std::begin(values), std::end(values), -1);
  for (uint8_t channel : {format.red, format.green, format.blue})
    if (channel != 0xFF) values[channel] = 0;
  if (format.alpha != 0xFF) values[format.alpha] = bits == 8 ? 255 : 65535;
}

// Which part functions a hand-built run times.
enum class Kernels { Shipped, Reference };

PartFunction Pick(Kernels kernels, PartFunction shipped, PartFunction reference) {
  return kernels == Kernels::Shipped ? shipped : reference;
}

void InterlaceParts(benchmark::State& state, Kernels kernels, int channels, bool alpha, int bits) {
  HandBuiltRun run(channels, alpha, bits);
  InterlaceParams params{};
  run.FillHead(params.head);
  params.horizontalType = 1;
  params.verticalType = 2;
  params.interlaceAlpha = 1;
  DefaultBackground(rawfx::bench::FormatWith(channels, alpha), bits, params.channelValues);
  TimeParts(state, params,
            Pick(kernels, bits == 8 ? InterlacePart : InterlacePart16,
                 rawfx::reference::kInterlaceParts[bits == 16][0]));
}

// Runs get the table the class makes for them (the reference kernels ignore
// it): polar to rectangular the column table, made once outside the timing;
// rectangular to polar none, as the class makes none.
void PolarParts(benchmark::State& state, Kernels kernels, int channels, bool alpha, int bits, bool toPolar) {
  HandBuiltRun run(channels, alpha, bits);
  Host& host = *run.fixture.host;
  REALobject effect = ConfiguredEffect(host, "PolarCoordinatesEffectRaw", ConfigurePolar(toPolar));
  PolarCoordinatesParams params{};
  run.FillHead(params.head);
  params.settings.roundness = 100.0;
  params.settings.flipMapping = host.Get<bool>(effect, "FlipMapping") ? 1 : 0;
  params.settings.centerAtTop = 1;
  params.settings.rectangularToPolar = toPolar ? 1 : 0;
  params.settings.angleOffset = 0.0;
  host.Unlock(effect);
  int32_t background[8];
  DefaultBackground(rawfx::bench::FormatWith(channels, alpha), bits, background);
  for (int i = 0; i < 8; ++i) {
    params.backColor8[i] = static_cast<uint8_t>(background[i]);
    params.backColor16[i] = static_cast<uint16_t>(background[i]);
  }
  const auto side = static_cast<int32_t>(kSide);
  std::vector<double> tableStorage(PolarRunTableBytes(kSide, kSide, channels * bits / 8, toPolar) / sizeof(double) + 1);
  TimeParts(state, params,
            Pick(kernels, bits == 8 ? PolarCoordinatesPart : PolarCoordinatesPart16,
                 rawfx::reference::kPolarParts[bits == 16][0]),
            [&] {
              if (toPolar)
                params.rayTable = MakePolarRayTable(tableStorage.data(), side, side);
              else
                params.columnTable = MakePolarColumnTable(tableStorage.data(), params.settings, side, side);
            });
}

// The class keeps its block in its instance data and fills it on Apply: one
// Apply gives exactly the settings of the Apply benchmark.
void BarrelParts(benchmark::State& state, Kernels kernels, int channels, bool alpha, int bits, bool interpolate) {
  HandBuiltRun run(channels, alpha, bits);
  Host& host = *run.fixture.host;
  REALobject effect = ConfiguredEffect(host, "BarrelDistortEffectRaw", ConfigureBarrel(interpolate));
  host.Unlock(host.Call<REALobject>(effect, "Apply(source as RawBitmap) as RawBitmap", run.fixture.source));
  BarrelDistortionParams params =
      static_cast<BarrelDistortionData*>(host.ClassData(effect, "BarrelDistortEffectRaw"))->params;
  host.Unlock(effect);
  run.FillHead(params.head);
  const PartFunction shipped = bits == 8 ? (interpolate ? BarrelDistortInterpolate8BitPart : BarrelDistort8BitPart)
                                         : (interpolate ? BarrelDistortInterpolate16BitPart : BarrelDistort16BitPart);
  TimeParts(state, params, Pick(kernels, shipped, rawfx::reference::kBarrelParts[bits == 16][interpolate]));
}

void OilPaintParts(benchmark::State& state, Kernels kernels, int brush) {
  HandBuiltRun run(4, true, 8);
  Host& host = *run.fixture.host;
  REALobject effect = ConfiguredEffect(host, "OilPaintEffectRaw", ConfigureOilPaint(brush));
  OilPaintParams params{};
  rawfx::oilpaint::PrepareParams(*static_cast<OilPaintData*>(host.ClassData(effect, "OilPaintEffectRaw")),
                                 *run.fixture.view().record, params);
  host.Unlock(effect);
  run.FillHead(params.head);
  TimeParts(state, params, Pick(kernels, OilPaintPart8bit, rawfx::reference::kOilPaintParts[0][0]));
}

// The rows' names tell shipped kernels from reference ones.
template <class... A>
void InterlaceKernel(benchmark::State& s, A... a) { InterlaceParts(s, Kernels::Shipped, a...); }
template <class... A>
void InterlaceReference(benchmark::State& s, A... a) { InterlaceParts(s, Kernels::Reference, a...); }
template <class... A>
void BarrelKernel(benchmark::State& s, A... a) { BarrelParts(s, Kernels::Shipped, a...); }
template <class... A>
void BarrelReference(benchmark::State& s, A... a) { BarrelParts(s, Kernels::Reference, a...); }
template <class... A>
void PolarKernel(benchmark::State& s, A... a) { PolarParts(s, Kernels::Shipped, a...); }
template <class... A>
void PolarReference(benchmark::State& s, A... a) { PolarParts(s, Kernels::Reference, a...); }
template <class... A>
void OilPaintKernel(benchmark::State& s, A... a) { OilPaintParts(s, Kernels::Shipped, a...); }
template <class... A>
void OilPaintReference(benchmark::State& s, A... a) { OilPaintParts(s, Kernels::Reference, a...); }

void ThreadCounts(benchmark::internal::Benchmark* b) {
  b->Arg(1);
  if (AllCores() > 1) b->Arg(AllCores());
  b->UseRealTime()->Unit(benchmark::kMillisecond);
}

void OneThread(benchmark::internal::Benchmark* b) { b->UseRealTime()->Unit(benchmark::kMillisecond); }

BENCHMARK_CAPTURE(PlainCopy, rgba8, 4)->Apply(OneThread);
BENCHMARK_CAPTURE(PlainCopy, rgb16, 6)->Apply(OneThread);

BENCHMARK_CAPTURE(Interlace, rgba8, 4, true, 8)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(InterlaceKernel, rgba8, 4, true, 8)->Apply(OneThread);
BENCHMARK_CAPTURE(InterlaceReference, rgba8, 4, true, 8)->Apply(OneThread);
BENCHMARK_CAPTURE(Interlace, rgb16, 3, false, 16)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(InterlaceKernel, rgb16, 3, false, 16)->Apply(OneThread);
BENCHMARK_CAPTURE(InterlaceReference, rgb16, 3, false, 16)->Apply(OneThread);

BENCHMARK_CAPTURE(Barrel, nearest_rgba8, 4, true, 8, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(BarrelKernel, nearest_rgba8, 4, true, 8, false)->Apply(OneThread);
BENCHMARK_CAPTURE(BarrelReference, nearest_rgba8, 4, true, 8, false)->Apply(OneThread);
BENCHMARK_CAPTURE(Barrel, bilinear_rgba8, 4, true, 8, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(BarrelKernel, bilinear_rgba8, 4, true, 8, true)->Apply(OneThread);
BENCHMARK_CAPTURE(BarrelReference, bilinear_rgba8, 4, true, 8, true)->Apply(OneThread);
BENCHMARK_CAPTURE(Barrel, nearest_rgb16, 3, false, 16, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(BarrelKernel, nearest_rgb16, 3, false, 16, false)->Apply(OneThread);
BENCHMARK_CAPTURE(BarrelReference, nearest_rgb16, 3, false, 16, false)->Apply(OneThread);
BENCHMARK_CAPTURE(Barrel, bilinear_rgb16, 3, false, 16, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(BarrelKernel, bilinear_rgb16, 3, false, 16, true)->Apply(OneThread);
BENCHMARK_CAPTURE(BarrelReference, bilinear_rgb16, 3, false, 16, true)->Apply(OneThread);

BENCHMARK_CAPTURE(Polar, to_polar_rgba8, 4, true, 8, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(PolarKernel, to_polar_rgba8, 4, true, 8, true)->Apply(OneThread);
BENCHMARK_CAPTURE(PolarReference, to_polar_rgba8, 4, true, 8, true)->Apply(OneThread);
BENCHMARK_CAPTURE(Polar, to_rect_rgba8, 4, true, 8, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(PolarKernel, to_rect_rgba8, 4, true, 8, false)->Apply(OneThread);
BENCHMARK_CAPTURE(PolarReference, to_rect_rgba8, 4, true, 8, false)->Apply(OneThread);
BENCHMARK_CAPTURE(Polar, to_polar_rgb16, 3, false, 16, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(PolarKernel, to_polar_rgb16, 3, false, 16, true)->Apply(OneThread);
BENCHMARK_CAPTURE(PolarReference, to_polar_rgb16, 3, false, 16, true)->Apply(OneThread);
BENCHMARK_CAPTURE(Polar, to_rect_rgb16, 3, false, 16, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(PolarKernel, to_rect_rgb16, 3, false, 16, false)->Apply(OneThread);
BENCHMARK_CAPTURE(PolarReference, to_rect_rgb16, 3, false, 16, false)->Apply(OneThread);

BENCHMARK_CAPTURE(OilPaint, brush2_rgba8, 2)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(OilPaintKernel, brush2_rgba8, 2)->Apply(OneThread);
BENCHMARK_CAPTURE(OilPaintReference, brush2_rgba8, 2)->Apply(OneThread);
BENCHMARK_CAPTURE(OilPaint, brush5_rgba8, 5)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(OilPaintKernel, brush5_rgba8, 5)->Apply(OneThread);
BENCHMARK_CAPTURE(OilPaintReference, brush5_rgba8, 5)->Apply(OneThread);

}  // namespace

BENCHMARK_MAIN();
