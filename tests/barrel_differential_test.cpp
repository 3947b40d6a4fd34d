// The fast barrel kernels against the plain reference kernels: random bitmaps,
// layouts, settings (the effect's own matrix form and hand-built ones, with
// NaN, infinities and extremes), part splits and cancels, on the AVX2 path and
// the portable one. Every destination byte, padding included, the progress
// count, every part's done flag and the untouched rest of the block must be
// the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "effects/barrel/barrel_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "support/barrel_reference.h"

namespace {

using namespace BarrelKeystone;
using Rng = std::mt19937_64;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kTiny = std::numeric_limits<double>::denorm_min();

int Uniform(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
double UniformReal(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
bool Chance(Rng& rng, double p) { return std::bernoulli_distribution(p)(rng); }

template <class T, size_t N>
T PickFrom(Rng& rng, const T (&values)[N]) {
  return values[Uniform(rng, 0, static_cast<int>(N) - 1)];
}

// ---- settings ---------------------------------------------------------------------

double DrawDistortion(Rng& rng) {
  const double special[] = {0.0,  -0.0, 1e-300, -1e-300, kTiny, -kTiny, 1e-17, -1.0, -1.0 + 1e-16,
                            1e6,  -1e6, 1e300,  -1e300,  kNaN,  kInf,   -kInf};
  return Chance(rng, 0.35) ? PickFrom(rng, special) : UniformReal(rng, -1.0, 3.0);
}

double DrawKeystone(Rng& rng) {
  const double special[] = {0.0, -0.0, 0.5, -0.5, 1.0, -1.0, 1e-300, 1e300, -1e300, kNaN, kInf, -kInf};
  if (Chance(rng, 0.4)) return 0.0;
  return Chance(rng, 0.3) ? PickFrom(rng, special) : UniformReal(rng, -1.0, 1.0);
}

void SetMatrix(BarrelDistortionParams& p, double horizontal, double vertical) {
  const double cells[9] = {1.0, 0.0, horizontal, 0.0, 1.0, vertical, horizontal, vertical, 1.0};
  std::memcpy(p.keystone, cells, sizeof cells);
}

// As the effect fills the block: the keystone matrix form, the centre of the
// bitmap and distortion + 1.
void DrawEffectSettings(Rng& rng, BarrelDistortionParams& p, int32_t width, int32_t height) {
  SetMatrix(p, DrawKeystone(rng), DrawKeystone(rng));
  p.distortion = DrawDistortion(rng);
  p.distortionPlusOne = p.distortion + 1.0;
  p.centerX = width * 0.5;
  p.centerY = height * 0.5;
}

// Any matrix and centre, as the kernels would take them.
void DrawArbitrarySettings(Rng& rng, BarrelDistortionParams& p) {
  const double special[] = {0.0, 1.0, -1.0, 1e-300, 1e300, kNaN, kInf, -kInf};
  for (double& cell : p.keystone) cell = Chance(rng, 0.15) ? PickFrom(rng, special) : UniformReal(rng, -2.0, 2.0);
  p.distortion = DrawDistortion(rng);
  p.distortionPlusOne = Chance(rng, 0.8) ? p.distortion + 1.0 : DrawDistortion(rng);
  const double centres[] = {0.0, 0.5, 1.0, 17.25, -3.0, kNaN};
  p.centerX = Chance(rng, 0.2) ? PickFrom(rng, centres) : UniformReal(rng, 0.0, 40.0);
  p.centerY = Chance(rng, 0.2) ? PickFrom(rng, centres) : UniformReal(rng, 0.0, 40.0);
}

// Positions on a grid of quarter (or other binary fraction) pixels, exactly:
// with distortion 0, centre (1, 1) and the matrix (a 0 0 / 0 b 0 / p q 1),
// destination (x, y) samples (a (x - 1) + p + 1, b (y - 1) + q + 1). That hits
// whole pixels, negative ones, the bitmap's edges and just past them, where
// the weights and the bounds tests have their corner cases.
void DrawGridSettings(Rng& rng, BarrelDistortionParams& p, int32_t width, int32_t height) {
  const double steps[] = {0.0, 0.25, -0.25, 0.5, 1.0, -1.0, 1.25, 0.125, 2.0};
  const double oddOffsets[] = {-1e-300, 1e-300, -1e-17, -0.0, 1e17, -1e17, kInf, -kInf, kNaN};
  auto offset = [&](int32_t size) {
    if (Chance(rng, 0.15)) return PickFrom(rng, oddOffsets);
    return Uniform(rng, -2 * size - 8, 2 * size + 8) * 0.25 - 1.0;
  };
  const double a = PickFrom(rng, steps);
  const double b = PickFrom(rng, steps);
  const double cells[9] = {a, 0.0, 0.0, 0.0, b, 0.0, offset(width), offset(height), 1.0};
  std::memcpy(p.keystone, cells, sizeof cells);
  p.distortion = 0.0;
  p.distortionPlusOne = 1.0;
  p.centerX = 1.0;
  p.centerY = 1.0;
}

// ---- bitmaps ----------------------------------------------------------------------

struct Layout {
  int32_t width, height, sampleBytes, channels;
  int32_t srcPixelBytes, dstPixelBytes, srcRowBytes, dstRowBytes;
};

int32_t DrawSide(Rng& rng, int32_t largest) {
  const int32_t small[] = {0, 1, 1, 2, 3, 4, 5};
  return Chance(rng, 0.25) ? PickFrom(rng, small) : Uniform(rng, 0, largest);
}

Layout DrawLayout(Rng& rng, int32_t largestWidth) {
  Layout l{};
  l.width = Chance(rng, 0.03) ? Uniform(rng, -3, -1) : DrawSide(rng, largestWidth);
  l.height = DrawSide(rng, 64);
  l.sampleBytes = Chance(rng, 0.5) ? 1 : 2;
  l.channels = Uniform(rng, 1, 8);
  l.srcPixelBytes = l.channels * l.sampleBytes;
  // 16-bit pixels may carry an odd byte, which is neither read nor written.
  if (l.sampleBytes == 2 && Chance(rng, 0.1)) ++l.srcPixelBytes;
  l.dstPixelBytes = l.srcPixelBytes + (Chance(rng, 0.2) ? Uniform(rng, 1, 3) : 0);
  const int32_t columns = std::max(l.width, 0);
  l.srcRowBytes = columns * l.srcPixelBytes + Uniform(rng, 0, 7);
  l.dstRowBytes = columns * l.dstPixelBytes + Uniform(rng, 0, 7);
  return l;
}

std::vector<uint8_t> RandomBytes(Rng& rng, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

// Samples that are mostly all 0 or all the maximum, for blends at the range's ends.
void MakeExtreme(Rng& rng, std::vector<uint8_t>& bytes) {
  const uint8_t fill = Chance(rng, 0.5) ? 0x00 : 0xFF;
  for (uint8_t& b : bytes)
    if (Chance(rng, 0.7)) b = fill;
}

// A whole run: its block, destination and the part ranges it is cut into.
// The source is sized exactly, so a read past it shows under the sanitizers.
struct KernelRun {
  BarrelDistortionParams params{};
  std::vector<uint8_t> dst;
  std::vector<MPParamBlock> parts;
};

std::vector<MPParamBlock> DrawParts(Rng& rng, int32_t height) {
  std::vector<int32_t> cuts{0, height};
  const int extraCuts = Uniform(rng, 0, 3);
  for (int i = 0; i < extraCuts; ++i) cuts.push_back(Uniform(rng, 0, height));
  std::sort(cuts.begin(), cuts.end());
  std::vector<MPParamBlock> parts;
  for (size_t i = 0; i + 1 < cuts.size(); ++i) parts.push_back(MPParamBlock{cuts[i], cuts[i + 1], 0, {}, nullptr});
  if (Chance(rng, 0.1)) parts.push_back(MPParamBlock{height, height / 2, 0, {}, nullptr});  // reversed: empty
  std::shuffle(parts.begin(), parts.end(), rng);
  return parts;
}

KernelRun MakeRun(Rng& rng, const Layout& l, std::vector<uint8_t>& source) {
  KernelRun run;
  const std::vector<uint8_t> garbage = RandomBytes(rng, sizeof run.params);
  std::memcpy(static_cast<void*>(&run.params), garbage.data(), sizeof run.params);  // fields never read stay garbage
  run.dst = RandomBytes(rng, static_cast<size_t>(l.dstRowBytes) * l.height);
  GenericMPParams& head = run.params.head;
  head.width = l.width;
  head.height = l.height;
  head.progress = 0;
  head.cancel = Chance(rng, 0.1) ? 1 : 0;
  head.srcPixels = source.data();
  head.dstPixels = run.dst.data();
  head.srcRowBytes = l.srcRowBytes;
  head.dstRowBytes = l.dstRowBytes;
  head.srcPixelBytes = l.srcPixelBytes;
  head.dstPixelBytes = l.dstPixelBytes;
  run.parts = DrawParts(rng, l.height);
  return run;
}

void DrawSettings(Rng& rng, BarrelDistortionParams& p, const Layout& l) {
  const int kind = Uniform(rng, 0, 9);
  if (kind < 6)
    DrawEffectSettings(rng, p, l.width, l.height);
  else if (kind < 8)
    DrawGridSettings(rng, p, l.width, l.height);
  else
    DrawArbitrarySettings(rng, p);
}

using PartFn = void* (*)(void*);

struct KernelPair {
  PartFn reference;
  PartFn fast;
};

KernelPair KernelsFor(int sampleBytes, bool bilinear) {
  if (sampleBytes == 1)
    return bilinear ? KernelPair{rawfx::reference::BarrelDistortInterpolate8BitPart, BarrelDistortInterpolate8BitPart}
                    : KernelPair{rawfx::reference::BarrelDistort8BitPart, BarrelDistort8BitPart};
  return bilinear ? KernelPair{rawfx::reference::BarrelDistortInterpolate16BitPart, BarrelDistortInterpolate16BitPart}
                  : KernelPair{rawfx::reference::BarrelDistort16BitPart, BarrelDistort16BitPart};
}

// Runs every part. Copies of a run share nothing, so the block and the
// destination are pointed at this run's own first.
void Execute(KernelRun& run, PartFn part) {
  run.params.head.dstPixels = run.dst.data();
  for (MPParamBlock& block : run.parts) {
    block.params = &run.params;
    part(&block);
  }
}

// ---- comparing ----------------------------------------------------------------------

std::string Describe(const Layout& l, const BarrelDistortionParams& p, bool bilinear, bool scalar) {
  char text[512];
  std::snprintf(text, sizeof text,
                "%dx%d, %d-bit, %d channels, pixel %d/%d, rows %d/%d, %s; distortion %.17g (+1: %.17g), "
                "centre %.17g %.17g, matrix %.17g %.17g %.17g / %.17g %.17g %.17g / %.17g %.17g %.17g; %s path",
                l.width, l.height, l.sampleBytes * 8, l.channels, l.srcPixelBytes, l.dstPixelBytes, l.srcRowBytes,
                l.dstRowBytes, bilinear ? "bilinear" : "nearest", p.distortion, p.distortionPlusOne, p.centerX,
                p.centerY, p.keystone[0], p.keystone[1], p.keystone[2], p.keystone[3], p.keystone[4], p.keystone[5],
                p.keystone[6], p.keystone[7], p.keystone[8], scalar ? "portable" : "AVX2");
  return text;
}

// Restores the dispatch even when an assertion returns early.
struct ScalarPath {
  explicit ScalarPath(bool scalar) { rawfx::cpu::ForceScalar(scalar); }
  ~ScalarPath() { rawfx::cpu::ForceScalar(false); }
};

// Everything but progress is read-only for the kernels.
void ExpectBlockUnchanged(const BarrelDistortionParams& before, const BarrelDistortionParams& after,
                          const std::string& what) {
  BarrelDistortionParams expected = before;
  expected.head.progress = after.head.progress;
  expected.head.dstPixels = after.head.dstPixels;
  ASSERT_EQ(std::memcmp(&expected, &after, sizeof expected), 0) << "the block was written; " << what;
}

// One random case, run by the reference and by the fast kernels on both paths.
void CheckRandomCase(Rng& rng, int32_t largestWidth) {
  const Layout l = DrawLayout(rng, largestWidth);
  std::vector<uint8_t> source = RandomBytes(rng, static_cast<size_t>(l.srcRowBytes) * l.height);
  if (Chance(rng, 0.15)) MakeExtreme(rng, source);
  KernelRun original = MakeRun(rng, l, source);
  DrawSettings(rng, original.params, l);
  const bool bilinear = Chance(rng, 0.5);
  const KernelPair kernels = KernelsFor(l.sampleBytes, bilinear);

  KernelRun expected = original;
  Execute(expected, kernels.reference);
  for (bool scalar : {false, true}) {
    const ScalarPath path(scalar);
    KernelRun actual = original;
    Execute(actual, kernels.fast);
    const std::string what = Describe(l, original.params, bilinear, scalar);
    ASSERT_EQ(actual.dst, expected.dst) << what;
    ASSERT_EQ(actual.params.head.progress, expected.params.head.progress) << what;
    for (size_t i = 0; i < actual.parts.size(); ++i) ASSERT_EQ(actual.parts[i].done, 1) << what;
    ASSERT_NO_FATAL_FAILURE(ExpectBlockUnchanged(original.params, actual.params, what));
  }
}

TEST(BarrelDifferential, RandomCasesMatchTheReference) {
  Rng rng(0xBA44E1001);
  for (int i = 0; i < 10000; ++i) ASSERT_NO_FATAL_FAILURE(CheckRandomCase(rng, 64)) << "case " << i;
}

// Rows longer than one planned chunk of pixels, up to several chunks and a
// ragged last one.
TEST(BarrelDifferential, LongRowsMatchTheReference) {
  Rng rng(0xBA44E1002);
  for (int i = 0; i < 1000; ++i) ASSERT_NO_FATAL_FAILURE(CheckRandomCase(rng, 300)) << "case " << i;
}

// The effect's usual settings on bigger bitmaps in the common pixel layouts,
// whose copies and blends are compiled apart.
TEST(BarrelDifferential, UsualLayoutsOnLargerBitmapsMatch) {
  Rng rng(0xBA44E1003);
  const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}};
  for (auto [width, height] : sizes) {
    for (int sampleBytes : {1, 2}) {
      for (int channels : {3, 4}) {
        for (bool bilinear : {false, true}) {
          const int32_t pixelBytes = channels * sampleBytes;
          const Layout l{width, height, sampleBytes, channels, pixelBytes, pixelBytes, width * pixelBytes,
                         width * pixelBytes + 24};
          std::vector<uint8_t> source = RandomBytes(rng, static_cast<size_t>(l.srcRowBytes) * height);
          KernelRun expected = MakeRun(rng, l, source);
          expected.params.head.cancel = 0;
          SetMatrix(expected.params, UniformReal(rng, -0.3, 0.3), UniformReal(rng, -0.3, 0.3));
          expected.params.distortion = UniformReal(rng, -0.6, 1.5);
          expected.params.distortionPlusOne = expected.params.distortion + 1.0;
          expected.params.centerX = width * 0.5;
          expected.params.centerY = height * 0.5;
          KernelRun actual = expected;
          const KernelPair kernels = KernelsFor(sampleBytes, bilinear);
          Execute(expected, kernels.reference);
          Execute(actual, kernels.fast);
          EXPECT_EQ(actual.dst, expected.dst) << Describe(l, expected.params, bilinear, false);
        }
      }
    }
  }
}

// Pixel (0, 0) has nx = ny = -1 and r = 1 for every finite non-zero centre,
// so with the matrix (-a 0 0 / 0 -b 0 / 0 0 1) it samples ((a + 1) cx, (b + 1) cy).
// Picks a and the centre for which that is exactly t.
struct Position {
  double x, y;
};

struct ExactCoordinate {
  double factor;  // a
  double centre;
};

ExactCoordinate ExactlyAt(double t) {
  if (t == 0.0) return {-1.0, std::signbit(t) ? -1.0 : 1.0};  // (-1 + 1) * -1 is -0
  if (!std::isfinite(t)) return {t, 1.0};
  return {1.0, t / 2.0};  // 2 * (t / 2) is t for the normal values used here
}

// The position of pixel (0, 0) as the kernels compute it, to prove the
// construction above.
Position FirstPixelPosition(const BarrelDistortionParams& p) {
  const double* k = p.keystone;
  const double nx = (0.0 - p.centerX) / p.centerX;
  const double ny = (0.0 - p.centerY) / p.centerY;
  const double r = ((nx * nx + ny * ny) * p.distortion + 1.0) / p.distortionPlusOne;
  const double u = nx * r, v = ny * r;
  const double X = u * k[k00] + v * k[k10] + k[k20];
  const double Y = u * k[k01] + v * k[k11] + k[k21];
  const double W = u * k[k02] + v * k[k12] + k[k22];
  return {(X / W + 1.0) * p.centerX, (Y / W + 1.0) * p.centerY};
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b)); }

// The AVX2 weights are s - trunc(s) with the sign of s in place of fmod(s, 1),
// and the bounds are vector compares. This puts pixel (0, 0) of a 5 x 5 bitmap
// exactly on the positions where those have their corner cases: whole pixels
// of either sign, tiny negatives whose weight rounds to 1, the last column and
// just past it, 2^53, huge values, infinities and NaN.
TEST(BarrelDifferential, CornerCasePositionsMatch) {
  const double coordinates[] = {0.0,     -0.0,  -1.0,    -2.0,   -0.75, -0.25, -1e-300, -2.2250738585072014e-308,
                                1e-300,  0.5,   1.0,     2.75,   4.0,   4.5,   4.75,    5.0,
                                -5.551115123125783e-17, 5.551115123125783e-17, 3.9999999999999996,
                                4.000000000000001, 9007199254740992.0, -9007199254740992.0, 1e300, -1e300,
                                kInf, -kInf, kNaN};
  Rng rng(0xBA44E1004);
  for (int sampleBytes : {1, 2}) {
    const Layout l{5, 5, sampleBytes, 3, 3 * sampleBytes, 3 * sampleBytes, 15 * sampleBytes, 15 * sampleBytes};
    std::vector<uint8_t> source = RandomBytes(rng, static_cast<size_t>(l.srcRowBytes) * l.height);
    for (bool bilinear : {false, true}) {
      const KernelPair kernels = KernelsFor(sampleBytes, bilinear);
      for (double sx : coordinates) {
        for (double sy : {-0.5, 0.0, 2.25, 4.0, 4.5, sx}) {
          KernelRun expected = MakeRun(rng, l, source);
          expected.params.head.cancel = 0;
          const ExactCoordinate x = ExactlyAt(sx), y = ExactlyAt(sy);
          const double cells[9] = {-x.factor, 0.0, 0.0, 0.0, -y.factor, 0.0, 0.0, 0.0, 1.0};
          std::memcpy(expected.params.keystone, cells, sizeof cells);
          expected.params.distortion = 0.0;
          expected.params.distortionPlusOne = 1.0;
          expected.params.centerX = x.centre;
          expected.params.centerY = y.centre;
          const Position at = FirstPixelPosition(expected.params);
          ASSERT_TRUE(SameBits(at.x, sx) && SameBits(at.y, sy)) << at.x << ", " << at.y << " for " << sx << ", " << sy;
          const KernelRun original = expected;
          Execute(expected, kernels.reference);
          for (bool scalar : {false, true}) {
            const ScalarPath path(scalar);
            KernelRun actual = original;
            Execute(actual, kernels.fast);
            ASSERT_EQ(actual.dst, expected.dst)
                << "pixel (0, 0) at " << sx << ", " << sy << "; " << Describe(l, original.params, bilinear, scalar);
          }
        }
      }
    }
  }
}

}  // namespace
