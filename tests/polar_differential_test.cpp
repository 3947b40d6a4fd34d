// The fast polar kernels against the plain reference kernels: random bitmaps,
// layouts, settings (the ones the effect uses and hand-built ones: bottom at
// the centre, other roundness, angle offsets, NaN and infinities), part splits
// and cancels, with and without a column table, on the AVX2 path and the
// portable one. Every destination byte, padding included, the progress count
// and every part's done flag must be the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "effects/polar/polar_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "support/polar_reference.h"

namespace {

using Rng = std::mt19937_64;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kTwoPi = 6.283185307179586;

int Uniform(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
double UniformReal(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
bool Chance(Rng& rng, double p) { return std::bernoulli_distribution(p)(rng); }

template <class T, size_t N>
T PickFrom(Rng& rng, const T (&values)[N]) {
  return values[Uniform(rng, 0, static_cast<int>(N) - 1)];
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// ---- settings ---------------------------------------------------------------------

uint8_t DrawFlag(Rng& rng) {
  const uint8_t flags[] = {0, 1, 1, 1, 2, 255};
  return PickFrom(rng, flags);
}

double DrawRoundness(Rng& rng) {
  if (Chance(rng, 0.6)) return 100.0;
  const double special[] = {0.0, 50.0, 99.5, 100.5, -50.0, 250.0, 1e300, -1e300, kNaN, kInf, -kInf};
  return Chance(rng, 0.5) ? PickFrom(rng, special) : UniformReal(rng, -100.0, 300.0);
}

double DrawAngleOffset(Rng& rng) {
  if (Chance(rng, 0.5)) return 0.0;
  const double special[] = {-0.0, 1.5707963267948966, -3.141592653589793, kTwoPi, -kTwoPi, 2 * kTwoPi, 1e-300,
                            -1e-300, 1e300, 7e15, kNaN, kInf, -kInf};
  return Chance(rng, 0.4) ? PickFrom(rng, special) : UniformReal(rng, -20.0, 20.0);
}

PolarizeSettings DrawSettings(Rng& rng) {
  PolarizeSettings s{};
  const bool effectDefaults = Chance(rng, 0.4);
  s.roundness = effectDefaults ? 100.0 : DrawRoundness(rng);
  s.flipMapping = DrawFlag(rng);
  s.centerAtTop = effectDefaults || Chance(rng, 0.6) ? 1 : DrawFlag(rng);
  s.rectangularToPolar = DrawFlag(rng);
  s.angleOffset = effectDefaults ? 0.0 : DrawAngleOffset(rng);
  // The parts fill the geometry in their own copies; what the block holds is never read.
  s.width = Uniform(rng, -5, 99);
  s.height = Uniform(rng, -5, 99);
  s.centerX = UniformReal(rng, -9.0, 9.0);
  s.centerY = kNaN;
  return s;
}

// ---- bitmaps ----------------------------------------------------------------------

struct Layout {
  int32_t width, height, sampleBytes, channels;
  int32_t srcPixelBytes, dstPixelBytes, srcRowBytes, dstRowBytes;
};

int32_t DrawSide(Rng& rng) {
  const int32_t small[] = {0, 1, 2, 3, 4, 5};
  return Chance(rng, 0.25) ? PickFrom(rng, small) : Uniform(rng, 0, 64);
}

Layout DrawLayout(Rng& rng) {
  Layout l{};
  l.width = DrawSide(rng);
  l.height = DrawSide(rng);
  l.sampleBytes = Chance(rng, 0.5) ? 1 : 2;
  l.channels = Uniform(rng, 1, 8);
  l.srcPixelBytes = l.channels * l.sampleBytes;
  // A destination pixel may have room for more samples than the part writes.
  l.dstPixelBytes = l.srcPixelBytes + (Chance(rng, 0.2) ? l.sampleBytes * Uniform(rng, 1, 2) : 0);
  l.srcRowBytes = l.width * l.srcPixelBytes + l.sampleBytes * Uniform(rng, 0, 5);
  l.dstRowBytes = l.width * l.dstPixelBytes + l.sampleBytes * Uniform(rng, 0, 5);
  return l;
}

std::vector<uint8_t> RandomBytes(Rng& rng, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

// Samples that are all 0 or all the maximum, for blends at the range's ends.
void MakeExtreme(Rng& rng, std::vector<uint8_t>& bytes) {
  const uint8_t fill = Chance(rng, 0.5) ? 0x00 : 0xFF;
  for (uint8_t& b : bytes)
    if (Chance(rng, 0.7)) b = fill;
}

// A source with guard bytes before and after: hand-built settings can put an
// accepted position in (-1.5, -1], whose nearest pixel is read one column or
// one row before the bitmap by the reference as well. Both kernels then read
// the same guard bytes.
struct Source {
  std::vector<uint8_t> bytes;
  size_t start;
};

Source MakeSource(Rng& rng, const Layout& l) {
  Source s;
  s.start = static_cast<size_t>(l.srcRowBytes + l.srcPixelBytes) + 16;
  s.bytes = RandomBytes(rng, s.start + static_cast<size_t>(l.srcRowBytes) * l.height + 16);
  if (Chance(rng, 0.15)) MakeExtreme(rng, s.bytes);
  return s;
}

// A whole run: its block, destination and the part ranges it is cut into.
struct KernelRun {
  PolarCoordinatesParams params{};
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
  return parts;
}

KernelRun MakeRun(Rng& rng, const Layout& l, Source& source, const PolarizeSettings& settings) {
  KernelRun run;
  run.dst = RandomBytes(rng, static_cast<size_t>(l.dstRowBytes) * l.height + 16);
  GenericMPParams& head = run.params.head;
  const std::vector<uint8_t> garbage = RandomBytes(rng, sizeof(GenericMPParams));
  std::memcpy(&head, garbage.data(), sizeof head);  // fields the kernels never read
  head.width = l.width;
  head.height = l.height;
  head.progress = 0;
  head.cancel = Chance(rng, 0.1) ? 1 : 0;
  head.srcPixels = source.bytes.data() + source.start;
  head.dstPixels = run.dst.data();
  head.srcRowBytes = l.srcRowBytes;
  head.dstRowBytes = l.dstRowBytes;
  head.srcPixelBytes = l.srcPixelBytes;
  head.dstPixelBytes = l.dstPixelBytes;
  run.params.settings = settings;
  for (int i = 0; i < 8; ++i) {
    run.params.backColor8[i] = static_cast<uint8_t>(rng());
    run.params.backColor16[i] = static_cast<uint16_t>(rng());
  }
  run.params.columnTable = nullptr;
  run.parts = DrawParts(rng, l.height);
  return run;
}

using PartFn = void* (*)(void*);

// Runs every part in order. Copies of a run share nothing, so the block and the
// destination are pointed at this run's own first.
void Execute(KernelRun& run, PartFn part) {
  run.params.head.dstPixels = run.dst.data();
  for (MPParamBlock& block : run.parts) {
    block.params = &run.params;
    part(&block);
  }
}

// ---- column tables ------------------------------------------------------------------

struct TableStorage {
  std::vector<double> words;  // double-aligned storage
  void* Reserve(size_t bytes) {
    words.assign(bytes / sizeof(double) + 1, 0.0);
    return words.data();
  }
};

enum class TableKind { None, Matching, Stale };

// A table made for something else than the run: another size or other options.
const PolarColumnTable* MakeStaleTable(Rng& rng, TableStorage& storage, const PolarizeSettings& s, int32_t width,
                                       int32_t height) {
  PolarizeSettings other = s;
  int32_t otherWidth = width, otherHeight = height;
  switch (Uniform(rng, 0, 4)) {
    case 0: otherWidth = width + 1; break;
    case 1: otherHeight = height + 1; break;
    case 2: other.flipMapping = s.flipMapping ? 0 : 1; break;
    case 3: other.roundness = s.roundness == 0.0 ? 1.0 : 0.0; break;
    default: other.angleOffset = std::isnan(s.angleOffset) ? 0.0 : (s.angleOffset == 0.0 ? 1.0 : -s.angleOffset);
  }
  const size_t bytes = PolarColumnTableBytes(otherWidth, otherHeight);
  if (bytes == 0) return nullptr;
  return MakePolarColumnTable(storage.Reserve(bytes), other, otherWidth, otherHeight);
}

const PolarColumnTable* AttachTable(Rng& rng, TableKind kind, TableStorage& storage, const PolarizeSettings& s,
                                    const Layout& l) {
  const size_t bytes = PolarColumnTableBytes(l.width, l.height);
  if (kind == TableKind::Matching && bytes > 0) return MakePolarColumnTable(storage.Reserve(bytes), s, l.width, l.height);
  if (kind == TableKind::Stale) return MakeStaleTable(rng, storage, s, l.width, l.height);
  return nullptr;
}

// ---- comparing ------------------------------------------------------------------------

// Bytes of each destination row past the pixels, and of each pixel past its
// samples, keep their garbage.
void ExpectPaddingUntouched(const Layout& l, const std::vector<uint8_t>& before, const std::vector<uint8_t>& after) {
  const int32_t written = l.channels * l.sampleBytes;
  for (int32_t y = 0; y < l.height; ++y) {
    const size_t row = static_cast<size_t>(l.dstRowBytes) * y;
    for (int32_t b = l.width * l.dstPixelBytes; b < l.dstRowBytes; ++b) ASSERT_EQ(before[row + b], after[row + b]);
    for (int32_t x = 0; x < l.width; ++x)
      for (int32_t b = written; b < l.dstPixelBytes; ++b) {
        const size_t at = row + static_cast<size_t>(x) * l.dstPixelBytes + b;
        ASSERT_EQ(before[at], after[at]);
      }
  }
  const size_t tail = static_cast<size_t>(l.dstRowBytes) * l.height;
  ASSERT_TRUE(std::equal(before.begin() + tail, before.end(), after.begin() + tail));
}

std::string Describe(const Layout& l, const PolarizeSettings& s, TableKind table, bool scalar) {
  char text[320];
  std::snprintf(text, sizeof text,
                "%dx%d, %d-bit, %d channels, pixel %d/%d, rows %d/%d; toPolar %d flip %d centerAtTop %d "
                "roundness %.17g angleOffset %.17g; table %d; %s path",
                l.width, l.height, l.sampleBytes * 8, l.channels, l.srcPixelBytes, l.dstPixelBytes, l.srcRowBytes,
                l.dstRowBytes, s.rectangularToPolar, s.flipMapping, s.centerAtTop, s.roundness, s.angleOffset,
                static_cast<int>(table), scalar ? "portable" : "AVX2");
  return text;
}

// Restores the dispatch even when an assertion returns early.
struct ScalarPath {
  explicit ScalarPath(bool scalar) { rawfx::cpu::ForceScalar(scalar); }
  ~ScalarPath() { rawfx::cpu::ForceScalar(false); }
};

// One random case, run by the reference and by the fast kernels on both paths.
void CheckRandomCase(Rng& rng) {
  const Layout l = DrawLayout(rng);
  const PolarizeSettings settings = DrawSettings(rng);
  Source source = MakeSource(rng, l);
  const KernelRun original = MakeRun(rng, l, source, settings);
  const bool eightBit = l.sampleBytes == 1;

  KernelRun expected = original;
  Execute(expected, eightBit ? rawfx::reference::PolarCoordinatesPart : rawfx::reference::PolarCoordinatesPart16);
  ExpectPaddingUntouched(l, original.dst, expected.dst);

  const TableKind kinds[] = {TableKind::None, TableKind::Matching, TableKind::Matching, TableKind::Stale};
  const TableKind kind = PickFrom(rng, kinds);
  for (bool scalar : {false, true}) {
    const ScalarPath path(scalar);
    KernelRun actual = original;
    TableStorage storage;
    Rng tableRng(rng());
    actual.params.columnTable = AttachTable(tableRng, kind, storage, settings, l);
    Execute(actual, eightBit ? PolarCoordinatesPart : PolarCoordinatesPart16);

    const std::string what = Describe(l, settings, kind, scalar);
    ASSERT_EQ(actual.dst, expected.dst) << what;
    ASSERT_EQ(actual.params.head.progress, expected.params.head.progress) << what;
    for (size_t i = 0; i < actual.parts.size(); ++i) ASSERT_EQ(actual.parts[i].done, expected.parts[i].done) << what;
    ASSERT_EQ(std::memcmp(&actual.params.settings, &original.params.settings, sizeof(PolarizeSettings)), 0)
        << "the shared settings were written; " << what;
  }
}

TEST(PolarDifferential, RandomCasesMatchTheReference) {
  Rng rng(0x5EED0001);
  for (int i = 0; i < 6000; ++i) {
    ASSERT_NO_FATAL_FAILURE(CheckRandomCase(rng)) << "case " << i;
  }
}

// Bigger bitmaps with the effect's own settings: many angles and long rows
// through both paths' four-at-a-time loops.
TEST(PolarDifferential, EffectSettingsOnLargerBitmapsMatch) {
  Rng rng(0x5EED0002);
  const std::pair<int32_t, int32_t> sizes[] = {{301, 203}, {256, 256}, {97, 515}, {640, 3}};
  for (auto [width, height] : sizes) {
    for (int sampleBytes : {1, 2}) {
      for (uint8_t toPolar : {0, 1}) {
        for (uint8_t flip : {0, 1}) {
          Layout l{width, height, sampleBytes, sampleBytes == 1 ? 4 : 3, 0, 0, 0, 0};
          l.srcPixelBytes = l.dstPixelBytes = l.channels * sampleBytes;
          l.srcRowBytes = l.dstRowBytes = width * l.srcPixelBytes;
          const PolarizeSettings settings{100.0, flip, 1, toPolar, 0.0, 0, 0, 0.0, 0.0};
          Source source = MakeSource(rng, l);
          KernelRun expected = MakeRun(rng, l, source, settings);
          expected.params.head.cancel = 0;
          KernelRun actual = expected;
          TableStorage storage;
          actual.params.columnTable =
              MakePolarColumnTable(storage.Reserve(PolarColumnTableBytes(width, height)), settings, width, height);
          Execute(expected, sampleBytes == 1 ? rawfx::reference::PolarCoordinatesPart
                                             : rawfx::reference::PolarCoordinatesPart16);
          Execute(actual, sampleBytes == 1 ? PolarCoordinatesPart : PolarCoordinatesPart16);
          EXPECT_EQ(actual.dst, expected.dst) << Describe(l, settings, TableKind::Matching, false);
        }
      }
    }
  }
}

// The public mapping gives the reference's answer bit for bit, also for
// positions the parts never ask about (fractions, NaN, infinities).
TEST(PolarDifferential, MappingMatchesTheReference) {
  Rng rng(0x5EED0003);
  const double oddCoordinates[] = {kNaN, kInf, -kInf, -0.0, 0.5, -0.5, 1e300, -1e300, 3e9};
  for (int i = 0; i < 20000; ++i) {
    PolarizeSettings s = DrawSettings(rng);
    s.width = DrawSide(rng);
    s.height = DrawSide(rng);
    s.centerX = (s.width - 1) * 0.5;
    s.centerY = (s.height - 1) * 0.5;
    if (Chance(rng, 0.05)) s.centerX = UniformReal(rng, -3.0, 70.0);  // any geometry a caller may hand in
    double x = Uniform(rng, -2, s.width + 1), y = Uniform(rng, -2, s.height + 1);
    if (Chance(rng, 0.2)) x += UniformReal(rng, -1.0, 1.0);
    if (Chance(rng, 0.05)) x = PickFrom(rng, oddCoordinates);
    if (Chance(rng, 0.05)) y = PickFrom(rng, oddCoordinates);

    PolarizeSettings forReference = s, forFast = s;
    double expectedX = 123.0, expectedY = 456.0, actualX = 123.0, actualY = 456.0;
    const bool expectedInside = rawfx::reference::CalculateUndistortedCoordinates(x, y, &expectedX, &expectedY,
                                                                                  &forReference);
    const bool actualInside = CalculateUndistortedCoordinates(x, y, &actualX, &actualY, &forFast);
    ASSERT_EQ(actualInside, expectedInside) << "case " << i;
    ASSERT_TRUE(SameBits(actualX, expectedX) && SameBits(actualY, expectedY))
        << "case " << i << ": " << actualX << ", " << actualY << " vs " << expectedX << ", " << expectedY;
    ASSERT_EQ(std::memcmp(&forFast, &s, sizeof s), 0) << "the settings were written";
  }
}

// A table whose header matches the run is read (altered columns change the
// result); one made for another size or other options is ignored.
TEST(PolarDifferential, OnlyAMatchingColumnTableIsRead) {
  Rng rng(0x5EED0004);
  const Layout l{24, 16, 1, 3, 3, 3, 72, 72};
  const PolarizeSettings settings{100.0, 1, 1, 0, 0.0, 0, 0, 0.0, 0.0};
  Source source = MakeSource(rng, l);
  KernelRun expected = MakeRun(rng, l, source, settings);
  expected.params.head.cancel = 0;
  Execute(expected, rawfx::reference::PolarCoordinatesPart);

  for (bool scalar : {false, true}) {
    const ScalarPath path(scalar);
    KernelRun withTable = expected;
    TableStorage storage;
    const PolarColumnTable* table =
        MakePolarColumnTable(storage.Reserve(PolarColumnTableBytes(l.width, l.height)), settings, l.width, l.height);
    auto* columns = const_cast<PolarColumn*>(table->Columns());
    for (int32_t x = 0; x < l.width; ++x) columns[x] = PolarColumn{0.0, 0.0, 0.0};  // every pixel samples the centre
    withTable.params.columnTable = table;
    Execute(withTable, PolarCoordinatesPart);
    EXPECT_NE(withTable.dst, expected.dst) << "the matching table was not read";

    const PolarColumnTable original = *table;
    for (int variant = 0; variant < 5; ++variant) {
      PolarColumnTable header = original;
      if (variant == 0) ++header.width;
      if (variant == 1) ++header.height;
      if (variant == 2) header.flipMapping = 0;
      if (variant == 3) header.roundness = 99.0;
      if (variant == 4) header.angleOffset = -0.0;  // compared bit for bit
      std::memcpy(static_cast<void*>(const_cast<PolarColumnTable*>(table)), &header, sizeof header);
      KernelRun stale = expected;
      stale.params.columnTable = table;
      Execute(stale, PolarCoordinatesPart);
      EXPECT_EQ(stale.dst, expected.dst) << "stale table variant " << variant;
    }
  }
}

// Rows too far apart for 32-bit source offsets: no source pixel is read and
// every pixel is the background, in both kernels and both directions.
TEST(PolarDifferential, UnaddressableSourceGivesTheBackgroundAlike) {
  Rng rng(0x5EED0007);
  for (uint8_t toPolar : {0, 1}) {
    const Layout l{9, 7, 2, 3, 6, 6, 1 << 29, 54};
    const PolarizeSettings settings{100.0, 1, 1, toPolar, 0.0, 0, 0, 0.0, 0.0};
    Source source{std::vector<uint8_t>(64), 0};  // never read
    KernelRun expected = MakeRun(rng, l, source, settings);
    expected.params.head.cancel = 0;
    KernelRun actual = expected;
    Execute(expected, rawfx::reference::PolarCoordinatesPart16);
    for (bool scalar : {false, true}) {
      const ScalarPath path(scalar);
      KernelRun run = actual;
      Execute(run, PolarCoordinatesPart16);
      EXPECT_EQ(run.dst, expected.dst) << "toPolar " << int{toPolar} << (scalar ? ", portable" : ", AVX2");
    }
    const auto* firstPixel = reinterpret_cast<const uint16_t*>(expected.dst.data());
    EXPECT_EQ(firstPixel[2], expected.params.backColor16[2]);
  }
}

TEST(PolarDifferential, ColumnTablesExistOnlyForUsableSizes) {
  EXPECT_EQ(PolarColumnTableBytes(0, 5), 0u);
  EXPECT_EQ(PolarColumnTableBytes(5, 0), 0u);
  EXPECT_EQ(PolarColumnTableBytes(-1, 5), 0u);
  EXPECT_EQ(PolarColumnTableBytes(int64_t{1} << 31, 5), 0u);
  EXPECT_EQ(PolarColumnTableBytes(5, int64_t{1} << 31), 0u);
  EXPECT_EQ(PolarColumnTableBytes(7, 3), sizeof(PolarColumnTable) + 7 * sizeof(PolarColumn));
}

// ---- the exact identities the fast kernels are built on --------------------------------

// The blend weight: fmod(s, 1.0) is s - trunc(s) with the sign of s, for every finite s.
TEST(PolarIdentities, FractionWithoutFmod) {
  Rng rng(0x5EED0005);
  const double special[] = {0.0, -0.0, 1.0, -1.0, -1.25, -1.5, 0.5, -0.5, 1e-310, -1e-310, 4503599627370495.5,
                            -4503599627370495.5, 9007199254740993.0, 1e300, -1e300, 63.99999999999999};
  std::vector<double> values(std::begin(special), std::end(special));
  for (int i = 0; i < 200000; ++i) {
    const double magnitude = std::ldexp(1.0, Uniform(rng, -60, 60));
    values.push_back(UniformReal(rng, -magnitude, magnitude));
    if (i % 8 == 0) values.push_back(std::nextafter(std::round(values.back()), Chance(rng, 0.5) ? kInf : -kInf));
  }
  for (double s : values) {
    const double viaFmod = std::fmod(s, 1.0);
    const double viaTrunc = std::copysign(s - std::trunc(s), s);
    ASSERT_TRUE(SameBits(viaFmod, viaTrunc)) << s;
  }
}

// The angle wrap: fmod(v, 2 pi) is v itself for 0 <= v < 2 pi (-0 included).
TEST(PolarIdentities, AnglesInsideOneTurnNeedNoFmod) {
  Rng rng(0x5EED0006);
  std::vector<double> values{0.0, -0.0, 1e-320, std::nextafter(kTwoPi, 0.0), 3.141592653589793, 4.71238898038469};
  for (int i = 0; i < 200000; ++i) values.push_back(UniformReal(rng, 0.0, kTwoPi));
  for (double v : values) ASSERT_TRUE(SameBits(std::fmod(v, kTwoPi), v)) << v;
}

// A column right of the centre and its mirror see the same horizontal offset:
// cx = (W - 1) * 0.5 is a multiple of 0.5, so x - cx and cx - (W - 1 - x) are
// the same exact double for every width a part can have.
TEST(PolarIdentities, MirrorColumnsHaveTheSameOffset) {
  const int32_t largest = std::numeric_limits<int32_t>::max();
  const int32_t widths[] = {1, 2, 3, 4, 5, 63, 64, 2048, 12345677, largest - 1, largest};
  for (int32_t width : widths) {
    const double cx = static_cast<double>(int64_t{width} - 1) * 0.5;
    const int32_t firstRight = width / 2;
    for (int64_t x : {int64_t{firstRight}, int64_t{firstRight} + 1, int64_t{width} - 2, int64_t{width} - 1}) {
      if (x < firstRight || x >= width) continue;
      const double right = static_cast<double>(x) - cx;
      const double left = cx - static_cast<double>(width - 1 - x);
      ASSERT_TRUE(SameBits(right, left)) << width << " " << x;
      ASSERT_GE(right, 0.0);
      if (right != 0.0) {
        ASSERT_LT(static_cast<double>(width - 1 - x), cx);
      }
    }
  }
}

}  // namespace
