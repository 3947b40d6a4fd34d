#include "support/differential.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>

#include "imaging/cpu_dispatch.h"
#include "imaging/memory.h"

namespace rawfx::test {

double UniformReal(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }

double RandomDouble(Rng& rng, double p, double lo, double hi, std::initializer_list<double> extras) {
  static constexpr double kExtremes[] = {0.0, -0.0, kTiny, -kTiny, 1e-300, -1e-300, 1e300, -1e300, kNaN, kInf, -kInf};
  constexpr int64_t kCount = std::size(kExtremes);
  if (!Chance(rng, p)) return UniformReal(rng, lo, hi);
  const int64_t pick = Uniform(rng, 0, kCount + static_cast<int64_t>(extras.size()) - 1);
  return pick < kCount ? kExtremes[pick] : extras.begin()[pick - kCount];
}

std::vector<uint8_t> RandomBytes(Rng& rng, size_t count, bool samples) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  if (!samples) return bytes;
  const uint8_t fill = Chance(rng, 0.5) ? 0x00 : 0xFF;
  if (Chance(rng, 0.15))
    for (uint8_t& b : bytes) b = Chance(rng, 0.7) ? fill : b;
  return bytes;
}

void RandomSize(Rng& rng, Layout& l, int32_t longRows) {
  const int32_t small[] = {0, 1, 1, 2, 3, 4, 5};
  for (int32_t* side : {&l.width, &l.height})
    *side = Chance(rng, 0.25) ? PickFrom(rng, small) : static_cast<int32_t>(Uniform(rng, 0, 64));
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

RawBitmap RecordOf(const Layout& l, int32_t pixelBytes, uint8_t alphaOffset) {
  RawBitmap record{};
  record.width = l.width;
  record.height = l.height;
  record.channelCount = pixelBytes / l.sampleBytes;
  record.bytesPerPixel = l.channels * l.sampleBytes;
  record.alphaOffset = alphaOffset;
  record.isValid = 1;
  record.bitsPerChannel = static_cast<uint8_t>(8 * l.sampleBytes);
  return record;
}

void RandomRun(Rng& rng, KernelCaseBase& c) {
  const int32_t height = c.l.height;
  c.mask = {static_cast<MaskValues>(Uniform(rng, 0, 3)), rng(), -1, {}};
  if (height > 0 && Chance(rng, 0.1)) c.mask.cancelAtRow = Uniform(rng, 0, height - 1);
  c.parts = {};
  auto& ranges = c.parts.ranges;
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
  if (!ranges.empty() && Chance(rng, 0.15)) c.parts.cancelBefore = static_cast<int>(Uniform(rng, 0, ranges.size() - 1));
}

namespace {

struct RecordingMask {
  RawBitmapMaskData data;  // first: the kernels' pointer is this object
  MaskPlan plan;
  GenericMPParams* head;
  std::vector<MaskQuery> queries;

  static RecordingMask& Of(RawBitmapMaskData* m) { return *reinterpret_cast<RecordingMask*>(m); }
  template <int Bits>
  static MaskRowHandle Row(RawBitmapMaskData* m, int64_t row) {
    Of(m).queries.push_back({row, MaskHandle(row), -1, Bits});
    if (row == Of(m).plan.cancelAtRow) Of(m).head->cancel = 1;
    return static_cast<MaskRowHandle>(MaskHandle(row));
  }
  template <int Bits>
  static uint32_t Value(RawBitmapMaskData* m, MaskRowHandle handle, int32_t x) {
    const int64_t row = (static_cast<int64_t>(handle) - MaskHandle(0)) / (MaskHandle(1) - MaskHandle(0));
    Of(m).queries.push_back({row, static_cast<int64_t>(handle), x, Bits});
    // The value: random high bits over the low 8 (16) that count, or the column's.
    const MaskPlan& mask = Of(m).plan;
    if (!mask.columns.empty()) return mask.columns[x];
    uint64_t h = mask.seed ^ (static_cast<uint64_t>(row) * 0x9E3779B97F4A7C15ull) ^
                 (static_cast<uint64_t>(x) * 0xC2B2AE3D27D4EB4Full);
    h = (h ^ (h >> 29)) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    const uint32_t full = Bits == 16 ? 0xFFFFu : 0xFFu, low = static_cast<uint32_t>(h) & full;
    // By MaskValues: Zero, Full, Extremes (0, full or anything by turns), Anything.
    const uint32_t values[] = {0, full, h % 3 == 0 ? 0 : h % 3 == 1 ? full : low, low};
    return (static_cast<uint32_t>(h >> 32) & ~full) | values[static_cast<int>(mask.values)];
  }
};
static_assert(std::is_standard_layout_v<RecordingMask>);
constexpr RawBitmapMaskOps kRecordingOps{nullptr, RecordingMask::Row<8>,  RecordingMask::Value<8>,
                                         nullptr, RecordingMask::Row<16>, RecordingMask::Value<16>};

// Where sample (x, y, channel) lies from the first pixel of the source or the destination.
int64_t OffsetOf(const Layout& l, bool source, int32_t x, int32_t y, int channel) {
  return int64_t{y} * (source ? l.srcRowBytes : l.dstRowBytes) +
         int64_t{x} * (source ? l.srcPixelBytes : l.dstPixelBytes) + channel * l.sampleBytes;
}
// 16-bit samples are little-endian, as on every machine the kernels run on.
uint32_t Read(const uint8_t* p, int sampleBytes) { return sampleBytes == 1 ? *p : p[0] | p[1] << 8; }

// A copy of bytes that ends where an inaccessible page begins (as close as a
// start aligned to `align` allows), so that a kernel reading past the end of
// its source faults in every build, not only under AddressSanitizer.
struct PageEndCopy {
  PageEndCopy(const std::vector<uint8_t>& bytes, size_t align) : size(bytes.size()) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    mapped = (size + align + page - 1) / page * page + page;
    base = static_cast<uint8_t*>(mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED) throw std::bad_alloc();
    mprotect(base + mapped - page, page, PROT_NONE);
    data = base + mapped - page - size;
    data -= reinterpret_cast<uintptr_t>(data) % align;
    std::copy(bytes.begin(), bytes.end(), data);
  }
  ~PageEndCopy() { munmap(base, mapped); }
  PageEndCopy(const PageEndCopy&) = delete;
  PageEndCopy& operator=(const PageEndCopy&) = delete;

  size_t size, mapped;
  uint8_t* base;
  uint8_t* data;
};

}  // namespace

std::string KernelCaseBase::Describe() const {
  std::string text = rawfx::test::Describe(
      l.width, "x", l.height, ", ", l.sampleBytes * 8, "-bit, ", l.channels, " channels, pixel ", l.srcPixelBytes, "/",
      l.dstPixelBytes, ", rows ", l.srcRowBytes, "/", l.dstRowBytes, " at ", srcAt, "/", dstAt,
      destination.empty() ? " in one block; " : "; ", settings, "; mask ", masked, " (values ",
      static_cast<int>(mask.values), ", cancel at row ", mask.cancelAtRow, "), granted ", grantedBlocks, ", parts");
  for (const auto& [first, end] : parts.ranges) text += rawfx::test::Describe(" [", first, ",", end, ")");
  return text + ", cancel before part " + std::to_string(parts.cancelBefore);
}

void KernelCaseBase::Block(int32_t width, int32_t height, int32_t sampleBytes, int32_t channels, int32_t padSamples,
                           const std::function<uint32_t(int32_t, int32_t, int)>& sample) {
  l = PackedLayout(width, height, sampleBytes, channels);
  l.srcRowBytes += padSamples * sampleBytes;
  source.assign(static_cast<size_t>(l.srcRowBytes) * height, 0);
  for (int32_t y = 0; y < height && sample; ++y)
    for (int32_t x = 0; x < width; ++x)
      for (int channel = 0; channel < channels; ++channel) SetSource(x, y, channel, sample(x, y, channel));
  destination.assign(static_cast<size_t>(l.dstRowBytes) * height, 0xA5);
  srcRecord = RecordOf(l, l.srcPixelBytes, 0xFE);  // no alpha channel unless a test sets one
  dstRecord = RecordOf(l, l.dstPixelBytes, 0xFE);
  parts.ranges = {{0, height}};
  mask.values = MaskValues::Zero;
}

void KernelCaseBase::SetSource(int32_t x, int32_t y, int channel, uint32_t value) {
  uint8_t* p = &source[srcAt + OffsetOf(l, true, x, y, channel)];
  p[0] = static_cast<uint8_t>(value);
  if (l.sampleBytes == 2) p[1] = static_cast<uint8_t>(value >> 8);
}

uint32_t KernelCaseBase::Result(const Outcome& out, int32_t x, int32_t y, int channel) const {
  return Read(&out.memory[dstAt + OffsetOf(l, false, x, y, channel)], l.sampleBytes);
}

// Runs the parts, setting cancel where the plan says, over copies of the
// memory; records what they leave and whether the block changed anywhere but
// progress and cancel.
Outcome KernelCaseBase::RunWith(void* params, size_t paramBytes, PartFunction part) const {
  auto& head = *static_cast<GenericMPParams*>(params);
  if (prepare) prepare();
  const PageEndCopy src(source, static_cast<size_t>(std::max(l.sampleBytes, 1)));
  std::vector<uint8_t> dst = destination;
  RawBitmap records[2] = {srcRecord, dstRecord};
  head.width = l.width;
  head.height = l.height;
  head.progress = 0;
  head.cancel = 0;
  head.srcPixels = src.data + srcAt;
  head.dstPixels = (destination.empty() ? src.data : dst.data()) + dstAt;
  head.srcRowBytes = l.srcRowBytes;
  head.dstRowBytes = l.dstRowBytes;
  head.srcPixelBytes = l.srcPixelBytes;
  head.dstPixelBytes = l.dstPixelBytes;
  head.srcBitmap = &records[0];
  head.dstBitmap = &records[1];
  RecordingMask recording{{&kRecordingOps}, mask, &head, {}};
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
  out.memory.insert(out.memory.end(), src.data, src.data + src.size);
  return out;
}

Outcome CheckedRun(const KernelCaseBase& c, const std::string& label, int* failures) {
  const Outcome expected = c.Run(false);
  bool same = expected.blockUntouched && expected.blocksLeft == 0;
  if (!same) ADD_FAILURE() << "the reference wrote its block or kept an allocation; " << label << c.Describe();
  for (const cpu::Path path : {cpu::Path::AVX512, cpu::Path::AVX2, cpu::Path::Portable}) {
    cpu::LimitPaths(path);
    const Outcome actual = c.Run(true);
    if (actual == expected) continue;
    same = false;
    const auto at = std::mismatch(expected.memory.begin(), expected.memory.end(), actual.memory.begin()).first;
    ADD_FAILURE() << "path " << static_cast<int>(path) << " (0 portable, 1 AVX2, 2 AVX-512), " << label << c.Describe()
                  << "\nfirst byte that differs " << at - expected.memory.begin() << "; progress " << expected.progress
                  << " vs " << actual.progress << "; done flags, queries, blocks left, block untouched differ: "
                  << (expected.done != actual.done) << (expected.queries != actual.queries)
                  << (expected.blocksLeft != actual.blocksLeft) << (expected.blockUntouched != actual.blockUntouched);
  }
  cpu::LimitPaths(cpu::Path::AVX512);
  if (failures) *failures += !same;
  return expected;
}

}  // namespace rawfx::test
