// The fast oil paint kernels against the literal reference kernels on
// thousands of random cases: every byte of the destination memory (padding
// and the bytes around it included), the source, progress, done, the exact
// sequence of mask queries must be the same and no scratch may be left, on
// the AVX2 path and on the portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>

#include "effects/oilpaint/oilpaint_kernels.h"
#include "imaging/memory.h"
#include "support/differential.h"
#include "support/oilpaint_kernel_reference.h"

namespace {

using namespace rawfx::test;

// How the source's colours are drawn: what each stresses.
enum class Picture {
  Noise,       // every byte random: bins mostly distinct, ties everywhere
  FewColours,  // a handful of colours: crowded bins and equal counts
  Smooth,      // gradients with grain, like photographs: neighbouring bins
  EdgeOfBins,  // colours whose weighted sum is a whole number in exact arithmetic,
               // where the double sum may fall just below it
  Extremes,    // 0 and 255 only
};

// Colours (r, g, b) with 59 g + 30 r + 11 b a multiple of 100: whole
// intensities in exact arithmetic, which the double sum may miss by an ulp.
const std::vector<std::array<uint8_t, 3>>& EdgeColours() {
  static const std::vector<std::array<uint8_t, 3>> colours = [] {
    std::vector<std::array<uint8_t, 3>> found;
    for (int r = 0; r < 256; r += 3)
      for (int g = 0; g < 256; ++g)
        for (int b = 0; b < 256; ++b)
          if ((59 * g + 30 * r + 11 * b) % 100 == 0) found.push_back({uint8_t(r), uint8_t(g), uint8_t(b)});
    return found;
  }();
  return colours;
}

using OilPaintCase = KernelCase<OilPaintParams>;

// Random bytes everywhere (padding and unused channels included), then the
// colour channels drawn as the picture asks. The source ends right after
// the last byte that the reference reads, so a fast path reading further
// runs off its end (and trips the sanitizers).
std::vector<uint8_t> Source(Rng& rng, const OilPaintCase& c, Picture picture) {
  const Layout& l = c.l;
  const OilPaintParams& p = c.params;
  int64_t bytes = 0;
  if (l.width > 0 && l.height > 0)
    bytes = (l.height - 1) * int64_t{l.srcRowBytes} + (l.width - 1) * int64_t{l.srcPixelBytes} +
            std::max({p.redOffset, p.greenOffset, p.blueOffset, int32_t{c.srcRecord.alphaOffset}}) + 1;
  std::vector<uint8_t> source = RandomBytes(rng, static_cast<size_t>(bytes));
  std::vector<std::array<uint8_t, 3>> palette(static_cast<size_t>(Uniform(rng, 2, 6)));
  for (auto& colour : palette)
    for (uint8_t& v : colour) v = static_cast<uint8_t>(rng());
  const auto& edges = EdgeColours();
  const double phase = static_cast<double>(Uniform(rng, 0, 1000)) / 100.0;
  for (int y = 0; y < l.height && picture != Picture::Noise; ++y)
    for (int x = 0; x < l.width; ++x) {
      std::array<uint8_t, 3> colour{};
      for (int ch = 0; ch < 3; ++ch) {
        if (picture == Picture::Extremes) colour[ch] = Chance(rng, 0.5) ? 0 : 255;
        if (picture != Picture::Smooth) continue;
        const double wave = 0.5 + 0.3 * std::sin(x * 0.21 + phase + ch) * std::cos(y * 0.17 - phase);
        const double grain = static_cast<double>(Uniform(rng, -12, 12));
        colour[ch] = static_cast<uint8_t>(std::clamp(wave * 255.0 + grain, 0.0, 255.0));
      }
      if (picture == Picture::FewColours) colour = palette[static_cast<size_t>(Uniform(rng, 0, palette.size() - 1))];
      if (picture == Picture::EdgeOfBins) colour = edges[static_cast<size_t>(Uniform(rng, 0, edges.size() - 1))];
      uint8_t* pixel = source.data() + y * int64_t{l.srcRowBytes} + x * int64_t{l.srcPixelBytes};
      pixel[p.redOffset] = colour[0];
      pixel[p.greenOffset] = colour[1];
      pixel[p.blueOffset] = colour[2];
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

// The colour layout: one channel (all three offsets alike), the usual 3- and
// 4-byte orders, or any offsets within the pixel, coinciding or not.
void RandomColourLayout(Rng& rng, OilPaintCase& c) {
  int32_t& pixelBytes = c.l.srcPixelBytes;
  OilPaintParams& p = c.params;
  const int64_t draw = Uniform(rng, 0, 9);
  if (draw < 3) {
    pixelBytes = static_cast<int32_t>(Uniform(rng, 1, 4));
    p.redOffset = p.greenOffset = p.blueOffset = static_cast<int32_t>(Uniform(rng, 0, pixelBytes - 1));
  } else if (draw < 7) {
    pixelBytes = draw < 6 ? 4 : 3;
    p.redOffset = pixelBytes == 4 ? static_cast<int32_t>(Uniform(rng, 0, 1)) : 0;
    p.greenOffset = p.redOffset + 1;
    p.blueOffset = p.redOffset + 2;
    if (Chance(rng, 0.5)) std::swap(p.redOffset, p.blueOffset);
  } else {
    pixelBytes = static_cast<int32_t>(Uniform(rng, 1, 8));
    for (int32_t* offset : {&p.redOffset, &p.greenOffset, &p.blueOffset})
      *offset = static_cast<int32_t>(Uniform(rng, 0, pixelBytes - 1));
  }
  c.l.channels = pixelBytes;
  c.l.dstPixelBytes = std::max(Chance(rng, 0.85) ? pixelBytes : static_cast<int32_t>(Uniform(rng, 1, 8)),
                               std::max({p.redOffset, p.greenOffset, p.blueOffset}) + 1);
  c.srcRecord.hasAlpha = c.dstRecord.hasAlpha = Chance(rng, 0.5);
  c.srcRecord.alphaOffset = static_cast<uint8_t>(Uniform(rng, 0, pixelBytes - 1));
  c.dstRecord.alphaOffset = static_cast<uint8_t>(Uniform(rng, 0, c.l.dstPixelBytes - 1));
}

// Brushes and masks cycle with the index, so every combination comes up
// whatever the random draws. adjust may change the case before its memory is
// made.
template <class Adjust>
OilPaintCase RandomCase(Rng& rng, int index, Adjust adjust) {
  OilPaintCase c;
  OilPaintParams& p = c.params;
  p.brushSize = static_cast<uint8_t>(1 + index % 5);
  c.masked = (index / 5) % 2 == 1;
  p.smoothness = RandomSmoothness(rng);
  p.maxLevel = static_cast<int16_t>(p.smoothness * 255.0f);
  RandomColourLayout(rng, c);
  auto picture = static_cast<Picture>(Uniform(rng, 0, 4));
  Layout& l = c.l;
  l.sampleBytes = 1;
  RandomSize(rng, l, 420);  // long rows: past the binned chunks and round the ring
  l.srcRowBytes = std::max(l.width, 0) * l.srcPixelBytes + static_cast<int32_t>(Uniform(rng, 0, 9));
  l.dstRowBytes = std::max(l.width, 0) * l.dstPixelBytes + static_cast<int32_t>(Uniform(rng, 0, 9));
  adjust(rng, c, picture);
  c.source = Source(rng, c, picture);
  c.dstAt = Uniform(rng, 0, 8);
  c.destination = RandomBytes(rng, static_cast<size_t>(c.dstAt + l.dstRowBytes * std::max<int64_t>(l.height, 0) + 16));
  c.reference = c.masked ? rawfx::reference::OilPaintMaskPart8bit : rawfx::reference::OilPaintPart8bit;
  c.fast = c.masked ? OilPaintMaskPart8bit : OilPaintPart8bit;
  c.mask = RandomMask(rng, l.height);
  c.parts = RandomParts(rng, l.height);
  std::ostringstream s;
  s << "brush " << int{p.brushSize} << ", smoothness " << p.smoothness << " (maxLevel " << p.maxLevel << "), rgb "
    << p.redOffset << "," << p.greenOffset << "," << p.blueOffset << ", alpha " << int{c.srcRecord.hasAlpha} << ":"
    << int{c.srcRecord.alphaOffset} << "/" << int{c.dstRecord.alphaOffset} << ", picture " << static_cast<int>(picture);
  c.settings = s.str();
  return c;
}

TEST(OilPaintDifferential, RandomCasesOfEveryLayout) {
  CheckRandomCases(0x011FA1E7ull, 3000, [](Rng& rng, int i) { return RandomCase(rng, i, [](auto&...) {}); });
}

// The layout of the benchmarks and of most bitmaps: 4-byte pixels, colour
// bytes together, pictures like photographs, wide enough for the vector path.
TEST(OilPaintDifferential, RandomPhotographsInFourBytePixels) {
  CheckRandomCases(0xB7A5417ull, 1200, [](Rng& rng, int i) {
    return RandomCase(rng, i, [](Rng& r, OilPaintCase& c, Picture& picture) {
      c.l.channels = c.l.srcPixelBytes = c.l.dstPixelBytes = 4;
      c.params.redOffset = 0;
      c.params.greenOffset = 1;
      c.params.blueOffset = 2;
      c.srcRecord.hasAlpha = c.dstRecord.hasAlpha = true;
      c.srcRecord.alphaOffset = c.dstRecord.alphaOffset = 3;
      picture = Chance(r, 0.5) ? Picture::Smooth : Picture::EdgeOfBins;
      c.l.width = std::max(c.l.width, 8);
      c.l.srcRowBytes = std::max(c.l.srcRowBytes, 4 * c.l.width);
      c.l.dstRowBytes = std::max(c.l.dstRowBytes, 4 * c.l.width);
    });
  });
}

// Scratch that cannot be had, in any part and at any of its four blocks:
// every row is still painted, every block taken is given back.
TEST(OilPaintDifferential, RandomScratchFailures) {
  CheckRandomCases(0xFA11ED5ull, 400, [](Rng& rng, int i) {
    return RandomCase(rng, i, [](Rng& r, OilPaintCase& c, Picture&) { c.grantedBlocks = Uniform(r, 0, 13); });
  });
}

// sum / count by the reciprocal, for every count a square can hold and every
// sum of that many bytes.
TEST(OilPaintMean, ReciprocalQuotientIsTheTruncatedQuotient) {
  int wrong = 0;
  for (uint32_t count = 1; count <= rawfx::oilpaint::kMaxNeighbours; ++count)
    for (uint32_t sum = 0; sum <= 255 * count; ++sum) wrong += rawfx::oilpaint::MeanOf(sum, count) != sum / count;
  EXPECT_EQ(wrong, 0);
}

// The picture of edge colours is what it claims: whole intensities in exact
// arithmetic, a good share of which the double sum puts one lower.
TEST(OilPaintDifferentialPictures, EdgeColoursSitOnWholeIntensities) {
  const auto& edges = EdgeColours();
  ASSERT_GT(edges.size(), 10000u);
  size_t below = 0;
  for (const auto& [r, g, b] : edges) {
    const int exact = (59 * g + 30 * r + 11 * b) / 100;
    const int computed = static_cast<uint8_t>(static_cast<int32_t>((0.59 * g + 0.3 * r) + 0.11 * b));
    ASSERT_TRUE(computed == exact % 256 || computed == (exact + 255) % 256) << int{r} << " " << int{g} << " " << int{b};
    below += computed != exact % 256;
  }
  EXPECT_GT(below, edges.size() / 20);
}

}  // namespace
