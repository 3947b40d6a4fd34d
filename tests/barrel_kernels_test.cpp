// The barrel distortion part functions. One table pins the reference (and the
// shipped kernels) to documented source positions, truncation and the blends
// with the background at the edges; random cases (the effect's matrix form and
// hand-built ones, with NaN, infinities and extremes) then demand that the fast
// kernels leave every byte, progress and done as the reference does, on
// every path.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "effects/barrel/barrel_kernels.h"
#include "support/references.h"
#include "support/differential.h"

namespace {

using namespace BarrelKeystone;
using namespace rawfx::test;
using BarrelCase = KernelCase<BarrelDistortionParams>;

// The fast part functions by depth (8, 16 bits) and sampling (nearest, bilinear).
const PartFunction kFast[2][2] = {{BarrelDistort8BitPart, BarrelDistortInterpolate8BitPart},
                                  {BarrelDistort16BitPart, BarrelDistortInterpolate16BitPart}};

// The block's matrix (row by row), distortion, distortion + 1 and centre.
void SetBlock(BarrelDistortionParams& p, const std::array<double, 9>& matrix, double distortion, double cx, double cy) {
  std::copy(matrix.begin(), matrix.end(), p.keystone);
  p.distortion = distortion;
  p.distortionPlusOne = distortion + 1.0;
  p.centerX = cx;
  p.centerY = cy;
}

// The block as the effect fills it (the keystone matrix form, centre at half
// the size), k20 moved by `shift` pixels (exactly, for these sizes), on a
// 16-bit source whose pixel (x, y) holds 256x and 256y. The background holds
// 256 width and 256 height: it reads as the column and row just past the
// bitmap. A result reads back as 256 times the position sampled.
TEST(BarrelKernels, PixelsSampleTheDocumentedPositions) {
  const struct {
    int width, height;
    double distortion, horizontal, vertical, shift;
    bool bilinear;
    int x, y;
    double sx, sy;  // kOutside: the background
  } cases[] = {
      {200, 100, 1, 0, 0, 0, true, 150, 75, 137.5, 68.75},
      {200, 100, 1, 0, 0, 0, true, 0, 0, kOutside, kOutside},  // (-50, -25)
      {200, 100, 0, 0.5, 0, 0, false, 0, 25, 0, 0},
      {200, 100, 0, 0, 0.5, 0, false, 100, 0, 100, 0},
      // Column 1 of 10 maps to 0.9999999999999998: truncated, never rounded,
      // and blended with that weight.
      {10, 4, 0, 0, 0, 0, false, 1, 0, 0, 0},
      {10, 4, 0, 0, 0, 0, true, 1, 0, 255 / 256.0, 0},
      {8, 4, 0, 0, 0, 0, false, 7, 2, 7, 2},                  // the last column exactly is inside
      {8, 4, 0, 0, 0, 0.5, false, 7, 2, kOutside, kOutside},  // 7.5 lies past width - 1
      {8, 4, 0, 0, 0, 0.5, true, 7, 2, 7.5, 3},               // half (7, 2), half the background (8, 4)
      {8, 4, 0, 0, 0, -0.25, false, 0, 1, kOutside, kOutside},
      {8, 4, 0, 0, 0, -0.25, true, 0, 1, 2, 1.75},  // a quarter of the background (8, 4) over (0, 1)
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Describe(c.width, "x", c.height, ", ", c.distortion, "/", c.horizontal, "/", c.vertical, " shift ",
                          c.shift, c.bilinear ? " bilinear " : " nearest ", c.x, ",", c.y));
    BarrelCase k;
    k.Block(c.width, c.height, 2, 2, 0, [](int32_t x, int32_t y, int channel) { return 256u * (channel ? y : x); });
    SetBlock(k.params, {1.0, 0.0, c.horizontal, 0.0, 1.0, c.vertical, c.horizontal, c.vertical, 1.0}, c.distortion,
             c.width * 0.5, c.height * 0.5);
    k.params.keystone[k20] += c.shift / k.params.centerX;
    for (int ch : {0, 1}) k.params.backColor16[ch] = static_cast<uint16_t>(256 * (ch ? c.height : c.width));
    k.Use(rawfx::reference::kBarrelParts, kFast, c.bilinear);
    k.parts.ranges = {{c.y, c.y + 1}};
    const Outcome out = CheckedRun(k);
    EXPECT_EQ(k.Result(out, c.x, c.y, 0), 256 * (std::isnan(c.sx) ? c.width : c.sx));
    EXPECT_EQ(k.Result(out, c.x, c.y, 1), 256 * (std::isnan(c.sy) ? c.height : c.sy));
  }
}

// ---- the fast kernels against the reference ----------------------------------------

// The block's settings by kind. 0 .. 5: as the effect fills it, the keystone
// matrix form, the centre of the bitmap and distortion + 1 (mild: the
// effect's usual settings). 6, 7: positions on a grid of quarter (or other
// binary fraction) pixels, exactly: with distortion 0, centre (1, 1) and the
// matrix (a 0 0 / 0 b 0 / p q 1), destination (x, y) samples
// (a (x - 1) + p + 1, b (y - 1) + q + 1). That hits whole pixels, negative
// ones, the bitmap's edges and just past them, where the weights and the
// bounds tests have their corner cases. 8, 9: any matrix and centre, as the
// kernels would take them.
void RandomSettings(Rng& rng, BarrelDistortionParams& p, const Layout& l, int64_t kind, bool mild) {
  if (kind < 6) {
    auto keystone = [&] {
      if (mild) return UniformReal(rng, -0.3, 0.3);
      return Chance(rng, 0.4) ? 0.0 : RandomDouble(rng, 0.3, -1.0, 1.0, {0.5, -0.5, 1.0, -1.0});
    };
    const double horizontal = keystone(), vertical = keystone();
    const double distortion = mild ? UniformReal(rng, -0.6, 1.5)
                                   : RandomDouble(rng, 0.35, -1.0, 3.0, {1e-17, -1.0, -1.0 + 1e-16, 1e6, -1e6});
    SetBlock(p, {1.0, 0.0, horizontal, 0.0, 1.0, vertical, horizontal, vertical, 1.0}, distortion, l.width * 0.5,
             l.height * 0.5);
  } else if (kind < 8) {
    const double steps[] = {0.0, 0.25, -0.25, 0.5, 1.0, -1.0, 1.25, 0.125, 2.0};
    auto offset = [&](int32_t size) {
      if (Chance(rng, 0.15)) return RandomDouble(rng, 1.0, 0.0, 0.0, {-1e-17, 1e17, -1e17});
      return static_cast<double>(Uniform(rng, -2 * int64_t{size} - 8, 2 * int64_t{size} + 8)) * 0.25 - 1.0;
    };
    const double a = PickFrom(rng, steps), b = PickFrom(rng, steps);
    SetBlock(p, {a, 0.0, 0.0, 0.0, b, 0.0, offset(l.width), offset(l.height), 1.0}, 0.0, 1.0, 1.0);
  } else {
    for (double& cell : p.keystone) cell = RandomDouble(rng, 0.15, -2.0, 2.0, {1.0, -1.0});
    p.distortion = RandomDouble(rng, 0.35, -1.0, 3.0, {-1.0});
    p.distortionPlusOne = Chance(rng, 0.8) ? p.distortion + 1.0 : RandomDouble(rng, 0.35, -1.0, 3.0, {0.0});
    p.centerX = RandomDouble(rng, 0.2, 0.0, 40.0, {0.5, 1.0, 17.25, -3.0});
    p.centerY = RandomDouble(rng, 0.2, 0.0, 40.0, {0.5, 1.0, 17.25, -3.0});
  }
}

// The source is sized exactly, so a read past it shows under the sanitizers;
// the fields of the block the kernels never read hold garbage.
BarrelCase NewCase(Rng& rng, const Layout& l, bool bilinear) {
  BarrelCase c;
  c.l = l;
  c.source = RandomBytes(rng, static_cast<size_t>(l.srcRowBytes) * std::max(l.height, 0), true);
  c.destination = RandomBytes(rng, static_cast<size_t>(l.dstRowBytes) * std::max(l.height, 0) + 16);
  Scramble(rng, c.params);
  c.Use(rawfx::reference::kBarrelParts, kFast, bilinear);
  return c;
}

// Pixel (0, 0) of a 5 x 5 bitmap exactly on the n-th of the positions where
// the AVX2 weights (s - trunc(s) with the sign of s in place of fmod(s, 1))
// and the vector bounds compares have their corner cases: whole pixels of
// either sign, tiny negatives whose weight rounds to 1, the last column and
// just past it, 2^53, huge values, infinities and NaN; at both depths, nearest
// and bilinear.
BarrelCase CornerCase(Rng& rng, int n) {
  const double coordinates[] = {0.0, -0.0, -1.0, -2.0, -0.75, -0.25, -1e-300, -2.2250738585072014e-308, 1e-300, 0.5,
                                1.0, 2.75, 4.0, 4.5, 4.75, 5.0, -5.551115123125783e-17, 5.551115123125783e-17,
                                3.9999999999999996, 4.000000000000001, 9007199254740992.0, -9007199254740992.0, 1e300,
                                -1e300, kInf, -kInf, kNaN};
  const double sx = coordinates[n % 27], rows[] = {-0.5, 0.0, 2.25, 4.0, 4.5, sx}, sy = rows[n / 27 % 6];
  BarrelCase c = NewCase(rng, PackedLayout(5, 5, n / 162 % 2 + 1, 3), n / 324 % 2);
  // Pixel (0, 0) has nx = ny = -1 and r = 1 for every finite non-zero centre,
  // so with distortion 0 and the matrix (-a 0 0 / 0 -b 0 / 0 0 1) it samples
  // ((a + 1) cx, (b + 1) cy). The factor and centre that make that exactly t:
  auto exactlyAt = [](double t) -> std::pair<double, double> {
    if (t == 0.0) return {-1.0, std::signbit(t) ? -1.0 : 1.0};  // (-1 + 1) * -1 is -0
    if (!std::isfinite(t)) return {t, 1.0};
    return {1.0, t / 2.0};  // 2 * (t / 2) is t for the normal values used here
  };
  const auto [a, cx] = exactlyAt(sx);
  const auto [b, cy] = exactlyAt(sy);
  SetBlock(c.params, {-a, 0.0, 0.0, 0.0, -b, 0.0, 0.0, 0.0, 1.0}, 0.0, cx, cy);
  return c;
}

// Some cases have rows longer than one planned chunk of pixels, up to several
// chunks and a ragged last one. Every 200th is a bigger bitmap in a common
// layout (their copies and blends are compiled apart) with the effect's usual
// settings; every 18th the next corner case, so that each of them comes up.
BarrelCase RandomCase(Rng& rng, int index) {
  const bool big = index % 200 == 7, corner = index % 18 == 17;
  Layout l = RandomLayout(rng, 300, true);
  if (big) {
    // 4103 columns: more than a part keeps the columns' terms of.
    const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}, {4103, 5}};
    const auto [width, height] = PickFrom(rng, sizes);
    l = PackedLayout(width, height, Chance(rng, 0.5) ? 1 : 2, Chance(rng, 0.5) ? 3 : 4);
    l.dstRowBytes += 24;
  }
  BarrelCase c = corner ? CornerCase(rng, index / 18) : NewCase(rng, l, Chance(rng, 0.5));
  if (!corner) RandomSettings(rng, c.params, l, big ? 0 : Uniform(rng, 0, 9), big);
  const BarrelDistortionParams& p = c.params;
  c.settings = Describe(c.fast == BarrelDistort8BitPart || c.fast == BarrelDistort16BitPart ? "nearest" : "bilinear",
                        ", distortion ", p.distortion, " (+1: ", p.distortionPlusOne, "), centre ", p.centerX, " ",
                        p.centerY, ", matrix by rows");
  for (double cell : p.keystone) c.settings += Describe(" ", cell);
  return c;
}

TEST(BarrelDifferential, RandomCasesMatchTheReference) { CheckRandomCases(0xBA44E1001, 11664, RandomCase); }

}  // namespace
