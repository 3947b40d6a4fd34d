// The fast interlace kernels against the literal reference kernels on thousands
// of random cases: every byte of the source and destination memory (padding and
// gaps included), progress, done and the exact sequence of mask queries must be
// the same, on the AVX2 path and on the portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "effects/interlace/interlace_kernels.h"
#include "imaging/cpu_dispatch.h"
#include "support/interlace_reference.h"

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

class RecordingMask {
 public:
  MaskValues values = MaskValues::Anything;
  bool sixteenBit = false;
  uint64_t seed = 0;
  int64_t cancelAtRow = -1;  // a row handle request for this row sets cancel
  GenericMPParams* head = nullptr;
  std::vector<MaskQuery> queries;

  RecordingMask() = default;
  RecordingMask(const RecordingMask&) = delete;
  RecordingMask& operator=(const RecordingMask&) = delete;
  RawBitmapMaskData* data() { return &handle_.data; }

  // Values carry random high bits: only the low 8 (16) may count.
  uint32_t ValueAt(int64_t row, int32_t x) const {
    uint64_t h = seed ^ (static_cast<uint64_t>(row) * 0x9E3779B97F4A7C15ull) ^
                 (static_cast<uint64_t>(x) * 0xC2B2AE3D27D4EB4Full);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    const uint32_t full = sixteenBit ? 0xFFFFu : 0xFFu;
    const uint32_t high = static_cast<uint32_t>(h >> 32) & ~full;
    const uint32_t low = static_cast<uint32_t>(h) & full;
    switch (values) {
      case MaskValues::Zero: return high;
      case MaskValues::Full: return high | full;
      case MaskValues::Extremes: return high | (h % 3 == 0 ? 0 : h % 3 == 1 ? full : low);
      case MaskValues::Anything: break;
    }
    return high | low;
  }

 private:
  struct Handle {
    RawBitmapMaskData data;  // first: the kernels hold a pointer to it
    RecordingMask* owner;
  };
  static RecordingMask& Of(RawBitmapMaskData* m) { return *reinterpret_cast<Handle*>(m)->owner; }

  // Handles encode their row, so each value query shows which handle it was given.
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
  static constexpr RawBitmapMaskOps kOps{nullptr, Row, Value, nullptr, Row, Value};
  Handle handle_{{&kOps}, this};
};

// ---- one random case ------------------------------------------------------------

enum class Placement { Apart, InPlace, Overlapping };

struct Case {
  int bytesPerSample = 1;
  int64_t channels = 1;
  int64_t srcStep = 1, dstStep = 1;  // in samples
  int width = 0, height = 0;
  int64_t srcRowBytes = 0, dstRowBytes = 0;
  Placement placement = Placement::Apart;
  int64_t srcOffset = 0, dstOffset = 0;  // byte positions in the arena(s)
  uint8_t alphaOffset = 0xFF;
  uint8_t interlaceAlpha = 1;
  int64_t horizontalType = 0, verticalType = 0;
  int32_t channelValues[8] = {};
  bool masked = false;
  MaskValues maskValues = MaskValues::Anything;
  uint64_t maskSeed = 0;
  int64_t cancelAtRow = -1;
  int cancelAfterPart = -1;
  std::vector<std::pair<int32_t, int32_t>> parts;
  uint64_t fillSeed = 0;

  std::string Describe() const {
    std::ostringstream s;
    s << bytesPerSample * 8 << "-bit ch=" << channels << " steps=" << srcStep << "/" << dstStep << " " << width << "x"
      << height << " rowBytes=" << srcRowBytes << "/" << dstRowBytes << " placement=" << static_cast<int>(placement)
      << " offsets=" << srcOffset << "/" << dstOffset << " alpha=" << int{alphaOffset}
      << " interlaceAlpha=" << int{interlaceAlpha} << " types=" << horizontalType << "/" << verticalType
      << " masked=" << masked << " maskValues=" << static_cast<int>(maskValues) << " cancelRow=" << cancelAtRow
      << " cancelAfterPart=" << cancelAfterPart << " parts=";
    for (const auto& [first, end] : parts) s << "[" << first << "," << end << ")";
    return s.str();
  }
};

// Bytes from a pixel's start to the end of its last channel, over a whole row.
int64_t RowExtent(int width, int64_t step, int64_t channels, int bytesPerSample) {
  if (width <= 0) return 0;
  return ((int64_t{width} - 1) * step + channels) * bytesPerSample;
}

int64_t TypeValue(Random& random) {
  if (Chance(random, 90)) return Uniform(random, 0, 2);
  const int64_t odd[] = {-7, -2, -1, 3, 4, 9};
  return odd[Uniform(random, 0, 5)];
}

// Row splits as the engine makes them and worse: odd first rows, empty parts,
// single rows, parts that skip nothing and overlap nothing.
std::vector<std::pair<int32_t, int32_t>> RandomParts(Random& random, int height) {
  std::vector<std::pair<int32_t, int32_t>> parts;
  int32_t row = 0;
  if (height > 0 && Chance(random, 30)) {
    parts.emplace_back(0, 1);
    row = 1;
  }
  while (row < height) {
    if (Chance(random, 10)) parts.emplace_back(row, row);
    const int32_t end = static_cast<int32_t>(std::min<int64_t>(height, row + Uniform(random, 1, 9)));
    parts.emplace_back(row, end);
    row = end;
  }
  if (Chance(random, 20)) parts.emplace_back(height, height);
  if (height > 0 && Chance(random, 10)) parts = {{0, height}};
  return parts;
}

// Every ninth case takes the next of the nine pairs of types, and depth and
// mask alternate, so all combinations come up whatever the random draws.
Case RandomCase(Random& random, int index) {
  Case c;
  c.bytesPerSample = index % 2 == 0 ? 1 : 2;
  c.masked = (index / 2) % 2 == 1;
  c.horizontalType = (index / 4) % 9 / 3;
  c.verticalType = (index / 4) % 9 % 3;
  if (Chance(random, 8)) c.horizontalType = TypeValue(random);
  if (Chance(random, 8)) c.verticalType = TypeValue(random);
  c.channels = Uniform(random, 1, 8);

  const int placementDraw = static_cast<int>(Uniform(random, 0, 99));
  c.placement = placementDraw < 45 ? Placement::Apart : placementDraw < 85 ? Placement::InPlace : Placement::Overlapping;
  const bool oddSteps = c.placement == Placement::Overlapping ? Chance(random, 50) : Chance(random, 15);
  c.srcStep = c.channels;
  c.dstStep = c.channels;
  if (oddSteps) {
    // 16-bit sources always step by their channel count; only the destination's may differ.
    if (c.bytesPerSample == 1) c.srcStep = std::max<int64_t>(1, c.channels + Uniform(random, -1, 2));
    c.dstStep = std::max<int64_t>(1, c.channels + Uniform(random, -1, 2));
  }
  if (c.placement == Placement::InPlace) c.dstStep = c.srcStep;

  c.width = static_cast<int>(Uniform(random, 0, 64));
  if (Chance(random, 4)) c.width = static_cast<int>(Uniform(random, -5, -1));
  c.height = static_cast<int>(Uniform(random, 0, 64));
  if (Chance(random, 5)) {  // long rows, so the colour patterns wrap around
    c.width = static_cast<int>(Uniform(random, 65, 1200));
    c.height = static_cast<int>(Uniform(random, 1, 4));
  }
  if (Chance(random, 5)) c.height = 1;
  if (Chance(random, 5)) c.width = 1;

  const int64_t even = c.bytesPerSample;  // 16-bit rows must stay aligned
  c.srcRowBytes = RowExtent(c.width, c.srcStep, c.channels, c.bytesPerSample) + even * Uniform(random, 0, 5);
  c.dstRowBytes = RowExtent(c.width, c.dstStep, c.channels, c.bytesPerSample) + even * Uniform(random, 0, 5);
  if (c.placement == Placement::InPlace) c.dstRowBytes = c.srcRowBytes;
  c.srcOffset = even * Uniform(random, 0, 8);
  c.dstOffset = c.placement == Placement::InPlace ? c.srcOffset : even * Uniform(random, 0, 8);
  if (c.placement == Placement::Overlapping) c.dstOffset = c.srcOffset + even * Uniform(random, -4, 12);
  if (c.dstOffset < 0) c.dstOffset = 0;

  c.alphaOffset = Chance(random, 30) ? uint8_t{0xFF} : static_cast<uint8_t>(Uniform(random, 0, 2 * c.channels));
  if (c.bytesPerSample == 2 && Chance(random, 50))  // a kept channel at a true 16-bit offset
    c.alphaOffset = static_cast<uint8_t>(2 * Uniform(random, 0, c.channels - 1));
  c.interlaceAlpha = Chance(random, 50) ? 0 : static_cast<uint8_t>(Uniform(random, 1, 255));
  for (int32_t& v : c.channelValues) {
    const int draw = static_cast<int>(Uniform(random, 0, 9));
    v = draw == 0 ? -1 : draw == 1 ? 0 : draw == 2 ? 65535 : static_cast<int32_t>(Uniform(random, INT32_MIN, INT32_MAX));
  }

  c.maskValues = static_cast<MaskValues>(Uniform(random, 0, 3));
  c.maskSeed = random();
  c.parts = RandomParts(random, c.height);
  if (Chance(random, 10) && c.height > 0) c.cancelAtRow = Uniform(random, 0, c.height - 1);
  if (Chance(random, 10) && !c.parts.empty()) c.cancelAfterPart = static_cast<int>(Uniform(random, 0, c.parts.size() - 1));
  c.fillSeed = random();
  return c;
}

// ---- running a case ----------------------------------------------------------------

struct Outcome {
  std::vector<uint8_t> source, destination;  // whole arenas
  int32_t progress = 0;
  std::vector<uint8_t> done;
  std::vector<MaskQuery> queries;
  bool operator==(const Outcome&) const = default;
};

struct Kernels {
  PartFunction plain8, masked8, plain16, masked16;
  PartFunction For(const Case& c) const {
    if (c.bytesPerSample == 1) return c.masked ? masked8 : plain8;
    return c.masked ? masked16 : plain16;
  }
};
const Kernels kFast{InterlacePart, InterlaceMaskPart, InterlacePart16, InterlaceMaskPart16};
const Kernels kReference{rawfx::reference::InterlacePart, rawfx::reference::InterlaceMaskPart,
                         rawfx::reference::InterlacePart16, rawfx::reference::InterlaceMaskPart16};

std::vector<uint8_t> Garbage(size_t bytes, uint64_t seed) {
  Random random(seed);
  std::vector<uint8_t> v(bytes);
  for (uint8_t& b : v) b = static_cast<uint8_t>(random());
  return v;
}

void Describe(const Case& c, RawBitmap& record, int64_t channelCount) {
  record = RawBitmap{};
  record.width = c.width;
  record.height = c.height;
  record.channelCount = channelCount;
  record.bytesPerPixel = c.channels * c.bytesPerSample;
  record.alphaOffset = c.alphaOffset;
  record.bitsPerChannel = static_cast<uint8_t>(8 * c.bytesPerSample);
}

Outcome RunCase(const Case& c, PartFunction part) {
  const int64_t srcBytes = c.srcOffset + c.srcRowBytes * c.height;
  const int64_t dstBytes = c.dstOffset + c.dstRowBytes * c.height;
  Outcome out;
  out.source = Garbage(static_cast<size_t>(std::max(srcBytes, dstBytes) + 16), c.fillSeed);
  if (c.placement == Placement::Apart) out.destination = Garbage(static_cast<size_t>(dstBytes + 16), ~c.fillSeed);
  std::vector<uint8_t>& dstArena = c.placement == Placement::Apart ? out.destination : out.source;

  RawBitmap srcRecord, dstRecord;
  Describe(c, srcRecord, c.srcStep);
  Describe(c, dstRecord, c.dstStep);
  InterlaceParams params{};
  GenericMPParams& head = params.head;
  head.width = c.width;
  head.height = c.height;
  head.srcPixels = out.source.data() + c.srcOffset;
  head.dstPixels = dstArena.data() + c.dstOffset;
  head.srcRowBytes = static_cast<int32_t>(c.srcRowBytes);
  head.dstRowBytes = static_cast<int32_t>(c.dstRowBytes);
  head.srcPixelBytes = static_cast<int32_t>(c.srcStep * c.bytesPerSample);
  head.dstPixelBytes = static_cast<int32_t>(c.dstStep * c.bytesPerSample);
  head.srcBitmap = &srcRecord;
  head.dstBitmap = &dstRecord;
  params.horizontalType = c.horizontalType;
  params.verticalType = c.verticalType;
  std::copy(std::begin(c.channelValues), std::end(c.channelValues), params.channelValues);
  params.interlaceAlpha = c.interlaceAlpha;

  RecordingMask mask;
  mask.values = c.maskValues;
  mask.sixteenBit = c.bytesPerSample == 2;
  mask.seed = c.maskSeed;
  mask.cancelAtRow = c.cancelAtRow;
  mask.head = &head;
  if (c.masked) head.maskData = mask.data();

  for (size_t i = 0; i < c.parts.size(); ++i) {
    MPParamBlock block{c.parts[i].first, c.parts[i].second, 0, {}, &params};
    EXPECT_EQ(part(&block), nullptr);
    out.done.push_back(block.done);
    if (static_cast<int>(i) == c.cancelAfterPart) head.cancel = 1;
  }
  out.progress = head.progress;
  out.queries = std::move(mask.queries);
  return out;
}

std::string FirstDifference(const char* name, const std::vector<uint8_t>& expected,
                            const std::vector<uint8_t>& actual) {
  for (size_t i = 0; i < std::min(expected.size(), actual.size()); ++i)
    if (expected[i] != actual[i])
      return std::string("; first ") + name + " byte " + std::to_string(i) + ": " + std::to_string(expected[i]) +
             " vs " + std::to_string(actual[i]);
  return "";
}

// Where two outcomes first differ, for the failure message.
std::string FirstDifference(const Outcome& expected, const Outcome& actual) {
  return "progress " + std::to_string(expected.progress) + " vs " + std::to_string(actual.progress) + "; queries " +
         std::to_string(expected.queries.size()) + " vs " + std::to_string(actual.queries.size()) +
         FirstDifference("source", expected.source, actual.source) +
         FirstDifference("destination", expected.destination, actual.destination);
}

// RAWFX_DIFF_CASES, when set to a positive number, replaces the count (the
// sanitizer builds run fewer cases).
int CaseCount(int standard) {
  const char* setting = std::getenv("RAWFX_DIFF_CASES");
  const int count = setting ? std::atoi(setting) : 0;
  return count > 0 ? count : standard;
}

class InterlaceDifferential : public ::testing::Test {
 protected:
  void TearDown() override { rawfx::cpu::ForceScalar(false); }

  // Runs count random cases on both paths; stops reporting after a few failures.
  void RunCases(uint64_t seed, int standardCount, bool (*keep)(const Case&)) {
    const int count = CaseCount(standardCount);
    Random random(seed);
    int failures = 0, run = 0;
    for (int i = 0; i < count && failures < 5; ++i) {
      const Case c = RandomCase(random, i);
      if (!keep(c)) continue;
      ++run;
      const Outcome expected = RunCase(c, kReference.For(c));
      for (const bool scalar : {false, true}) {
        rawfx::cpu::ForceScalar(scalar);
        const Outcome actual = RunCase(c, kFast.For(c));
        if (actual == expected) continue;
        ++failures;
        ADD_FAILURE() << "case " << i << (scalar ? " (portable)" : " (AVX2)") << ": " << c.Describe() << "\n"
                      << FirstDifference(expected, actual);
      }
    }
    rawfx::cpu::ForceScalar(false);
    EXPECT_GT(run, count / 4) << "the filter left too few cases";
  }
};

TEST_F(InterlaceDifferential, RandomCasesOfEveryLayout) {
  RunCases(0x1A7E4C0DEull, 6000, [](const Case&) { return true; });
}

// Packed rows are the ones the fast paths take: many more of them, with the
// destination apart or in place, kept alpha channels and columns by turns.
TEST_F(InterlaceDifferential, RandomPackedRows) {
  RunCases(0x5EED0F1A7ull, 8000, [](const Case& c) {
    return c.placement != Placement::Overlapping && c.srcStep == c.channels && c.dstStep == c.channels;
  });
}

// The recording mask itself: the low bits are the value, the high bits noise,
// and the extremes and zero come up, so the kernels' mixing branches are all met.
TEST(InterlaceDifferentialMask, ValuesCoverTheExtremesAndCarryHighBits) {
  RecordingMask mask;
  mask.values = MaskValues::Extremes;
  mask.seed = 42;
  int zero = 0, full = 0, between = 0, high = 0;
  for (int32_t x = 0; x < 300; ++x) {
    const uint32_t v = mask.ValueAt(3, x);
    const uint32_t low = v & 0xFF;
    zero += low == 0;
    full += low == 0xFF;
    between += low != 0 && low != 0xFF;
    high += (v >> 8) != 0;
  }
  EXPECT_GT(zero, 50);
  EXPECT_GT(full, 50);
  EXPECT_GT(between, 50);
  EXPECT_GT(high, 250);
}

}  // namespace
