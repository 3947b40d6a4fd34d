// Asynchronous runs under load and at the edges of their objects' lives: a
// thousand back-to-back runs with random cancel requests, and objects released
// while their runs are under way or from the completion itself, and a barrel
// effect used again while its run is under way. Every run completes exactly
// once, every parameter block is disposed of exactly once, and nothing is
// left alive. (A result that cannot be made is among the resource faults;
// runs the effect refuses are its class test's.)
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/fault_checks.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;

class FaultAsync : public AsyncHostTest {
 protected:
  void Start(REALobject effect, REALobject source, REALobject target) {
    host.Call<void>(effect, kApplyAsync, source, target, log.method());
  }
  int64_t BlocksDisposed() { return host.asyncCounts().blocksDeleted + host.asyncCounts().deleteCallbacks; }
};

// A block whose part holds the engine's worker until released, so that the
// runs started meanwhile stay queued behind it.
struct WorkerHold {
  GenericMPParams head{};
  std::atomic<bool> released{false};
};

void* HoldWorker(void* block) {
  auto& hold = *static_cast<WorkerHold*>(static_cast<MPParamBlock*>(block)->params);
  while (!hold.released) std::this_thread::yield();
  return nullptr;
}

int KeepBlock(REALobject, GenericMPParams*) { return 0; }

// Polar runs share two effects and overlap freely (each has its own block on
// the heap); a barrel effect's block lives in the effect, so every barrel run
// gets an effect of its own, released as soon as the run is started. Targets
// stay alive to the end so that no two runs share a target's address.
TEST_F(FaultAsync, ThousandBackToBackRunsWithRandomCancels) {
  host.SetThreads(3);
  std::mt19937 random(20240611);
  const REALobject polars[2] = {NewEffect(host, kPolar), NewEffect(host, kPolar)};
  host.Set<bool>(polars[1], "RectangularToPolar", false);
  std::vector<REALobject> held(polars, polars + 2);  // released at the end
  struct Source {
    REALobject bitmap, expected[3];  // by the two polar effects and by a barrel effect
  };
  std::vector<Source> sources;
  for (const auto& [w, h, format, bits] : {std::tuple{16, 12, kRGBA, 8}, std::tuple{9, 21, kCMYK, 16},
                                           std::tuple{1, 1, kRGBA, 8}, std::tuple{33, 5, kRGBA, 16}}) {
    Source& s = sources.emplace_back(Source{held.emplace_back(NewPattern(host, w, h, format, bits, w * h, 2)), {}});
    REALobject barrel = NewEffect(host, kBarrel);
    for (int i = 0; i < 3; ++i)
      s.expected[i] = held.emplace_back(host.Call<REALobject>(i < 2 ? polars[i] : barrel, kApply, s.bitmap));
    host.Unlock(barrel);
  }

  constexpr int kRuns = 1000;
  std::vector<std::pair<REALobject, REALobject>> runs;  // target, expected result
  int polarRuns = 0;
  for (int i = 0; i < kRuns; ++i) {
    const Source& source = sources[random() % sources.size()];
    REALobject target = held.emplace_back(host.NewRGBColor(1, 2, 3));
    const int which = random() % 2 == 0 ? static_cast<int>(random() % 2) : 2;
    REALobject effect = which < 2 ? polars[which] : NewEffect(host, kBarrel);
    if (which == 2 && random() % 8 == 0) host.RequestCancel(effect);  // before its run: it stops after first rows
    Start(effect, source.bitmap, target);
    if (random() % 4 == 0) host.RequestCancel(effect);  // this run, one still going, or the next
    if (which == 2) host.Unlock(effect);                // the run keeps the effect alive
    polarRuns += which < 2;
    runs.emplace_back(target, source.expected[which]);
  }
  host.WaitForAsync();

  int completedWithResult = 0;
  for (const auto& [target, expected] : runs) {
    EXPECT_EQ(log.Calls(target), 1) << "every run completes exactly once";
    if (REALobject result = log.Take(target)) {
      ++completedWithResult;
      EXPECT_TRUE(SamePixels(host, result, expected));
      host.Unlock(result);
    }
  }
  EXPECT_EQ(log.TotalCalls(), kRuns) << "no completion for a target that had no run";
  EXPECT_GT(completedWithResult, 0);
  const rawfx::host::Host::AsyncCounts counts = host.asyncCounts();
  EXPECT_EQ(std::tie(counts.started, counts.completionCalls), std::make_tuple(kRuns, kRuns));
  EXPECT_EQ(counts.blocksDeleted, polarRuns) << "every polar block is deleted once";
  EXPECT_EQ(counts.deleteCallbacks, kRuns - polarRuns) << "every barrel block is handed back once";
  for (REALobject object : held) host.Unlock(object);
}

// The program drops every reference right after starting the run: the run
// still completes with the right result and the objects go once it has ended.
// An effect that is its own target and is released by its completion goes
// after its block was handed back.
TEST_F(FaultAsync, ObjectsReleasedWhileTheirRunIsUnderWayOrByItsCompletion) {
  for (const char* className : {kPolar, kBarrel}) {
    SCOPED_TRACE(className);
    REALobject source = NewPattern(host, 40, 30, kRGBA, 8, 9);
    REALobject effect = NewEffect(host, className);
    REALobject expected = host.Call<REALobject>(effect, kApply, source);
    REALobject target = host.NewCMYKColor(1, 2, 3, 4);
    Start(effect, source, target);
    for (REALobject object : {effect, source, target}) host.Unlock(object);
    host.WaitForAsync();
    EXPECT_EQ(log.Calls(target), 1);
    EXPECT_EQ(host.LiveObjectClasses(), (std::vector<std::string>{"RawBitmap", "RawBitmap"}))
        << "only the two results are left";
    REALobject result = log.Take(target);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(SamePixels(host, result, expected));
    for (REALobject object : {expected, result}) host.Unlock(object);
    log.Clear();

    log.releaseTarget = true;
    source = NewPattern(host, 8, 8, kRGBA, 16, 4);
    effect = NewEffect(host, className);
    const int64_t disposed = BlocksDisposed();
    Start(effect, source, effect);
    host.WaitForAsync();
    EXPECT_EQ(log.Calls(effect), 1);
    EXPECT_EQ(BlocksDisposed(), disposed + 1);
    log.Clear();
    host.Unlock(source);
    EXPECT_EQ(host.LiveObjectCount(), 0u) << "the effect is gone";
    log.releaseTarget = false;
  }
}

// A barrel effect's block lives in the effect. While its run waits behind a
// held worker, a second ApplyAsync (of another size) and an Apply on the same
// effect are refused with lastError 4 before they touch the block, and a
// keystone set meanwhile is not stored (the run is reading the matrix). The
// run under way completes once, with the result of its own settings.
TEST_F(FaultAsync, ABarrelRunUnderWayKeepsItsBlockAndItsSettings) {
  host.SetThreads(1);
  host.DefineClass({"WorkerHolder", "MPImageFilterRaw", {}});
  REALobject holder = host.New("WorkerHolder");
  REALobject big = NewPattern(host, 600, 600, kRGBA, 8, 5), small = NewPattern(host, 16, 16, kRGBA, 8, 6);
  REALobject effect = NewEffect(host, kBarrel), twin = NewEffect(host, kBarrel);
  REALobject expected = host.Call<REALobject>(twin, kApply, big);
  REALobject expectedNext = host.Call<REALobject>(twin, kApply, small);

  WorkerHold hold;
  auto* engine = static_cast<MPImageFilterData*>(host.ClassData(holder, "MPImageFilterRaw"));
  engine->ops->ProcessPartsAsync(holder, engine, small, &hold, &HoldWorker, &HoldWorker, host.Bitmap(small).record,
                                 nullptr, 2, 13, 1, nullptr, nullptr, &KeepBlock);
  REALobject target = host.NewRGBColor(1, 2, 3), refusedTarget = host.NewRGBColor(4, 5, 6);
  Start(effect, big, target);
  const std::function<REALobject()> misuses[] = {
      [&] { return Start(effect, small, refusedTarget), nullptr; },
      [&] { return host.Call<REALobject>(effect, kApply, small); },
  };
  auto& lastError = static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"))->lastError;
  for (const auto& misuse : misuses) {
    lastError = 0;
    EXPECT_EQ(misuse(), nullptr);
    EXPECT_EQ(lastError, 4);
  }
  const double keystone = host.Get<double>(effect, "HorizontalKeystone");
  host.Set<double>(effect, "HorizontalKeystone", -0.2);
  EXPECT_EQ(host.Get<double>(effect, "HorizontalKeystone"), keystone);
  hold.released = true;
  host.WaitForAsync();

  EXPECT_EQ(log.Calls(refusedTarget), 0);
  REALobject result = log.Take(target);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(SamePixels(host, result, expected)) << "the run kept the settings it started with";
  REALobject next = host.Call<REALobject>(effect, kApply, small);
  ASSERT_NE(next, nullptr) << "the block is free again";
  EXPECT_TRUE(SamePixels(host, next, expectedNext)) << "the keystone set during the run was not stored";
  for (REALobject object : {next, result, target, refusedTarget, expectedNext, expected, twin, effect, small, big, holder})
    host.Unlock(object);
}

}  // namespace
