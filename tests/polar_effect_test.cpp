// PolarCoordinatesEffectRaw through the embedding host: properties, both Apply
// forms, ApplyAsync, failures, background colours and thread independence.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "effects/polar/polar_kernels.h"
#include "support/host_fixture.h"

// ---- parameter blocks on the heap -----------------------------------------------
// The asynchronous block is allocated by the module with the global operator new
// and released by whoever ends its life with the global operator delete; a run
// from polar to rectangular also takes a column table, in the same allocation
// as an asynchronous block or in one of its own for a synchronous Apply. These
// replacements keep track of the live allocations of the sizes being watched,
// so tests can tell whether a block or table was freed and what it held then.
namespace {

constexpr size_t kBlockSize = sizeof(PolarCoordinatesParams);
constexpr int kTrackedSlots = 256;
constexpr size_t kSnapshotBytes = sizeof(PolarCoordinatesParams) + sizeof(PolarColumnTable);

std::mutex& TrackerMutex() {
  static std::mutex mutex;
  return mutex;
}

struct TrackedAllocation {
  void* p;
  size_t size;
};
std::array<TrackedAllocation, kTrackedSlots> gLiveBlocks{};
std::array<size_t, 4> gWatchedSizes{kBlockSize};
int gBlockAllocations = 0;

// The first bytes of the last watched allocation, as they were when it was freed.
struct Released {
  void* p = nullptr;
  size_t size = 0;
  std::array<uint8_t, kSnapshotBytes> bytes{};
};
Released gLastReleased;

// Watches the block size and the given sizes (table or block with table), until the next call.
void WatchSizes(size_t a = 0, size_t b = 0) {
  std::lock_guard lock(TrackerMutex());
  gWatchedSizes = {kBlockSize, a, b, 0};
}

bool Watched(size_t size) {
  for (size_t watched : gWatchedSizes)
    if (watched != 0 && watched == size) return true;
  return false;
}

void TrackNew(void* p, size_t size) {
  std::lock_guard lock(TrackerMutex());
  if (!Watched(size)) return;
  ++gBlockAllocations;
  for (TrackedAllocation& slot : gLiveBlocks)
    if (!slot.p) {
      slot = {p, size};
      return;
    }
}

void TrackDelete(void* p) {
  if (!p) return;
  std::lock_guard lock(TrackerMutex());
  for (TrackedAllocation& slot : gLiveBlocks)
    if (slot.p == p) {
      gLastReleased.p = p;
      gLastReleased.size = slot.size;
      gLastReleased.bytes = {};
      std::memcpy(gLastReleased.bytes.data(), p, std::min(slot.size, kSnapshotBytes));
      slot = {};
    }
}

struct BlockCensus {
  int allocations;
  int live;
};

BlockCensus TakeBlockCensus() {
  std::lock_guard lock(TrackerMutex());
  int live = 0;
  for (const TrackedAllocation& slot : gLiveBlocks) live += slot.p != nullptr;
  return {gBlockAllocations, live};
}

bool BlockIsLive(void* p) {
  std::lock_guard lock(TrackerMutex());
  for (const TrackedAllocation& slot : gLiveBlocks)
    if (slot.p == p) return true;
  return false;
}

Released LastReleased() {
  std::lock_guard lock(TrackerMutex());
  return gLastReleased;
}

void* AllocateOrNull(size_t size) noexcept {
  void* p = std::malloc(size ? size : 1);
  if (p) TrackNew(p, size);
  return p;
}

void* Allocate(size_t size) {
  void* p = AllocateOrNull(size);
  if (!p) throw std::bad_alloc();
  return p;
}

void Release(void* p) noexcept {
  TrackDelete(p);
  std::free(p);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }

namespace {

using rawfx::host::BitmapView;
using rawfx::host::SplitPolicy;

constexpr const char* kEffectClass = "PolarCoordinatesEffectRaw";
constexpr const char* kApply1 = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";

constexpr int64_t kRGB = 3;
constexpr int64_t kRGBA = 5;
constexpr int64_t kARGB = 6;
constexpr int64_t kXRGB = 9;  // a padding byte where ARGB has alpha
constexpr int64_t kCMYK = 13;
constexpr int64_t kCMYKA = 14;

// What the completion method saw; the result is locked to outlive the call.
struct Completions {
  int calls = 0;
  REALobject target = nullptr;
  REALobject result = nullptr;
};
Completions gCompletions;
rawfx::host::Host* gCompletionHost = nullptr;

void RecordCompletion(REALobject target, REALobject result) {
  ++gCompletions.calls;
  gCompletions.target = target;
  gCompletions.result = result;
  if (result) gCompletionHost->Lock(result);
}

class PolarEffectTest : public rawfx::test::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    gCompletions = {};
    gCompletionHost = &host;
  }
  void TearDown() override {
    host.WaitForAsync();
    if (gCompletions.result) host.Unlock(gCompletions.result);
    gCompletions = {};
    for (REALobject object : kept_) host.Unlock(object);
    kept_.clear();
    HostTest::TearDown();
  }

  // Objects made here are released at the end of the test.
  REALobject Keep(REALobject object) {
    if (object) kept_.push_back(object);
    return object;
  }
  REALobject NewEffect() { return Keep(host.New(kEffectClass)); }
  REALobject NewSource(int64_t width, int64_t height, int64_t format, int bits = 8, uint32_t seed = 1) {
    REALobject bitmap = Keep(host.NewBitmap(width, height, format, bits, 6));
    rawfx::test::FillPattern(host, bitmap, seed);
    return bitmap;
  }
  REALobject Apply(REALobject effect, REALobject source) { return Keep(host.Call<REALobject>(effect, kApply1, source)); }
  REALobject Apply(REALobject effect, REALobject source, bool toPolar, bool flip, REALobject colour) {
    return Keep(host.Call<REALobject>(effect, kApply4, source, static_cast<signed char>(toPolar),
                                      static_cast<signed char>(flip), colour));
  }
  void ApplyAsync(REALobject effect, REALobject source, REALobject target) {
    host.Call<void>(effect, kApplyAsync, source, target, reinterpret_cast<void*>(&RecordCompletion));
  }

  // The samples of one pixel, widened.
  std::vector<uint32_t> PixelAt(REALobject bitmap, int64_t x, int64_t y) {
    const BitmapView v = host.Bitmap(bitmap);
    std::vector<uint32_t> samples;
    const uint8_t* p = v.row(y) + x * v.pixelBytes;
    for (int64_t i = 0; i < v.pixelBytes; i += v.bitsPerChannel / 8) {
      uint16_t wide = p[i];
      if (v.bitsPerChannel == 16) std::memcpy(&wide, p + i, sizeof wide);
      samples.push_back(wide);
    }
    return samples;
  }

 private:
  std::vector<REALobject> kept_;
};

// The kernels of the static library run directly over a host bitmap, with the
// settings the effect uses: what Apply must produce byte for byte (rows packed).
std::vector<uint8_t> KernelResult(const BitmapView& source, bool toPolar, bool flip,
                                  const std::vector<uint32_t>& background) {
  const int64_t packedRowBytes = source.width * source.pixelBytes;
  std::vector<uint8_t> dst(static_cast<size_t>(packedRowBytes * source.height));
  PolarCoordinatesParams params{};
  GenericMPParams& head = params.head;
  head.width = static_cast<int32_t>(source.width);
  head.height = static_cast<int32_t>(source.height);
  head.srcPixels = source.pixels;
  head.dstPixels = dst.data();
  head.srcRowBytes = static_cast<int32_t>(source.rowBytes);
  head.dstRowBytes = static_cast<int32_t>(packedRowBytes);
  head.srcPixelBytes = head.dstPixelBytes = static_cast<int32_t>(source.pixelBytes);
  params.settings = {100.0, flip, 1, toPolar, 0.0, 0, 0, 0.0, 0.0};
  for (size_t i = 0; i < background.size(); ++i) {
    params.backColor8[i] = static_cast<uint8_t>(background[i]);
    params.backColor16[i] = static_cast<uint16_t>(background[i]);
  }
  MPParamBlock block{0, head.height, 0, {}, &params};
  (source.bitsPerChannel == 8 ? PolarCoordinatesPart : PolarCoordinatesPart16)(&block);
  return dst;
}

void ExpectPixelsEqual(const BitmapView& result, const std::vector<uint8_t>& expected) {
  const int64_t rowUsed = result.width * result.pixelBytes;
  for (int64_t y = 0; y < result.height; ++y)
    ASSERT_EQ(0, std::memcmp(result.row(y), expected.data() + y * rowUsed, rowUsed)) << "row " << y;
}

TEST_F(PolarEffectTest, NewObjectHasItsDefaults) {
  REALobject effect = NewEffect();
  EXPECT_TRUE(host.Get<bool>(effect, "RectangularToPolar"));
  EXPECT_TRUE(host.Get<bool>(effect, "FlipMapping"));
  REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
  ASSERT_NE(colour, nullptr);
  EXPECT_TRUE(host.IsA(colour, "ZandoriaColors.RGBColor"));
  EXPECT_EQ(host.RefCount(colour), 2);  // the effect's lock and the getter's
}

TEST_F(PolarEffectTest, DirectPropertiesAreTheInstanceBytes) {
  REALobject effect = NewEffect();
  host.Set<bool>(effect, "FlipMapping", false);
  EXPECT_FALSE(host.Get<bool>(effect, "FlipMapping"));
  EXPECT_TRUE(host.Get<bool>(effect, "RectangularToPolar"));
  const auto* data = static_cast<const uint8_t*>(host.ClassData(effect, kEffectClass));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data[0], 1);
  EXPECT_EQ(data[1], 0);
}

TEST_F(PolarEffectTest, BackColorKeepsOneLockAndIgnoresNil) {
  REALobject effect = NewEffect();
  REALobject colour = Keep(host.NewCMYKColor(1, 2, 3, 4));
  host.Set<REALobject>(effect, "BackColor", colour);
  EXPECT_EQ(host.RefCount(colour), 2);
  host.Set<REALobject>(effect, "BackColor", colour);
  EXPECT_EQ(host.RefCount(colour), 2);
  host.Set<REALobject>(effect, "BackColor", nullptr);
  REALobject held = host.Get<REALobject>(effect, "BackColor");
  EXPECT_EQ(held, colour);
  host.Unlock(held);
}

TEST_F(PolarEffectTest, ApplyMatchesTheKernelsInBothDirections) {
  REALobject effect = NewEffect();
  REALobject colour = Keep(host.NewRGBColor(10, 20, 30, 40));
  host.Set<REALobject>(effect, "BackColor", colour);
  for (int bits : {8, 16}) {
    REALobject source = NewSource(23, 17, kRGBA, bits, 7);
    const std::vector<uint32_t> background =
        bits == 8 ? std::vector<uint32_t>{10, 20, 30, 40} : std::vector<uint32_t>{2570, 5140, 7710, 10280};
    for (bool toPolar : {true, false}) {
      for (bool flip : {true, false}) {
        host.Set<bool>(effect, "RectangularToPolar", toPolar);
        host.Set<bool>(effect, "FlipMapping", flip);
        REALobject result = Apply(effect, source);
        ASSERT_NE(result, nullptr);
        const rawfx::host::EngineCall call = host.lastEngineCall();
        EXPECT_EQ(call.operation, rawfx::host::EngineCall::Parts);
        EXPECT_EQ(call.modeCode, 2);
        EXPECT_EQ(call.formatFlags, bits == 8 ? 13 : 14);
        EXPECT_EQ(call.resultFlag, 1);
        EXPECT_EQ(call.partFunction, call.maskPartFunction);
        EXPECT_EQ(call.mask, nullptr);
        ExpectPixelsEqual(host.Bitmap(result), KernelResult(host.Bitmap(source), toPolar, flip, background));
      }
    }
  }
  EXPECT_EQ(host.LastError(effect), 0);
}

TEST_F(PolarEffectTest, FourArgumentApplyUsesItsArgumentsOnly) {
  REALobject effect = NewEffect();
  REALobject source = NewSource(20, 14, kRGB);
  REALobject red = Keep(host.NewRGBColor(255, 0, 0));
  REALobject unrolled = Apply(effect, source, false, true, red);
  ASSERT_NE(unrolled, nullptr);
  EXPECT_TRUE(host.Get<bool>(effect, "RectangularToPolar"));
  EXPECT_TRUE(host.Get<bool>(effect, "FlipMapping"));
  REALobject held = host.Get<REALobject>(effect, "BackColor");
  EXPECT_NE(held, red);
  host.Unlock(held);

  ExpectPixelsEqual(host.Bitmap(unrolled), KernelResult(host.Bitmap(source), false, true, {255, 0, 0}));
  REALobject wrapped = Apply(effect, source);
  EXPECT_FALSE(rawfx::test::SamePixels(host, wrapped, unrolled));
}

TEST_F(PolarEffectTest, NilSourceOrColourGivesInvalidArgument) {
  REALobject effect = NewEffect();
  EXPECT_EQ(Apply(effect, nullptr), nullptr);
  EXPECT_EQ(host.LastError(effect), 4);

  REALobject other = NewEffect();
  REALobject source = NewSource(6, 6, kRGB);
  EXPECT_EQ(Apply(other, source, true, true, nullptr), nullptr);
  EXPECT_EQ(host.LastError(other), 4);
  EXPECT_EQ(host.lastEngineCall().operation, rawfx::host::EngineCall::None);

  // A success leaves the earlier code in place.
  EXPECT_NE(Apply(effect, source), nullptr);
  EXPECT_EQ(host.LastError(effect), 4);
}

TEST_F(PolarEffectTest, UnsupportedDepthStartsNothing) {
  REALobject effect = NewEffect();
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  REALobject source = NewSource(6, 6, kRGB);
  uint8_t& depth = host.Bitmap(source).record->bitsPerChannel;
  depth = 32;
  EXPECT_EQ(Apply(effect, source), nullptr);
  EXPECT_EQ(host.LastError(effect), 6);

  const BlockCensus before = TakeBlockCensus();
  ApplyAsync(effect, source, target);
  host.WaitForAsync();
  const BlockCensus after = TakeBlockCensus();
  EXPECT_EQ(after.allocations, before.allocations + 1);  // the block was made ...
  EXPECT_EQ(after.live, before.live);                    // ... and freed again
  EXPECT_EQ(gCompletions.calls, 0);
  EXPECT_EQ(host.LastError(effect), 6);
  depth = 8;
}

TEST_F(PolarEffectTest, AsyncWithNilSourceFreesItsBlock) {
  REALobject effect = NewEffect();
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  const BlockCensus before = TakeBlockCensus();
  ApplyAsync(effect, nullptr, target);
  host.WaitForAsync();
  EXPECT_EQ(TakeBlockCensus().live, before.live);
  EXPECT_EQ(gCompletions.calls, 0);
  EXPECT_EQ(host.LastError(effect), 4);
}

TEST_F(PolarEffectTest, ApplyAsyncCompletesOnceWithApplysResult) {
  REALobject effect = NewEffect();
  host.Set<bool>(effect, "FlipMapping", false);
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  REALobject source = NewSource(31, 19, kARGB, 16, 3);
  REALobject expected = Apply(effect, source);

  ApplyAsync(effect, source, target);
  const rawfx::host::EngineCall call = host.lastEngineCall();
  EXPECT_EQ(call.operation, rawfx::host::EngineCall::PartsAsync);
  EXPECT_EQ(call.modeCode, 2);
  EXPECT_EQ(call.formatFlags, 14);
  EXPECT_EQ(call.resultFlag, 1);
  EXPECT_EQ(call.deleteCallback, nullptr);
  EXPECT_EQ(call.partFunction, call.maskPartFunction);
  host.WaitForAsync();

  EXPECT_EQ(gCompletions.calls, 1);
  EXPECT_EQ(gCompletions.target, target);
  ASSERT_NE(gCompletions.result, nullptr);
  EXPECT_TRUE(rawfx::test::SamePixels(host, gCompletions.result, expected));
  EXPECT_FALSE(BlockIsLive(call.params));
}

// The column table of what a block held when it was freed: nil, or its header
// when it lies right after the block in the same allocation.
const PolarColumnTable* TableInBlock(const Released& released, PolarColumnTable& header) {
  PolarCoordinatesParams params;
  std::memcpy(&params, released.bytes.data(), sizeof params);
  if (!params.columnTable) return nullptr;
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(params.columnTable),
            static_cast<const uint8_t*>(released.p) + sizeof(PolarCoordinatesParams));
  std::memcpy(&header, released.bytes.data() + sizeof params, sizeof header);
  return params.columnTable;
}

TEST_F(PolarEffectTest, AsyncUnrollingCarriesItsColumnTableInTheBlock) {
  constexpr int64_t kWidth = 29, kHeight = 21;
  const size_t blockWithTable = kBlockSize + PolarColumnTableBytes(kWidth, kHeight);
  REALobject effect = NewEffect();
  host.Set<bool>(effect, "RectangularToPolar", false);
  host.Set<bool>(effect, "FlipMapping", false);
  host.Set<REALobject>(effect, "BackColor", Keep(host.NewRGBColor(10, 20, 30, 40)));
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  REALobject source = NewSource(kWidth, kHeight, kRGBA, 8, 5);
  REALobject expected = Apply(effect, source);

  WatchSizes(blockWithTable);
  const BlockCensus before = TakeBlockCensus();
  ApplyAsync(effect, source, target);
  const rawfx::host::EngineCall call = host.lastEngineCall();
  host.WaitForAsync();
  const BlockCensus after = TakeBlockCensus();
  EXPECT_EQ(after.allocations, before.allocations + 1);  // block and table: one allocation ...
  EXPECT_EQ(after.live, before.live);                    // ... released by the engine

  const Released released = LastReleased();
  EXPECT_EQ(released.p, call.params);
  EXPECT_EQ(released.size, blockWithTable);
  PolarColumnTable header{};
  ASSERT_NE(TableInBlock(released, header), nullptr);
  EXPECT_EQ(header.width, kWidth);
  EXPECT_EQ(header.height, kHeight);
  EXPECT_EQ(header.flipMapping, 0);
  EXPECT_EQ(header.roundness, 100.0);
  EXPECT_EQ(header.angleOffset, 0.0);

  ASSERT_EQ(gCompletions.calls, 1);
  EXPECT_TRUE(rawfx::test::SamePixels(host, gCompletions.result, expected));
  ExpectPixelsEqual(host.Bitmap(gCompletions.result), KernelResult(host.Bitmap(source), false, false, {10, 20, 30, 40}));
}

TEST_F(PolarEffectTest, AsyncWrappingTakesNoColumnTable) {
  REALobject effect = NewEffect();
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  REALobject source = NewSource(17, 13, kRGB, 16, 2);
  WatchSizes();
  ApplyAsync(effect, source, target);
  const rawfx::host::EngineCall call = host.lastEngineCall();
  host.WaitForAsync();
  const Released released = LastReleased();
  EXPECT_EQ(released.p, call.params);
  EXPECT_EQ(released.size, kBlockSize);
  PolarColumnTable header{};
  EXPECT_EQ(TableInBlock(released, header), nullptr);
}

TEST_F(PolarEffectTest, FailedAsyncUnrollingFreesBlockAndTable) {
  constexpr int64_t kWidth = 9, kHeight = 6;
  REALobject effect = NewEffect();
  host.Set<bool>(effect, "RectangularToPolar", false);
  REALobject target = Keep(host.NewRGBColor(0, 0, 0));
  REALobject source = NewSource(kWidth, kHeight, kRGB);
  uint8_t& depth = host.Bitmap(source).record->bitsPerChannel;
  depth = 12;
  WatchSizes(kBlockSize + PolarColumnTableBytes(kWidth, kHeight));
  const BlockCensus before = TakeBlockCensus();
  ApplyAsync(effect, source, target);
  host.WaitForAsync();
  const BlockCensus after = TakeBlockCensus();
  EXPECT_EQ(after.allocations, before.allocations + 1);
  EXPECT_EQ(after.live, before.live);
  EXPECT_EQ(gCompletions.calls, 0);
  EXPECT_EQ(host.LastError(effect), 6);
  depth = 8;
}

// A synchronous run keeps its block on the stack; the table it takes when
// unrolling is freed before Apply returns, and only unrolling takes one.
TEST_F(PolarEffectTest, SyncApplyFreesItsColumnTableBeforeReturning) {
  constexpr int64_t kWidth = 33, kHeight = 18;
  const size_t tableBytes = PolarColumnTableBytes(kWidth, kHeight);
  REALobject effect = NewEffect();
  REALobject source = NewSource(kWidth, kHeight, kRGB, 8, 9);
  WatchSizes(tableBytes);
  for (bool toPolar : {false, true}) {
    for (bool flip : {false, true}) {
      const BlockCensus before = TakeBlockCensus();
      REALobject result = Apply(effect, source, toPolar, flip, Keep(host.NewRGBColor(1, 2, 3)));
      ASSERT_NE(result, nullptr);
      const BlockCensus after = TakeBlockCensus();
      EXPECT_EQ(after.allocations, before.allocations + (toPolar ? 0 : 1)) << toPolar << flip;
      EXPECT_EQ(after.live, before.live);
      ExpectPixelsEqual(host.Bitmap(result), KernelResult(host.Bitmap(source), toPolar, flip, {1, 2, 3}));
      if (toPolar) continue;
      const Released released = LastReleased();
      EXPECT_EQ(released.size, tableBytes);
      PolarColumnTable header{};
      std::memcpy(&header, released.bytes.data(), sizeof header);
      EXPECT_EQ(header.width, kWidth);
      EXPECT_EQ(header.height, kHeight);
      EXPECT_EQ(header.flipMapping, flip ? 1 : 0);
    }
  }
}

TEST_F(PolarEffectTest, BackgroundAlphaFollowsTheBitmap) {
  REALobject effect = NewEffect();
  REALobject colour8 = Keep(host.NewRGBColor(10, 20, 30, 40));
  REALobject colour16 = Keep(host.NewRGBColor16(1000, 2000, 3000, 4000));
  // (0, 0) lies outside the inscribed circle: it is background.
  struct Case {
    int64_t format;
    int bits;
    std::vector<uint32_t> background;
  };
  const Case cases[] = {
      {kARGB, 16, {4000, 1000, 2000, 3000}},
      {kXRGB, 16, {65535, 1000, 2000, 3000}},
      {kRGBA, 8, {10, 20, 30, 40}},
      {kXRGB, 8, {255, 10, 20, 30}},
  };
  for (const Case& c : cases) {
    REALobject colour = c.bits == 8 ? colour8 : colour16;
    REALobject result = Apply(effect, NewSource(9, 9, c.format, c.bits), true, true, colour);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(PixelAt(result, 0, 0), c.background) << "format " << c.format << ", " << c.bits << " bits";
  }
}

TEST_F(PolarEffectTest, ColoursAreConvertedToTheBitmapsFamily) {
  REALobject effect = NewEffect();
  REALobject rgb = Keep(host.NewRGBColor(200, 100, 50, 25));
  REALobject cmyk = Keep(host.NewCMYKColor(10, 20, 30, 40, 50));
  const RGBColorData rgbBefore = host.RGBColor(rgb);
  const CMYKColorData cmykBefore = host.CMYKColor(cmyk);

  // What the colours' own conversions give.
  const void* rgbData = host.ClassData(rgb, "ZandoriaColors.RGBColor");
  const void* cmykData = host.ClassData(cmyk, "ZandoriaColors.CMYKColor");
  CMYKColorData asCMYK{};
  RGBColorData asRGB{};
  ConversionTableOf(rgbData)->ToCMYK(rgbData, &asCMYK);
  ConversionTableOf(cmykData)->ToRGB(cmykData, &asRGB);

  REALobject onCMYK = Apply(effect, NewSource(9, 9, kCMYKA), true, true, rgb);
  EXPECT_EQ(PixelAt(onCMYK, 0, 0),
            (std::vector<uint32_t>{asCMYK.cyan, asCMYK.magenta, asCMYK.yellow, asCMYK.black, asCMYK.alpha}));
  REALobject onRGB = Apply(effect, NewSource(9, 9, kRGBA), true, true, cmyk);
  EXPECT_EQ(PixelAt(onRGB, 0, 0), (std::vector<uint32_t>{asRGB.red, asRGB.green, asRGB.blue, asRGB.alpha}));
  REALobject sameFamily = Apply(effect, NewSource(9, 9, kCMYK), true, true, cmyk);
  EXPECT_EQ(PixelAt(sameFamily, 0, 0), (std::vector<uint32_t>{10, 20, 30, 40}));

  const RGBColorData rgbAfter = host.RGBColor(rgb);
  EXPECT_EQ(0, std::memcmp(&rgbBefore, &rgbAfter, sizeof rgbBefore));
  const CMYKColorData cmykAfter = host.CMYKColor(cmyk);
  EXPECT_EQ(0, std::memcmp(&cmykBefore, &cmykAfter, sizeof cmykBefore));
}

TEST_F(PolarEffectTest, ThreadsAndSplitsGiveIdenticalResults) {
  REALobject effect = NewEffect();
  for (int bits : {8, 16}) {
    REALobject source = NewSource(37, 29, kRGBA, bits, 11);
    for (bool toPolar : {true, false}) {
      host.Set<bool>(effect, "RectangularToPolar", toPolar);
      host.SetThreads(1);
      host.SetSplitPolicy(SplitPolicy::SinglePart);
      REALobject reference = Apply(effect, source);
      ASSERT_NE(reference, nullptr);
      for (int threads : {1, 2, 4}) {
        host.SetThreads(threads);
        for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                                   SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts}) {
          host.SetSplitPolicy(policy);
          REALobject result = host.Call<REALobject>(effect, kApply1, source);
          ASSERT_NE(result, nullptr);
          EXPECT_TRUE(rawfx::test::SamePixels(host, result, reference))
              << threads << " threads, policy " << static_cast<int>(policy) << ", " << bits << " bits";
          host.Unlock(result);
        }
      }
    }
  }
}

}  // namespace
