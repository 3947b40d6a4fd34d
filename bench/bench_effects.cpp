// Throughput of every effect through the host's Apply, end to end, on a 2048 x 2048
// image with natural texture, at one thread and at all cores; a plain copy of the
// same buffer is the memory-bandwidth yardstick. Counter: megapixels per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "host/host.h"

namespace {

using rawfx::host::Host;

constexpr int64_t kSide = 2048;

const rawfx::host::FormatInfo& FormatWith(int channels, bool alpha) {
  for (const auto& f : rawfx::host::Formats())
    if (f.channels == channels && f.hasAlpha == alpha && !f.cmyk) return f;
  throw std::runtime_error("no such format");
}

// Smooth value noise with gradients and a fine grain: what photographs look like
// to a histogram or an interpolator, unlike uniform random pixels.
double Texture(int64_t x, int64_t y, int channel) {
  const double fx = static_cast<double>(x) / kSide, fy = static_cast<double>(y) / kSide;
  const double waves = std::sin(fx * 23.0 + channel) * std::cos(fy * 17.0 - channel) * 0.25;
  const uint32_t h = static_cast<uint32_t>(x * 73856093 ^ y * 19349663 ^ channel * 83492791);
  const double grain = static_cast<double>((h * 2654435761u) >> 24) / 255.0 * 0.1;
  return std::fmin(1.0, std::fmax(0.0, 0.45 + 0.3 * fx * (1 - fy) + waves + grain));
}

struct Fixture {
  std::unique_ptr<Host> host = std::make_unique<Host>();
  REALobject source = nullptr;

  Fixture(int channels, bool alpha, int bits) {
    const auto& format = FormatWith(channels, alpha);
    source = host->NewBitmap(kSide, kSide, format.code, bits);
    const auto view = host->Bitmap(source);
    for (int64_t y = 0; y < kSide; ++y)
      for (int64_t x = 0; x < kSide; ++x)
        for (int c = 0; c < channels; ++c) {
          const double v = Texture(x, y, c);
          uint8_t* p = view.row(y) + x * view.pixelBytes;
          if (bits == 8)
            p[c] = static_cast<uint8_t>(v * 255.0);
          else
            reinterpret_cast<uint16_t*>(p)[c] = static_cast<uint16_t>(v * 65535.0);
        }
  }
  ~Fixture() { host->Unlock(source); }
};

int AllCores() { return static_cast<int>(std::thread::hardware_concurrency()); }

void Report(benchmark::State& state) {
  state.counters["MP/s"] = benchmark::Counter(static_cast<double>(kSide * kSide) / 1e6 * state.iterations(),
                                              benchmark::Counter::kIsRate);
}

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

void BM_PlainCopy(benchmark::State& state) {
  const size_t bytes = static_cast<size_t>(kSide * kSide * 4);
  std::vector<uint8_t> from(bytes, 7), to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::DoNotOptimize(to.data());
  }
  Report(state);
}

void Interlace(benchmark::State& state, int channels, bool alpha, int bits) {
  RunApply(state, "InterlaceEffectRaw", channels, alpha, bits, [](Host& host, REALobject e) {
    host.Set<int64_t>(e, "HorizontalInterlaceType", 1);
    host.Set<int64_t>(e, "VerticalInterlaceType", 2);
  });
}

void Barrel(benchmark::State& state, int channels, bool alpha, int bits, bool interpolate) {
  RunApply(state, "BarrelDistortEffectRaw", channels, alpha, bits, [=](Host& host, REALobject e) {
    host.Set<double>(e, "Distortion", 0.4);
    host.Set<double>(e, "HorizontalKeystone", 0.1);
    host.Set<bool>(e, "Interpolate", interpolate);
  });
}

void Polar(benchmark::State& state, int channels, bool alpha, int bits, bool toPolar) {
  RunApply(state, "PolarCoordinatesEffectRaw", channels, alpha, bits,
           [=](Host& host, REALobject e) { host.Set<bool>(e, "RectangularToPolar", toPolar); });
}

void OilPaint(benchmark::State& state, int brush) {
  RunApply(state, "OilPaintEffectRaw", 4, true, 8,
           [=](Host& host, REALobject e) { host.Set<uint8_t>(e, "BrushSize", static_cast<uint8_t>(brush)); });
}

void ThreadCounts(benchmark::internal::Benchmark* b) {
  b->Arg(1);
  if (AllCores() > 1) b->Arg(AllCores());
  b->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_PlainCopy)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Interlace, rgba8, 4, true, 8)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Interlace, rgb16, 3, false, 16)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Barrel, nearest_rgba8, 4, true, 8, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Barrel, bilinear_rgba8, 4, true, 8, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Barrel, nearest_rgb16, 3, false, 16, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Barrel, bilinear_rgb16, 3, false, 16, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Polar, to_polar_rgba8, 4, true, 8, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Polar, to_rect_rgba8, 4, true, 8, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Polar, to_polar_rgb16, 3, false, 16, true)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(Polar, to_rect_rgb16, 3, false, 16, false)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(OilPaint, brush2_rgba8, 2)->Apply(ThreadCounts);
BENCHMARK_CAPTURE(OilPaint, brush5_rgba8, 5)->Apply(ThreadCounts);

}  // namespace

BENCHMARK_MAIN();
