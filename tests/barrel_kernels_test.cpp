// The barrel distortion part functions on hand-built parameter blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "effects/barrel/barrel_kernels.h"

namespace {

using namespace BarrelKeystone;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// Pixels laid out as a RawBitmap's: rows of pixelBytes-wide pixels, then padding.
struct Pixels {
  int width = 0, height = 0, pixelBytes = 0, rowBytes = 0;
  std::vector<uint8_t> bytes;

  Pixels() = default;
  Pixels(int w, int h, int pixelBytesIn, int padding, uint8_t fill)
      : width(w), height(h), pixelBytes(pixelBytesIn), rowBytes(w * pixelBytesIn + padding),
        bytes(static_cast<size_t>(rowBytes) * h + 1, fill) {}

  uint8_t* at(int x, int y, int byte = 0) { return bytes.data() + y * rowBytes + x * pixelBytes + byte; }
  template <class S>
  S Get(int x, int y, int c) {
    S s;
    std::memcpy(&s, at(x, y, c * static_cast<int>(sizeof(S))), sizeof s);
    return s;
  }
  template <class S>
  void Set(int x, int y, int c, S s) {
    std::memcpy(at(x, y, c * static_cast<int>(sizeof(S))), &s, sizeof s);
  }
};

const PartFunction kNearest8 = BarrelDistort8BitPart;
const PartFunction kBilinear8 = BarrelDistortInterpolate8BitPart;
const PartFunction kNearest16 = BarrelDistort16BitPart;
const PartFunction kBilinear16 = BarrelDistortInterpolate16BitPart;
const PartFunction kAllKernels[] = {kNearest8, kBilinear8, kNearest16, kBilinear16};

bool Is16Bit(PartFunction f) { return f == kNearest16 || f == kBilinear16; }

class BarrelKernel : public ::testing::Test {
 protected:
  BarrelDistortionParams params{};
  Pixels src, dst;
  static constexpr uint8_t kUntouched = 0xA5;

  // Source and destination of w x h pixels; the block as the class would fill it.
  void Prepare(int w, int h, int pixelBytes, int padding = 0) {
    src = Pixels(w, h, pixelBytes, padding, 0);
    dst = Pixels(w, h, pixelBytes, padding, kUntouched);
    GenericMPParams& head = params.head;
    head.progress = 0;
    head.cancel = 0;
    head.width = w;
    head.height = h;
    head.srcPixels = src.bytes.data();
    head.dstPixels = dst.bytes.data();
    head.srcRowBytes = head.dstRowBytes = src.rowBytes;
    head.srcPixelBytes = head.dstPixelBytes = pixelBytes;
    for (double& cell : params.keystone) cell = 0.0;
    params.keystone[k00] = params.keystone[k11] = params.keystone[k22] = 1.0;
    params.centerX = w * 0.5;
    params.centerY = h * 0.5;
    SetDistortion(0.0);
  }
  void SetDistortion(double d) {
    params.distortion = d;
    params.distortionPlusOne = d + 1.0;
  }
  void SetKeystones(double horizontal, double vertical) {
    params.keystone[k02] = params.keystone[k20] = horizontal;
    params.keystone[k12] = params.keystone[k21] = vertical;
  }
  MPParamBlock Run(PartFunction f, int firstRow, int endRow) {
    MPParamBlock block{firstRow, endRow, 0, {}, &params};
    EXPECT_EQ(f(&block), nullptr);
    return block;
  }
  void RunAll(PartFunction f) { Run(f, 0, params.head.height); }

  // A 16-bit source whose pixel (x, y) holds 256x and 256y, background
  // (65535, 65535): a bilinear result reads back as 256 times the source
  // position; a nearest result as the copied column and row.
  void PreparePositionProbe(int w, int h) {
    Prepare(w, h, 4);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        src.Set<uint16_t>(x, y, 0, static_cast<uint16_t>(x * 256));
        src.Set<uint16_t>(x, y, 1, static_cast<uint16_t>(y * 256));
      }
    params.backColor16[0] = params.backColor16[1] = 65535;
  }
  struct Probe {
    double x, y;
  };
  Probe ProbeAt(PartFunction f, int x, int y) {
    Run(f, y, y + 1);
    return {dst.Get<uint16_t>(x, y, 0) / 256.0, dst.Get<uint16_t>(x, y, 1) / 256.0};
  }
  bool ProbeIsBackground(PartFunction f, int x, int y) {
    Run(f, y, y + 1);
    return dst.Get<uint16_t>(x, y, 0) == 65535 && dst.Get<uint16_t>(x, y, 1) == 65535;
  }

  // Every destination pixel equals the background, channel by channel.
  void ExpectAllBackground(PartFunction f, int channels) {
    for (int y = 0; y < dst.height; ++y)
      for (int x = 0; x < dst.width; ++x)
        for (int c = 0; c < channels; ++c) {
          if (Is16Bit(f))
            ASSERT_EQ(dst.Get<uint16_t>(x, y, c), params.backColor16[c]) << x << "," << y;
          else
            ASSERT_EQ(dst.Get<uint8_t>(x, y, c), params.backColor8[c]) << x << "," << y;
        }
  }
};

// ---- the source position -------------------------------------------------------

TEST_F(BarrelKernel, DistortionOneRescalesAboutTheCentre) {
  PreparePositionProbe(200, 100);
  SetDistortion(1.0);
  Probe p = ProbeAt(kBilinear16, 100, 50);
  EXPECT_EQ(p.x, 100.0);
  EXPECT_EQ(p.y, 50.0);
  p = ProbeAt(kBilinear16, 150, 50);
  EXPECT_EQ(p.x, 131.25);
  EXPECT_EQ(p.y, 50.0);
  p = ProbeAt(kNearest16, 150, 50);
  EXPECT_EQ(p.x, 131.0);
  EXPECT_EQ(p.y, 50.0);
  p = ProbeAt(kBilinear16, 150, 75);
  EXPECT_EQ(p.x, 137.5);
  EXPECT_EQ(p.y, 68.75);
  EXPECT_TRUE(ProbeIsBackground(kNearest16, 0, 0));   // samples (-50, -25)
  EXPECT_TRUE(ProbeIsBackground(kBilinear16, 0, 0));
}

TEST_F(BarrelKernel, NegativeDistortionPinchesTowardsTheEdges) {
  PreparePositionProbe(200, 100);
  SetDistortion(-0.5);
  const Probe p = ProbeAt(kBilinear16, 150, 75);
  EXPECT_EQ(p.x, 175.0);
  EXPECT_EQ(p.y, 87.5);
}

TEST_F(BarrelKernel, HorizontalKeystone) {
  PreparePositionProbe(200, 100);
  SetKeystones(0.5, 0.0);
  Probe p = ProbeAt(kBilinear16, 100, 50);
  EXPECT_EQ(p.x, 150.0);
  EXPECT_EQ(p.y, 50.0);
  p = ProbeAt(kNearest16, 0, 25);
  EXPECT_EQ(p.x, 0.0);
  EXPECT_EQ(p.y, 0.0);
  EXPECT_TRUE(ProbeIsBackground(kNearest16, 0, 0));  // samples (0, -50)
  EXPECT_TRUE(ProbeIsBackground(kNearest16, 199, 50));

  // (199, 50) samples x = 199.66555183946485: column 199 blends with the background.
  const double fx = 199.66555183946485 - 199.0;
  const double column199 = 199 * 256;
  Run(kBilinear16, 50, 51);
  EXPECT_EQ(dst.Get<uint16_t>(199, 50, 0), static_cast<uint16_t>((65535.0 - column199) * fx + column199));
  const double row50 = 50 * 256;
  EXPECT_EQ(dst.Get<uint16_t>(199, 50, 1), static_cast<uint16_t>((65535.0 - row50) * fx + row50));
}

TEST_F(BarrelKernel, VerticalKeystone) {
  PreparePositionProbe(200, 100);
  SetKeystones(0.0, 0.5);
  const Probe p = ProbeAt(kNearest16, 100, 0);
  EXPECT_EQ(p.x, 100.0);
  EXPECT_EQ(p.y, 0.0);
  EXPECT_TRUE(ProbeIsBackground(kNearest16, 0, 0));  // samples (-100, 0)
}

TEST_F(BarrelKernel, DistortionMinusOneGivesTheBackgroundEverywhere) {
  for (PartFunction f : kAllKernels) {
    Prepare(6, 4, 4);
    std::fill(src.bytes.begin(), src.bytes.end(), 0x33);
    for (int c = 0; c < 4; ++c) params.backColor8[c] = static_cast<uint8_t>(10 + c);
    for (int c = 0; c < 2; ++c) params.backColor16[c] = static_cast<uint16_t>(1000 + c);
    SetDistortion(-1.0);
    RunAll(f);
    ExpectAllBackground(f, Is16Bit(f) ? 2 : 4);
  }
}

// ---- truncation at the edges -------------------------------------------------------

// In a 10-wide bitmap, column 1 maps to 0.9999999999999998, never rounded to 1.
TEST_F(BarrelKernel, PositionsAreTruncatedNotRounded) {
  for (PartFunction f : kAllKernels) {
    const int sampleBytes = Is16Bit(f) ? 2 : 1;
    Prepare(10, 2, sampleBytes);
    for (int y = 0; y < 2; ++y) {
      src.at(0, y)[0] = 0;
      src.at(1, y)[0] = 200;  // the low byte of a 16-bit sample: 200 either way
    }
    RunAll(f);
    const bool bilinear = f == kBilinear8 || f == kBilinear16;
    EXPECT_EQ(dst.at(1, 0)[0], bilinear ? 199 : 0);
    EXPECT_EQ(dst.at(0, 0)[0], 0);
  }
}

class BarrelEdges : public BarrelKernel {
 protected:
  // 8 x 4 pixels, one 8-bit channel holding 10 + 10x, background 250. The
  // matrix shifts every position by shift pixels; 8 and 4 keep it exact.
  void PrepareShifted(double shift) {
    Prepare(8, 4, 1);
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 8; ++x) src.at(x, y)[0] = static_cast<uint8_t>(10 + 10 * x);
    params.backColor8[0] = 250;
    params.keystone[k20] = shift / params.centerX;
  }
};

TEST_F(BarrelEdges, LastColumnIsInsideExactly) {
  PrepareShifted(0.0);
  RunAll(kNearest8);
  EXPECT_EQ(dst.at(7, 2)[0], 80);
  RunAll(kBilinear8);
  EXPECT_EQ(dst.at(7, 2)[0], 80);
}

TEST_F(BarrelEdges, HalfAPixelPastTheLastColumnIsHalfBackground) {
  PrepareShifted(0.5);
  RunAll(kNearest8);
  EXPECT_EQ(dst.at(7, 2)[0], 250);  // 7.5 lies past width - 1
  EXPECT_EQ(dst.at(6, 2)[0], 70);  // 6.5 copies column 6
  RunAll(kBilinear8);
  EXPECT_EQ(dst.at(7, 2)[0], 165);  // (80 + 250) / 2
  EXPECT_EQ(dst.at(0, 2)[0], 15);
}

TEST_F(BarrelEdges, AQuarterPixelBeforeColumnZeroIsAQuarterBackground) {
  PrepareShifted(-0.25);
  RunAll(kBilinear8);
  EXPECT_EQ(dst.at(0, 1)[0], 70);  // 250 / 4 + 3 * 10 / 4 = 70
  RunAll(kNearest8);
  EXPECT_EQ(dst.at(0, 1)[0], 250);
}

TEST_F(BarrelKernel, IdentityReproducesDyadicSizedSources) {
  for (PartFunction f : kAllKernels) {
    Prepare(16, 8, 4);
    for (size_t i = 0; i < src.bytes.size(); ++i) src.bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    RunAll(f);
    for (int y = 0; y < 8; ++y)
      ASSERT_EQ(std::memcmp(src.at(0, y), dst.at(0, y), 16 * 4), 0) << "row " << y;
  }
}

// ---- non-finite settings ---------------------------------------------------------

TEST_F(BarrelKernel, NonFiniteSettingsGiveTheBackground) {
  struct Setting {
    double distortion, horizontal, vertical;
  };
  const Setting settings[] = {
      {kNaN, 0, 0}, {kInf, 0, 0}, {-kInf, 0, 0}, {0, kNaN, 0}, {0, 0, kNaN},
      {0, kInf, 0}, {0, -kInf, 0}, {0, 0, kInf}, {0, 0, -kInf}, {kNaN, kInf, -kInf},
  };
  for (PartFunction f : kAllKernels)
    for (const Setting& s : settings) {
      Prepare(9, 5, 4);
      std::fill(src.bytes.begin(), src.bytes.end(), 0x42);
      for (int c = 0; c < 4; ++c) params.backColor8[c] = static_cast<uint8_t>(200 + c);
      for (int c = 0; c < 2; ++c) params.backColor16[c] = static_cast<uint16_t>(60000 + c);
      SetDistortion(s.distortion);
      SetKeystones(s.horizontal, s.vertical);
      RunAll(f);
      ExpectAllBackground(f, Is16Bit(f) ? 2 : 4);
    }
}

// Positions far beyond any integer range are outside and are never converted.
TEST_F(BarrelKernel, HugePositionsAreOutside) {
  for (PartFunction f : kAllKernels)
    for (double scale : {1e300, -1e300, 1e20, -1e20}) {
      Prepare(5, 3, 2);
      std::fill(src.bytes.begin(), src.bytes.end(), 0x11);
      params.backColor8[0] = params.backColor8[1] = 7;
      params.backColor16[0] = 7000;
      params.keystone[k20] = params.keystone[k21] = scale;
      RunAll(f);
      ExpectAllBackground(f, Is16Bit(f) ? 1 : 2);
    }
}

// ---- rows, progress and cancel -----------------------------------------------------

TEST_F(BarrelKernel, EmptyRangeWritesNothingAndIsDone) {
  for (PartFunction f : kAllKernels) {
    Prepare(4, 4, 2);
    const std::vector<uint8_t> before = dst.bytes;
    for (auto [first, end] : {std::pair{2, 2}, std::pair{3, 1}}) {
      const MPParamBlock block = Run(f, first, end);
      EXPECT_EQ(block.done, 1);
      EXPECT_EQ(params.head.progress, 0);
      EXPECT_EQ(dst.bytes, before);
    }
  }
}

TEST_F(BarrelKernel, NoColumnsStillCountsEveryRow) {
  for (PartFunction f : kAllKernels)
    for (int width : {0, -3}) {
      Prepare(4, 6, 2);
      const std::vector<uint8_t> before = dst.bytes;
      params.head.width = width;
      const MPParamBlock block = Run(f, 1, 5);
      EXPECT_EQ(block.done, 1);
      EXPECT_EQ(params.head.progress, 4);
      EXPECT_EQ(dst.bytes, before);
    }
}

TEST_F(BarrelKernel, APartAddsOneProgressPerRowAndWritesOnlyItsRows) {
  for (PartFunction f : kAllKernels) {
    Prepare(5, 6, 2);
    params.head.progress = 10;
    const MPParamBlock block = Run(f, 2, 5);
    EXPECT_EQ(block.done, 1);
    EXPECT_EQ(params.head.progress, 13);
    for (int y = 0; y < 6; ++y) EXPECT_EQ(*dst.at(0, y) == kUntouched, y < 2 || y >= 5) << "row " << y;
  }
}

TEST_F(BarrelKernel, CancelSetBeforehandStillFinishesTheFirstRow) {
  for (PartFunction f : kAllKernels) {
    Prepare(5, 6, 2);
    params.head.cancel = 1;
    const MPParamBlock block = Run(f, 1, 6);
    EXPECT_EQ(block.done, 1);
    EXPECT_EQ(params.head.progress, 1);
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 5; ++x) EXPECT_EQ(*dst.at(x, y) == kUntouched, y != 1) << x << "," << y;
  }
}

// ---- pixel layouts ----------------------------------------------------------------

TEST_F(BarrelKernel, SixteenBitPixelsWriteWholeSamplesAndLeavePaddingAlone) {
  for (PartFunction f : {kNearest16, kBilinear16}) {
    Prepare(8, 4, 8, 3);  // 4 channels, 3 padding bytes per row (odd: rows start unaligned)
    for (size_t i = 0; i < src.bytes.size(); ++i) src.bytes[i] = static_cast<uint8_t>(i * 13 + 5);
    RunAll(f);
    for (int y = 0; y < 4; ++y) {
      ASSERT_EQ(std::memcmp(src.at(0, y), dst.at(0, y), 8 * 8), 0);
      for (int pad = 0; pad < 3; ++pad) EXPECT_EQ(dst.at(8, y)[pad], kUntouched);
    }
  }
}

TEST_F(BarrelKernel, SixteenBitDestinationStepIsRoundedDownToWholeSamples) {
  for (PartFunction f : {kNearest16, kBilinear16}) {
    Prepare(4, 2, 5);  // 5 bytes a pixel: 2 channels, destination steps by 4
    for (int c = 0; c < 2; ++c) params.backColor16[c] = static_cast<uint16_t>(0x0102 * (c + 1));
    SetDistortion(-1.0);
    RunAll(f);
    for (int y = 0; y < 2; ++y) {
      const uint8_t* row = dst.at(0, y);
      for (int x = 0; x < 4; ++x) {
        uint16_t s[2];
        std::memcpy(s, row + 4 * x, 4);
        EXPECT_EQ(s[0], 0x0102);
        EXPECT_EQ(s[1], 0x0204);
      }
      for (int b = 16; b < dst.rowBytes; ++b) EXPECT_EQ(row[b], kUntouched);
    }
  }
}

TEST_F(BarrelKernel, EightBitBackgroundIsWrittenPerChannel) {
  for (PartFunction f : {kNearest8, kBilinear8}) {
    Prepare(3, 2, 3);
    const uint8_t colour[8] = {1, 2, 3, 99, 99, 99, 99, 99};
    std::memcpy(params.backColor8, colour, 8);
    SetDistortion(-1.0);
    RunAll(f);
    ExpectAllBackground(f, 3);
    EXPECT_EQ(dst.at(2, 1)[3], kUntouched);  // the trailing guard byte
  }
}

}  // namespace
