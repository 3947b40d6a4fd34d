// The fast interlace kernels against the literal reference kernels on thousands
// of random cases: every byte of the source and destination memory (padding and
// gaps included, in place and overlapping), progress, done and the exact
// sequence of mask queries must be the same, on the AVX2 path and on the
// portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "effects/interlace/interlace_kernels.h"
#include "support/differential.h"
#include "support/interlace_reference.h"

namespace {

using namespace rawfx::test;

using InterlaceCase = KernelCase<InterlaceParams>;

// The reference and the fast kernel by [16-bit][masked].
const std::pair<PartFunction, PartFunction> kParts[2][2] = {
    {{rawfx::reference::InterlacePart, InterlacePart}, {rawfx::reference::InterlaceMaskPart, InterlaceMaskPart}},
    {{rawfx::reference::InterlacePart16, InterlacePart16},
     {rawfx::reference::InterlaceMaskPart16, InterlaceMaskPart16}}};

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
  std::tie(c.reference, c.fast) = kParts[l.sampleBytes == 2][c.masked];
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

// The recording mask itself: the low bits are the value, the high bits noise,
// and the extremes and zero come up, so the kernels' mixing branches are all met.
TEST(InterlaceDifferential, MaskValuesCoverTheExtremesAndCarryHighBits) {
  int zero = 0, full = 0, high = 0;
  for (int32_t x = 0; x < 300; ++x) {
    const uint32_t v = MaskValue(MaskPlan{MaskValues::Extremes, 42}, false, 3, x);
    zero += (v & 0xFF) == 0;
    full += (v & 0xFF) == 0xFF;
    high += (v >> 8) != 0;
  }
  EXPECT_GT(zero, 50);
  EXPECT_GT(full, 50);
  EXPECT_LT(zero + full, 250);
  EXPECT_GT(high, 250);
}

}  // namespace
