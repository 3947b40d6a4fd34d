// The polar coordinate mapping and its part functions. Hand-built blocks pin
// the reference (and the shipped kernels) to documented positions, positions
// off the source, blends and borders; random cases then demand that the fast
// kernels leave every byte, the progress count and every done flag as the
// reference does, with and without a column or ray table (matching or stale),
// also for sources too large to address, on every path.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

#include "effects/polar/polar_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "support/differential.h"
#include "support/references.h"

namespace {

using namespace rawfx::test;
using PolarCase = KernelCase<PolarCoordinatesParams>;

constexpr double kTwoPi = 6.283185307179586;

// The fast part functions by depth (8, 16 bits), as one variant.
const PartFunction kFast[2][2] = {{PolarCoordinatesPart, PolarCoordinatesPart},
                                  {PolarCoordinatesPart16, PolarCoordinatesPart16}};

// The effect's options (or others where a case changes them), with the
// geometry that a part fills in.
PolarizeSettings Options(int width, int height, bool toPolar, bool flip, double roundness = 100.0,
                         uint8_t centerAtTop = 1, double angleOffset = 0.0) {
  return {roundness, flip, centerAtTop, toPolar, angleOffset, width, height, (width - 1) * 0.5, (height - 1) * 0.5};
}

// A source of samples `fill` with two guard rows below it and padding, both
// holding 0, that the part must never read.
PolarCase Block(const PolarizeSettings& s, int channels, int sb, int background, uint32_t fill = 0) {
  PolarCase c;
  c.Block(s.width, s.height, sb, channels, 3, [fill](int32_t, int32_t, int) { return fill; });
  c.source.resize(c.source.size() + 2 * c.l.srcRowBytes, 0);
  c.params.settings = s;
  std::fill_n(c.params.backColor8, std::size(c.params.backColor8), static_cast<uint8_t>(background));
  std::fill_n(c.params.backColor16, std::size(c.params.backColor16), static_cast<uint16_t>(background));
  c.Use(rawfx::reference::kPolarParts, kFast);
  return c;
}

// Where the mapping (the shipped one and the reference) sends documented
// positions, then what the parts make of the source there.
TEST(PolarKernels, DocumentedPositionsMapAndBlendAndNothingOutsideIsRead) {
  const struct {
    PolarizeSettings s;
    std::vector<std::array<double, 4>> points;  // x, y and the source position, kOutside off the source
    // Where given, a part over these source samples (x, y, value) and a
    // background of that value leaves expected at the first point: truncation
    // and the background at the borders.
    std::vector<std::array<int, 3>> samples = {};
    int background = 0, expected = 0;
  } mappings[] = {
      // (2, 1) samples (0.0, 2.5): 15.5 truncated; column 1 has weight 0.
      {Options(5, 5, true, true),
       {{2, 1, 0, 2.5}, {2, 2, 1, 0}, {1, 2, 3, 2.5}, {3, 2, 1, 2.5}, {1, 1, 3.5, 2.5 * std::sqrt(2.0)}},
       {{0, 2, 10}, {0, 3, 21}, {1, 2, 200}},
       0,
       15},
      {Options(5, 5, true, false), {{2, 2, 3, 0}, {2, 1, 4, 2.5}, {1, 2, 1, 2.5}}},
      {Options(4, 4, false, true), {{0, 0, 2, 2}, {3, 0, 2, 2}, {1, 2, 3, 2}, {2, 2, 2, 3}, {3, 2, 1, 2}}},
      {Options(4, 4, false, true), {{0, 3, 2, 0.5}, {1, 3, kOutside, kOutside}, {2, 3, kOutside, kOutside}}},
      {Options(4, 4, false, false), {{1, 2, 1, 2}, {2, 3, kOutside, kOutside}, {3, 3, kOutside, kOutside}}},
      // The lower row is outside, so 100 mixes with the background by fy = 1.5 sqrt 3 - 2.5.
      {Options(12, 7, false, true), {{5, 6, 7.5, 3.5 + 1.5 * std::sqrt(3.0)}}, {{7, 6, 100}, {8, 6, 100}}, 200, 109},
      // The right column is the background at weight 0.
      {Options(7, 5, true, false), {{3, 1, 6, 2.5}}, {{6, 2, 40}, {6, 3, 81}}, 255, 60},
      // The options without a property of their own follow their definition.
      {Options(5, 5, true, true, 100.0, 0), {{2, 2, kOutside, kOutside}, {2, 1, 0, 2.5}}},  // distance 0 is row H
      {Options(4, 4, false, true, 100.0, 0), {{0, 3, 2, 1.5}}},
      {Options(5, 5, true, true, 0.0), {{1, 1, 3.5, 2.5}}},  // the radius reaches the corner
      {Options(4, 4, false, true, 100.0, 1, 1.5707963267948966), {{0, 2, 3, 2}}},
      {Options(8, 8, false, true, -1e300), {{1, 5, kOutside, kOutside}}},  // a row beyond 32 bits
      {Options(8, 8, true, true, 100.0, 1, kNaN), {{3, 3, kOutside, kOutside}}},
      // Positions past the border.
      {Options(5, 5, true, true), {{0, 0, kOutside, kOutside}, {4, 2, kOutside, kOutside}, {2, 4, kOutside, kOutside}}},
  };
  for (const auto map : {CalculateUndistortedCoordinates, rawfx::reference::CalculateUndistortedCoordinates})
    for (const auto& c : mappings)
      for (const auto& [x, y, sx, sy] : c.points) {
        SCOPED_TRACE(Describe(map == CalculateUndistortedCoordinates ? "shipped, " : "reference, ", c.s.width, "x",
                              c.s.height, c.s.rectangularToPolar ? " to polar" : " unrolled",
                              c.s.flipMapping ? " flipped" : "", " at ", x, ",", y));
        PolarizeSettings s = c.s;
        double mappedX = -7.0, mappedY = -7.0;  // an outside position leaves them untouched
        const bool inside = map(x, y, &mappedX, &mappedY, &s);
        EXPECT_EQ(inside, !std::isnan(sx));
        EXPECT_DOUBLE_EQ(mappedX, inside ? sx : -7.0);
        EXPECT_DOUBLE_EQ(mappedY, inside ? sy : -7.0);
      }
  for (const auto& c : mappings) {
    if (c.samples.empty()) continue;
    PolarCase k = Block(c.s, 1, 1, c.background);
    for (const auto& [x, y, v] : c.samples) k.SetSource(x, y, 0, static_cast<uint32_t>(v));
    const auto x = static_cast<int32_t>(c.points[0][0]), y = static_cast<int32_t>(c.points[0][1]);
    EXPECT_EQ(k.Result(CheckedRun(k), x, y, 0), static_cast<uint32_t>(c.expected)) << c.s.width << "x" << c.s.height;
  }
  // A constant source under a background of the same value stays that value
  // everywhere, unless a neighbour is read from the guards or the padding, and
  // bitmaps one pixel wide or high are the background throughout.
  for (bool toPolar : {true, false})
    for (bool flip : {true, false})
      for (int sb : {1, 2})
        for (auto [w, h] : {std::pair{12, 7}, {7, 5}, {2, 9}, {9, 2}, {16, 16}, {1, 5}, {5, 1}}) {
          SCOPED_TRACE(Describe(w, "x", h, toPolar ? " to polar " : " unrolled ", flip ? "flipped " : "", 8 * sb));
          const bool thin = w == 1 || h == 1;
          const int unit = sb == 1 ? 1 : 0x101, channels = 2 + sb;  // samples of two equal bytes
          const PolarCase c =
              Block(Options(w, h, toPolar, flip), channels, sb, (thin ? 0x5E : 0xC5) * unit, 0xC5 * unit);
          const Outcome out = CheckedRun(c);
          const auto end = out.memory.begin() + static_cast<std::ptrdiff_t>(c.destination.size());
          EXPECT_EQ(std::count(out.memory.begin(), end, thin ? 0x5E : 0xC5), end - out.memory.begin());
        }
}

// ---- the fast kernels against the reference ----------------------------------------

// A column table in the case's own storage, made for width x height and s
// (none for sizes that take none).
void AttachColumnTable(PolarCase& c, const PolarizeSettings& s, int32_t width, int32_t height) {
  const size_t bytes = PolarColumnTableBytes(width, height);
  c.storage.assign(bytes / sizeof(double) + 1, 0.0);
  c.params.columnTable = bytes ? MakePolarColumnTable(c.storage.data(), s, width, height) : nullptr;
}

// A ray table in the case's own storage for width x height (none for sizes that
// take none), made afresh before each run with every claimedEvery-th row pair
// claimed by a part still filling it (0: none), as a part running beside
// would leave it.
void AttachRayTable(PolarCase& c, int32_t width, int32_t height, int claimedEvery) {
  const size_t bytes = PolarRayTableBytes(width, height);
  c.storage.assign(bytes / sizeof(double) + 1, 0.0);
  c.params.rayTable = bytes ? MakePolarRayTable(c.storage.data(), width, height) : nullptr;
  if (!bytes) return;
  c.prepare = [table = c.params.rayTable, claimedEvery] {
    MakePolarRayTable(table, table->width, table->height);
    for (int32_t pair = 0; claimedEvery > 0 && pair < table->rowPairs; pair += claimedEvery)
      table->States()[pair] = PolarRayTable::kClaimed;
  };
}

// The source has guard bytes before and after: hand-built settings can put an
// accepted position in (-1.5, -1], whose nearest pixel is read one column or
// one row before the bitmap by the reference as well.
PolarCase NewCase(Rng& rng, const Layout& l, const PolarizeSettings& settings) {
  PolarCase c;
  c.l = l;
  const size_t rows = static_cast<size_t>(std::max(l.height, 0));
  c.srcAt = l.srcRowBytes + l.srcPixelBytes + 16;
  c.source = RandomBytes(rng, c.srcAt + l.srcRowBytes * rows + 16, true);
  c.destination = RandomBytes(rng, l.dstRowBytes * rows + 16);
  Scramble(rng, c.params);  // the background samples among them
  c.params.settings = settings;
  c.params.columnTable = nullptr;
  c.params.rayTable = nullptr;
  c.Use(rawfx::reference::kPolarParts, kFast);
  c.settings = Describe("toPolar ", int{settings.rectangularToPolar}, " flip ", int{settings.flipMapping},
                        " centerAtTop ", int{settings.centerAtTop}, " roundness ", settings.roundness, " angleOffset ",
                        settings.angleOffset);
  return c;
}

// Every 200th case is a bigger bitmap with the effect's own settings: many
// angles and long rows through the vector loops. Cases have no tables,
// matching ones or ones made for another size or other options, which the fast
// kernels must ignore (the reference never reads one).
PolarCase RandomCase(Rng& rng, int index) {
  Layout l = RandomLayout(rng, 300, false);
  // The effect's own settings and hand-built ones: bottom at the centre, other
  // roundness, angle offsets, NaN and infinities. The parts fill the geometry
  // in their own copies; what the block holds is never read.
  const uint8_t flags[] = {0, 1, 1, 1, 2, 255};
  const bool effectDefaults = Chance(rng, 0.4);
  PolarizeSettings settings;
  Scramble(rng, settings);  // the geometry: garbage
  const std::initializer_list<double> roundness = {50.0, 99.5, 100.5, -50.0, 250.0};
  settings.roundness = effectDefaults || Chance(rng, 0.6) ? 100.0 : RandomDouble(rng, 0.5, -100.0, 300.0, roundness);
  settings.flipMapping = PickFrom(rng, flags);
  settings.centerAtTop = effectDefaults || Chance(rng, 0.6) ? 1 : PickFrom(rng, flags);
  settings.rectangularToPolar = PickFrom(rng, flags);
  const std::initializer_list<double> turns = {kTwoPi / 4, -kTwoPi / 2, kTwoPi, -kTwoPi, 2 * kTwoPi, 7e15};
  settings.angleOffset = effectDefaults || Chance(rng, 0.5) ? 0.0 : RandomDouble(rng, 0.4, -20.0, 20.0, turns);
  if (index % 200 == 7) {
    // The last: rows too long to be mapped in bands.
    const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}, {16500, 2}};
    const auto [width, height] = PickFrom(rng, sizes);
    const int32_t sampleBytes = Chance(rng, 0.5) ? 1 : 2;
    l = PackedLayout(width, height, sampleBytes, sampleBytes == 1 ? 4 : 3);
    const uint8_t flip = Chance(rng, 0.5), toPolar = Chance(rng, 0.5);
    settings = {100.0, flip, 1, toPolar, 0.0, 0, 0, 0.0, 0.0};
  } else if (index % 4 == 3) {  // one pixel wide or high, with settings that map just outside the first column or row
    (Chance(rng, 0.5) ? l.width : l.height) = 1;
    l.srcRowBytes = std::max(l.srcRowBytes, l.srcPixelBytes);
    l.dstRowBytes = std::max(l.dstRowBytes, l.dstPixelBytes);
    settings.rectangularToPolar = Chance(rng, 0.5);
    settings.roundness = UniformReal(rng, -100.0, 100.0);
    settings.angleOffset = UniformReal(rng, -20.0, 20.0);
  }
  PolarCase c = NewCase(rng, l, settings);
  PolarizeSettings other = c.params.settings;
  const double angle = other.angleOffset;
  const int64_t table = Chance(rng, 0.25) ? Uniform(rng, 0, 4) : Chance(rng, 2.0 / 3) ? 5 : 6;  // stale, matching, none
  if (table == 2) other.flipMapping = other.flipMapping ? 0 : 1;
  if (table == 3) other.roundness = other.roundness == 0.0 ? 1.0 : 0.0;
  if (table == 4) other.angleOffset = std::isnan(angle) ? 0.0 : angle == 0.0 ? 1.0 : -angle;
  const int32_t width = c.l.width + (table == 0), height = c.l.height + (table == 1);
  if (table < 6 && settings.rectangularToPolar) AttachRayTable(c, width, height, static_cast<int>(Uniform(rng, 0, 3)));
  if (table < 6 && !settings.rectangularToPolar) AttachColumnTable(c, other, width, height);
  c.settings += "; table " + std::to_string(table);
  if (index % 50 == 11 && c.l.height > 2) c.l.srcRowBytes = 1 << 30;  // too far apart to address: never read
  return c;
}

// Then a table whose header matches the run is read on every path: columns
// altered to sample the centre, or angles of 0 marked ready, change the result
// (tables made for other sizes or options, among the random cases, must not
// be). Sizes that take no table get none; nor do wrapping runs over sources
// whose pixels take less memory than the table.
TEST(PolarDifferential, RandomCasesMatchTheReferenceAndMatchingTablesAreRead) {
  CheckRandomCases(0x5EED0001, 6000, RandomCase);
  Rng rng(0x5EED0004);
  const auto newCase = [&rng](uint8_t toPolar) {
    PolarCase c = NewCase(rng, PackedLayout(24, 16, 1, 3), PolarizeSettings{100.0, 1, 1, toPolar, 0.0, 0, 0, 0.0, 0.0});
    c.parts.ranges = {{0, 16}};
    return c;
  };
  PolarCase cases[2] = {newCase(0), newCase(1)};
  AttachColumnTable(cases[0], cases[0].params.settings, 24, 16);
  AttachRayTable(cases[1], 24, 16, 0);
  const Outcome expected[] = {cases[0].Run(false), cases[1].Run(false)};
  auto* columns = const_cast<PolarColumnTable*>(cases[0].params.columnTable);
  std::fill_n(const_cast<double*>(columns->XSteps()), 3 * columns->stride, 0.0);
  cases[1].prepare = [rays = cases[1].params.rayTable] {  // the storage's angles: 0
    for (int32_t pair = 0; pair < rays->rowPairs; ++pair) rays->States()[pair] = PolarRayTable::kReady;
  };
  for (const auto path : {rawfx::cpu::Path::AVX512, rawfx::cpu::Path::AVX2, rawfx::cpu::Path::Portable}) {
    rawfx::cpu::LimitPaths(path);
    for (int toPolar : {0, 1})
      EXPECT_TRUE(cases[toPolar].Run(true).memory != expected[toPolar].memory) << "path " << static_cast<int>(path);
  }
  rawfx::cpu::LimitPaths(rawfx::cpu::Path::AVX512);
  const int64_t tooBig = int64_t{1} << 31, widest = int64_t{1} << 20;
  for (auto [width, height] :
       {std::pair{int64_t{0}, int64_t{5}}, {5, 0}, {-1, 5}, {widest + 1, 5}, {tooBig, 5}, {5, tooBig}})
    EXPECT_EQ(PolarColumnTableBytes(width, height) + PolarRayTableBytes(width, height), 0u) << width << " x " << height;
  EXPECT_EQ(PolarColumnTableBytes(7, 3), sizeof(PolarColumnTable) + 3 * 8 * sizeof(double));
  EXPECT_EQ(PolarColumnTableBytes(widest, 1), sizeof(PolarColumnTable) + 3 * widest * sizeof(double));
  EXPECT_EQ(PolarRayTableBytes(7, 5), sizeof(PolarRayTable) + 8 + 2 * 8 * sizeof(double));  // 2 row pairs of 4 pairs
  EXPECT_EQ(PolarRayTableBytes(5, 1), 0u);
  EXPECT_EQ(std::tuple(PolarRunTableBytes(24, 16, 4, false), PolarRunTableBytes(24, 16, 4, true),
                       PolarRunTableBytes(24, 16, 1, true), PolarRunTableBytes(24, int64_t{1} << 30, 4, true)),
            std::tuple(PolarColumnTableBytes(24, 16), PolarRayTableBytes(24, 16), size_t{0}, size_t{0}));
}

}  // namespace
