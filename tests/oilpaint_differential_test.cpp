// The fast oil paint kernels against the literal reference kernels on
// thousands of random cases: every byte of the destination memory (padding
// and the bytes around it included), the source, progress, done, the exact
// sequence of mask queries and the scratch taken and given back must be the
// same, on the AVX2 path and on the portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "effects/oilpaint/oilpaint_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "imaging/memory.h"
#include "support/oilpaint_kernel_reference.h"

namespace {

using Random = std::mt19937_64;

int64_t Uniform(Random& random, int64_t low, int64_t high) {
  return std::uniform_int_distribution<int64_t>(low, high)(random);
}
bool Chance(Random& random, int percent) { return Uniform(random, 0, 99) < percent; }

// ---- a mask that answers from a seeded hash and records every query ---------------

struct MaskQuery {
  bool isRow;
  int64_t row;
  MaskRowHandle handle;
  int32_t x;
  bool operator==(const MaskQuery&) const = default;
};

enum class MaskValues { Zero, Full, Extremes, Anything };

struct RecordingMask {
  RawBitmapMaskData data{&kOps};  // first, so the kernels' pointer is this object
  MaskValues values = MaskValues::Anything;
  uint64_t seed = 0;
  int64_t cancelAtRow = -1;  // a row handle request for this row sets cancel
  GenericMPParams* head = nullptr;
  std::vector<MaskQuery> queries;

  static RecordingMask& Of(RawBitmapMaskData* m) { return *reinterpret_cast<RecordingMask*>(m); }

  // Values carry random high bits: only the low 8 may count.
  uint32_t ValueAt(int64_t row, int32_t x) const {
    uint64_t h = seed ^ (static_cast<uint64_t>(row) * 0x9E3779B97F4A7C15ull) ^
                 (static_cast<uint64_t>(x) * 0xC2B2AE3D27D4EB4Full);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    const uint32_t high = static_cast<uint32_t>(h >> 32) & ~0xFFu;
    const uint32_t low = static_cast<uint32_t>(h) & 0xFFu;
    switch (values) {
      case MaskValues::Zero: return high;
      case MaskValues::Full: return high | 0xFFu;
      case MaskValues::Extremes: return high | (h % 3 == 0 ? 0 : h % 3 == 1 ? 0xFFu : low);
      case MaskValues::Anything: break;
    }
    return high | low;
  }

  static MaskRowHandle Row(RawBitmapMaskData* m, int64_t row) {
    RecordingMask& self = Of(m);
    const auto handle = static_cast<MaskRowHandle>(row * 7919 + 13);
    self.queries.push_back({true, row, handle, 0});
    if (row == self.cancelAtRow) self.head->cancel = 1;
    return handle;
  }
  static uint32_t Value(RawBitmapMaskData* m, MaskRowHandle handle, int32_t x) {
    RecordingMask& self = Of(m);
    const int64_t row = (static_cast<int64_t>(handle) - 13) / 7919;
    self.queries.push_back({false, row, handle, x});
    return self.ValueAt(row, x);
  }
  static constexpr RawBitmapMaskOps kOps{nullptr, Row, Value, nullptr, nullptr, nullptr};
};
static_assert(offsetof(RecordingMask, data) == 0);

// ---- one random case ------------------------------------------------------------

// How the source's colours are drawn: what each stresses.
enum class Picture {
  Noise,       // every byte random: bins mostly distinct, ties everywhere
  FewColours,  // a handful of colours: crowded bins and equal counts
  Smooth,      // gradients with grain, like photographs: neighbouring bins
  EdgeOfBins,  // colours whose weighted sum is a whole number in exact arithmetic,
               // where the double sum may fall just below it
  Extremes,    // 0 and 255 only
};
constexpr int kPictures = 5;

struct Case {
  int brush = 1;
  float smoothness = 0.4f;
  int pixelBytes = 4, dstPixelBytes = 4;
  int red = 0, green = 1, blue = 2;
  bool hasAlpha = false;
  int srcAlpha = 0, dstAlpha = 0;
  int width = 0, height = 0;
  int64_t srcRowBytes = 0, dstRowBytes = 0, dstOffset = 0;
  Picture picture = Picture::Noise;
  bool masked = false;
  MaskValues maskValues = MaskValues::Anything;
  uint64_t maskSeed = 0;
  int64_t cancelAtRow = -1;
  int cancelAfterPart = -1;
  int64_t grantedBlocks = -1;  // NewPtr calls that succeed; -1: all
  std::vector<std::pair<int32_t, int32_t>> parts;
  uint64_t fillSeed = 0;

  int16_t MaxLevel() const { return static_cast<int16_t>(smoothness * 255.0f); }

  std::string Describe() const {
    std::ostringstream s;
    s << "brush=" << brush << " smoothness=" << smoothness << " maxLevel=" << MaxLevel() << " px=" << pixelBytes << "/"
      << dstPixelBytes << " rgb=" << red << "," << green << "," << blue << " alpha=" << hasAlpha << ":" << srcAlpha
      << "/" << dstAlpha << " " << width << "x" << height << " rowBytes=" << srcRowBytes << "/" << dstRowBytes
      << " picture=" << static_cast<int>(picture) << " masked=" << masked
      << " maskValues=" << static_cast<int>(maskValues) << " cancelRow=" << cancelAtRow
      << " cancelAfterPart=" << cancelAfterPart << " granted=" << grantedBlocks << " parts=";
    for (const auto& [first, end] : parts) s << "[" << first << "," << end << ")";
    return s.str();
  }
};

// Both ends of the range, the default, the neighbours of the ends, values
// where maxLevel steps, and anything in between.
float RandomSmoothness(Random& random) {
  switch (Uniform(random, 0, 7)) {
    case 0: return 0.04f;
    case 1: return 1.0f;
    case 2: return 0.4f;
    case 3: return std::nextafter(0.04f, 1.0f);
    case 4: return std::nextafter(1.0f, 0.0f);
    case 5: {
      const float step = static_cast<float>(Uniform(random, 11, 255)) / 255.0f;
      return std::clamp(std::nextafter(step, Chance(random, 50) ? 0.0f : 1.0f), 0.04f, 1.0f);
    }
    default: return std::uniform_real_distribution<float>(0.04f, 1.0f)(random);
  }
}

// Row splits as the engine makes them and worse: odd first rows, empty parts, single rows.
std::vector<std::pair<int32_t, int32_t>> RandomParts(Random& random, int height) {
  std::vector<std::pair<int32_t, int32_t>> parts;
  int32_t row = 0;
  if (height > 0 && Chance(random, 30)) {
    parts.emplace_back(0, 1);
    row = 1;
  }
  while (row < height) {
    if (Chance(random, 10)) parts.emplace_back(row, row);
    const int32_t end = static_cast<int32_t>(std::min<int64_t>(height, row + Uniform(random, 1, 12)));
    parts.emplace_back(row, end);
    row = end;
  }
  if (Chance(random, 20)) parts.emplace_back(height, height);
  if (height > 0 && Chance(random, 15)) parts = {{0, height}};
  return parts;
}

// The colour layout: one channel (all three offsets alike), the usual
// 4-byte orders, or any offsets within the pixel, coinciding or not.
void RandomLayout(Random& random, Case& c) {
  const int draw = static_cast<int>(Uniform(random, 0, 9));
  if (draw < 3) {
    c.pixelBytes = static_cast<int>(Uniform(random, 1, 4));
    c.red = c.green = c.blue = static_cast<int>(Uniform(random, 0, c.pixelBytes - 1));
  } else if (draw < 6) {
    c.pixelBytes = 4;
    const int first = static_cast<int>(Uniform(random, 0, 1));
    c.red = first;
    c.green = first + 1;
    c.blue = first + 2;
    if (Chance(random, 50)) std::swap(c.red, c.blue);
  } else if (draw < 7) {
    c.pixelBytes = 3;
    c.red = 0;
    c.green = 1;
    c.blue = 2;
    if (Chance(random, 50)) std::swap(c.red, c.blue);
  } else {
    c.pixelBytes = static_cast<int>(Uniform(random, 1, 8));
    c.red = static_cast<int>(Uniform(random, 0, c.pixelBytes - 1));
    c.green = static_cast<int>(Uniform(random, 0, c.pixelBytes - 1));
    c.blue = static_cast<int>(Uniform(random, 0, c.pixelBytes - 1));
  }
  c.dstPixelBytes = Chance(random, 85) ? c.pixelBytes : static_cast<int>(Uniform(random, 1, 8));
  const int dstNeeds = std::max({c.red, c.green, c.blue}) + 1;
  c.dstPixelBytes = std::max(c.dstPixelBytes, dstNeeds);
  c.hasAlpha = Chance(random, 50);
  c.srcAlpha = static_cast<int>(Uniform(random, 0, c.pixelBytes - 1));
  c.dstAlpha = static_cast<int>(Uniform(random, 0, c.dstPixelBytes - 1));
}

// Brushes and masks cycle with the index, so every combination comes up
// whatever the random draws.
Case RandomCase(Random& random, int index) {
  Case c;
  c.brush = 1 + index % 5;
  c.masked = (index / 5) % 2 == 1;
  c.smoothness = RandomSmoothness(random);
  RandomLayout(random, c);
  c.picture = static_cast<Picture>(Uniform(random, 0, kPictures - 1));

  c.width = static_cast<int>(Uniform(random, 0, 64));
  c.height = static_cast<int>(Uniform(random, 0, 64));
  if (Chance(random, 8)) {  // rows past the binned chunks and round the ring
    c.width = static_cast<int>(Uniform(random, 65, 420));
    c.height = static_cast<int>(Uniform(random, 1, 6));
  }
  if (Chance(random, 5)) c.height = 1;
  if (Chance(random, 5)) c.width = 1;
  if (Chance(random, 3)) c.width = static_cast<int>(Uniform(random, -3, -1));

  const int64_t used = std::max(0, c.width);
  c.srcRowBytes = used * c.pixelBytes + Uniform(random, 0, 9);
  c.dstRowBytes = used * c.dstPixelBytes + Uniform(random, 0, 9);
  c.dstOffset = Uniform(random, 0, 8);

  c.maskValues = static_cast<MaskValues>(Uniform(random, 0, 3));
  c.maskSeed = random();
  c.parts = RandomParts(random, c.height);
  if (Chance(random, 8) && c.height > 0) c.cancelAtRow = Uniform(random, 0, c.height - 1);
  if (Chance(random, 8) && !c.parts.empty())
    c.cancelAfterPart = static_cast<int>(Uniform(random, 0, c.parts.size() - 1));
  c.fillSeed = random();
  return c;
}

// ---- the source picture ---------------------------------------------------------------

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

uint8_t SmoothValue(Random& random, int x, int y, int channel, double phase) {
  const double wave = 0.5 + 0.3 * std::sin(x * 0.21 + phase + channel) * std::cos(y * 0.17 - phase);
  return static_cast<uint8_t>(std::clamp(wave * 255.0 + static_cast<double>(Uniform(random, -12, 12)), 0.0, 255.0));
}

// Random bytes everywhere (padding and unused channels included), then the
// colour channels drawn as the picture asks.
std::vector<uint8_t> Source(const Case& c, int64_t bytes) {
  Random random(c.fillSeed);
  std::vector<uint8_t> source(static_cast<size_t>(bytes));
  for (uint8_t& b : source) b = static_cast<uint8_t>(random());
  if (c.picture == Picture::Noise) return source;

  std::vector<std::array<uint8_t, 3>> palette(static_cast<size_t>(Uniform(random, 2, 6)));
  for (auto& colour : palette)
    for (uint8_t& v : colour) v = static_cast<uint8_t>(random());
  const auto& edges = EdgeColours();
  const double phase = static_cast<double>(Uniform(random, 0, 1000)) / 100.0;
  for (int y = 0; y < c.height; ++y)
    for (int x = 0; x < c.width; ++x) {
      std::array<uint8_t, 3> colour{};
      switch (c.picture) {
        case Picture::FewColours: colour = palette[static_cast<size_t>(Uniform(random, 0, palette.size() - 1))]; break;
        case Picture::Smooth:
          for (int ch = 0; ch < 3; ++ch) colour[ch] = SmoothValue(random, x, y, ch, phase);
          break;
        case Picture::EdgeOfBins: colour = edges[static_cast<size_t>(Uniform(random, 0, edges.size() - 1))]; break;
        case Picture::Extremes:
          for (uint8_t& v : colour) v = Chance(random, 50) ? 0 : 255;
          break;
        case Picture::Noise: break;
      }
      uint8_t* pixel = source.data() + y * c.srcRowBytes + int64_t{x} * c.pixelBytes;
      pixel[c.red] = colour[0];
      pixel[c.green] = colour[1];
      pixel[c.blue] = colour[2];
    }
  return source;
}

// ---- running a case ----------------------------------------------------------------

struct Outcome {
  std::vector<uint8_t> source, destination;  // whole buffers
  int32_t progress = 0;
  std::vector<uint8_t> done;
  std::vector<MaskQuery> queries;
  int64_t blocksLeft = 0;  // scratch blocks not given back
  bool operator==(const Outcome&) const = default;
};

// The source buffer ends right after the last byte that the reference reads,
// so a fast path reading further runs off its end (and trips the sanitizers).
int64_t SourceBytes(const Case& c) {
  if (c.height <= 0 || c.width <= 0) return 0;
  const int64_t lastRead = (int64_t{c.width} - 1) * c.pixelBytes + std::max({c.red, c.green, c.blue, c.srcAlpha});
  return (int64_t{c.height} - 1) * c.srcRowBytes + lastRead + 1;
}

Outcome RunCase(const Case& c, PartFunction part) {
  Outcome out;
  out.source = Source(c, SourceBytes(c));
  Random garbage(~c.fillSeed);
  out.destination.resize(static_cast<size_t>(c.dstOffset + c.dstRowBytes * c.height + 16));
  for (uint8_t& b : out.destination) b = static_cast<uint8_t>(garbage());

  RawBitmap srcRecord{}, dstRecord{};
  srcRecord.hasAlpha = c.hasAlpha;
  srcRecord.alphaOffset = static_cast<uint8_t>(c.srcAlpha);
  dstRecord.hasAlpha = c.hasAlpha;
  dstRecord.alphaOffset = static_cast<uint8_t>(c.dstAlpha);
  OilPaintParams params{};
  GenericMPParams& head = params.head;
  head.width = c.width;
  head.height = c.height;
  head.srcPixels = out.source.data();
  head.dstPixels = out.destination.data() + c.dstOffset;
  head.srcRowBytes = static_cast<int32_t>(c.srcRowBytes);
  head.dstRowBytes = static_cast<int32_t>(c.dstRowBytes);
  head.srcPixelBytes = c.pixelBytes;
  head.dstPixelBytes = c.dstPixelBytes;
  head.srcBitmap = &srcRecord;
  head.dstBitmap = &dstRecord;
  params.redOffset = c.red;
  params.greenOffset = c.green;
  params.blueOffset = c.blue;
  params.smoothness = c.smoothness;
  params.maxLevel = c.MaxLevel();
  params.brushSize = static_cast<uint8_t>(c.brush);

  RecordingMask mask;
  mask.values = c.maskValues;
  mask.seed = c.maskSeed;
  mask.cancelAtRow = c.cancelAtRow;
  mask.head = &head;
  if (c.masked) head.maskData = &mask.data;

  const int64_t liveBefore = rawfx::memory::LiveBlockCount();
  rawfx::memory::FailAllocationsAfter(c.grantedBlocks);
  for (size_t i = 0; i < c.parts.size(); ++i) {
    MPParamBlock block{c.parts[i].first, c.parts[i].second, 0, {}, &params};
    EXPECT_EQ(part(&block), nullptr);
    out.done.push_back(block.done);
    if (static_cast<int>(i) == c.cancelAfterPart) head.cancel = 1;
  }
  rawfx::memory::FailAllocationsAfter(-1);
  out.blocksLeft = rawfx::memory::LiveBlockCount() - liveBefore;
  out.progress = head.progress;
  out.queries = std::move(mask.queries);
  return out;
}

// Where two outcomes first differ, for the failure message.
std::string FirstDifference(const Outcome& expected, const Outcome& actual) {
  std::ostringstream s;
  s << "progress " << expected.progress << " vs " << actual.progress << "; queries " << expected.queries.size()
    << " vs " << actual.queries.size() << "; blocks left " << expected.blocksLeft << " vs " << actual.blocksLeft;
  for (size_t i = 0; i < std::min(expected.destination.size(), actual.destination.size()); ++i)
    if (expected.destination[i] != actual.destination[i]) {
      s << "; first destination byte " << i << ": " << int{expected.destination[i]} << " vs "
        << int{actual.destination[i]};
      break;
    }
  return s.str();
}

PartFunction Fast(const Case& c) { return c.masked ? OilPaintMaskPart8bit : OilPaintPart8bit; }
PartFunction Reference(const Case& c) {
  return c.masked ? rawfx::reference::OilPaintMaskPart8bit : rawfx::reference::OilPaintPart8bit;
}

class OilPaintDifferential : public ::testing::Test {
 protected:
  void TearDown() override {
    rawfx::cpu::ForceScalar(false);
    rawfx::memory::FailAllocationsAfter(-1);
  }

  // Runs count random cases, changed by adjust, on both paths; stops
  // reporting after a few failures.
  template <class Adjust>
  void RunCases(uint64_t seed, int count, Adjust adjust) {
    Random random(seed);
    int failures = 0;
    for (int i = 0; i < count && failures < 5; ++i) {
      Case c = RandomCase(random, i);
      adjust(random, c);
      const Outcome expected = RunCase(c, Reference(c));
      EXPECT_EQ(expected.blocksLeft, 0) << c.Describe();
      for (const bool scalar : {false, true}) {
        rawfx::cpu::ForceScalar(scalar);
        const Outcome actual = RunCase(c, Fast(c));
        if (actual == expected) continue;
        ++failures;
        ADD_FAILURE() << "case " << i << (scalar ? " (portable)" : " (AVX2)") << ": " << c.Describe() << "\n"
                      << FirstDifference(expected, actual);
      }
    }
    rawfx::cpu::ForceScalar(false);
  }
};

TEST_F(OilPaintDifferential, RandomCasesOfEveryLayout) {
  RunCases(0x011FA1E7ull, 3000, [](Random&, Case&) {});
}

// The layout of the benchmarks and of most bitmaps: 4-byte pixels, colour
// bytes together, pictures like photographs, wide enough for the vector path.
TEST_F(OilPaintDifferential, RandomPhotographsInFourBytePixels) {
  RunCases(0xB7A5417ull, 1200, [](Random& random, Case& c) {
    c.pixelBytes = c.dstPixelBytes = 4;
    c.red = 0;
    c.green = 1;
    c.blue = 2;
    c.hasAlpha = true;
    c.srcAlpha = c.dstAlpha = 3;
    c.picture = Chance(random, 50) ? Picture::Smooth : Picture::EdgeOfBins;
    c.width = std::max(c.width, 8);
    c.srcRowBytes = std::max<int64_t>(c.srcRowBytes, 4 * c.width);
    c.dstRowBytes = std::max<int64_t>(c.dstRowBytes, 4 * c.width);
  });
}

// Scratch that cannot be had, in any part and at any of its four blocks:
// the same rows stay unwritten, every block taken is given back.
TEST_F(OilPaintDifferential, RandomScratchFailures) {
  RunCases(0xFA11ED5ull, 400, [](Random& random, Case& c) { c.grantedBlocks = Uniform(random, 0, 13); });
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
    const int computed = rawfx::oilpaint::IntensityOf(r, g, b);
    ASSERT_TRUE(computed == exact % 256 || computed == (exact + 255) % 256) << int{r} << " " << int{g} << " " << int{b};
    below += computed != exact % 256;
  }
  EXPECT_GT(below, edges.size() / 20);
}

}  // namespace
