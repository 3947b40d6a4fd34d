// The fast polar kernels against the plain reference kernels: random bitmaps,
// layouts, settings (the ones the effect uses and hand-built ones: bottom at
// the centre, other roundness, angle offsets, NaN and infinities), part splits
// and cancels, with and without a column table, on the AVX2 path and the
// portable one. Every byte of memory, padding included, the progress count,
// every part's done flag and the untouched block must be the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>

#include "effects/polar/polar_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "support/differential.h"
#include "support/polar_reference.h"

namespace {

using namespace rawfx::test;

constexpr double kTwoPi = 6.283185307179586;

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

PolarizeSettings RandomSettings(Rng& rng) {
  const uint8_t flags[] = {0, 1, 1, 1, 2, 255};
  const bool effectDefaults = Chance(rng, 0.4);
  PolarizeSettings s{};
  s.roundness = effectDefaults || Chance(rng, 0.6)
                    ? 100.0
                    : RandomDouble(rng, 0.5, -100.0, 300.0, {50.0, 99.5, 100.5, -50.0, 250.0});
  s.flipMapping = PickFrom(rng, flags);
  s.centerAtTop = effectDefaults || Chance(rng, 0.6) ? 1 : PickFrom(rng, flags);
  s.rectangularToPolar = PickFrom(rng, flags);
  const std::initializer_list<double> turns = {kTwoPi / 4, -kTwoPi / 2, kTwoPi, -kTwoPi, 2 * kTwoPi, 7e15};
  s.angleOffset = effectDefaults || Chance(rng, 0.5) ? 0.0 : RandomDouble(rng, 0.4, -20.0, 20.0, turns);
  // The parts fill the geometry in their own copies; what the block holds is never read.
  s.width = static_cast<int32_t>(Uniform(rng, -5, 99));
  s.height = static_cast<int32_t>(Uniform(rng, -5, 99));
  s.centerX = UniformReal(rng, -9.0, 9.0);
  s.centerY = kNaN;
  return s;
}

using PolarCase = KernelCase<PolarCoordinatesParams>;

// A column table in the case's own storage, made for width x height and s
// (none for sizes that take none).
void AttachTable(PolarCase& c, const PolarizeSettings& s, int32_t width, int32_t height) {
  const size_t bytes = PolarColumnTableBytes(width, height);
  c.storage.assign(bytes / sizeof(double) + 1, 0.0);
  c.params.columnTable = bytes ? MakePolarColumnTable(c.storage.data(), s, width, height) : nullptr;
}

// A fresh ray table for every run, made for width x height and s (none for
// sizes that take none).
void AttachRays(PolarCase& c, const PolarizeSettings& s, int32_t width, int32_t height) {
  const size_t bytes = PolarRayTableBytes(width, height);
  auto storage = std::make_shared<std::vector<double>>(bytes / sizeof(double) + 1);
  c.startRun = [=](PolarCoordinatesParams& block) {
    block.rayTable = bytes ? MakePolarRayTable(storage->data(), s, width, height) : nullptr;
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
  c.source = RandomSamples(rng, c.srcAt + l.srcRowBytes * rows + 16);
  c.destination = RandomBytes(rng, l.dstRowBytes * rows + 16);
  Scramble(rng, c.params);  // the background samples among them
  c.params.settings = settings;
  c.params.columnTable = nullptr;
  c.params.rayTable = nullptr;
  const bool eightBit = l.sampleBytes == 1;
  c.reference = eightBit ? rawfx::reference::PolarCoordinatesPart : rawfx::reference::PolarCoordinatesPart16;
  c.fast = eightBit ? PolarCoordinatesPart : PolarCoordinatesPart16;
  c.parts = RandomParts(rng, l.height);
  std::ostringstream text;
  text.precision(17);
  text << "toPolar " << int{settings.rectangularToPolar} << " flip " << int{settings.flipMapping} << " centerAtTop "
       << int{settings.centerAtTop} << " roundness " << settings.roundness << " angleOffset " << settings.angleOffset;
  c.settings = text.str();
  return c;
}

// Every 200th case is a bigger bitmap with the effect's own settings and a
// matching table: many angles and long rows through the four-at-a-time loops.
// The others have no table, a matching one or one made for another size or
// other options, which the fast kernels must ignore (the reference never
// reads one).
PolarCase RandomCase(Rng& rng, int index) {
  if (index % 200 == 7) {
    const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}};
    const auto [width, height] = PickFrom(rng, sizes);
    const int32_t sampleBytes = Chance(rng, 0.5) ? 1 : 2;
    const uint8_t flip = Chance(rng, 0.5), toPolar = Chance(rng, 0.5);
    const PolarizeSettings settings{100.0, flip, 1, toPolar, 0.0, 0, 0, 0.0, 0.0};
    PolarCase c = NewCase(rng, PackedLayout(width, height, sampleBytes, sampleBytes == 1 ? 4 : 3), settings);
    AttachTable(c, settings, width, height);
    AttachRays(c, settings, width, height);
    return c;
  }
  Layout l = RandomLayout(rng, 300, false);
  PolarizeSettings settings = RandomSettings(rng);
  if (index % 4 == 3) {  // one pixel wide or high, with settings that map just outside the first column or row
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
  if (table == 2) other.centerAtTop = other.centerAtTop ? 0 : 1;
  if (table == 3) other.roundness = other.roundness == 0.0 ? 1.0 : 0.0;
  if (table == 4) other.angleOffset = std::isnan(angle) ? 0.0 : angle == 0.0 ? 1.0 : -angle;
  if (table < 6) AttachTable(c, other, c.l.width + (table == 0), c.l.height + (table == 1));
  if (table < 6) AttachRays(c, other, c.l.width + (table == 0), c.l.height + (table == 1));
  c.settings += "; table " + std::to_string(table);
  return c;
}

TEST(PolarDifferential, RandomCasesMatchTheReference) { CheckRandomCases(0x5EED0001, 6000, RandomCase); }

// The public mapping gives the reference's answer bit for bit, also for
// positions the parts never ask about (fractions, NaN, infinities).
TEST(PolarDifferential, MappingMatchesTheReference) {
  Rng rng(0x5EED0003);
  const int count = RandomCases(20000);
  for (int i = 0; i < count; ++i) {
    PolarizeSettings s = RandomSettings(rng);
    s.width = RandomSide(rng, 64);
    s.height = RandomSide(rng, 64);
    s.centerX = (s.width - 1) * 0.5;
    s.centerY = (s.height - 1) * 0.5;
    if (Chance(rng, 0.05)) s.centerX = UniformReal(rng, -3.0, 70.0);  // any geometry a caller may hand in
    double x = static_cast<double>(Uniform(rng, -2, s.width + 1));
    double y = static_cast<double>(Uniform(rng, -2, s.height + 1));
    if (Chance(rng, 0.2)) x += UniformReal(rng, -1.0, 1.0);
    if (Chance(rng, 0.05)) x = RandomDouble(rng, 1.0, 0.0, 0.0, {0.5, -0.5, 3e9});
    if (Chance(rng, 0.05)) y = RandomDouble(rng, 1.0, 0.0, 0.0, {0.5, -0.5, 3e9});

    PolarizeSettings forReference = s, forFast = s;
    double expectedX = 123.0, expectedY = 456.0, actualX = 123.0, actualY = 456.0;
    const bool expectedInside =
        rawfx::reference::CalculateUndistortedCoordinates(x, y, &expectedX, &expectedY, &forReference);
    ASSERT_EQ(CalculateUndistortedCoordinates(x, y, &actualX, &actualY, &forFast), expectedInside) << "case " << i;
    ASSERT_TRUE(SameBits(actualX, expectedX) && SameBits(actualY, expectedY))
        << "case " << i << ": " << actualX << ", " << actualY << " vs " << expectedX << ", " << expectedY;
    ASSERT_EQ(std::memcmp(&forFast, &s, sizeof s), 0) << "the settings were written";
  }
}

// What the ray table rests on, in the literal mapping: the four pixels
// mirrored about both centre lines are accepted alike and share their source
// row bit for bit (without an angle offset every angle maps inside the columns).
TEST(PolarDifferential, MirroredPixelsShareTheirSourceRow) {
  Rng rng(0x5EED0008);
  for (int i = 0, count = RandomCases(5000); i < count; ++i) {
    PolarizeSettings s = RandomSettings(rng);
    s.rectangularToPolar = 1;
    s.angleOffset = 0.0;
    s.width = RandomSide(rng, 400);
    s.height = RandomSide(rng, 400);
    s.centerX = (s.width - 1) * 0.5;
    s.centerY = (s.height - 1) * 0.5;
    const int32_t x = static_cast<int32_t>(Uniform(rng, 0, s.width - 1));
    const int32_t y = static_cast<int32_t>(Uniform(rng, 0, s.height - 1));
    double sx = 0.0, first = 0.0, sy = 0.0;
    const bool inside = rawfx::reference::CalculateUndistortedCoordinates(x, y, &sx, &first, &s);
    for (const auto& [mx, my] : {std::pair(s.width - 1 - x, y), std::pair(x, s.height - 1 - y),
                                 std::pair(s.width - 1 - x, s.height - 1 - y)}) {
      ASSERT_EQ(rawfx::reference::CalculateUndistortedCoordinates(mx, my, &sx, &sy, &s), inside) << i;
      ASSERT_TRUE(!inside || SameBits(sy, first)) << "case " << i << ": " << sy << " vs " << first;
    }
  }
}

// A table whose header matches the run is read (columns altered to sample the
// centre change the result); one whose header is for another size or other
// options is ignored.
TEST(PolarDifferential, OnlyAMatchingColumnTableIsRead) {
  Rng rng(0x5EED0004);
  PolarCase c = NewCase(rng, PackedLayout(24, 16, 1, 3), PolarizeSettings{100.0, 1, 1, 0, 0.0, 0, 0, 0.0, 0.0});
  c.parts.ranges = {{0, 16}};
  AttachTable(c, c.params.settings, 24, 16);
  const Outcome expected = c.Run(false);
  auto* table = const_cast<PolarColumnTable*>(c.params.columnTable);
  std::fill_n(const_cast<double*>(table->XSteps()), 3 * table->stride, 0.0);
  const PolarColumnTable matching = *table;
  for (int variant = 0; variant < 6; ++variant) {
    *table = matching;
    if (variant == 1) ++table->width;
    if (variant == 2) ++table->height;
    if (variant == 3) table->flipMapping = 0;
    if (variant == 4) table->roundness = 99.0;
    if (variant == 5) table->angleOffset = -0.0;  // compared bit for bit
    for (bool scalar : {false, true}) {
      rawfx::cpu::ForceScalar(scalar);
      const Outcome actual = c.Run(true);
      EXPECT_EQ(actual.memory == expected.memory, variant != 0) << "variant " << variant << ", scalar " << scalar;
    }
    rawfx::cpu::ForceScalar(false);
  }
}

// Rows too far apart for 32-bit source offsets: no source pixel is read and
// every pixel is the background, in both kernels and both directions.
TEST(PolarDifferential, UnaddressableSourceGivesTheBackgroundAlike) {
  Rng rng(0x5EED0007);
  for (uint8_t toPolar : {0, 1}) {
    PolarCase c = NewCase(rng, PackedLayout(9, 7, 2, 3), PolarizeSettings{100.0, 1, 1, toPolar, 0.0, 0, 0, 0.0, 0.0});
    c.l.srcRowBytes = 1 << 29;  // the source itself is never read
    c.parts.ranges = {{0, 7}};
    EXPECT_TRUE(MatchesReference(c));
    const Outcome expected = c.Run(false);
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(expected.memory.data())[2], c.params.backColor16[2]);
  }
}

TEST(PolarDifferential, ColumnTablesExistOnlyForUsableSizes) {
  const int64_t tooBig = int64_t{1} << 31, widest = int64_t{1} << 20;
  const std::pair<int64_t, int64_t> unusable[] = {{0, 5}, {5, 0}, {-1, 5}, {widest + 1, 5}, {tooBig, 5}, {5, tooBig}};
  for (auto [width, height] : unusable)
    EXPECT_EQ(PolarColumnTableBytes(width, height), 0u) << width << " x " << height;
  EXPECT_EQ(PolarColumnTableBytes(7, 3), sizeof(PolarColumnTable) + 3 * 8 * sizeof(double));
  EXPECT_EQ(PolarColumnTableBytes(widest, 1), sizeof(PolarColumnTable) + 3 * widest * sizeof(double));
}

// ---- the exact identities the fast kernels are built on --------------------------------

// The blend weight: fmod(s, 1.0) is s - trunc(s) with the sign of s, for every
// finite s. The angle wrap: fmod(v, 2 pi) is v itself for 0 <= v < 2 pi.
TEST(PolarIdentities, FmodShortcutsAreExact) {
  Rng rng(0x5EED0005);
  std::vector<double> values{0.0, -0.0, 1.0, -1.0, -1.25, -1.5, 0.5, -0.5, 1e-310, -1e-310, 4503599627370495.5,
                             -4503599627370495.5, 9007199254740993.0, 1e300, -1e300, 63.99999999999999};
  for (int i = 0; i < 200000; ++i) {
    const double magnitude = std::ldexp(1.0, static_cast<int>(Uniform(rng, -60, 60)));
    values.push_back(UniformReal(rng, -magnitude, magnitude));
    if (i % 8 == 0) values.push_back(std::nextafter(std::round(values.back()), Chance(rng, 0.5) ? kInf : -kInf));
  }
  for (double s : values) ASSERT_TRUE(SameBits(std::fmod(s, 1.0), std::copysign(s - std::trunc(s), s))) << s;
  std::vector<double> angles{0.0, -0.0, 1e-320, std::nextafter(kTwoPi, 0.0), 3.141592653589793, 4.71238898038469};
  for (int i = 0; i < 200000; ++i) angles.push_back(UniformReal(rng, 0.0, kTwoPi));
  for (double v : angles) ASSERT_TRUE(SameBits(std::fmod(v, kTwoPi), v)) << v;
}

// A column right of the centre and its mirror see the same horizontal offset:
// cx = (W - 1) * 0.5 is a multiple of 0.5, so x - cx and cx - (W - 1 - x) are
// the same exact double for every width a part can have.
TEST(PolarIdentities, MirrorColumnsHaveTheSameOffset) {
  const int64_t largest = std::numeric_limits<int32_t>::max();
  const int64_t widths[] = {1, 2, 3, 4, 5, 63, 64, 2048, 12345677, largest - 1, largest};
  for (int64_t width : widths) {
    const double cx = static_cast<double>(width - 1) * 0.5;
    for (int64_t x : {width / 2, width / 2 + 1, width - 2, width - 1}) {
      if (x < width / 2) continue;
      const double right = static_cast<double>(x) - cx;
      ASSERT_TRUE(SameBits(right, cx - static_cast<double>(width - 1 - x))) << width << " " << x;
      ASSERT_GE(right, 0.0);
      if (right != 0.0) {
        ASSERT_LT(static_cast<double>(width - 1 - x), cx);
      }
    }
  }
}

}  // namespace
