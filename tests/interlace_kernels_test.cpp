// The interlace part functions. Hand-built blocks pin the reference (and the
// shipped kernels) to which rows and pixels each phase setting and start row
// fills and to the mask mix and its queries; random cases then demand that the
// fast kernels leave every byte of memory (padding and gaps included, in place
// and overlapping), progress, done and the mask queries as the reference does,
// on the AVX2 path and the portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "effects/interlace/interlace_kernels.h"
#include "support/differential.h"
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
void PrintTo(const Kernels& kernels, std::ostream* out) { *out << kernels.name; }

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

INSTANTIATE_TEST_SUITE_P(Kernels, InterlaceKernels, ::testing::Values(kShipped, kReference), NameOf<Kernels>);


// ---- the fast kernels against the reference ----------------------------------------

using InterlaceCase = KernelCase<InterlaceParams>;

int64_t TypeValue(Rng& rng) {
  const int64_t odd[] = {-7, -2, -1, 3, 4, 9};
  return Chance(rng, 0.9) ? Uniform(rng, 0, 2) : PickFrom(rng, odd);
}

// As the class describes the bitmaps: the 16-bit parts take their pixel
// steps from channelCount, the 8-bit ones their channels from bytesPerPixel.
RawBitmap Record(const Layout& l, int32_t pixelBytes, uint8_t alphaOffset) {
  RawBitmap record{};
  record.width = l.width;
  record.height = l.height;
  record.channelCount = pixelBytes / l.sampleBytes;
  record.bytesPerPixel = l.channels * l.sampleBytes;
  record.alphaOffset = alphaOffset;
  record.bitsPerChannel = static_cast<uint8_t>(8 * l.sampleBytes);
  return record;
}

// Depth and mask alternate and every fourth case takes the next of the nine
// pairs of types, so all combinations come up whatever the random draws. The
// destination lies apart, in place or overlapping the source. Packed rows are
// the ones the fast paths take: the destination apart or in place, pixel
// steps of their channels.
InterlaceCase RandomCase(Rng& rng, int index, bool packed) {
  InterlaceCase c;
  Layout& l = c.l;
  l.sampleBytes = index % 2 == 0 ? 1 : 2;
  c.masked = (index / 2) % 2 == 1;
  InterlaceParams& p = c.params;
  p.horizontalType = Chance(rng, 0.08) ? TypeValue(rng) : (index / 4) % 9 / 3;
  p.verticalType = Chance(rng, 0.08) ? TypeValue(rng) : (index / 4) % 9 % 3;
  l.channels = static_cast<int32_t>(Uniform(rng, 1, 8));
  const int64_t place = Uniform(rng, 0, 99);
  const bool inPlace = place >= (packed ? 60 : 45) && (packed || place < 85), overlapping = !packed && place >= 85;

  int64_t srcStep = l.channels, dstStep = l.channels;  // in samples
  if (!packed && Chance(rng, overlapping ? 0.5 : 0.15)) {
    // 16-bit sources always step by their channel count; only the destination's may differ.
    if (l.sampleBytes == 1) srcStep = std::max<int64_t>(1, l.channels + Uniform(rng, -1, 2));
    dstStep = std::max<int64_t>(1, l.channels + Uniform(rng, -1, 2));
  }
  if (inPlace) dstStep = srcStep;
  l.srcPixelBytes = static_cast<int32_t>(srcStep * l.sampleBytes);
  l.dstPixelBytes = static_cast<int32_t>(dstStep * l.sampleBytes);

  RandomSize(rng, l, 1200);  // long rows, so the colour patterns wrap around

  // Rows end with the last channel of their last pixel, then padding; 16-bit
  // rows stay aligned.
  const int32_t even = l.sampleBytes;
  auto rowBytes = [&](int64_t step) {
    const int64_t extent = l.width > 0 ? ((l.width - 1) * step + l.channels) * even : 0;
    return static_cast<int32_t>(extent + even * Uniform(rng, 0, 5));
  };
  l.srcRowBytes = rowBytes(srcStep);
  l.dstRowBytes = inPlace ? l.srcRowBytes : rowBytes(dstStep);
  c.srcAt = even * Uniform(rng, 0, 8);
  c.dstAt = inPlace ? c.srcAt : even * Uniform(rng, 0, 8);
  if (overlapping) c.dstAt = std::max<int64_t>(0, c.srcAt + even * Uniform(rng, -4, 12));
  const int64_t rows = std::max(l.height, 0), dstBytes = c.dstAt + l.dstRowBytes * rows;
  c.source = RandomBytes(rng, static_cast<size_t>(std::max(c.srcAt + l.srcRowBytes * rows, dstBytes) + 16));
  if (!inPlace && !overlapping) c.destination = RandomBytes(rng, static_cast<size_t>(dstBytes + 16));

  uint8_t alpha = Chance(rng, 0.3) ? uint8_t{0xFF} : static_cast<uint8_t>(Uniform(rng, 0, 2 * l.channels));
  if (l.sampleBytes == 2 && Chance(rng, 0.5))  // a kept channel at a true 16-bit offset
    alpha = static_cast<uint8_t>(2 * Uniform(rng, 0, l.channels - 1));
  c.srcRecord = Record(l, l.srcPixelBytes, alpha);
  c.dstRecord = Record(l, l.dstPixelBytes, alpha);
  p.interlaceAlpha = Chance(rng, 0.5) ? 0 : static_cast<uint8_t>(Uniform(rng, 1, 255));
  const int32_t values[] = {-1, 0, 65535};
  for (int32_t& v : p.channelValues)
    v = Chance(rng, 0.3) ? PickFrom(rng, values) : static_cast<int32_t>(Uniform(rng, INT32_MIN, INT32_MAX));
  c.reference = kReference.Part(l.sampleBytes, c.masked);
  c.fast = kShipped.Part(l.sampleBytes, c.masked);
  c.mask = RandomMask(rng, l.height);
  c.parts = RandomParts(rng, l.height);
  c.settings = "alpha " + std::to_string(alpha) + ", interlaceAlpha " + std::to_string(p.interlaceAlpha) +
               ", types " + std::to_string(p.horizontalType) + "/" + std::to_string(p.verticalType);
  return c;
}

TEST(InterlaceDifferential, RandomCasesOfEveryLayout) {
  CheckRandomCases(0x1A7E4C0DEull, 6000, [](Rng& rng, int i) { return RandomCase(rng, i, false); });
}

TEST(InterlaceDifferential, RandomPackedRows) {
  CheckRandomCases(0x5EED0F1A7ull, 6000, [](Rng& rng, int i) { return RandomCase(rng, i, true); });
}

}  // namespace
