// Runs of every effect and method stopped or starved part way: a cancel at
// every row of a small image or before the run starts, a result bitmap the
// engine cannot make, a source record too large for any result and a mask one
// row short. Then asynchronous runs under load and on a barrel effect used
// again while its run waits, at the edges of its objects' lives. Every stopped
// or starved run gives nil (in place: leaves the rows after the stop as they
// were), stores no error, never writes the source and leaves nothing alive,
// and the effect's next run is whole; every asynchronous run completes exactly
// once and disposes of its block exactly once.

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <tuple>

#include "support/host_fixture.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using rawfx::host::EngineCall;
using rawfx::host::SplitPolicy;
using RowBytes = std::vector<std::vector<uint8_t>>;

// One effect, one of its methods and one depth.
struct Case {
  const char* className;
  Method method;
  int bits;
};
const Case kCases[] = {
    {kInterlace, Method::Apply, 8},    {kInterlace, Method::Apply, 16}, {kInterlace, Method::InPlace, 8},
    {kInterlace, Method::InPlace, 16}, {kPolar, Method::Apply, 8},      {kPolar, Method::Apply, 16},
    {kPolar, Method::Async, 8},        {kPolar, Method::Async, 16},     {kBarrel, Method::Apply, 8},
    {kBarrel, Method::Apply, 16},      {kBarrel, Method::Async, 8},     {kBarrel, Method::Async, 16},
    {kOilPaint, Method::Apply, 8},
};

int64_t BlocksDisposed(rawfx::host::Host& host) {
  return host.asyncCounts().blocksDeleted + host.asyncCounts().deleteCallbacks;
}

std::string CaseName(const Case& c) {
  const char* const methods[] = {"_Apply_", "_ApplyInPlace_", "_ApplyAsync_"};
  return std::string(c.className).substr(0, std::string(c.className).find("Effect")) + methods[int(c.method)] +
         std::to_string(c.bits) + "bit";
}
void PrintTo(const Case& c, std::ostream* out) { *out << CaseName(c); }

class FaultRun : public AsyncHostTest, public ::testing::WithParamInterface<Case> {
 protected:
  static constexpr int32_t kWidth = 7, kHeight = 9;

  // What the inspector saw when the run ended: progress, cancel and the destination's rows.
  struct Seen {
    int runs = 0, progress = -1;
    bool cancel = false;
    RowBytes rows;
  } seen;

  void SetUp() override {
    host.SetRunInspector([this](const EngineCall&, const GenericMPParams& params, const std::vector<MPParamBlock>&,
                                REALobject destination) {
      seen = {seen.runs + 1, params.progress, params.cancel != 0, Rows(host, destination)};
    });
  }
  REALobject NewSource(int bits) { return NewPattern(host, kWidth, kHeight, kRGBA, bits, 77, 6); }

  // The destination rows of an uncancelled run of the case, split as the policy says (which stays set).
  RowBytes FullRun(SplitPolicy policy) {
    host.SetSplitPolicy(policy);
    REALobject effect = NewEffect(host, GetParam().className), source = NewSource(GetParam().bits);
    host.Unlock(RunEffect(host, effect, GetParam().method, source, log));
    for (REALobject object : {source, effect}) host.Unlock(object);
    return seen.rows;
  }
};

// What each row holds when it is processed after the rows before it in the
// same part (following), and as the first row of a part (starting). Interlace
// starts its row phase afresh in every part, so a part that starts at an odd row
// fills differently; with OddStarts every odd row starts a part, and balanced
// parts start at even rows. The other effects give the same rows for any split.
//
// A fault from -1 to 8 is a cancel at that row: the run stops after it. Row -1
// stands for a cancel requested before the run, with the parts [0,1) [1,3)
// [3,6) [6,7) [7,9): each part does its first row only. Row 9 stands for a
// cancel requested before a call the effect refuses: the call takes it away,
// so the run after it is whole. Then a result the engine cannot make, a record
// too large for any result and a mask one row short: the engine is asked but
// runs no part (an in-place run makes no result, so a refusal waiting for one
// passes it by). Rows before the cut are the full run's, the row at the cut
// starts a part, and the rest keep what the destination held. No fault is an
// error of the effect, writes the source, keeps an asynchronous run's block or
// leaves anything made alive, and the next run of the same effect is whole.
TEST_P(FaultRun, ACancelOrAMissingResourceStopsTheRunAndChangesNothingElse) {
  const Case& c = GetParam();
  const RowBytes oddStarts = FullRun(SplitPolicy::OddStarts), following = FullRun(SplitPolicy::Balanced);
  RowBytes starting = following;
  for (size_t y = 1; y < oddStarts.size(); y += 2) starting[y] = oddStarts[y];
  enum : int32_t { kNoResult = kHeight + 1, kHugeRecord, kShortMask };
  const char* const resourceFaults[] = {"no result", "a huge record", "a short mask"};
  for (int32_t fault = -1; fault <= kShortMask; ++fault) {
    if (fault == kHugeRecord && c.method == Method::InPlace) continue;  // the record is the destination's
    if (fault == kShortMask && c.className != kInterlace && c.className != kOilPaint) continue;
    SCOPED_TRACE(fault <= kHeight ? "cancel at row " + std::to_string(fault) : resourceFaults[fault - kNoResult]);
    REALobject effect = NewEffect(host, c.className), source = NewSource(c.bits);
    const RowBytes original = Rows(host, source);
    RawBitmap* record = host.Bitmap(source).record;
    if (fault < 0) {
      host.SetSplitPolicy(SplitPolicy::SmallParts);
      host.RequestCancel(effect);
    } else if (fault < kHeight) {
      host.CancelAtRow(effect, fault);
    } else if (fault == kHeight) {  // a call the effect refuses (nil source, code 4) takes the cancel away
      host.RequestCancel(effect);
      EXPECT_EQ(RunEffect(host, effect, c.method, nullptr, log), nullptr);
      EXPECT_EQ(std::exchange(LastErrorField(host, effect), 0), 4);
    } else if (fault == kNoResult) {
      host.FailResultCreation(2);  // and again for a run that retries without its table
    } else if (fault == kHugeRecord) {
      record->height = (int64_t{1} << 31) / host.Bitmap(source).rowBytes;  // no result fits
    } else {
      REALobject shortBitmap = host.NewBitmap(kWidth, kHeight - 1, kGray), mask = host.NewMask(shortBitmap);
      host.Set<REALobject>(effect, "Mask", mask);
      for (REALobject object : {mask, shortBitmap}) host.Unlock(object);  // held by the effect and the mask
    }
    const size_t alive = host.LiveObjectCount();
    const int64_t disposed = BlocksDisposed(host);
    seen = {};
    REALobject result = RunEffect(host, effect, c.method, source, log);
    host.SetSplitPolicy(SplitPolicy::Balanced);
    host.FailResultCreation(0);
    record->height = kHeight;

    const bool runs = fault <= kHeight || (fault == kNoResult && c.method == Method::InPlace);
    const auto done = [&](int32_t y) {
      return fault < 0 ? y == 0 || y == 1 || y == 3 || y == 6 || y == 7 : runs && (fault > kHeight || y <= fault);
    };
    ASSERT_EQ(std::make_tuple(seen.runs, host.lastEngineCall().parts == 0), std::make_tuple(int(runs), !runs));
    const RowBytes untouched =
        c.method == Method::InPlace ? original : RowBytes(kHeight, std::vector<uint8_t>(original[0].size()));
    int32_t rowsDone = 0;
    for (int32_t y = 0; runs && y < kHeight; ++y) {
      rowsDone += done(y);
      EXPECT_EQ(seen.rows[y], !done(y) ? untouched[y] : y < fault ? following[y] : starting[y]) << "row " << y;
    }
    EXPECT_EQ(std::make_tuple(seen.progress, seen.cancel), std::make_tuple(runs ? rowsDone : -1, fault < kHeight));
    EXPECT_EQ(Rows(host, source), c.method == Method::InPlace && runs ? seen.rows : original)
        << "the source is never written";
    EXPECT_EQ(result == nullptr, c.method == Method::InPlace || rowsDone < kHeight);
    EXPECT_EQ(result ? Rows(host, result) : following, following) << "a whole run's result is the full run's";
    EXPECT_EQ(host.LastError(effect), 0) << "the fault is not an error of the effect";
    EXPECT_EQ(BlocksDisposed(host), disposed + (c.method == Method::Async));
    host.Unlock(result);
    EXPECT_EQ(host.LiveObjectCount(), alive) << "nothing made is left";

    if (fault == kShortMask) host.Set(effect, "Mask", nullptr);
    seen = {};
    result = RunEffect(host, effect, c.method, source, log);
    EXPECT_EQ(std::make_tuple(seen.runs, seen.progress, result != nullptr),
              std::make_tuple(1, kHeight, c.method != Method::InPlace))
        << "the next run is whole";
    for (REALobject object : {result, effect, source}) host.Unlock(object);  // the fixture sees anything left
  }
}

INSTANTIATE_TEST_SUITE_P(EveryEffect, FaultRun, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return CaseName(test.param); });

using FaultAsync = AsyncHostTest;

// Polar runs share two effects and overlap freely (each has its own block on
// the heap, deleted by the engine); a barrel effect's block lives in the
// effect and goes back through its delete callback, so every barrel run gets
// an effect of its own, released as soon as the run is started. A quarter of
// the runs get a cancel request after they start (this run, one still going
// or the next), an eighth of the barrel runs one before. Targets stay alive to
// the end so that no two runs share a target's address.
TEST_F(FaultAsync, ThousandBackToBackRunsWithRandomCancels) {
  host.SetThreads(3);
  std::mt19937 random(20240611);
  const REALobject effects[3] = {NewEffect(host, kPolar), NewEffect(host, kPolar), NewEffect(host, kBarrel)};
  host.Set<bool>(effects[1], "RectangularToPolar", false);
  std::vector<REALobject> held(effects, effects + 3);  // released at the end
  std::vector<std::array<REALobject, 4>> sources;  // a bitmap, then what the three effects make of it
  for (const auto& [w, h, format, bits] : {std::tuple{16, 12, kRGBA, 8}, std::tuple{9, 21, kCMYK, 16},
                                           std::tuple{1, 1, kRGBA, 8}, std::tuple{33, 5, kRGBA, 16}}) {
    auto& s = sources.emplace_back(std::array<REALobject, 4>{NewPattern(host, w, h, format, bits, w * h, 2)});
    for (int i = 0; i < 3; ++i) s[i + 1] = host.Call<REALobject>(effects[i], kApply, s[0]);
    held.insert(held.end(), s.begin(), s.end());
  }
  constexpr int kRuns = 1000;
  std::vector<std::pair<REALobject, REALobject>> runs;  // target, expected result
  for (int i = 0; i < kRuns; ++i) {
    const auto& source = sources[random() % sources.size()];
    REALobject target = held.emplace_back(host.NewRGBColor(1, 2, 3));
    const int which = random() % 2 == 0 ? static_cast<int>(random() % 2) : 2;
    REALobject effect = which < 2 ? effects[which] : NewEffect(host, kBarrel);
    if (which == 2 && random() % 8 == 0) host.RequestCancel(effect);
    host.Call<void>(effect, kApplyAsync, source[0], target, log.method());
    if (random() % 4 == 0) host.RequestCancel(effect);
    if (which == 2) host.Unlock(effect);  // the run keeps the effect alive
    runs.emplace_back(target, source[which + 1]);
  }
  host.WaitForAsync();
  for (const auto& [target, expected] : runs) {
    EXPECT_EQ(log.Calls(target), 1) << "every run completes exactly once";
    if (REALobject result = log.Take(target)) {  // none if the cancel came in time
      EXPECT_TRUE(SamePixels(host, result, expected));
      host.Unlock(result);
    }
  }
  EXPECT_EQ(std::make_tuple(host.asyncCounts().started, host.asyncCounts().completionCalls, BlocksDisposed(host)),
            std::make_tuple(kRuns, kRuns, kRuns));
  for (REALobject object : held) host.Unlock(object);
}

// A barrel effect's block lives in the effect. While its run is held before
// it ends, a second ApplyAsync (of another size) and an Apply on the same
// effect are refused with lastError 4 before they touch the block, and a
// keystone set meanwhile is not stored (the run is reading the matrix). The
// run holds the source and target the program dropped right after starting
// it, and completes once with the result of its own settings. A run whose
// completion drops the last reference of its effect (its own target) hands
// its block back first, and then the effect goes.
TEST_F(FaultAsync, ABarrelRunUnderWayKeepsItsBlockItsSettingsAndItsObjects) {
  REALobject big = NewPattern(host, 600, 600, kRGBA, 8, 5), small = NewPattern(host, 16, 16, kRGBA, 16, 6);
  REALobject effect = NewEffect(host, kBarrel), twin = NewEffect(host, kBarrel);
  REALobject expected = host.Call<REALobject>(twin, kApply, big);
  REALobject expectedNext = host.Call<REALobject>(twin, kApply, small);
  std::atomic<bool> released{false};
  host.SetRunInspector([&](const auto&...) {
    while (!released) std::this_thread::yield();
  });
  REALobject target = host.NewRGBColor(1, 2, 3), refusedTarget = host.NewRGBColor(4, 5, 6);
  host.Call<void>(effect, kApplyAsync, big, target, log.method());
  for (REALobject object : {big, target}) host.Unlock(object);  // the run holds them
  host.Call<void>(effect, kApplyAsync, small, refusedTarget, log.method());
  EXPECT_EQ(std::exchange(LastErrorField(host, effect), 0), 4);
  EXPECT_EQ(host.Call<REALobject>(effect, kApply, small), nullptr);
  EXPECT_EQ(host.LastError(effect), 4);
  const double keystone = host.Get<double>(effect, "HorizontalKeystone");
  host.Set<double>(effect, "HorizontalKeystone", -0.2);
  EXPECT_EQ(host.Get<double>(effect, "HorizontalKeystone"), keystone);
  released = true;
  host.WaitForAsync();
  EXPECT_EQ(log.Calls(refusedTarget), 0);
  REALobject result = log.Take(target), next = host.Call<REALobject>(effect, kApply, small);
  EXPECT_TRUE(SamePixels(host, result, expected)) << "the run kept the settings it started with";
  EXPECT_TRUE(SamePixels(host, next, expectedNext)) << "the block is free again; the keystone set in the run was not";

  const int64_t disposed = BlocksDisposed(host);
  log.releaseTarget = true;  // the fixture's leak check sees the effect go
  host.Call<void>(effect, kApplyAsync, small, effect, log.method());
  host.WaitForAsync();
  EXPECT_EQ(std::make_tuple(log.Calls(effect), BlocksDisposed(host)), std::make_tuple(1, disposed + 1));
  REALobject last = log.Take(effect);
  EXPECT_TRUE(SamePixels(host, last, expectedNext));
  for (REALobject o : {last, next, result, refusedTarget, expectedNext, expected, twin, small}) host.Unlock(o);
}

}  // namespace
