// The polar coordinate mapping and its part functions, on hand-built blocks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "effects/polar/polar_kernels.h"

namespace {

constexpr double kSqrt2 = 1.4142135623730951;
constexpr double kSqrt3 = 1.7320508075688772;

// The options the effect uses, with the geometry a part fills in.
PolarizeSettings EffectSettings(int32_t width, int32_t height, bool rectangularToPolar, bool flip) {
  PolarizeSettings s{};
  s.roundness = 100.0;
  s.flipMapping = flip;
  s.centerAtTop = 1;
  s.rectangularToPolar = rectangularToPolar;
  s.angleOffset = 0.0;
  s.width = width;
  s.height = height;
  s.centerX = (width - 1) * 0.5;
  s.centerY = (height - 1) * 0.5;
  return s;
}

struct Mapped {
  bool inside;
  double x, y;
};

Mapped Map(PolarizeSettings s, double x, double y) {
  Mapped m{false, -7.0, -7.0};
  m.inside = CalculateUndistortedCoordinates(x, y, &m.x, &m.y, &s);
  return m;
}

void ExpectMaps(const PolarizeSettings& s, double x, double y, double sx, double sy) {
  const Mapped m = Map(s, x, y);
  ASSERT_TRUE(m.inside) << "(" << x << ", " << y << ")";
  EXPECT_DOUBLE_EQ(m.x, sx) << "(" << x << ", " << y << ")";
  EXPECT_DOUBLE_EQ(m.y, sy) << "(" << x << ", " << y << ")";
}

void ExpectOutside(const PolarizeSettings& s, double x, double y) {
  const Mapped m = Map(s, x, y);
  EXPECT_FALSE(m.inside) << "(" << x << ", " << y << ")";
  EXPECT_EQ(m.x, -7.0);  // out-arguments untouched
  EXPECT_EQ(m.y, -7.0);
}

TEST(PolarMapping, RectangularToPolarFlipped5x5) {
  const PolarizeSettings s = EffectSettings(5, 5, true, true);
  ExpectMaps(s, 2, 2, 1.0, 0.0);
  ExpectMaps(s, 2, 1, 0.0, 2.5);
  ExpectMaps(s, 1, 2, 3.0, 2.5);
  ExpectMaps(s, 3, 2, 1.0, 2.5);
  ExpectMaps(s, 1, 1, 3.5, 2.5 * kSqrt2);
  for (int i = 0; i < 5; ++i) {
    ExpectOutside(s, i, 0);
    ExpectOutside(s, i, 4);
    ExpectOutside(s, 0, i);
    ExpectOutside(s, 4, i);
  }
}

TEST(PolarMapping, RectangularToPolarUnflipped5x5) {
  const PolarizeSettings s = EffectSettings(5, 5, true, false);
  ExpectMaps(s, 2, 2, 3.0, 0.0);
  ExpectMaps(s, 2, 1, 4.0, 2.5);
  ExpectMaps(s, 1, 2, 1.0, 2.5);
}

TEST(PolarMapping, PolarToRectangular4x4) {
  const PolarizeSettings flipped = EffectSettings(4, 4, false, true);
  for (int x = 0; x < 4; ++x) ExpectMaps(flipped, x, 0, 2.0, 2.0);
  ExpectMaps(flipped, 1, 2, 3.0, 2.0);
  ExpectMaps(flipped, 2, 2, 2.0, 3.0);
  ExpectMaps(flipped, 3, 2, 1.0, 2.0);
  ExpectMaps(flipped, 0, 3, 2.0, 0.5);
  ExpectOutside(flipped, 1, 3);
  ExpectOutside(flipped, 2, 3);

  const PolarizeSettings unflipped = EffectSettings(4, 4, false, false);
  ExpectMaps(unflipped, 1, 2, 1.0, 2.0);
  ExpectOutside(unflipped, 2, 3);
  ExpectOutside(unflipped, 3, 3);
}

TEST(PolarMapping, BorderCasesOfTheBlendExamples) {
  ExpectMaps(EffectSettings(12, 7, false, true), 5, 6, 7.5, 3.5 + 1.5 * kSqrt3);
  ExpectMaps(EffectSettings(7, 5, true, false), 3, 1, 6.0, 2.5);
}

TEST(PolarMapping, SinglePixelWideOrHighIsAllOutside) {
  for (bool toPolar : {true, false}) {
    for (bool flip : {true, false}) {
      for (auto [w, h] : {std::pair{1, 6}, std::pair{6, 1}, std::pair{1, 1}}) {
        const PolarizeSettings s = EffectSettings(w, h, toPolar, flip);
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) ExpectOutside(s, x, y);
      }
    }
  }
}

TEST(PolarMapping, NonFiniteAndHugePositionsAreOutside) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  for (bool toPolar : {true, false}) {
    const PolarizeSettings s = EffectSettings(8, 8, toPolar, true);
    for (double bad : {nan, inf, -inf, 1e300, -1e300, 3e9, -3e9}) {
      ExpectOutside(s, 3, bad);
      // Unrolling, a column is an angle: a huge finite one wraps into the turn.
      if (toPolar || !std::isfinite(bad)) ExpectOutside(s, bad, 3);
    }
  }
  // A huge radius puts the row beyond 32 bits; a NaN offset poisons every angle.
  PolarizeSettings farRows = EffectSettings(8, 8, false, true);
  farRows.roundness = -1e300;
  ExpectOutside(farRows, 1, 5);
  PolarizeSettings nanAngle = EffectSettings(8, 8, true, true);
  nanAngle.angleOffset = nan;
  ExpectOutside(nanAngle, 3, 3);
}

TEST(PolarMapping, OptionsWithoutPropertiesFollowTheirDefinition) {
  PolarizeSettings bottomAtCentre = EffectSettings(5, 5, true, true);
  bottomAtCentre.centerAtTop = 0;
  ExpectOutside(bottomAtCentre, 2, 2);  // distance 0 is row H
  ExpectMaps(bottomAtCentre, 2, 1, 0.0, 2.5);

  PolarizeSettings unrollFromBottom = EffectSettings(4, 4, false, true);
  unrollFromBottom.centerAtTop = 0;
  ExpectMaps(unrollFromBottom, 0, 3, 2.0, 1.5);

  PolarizeSettings square = EffectSettings(5, 5, true, true);
  square.roundness = 0.0;  // the radius reaches the corner along the diagonal
  ExpectMaps(square, 1, 1, 3.5, 2.5);

  PolarizeSettings quarterTurn = EffectSettings(4, 4, false, true);
  quarterTurn.angleOffset = 1.5707963267948966;
  ExpectMaps(quarterTurn, 0, 2, 3.0, 2.0);
}

// A source and destination of one depth, laid out as the engine would, with
// padded rows and guard rows below the source that must never be read.
template <class Sample>
struct Canvas {
  static constexpr int kGuardRows = 2;
  int32_t width, height, channels, rowSamples;
  std::vector<Sample> src, dst;
  PolarCoordinatesParams params{};

  Canvas(int32_t w, int32_t h, int32_t c, PolarizeSettings s, Sample guard = 0, int32_t dstChannels = 0)
      : width(w), height(h), channels(c), rowSamples(w * c + 3) {
    const int32_t dstStride = dstChannels ? dstChannels : c;
    src.assign(static_cast<size_t>(rowSamples) * (h + kGuardRows), guard);
    dst.assign(static_cast<size_t>(w) * dstStride * h, Sample(0xA5A5));
    GenericMPParams& head = params.head;
    head.width = w;
    head.height = h;
    head.srcPixels = reinterpret_cast<uint8_t*>(src.data());
    head.dstPixels = reinterpret_cast<uint8_t*>(dst.data());
    head.srcRowBytes = rowSamples * static_cast<int32_t>(sizeof(Sample));
    head.dstRowBytes = w * dstStride * static_cast<int32_t>(sizeof(Sample));
    head.srcPixelBytes = c * static_cast<int32_t>(sizeof(Sample));
    head.dstPixelBytes = dstStride * static_cast<int32_t>(sizeof(Sample));
    params.settings = s;
    params.settings.width = params.settings.height = -99;  // the parts fill the geometry
    params.settings.centerX = params.settings.centerY = -99.0;
  }
  Sample& At(int x, int y, int channel = 0) { return src[static_cast<size_t>(y) * rowSamples + x * channels + channel]; }
  Sample Out(int x, int y, int channel = 0) const {
    const int stride = params.head.dstPixelBytes / static_cast<int>(sizeof(Sample));
    return dst[(static_cast<size_t>(y) * width + x) * stride + channel];
  }
  void SetBackground(std::initializer_list<int> values) {
    int i = 0;
    for (int v : values) {
      params.backColor8[i] = static_cast<uint8_t>(v);
      params.backColor16[i] = static_cast<uint16_t>(v);
      ++i;
    }
  }
  MPParamBlock Run(int32_t firstRow, int32_t endRow) {
    MPParamBlock block{};
    block.firstRow = firstRow;
    block.endRow = endRow;
    block.params = &params;
    if constexpr (sizeof(Sample) == 1)
      PolarCoordinatesPart(&block);
    else
      PolarCoordinatesPart16(&block);
    return block;
  }
  MPParamBlock Run() { return Run(0, height); }
};

TEST(PolarPart, BlendTruncatesTowardZero) {
  Canvas<uint8_t> c(5, 5, 1, EffectSettings(5, 5, true, true));
  c.At(0, 2) = 10;
  c.At(0, 3) = 21;
  c.At(1, 2) = 200;  // weight fx = 0: no influence
  c.Run();
  EXPECT_EQ(c.Out(2, 1), 15);  // (2, 1) samples (0.0, 2.5): 15.5 truncated
}

TEST(PolarPart, LowerRowOutsideMixesInTheBackground) {
  Canvas<uint8_t> c(12, 7, 1, EffectSettings(12, 7, false, true));
  c.SetBackground({200});
  c.At(7, 6) = 100;
  c.At(8, 6) = 100;
  c.Run();
  // (5, 6) samples (7.5, 6.098...): the top pair blends to 100, the lower row is
  // background, fy = 1.5 * sqrt(3) - 2.5 -> 100 + 100 * 0.098 = 109.8.
  EXPECT_EQ(c.Out(5, 6), 109);
}

TEST(PolarPart, LastColumnUsesTheSourceColumnAlone) {
  Canvas<uint8_t> c(7, 5, 1, EffectSettings(7, 5, true, false));
  c.SetBackground({255});
  c.At(6, 2) = 40;
  c.At(6, 3) = 81;
  c.Run();
  EXPECT_EQ(c.Out(3, 1), 60);  // (6.0, 2.5): right column is background at weight 0
}

// A constant source under the same background gives that constant everywhere,
// unless a neighbour were read from outside the bitmap (the guards hold 0).
template <class Sample>
void ExpectConstantStaysConstant(int32_t w, int32_t h, bool toPolar, bool flip, int channels) {
  Canvas<Sample> c(w, h, channels, EffectSettings(w, h, toPolar, flip), 0);
  const Sample value = sizeof(Sample) == 1 ? 77 : 40077;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int i = 0; i < channels; ++i) c.At(x, y, i) = value;
  c.SetBackground({value, value, value, value});
  c.Run();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int i = 0; i < channels; ++i)
        ASSERT_EQ(c.Out(x, y, i), value) << w << "x" << h << " at " << x << "," << y << " toPolar " << toPolar;
}

TEST(PolarPart, NoNeighbourIsReadOutsideTheSource) {
  for (bool toPolar : {true, false}) {
    for (bool flip : {true, false}) {
      for (auto [w, h] : {std::pair{12, 7}, std::pair{7, 5}, std::pair{2, 9}, std::pair{9, 2}, std::pair{16, 16}}) {
        ExpectConstantStaysConstant<uint8_t>(w, h, toPolar, flip, 3);
        ExpectConstantStaysConstant<uint16_t>(w, h, toPolar, flip, 4);
      }
    }
  }
}

TEST(PolarPart, ThinBitmapsComeOutAsBackground) {
  for (bool toPolar : {true, false}) {
    for (auto [w, h] : {std::pair{1, 5}, std::pair{5, 1}}) {
      Canvas<uint8_t> c(w, h, 2, EffectSettings(w, h, toPolar, true), 9);
      c.SetBackground({31, 32});
      c.Run();
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          EXPECT_EQ(c.Out(x, y, 0), 31);
          EXPECT_EQ(c.Out(x, y, 1), 32);
        }
    }
  }
}

TEST(PolarPart, SixteenBitFourChannelsWritesExactlyFourSamples) {
  // Destination pixels have a fifth sample that the part must leave alone.
  Canvas<uint16_t> c(5, 5, 4, EffectSettings(5, 5, true, true), 0, 5);
  c.SetBackground({1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000});
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x)
      for (int i = 0; i < 4; ++i) c.At(x, y, i) = static_cast<uint16_t>(10000 * (i + 1) + 100 * y + x);
  c.Run();
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) EXPECT_EQ(c.Out(x, y, 4), 0xA5A5) << x << "," << y;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(c.Out(0, 0, i), 1000 * (i + 1));  // background pixel
  // (2, 1) samples (0.0, 2.5): halfway between rows 2 and 3 of column 0.
  for (int i = 0; i < 4; ++i) EXPECT_EQ(c.Out(2, 1, i), 10000 * (i + 1) + 250);
}

TEST(PolarPart, PartsFillTheirGeometryFromTheHead) {
  Canvas<uint8_t> c(5, 5, 1, EffectSettings(5, 5, true, true));
  c.Run();
  EXPECT_EQ(c.params.settings.width, -99);  // the shared settings are never written
  EXPECT_EQ(c.params.settings.centerX, -99.0);
}

TEST(PolarPart, EmptyRangeWritesNothingAndSetsDone) {
  Canvas<uint8_t> c(5, 5, 1, EffectSettings(5, 5, true, true));
  const std::vector<uint8_t> before = c.dst;
  EXPECT_EQ(c.Run(3, 3).done, 1);
  EXPECT_EQ(c.Run(4, 2).done, 1);
  EXPECT_EQ(c.dst, before);
  EXPECT_EQ(c.params.head.progress, 0);
}

TEST(PolarPart, CountsOneProgressPerRowAndWritesOnlyItsRows) {
  Canvas<uint8_t> c(6, 6, 1, EffectSettings(6, 6, false, true));
  c.SetBackground({1});
  const MPParamBlock block = c.Run(2, 5);
  EXPECT_EQ(block.done, 1);
  EXPECT_EQ(c.params.head.progress, 3);
  for (int x = 0; x < 6; ++x) {
    EXPECT_EQ(c.Out(x, 1), 0xA5);
    EXPECT_EQ(c.Out(x, 5), 0xA5);
    EXPECT_NE(c.Out(x, 4), 0xA5);
  }
}

TEST(PolarPart, CancelBeforeStartFinishesOneRow) {
  Canvas<uint16_t> c(6, 6, 1, EffectSettings(6, 6, true, true));
  c.SetBackground({7});
  c.params.head.cancel = 1;
  const MPParamBlock block = c.Run(1, 6);
  EXPECT_EQ(block.done, 1);
  EXPECT_EQ(c.params.head.progress, 1);
  for (int x = 0; x < 6; ++x) {
    EXPECT_NE(c.Out(x, 1), 0xA5A5);
    EXPECT_EQ(c.Out(x, 2), 0xA5A5);
  }
}

}  // namespace
