// The oil paint part functions on hand-built parameter blocks over the tests'
// own pixel buffers, the way the engine sets them up.
#include "effects/oilpaint/oilpaint_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <vector>

#include "imaging/memory.h"
#include "support/oilpaint_reference.h"

namespace {

using rawfx::oilpaint::BinOf;
using rawfx::oilpaint::IntensityOf;
using rawfx::test::OilPaintImage;
using rawfx::test::OilPaintSettings;
using Rgb = std::array<uint8_t, 3>;

constexpr uint8_t kUnwritten = 0xA5;
constexpr Rgb kBlack{0, 0, 0};
constexpr Rgb kWhite{255, 255, 255};

struct Layout {
  int pixelBytes;
  int red, green, blue;
  bool hasAlpha;
  int alpha;
};
constexpr Layout kRGB{3, 0, 1, 2, false, 0};
constexpr Layout kRGBA{4, 0, 1, 2, true, 3};
constexpr Layout kGrey{1, 0, 0, 0, false, 0};

int16_t MaxLevelOf(float smoothness) { return static_cast<int16_t>(smoothness * 255.0f); }

OilPaintImage NewImage(int width, int height, int pixelBytes, int padding, uint8_t fill) {
  OilPaintImage image;
  image.width = width;
  image.height = height;
  image.pixelBytes = pixelBytes;
  image.rowBytes = width * pixelBytes + padding;
  image.bytes.assign(static_cast<size_t>(image.rowBytes) * static_cast<size_t>(height), fill);
  return image;
}

// A mask whose value operations check that each value is asked for with the
// handle of the current row; values keep their high bits to show that only
// the low 8 count.
class TestMask {
 public:
  explicit TestMask(std::function<uint32_t(int x, int y)> value) : value_(std::move(value)) {}
  RawBitmapMaskData* data() { return &holder_.data; }

  std::function<void(int64_t row)> onRow;  // called as each row is asked for
  std::vector<int64_t> rowsAsked;
  std::vector<int32_t> columnsAsked;  // of every row, in order
  int wrongHandles = 0;

 private:
  struct Holder {
    RawBitmapMaskData data;
    TestMask* owner;
  };
  static MaskRowHandle RowMask8(RawBitmapMaskData* self, int64_t row) {
    TestMask& mask = *reinterpret_cast<Holder*>(self)->owner;
    mask.rowsAsked.push_back(row);
    if (mask.onRow) mask.onRow(row);
    return static_cast<MaskRowHandle>(row) * 1000 + 17;
  }
  static uint32_t MaskValue8(RawBitmapMaskData* self, MaskRowHandle handle, int32_t x) {
    TestMask& mask = *reinterpret_cast<Holder*>(self)->owner;
    const auto row = static_cast<int64_t>((handle - 17) / 1000);
    if (mask.rowsAsked.empty() || row != mask.rowsAsked.back()) ++mask.wrongHandles;
    mask.columnsAsked.push_back(x);
    return mask.value_(x, static_cast<int>(row));
  }
  static constexpr RawBitmapMaskOps kOps{nullptr, RowMask8, MaskValue8, nullptr, nullptr, nullptr};

  std::function<uint32_t(int, int)> value_;
  Holder holder_{{&kOps}, this};
};

// Source and destination buffers with their records and a parameter block
// whose head is filled the way the engine fills it. The destination starts
// as kUnwritten everywhere.
class Bench {
 public:
  Bench(int width, int height, Layout layout, int srcPadding = 0, int dstPadding = 0)
      : layout_(layout),
        src(NewImage(width, height, layout.pixelBytes, srcPadding, 0)),
        dst(NewImage(width, height, layout.pixelBytes, dstPadding, kUnwritten)) {
    for (RawBitmap* record : {&srcRecord, &dstRecord}) {
      record->width = width;
      record->height = height;
      record->bytesPerPixel = layout.pixelBytes;
      record->redOffset = static_cast<uint8_t>(layout.red);
      record->greenOffset = static_cast<uint8_t>(layout.green);
      record->blueOffset = static_cast<uint8_t>(layout.blue);
      record->alphaOffset = static_cast<uint8_t>(layout.alpha);
      record->hasAlpha = layout.hasAlpha;
      record->bitsPerChannel = 8;
    }
    params.redOffset = layout.red;
    params.greenOffset = layout.green;
    params.blueOffset = layout.blue;
    SetSettings(0.4f, 2);
  }

  void SetSettings(float smoothness, int brushSize) {
    params.smoothness = smoothness;
    params.maxLevel = MaxLevelOf(smoothness);
    params.brushSize = static_cast<uint8_t>(brushSize);
  }

  void SetRgb(int x, int y, Rgb c) {
    uint8_t* p = src.Pixel(x, y);
    p[layout_.red] = c[0];
    p[layout_.green] = c[1];
    p[layout_.blue] = c[2];
  }
  void SetRow(const std::vector<Rgb>& colours) {
    for (size_t x = 0; x < colours.size(); ++x) SetRgb(static_cast<int>(x), 0, colours[x]);
  }
  Rgb Out(int x, int y) const {
    const uint8_t* p = dst.Pixel(x, y);
    return {p[layout_.red], p[layout_.green], p[layout_.blue]};
  }
  bool RowUnwritten(int y) const {
    const uint8_t* row = dst.bytes.data() + static_cast<size_t>(y) * static_cast<size_t>(dst.rowBytes);
    return std::all_of(row, row + dst.rowBytes, [](uint8_t b) { return b == kUnwritten; });
  }

  // Runs one part of rows first .. end - 1; the part record is returned for its done flag.
  MPParamBlock Run(int first, int end, TestMask* mask = nullptr) {
    FillHead(mask);
    MPParamBlock part{first, end, 0, {}, &params};
    if (mask) {
      OilPaintMaskPart8bit(&part);
    } else {
      OilPaintPart8bit(&part);
    }
    return part;
  }
  MPParamBlock RunAll(TestMask* mask = nullptr) { return Run(0, src.height, mask); }

  OilPaintParams params{};
  RawBitmap srcRecord{};
  RawBitmap dstRecord{};
  Layout layout_;
  OilPaintImage src;
  OilPaintImage dst;

 private:
  void FillHead(TestMask* mask) {
    GenericMPParams& h = params.head;
    h.width = src.width;
    h.height = src.height;
    h.srcPixels = src.bytes.data();
    h.dstPixels = dst.bytes.data();
    h.srcRowBytes = src.rowBytes;
    h.dstRowBytes = dst.rowBytes;
    h.srcPixelBytes = src.pixelBytes;
    h.dstPixelBytes = dst.pixelBytes;
    h.srcBitmap = &srcRecord;
    h.dstBitmap = &dstRecord;
    h.maskData = mask ? mask->data() : nullptr;
  }
};

// Every test leaves the allocator as it found it: no injected failures, no live scratch.
class OilPaintKernel : public ::testing::Test {
 protected:
  void SetUp() override { liveBefore_ = rawfx::memory::LiveBlockCount(); }
  void TearDown() override {
    rawfx::memory::FailAllocationsAfter(-1);
    EXPECT_EQ(rawfx::memory::LiveBlockCount(), liveBefore_) << "scratch leaked";
  }

 private:
  int64_t liveBefore_ = 0;
};

Rgb Grey(uint8_t g) { return {g, g, g}; }

// ---- intensity and bins ----------------------------------------------------

TEST(OilPaintIntensity, GreyValuesFollowTheDoubleSum) {
  for (const int g : {1, 2, 4, 5}) EXPECT_EQ(IntensityOf(g, g, g), g - 1) << g;
  for (const int g : {0, 3, 6, 7, 9, 11, 200, 255}) EXPECT_EQ(IntensityOf(g, g, g), g) << g;
  EXPECT_EQ(IntensityOf(10, 10, 10), 9);
  EXPECT_EQ(IntensityOf(0, 255, 0), 150);  // 0.59 weights green, 0.3 red, 0.11 blue
  EXPECT_EQ(IntensityOf(255, 0, 0), 76);
  EXPECT_EQ(IntensityOf(0, 0, 255), 28);
}

TEST(OilPaintIntensity, BinsAtSmoothness04) {
  EXPECT_EQ(BinOf(IntensityOf(200, 200, 200), 0.4f), 80);
  EXPECT_EQ(BinOf(IntensityOf(10, 10, 10), 0.4f), 3);
  EXPECT_EQ(BinOf(255, 0.4f), 102);
  EXPECT_EQ(BinOf(255, 0.04f), 10);
  EXPECT_EQ(BinOf(255, 1.0f), 255);
}

// ---- neighbourhoods ------------------------------------------------------------

// Count of the neighbourhood of (x, y): the bitmap is black but for a blue
// probe p at (x, y), all in bin 0 at smoothness 0.04, so the pixel's blue
// output is p / count. A probe of n gives 1 only if count <= n, a probe of
// n - 1 gives 0 only if count >= n: together they pin count to n.
bool NeighbourhoodHas(int width, int height, int radius, int x, int y, int n) {
  auto blueOut = [&](int probe) {
    Bench bench(width, height, kRGB);
    bench.SetSettings(0.04f, radius);
    bench.SetRgb(x, y, {0, 0, static_cast<uint8_t>(probe)});
    bench.RunAll();
    return bench.Out(x, y)[2];
  };
  return blueOut(n) == 1 && blueOut(n - 1) == 0;
}

TEST_F(OilPaintKernel, RadiusFiveCountsCornerEdgeAndInnerNeighbourhoods) {
  EXPECT_TRUE(NeighbourhoodHas(11, 11, 5, 0, 0, 36));
  EXPECT_TRUE(NeighbourhoodHas(11, 11, 5, 10, 10, 36));
  EXPECT_TRUE(NeighbourhoodHas(11, 11, 5, 0, 5, 66));
  EXPECT_TRUE(NeighbourhoodHas(11, 11, 5, 5, 10, 66));
  EXPECT_TRUE(NeighbourhoodHas(11, 11, 5, 5, 5, 121));
}

// ---- colours ------------------------------------------------------------------------

TEST_F(OilPaintKernel, SinglePixelKeepsItsColourAndAlpha) {
  Bench bench(1, 1, kRGBA);
  bench.SetRgb(0, 0, {37, 180, 91});
  bench.src.Pixel(0, 0)[3] = 77;
  bench.RunAll();
  EXPECT_EQ(bench.Out(0, 0), (Rgb{37, 180, 91}));
  EXPECT_EQ(bench.dst.Pixel(0, 0)[3], 77);
}

TEST_F(OilPaintKernel, BlackBesideWhiteBecomesTwoBlackPixels) {
  for (const float smoothness : {0.04f, 0.4f, 0.73f, 1.0f}) {
    for (int brush = 1; brush <= 5; ++brush) {
      for (const bool whiteFirst : {false, true}) {
        Bench bench(2, 1, kRGB);
        bench.SetSettings(smoothness, brush);
        bench.SetRow(whiteFirst ? std::vector<Rgb>{kWhite, kBlack} : std::vector<Rgb>{kBlack, kWhite});
        bench.RunAll();
        EXPECT_EQ(bench.Out(0, 0), kBlack) << smoothness << " " << brush;
        EXPECT_EQ(bench.Out(1, 0), kBlack) << smoothness << " " << brush;
      }
    }
  }
}

// Three pixels that every neighbourhood of brush 2 holds whole: two of a
// colour and one of another. If both share a bin, all three are averaged;
// otherwise the pair's bin wins with the pair's colour.
std::vector<Rgb> PaintTriple(Layout layout, float smoothness, Rgb pair, Rgb single) {
  Bench bench(3, 1, layout);
  bench.SetSettings(smoothness, 2);
  bench.SetRow({pair, single, pair});
  bench.RunAll();
  return {bench.Out(0, 0), bench.Out(1, 0), bench.Out(2, 0)};
}

TEST_F(OilPaintKernel, GreysShareBinsByTruncatedIntensity) {
  // 200 lies in bin 80 and 199 in bin 79: the pair of 200 wins alone.
  EXPECT_EQ(PaintTriple(kRGB, 0.4f, Grey(200), Grey(199)), std::vector<Rgb>(3, Grey(200)));
  // 201 shares bin 80 with 200: (200 + 200 + 201) / 3.
  EXPECT_EQ(PaintTriple(kRGB, 0.4f, Grey(200), Grey(201)), std::vector<Rgb>(3, Grey(200)));
  EXPECT_EQ(PaintTriple(kRGB, 0.4f, Grey(201), Grey(200)), std::vector<Rgb>(3, Grey(200)));
  // 10 has intensity 9 and so shares bin 3 with 9: (10 + 10 + 9) / 3 = 9.
  EXPECT_EQ(PaintTriple(kRGB, 0.4f, Grey(10), Grey(9)), std::vector<Rgb>(3, Grey(9)));
  // 11 lies in bin 4: the pair of 10 wins.
  EXPECT_EQ(PaintTriple(kRGB, 0.4f, Grey(10), Grey(11)), std::vector<Rgb>(3, Grey(10)));
}

TEST_F(OilPaintKernel, OneChannelGreysLoseOneToTheirIntensity) {
  // A pair of g with intensity g - 1 shares a bin with g - 1, which a pair of
  // intensity g would not at these smoothness values: (g + g + g - 1) / 3 = g - 1.
  const struct {
    uint8_t g;
    float smoothness;
  } cases[] = {{1, 1.0f}, {2, 0.5f}, {4, 1.0f}, {5, 0.2f}};
  for (const auto& c : cases) {
    EXPECT_NE(BinOf(c.g, c.smoothness), BinOf(c.g - 1, c.smoothness)) << "case does not separate g";
    EXPECT_EQ(PaintTriple(kGrey, c.smoothness, Grey(c.g), Grey(c.g - 1)),
              std::vector<Rgb>(3, Grey(static_cast<uint8_t>(c.g - 1))))
        << int{c.g};
  }
}

TEST_F(OilPaintKernel, TopBinIsScannedAtEveryMaxLevel) {
  const struct {
    float smoothness;
    int16_t maxLevel;
  } cases[] = {{0.04f, 10}, {0.4f, 102}, {1.0f, 255}};
  for (const auto& c : cases) {
    ASSERT_EQ(MaxLevelOf(c.smoothness), c.maxLevel);
    ASSERT_EQ(BinOf(255, c.smoothness), c.maxLevel);  // white fills the highest bin
    EXPECT_EQ(PaintTriple(kRGB, c.smoothness, kWhite, kBlack), std::vector<Rgb>(3, kWhite)) << c.maxLevel;

    Bench masked(3, 1, kRGB);
    masked.SetSettings(c.smoothness, 2);
    masked.SetRow({kWhite, kBlack, kWhite});
    TestMask mask([](int, int) { return 0u; });
    masked.RunAll(&mask);
    EXPECT_EQ(masked.Out(0, 0), Grey(254)) << c.maxLevel;  // white, mixed with mask 0
    EXPECT_EQ(masked.Out(1, 0), Grey(254)) << c.maxLevel;
  }
}

TEST_F(OilPaintKernel, AlphaIsCopiedToTheDestinationsAlphaNotAveraged) {
  // The destination keeps its alpha in a fifth byte, to tell the two records apart.
  Bench bench(3, 3, kRGBA);
  bench.dst = NewImage(3, 3, 5, 0, kUnwritten);
  bench.dstRecord.alphaOffset = 4;
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 3; ++x) {
      bench.SetRgb(x, y, Grey(100));
      bench.src.Pixel(x, y)[3] = static_cast<uint8_t>(10 + 30 * (y * 3 + x));
    }
  }
  bench.RunAll();
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 3; ++x) {
      EXPECT_EQ(bench.dst.Pixel(x, y)[4], 10 + 30 * (y * 3 + x));
      EXPECT_EQ(bench.dst.Pixel(x, y)[3], kUnwritten);  // the source's alpha position is not the destination's
      EXPECT_EQ(bench.Out(x, y), Grey(100));
    }
  }
}

// ---- mask ---------------------------------------------------------------------------

TEST_F(OilPaintKernel, MaskExtremesStillMix) {
  // Mask 0: the oil colour (white, from the pair) times 255 / 256.
  Bench clear(3, 1, kRGB);
  clear.SetRow({kWhite, kBlack, kWhite});
  TestMask zero([](int, int) { return 0u; });
  clear.RunAll(&zero);
  EXPECT_EQ(clear.Out(1, 0), Grey(254));

  // Mask 255 (given with high bits set): the source times 255 / 256.
  Bench full(3, 1, kRGB);
  full.SetRow({kBlack, kWhite, kBlack});
  TestMask all([](int, int) { return 0x7FFu; });
  full.RunAll(&all);
  EXPECT_EQ(full.Out(1, 0), Grey(254));
  EXPECT_EQ(full.Out(0, 0), kBlack);
}

TEST_F(OilPaintKernel, MaskIsAskedOncePerRowAndOncePerColumn) {
  Bench bench(4, 5, kRGB);
  TestMask mask([](int, int) { return 128u; });
  bench.Run(1, 4, &mask);
  EXPECT_EQ(mask.rowsAsked, (std::vector<int64_t>{1, 2, 3}));
  EXPECT_EQ(mask.columnsAsked, (std::vector<int32_t>{0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3}));
  EXPECT_EQ(mask.wrongHandles, 0);

  Bench empty(0, 3, kRGB);
  TestMask rowsOnly([](int, int) { return 128u; });
  empty.RunAll(&rowsOnly);
  EXPECT_EQ(rowsOnly.rowsAsked, (std::vector<int64_t>{0, 1, 2}));
  EXPECT_TRUE(rowsOnly.columnsAsked.empty());
  EXPECT_EQ(empty.params.head.progress, 3);
}

// ---- parts: done, progress, cancel, scratch -------------------------------------------------

TEST_F(OilPaintKernel, OnlyTheUnmaskedPartSetsDone) {
  Bench bench(3, 3, kRGB);
  EXPECT_EQ(bench.Run(0, 3).done, 1);
  EXPECT_EQ(bench.Run(2, 2).done, 1);  // also when empty
  TestMask mask([](int, int) { return 0u; });
  EXPECT_EQ(bench.Run(0, 3, &mask).done, 0);
  EXPECT_EQ(bench.Run(1, 1, &mask).done, 0);
}

TEST_F(OilPaintKernel, EmptyPartWritesAndCountsNothing) {
  for (const bool masked : {false, true}) {
    Bench bench(3, 3, kRGB);
    TestMask mask([](int, int) { return 0u; });
    bench.Run(1, 1, masked ? &mask : nullptr);
    bench.Run(3, 1, masked ? &mask : nullptr);
    EXPECT_EQ(bench.params.head.progress, 0);
    for (int y = 0; y < 3; ++y) EXPECT_TRUE(bench.RowUnwritten(y));
    EXPECT_TRUE(mask.rowsAsked.empty());
  }
}

TEST_F(OilPaintKernel, CancelSetBeforeThePartLetsItFinishOneRow) {
  for (const bool masked : {false, true}) {
    Bench bench(4, 6, kRGB);
    bench.params.head.cancel = 1;
    TestMask mask([](int, int) { return 0u; });
    const MPParamBlock part = bench.Run(1, 6, masked ? &mask : nullptr);
    EXPECT_EQ(bench.params.head.progress, 1);
    for (int y = 0; y < 6; ++y) EXPECT_EQ(bench.RowUnwritten(y), y != 1) << y;
    EXPECT_EQ(part.done, masked ? 0 : 1);
  }
}

TEST_F(OilPaintKernel, CancelDuringThePartLeavesLaterRowsUnwritten) {
  Bench bench(4, 8, kRGB);
  TestMask mask([](int, int) { return 0u; });
  mask.onRow = [&](int64_t row) {
    if (row == 3) bench.params.head.cancel = 1;
  };
  bench.RunAll(&mask);
  EXPECT_EQ(bench.params.head.progress, 4);  // rows 0..3; the current row is finished
  for (int y = 0; y < 8; ++y) EXPECT_EQ(bench.RowUnwritten(y), y > 3) << y;
}

TEST_F(OilPaintKernel, MissingScratchLeavesRowsUnwrittenAndReleasesTheRest) {
  for (int granted = 0; granted < 4; ++granted) {
    for (const bool masked : {false, true}) {
      Bench bench(4, 4, kRGB);
      TestMask mask([](int, int) { return 0u; });
      const int64_t live = rawfx::memory::LiveBlockCount();
      rawfx::memory::FailAllocationsAfter(granted);
      const MPParamBlock part = bench.RunAll(masked ? &mask : nullptr);
      rawfx::memory::FailAllocationsAfter(-1);
      EXPECT_EQ(rawfx::memory::LiveBlockCount(), live) << granted;
      EXPECT_EQ(bench.params.head.progress, 0);
      for (int y = 0; y < 4; ++y) EXPECT_TRUE(bench.RowUnwritten(y)) << granted << " " << y;
      EXPECT_EQ(part.done, masked ? 0 : 1);
    }
  }
  // With scratch to be had again, the same part paints.
  Bench bench(4, 4, kRGB);
  bench.RunAll();
  EXPECT_FALSE(bench.RowUnwritten(0));
}

// ---- against the reference ----------------------------------------------------------------

struct RandomCase {
  std::mt19937 rng;
  int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

  Layout PickLayout() {
    switch (Uniform(0, 3)) {
      case 0:
        return kGrey;
      case 1: {
        std::array<int, 3> order{0, 1, 2};
        std::shuffle(order.begin(), order.end(), rng);
        return {3, order[0], order[1], order[2], false, 0};
      }
      default: {
        std::array<int, 4> order{0, 1, 2, 3};
        std::shuffle(order.begin(), order.end(), rng);
        return {4, order[0], order[1], order[2], Uniform(0, 2) != 0, order[3]};
      }
    }
  }
  float PickSmoothness() {
    switch (Uniform(0, 5)) {
      case 0:
        return 0.04f;
      case 1:
        return 1.0f;
      default:
        return std::uniform_real_distribution<float>(0.04f, 1.0f)(rng);
    }
  }
  // Fully random bytes, a small palette (real histograms) or noise around a grey.
  void FillSource(OilPaintImage& src) {
    const int style = Uniform(0, 2);
    std::vector<uint8_t> palette(static_cast<size_t>(Uniform(2, 5)) * 4);
    for (uint8_t& b : palette) b = static_cast<uint8_t>(Uniform(0, 255));
    const int base = Uniform(0, 230);
    for (int y = 0; y < src.height; ++y) {
      for (int x = 0; x < src.width; ++x) {
        const size_t colour = static_cast<size_t>(Uniform(0, static_cast<int>(palette.size() / 4) - 1)) * 4;
        for (int i = 0; i < src.pixelBytes; ++i) {
          uint8_t& b = src.Pixel(x, y)[i];
          b = style == 0   ? static_cast<uint8_t>(Uniform(0, 255))
              : style == 1 ? palette[colour + static_cast<size_t>(i)]
                           : static_cast<uint8_t>(base + Uniform(0, 25));
        }
      }
    }
  }
  // Cuts rows 0 .. height into parts, some of them empty.
  std::vector<std::pair<int, int>> PickParts(int height) {
    std::vector<int> cuts{0, height};
    for (int i = Uniform(0, 4); i > 0; --i) cuts.push_back(Uniform(0, height));
    std::sort(cuts.begin(), cuts.end());
    std::vector<std::pair<int, int>> parts;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) parts.emplace_back(cuts[i], cuts[i + 1]);
    std::shuffle(parts.begin(), parts.end(), rng);
    return parts;
  }
};

TEST_F(OilPaintKernel, MatchesTheReferenceOnRandomCases) {
  RandomCase r{std::mt19937(20240611)};
  for (int n = 0; n < 400; ++n) {
    const int width = r.Uniform(0, 24), height = r.Uniform(0, 24);
    const Layout layout = r.PickLayout();
    Bench bench(width, height, layout, r.Uniform(0, 5), r.Uniform(0, 5));
    bench.SetSettings(r.PickSmoothness(), r.Uniform(1, 5));
    r.FillSource(bench.src);

    std::vector<uint32_t> maskValues(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (uint32_t& m : maskValues)
      m = static_cast<uint32_t>(r.Uniform(0, 4) == 0 ? r.Uniform(0, 1) * 255 : r.Uniform(0, 4095));
    auto maskAt = [&](int x, int y) { return maskValues[static_cast<size_t>(y * width + x)]; };
    const bool masked = r.Uniform(0, 1) == 1;
    TestMask mask(maskAt);

    OilPaintSettings settings;
    settings.redOffset = layout.red;
    settings.greenOffset = layout.green;
    settings.blueOffset = layout.blue;
    settings.smoothness = bench.params.smoothness;
    settings.radius = bench.params.brushSize;
    settings.copyAlpha = layout.hasAlpha;
    settings.srcAlphaOffset = layout.alpha;
    settings.dstAlphaOffset = layout.alpha;
    if (masked) settings.mask = maskAt;
    OilPaintImage expected = bench.dst;
    rawfx::test::ReferenceOilPaint(bench.src, expected, settings, 0, height);

    for (const auto& [first, end] : r.PickParts(height)) bench.Run(first, end, masked ? &mask : nullptr);

    ASSERT_EQ(bench.dst.bytes, expected.bytes)
        << "case " << n << ": " << width << "x" << height << " brush " << int{bench.params.brushSize} << " smoothness "
        << bench.params.smoothness << (masked ? " masked" : "");
    ASSERT_EQ(bench.params.head.progress, height) << "case " << n;
  }
}

}  // namespace
