// The oil paint part functions. Hand-built blocks pin the reference (and the
// shipped kernels) to neighbourhoods clipped at the borders, intensity bins,
// the lowest of equally full bins, channel offsets and weights and the mask
// mix; random cases then demand that the fast kernels leave every byte,
// progress, done and the mask queries as the reference does and give back
// every block of scratch, even when it cannot be had, on every path.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "effects/oilpaint/oilpaint_kernels.h"
#include "support/differential.h"
#include "support/references.h"

namespace {

using namespace rawfx::test;
using Rgb = std::array<uint8_t, 3>;
using Offsets = std::array<int32_t, 3>;  // of red, green and blue in the pixel
using OilPaintCase = KernelCase<OilPaintParams>;

// The fast part functions by depth (8 bits, repeated) and mask (without, with).
const PartFunction kFast[2][2] = {{OilPaintPart8bit, OilPaintMaskPart8bit}, {OilPaintPart8bit, OilPaintMaskPart8bit}};

constexpr Rgb kBlack{0, 0, 0}, kWhite{255, 255, 255};
constexpr Offsets kRGB{0, 1, 2}, kBGR{2, 1, 0}, kGrey{0, 0, 0};
Rgb Grey(int g) { return {static_cast<uint8_t>(g), static_cast<uint8_t>(g), static_cast<uint8_t>(g)}; }

// A black source of packed pixels without alpha (one byte when the offsets
// coincide), the block as the effect fills it, the part function for the mask
// and the colours of row 0.
OilPaintCase Frame(bool masked, int width, int height, Offsets rgb, float smoothness, int brush,
                   const std::vector<Rgb>& row = {}) {
  OilPaintCase c;
  c.Block(width, height, 1, rgb[0] == rgb[1] ? 1 : 3);
  c.params.redOffset = rgb[0];
  c.params.greenOffset = rgb[1];
  c.params.blueOffset = rgb[2];
  c.masked = masked;
  c.params.smoothness = smoothness;
  c.params.maxLevel = static_cast<int16_t>(smoothness * 255.0f);
  c.params.brushSize = static_cast<uint8_t>(brush);
  c.Use(rawfx::reference::kOilPaintParts, kFast, masked);
  for (size_t x = 0; x < row.size(); ++x)
    for (int i = 0; i < 3; ++i) c.SetSource(static_cast<int>(x), 0, rgb[i], row[x][i]);
  return c;
}

// The colour of pixel (x, y) after a run.
Rgb Out(const OilPaintCase& c, const Outcome& out, int x, int y) {
  const Offsets at{c.params.redOffset, c.params.greenOffset, c.params.blueOffset};
  Rgb rgb;
  for (int i = 0; i < 3; ++i) rgb[i] = static_cast<uint8_t>(c.Result(out, x, y, at[i]));
  return rgb;
}

// Which pixels a neighbourhood holds, which bin wins and what colour it gives,
// then how the mask mixes that colour with the source.
TEST(OilPaintKernels, PaintsTheFullestBinOfTheClippedSquareAndMixesTheMask) {
  // A black 13 x 11 bitmap (at brush 5, wide enough for a column to leave the
  // square as another enters) but for a blue probe p at (x, y), all in bin 0 at
  // smoothness 0.04: the pixel's blue comes out as p / count. A probe of n gives
  // 1 only if count <= n, one of n - 1 gives 0 only if count >= n: together they pin it.
  const struct {
    int x, y, count;
  } squares[] = {{0, 0, 36}, {12, 10, 36}, {0, 5, 66}, {6, 10, 66}, {6, 5, 121}};
  for (const auto& c : squares)
    for (int probe : {c.count, c.count - 1}) {
      SCOPED_TRACE(Describe("(", c.x, ", ", c.y, ") probe ", probe));
      OilPaintCase b = Frame(false, 13, 11, kRGB, 0.04f, 5);
      b.SetSource(c.x, c.y, 2, static_cast<uint32_t>(probe));
      EXPECT_EQ(Out(b, CheckedRun(b), c.x, c.y)[2], probe == c.count ? 1 : 0);
    }
  // One row that every neighbourhood holds whole, so every pixel comes out
  // alike. Three pixels, a pair and a single: if both share a bin, all three
  // are averaged; otherwise the pair's bin wins with the pair's colour. Two
  // pixels, one black and one white: equal counts, and the lower bin wins.
  const struct {
    const char* what;
    Offsets rgb;
    float smoothness;
    int brush;
    std::vector<Rgb> row;
    Rgb expected;
  } cases[] = {
      {"200 in bin 80, 199 in 79", kRGB, 0.4f, 2, {Grey(200), Grey(199), Grey(200)}, Grey(200)},
      {"201 and 200 share bin 80", kRGB, 0.4f, 2, {Grey(201), Grey(200), Grey(201)}, Grey(200)},
      {"10 has intensity 9, bin 3 like 9", kRGB, 0.4f, 2, {Grey(10), Grey(9), Grey(10)}, Grey(9)},
      // One channel: grey 5 has intensity 4 and shares bin 0 with 4, which
      // intensity 5 would not at this smoothness.
      {"one channel", kGrey, 0.2f, 2, {Grey(5), Grey(4), Grey(5)}, Grey(4)},
      // White fills the top bin, maxLevel: 10 and 255 bins are all scanned.
      {"top bin at 0.04", kRGB, 0.04f, 2, {kWhite, kBlack, kWhite}, kWhite},
      {"top bin at 1.0", kRGB, 1.0f, 2, {kWhite, kBlack, kWhite}, kWhite},
      // Red at its offset weighs 0.3: intensity 76, bin 7 like grey 78 (not
      // 150 or 28, as green's or blue's weight would give).
      {"weights and offsets", kBGR, 0.1f, 2, {{255, 0, 0}, Grey(78), {255, 0, 0}}, {196, 26, 26}},
      {"tie, white first", kRGB, 0.04f, 1, {kWhite, kBlack}, kBlack},
      {"tie, black first", kRGB, 1.0f, 5, {kBlack, kWhite}, kBlack},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int width = static_cast<int>(c.row.size());
    const OilPaintCase b = Frame(false, width, 1, c.rgb, c.smoothness, c.brush, c.row);
    const Outcome out = CheckedRun(b);
    for (int x = 0; x < width; ++x) EXPECT_EQ(Out(b, out, x, 0), c.expected) << x;
  }
  // Masked, the pair's white is the oil paint colour of all three pixels, and
  // each colour byte mixes with the source's, no shortcut at 0 or 255. Mask
  // values keep high bits, of which only the low 8 count: 0x7FF is 255, 0x100 is 0.
  OilPaintCase b = Frame(true, 3, 1, kRGB, 0.4f, 2, {kWhite, kBlack, kWhite});
  b.mask.columns = {0x7FF, 128, 0x100};
  const Outcome out = CheckedRun(b);
  // 255 x 255 >> 8: nearly the source; (0 x 128 + 255 x 127) >> 8; 255 x 255 >> 8: nearly the oil colour.
  const int mixed[] = {254, 126, 254};
  for (int x = 0; x < 3; ++x) EXPECT_EQ(Out(b, out, x, 0), Grey(mixed[x])) << x;
}

// ---- the fast kernels against the reference ----------------------------------------

// How the source's colours are drawn: what each stresses.
enum class Picture {
  Noise,       // every byte random: bins mostly distinct, ties everywhere
  FewColours,  // a handful of colours: crowded bins and equal counts
  Smooth,      // gradients with grain, like photographs: neighbouring bins
  EdgeOfBins,  // colours whose weighted sum is a whole number in exact arithmetic,
               // where the double sum may fall just below it
  Extremes,    // 0 and 255 only
};

// A colour (r, g, b) with 59 g + 30 r + 11 b a multiple of 100 (39 x 59 is 1
// modulo 100): a whole intensity in exact arithmetic, which the double sum may
// miss by an ulp.
Rgb EdgeColour(Rng& rng) {
  const auto r = static_cast<int>(Uniform(rng, 0, 255)), b = static_cast<int>(Uniform(rng, 0, 255));
  const int lowest = (100 - 39 * (30 * r + 11 * b) % 100) % 100;  // then every 100th green up to 255
  const int g = lowest + 100 * static_cast<int>(Uniform(rng, 0, lowest <= 55 ? 2 : 1));
  return {static_cast<uint8_t>(r), static_cast<uint8_t>(g), static_cast<uint8_t>(b)};
}

// Random bytes everywhere (padding and unused channels included), then the
// colour channels drawn as the picture asks. The source ends right after
// the last byte that the reference reads, so a fast path reading further
// runs off its end.
std::vector<uint8_t> Source(Rng& rng, const OilPaintCase& c, Picture picture) {
  const Layout& l = c.l;
  const Offsets at{c.params.redOffset, c.params.greenOffset, c.params.blueOffset};
  int64_t bytes = 0;
  if (l.width > 0 && l.height > 0)
    bytes = (l.height - 1) * int64_t{l.srcRowBytes} + (l.width - 1) * int64_t{l.srcPixelBytes} +
            std::max({at[0], at[1], at[2], int32_t{c.srcRecord.alphaOffset}}) + 1;
  std::vector<uint8_t> source = RandomBytes(rng, static_cast<size_t>(bytes));
  const std::vector<uint8_t> palette = RandomBytes(rng, static_cast<size_t>(3 * Uniform(rng, 2, 6)));  // a few colours
  const double phase = static_cast<double>(Uniform(rng, 0, 1000)) / 100.0;
  for (int y = 0; y < l.height && picture != Picture::Noise; ++y)
    for (int x = 0; x < l.width; ++x) {
      const uint8_t* few = &palette[3 * Uniform(rng, 0, palette.size() / 3 - 1)];
      Rgb colour = picture == Picture::EdgeOfBins ? EdgeColour(rng) : Rgb{few[0], few[1], few[2]};
      uint8_t* pixel = source.data() + y * int64_t{l.srcRowBytes} + x * int64_t{l.srcPixelBytes};
      for (int ch = 0; ch < 3; ++ch) {
        const double wave = 0.5 + 0.3 * std::sin(x * 0.21 + phase + ch) * std::cos(y * 0.17 - phase);
        const double grain = static_cast<double>(Uniform(rng, -12, 12));
        if (picture == Picture::Smooth) colour[ch] = static_cast<uint8_t>(std::clamp(wave * 255 + grain, 0.0, 255.0));
        if (picture == Picture::Extremes) colour[ch] = Chance(rng, 0.5) ? 0 : 255;
        pixel[at[ch]] = colour[ch];
      }
    }
  return source;
}

// Both ends of the range, the default, the neighbours of the ends, values
// next to where maxLevel steps, and anything in between.
float RandomSmoothness(Rng& rng) {
  const float fixed[] = {0.04f, 1.0f, 0.4f, std::nextafter(0.04f, 1.0f), std::nextafter(1.0f, 0.0f)};
  if (Chance(rng, 5.0 / 8)) return PickFrom(rng, fixed);
  if (Chance(rng, 0.5)) return std::uniform_real_distribution<float>(0.04f, 1.0f)(rng);
  const float step = static_cast<float>(Uniform(rng, 11, 255)) / 255.0f;
  return std::clamp(std::nextafter(step, Chance(rng, 0.5) ? 0.0f : 1.0f), 0.04f, 1.0f);
}

// Brushes and masks cycle with the index, and so do three kinds of case, so
// every combination comes up whatever the random draws: every layout;
// photographs (pictures like them, wide enough for the vector path); and
// scratch that cannot be had, in any part and at any of its four blocks, where
// every row is still painted and every block taken is given back.
OilPaintCase RandomCase(Rng& rng, int index) {
  // The block and records as a hand-built case has them, then the layout drawn.
  OilPaintCase c = Frame(index / 5 % 2 == 1, 0, 0, kGrey, RandomSmoothness(rng), 1 + index % 5);
  OilPaintParams& p = c.params;
  const int kind = index / 10 % 12;  // 0 .. 7 every layout, 8 .. 10 photographs, 11 failing scratch
  const bool photograph = kind >= 8 && kind <= 10;
  // The colour layout: one channel (all three offsets alike), the usual 3- and
  // 4-byte orders, or any offsets within the pixel, coinciding or not. A
  // photograph has the layout of the benchmarks and of most bitmaps: 4-byte
  // pixels, colour bytes together in order, alpha last.
  int32_t& pixelBytes = c.l.srcPixelBytes;
  const int64_t draw = photograph ? 3 : Uniform(rng, 0, 9);
  if (draw < 3) {
    pixelBytes = static_cast<int32_t>(Uniform(rng, 1, 4));
    p.redOffset = p.greenOffset = p.blueOffset = static_cast<int32_t>(Uniform(rng, 0, pixelBytes - 1));
  } else if (draw < 7) {
    pixelBytes = draw < 6 ? 4 : 3;
    p.redOffset = pixelBytes == 4 && !photograph ? static_cast<int32_t>(Uniform(rng, 0, 1)) : 0;
    p.greenOffset = p.redOffset + 1;
    p.blueOffset = p.redOffset + 2;
    if (!photograph && Chance(rng, 0.5)) std::swap(p.redOffset, p.blueOffset);
  } else {
    pixelBytes = static_cast<int32_t>(Uniform(rng, 1, 8));
    for (int32_t* offset : {&p.redOffset, &p.greenOffset, &p.blueOffset})
      *offset = static_cast<int32_t>(Uniform(rng, 0, pixelBytes - 1));
  }
  c.l.channels = pixelBytes;
  c.l.dstPixelBytes = std::max(Chance(rng, 0.85) || photograph ? pixelBytes : static_cast<int32_t>(Uniform(rng, 1, 8)),
                               std::max({p.redOffset, p.greenOffset, p.blueOffset}) + 1);
  c.srcRecord.hasAlpha = c.dstRecord.hasAlpha = photograph || Chance(rng, 0.5);
  c.srcRecord.alphaOffset = static_cast<uint8_t>(photograph ? 3 : Uniform(rng, 0, pixelBytes - 1));
  c.dstRecord.alphaOffset = static_cast<uint8_t>(photograph ? 3 : Uniform(rng, 0, c.l.dstPixelBytes - 1));
  auto picture = static_cast<Picture>(Uniform(rng, 0, 4));
  if (photograph) picture = Chance(rng, 0.5) ? Picture::Smooth : Picture::EdgeOfBins;
  Layout& l = c.l;
  l.sampleBytes = 1;
  RandomSize(rng, l, 420);  // long rows: past the binned chunks and round the ring
  if (photograph) l.width = std::max(l.width, 8);
  if (kind == 11) c.grantedBlocks = Uniform(rng, 0, 13);
  l.srcRowBytes = std::max(l.width, 0) * l.srcPixelBytes + static_cast<int32_t>(Uniform(rng, 0, 9));
  l.dstRowBytes = std::max(l.width, 0) * l.dstPixelBytes + static_cast<int32_t>(Uniform(rng, 0, 9));
  c.source = Source(rng, c, picture);
  c.dstAt = Uniform(rng, 0, 8);
  c.destination = RandomBytes(rng, static_cast<size_t>(c.dstAt + l.dstRowBytes * std::max<int64_t>(l.height, 0) + 16));
  c.settings = Describe("brush ", int{p.brushSize}, ", smoothness ", p.smoothness, " (maxLevel ", p.maxLevel, "), rgb ",
                        p.redOffset, ",", p.greenOffset, ",", p.blueOffset, ", alpha ", int{c.srcRecord.hasAlpha}, ":",
                        int{c.srcRecord.alphaOffset}, "/", int{c.dstRecord.alphaOffset}, ", picture ",
                        static_cast<int>(picture));
  return c;
}

TEST(OilPaintDifferential, RandomCasesMatchTheReference) { CheckRandomCases(0x011FA1E7ull, 4600, RandomCase); }

// sum / count by the reciprocal, for every count a square can hold and every
// sum of that many bytes.
TEST(OilPaintMean, ReciprocalQuotientIsTheTruncatedQuotient) {
  int wrong = 0;
  for (uint32_t count = 1; count <= rawfx::oilpaint::kMaxNeighbours; ++count)
    for (uint32_t sum = 0; sum <= 255 * count; ++sum) wrong += rawfx::oilpaint::MeanOf(sum, count) != sum / count;
  EXPECT_EQ(wrong, 0);
}

}  // namespace
