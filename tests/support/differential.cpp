#include "support/differential.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <type_traits>

#include "imaging/cpu_dispatch.h"
#include "imaging/memory.h"

namespace rawfx::test {

int RandomCases(int usual) {
  const char* setting = std::getenv("RAWFX_DIFF_CASES");
  const int count = setting ? std::atoi(setting) : 0;
  return count > 0 ? count : usual;
}

int64_t Uniform(Rng& rng, int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); }
double UniformReal(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
bool Chance(Rng& rng, double p) { return std::bernoulli_distribution(p)(rng); }

double RandomDouble(Rng& rng, double p, double lo, double hi, std::initializer_list<double> extras) {
  static constexpr double kExtremes[] = {0.0, -0.0, kTiny, -kTiny, 1e-300, -1e-300, 1e300, -1e300, kNaN, kInf, -kInf};
  constexpr int64_t kCount = std::size(kExtremes);
  if (!Chance(rng, p)) return UniformReal(rng, lo, hi);
  const int64_t pick = Uniform(rng, 0, kCount + static_cast<int64_t>(extras.size()) - 1);
  return pick < kCount ? kExtremes[pick] : extras.begin()[pick - kCount];
}

std::vector<uint8_t> RandomBytes(Rng& rng, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

std::vector<uint8_t> RandomSamples(Rng& rng, size_t count) {
  std::vector<uint8_t> bytes = RandomBytes(rng, count);
  const uint8_t fill = Chance(rng, 0.5) ? 0x00 : 0xFF;
  if (Chance(rng, 0.15))
    for (uint8_t& b : bytes) b = Chance(rng, 0.7) ? fill : b;
  return bytes;
}

int32_t RandomSide(Rng& rng, int32_t largest) {
  const int32_t small[] = {0, 1, 1, 2, 3, 4, 5};
  return Chance(rng, 0.25) ? PickFrom(rng, small) : static_cast<int32_t>(Uniform(rng, 0, largest));
}

void RandomSize(Rng& rng, Layout& l, int32_t longRows) {
  l.width = RandomSide(rng, 64);
  l.height = RandomSide(rng, 64);
  if (Chance(rng, 0.08)) {
    l.width = static_cast<int32_t>(Uniform(rng, 65, longRows));
    l.height = static_cast<int32_t>(Uniform(rng, 1, 6));
  }
  if (Chance(rng, 0.05)) l.height = 1;
  if (Chance(rng, 0.05)) l.width = 1;
  if (Chance(rng, 0.03)) l.width = static_cast<int32_t>(Uniform(rng, -5, -1));
}

Layout RandomLayout(Rng& rng, int32_t longRows, bool oddSteps) {
  Layout l{};
  RandomSize(rng, l, longRows);
  l.sampleBytes = Chance(rng, 0.5) ? 1 : 2;
  l.channels = static_cast<int32_t>(Uniform(rng, 1, 8));
  const int32_t unit = oddSteps ? 1 : l.sampleBytes;
  l.srcPixelBytes = l.channels * l.sampleBytes + (oddSteps && l.sampleBytes == 2 && Chance(rng, 0.1) ? 1 : 0);
  l.dstPixelBytes = l.srcPixelBytes + (Chance(rng, 0.2) ? unit * static_cast<int32_t>(Uniform(rng, 1, 3)) : 0);
  const int32_t columns = std::max(l.width, 0);
  l.srcRowBytes = columns * l.srcPixelBytes + unit * static_cast<int32_t>(Uniform(rng, 0, 7));
  l.dstRowBytes = columns * l.dstPixelBytes + unit * static_cast<int32_t>(Uniform(rng, 0, 7));
  return l;
}

Layout PackedLayout(int32_t width, int32_t height, int32_t sampleBytes, int32_t channels) {
  const int32_t pixelBytes = channels * sampleBytes;
  return {width, height, sampleBytes, channels, pixelBytes, pixelBytes, width * pixelBytes, width * pixelBytes};
}

PartPlan RandomParts(Rng& rng, int32_t height) {
  PartPlan plan;
  auto& ranges = plan.ranges;
  int32_t row = 0;
  if (height > 0 && Chance(rng, 0.3)) ranges.emplace_back(0, row = 1);
  const int64_t longest = Chance(rng, 0.5) ? Uniform(rng, 1, 12) : std::max(height, 1);
  while (row < height) {
    if (Chance(rng, 0.1)) ranges.emplace_back(row, row);
    const auto end = static_cast<int32_t>(std::min<int64_t>(height, row + Uniform(rng, 1, longest)));
    ranges.emplace_back(row, end);
    row = end;
  }
  if (Chance(rng, 0.2)) ranges.emplace_back(height, height);
  if (Chance(rng, 0.1)) ranges.emplace_back(height, height / 2);  // reversed: empty
  if (height > 0 && Chance(rng, 0.1)) ranges = {{0, height}};
  if (Chance(rng, 0.3)) std::shuffle(ranges.begin(), ranges.end(), rng);
  if (!ranges.empty() && Chance(rng, 0.15)) plan.cancelBefore = static_cast<int>(Uniform(rng, 0, ranges.size() - 1));
  return plan;
}

MaskPlan RandomMask(Rng& rng, int32_t height) {
  MaskPlan plan{static_cast<MaskValues>(Uniform(rng, 0, 3)), rng()};
  if (height > 0 && Chance(rng, 0.1)) plan.cancelAtRow = Uniform(rng, 0, height - 1);
  return plan;
}

uint32_t MaskValue(const MaskPlan& mask, bool sixteenBit, int64_t row, int32_t x) {
  uint64_t h = mask.seed ^ (static_cast<uint64_t>(row) * 0x9E3779B97F4A7C15ull) ^
               (static_cast<uint64_t>(x) * 0xC2B2AE3D27D4EB4Full);
  h = (h ^ (h >> 29)) * 0xBF58476D1CE4E5B9ull;
  h ^= h >> 32;
  const uint32_t full = sixteenBit ? 0xFFFFu : 0xFFu, low = static_cast<uint32_t>(h) & full;
  // By MaskValues: Zero, Full, Extremes (0, full or anything by turns), Anything.
  const uint32_t values[] = {0, full, h % 3 == 0 ? 0 : h % 3 == 1 ? full : low, low};
  return (static_cast<uint32_t>(h >> 32) & ~full) | values[static_cast<int>(mask.values)];
}

namespace {

struct RecordingMask {
  RawBitmapMaskData data;  // first: the kernels' pointer is this object
  MaskPlan plan;
  bool sixteenBit;
  GenericMPParams* head;
  std::vector<MaskQuery> queries;

  static RecordingMask& Of(RawBitmapMaskData* m) { return *reinterpret_cast<RecordingMask*>(m); }
  // Handles encode their row, so each value query shows which handle it was given.
  static MaskRowHandle Row(RawBitmapMaskData* m, int64_t row) {
    const int64_t handle = row * 7919 + 13;
    Of(m).queries.push_back({row, handle, -1});
    if (row == Of(m).plan.cancelAtRow) Of(m).head->cancel = 1;
    return static_cast<MaskRowHandle>(handle);
  }
  static uint32_t Value(RawBitmapMaskData* m, MaskRowHandle handle, int32_t x) {
    const int64_t row = (static_cast<int64_t>(handle) - 13) / 7919;
    Of(m).queries.push_back({row, static_cast<int64_t>(handle), x});
    return MaskValue(Of(m).plan, Of(m).sixteenBit, row, x);
  }
};
static_assert(std::is_standard_layout_v<RecordingMask>);
constexpr RawBitmapMaskOps kRecordingOps{nullptr, RecordingMask::Row, RecordingMask::Value,
                                         nullptr, RecordingMask::Row, RecordingMask::Value};

std::string FirstDifference(const Outcome& expected, const Outcome& actual) {
  const auto at = std::mismatch(expected.memory.begin(), expected.memory.end(), actual.memory.begin());
  std::ostringstream s;
  s << "first byte that differs " << at.first - expected.memory.begin() << "; progress " << expected.progress
    << " vs " << actual.progress << "; done flags, queries, blocks left, block untouched differ: "
    << (expected.done != actual.done) << (expected.queries != actual.queries)
    << (expected.blocksLeft != actual.blocksLeft) << (expected.blockUntouched != actual.blockUntouched);
  return s.str();
}

}  // namespace

std::string KernelCaseBase::Describe() const {
  std::ostringstream s;
  s << l.width << "x" << l.height << ", " << l.sampleBytes * 8 << "-bit, " << l.channels << " channels, pixel "
    << l.srcPixelBytes << "/" << l.dstPixelBytes << ", rows " << l.srcRowBytes << "/" << l.dstRowBytes << " at "
    << srcAt << "/" << dstAt << (destination.empty() ? " in one block; " : "; ") << settings << "; mask " << masked
    << " (values " << static_cast<int>(mask.values) << ", cancel at row " << mask.cancelAtRow << "), granted "
    << grantedBlocks << ", parts";
  for (const auto& [first, end] : parts.ranges) s << " [" << first << "," << end << ")";
  s << ", cancel before part " << parts.cancelBefore;
  return s.str();
}

// Runs the parts, setting cancel where the plan says, over copies of the
// memory; records what they leave and whether the block changed anywhere but
// progress and cancel.
Outcome KernelCaseBase::RunWith(void* params, size_t paramBytes, PartFunction part) const {
  auto& head = *static_cast<GenericMPParams*>(params);
  std::vector<uint8_t> src = source, dst = destination;
  RawBitmap records[2] = {srcRecord, dstRecord};
  head.width = l.width;
  head.height = l.height;
  head.progress = 0;
  head.cancel = 0;
  head.srcPixels = src.data() + srcAt;
  head.dstPixels = (destination.empty() ? src : dst).data() + dstAt;
  head.srcRowBytes = l.srcRowBytes;
  head.dstRowBytes = l.dstRowBytes;
  head.srcPixelBytes = l.srcPixelBytes;
  head.dstPixelBytes = l.dstPixelBytes;
  head.srcBitmap = &records[0];
  head.dstBitmap = &records[1];
  RecordingMask recording{{&kRecordingOps}, mask, l.sampleBytes == 2, &head, {}};
  head.maskData = masked ? &recording.data : nullptr;
  const auto* bytes = static_cast<const uint8_t*>(params);
  std::vector<uint8_t> before(bytes, bytes + paramBytes);

  Outcome out;
  const int64_t liveBefore = memory::LiveBlockCount();
  memory::FailAllocationsAfter(grantedBlocks);
  for (size_t i = 0; i < parts.ranges.size(); ++i) {
    if (static_cast<int>(i) == parts.cancelBefore) head.cancel = 1;
    MPParamBlock block{parts.ranges[i].first, parts.ranges[i].second, 0, {}, params};
    EXPECT_EQ(part(&block), nullptr);
    out.done.push_back(block.done);
  }
  memory::FailAllocationsAfter(-1);
  out.blocksLeft = memory::LiveBlockCount() - liveBefore;
  out.progress = head.progress;
  std::memcpy(&before[offsetof(GenericMPParams, progress)], &head.progress, sizeof head.progress);
  before[offsetof(GenericMPParams, cancel)] = head.cancel;
  out.blockUntouched = std::equal(before.begin(), before.end(), bytes);
  out.queries = std::move(recording.queries);
  out.memory = std::move(dst);
  out.memory.insert(out.memory.end(), src.begin(), src.end());
  return out;
}

bool MatchesReference(const std::function<Outcome(bool fast)>& run, const std::function<std::string()>& describe) {
  const Outcome expected = run(false);
  bool same = expected.blockUntouched && expected.blocksLeft == 0;
  if (!same) ADD_FAILURE() << "the reference wrote its block or kept an allocation; " << describe();
  for (const bool scalar : {false, true}) {
    cpu::ForceScalar(scalar);
    const Outcome actual = run(true);
    if (actual == expected) continue;
    same = false;
    ADD_FAILURE() << (scalar ? "portable" : "AVX2") << " path, " << describe() << "\n"
                  << FirstDifference(expected, actual);
  }
  cpu::ForceScalar(false);
  return same;
}

}  // namespace rawfx::test
