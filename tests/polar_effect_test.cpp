// PolarCoordinatesEffectRaw through the embedding host: its record, defaults
// and colour, refused runs, both Apply forms and ApplyAsync against the
// reference kernels for both directions, depths, colour families and every row
// split, and the parameter blocks and column tables the runs take and give back.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "effects/polar/polar_kernels.h"
#include "support/effect_checks.h"
#include "support/polar_reference.h"

// ---- allocations of one watched size ----------------------------------------------
// The module takes an asynchronous block (followed by its column table when
// unrolling) and a synchronous run's column table with the global operator new.
// These replacements count the allocations of one watched size and keep those
// still live, so that a test can tell that what a run took was given back; on
// request the nothrow form refuses that size, as an exhausted heap would.
namespace {

std::mutex gWatchMutex;
size_t gWatchedSize = 0;
bool gWatchedFails = false;
int gWatchedMade = 0;
std::array<void*, 64> gWatchedLive{};

void* Allocate(size_t size, bool nothrow = false) noexcept {
  std::lock_guard lock(gWatchMutex);
  if (nothrow && gWatchedFails && size == gWatchedSize) return nullptr;
  void* p = std::malloc(size ? size : 1);
  if (p && size == gWatchedSize) {
    ++gWatchedMade;
    for (void*& slot : gWatchedLive)
      if (!slot) {
        slot = p;
        break;
      }
  }
  return p;
}

void Release(void* p) noexcept {
  {
    std::lock_guard lock(gWatchMutex);
    for (void*& slot : gWatchedLive)
      if (p && slot == p) slot = nullptr;
  }
  std::free(p);
}

void Watch(size_t size, bool fails = false) {
  std::lock_guard lock(gWatchMutex);
  gWatchedSize = size;
  gWatchedFails = fails;
  gWatchedMade = 0;
  gWatchedLive.fill(nullptr);
}

// Allocations of the watched size since Watch, and how many are still live.
std::pair<int, int> Watched() {
  std::lock_guard lock(gWatchMutex);
  int live = 0;
  for (void* slot : gWatchedLive) live += slot != nullptr;
  return {gWatchedMade, live};
}

}  // namespace

void* operator new(size_t size) {
  if (void* p = Allocate(size)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size, true); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size, true); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

namespace {

using namespace rawfx::test;
using rawfx::host::EngineCall;

constexpr const char* kClass = "PolarCoordinatesEffectRaw";
constexpr const char* kApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";
constexpr size_t kBlockSize = sizeof(PolarCoordinatesParams);

class PolarEffect : public EffectTest {
 protected:
  REALobject Apply4(REALobject effect, REALobject source, bool toPolar, bool flip, REALobject colour) {
    return host.Call<REALobject>(effect, kApply4, source, static_cast<signed char>(toPolar),
                                 static_cast<signed char>(flip), colour);
  }
};

TEST_F(PolarEffect, HoldsItsBackColor) {
  REALobject effect = Keep(host.New(kClass));  // defaults: docs_classes_test
  REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
  EXPECT_EQ(host.RefCount(colour), 2) << "the effect's reference and the getter's";
  ExpectHoldsOneLock(effect, "BackColor", Keep(host.NewRGBColor(1, 2, 3)), Keep(host.NewCMYKColor(1, 2, 3, 4)), false);
}

// Every form refuses a nil source or colour with 4, a source too large for
// 32-bit offsets with 4 and a depth other than 8 or 16 with 6; a refused
// ApplyAsync frees its block (and run table) itself, and one without memory
// for its block stores 5.
TEST_F(PolarEffect, RefusedRunsStoreTheirCodeAndFreeTheirBlock) {
  REALobject effect = Keep(host.New(kClass));
  REALobject source = NewSource(9, 6, kRGB);
  REALobject colour = Keep(host.NewRGBColor(1, 2, 3));
  ExpectRefused(effect, source, 4, [&] { return Apply4(effect, source, true, true, nullptr); });
  struct Row {
    bool toPolar, nilSource;
    uint8_t bits;
    int64_t height;  // patched into the record: 2^27 rows of 27 bytes reach past 2^31
  };
  for (const Row& row : {Row{true, true, 8, 6}, Row{false, true, 8, 6}, Row{true, false, 32, 6},
                         Row{false, false, 12, 6}, Row{true, false, 8, 1 << 27}, Row{false, false, 16, 1 << 27}}) {
    SCOPED_TRACE(std::string(row.toPolar ? "wrapping" : "unrolling") + (row.nilSource ? ", nil source" : ", depth ") +
                 std::to_string(row.bits) + ", height " + std::to_string(row.height));
    host.Set<bool>(effect, "RectangularToPolar", row.toPolar);
    host.Bitmap(source).record->bitsPerChannel = row.bits;
    host.Bitmap(source).record->height = row.height;
    REALobject run = row.nilSource ? nullptr : source;
    REALobject compared = row.height == 6 ? run : nullptr;  // the patched record's pixels are not all there
    const int64_t code = row.bits == 8 || row.bits == 16 ? 4 : 6;
    ExpectRefused(effect, compared, code, [&] { return host.Call<REALobject>(effect, kApply, run); });
    ExpectRefused(effect, compared, code, [&] { return Apply4(effect, run, row.toPolar, true, colour); });
    const size_t table = row.nilSource ? 0
                         : row.toPolar ? PolarRayTableBytes(9, row.height)
                                       : PolarColumnTableBytes(9, row.height);
    Watch(kBlockSize + table);
    ExpectRefused(effect, compared, code, [&] { return ApplyAsync(effect, run, effect); });
    EXPECT_EQ(Watched(), std::pair(1, 0)) << "the block was taken and freed";
  }
  host.Bitmap(source).record->bitsPerChannel = 8;
  host.Bitmap(source).record->height = 1;  // a single row takes no ray table, so the block is the one allocation
  host.Set<bool>(effect, "RectangularToPolar", true);
  Watch(kBlockSize, true);
  ExpectRefused(effect, source, 5, [&] { return ApplyAsync(effect, source, effect); });
  Watch(0);
  host.Bitmap(source).record->height = 6;
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

// One effect runs every row (the first with its default colour): the
// one-argument Apply and ApplyAsync with the row's settings in the properties,
// the four-argument Apply with them as arguments and the opposite settings in
// the properties, which it leaves as they were.
TEST_F(PolarEffect, RunsMatchTheReferenceKernels) {
  REALobject rgb = Keep(host.NewRGBColor(200, 100, 50, 25));
  REALobject cmyk = Keep(host.NewCMYKColor(10, 20, 30, 40, 50));
  const std::string rgbState = ColourState(rgb), cmykState = ColourState(cmyk);
  REALobject effect = Keep(host.New(kClass));
  enum Method { Apply1, Apply4Args, Async };
  struct Row {
    bool toPolar, flip;
    int64_t format;
    int bits;
    REALobject colour;  // nil: the default colour
    Method method;
  };
  const Row rows[] = {
      {true, true, kRGBA, 8, nullptr, Apply1},  {false, true, kRGBA, 16, rgb, Apply1},
      {true, false, kXRGB, 8, rgb, Apply4Args}, {false, false, kARGB, 16, rgb, Async},
      {true, true, kCMYKA, 8, rgb, Apply4Args}, {false, true, kRGB, 16, cmyk, Async},
      {true, false, kCMYK, 16, cmyk, Apply1},   {false, false, kXRGB, 16, cmyk, Apply4Args},
      {true, true, kARGB, 8, cmyk, Async},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.toPolar ? "wrapping" : "unrolling") + (row.flip ? " flipped" : "") + ", format " +
                 std::to_string(row.format) + ", " + std::to_string(row.bits) + " bits, method " +
                 std::to_string(row.method));
    const bool inProperties = row.method != Apply4Args;
    host.Set<bool>(effect, "RectangularToPolar", inProperties ? row.toPolar : !row.toPolar);
    host.Set<bool>(effect, "FlipMapping", inProperties ? row.flip : !row.flip);
    if (row.colour)
      host.Set<REALobject>(effect, "BackColor", inProperties ? row.colour : rgb == row.colour ? cmyk : rgb);
    REALobject colour = row.colour ? row.colour : Keep(host.Get<REALobject>(effect, "BackColor"));
    REALobject source = NewSource(23, 17, row.format, row.bits, static_cast<uint32_t>(row.format));

    PolarCoordinatesParams params{};
    params.settings = {100.0, row.flip, 1, row.toPolar, 0.0, 0, 0, 0.0, 0.0};
    const std::vector<int32_t> background =
        BackgroundValues(host, colour, row.format, row.bits, rawfx::host::FindFormat(row.format)->hasAlpha);
    for (int i = 0; i < kMaxChannels; ++i) {
      params.backColor8[i] = static_cast<uint8_t>(background[i]);
      params.backColor16[i] = static_cast<uint16_t>(background[i]);
    }
    const PartFunction reference =
        row.bits == 8 ? rawfx::reference::PolarCoordinatesPart : rawfx::reference::PolarCoordinatesPart16;
    const ExpectedCall call{row.method == Async ? EngineCall::PartsAsync : EngineCall::Parts, 2,
                            row.bits == 8 ? 13 : 14, nullptr, true};
    const rawfx::host::Host::AsyncCounts before = host.asyncCounts();
    ExpectMatchesReference(effect, source, &params, reference, call, [&] {
      if (row.method == Async) return ApplyAsync(effect, source, Keep(host.NewRGBColor(0, 0, 0)));
      if (row.method == Apply1) return host.Call<REALobject>(effect, kApply, source);
      return Apply4(effect, source, row.toPolar, row.flip, colour);
    });
    EXPECT_EQ(Seen().call.deleteCallback, nullptr);
    const rawfx::host::Host::AsyncCounts after = host.asyncCounts();
    EXPECT_EQ(after.blocksDeleted - before.blocksDeleted, after.started - before.started)
        << "the engine deletes every asynchronous block";
    EXPECT_EQ(host.Get<bool>(effect, "RectangularToPolar"), inProperties == row.toPolar);
    EXPECT_EQ(host.Get<bool>(effect, "FlipMapping"), inProperties == row.flip);
  }
  EXPECT_EQ(ColourState(rgb), rgbState);
  EXPECT_EQ(ColourState(cmyk), cmykState);
}

// Unrolling (polar to rectangular) takes a column table made for the bitmap and
// the run's options: right after the block, in the same allocation, for
// ApplyAsync; in one of its own, freed before Apply returns, for Apply.
// Wrapping takes none.
TEST_F(PolarEffect, EveryRunTakesItsTableAndGivesItBack) {
  constexpr int64_t kWidth = 29, kHeight = 21;
  REALobject effect = Keep(host.New(kClass));
  REALobject source = NewSource(kWidth, kHeight, kRGBA);
  PolarColumnTable columns{};
  bool tableAfterBlock = false;
  host.SetRunInspector(
      [&](const EngineCall&, const GenericMPParams& head, const std::vector<MPParamBlock>&, REALobject) {
        const auto& params = reinterpret_cast<const PolarCoordinatesParams&>(head);
        columns = params.columnTable ? *params.columnTable : PolarColumnTable{};
        tableAfterBlock = params.columnTable == static_cast<const void*>(&params + 1);
      });
  for (bool async : {false, true})
    for (bool toPolar : {false, true})
      for (bool flip : {false, true}) {
        SCOPED_TRACE(std::string(async ? "ApplyAsync" : "Apply") + (toPolar ? " wrapping" : " unrolling") +
                     (flip ? " flipped" : ""));
        host.Set<bool>(effect, "RectangularToPolar", toPolar);
        host.Set<bool>(effect, "FlipMapping", flip);
        const size_t tableBytes = toPolar ? 0 : PolarColumnTableBytes(kWidth, kHeight);
        Watch(async ? kBlockSize + tableBytes : tableBytes);
        REALobject result = async ? ApplyAsync(effect, source, effect) : host.Call<REALobject>(effect, kApply, source);
        EXPECT_NE(result, nullptr);
        host.Unlock(result);
        if (toPolar) {
          EXPECT_EQ(columns.width, 0);
          continue;
        }
        EXPECT_EQ(Watched(), std::pair(1, 0));
        EXPECT_EQ(tableAfterBlock, async);
        EXPECT_EQ(columns.width, kWidth);
        EXPECT_EQ(columns.height, kHeight);
        EXPECT_EQ(columns.roundness, 100.0);
        EXPECT_EQ(columns.flipMapping, flip ? 1 : 0);
        EXPECT_EQ(columns.angleOffset, 0.0);
      }
}

}  // namespace
