// The interlace part functions on hand-built parameter blocks and pixel buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "effects/interlace/interlace_kernels.h"

namespace {

// ---- a mask whose values and queries the tests control ------------------------

struct FakeMask {
  std::function<uint32_t(int64_t row, int32_t x)> value = [](int64_t, int32_t) { return 0u; };
  std::function<void(int64_t row)> onRow = [](int64_t) {};
  std::vector<int64_t> rows8, rows16;                           // row handles asked for
  std::vector<std::pair<int64_t, int32_t>> values8, values16;  // (row of the handle, x)

  FakeMask();
  RawBitmapMaskData* data() { return &handle_.data; }

 private:
  struct Handle {
    RawBitmapMaskData data;
    FakeMask* owner;
  };
  static FakeMask& Of(RawBitmapMaskData* m) { return *reinterpret_cast<Handle*>(m)->owner; }
  // Handles encode their row, so a value query shows which row handle it was given.
  static MaskRowHandle Encode(int64_t row) { return static_cast<MaskRowHandle>(row * 1000 + 7); }
  static int64_t Decode(MaskRowHandle h) { return (static_cast<int64_t>(h) - 7) / 1000; }
  static MaskRowHandle Row8(RawBitmapMaskData* m, int64_t row) {
    Of(m).rows8.push_back(row);
    Of(m).onRow(row);
    return Encode(row);
  }
  static MaskRowHandle Row16(RawBitmapMaskData* m, int64_t row) {
    Of(m).rows16.push_back(row);
    Of(m).onRow(row);
    return Encode(row);
  }
  static uint32_t Value8(RawBitmapMaskData* m, MaskRowHandle h, int32_t x) {
    Of(m).values8.emplace_back(Decode(h), x);
    return Of(m).value(Decode(h), x);
  }
  static uint32_t Value16(RawBitmapMaskData* m, MaskRowHandle h, int32_t x) {
    Of(m).values16.emplace_back(Decode(h), x);
    return Of(m).value(Decode(h), x);
  }
  static constexpr RawBitmapMaskOps kOps{nullptr, Row8, Value8, nullptr, Row16, Value16};
  Handle handle_;
};

FakeMask::FakeMask() : handle_{{&kOps}, this} {}

// ---- what differs between the 8- and 16-bit kernels, for the typed tests --------

template <class Sample>
struct DepthOf;

template <>
struct DepthOf<uint8_t> {
  static constexpr PartFunction kPlain = InterlacePart;
  static constexpr PartFunction kMasked = InterlaceMaskPart;
  static constexpr uint32_t kFull = 255;
  static constexpr uint32_t kHalf = 128;
  static int32_t Colour(int c) { return 201 + c; }
  static const std::vector<int64_t>& Rows(const FakeMask& m) { return m.rows8; }
  static const std::vector<std::pair<int64_t, int32_t>>& Values(const FakeMask& m) { return m.values8; }
};

template <>
struct DepthOf<uint16_t> {
  static constexpr PartFunction kPlain = InterlacePart16;
  static constexpr PartFunction kMasked = InterlaceMaskPart16;
  static constexpr uint32_t kFull = 65535;
  static constexpr uint32_t kHalf = 32768;
  static int32_t Colour(int c) { return 40001 + 1000 * c; }
  static const std::vector<int64_t>& Rows(const FakeMask& m) { return m.rows16; }
  static const std::vector<std::pair<int64_t, int32_t>>& Values(const FakeMask& m) { return m.values16; }
};

// ---- a source and destination with their records and a parameter block ---------

// Source samples stay below 100, colours are above 200 and the untouched
// destination value is 0xEE / 0xEEEE, so every pixel can be told apart.
template <class Sample>
struct Frame {
  static constexpr Sample kUntouched = static_cast<Sample>(0xEEEE);

  int width, height, channels;
  int64_t rowSamples;  // a row plus two samples of padding
  std::vector<Sample> src, dst;
  RawBitmap srcRecord{}, dstRecord{};
  InterlaceParams params{};

  Frame(int w, int h, int ch = 3)
      : width(w),
        height(h),
        channels(ch),
        rowSamples(int64_t{std::max(w, 1)} * ch + 2),
        src(rowSamples * h),
        dst(rowSamples * h, kUntouched) {
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<Sample>(1 + (i * 7 + i / rowSamples * 13) % 97);
    Describe(srcRecord);
    Describe(dstRecord);
    GenericMPParams& head = params.head;
    head.width = w;
    head.height = h;
    head.srcPixels = reinterpret_cast<uint8_t*>(src.data());
    head.dstPixels = reinterpret_cast<uint8_t*>(dst.data());
    head.srcRowBytes = head.dstRowBytes = static_cast<int32_t>(rowSamples * sizeof(Sample));
    head.srcPixelBytes = head.dstPixelBytes = static_cast<int32_t>(ch * sizeof(Sample));
    head.srcBitmap = &srcRecord;
    head.dstBitmap = &dstRecord;
    for (int c = 0; c < kMaxChannels; ++c) params.channelValues[c] = DepthOf<Sample>::Colour(c);
    params.interlaceAlpha = 1;
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  void Describe(RawBitmap& r) const {
    r.width = width;
    r.height = height;
    r.channelCount = channels;
    r.bytesPerPixel = channels * static_cast<int64_t>(sizeof(Sample));
    r.alphaOffset = 0xFE;  // no alpha channel unless a test sets one
    r.bitsPerChannel = 8 * sizeof(Sample);
  }
  void SetTypes(int64_t horizontal, int64_t vertical) {
    params.horizontalType = horizontal;
    params.verticalType = vertical;
  }
  void UseMask(FakeMask& mask) { params.head.maskData = mask.data(); }
  void WorkInPlace() { params.head.dstPixels = params.head.srcPixels; }

  void Run(PartFunction part, int32_t firstRow, int32_t endRow) {
    MPParamBlock block{};
    block.firstRow = firstRow;
    block.endRow = endRow;
    block.params = &params;
    EXPECT_EQ(part(&block), nullptr);
    EXPECT_EQ(block.done, 0) << "interlace parts leave done alone";
  }
  void RunAll(PartFunction part) { Run(part, 0, height); }

  const std::vector<Sample>& Out() const { return params.head.dstPixels == params.head.srcPixels ? src : dst; }
  static Sample At(const std::vector<Sample>& v, int64_t rowSamples, int x, int y, int c, int step) {
    return v[y * rowSamples + int64_t{x} * step + c];
  }
  Sample Source(int x, int y, int c) const { return At(src, rowSamples, x, y, c, channels); }
  Sample Result(int x, int y, int c) const { return At(Out(), rowSamples, x, y, c, channels); }

  // One character per pixel: F filled with the colour, . copied, u untouched, ? other.
  std::vector<std::string> Map() const {
    std::vector<std::string> rows;
    for (int y = 0; y < height; ++y) {
      std::string row;
      for (int x = 0; x < width; ++x) row += Classify(x, y);
      rows.push_back(row);
    }
    return rows;
  }
  char Classify(int x, int y) const {
    bool filled = true, copied = true, untouched = true;
    for (int c = 0; c < channels; ++c) {
      const Sample v = Result(x, y, c);
      filled = filled && v == static_cast<Sample>(params.channelValues[c]);
      copied = copied && v == Source(x, y, c);
      untouched = untouched && v == kUntouched;
    }
    return filled ? 'F' : copied ? '.' : untouched ? 'u' : '?';
  }
};

using Rows = std::vector<std::string>;

// Which pixels a part fills, worked out from counts of rows and pixels instead
// of countdowns. A part that starts at an odd row swaps ODD and EVEN for its
// columns only; its rows count from the part's own first row.
Rows ReferenceMap(int width, int height, int firstRow, int endRow, int64_t horizontal, int64_t vertical) {
  const bool alternates = vertical == 1 || vertical == 2;
  const int64_t column = (firstRow % 2 == 1 && alternates) ? 3 - vertical : vertical;
  Rows rows(height, std::string(std::max(width, 0), 'u'));
  int64_t pixelsBefore = 0;  // pixels of rows that were not filled whole
  for (int y = firstRow; y < endRow; ++y) {
    const bool whole = (horizontal == 1 || horizontal == 2) && (y - firstRow) % 2 == horizontal - 1;
    for (int x = 0; x < width; ++x) {
      if (whole) {
        rows[y][x] = 'F';
        continue;
      }
      rows[y][x] = (alternates && pixelsBefore % 2 == column - 1) ? 'F' : '.';
      ++pixelsBefore;
    }
  }
  return rows;
}

template <class Sample>
class InterlaceKernels : public ::testing::Test {
 protected:
  using D = DepthOf<Sample>;
  using F = Frame<Sample>;
};
using SampleTypes = ::testing::Types<uint8_t, uint16_t>;
TYPED_TEST_SUITE(InterlaceKernels, SampleTypes);

// ---- phases ------------------------------------------------------------------------

TYPED_TEST(InterlaceKernels, ExamplesFromRowZero) {
  struct Example {
    int64_t horizontal, vertical;
    Rows filled;
  };
  const Example examples[] = {
      {1, 0, {"FFFF", "....", "FFFF", "....", "FFFF", "...."}},
      {2, 0, {"....", "FFFF", "....", "FFFF", "....", "FFFF"}},
      {0, 1, {"F.F.", "F.F.", "F.F.", "F.F.", "F.F.", "F.F."}},
      {0, 2, {".F.F", ".F.F", ".F.F", ".F.F", ".F.F", ".F.F"}},
      {1, 1, {"FFFF", "F.F.", "FFFF", "F.F.", "FFFF", "F.F."}},
  };
  for (const Example& e : examples) {
    for (PartFunction part : {TestFixture::D::kPlain, TestFixture::D::kMasked}) {
      typename TestFixture::F f(4, 6);
      FakeMask mask;  // value 0: the masked part fills exactly like the plain one
      f.UseMask(mask);
      f.SetTypes(e.horizontal, e.vertical);
      f.RunAll(part);
      EXPECT_EQ(f.Map(), e.filled) << e.horizontal << "/" << e.vertical;
      EXPECT_EQ(f.params.head.progress, 6);
    }
  }
}

TYPED_TEST(InterlaceKernels, PartFromRowFiveSwapsColumnsButNotRows) {
  typename TestFixture::F columns(4, 9);
  columns.SetTypes(0, 1);
  columns.Run(TestFixture::D::kPlain, 5, 9);
  EXPECT_EQ(columns.Map(), (Rows{"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", ".F.F", ".F.F", ".F.F", ".F.F"}));

  typename TestFixture::F rows(4, 11);
  rows.SetTypes(1, 0);
  rows.Run(TestFixture::D::kPlain, 5, 11);
  EXPECT_EQ(rows.Map(),
            (Rows{"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", "FFFF", "....", "FFFF", "....", "FFFF", "...."}));
}

TYPED_TEST(InterlaceKernels, ColumnPhaseCarriesOverRowsAndSkipsWholeRows) {
  typename TestFixture::F f(3, 5);
  f.SetTypes(1, 1);
  f.RunAll(TestFixture::D::kPlain);
  // A whole row leaves the column phase where it was; an odd width alternates the start.
  EXPECT_EQ(f.Map(), (Rows{"FFF", "F.F", "FFF", ".F.", "FFF"}));
}

TYPED_TEST(InterlaceKernels, EveryStartRowAndSettingMatchesTheReference) {
  for (int width : {3, 4}) {
    for (int64_t h = 0; h <= 2; ++h) {
      for (int64_t v = 0; v <= 2; ++v) {
        for (int first = 0; first <= 5; ++first) {
          typename TestFixture::F f(width, 12);
          f.SetTypes(h, v);
          f.Run(TestFixture::D::kPlain, first, 10);
          EXPECT_EQ(f.Map(), ReferenceMap(width, 12, first, 10, h, v))
              << "width " << width << " types " << h << "/" << v << " from row " << first;
          EXPECT_EQ(f.params.head.progress, 10 - first);
        }
      }
    }
  }
}

// ---- rows without work -----------------------------------------------------------------

TYPED_TEST(InterlaceKernels, EmptyOrReversedPartDoesNothing) {
  for (auto [first, end] : {std::pair{3, 3}, std::pair{4, 2}}) {
    typename TestFixture::F f(4, 6);
    FakeMask mask;
    f.UseMask(mask);
    f.SetTypes(1, 1);
    f.Run(TestFixture::D::kMasked, first, end);
    EXPECT_EQ(f.params.head.progress, 0);
    EXPECT_TRUE(TestFixture::D::Rows(mask).empty());
    EXPECT_EQ(f.dst, std::vector<TypeParam>(f.dst.size(), f.kUntouched));
  }
}

TYPED_TEST(InterlaceKernels, ZeroOrNegativeWidthCountsRowsAndTouchesNothing) {
  for (int width : {0, -3}) {
    typename TestFixture::F f(width, 5);
    FakeMask mask;
    f.UseMask(mask);
    f.SetTypes(2, 1);
    f.RunAll(TestFixture::D::kMasked);
    EXPECT_EQ(f.params.head.progress, 5);
    EXPECT_EQ(TestFixture::D::Rows(mask), (std::vector<int64_t>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(TestFixture::D::Values(mask).empty());
    EXPECT_EQ(f.dst, std::vector<TypeParam>(f.dst.size(), f.kUntouched));
  }
}

// ---- channels -----------------------------------------------------------------------------

TYPED_TEST(InterlaceKernels, AlphaIsKeptUnlessInterlaced) {
  const int32_t alphaColour = TestFixture::D::Colour(3);
  for (uint8_t interlaceAlpha : {0, 1}) {
    typename TestFixture::F f(2, 1, 4);
    f.srcRecord.alphaOffset = static_cast<uint8_t>(3 * sizeof(TypeParam));  // a byte position
    f.params.interlaceAlpha = interlaceAlpha;
    f.SetTypes(1, 0);
    f.RunAll(TestFixture::D::kPlain);
    for (int x = 0; x < 2; ++x) {
      for (int c = 0; c < 3; ++c) EXPECT_EQ(f.Result(x, 0, c), TestFixture::D::Colour(c));
      EXPECT_EQ(f.Result(x, 0, 3), interlaceAlpha ? static_cast<TypeParam>(alphaColour) : f.Source(x, 0, 3));
    }
  }
}

TYPED_TEST(InterlaceKernels, ChannelWithoutComponentGetsTheMaximum) {
  typename TestFixture::F f(3, 1, 4);
  f.params.channelValues[3] = -1;
  f.params.interlaceAlpha = 0;  // alpha offset points at no channel: nothing is kept
  f.SetTypes(0, 2);
  f.RunAll(TestFixture::D::kPlain);
  EXPECT_EQ(f.Result(1, 0, 3), static_cast<TypeParam>(TestFixture::D::kFull));
  EXPECT_EQ(f.Result(1, 0, 0), TestFixture::D::Colour(0));
  EXPECT_EQ(f.Result(0, 0, 3), f.Source(0, 0, 3));
}

TEST(InterlaceKernels8, StepsByPixelBytesAndWritesBytesPerPixelChannels) {
  // Pixels 3 bytes apart in the source, 4 in the destination: the fourth
  // destination byte of each pixel is no channel and stays as it was.
  Frame<uint8_t> f(3, 2, 4);
  f.srcRecord.bytesPerPixel = 3;
  f.params.head.srcPixelBytes = 3;
  f.SetTypes(0, 1);
  f.RunAll(InterlacePart);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      const bool filled = (x + y * 3) % 2 == 0;
      for (int c = 0; c < 3; ++c) {
        const uint8_t expected = filled ? static_cast<uint8_t>(201 + c) : f.src[y * f.rowSamples + x * 3 + c];
        EXPECT_EQ(f.Result(x, y, c), expected) << x << "," << y << "," << c;
      }
      EXPECT_EQ(f.Result(x, y, 3), f.kUntouched);
    }
  }
}

TEST(InterlaceKernels16, StepsByChannelCountOfEachBitmap) {
  // Pixel fields are ignored at 16 bits; the records' channel counts decide.
  Frame<uint16_t> f(3, 2, 4);
  f.srcRecord.channelCount = 3;
  f.params.head.srcPixelBytes = 1;
  f.params.head.dstPixelBytes = 1;
  f.SetTypes(0, 1);
  f.RunAll(InterlacePart16);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      const bool filled = (x + y * 3) % 2 == 0;
      for (int c = 0; c < 3; ++c) {
        const uint16_t expected =
            filled ? static_cast<uint16_t>(40001 + 1000 * c) : f.src[y * f.rowSamples + x * 3 + c];
        EXPECT_EQ(f.Result(x, y, c), expected) << x << "," << y << "," << c;
      }
      EXPECT_EQ(f.Result(x, y, 3), f.kUntouched);
    }
  }
}

TYPED_TEST(InterlaceKernels, InPlaceGivesTheSameAsASeparateDestination) {
  for (bool masked : {false, true}) {
    for (int width : {3, 4}) {
      for (int64_t h = 0; h <= 2; ++h) {
        for (int64_t v = 0; v <= 2; ++v) {
          typename TestFixture::F apart(width, 7, 4), inPlace(width, 7, 4);
          FakeMask mask;
          mask.value = [](int64_t row, int32_t x) { return static_cast<uint32_t>(row * 37 + x * 91) % 300; };
          const PartFunction part = masked ? TestFixture::D::kMasked : TestFixture::D::kPlain;
          for (auto* f : {&apart, &inPlace}) {
            f->UseMask(mask);
            f->SetTypes(h, v);
          }
          inPlace.WorkInPlace();
          apart.Run(part, 0, 3);
          apart.Run(part, 3, 7);
          inPlace.Run(part, 0, 3);
          inPlace.Run(part, 3, 7);
          for (int y = 0; y < 7; ++y)
            for (int x = 0; x < width; ++x)
              for (int c = 0; c < 4; ++c) ASSERT_EQ(apart.Result(x, y, c), inPlace.Result(x, y, c));
        }
      }
    }
  }
}

// ---- the mask -----------------------------------------------------------------------------

TYPED_TEST(InterlaceKernels, MaskNoneGivesTheFillAndFullGivesTheSource) {
  for (uint32_t m : {0u, TestFixture::D::kFull}) {
    typename TestFixture::F plain(5, 6, 4), masked(5, 6, 4);
    FakeMask mask;
    mask.value = [m](int64_t, int32_t) { return m; };
    masked.UseMask(mask);
    for (auto* f : {&plain, &masked}) {
      f->srcRecord.alphaOffset = static_cast<uint8_t>(3 * sizeof(TypeParam));
      f->params.interlaceAlpha = 0;
      f->SetTypes(1, 2);
    }
    plain.RunAll(TestFixture::D::kPlain);
    masked.RunAll(TestFixture::D::kMasked);
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 5; ++x)
        for (int c = 0; c < 4; ++c)
          ASSERT_EQ(masked.Result(x, y, c), m == 0 ? plain.Result(x, y, c) : masked.Source(x, y, c));
  }
}

TYPED_TEST(InterlaceKernels, MaskMixesSourceAndFill) {
  typename TestFixture::F f(4, 1, 1);
  std::fill(f.src.begin(), f.src.end(), TypeParam{200});
  f.params.channelValues[0] = 0;
  const uint32_t full = TestFixture::D::kFull;
  const uint32_t values[] = {0, full, TestFixture::D::kHalf, full + 1 + TestFixture::D::kHalf};  // low bits only
  FakeMask mask;
  mask.value = [&](int64_t, int32_t x) { return values[x]; };
  f.UseMask(mask);
  f.SetTypes(1, 0);
  f.RunAll(TestFixture::D::kMasked);
  EXPECT_EQ(f.Result(0, 0, 0), 0);
  EXPECT_EQ(f.Result(1, 0, 0), 200);
  EXPECT_EQ(f.Result(2, 0, 0), 100);  // (200 * half) >> bits
  EXPECT_EQ(f.Result(3, 0, 0), 100);
}

TYPED_TEST(InterlaceKernels, KeptFullAlphaComesOutOneLowerUnderAPartialMask) {
  typename TestFixture::F f(1, 1, 4);
  const TypeParam full = static_cast<TypeParam>(TestFixture::D::kFull);
  f.src[3] = full;
  f.srcRecord.alphaOffset = static_cast<uint8_t>(3 * sizeof(TypeParam));
  f.params.interlaceAlpha = 0;
  FakeMask mask;
  mask.value = [](int64_t, int32_t) { return 100u; };
  f.UseMask(mask);
  f.SetTypes(1, 0);
  f.RunAll(TestFixture::D::kMasked);
  EXPECT_EQ(f.Result(0, 0, 3), full - 1);
}

TYPED_TEST(InterlaceKernels, MaskIsAskedOncePerRowAndOncePerFilledPixel) {
  typename TestFixture::F f(4, 6);
  FakeMask mask;
  f.UseMask(mask);
  f.SetTypes(2, 1);
  f.Run(TestFixture::D::kMasked, 1, 6);
  // Every row is asked for its handle, copied ones included.
  EXPECT_EQ(TestFixture::D::Rows(mask), (std::vector<int64_t>{1, 2, 3, 4, 5}));
  // Rows 1, 3, 5 alternate (starting at pixel 1 because the part starts at an
  // odd row); rows 2 and 4 are filled whole. Copied pixels are not asked about.
  const std::vector<std::pair<int64_t, int32_t>> expected = {
      {1, 1}, {1, 3}, {2, 0}, {2, 1}, {2, 2}, {2, 3}, {3, 1}, {3, 3}, {4, 0}, {4, 1}, {4, 2}, {4, 3}, {5, 1}, {5, 3}};
  EXPECT_EQ(TestFixture::D::Values(mask), expected);
  using OtherDepth = DepthOf<std::conditional_t<sizeof(TypeParam) == 1, uint16_t, uint8_t>>;
  EXPECT_TRUE(OtherDepth::Rows(mask).empty()) << "only the operations of the kernel's own depth are used";
}

// ---- cancel ----------------------------------------------------------------------------------

TYPED_TEST(InterlaceKernels, CancelStopsAfterTheCurrentRow) {
  typename TestFixture::F f(4, 7);
  FakeMask mask;
  mask.onRow = [&f](int64_t row) {
    if (row == 2) f.params.head.cancel = 1;
  };
  f.UseMask(mask);
  f.SetTypes(0, 1);
  f.Run(TestFixture::D::kMasked, 0, 7);
  EXPECT_EQ(f.params.head.progress, 3);
  EXPECT_EQ(f.Map(), (Rows{"F.F.", "F.F.", "F.F.", "uuuu", "uuuu", "uuuu", "uuuu"}));
}

TYPED_TEST(InterlaceKernels, CancelSetBeforeThePartLeavesOneRow) {
  typename TestFixture::F f(4, 5);
  f.params.head.cancel = 1;
  f.SetTypes(1, 0);
  f.Run(TestFixture::D::kPlain, 2, 5);
  EXPECT_EQ(f.params.head.progress, 1);
  EXPECT_EQ(f.Map(), (Rows{"uuuu", "uuuu", "FFFF", "uuuu", "uuuu"}));
}

}  // namespace
