// The interlace part functions, shipped and reference alike, on hand-built
// blocks: which rows and pixels each phase setting and start row fills, the
// fill value of every channel, the pixel steps of each depth, the mask mix and
// its queries, and the row bookkeeping owed to the engine.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "effects/interlace/interlace_kernels.h"
#include "support/interlace_reference.h"
#include "support/kernel_blocks.h"

namespace {

using namespace rawfx::test;
using Rows = std::vector<std::string>;

// Part functions by depth (8, 16 bits) and mask (without, with).
struct Kernels {
  const char* name;
  PartFunction parts[2][2];
  PartFunction Part(int sampleBytes, bool masked) const { return parts[sampleBytes - 1][masked]; }
};
const Kernels kShipped{"Shipped", {{InterlacePart, InterlaceMaskPart}, {InterlacePart16, InterlaceMaskPart16}}};
const Kernels kReference{"Reference",
                         {{rawfx::reference::InterlacePart, rawfx::reference::InterlaceMaskPart},
                          {rawfx::reference::InterlacePart16, rawfx::reference::InterlaceMaskPart16}}};

// Source samples lie below 100 (25000 at 16 bits), colours above 200 (40000)
// and the untouched destination holds 0xEE bytes, so every pixel can be told apart.
constexpr uint8_t kUntouched = 0xEE;
uint32_t Full(int sampleBytes) { return sampleBytes == 1 ? 255 : 65535; }
uint32_t Colour(int sampleBytes, int channel) { return sampleBytes == 1 ? 201 + channel : 40001 + 1000 * channel; }

struct Frame : PartFrame {
  Frame(PartFunction partFunction, bool masked, int sb, int width, int height, int channels = 3, int dstChannels = 3)
      : PartFrame(PixelBuffer(width, height, channels * sb, 2 * sb, 0, sb),
                  PixelBuffer(width, height, dstChannels * sb, 2 * sb, kUntouched, sb)) {
    for (size_t i = 0; i < src.bytes.size(); ++i)
      src.bytes[i] = static_cast<uint8_t>(1 + (i * 7 + i / static_cast<size_t>(src.rowBytes) * 13) % 97);
    original = src;
    for (int c = 0; c < kMaxChannels; ++c) params.channelValues[c] = static_cast<int32_t>(Colour(sb, c));
    params.interlaceAlpha = 1;
    Attach(params.head, &params, partFunction, masked);
  }
  void SetTypes(int64_t horizontal, int64_t vertical) {
    params.horizontalType = horizontal;
    params.verticalType = vertical;
  }
  const PixelBuffer& Out() const { return params.head.dstPixels == src.bytes.data() ? src : dst; }

  // One character per pixel: F filled with the colour, . the source, u untouched, ? anything else.
  Rows Map() const {
    Rows rows(static_cast<size_t>(src.height));
    for (int y = 0; y < src.height; ++y)
      for (int x = 0; x < src.width; ++x) {
        bool filled = true, copied = true, untouched = true;
        for (int c = 0; c < src.pixelBytes / src.sampleBytes; ++c) {
          const uint32_t v = Out().Sample(x, y, c);
          filled = filled && v == static_cast<uint32_t>(params.channelValues[c]);
          copied = copied && v == original.Sample(x, y, c);
          untouched = untouched && v == (src.sampleBytes == 1 ? 0xEEu : 0xEEEEu);
        }
        rows[y] += filled ? 'F' : copied ? '.' : untouched ? 'u' : '?';
      }
    return rows;
  }

  PixelBuffer original{0, 0, 0, 0, 0};  // the source as built, which an in-place run overwrites
  InterlaceParams params{};
};

class InterlaceKernels : public ::testing::TestWithParam<Kernels> {};

TEST_P(InterlaceKernels, PhasesDecideWhichRowsAndPixelsAreFilled) {
  // The map of every row of the bitmap; the part runs from firstRow to the last row.
  const struct {
    const char* what;
    int firstRow;
    int64_t horizontal, vertical;
    Rows map;
  } cases[] = {
      {"odd rows", 0, 1, 0, {"FFFF", "....", "FFFF", "....", "FFFF", "...."}},
      {"even rows", 0, 2, 0, {"....", "FFFF", "....", "FFFF", "....", "FFFF"}},
      {"odd columns", 0, 0, 1, {"F.F.", "F.F.", "F.F.", "F.F.", "F.F.", "F.F."}},
      {"even columns", 0, 0, 2, {".F.F", ".F.F", ".F.F", ".F.F", ".F.F", ".F.F"}},
      {"odd rows and columns", 0, 1, 1, {"FFFF", "F.F.", "FFFF", "F.F.", "FFFF", "F.F."}},
      {"none from an odd row", 1, 0, 0, {"uuuu", "....", "...."}},
      // A part from an odd row swaps the column phase, not the row phase.
      {"odd columns from row 5", 5, 0, 1, {"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", ".F.F", ".F.F", ".F.F", ".F.F"}},
      {"odd rows from row 5", 5, 1, 0, {"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", "FFFF", "....", "FFFF", "...."}},
      {"even rows and columns from row 3", 3, 2, 2, {"uuuu", "uuuu", "uuuu", "F.F.", "FFFF", "F.F."}},
      // With an odd width the column phase carries on from row to row; a whole row leaves it alone.
      {"odd width", 0, 1, 1, {"FFF", "F.F", "FFF", ".F.", "FFF"}},
  };
  for (const auto& c : cases)
    for (int sb : {1, 2})
      for (bool masked : {false, true})
        for (bool inPlace : {false, true}) {
          SCOPED_TRACE(Describe(c.what, ", ", 8 * sb, "-bit", masked ? ", masked" : "", inPlace ? ", in place" : ""));
          const int height = static_cast<int>(c.map.size()), width = static_cast<int>(c.map[0].size());
          Frame f(GetParam().Part(sb, masked), masked, sb, width, height);  // mask value 0: the plain fill
          f.SetTypes(c.horizontal, c.vertical);
          if (inPlace) f.params.head.dstPixels = f.params.head.srcPixels;
          f.Run(c.firstRow, height);
          Rows expected = c.map;
          std::vector<int64_t> rows;  // every row's handle is asked for ...
          std::vector<RecordingMask::Query> values;  // ... and a value only for a filled pixel
          for (int y = 0; y < height; ++y) {
            if (y >= c.firstRow) rows.push_back(y);
            for (int x = 0; x < width; ++x) {
              if (c.map[y][x] == 'F') values.emplace_back(y, x);
              if (inPlace && c.map[y][x] == 'u') expected[y][x] = '.';
            }
          }
          EXPECT_EQ(f.Map(), expected);
          EXPECT_EQ(f.params.head.progress, height - c.firstRow);
          if (!masked) continue;
          EXPECT_EQ(f.mask.rows, rows);
          EXPECT_EQ(f.mask.values, values);
          EXPECT_EQ(f.mask.bits, 8 * sb);  // only the operations of the part's own depth
        }
}

// Four channels; the fourth is the alpha channel or no component at all.
TEST_P(InterlaceKernels, FillTakesTheColourKeepsAlphaAndMaximisesChannelsWithoutColour) {
  const struct {
    const char* what;
    bool alphaIsFourth;
    uint8_t interlaceAlpha;
    int32_t fourthEntry;  // 0: the colour's own
    uint32_t expected[2];  // of the fourth channel, 8 and 16 bits
  } cases[] = {
      {"alpha kept", true, 0, 0, {7, 7}},
      {"alpha interlaced", true, 1, 0, {204, 43001}},
      {"no component", false, 0, -1, {255, 65535}},
  };
  for (const auto& c : cases)
    for (int sb : {1, 2}) {
      SCOPED_TRACE(Describe(c.what, ", ", 8 * sb, "-bit"));
      Frame f(GetParam().Part(sb, false), false, sb, 2, 1, 4, 4);
      for (int x = 0; x < 2; ++x) f.src.SetSample(x, 0, 3, 7);
      if (c.alphaIsFourth) f.srcRecord.alphaOffset = static_cast<uint8_t>(3 * sb);  // a byte position
      f.params.interlaceAlpha = c.interlaceAlpha;
      if (c.fourthEntry) f.params.channelValues[3] = c.fourthEntry;
      f.SetTypes(1, 0);
      f.RunAll();
      for (int x = 0; x < 2; ++x) {
        for (int ch = 0; ch < 3; ++ch) EXPECT_EQ(f.dst.Sample(x, 0, ch), Colour(sb, ch));
        EXPECT_EQ(f.dst.Sample(x, 0, 3), c.expected[sb - 1]);
      }
    }
}

// 8-bit parts step by the head's pixel bytes and fill the source record's
// bytesPerPixel channels; 16-bit parts step by each record's channelCount and
// ignore the head's pixel bytes. Source pixels have three channels, the
// destination's four: the fourth is no channel and stays untouched.
TEST_P(InterlaceKernels, PixelsStepAsTheirDepthDefines) {
  for (int sb : {1, 2}) {
    SCOPED_TRACE(8 * sb);
    Frame f(GetParam().Part(sb, false), false, sb, 3, 2, 3, 4);
    if (sb == 2) f.params.head.srcPixelBytes = f.params.head.dstPixelBytes = 1;
    f.SetTypes(0, 1);
    f.RunAll();
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x) {
        const bool filled = (x + y * 3) % 2 == 0;
        for (int c = 0; c < 3; ++c)
          EXPECT_EQ(f.dst.Sample(x, y, c), filled ? Colour(sb, c) : f.original.Sample(x, y, c)) << x << "," << y;
        EXPECT_EQ(f.dst.Sample(x, y, 3), sb == 1 ? 0xEEu : 0xEEEEu);
      }
  }
}

// Channel 0: source 200 under fill 0; channel 1: a kept full alpha, which any
// mask strictly between 0 and full brings one lower. Mask values by column: 0,
// full, half, and half with high bits that must not count.
TEST_P(InterlaceKernels, MaskMixesSourceAndFill) {
  for (int sb : {1, 2})
    for (bool inPlace : {false, true}) {
      SCOPED_TRACE(Describe(8 * sb, "-bit", inPlace ? ", in place" : ""));
      Frame f(GetParam().Part(sb, true), true, sb, 4, 1, 2, 2);
      const uint32_t full = Full(sb), half = full / 2 + 1, values[] = {0, full, half, (full + 1) * 3 + half};
      for (int x = 0; x < 4; ++x) {
        f.src.SetSample(x, 0, 0, 200);
        f.src.SetSample(x, 0, 1, full);
      }
      f.srcRecord.alphaOffset = static_cast<uint8_t>(sb);
      f.params.interlaceAlpha = 0;
      f.params.channelValues[0] = 0;
      f.mask.value = [&values](int64_t, int32_t x) { return values[x]; };
      if (inPlace) f.params.head.dstPixels = f.params.head.srcPixels;
      f.SetTypes(1, 0);
      f.RunAll();
      const uint32_t mixed[] = {0, 200, 100, 100}, alpha[] = {full, full, full - 1, full - 1};
      for (int x = 0; x < 4; ++x) {
        EXPECT_EQ(f.Out().Sample(x, 0, 0), mixed[x]) << x;
        EXPECT_EQ(f.Out().Sample(x, 0, 1), alpha[x]) << x;
      }
    }
}

TEST_P(InterlaceKernels, RowsProgressCancelAndDoneLeftAlone) {
  for (int sb : {1, 2})
    for (bool masked : {false, true}) {
      SCOPED_TRACE(Describe(8 * sb, "-bit", masked ? ", masked" : ""));
      ExpectRowBookkeeping(
          [&]() -> std::unique_ptr<PartFrame> {
            auto f = std::make_unique<Frame>(GetParam().Part(sb, masked), masked, sb, 4, 7);
            f->SetTypes(2, 1);
            return f;
          },
          0);
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, InterlaceKernels, ::testing::Values(kShipped, kReference), NameOf<Kernels>);

}  // namespace
