// Asynchronous runs under load and at the edges of their objects' lives: a
// thousand back-to-back runs with random cancel requests, objects released
// while their runs are under way or from the completion itself, and results
// that cannot be created. Every run completes exactly once, every parameter
// block is disposed of exactly once, and nothing is left alive.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;

constexpr const char* kPolar = "PolarCoordinatesEffectRaw";
constexpr const char* kBarrel = "BarrelDistortEffectRaw";
constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr int64_t kRGBA = 5, kCMYK = 13;

// Every completion by its target; completion methods run on engine workers.
struct CompletionLog {
  Host* host = nullptr;
  std::mutex mutex;
  std::map<REALobject, int> calls;
  std::map<REALobject, REALobject> results;  // locked for the test
  bool releaseTarget = false;                // the completion drops the program's reference on its target
};
CompletionLog* gLog = nullptr;

void LogCompletion(REALobject target, REALobject result) {
  std::lock_guard lock(gLog->mutex);
  ++gLog->calls[target];
  if (result) {
    gLog->host->Lock(result);
    gLog->results[target] = result;
  }
  if (gLog->releaseTarget) gLog->host->Unlock(target);
}

class FaultAsync : public rawfx::test::HostTest {
 protected:
  CompletionLog log;

  void SetUp() override {
    log.host = &host;
    gLog = &log;
  }
  void TearDown() override {
    host.WaitForAsync();
    for (auto& [target, result] : log.results) host.Unlock(result);
    HostTest::TearDown();
  }

  REALobject NewSource(int64_t width, int64_t height, int64_t format, int bits, uint32_t seed) {
    REALobject source = host.NewBitmap(width, height, format, bits, 2);
    rawfx::test::FillPattern(host, source, seed);
    return source;
  }
  REALobject NewBarrel() {
    REALobject effect = host.New(kBarrel);
    host.Set<double>(effect, "Distortion", 0.3);
    host.Set<double>(effect, "HorizontalKeystone", 0.1);
    return effect;
  }
  void StartAsync(REALobject effect, REALobject source, REALobject target) {
    host.Call<void>(effect, kApplyAsync, source, target, reinterpret_cast<void*>(&LogCompletion));
  }
};

// Polar runs share two effects and overlap freely (each has its own block on
// the heap); a barrel effect's block lives in the effect, so every barrel run
// gets an effect of its own, released as soon as the run is started. Targets
// stay alive to the end so that no two runs share a target's address.
TEST_F(FaultAsync, ThousandBackToBackRunsWithRandomCancels) {
  host.SetThreads(3);
  std::mt19937 random(20240611);
  struct Source {
    REALobject bitmap;
    REALobject polarExpected[2];
    REALobject barrelExpected;
  };
  const REALobject polars[2] = {host.New(kPolar), host.New(kPolar)};
  host.Set<bool>(polars[1], "RectangularToPolar", false);
  std::vector<Source> sources;
  for (const auto& [w, h, format, bits] : {std::tuple{16, 12, kRGBA, 8}, std::tuple{9, 21, kCMYK, 16},
                                          std::tuple{1, 1, kRGBA, 8}, std::tuple{33, 5, kRGBA, 16}}) {
    Source s{NewSource(w, h, format, bits, static_cast<uint32_t>(w * h)), {}, {}};
    for (int i = 0; i < 2; ++i) s.polarExpected[i] = host.Call<REALobject>(polars[i], kApply, s.bitmap);
    REALobject barrel = NewBarrel();
    s.barrelExpected = host.Call<REALobject>(barrel, kApply, s.bitmap);
    host.Unlock(barrel);
    sources.push_back(s);
  }

  constexpr int kRuns = 1000;
  struct Started {
    REALobject target;
    REALobject expected;
  };
  std::vector<Started> started;
  int polarRuns = 0, barrelRuns = 0;
  for (int i = 0; i < kRuns; ++i) {
    const Source& source = sources[random() % sources.size()];
    REALobject target = host.NewRGBColor(1, 2, 3);
    if (random() % 2 == 0) {
      const int which = static_cast<int>(random() % 2);
      StartAsync(polars[which], source.bitmap, target);
      if (random() % 4 == 0) host.RequestCancel(polars[which]);  // this run, one still going, or the next
      started.push_back({target, source.polarExpected[which]});
      ++polarRuns;
    } else {
      REALobject barrel = NewBarrel();
      if (random() % 8 == 0) host.RequestCancel(barrel);  // before its run: it stops after first rows
      StartAsync(barrel, source.bitmap, target);
      if (random() % 4 == 0) host.RequestCancel(barrel);
      host.Unlock(barrel);  // the run keeps the effect alive
      started.push_back({target, source.barrelExpected});
      ++barrelRuns;
    }
  }
  host.WaitForAsync();

  int completedWithResult = 0;
  for (const Started& run : started) {
    EXPECT_EQ(log.calls[run.target], 1) << "every run completes exactly once";
    if (auto found = log.results.find(run.target); found != log.results.end()) {
      ++completedWithResult;
      EXPECT_TRUE(rawfx::test::SamePixels(host, found->second, run.expected));
    }
  }
  EXPECT_EQ(log.calls.size(), static_cast<size_t>(kRuns)) << "no completion for a target that had no run";
  EXPECT_GT(completedWithResult, 0);
  const Host::AsyncCounts counts = host.asyncCounts();
  EXPECT_EQ(counts.started, kRuns);
  EXPECT_EQ(counts.completionCalls, kRuns);
  EXPECT_EQ(counts.blocksDeleted, polarRuns) << "every polar block is deleted once";
  EXPECT_EQ(counts.deleteCallbacks, barrelRuns) << "every barrel block is handed back once";

  for (const Started& run : started) host.Unlock(run.target);
  for (const Source& s : sources)
    for (REALobject object : {s.bitmap, s.polarExpected[0], s.polarExpected[1], s.barrelExpected})
      host.Unlock(object);
  for (REALobject polar : polars) host.Unlock(polar);
}

// The program drops every reference right after starting the run; the run
// still completes with the right result and the objects go once it has ended.
TEST_F(FaultAsync, ObjectsReleasedWhileTheirRunIsUnderWay) {
  for (const char* className : {kPolar, kBarrel}) {
    SCOPED_TRACE(className);
    REALobject source = NewSource(40, 30, kRGBA, 8, 9);
    REALobject effect = className == std::string(kPolar) ? host.New(kPolar) : NewBarrel();
    REALobject expected = host.Call<REALobject>(effect, kApply, source);
    REALobject target = host.NewCMYKColor(1, 2, 3, 4);
    StartAsync(effect, source, target);
    for (REALobject object : {effect, source, target}) host.Unlock(object);
    host.WaitForAsync();
    EXPECT_EQ(log.calls[target], 1);
    ASSERT_EQ(log.results.count(target), 1u);
    EXPECT_TRUE(rawfx::test::SamePixels(host, log.results[target], expected));
    EXPECT_EQ(host.LiveObjectClasses(), (std::vector<std::string>{"RawBitmap", "RawBitmap"}))
        << "only the two results are left";
    host.Unlock(expected);
    host.Unlock(std::exchange(log.results[target], nullptr));
    EXPECT_EQ(host.LiveObjectCount(), 0u);
    log.calls.clear();  // a later object may be given the same address
    log.results.clear();
  }
}

// The completion target is the effect itself, and the completion drops the
// program's last reference on it: the effect goes after its block was handed back.
TEST_F(FaultAsync, EffectReleasedByItsOwnCompletion) {
  log.releaseTarget = true;
  for (const char* className : {kPolar, kBarrel}) {
    SCOPED_TRACE(className);
    REALobject source = NewSource(8, 8, kRGBA, 16, 4);
    REALobject effect = className == std::string(kPolar) ? host.New(kPolar) : NewBarrel();
    const Host::AsyncCounts before = host.asyncCounts();
    StartAsync(effect, source, effect);
    host.WaitForAsync();
    EXPECT_EQ(log.calls[effect], 1);
    const Host::AsyncCounts after = host.asyncCounts();
    EXPECT_EQ(after.blocksDeleted + after.deleteCallbacks, before.blocksDeleted + before.deleteCallbacks + 1);
    host.Unlock(std::exchange(log.results[effect], nullptr));
    host.Unlock(source);
    EXPECT_EQ(host.LiveObjectCount(), 0u) << "the effect is gone";
    log.calls.clear();
    log.results.clear();
  }
}

// A result the engine cannot create: the run completes once with nil, its block
// is disposed of, the effect stores no error, and the next run works again.
TEST_F(FaultAsync, ResultThatCannotBeCreatedCompletesWithNil) {
  for (const char* className : {kPolar, kBarrel}) {
    SCOPED_TRACE(className);
    REALobject source = NewSource(12, 7, kRGBA, 8, 2);
    REALobject effect = className == std::string(kPolar) ? host.New(kPolar) : NewBarrel();
    REALobject failed = host.NewRGBColor(0, 0, 0);
    REALobject succeeded = host.NewRGBColor(0, 0, 0);
    const Host::AsyncCounts before = host.asyncCounts();
    host.FailResultCreation(1);
    StartAsync(effect, source, failed);
    host.WaitForAsync();
    StartAsync(effect, source, succeeded);
    host.WaitForAsync();
    EXPECT_EQ(log.calls[failed], 1);
    EXPECT_EQ(log.results.count(failed), 0u) << "completed with nil";
    EXPECT_EQ(log.calls[succeeded], 1);
    EXPECT_EQ(log.results.count(succeeded), 1u);
    const Host::AsyncCounts after = host.asyncCounts();
    EXPECT_EQ(after.blocksDeleted + after.deleteCallbacks, before.blocksDeleted + before.deleteCallbacks + 2);
    EXPECT_EQ(host.LastError(effect), 0);
    host.Unlock(std::exchange(log.results[succeeded], nullptr));
    for (REALobject object : {effect, source, failed, succeeded}) host.Unlock(object);
    EXPECT_EQ(host.LiveObjectCount(), 0u);
    log.calls.clear();
    log.results.clear();
  }
}

// Runs the effect refuses never reach the engine: no completion, no block to dispose of.
TEST_F(FaultAsync, RefusedRunsNeverComplete) {
  REALobject polar = host.New(kPolar);
  REALobject barrel = NewBarrel();
  REALobject wrongDepth = host.NewBitmap(4, 4, kRGBA, 8);
  host.Bitmap(wrongDepth).record->bitsPerChannel = 12;
  for (REALobject effect : {polar, barrel})
    for (REALobject source : {REALobject{nullptr}, wrongDepth}) StartAsync(effect, source, effect);
  host.WaitForAsync();
  EXPECT_TRUE(log.calls.empty());
  EXPECT_EQ(host.asyncCounts().started, 0);
  EXPECT_EQ(host.LastError(polar), 6);
  EXPECT_EQ(host.LastError(barrel), 6);
  for (REALobject object : {polar, barrel, wrongDepth}) host.Unlock(object);
}

}  // namespace
