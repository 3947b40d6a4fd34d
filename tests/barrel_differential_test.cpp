// The fast barrel kernels against the plain reference kernels: random bitmaps,
// layouts, settings (the effect's own matrix form and hand-built ones, with
// NaN, infinities and extremes), part splits and cancels, on the AVX2 path and
// the portable one. Every byte of memory, padding included, the progress
// count, every part's done flag and the untouched block must be the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <sstream>
#include <tuple>

#include "effects/barrel/barrel_kernels.h"
#include "support/barrel_reference.h"
#include "support/differential.h"

namespace {

using namespace rawfx::test;

void SetMatrix(BarrelDistortionParams& p, const std::array<double, 9>& cells) {
  std::copy(cells.begin(), cells.end(), p.keystone);
}

// As the effect fills the block: the keystone matrix form, the centre of the
// bitmap and distortion + 1. Mild settings are the effect's usual ones.
void EffectSettings(Rng& rng, BarrelDistortionParams& p, const Layout& l, bool mild) {
  auto keystone = [&] {
    if (mild) return UniformReal(rng, -0.3, 0.3);
    return Chance(rng, 0.4) ? 0.0 : RandomDouble(rng, 0.3, -1.0, 1.0, {0.5, -0.5, 1.0, -1.0});
  };
  const double horizontal = keystone(), vertical = keystone();
  SetMatrix(p, {1.0, 0.0, horizontal, 0.0, 1.0, vertical, horizontal, vertical, 1.0});
  p.distortion = mild ? UniformReal(rng, -0.6, 1.5)
                      : RandomDouble(rng, 0.35, -1.0, 3.0, {1e-17, -1.0, -1.0 + 1e-16, 1e6, -1e6});
  p.distortionPlusOne = p.distortion + 1.0;
  p.centerX = l.width * 0.5;
  p.centerY = l.height * 0.5;
}

// Any matrix and centre, as the kernels would take them.
void ArbitrarySettings(Rng& rng, BarrelDistortionParams& p) {
  for (double& cell : p.keystone) cell = RandomDouble(rng, 0.15, -2.0, 2.0, {1.0, -1.0});
  p.distortion = RandomDouble(rng, 0.35, -1.0, 3.0, {-1.0});
  p.distortionPlusOne = Chance(rng, 0.8) ? p.distortion + 1.0 : RandomDouble(rng, 0.35, -1.0, 3.0, {0.0});
  p.centerX = RandomDouble(rng, 0.2, 0.0, 40.0, {0.5, 1.0, 17.25, -3.0});
  p.centerY = RandomDouble(rng, 0.2, 0.0, 40.0, {0.5, 1.0, 17.25, -3.0});
}

// Positions on a grid of quarter (or other binary fraction) pixels, exactly:
// with distortion 0, centre (1, 1) and the matrix (a 0 0 / 0 b 0 / p q 1),
// destination (x, y) samples (a (x - 1) + p + 1, b (y - 1) + q + 1). That hits
// whole pixels, negative ones, the bitmap's edges and just past them, where
// the weights and the bounds tests have their corner cases.
void GridSettings(Rng& rng, BarrelDistortionParams& p, const Layout& l) {
  const double steps[] = {0.0, 0.25, -0.25, 0.5, 1.0, -1.0, 1.25, 0.125, 2.0};
  auto offset = [&](int32_t size) {
    if (Chance(rng, 0.15)) return RandomDouble(rng, 1.0, 0.0, 0.0, {-1e-17, 1e17, -1e17});
    return static_cast<double>(Uniform(rng, -2 * int64_t{size} - 8, 2 * int64_t{size} + 8)) * 0.25 - 1.0;
  };
  const double a = PickFrom(rng, steps), b = PickFrom(rng, steps);
  SetMatrix(p, {a, 0.0, 0.0, 0.0, b, 0.0, offset(l.width), offset(l.height), 1.0});
  p.distortion = 0.0;
  p.distortionPlusOne = 1.0;
  p.centerX = p.centerY = 1.0;
}

using BarrelCase = KernelCase<BarrelDistortionParams>;

// The reference and the fast kernel by [16-bit][bilinear].
const std::pair<PartFunction, PartFunction> kParts[2][2] = {
    {{rawfx::reference::BarrelDistort8BitPart, BarrelDistort8BitPart},
     {rawfx::reference::BarrelDistortInterpolate8BitPart, BarrelDistortInterpolate8BitPart}},
    {{rawfx::reference::BarrelDistort16BitPart, BarrelDistort16BitPart},
     {rawfx::reference::BarrelDistortInterpolate16BitPart, BarrelDistortInterpolate16BitPart}}};

// The source is sized exactly, so a read past it shows under the sanitizers;
// the fields of the block the kernels never read hold garbage.
BarrelCase NewCase(Rng& rng, const Layout& l, bool bilinear) {
  BarrelCase c;
  c.l = l;
  c.source = RandomSamples(rng, static_cast<size_t>(l.srcRowBytes) * std::max(l.height, 0));
  c.destination = RandomBytes(rng, static_cast<size_t>(l.dstRowBytes) * std::max(l.height, 0) + 16);
  Scramble(rng, c.params);
  std::tie(c.reference, c.fast) = kParts[l.sampleBytes == 2][bilinear];
  c.parts = RandomParts(rng, l.height);
  return c;
}

// Names the settings for failure messages, once they are made.
void NameSettings(BarrelCase& c) {
  const BarrelDistortionParams& p = c.params;
  std::ostringstream s;
  s.precision(17);
  s << (c.fast == BarrelDistort8BitPart || c.fast == BarrelDistort16BitPart ? "nearest" : "bilinear")
    << ", distortion " << p.distortion << " (+1: " << p.distortionPlusOne << "), centre " << p.centerX << " "
    << p.centerY << ", matrix";
  for (double cell : p.keystone) s << " " << cell;
  c.settings = s.str();
}

// Some cases have rows longer than one planned chunk of pixels, up to several
// chunks and a ragged last one. Every 200th is a bigger bitmap in a common
// layout (their copies and blends are compiled apart) with the effect's usual
// settings.
BarrelCase RandomCase(Rng& rng, int index) {
  if (index % 200 == 7) {
    // 4103 columns: more than a part keeps the columns' terms of.
    const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}, {4103, 5}};
    const auto [width, height] = PickFrom(rng, sizes);
    Layout l = PackedLayout(width, height, Chance(rng, 0.5) ? 1 : 2, Chance(rng, 0.5) ? 3 : 4);
    l.dstRowBytes += 24;
    BarrelCase c = NewCase(rng, l, Chance(rng, 0.5));
    EffectSettings(rng, c.params, l, true);
    NameSettings(c);
    return c;
  }
  const Layout l = RandomLayout(rng, 300, true);
  BarrelCase c = NewCase(rng, l, Chance(rng, 0.5));
  const int64_t kind = Uniform(rng, 0, 9);
  if (kind < 6)
    EffectSettings(rng, c.params, l, false);
  else if (kind < 8)
    GridSettings(rng, c.params, l);
  else
    ArbitrarySettings(rng, c.params);
  NameSettings(c);
  return c;
}

TEST(BarrelDifferential, RandomCasesMatchTheReference) { CheckRandomCases(0xBA44E1001, 11000, RandomCase); }

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b)); }

// The AVX2 weights are s - trunc(s) with the sign of s in place of fmod(s, 1),
// and the bounds are vector compares. This puts pixel (0, 0) of a 5 x 5 bitmap
// exactly on the positions where those have their corner cases: whole pixels
// of either sign, tiny negatives whose weight rounds to 1, the last column and
// just past it, 2^53, huge values, infinities and NaN.
TEST(BarrelDifferential, CornerCasePositionsMatch) {
  const double coordinates[] = {0.0, -0.0, -1.0, -2.0, -0.75, -0.25, -1e-300, -2.2250738585072014e-308, 1e-300, 0.5,
                                1.0, 2.75, 4.0, 4.5, 4.75, 5.0, -5.551115123125783e-17, 5.551115123125783e-17,
                                3.9999999999999996, 4.000000000000001, 9007199254740992.0, -9007199254740992.0, 1e300,
                                -1e300, kInf, -kInf, kNaN};
  // Pixel (0, 0) has nx = ny = -1 and r = 1 for every finite non-zero centre,
  // so with distortion 0 and the matrix (-a 0 0 / 0 -b 0 / 0 0 1) it samples
  // ((a + 1) cx, (b + 1) cy). The factor and centre that make that exactly t:
  auto exactlyAt = [](double t) -> std::pair<double, double> {
    if (t == 0.0) return {-1.0, std::signbit(t) ? -1.0 : 1.0};  // (-1 + 1) * -1 is -0
    if (!std::isfinite(t)) return {t, 1.0};
    return {1.0, t / 2.0};  // 2 * (t / 2) is t for the normal values used here
  };
  Rng rng(0xBA44E1004);
  for (int sampleBytes : {1, 2}) {
    for (bool bilinear : {false, true}) {
      for (double sx : coordinates) {
        for (double sy : {-0.5, 0.0, 2.25, 4.0, 4.5, sx}) {
          BarrelCase c = NewCase(rng, PackedLayout(5, 5, sampleBytes, 3), bilinear);
          c.parts.ranges = {{0, 5}};
          const auto [a, cx] = exactlyAt(sx);
          const auto [b, cy] = exactlyAt(sy);
          ASSERT_TRUE(SameBits((a + 1.0) * cx, sx) && SameBits((b + 1.0) * cy, sy)) << sx << ", " << sy;
          SetMatrix(c.params, {-a, 0.0, 0.0, 0.0, -b, 0.0, 0.0, 0.0, 1.0});
          c.params.distortion = 0.0;
          c.params.distortionPlusOne = 1.0;
          c.params.centerX = cx;
          c.params.centerY = cy;
          NameSettings(c);
          ASSERT_TRUE(MatchesReference(c));
        }
      }
    }
  }
}

}  // namespace
