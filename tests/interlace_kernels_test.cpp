// The interlace part functions. Hand-built blocks pin the reference (and the
// shipped kernels) to which rows and pixels each phase setting and start row
// fills and to the mask mix and its queries; random cases then demand that the
// fast kernels leave every byte of memory (padding and gaps included, in place
// and overlapping), progress, done and the mask queries as the reference does,
// on every path.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "effects/interlace/interlace_kernels.h"
#include "support/differential.h"
#include "support/references.h"

namespace {

using namespace rawfx::test;
using InterlaceCase = KernelCase<InterlaceParams>;

// The fast part functions by depth (8, 16 bits) and mask (without, with).
const PartFunction kFast[2][2] = {{InterlacePart, InterlaceMaskPart}, {InterlacePart16, InterlaceMaskPart16}};

// Source samples lie below 100, colours above 200 (40000 at 16 bits) and the
// untouched destination holds 0xA5 bytes, so every pixel can be told apart;
// source rows are padded. The mask is 0 in its low bits: the plain fill.
uint32_t SourceAt(int32_t x, int32_t y, int ch) { return static_cast<uint32_t>(1 + (x * 7 + y * 13 + ch * 3) % 97); }

InterlaceCase Block(int sb, bool masked, int width, int height, int channels = 3,
                    const std::function<uint32_t(int32_t, int32_t, int)>& sample = SourceAt) {
  InterlaceCase c;
  c.Block(width, height, sb, channels, 2, sample);
  for (int ch = 0; ch < kMaxChannels; ++ch) c.params.channelValues[ch] = sb == 1 ? 201 + ch : 40001 + 1000 * ch;
  c.masked = masked;
  c.Use(rawfx::reference::kInterlaceParts, kFast, masked);
  return c;
}

// The rows and pixels each phase setting and start row fills, at both depths,
// with and without a mask, then how a mask mixes source and fill.
TEST(InterlaceKernels, PhasesPickTheFilledPixelsAndTheMaskMixesThem) {
  // The map of every row of the bitmap, one character per pixel: F filled
  // with the colour, . the source, u untouched. The part runs from firstRow
  // to the last row.
  const struct {
    const char* what;
    int firstRow;
    int64_t horizontal, vertical;
    std::vector<std::string> map;
  } cases[] = {
      {"odd rows", 0, 1, 0, {"FFFF", "....", "FFFF", "....", "FFFF", "...."}},
      {"even rows", 0, 2, 0, {"....", "FFFF", "....", "FFFF", "....", "FFFF"}},
      {"odd columns", 0, 0, 1, {"F.F.", "F.F.", "F.F.", "F.F.", "F.F.", "F.F."}},
      {"even columns", 0, 0, 2, {".F.F", ".F.F", ".F.F", ".F.F", ".F.F", ".F.F"}},
      {"none from an odd row", 1, 0, 0, {"uuuu", "....", "...."}},
      // A part from an odd row swaps the column phase, not the row phase.
      {"odd columns from row 5", 5, 0, 1, {"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", ".F.F", ".F.F", ".F.F", ".F.F"}},
      {"odd rows from row 5", 5, 1, 0, {"uuuu", "uuuu", "uuuu", "uuuu", "uuuu", "FFFF", "....", "FFFF", "...."}},
      {"even rows and columns from row 3", 3, 2, 2, {"uuuu", "uuuu", "uuuu", "F.F.", "FFFF", "F.F."}},
      // With an odd width the column phase carries on from row to row; a whole row leaves it alone.
      {"odd rows and columns, odd width", 0, 1, 1, {"FFF", "F.F", "FFF", ".F.", "FFF"}},
  };
  for (int sb : {1, 2}) {
    for (const auto& c : cases)
      for (bool masked : {false, true}) {
        SCOPED_TRACE(Describe(c.what, ", ", 8 * sb, "-bit", masked ? ", masked" : ""));
        const int height = static_cast<int>(c.map.size()), width = static_cast<int>(c.map[0].size());
        InterlaceCase k = Block(sb, masked, width, height);
        k.params.horizontalType = c.horizontal;
        k.params.verticalType = c.vertical;
        k.parts.ranges = {{c.firstRow, height}};
        const Outcome out = CheckedRun(k);
        std::vector<std::string> map(static_cast<size_t>(height));
        std::vector<MaskQuery> queries;  // every row's handle, of the part's own depth; a value only where filled
        for (int y = 0; y < height; ++y) {
          if (y >= c.firstRow) queries.push_back({y, MaskHandle(y), -1, 8 * sb});
          for (int x = 0; x < width; ++x) {
            bool filled = true, copied = true, untouched = true;
            for (int ch = 0; ch < 3; ++ch) {
              const uint32_t v = k.Result(out, x, y, ch);
              filled = filled && v == static_cast<uint32_t>(k.params.channelValues[ch]);
              copied = copied && v == SourceAt(x, y, ch);
              untouched = untouched && v == (sb == 1 ? 0xA5u : 0xA5A5u);
            }
            map[y] += filled ? 'F' : copied ? '.' : untouched ? 'u' : '?';
            if (c.map[y][x] == 'F') queries.push_back({y, MaskHandle(y), x, 8 * sb});
          }
        }
        EXPECT_EQ(map, c.map);
        EXPECT_EQ(out.progress, height - c.firstRow);
        EXPECT_EQ(out.queries, masked ? queries : std::vector<MaskQuery>{});
      }
    // Channel 0: source 200 under fill 0; channel 1: a kept full alpha, which
    // any mask strictly between 0 and full brings one lower. Mask values by
    // column: 0, full, half, and half with high bits that must not count.
    SCOPED_TRACE(Describe("mask mix, ", 8 * sb, "-bit"));
    const uint32_t full = sb == 1 ? 255 : 65535, half = full / 2 + 1;
    InterlaceCase c = Block(sb, true, 4, 1, 2, [full](int32_t, int32_t, int ch) { return ch == 0 ? 200 : full; });
    c.mask.columns = {0, full, half, (full + 1) * 3 + half};
    c.srcRecord.alphaOffset = static_cast<uint8_t>(sb);
    c.params.interlaceAlpha = 0;
    c.params.channelValues[0] = 0;
    c.params.horizontalType = 1;
    const Outcome out = CheckedRun(c);
    const uint32_t mixed[] = {0, 200, 100, 100}, alpha[] = {full, full, full - 1, full - 1};
    for (int x = 0; x < 4; ++x) {
      EXPECT_EQ(c.Result(out, x, 0, 0), mixed[x]) << x;
      EXPECT_EQ(c.Result(out, x, 0, 1), alpha[x]) << x;
    }
  }
}

// ---- the fast kernels against the reference ----------------------------------------

// Depth and mask alternate, every fourth case takes the next of the nine pairs
// of types (now and then a value outside them) and every 36th turns to packed
// rows or back, so all combinations come up whatever the random draws. The
// destination lies apart, in place or overlapping the source. Packed rows are
// the ones the fast paths take: the destination apart or in place, pixel steps
// of their channels.
InterlaceCase RandomCase(Rng& rng, int index) {
  InterlaceCase c;
  Layout& l = c.l;
  l.sampleBytes = 1 + index % 2;
  c.masked = index / 2 % 2 == 1;
  const bool packed = index / 36 % 2 == 1;
  InterlaceParams& p = c.params;
  const int64_t odd[] = {-7, -2, -1, 3, 4, 9};
  p.horizontalType = Chance(rng, 0.08) ? PickFrom(rng, odd) : index / 4 % 9 / 3;
  p.verticalType = Chance(rng, 0.08) ? PickFrom(rng, odd) : index / 4 % 9 % 3;
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
  c.srcRecord = RecordOf(l, l.srcPixelBytes, alpha);
  c.dstRecord = RecordOf(l, l.dstPixelBytes, alpha);
  p.interlaceAlpha = Chance(rng, 0.5) ? 0 : static_cast<uint8_t>(Uniform(rng, 1, 255));
  const int32_t values[] = {-1, 0, 65535};
  for (int32_t& v : p.channelValues)
    v = Chance(rng, 0.3) ? PickFrom(rng, values) : static_cast<int32_t>(Uniform(rng, INT32_MIN, INT32_MAX));
  c.Use(rawfx::reference::kInterlaceParts, kFast, c.masked);
  c.settings = Describe(packed ? "packed, " : "", "alpha ", int{alpha}, ", interlaceAlpha ", int{p.interlaceAlpha},
                        ", types ", p.horizontalType, "/", p.verticalType);
  return c;
}

TEST(InterlaceDifferential, RandomCasesMatchTheReference) { CheckRandomCases(0x1A7E4C0DEull, 12000, RandomCase); }

}  // namespace
