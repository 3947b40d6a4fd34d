// The polar coordinate mapping and its part functions, shipped and reference
// alike, on hand-built blocks: the documented source positions in both
// directions, the positions rejected, the bilinear blend with the background
// at the borders, the samples written per pixel and the row bookkeeping.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "effects/polar/polar_kernels.h"
#include "support/kernel_blocks.h"
#include "support/polar_reference.h"

namespace {

using namespace rawfx::test;

using Mapping = bool (*)(double, double, double*, double*, PolarizeSettings*);
struct Kernels {
  const char* name;
  Mapping map;
  PartFunction part8, part16;
};
const Kernels kShipped{"Shipped", CalculateUndistortedCoordinates, PolarCoordinatesPart, PolarCoordinatesPart16};
const Kernels kReference{"Reference", rawfx::reference::CalculateUndistortedCoordinates,
                         rawfx::reference::PolarCoordinatesPart, rawfx::reference::PolarCoordinatesPart16};

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kOutside = kNaN;
constexpr double kSqrt2 = 1.4142135623730951;
constexpr double kSqrt3 = 1.7320508075688772;

// The effect's options, or others where a case changes them.
struct Geometry {
  int width, height;
  bool toPolar, flip;
  double roundness = 100.0;
  uint8_t centerAtTop = 1;
  double angleOffset = 0.0;
};

// The settings with the geometry that a part fills in.
PolarizeSettings SettingsOf(const Geometry& g) {
  return {g.roundness, g.flip, g.centerAtTop, g.toPolar,
          g.angleOffset, g.width, g.height, (g.width - 1) * 0.5, (g.height - 1) * 0.5};
}

class PolarKernels : public ::testing::TestWithParam<Kernels> {
 protected:
  // An outside position leaves the out-arguments untouched.
  void ExpectMaps(const Geometry& g, double x, double y, double sx, double sy) {
    SCOPED_TRACE(Describe(g.width, "x", g.height, g.toPolar ? " to polar" : " unrolled", g.flip ? " flipped" : "",
                          " at ", x, ",", y));
    PolarizeSettings s = SettingsOf(g);
    double mappedX = -7.0, mappedY = -7.0;
    const bool inside = GetParam().map(x, y, &mappedX, &mappedY, &s);
    EXPECT_EQ(inside, !std::isnan(sx));
    EXPECT_DOUBLE_EQ(mappedX, inside ? sx : -7.0);
    EXPECT_DOUBLE_EQ(mappedY, inside ? sy : -7.0);
  }
};

TEST_P(PolarKernels, MappingGivesTheDocumentedPositions) {
  struct Point {
    double x, y, sx, sy;
  };
  const struct {
    Geometry g;
    std::vector<Point> points;
  } cases[] = {
      {{5, 5, true, true}, {{2, 2, 1, 0}, {2, 1, 0, 2.5}, {1, 2, 3, 2.5}, {3, 2, 1, 2.5}, {1, 1, 3.5, 2.5 * kSqrt2}}},
      {{5, 5, true, false}, {{2, 2, 3, 0}, {2, 1, 4, 2.5}, {1, 2, 1, 2.5}}},
      {{4, 4, false, true}, {{0, 0, 2, 2}, {3, 0, 2, 2}, {1, 2, 3, 2}, {2, 2, 2, 3}, {3, 2, 1, 2}, {0, 3, 2, 0.5}}},
      {{4, 4, false, true}, {{1, 3, kOutside, kOutside}, {2, 3, kOutside, kOutside}}},
      {{4, 4, false, false}, {{1, 2, 1, 2}, {2, 3, kOutside, kOutside}, {3, 3, kOutside, kOutside}}},
      {{12, 7, false, true}, {{5, 6, 7.5, 3.5 + 1.5 * kSqrt3}}},
      {{7, 5, true, false}, {{3, 1, 6, 2.5}}},
      // The options without a property of their own follow their definition.
      {{5, 5, true, true, 100.0, 0}, {{2, 2, kOutside, kOutside}, {2, 1, 0, 2.5}}},  // distance 0 is row H
      {{4, 4, false, true, 100.0, 0}, {{0, 3, 2, 1.5}}},
      {{5, 5, true, true, 0.0}, {{1, 1, 3.5, 2.5}}},  // the radius reaches the corner
      {{4, 4, false, true, 100.0, 1, 1.5707963267948966}, {{0, 2, 3, 2}}},
      {{8, 8, false, true, -1e300}, {{1, 5, kOutside, kOutside}}},  // a row beyond 32 bits
      {{8, 8, true, true, 100.0, 1, kNaN}, {{3, 3, kOutside, kOutside}}},
  };
  for (const auto& c : cases)
    for (const Point& p : c.points) ExpectMaps(c.g, p.x, p.y, p.sx, p.sy);
}

TEST_P(PolarKernels, PositionsOffTheSourceAreOutside) {
  for (int i = 0; i < 5; ++i)
    for (auto [x, y] : {std::pair{i, 0}, std::pair{i, 4}, std::pair{0, i}, std::pair{4, i}})
      ExpectMaps({5, 5, true, true}, x, y, kOutside, kOutside);
  for (bool toPolar : {true, false})
    for (bool flip : {true, false}) {
      for (auto [w, h] : {std::pair{1, 6}, std::pair{6, 1}, std::pair{1, 1}})
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) ExpectMaps({w, h, toPolar, flip}, x, y, kOutside, kOutside);
      for (double bad : {kNaN, kInf, -kInf, 1e300, -1e300, 3e9, -3e9}) {
        ExpectMaps({8, 8, toPolar, flip}, 3, bad, kOutside, kOutside);
        // Unrolling, a column is an angle: a huge finite one wraps into the turn.
        if (toPolar || !std::isfinite(bad)) ExpectMaps({8, 8, toPolar, flip}, bad, 3, kOutside, kOutside);
      }
    }
}

// A source with two guard rows below it and padding, both holding 0, that
// the part must never read; the block's own geometry holds -99, which
// the parts must neither read nor write.
struct Frame : PartFrame {
  Frame(PartFunction partFunction, const Geometry& g, int channels, int sb, int dstChannels = 0)
      : PartFrame(PixelBuffer(g.width, g.height + 2, channels * sb, 3 * sb, 0, sb),
                  PixelBuffer(g.width, g.height, (dstChannels ? dstChannels : channels) * sb, 0, 0xA5, sb)) {
    params.settings = SettingsOf(g);
    params.settings.width = params.settings.height = -99;
    params.settings.centerX = params.settings.centerY = -99.0;
    Attach(params.head, &params, partFunction, false);
    params.head.height = g.height;
  }
  void SetBackground(std::initializer_list<int> values) {
    int i = 0;
    for (int v : values) {
      params.backColor8[i] = static_cast<uint8_t>(v);
      params.backColor16[i++] = static_cast<uint16_t>(v);
    }
  }
  PolarCoordinatesParams params{};
};

TEST_P(PolarKernels, BlendTruncatesAndMixesInTheBackgroundAtTheBorders) {
  const struct {
    const char* what;
    Geometry g;
    std::vector<std::array<int, 3>> samples;  // x, y, value
    int background, x, y, expected;
  } cases[] = {
      // (2, 1) samples (0.0, 2.5): 15.5 truncated; column 1 has weight 0.
      {"truncation", {5, 5, true, true}, {{0, 2, 10}, {0, 3, 21}, {1, 2, 200}}, 0, 2, 1, 15},
      // (5, 6) samples (7.5, 3.5 + 1.5 sqrt 3): the lower row is outside, so
      // 100 mixes with the background by fy = 1.5 sqrt 3 - 2.5.
      {"lower row outside", {12, 7, false, true}, {{7, 6, 100}, {8, 6, 100}}, 200, 5, 6, 109},
      // (3, 1) samples (6.0, 2.5): the right column is the background at weight 0.
      {"last column", {7, 5, true, false}, {{6, 2, 40}, {6, 3, 81}}, 255, 3, 1, 60},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Frame f(GetParam().part8, c.g, 1, 1);
    f.SetBackground({c.background});
    for (const auto& [x, y, v] : c.samples) f.src.SetSample(x, y, 0, static_cast<uint32_t>(v));
    f.RunAll();
    EXPECT_EQ(f.dst.Sample(c.x, c.y, 0), static_cast<uint32_t>(c.expected));
  }
}

// A constant source under a background of the same value stays that value
// everywhere, unless a neighbour is read from the guards or the padding;
// bitmaps one pixel wide or high are the background throughout.
TEST_P(PolarKernels, NoSampleIsReadOutsideTheSource) {
  for (bool toPolar : {true, false})
    for (bool flip : {true, false})
      for (int sb : {1, 2}) {
        const int value = sb == 1 ? 77 : 40077, channels = 2 + sb;
        for (auto [w, h] : {std::pair{12, 7}, std::pair{7, 5}, std::pair{2, 9}, std::pair{9, 2}, std::pair{16, 16},
                            std::pair{1, 5}, std::pair{5, 1}}) {
          SCOPED_TRACE(Describe(w, "x", h, toPolar ? " to polar " : " unrolled ", flip ? "flipped " : "", 8 * sb));
          const bool thin = w == 1 || h == 1;
          Frame f(sb == 1 ? GetParam().part8 : GetParam().part16, {w, h, toPolar, flip}, channels, sb);
          for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
              for (int i = 0; i < channels; ++i) f.src.SetSample(x, y, i, static_cast<uint32_t>(value));
          f.SetBackground({value + 1, value + 2, value + 3, value + 4});
          if (!thin) f.SetBackground({value, value, value, value});
          f.RunAll();
          for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
              for (int i = 0; i < channels; ++i)
                ASSERT_EQ(f.dst.Sample(x, y, i), static_cast<uint32_t>(thin ? value + 1 + i : value)) << x << "," << y;
        }
      }
}

// Four 16-bit channels in destination pixels of five: exactly four samples
// are written, the background's first four on a pixel outside.
TEST_P(PolarKernels, SixteenBitPixelsWriteTheirChannelsOnly) {
  Frame f(GetParam().part16, {5, 5, true, true}, 4, 2, 5);
  f.SetBackground({1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000});
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x)
      for (int i = 0; i < 4; ++i) f.src.SetSample(x, y, i, static_cast<uint32_t>(10000 * (i + 1) + 100 * y + x));
  f.RunAll();
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) EXPECT_EQ(f.dst.Sample(x, y, 4), 0xA5A5u) << x << "," << y;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(f.dst.Sample(0, 0, i), 1000u * (i + 1));
    EXPECT_EQ(f.dst.Sample(2, 1, i), 10000u * (i + 1) + 250);  // halfway between rows 2 and 3 of column 0
  }
  EXPECT_EQ(f.params.settings.width, -99);  // each part completes its own copy of the geometry
  EXPECT_EQ(f.params.settings.centerX, -99.0);
}

TEST_P(PolarKernels, RowsProgressCancelAndDone) {
  for (int sb : {1, 2})
    for (bool toPolar : {true, false}) {
      SCOPED_TRACE(Describe(8 * sb, "-bit", toPolar ? " to polar" : " unrolled"));
      ExpectRowBookkeeping(
          [&]() -> std::unique_ptr<PartFrame> {
            auto f = std::make_unique<Frame>(sb == 1 ? GetParam().part8 : GetParam().part16,
                                             Geometry{6, 6, toPolar, true}, 1, sb);
            f->SetBackground({1});
            return f;
          },
          1);
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, PolarKernels, ::testing::Values(kShipped, kReference), NameOf<Kernels>);

}  // namespace
