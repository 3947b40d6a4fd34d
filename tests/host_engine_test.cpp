// The engine of MPImageFilterRaw, driven through its operation table with
// test part functions that copy rows and record what they were given: the
// split of rows into parts, the head, progress and cancel, the persistent
// worker pool, and asynchronous runs with their completion and disposal.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <memory>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "host/host.h"
#include "support/host_fixture.h"

// ---- a watch on the global operator delete, for the asynchronous disposal rule ----------------

namespace {
std::atomic<void*> gWatchedBlock{nullptr};
std::atomic<int> gWatchedBlockDeletes{0};
}  // namespace

void* operator new(std::size_t bytes) {
  if (void* memory = std::malloc(bytes ? bytes : 1)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  if (memory && memory == gWatchedBlock.load()) ++gWatchedBlockDeletes;
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace {

using rawfx::host::EngineCall;
using rawfx::host::Host;
using rawfx::host::HostError;
using rawfx::host::SplitPolicy;
using rawfx::test::SamePixels;
using namespace std::chrono_literals;

// What the test part functions saw.
struct Recorder {
  explicit Recorder(int64_t height) : visits(static_cast<size_t>(height)) {}
  std::mutex mutex;
  std::vector<std::pair<int32_t, int32_t>> parts;
  std::set<std::thread::id> threads;
  std::vector<std::atomic<int>> visits;
  std::atomic<int> maskedCalls{0};
  std::atomic<bool> released{true};  // parts wait while false
  int holdAtProgress = 0;            // > 0: parts wait for a cancel once progress reaches it
};

struct CopyParams {
  GenericMPParams head;
  Recorder* recorder;
};

bool CancelSet(GenericMPParams& head) { return std::atomic_ref<uint8_t>(head.cancel).load() != 0; }

// Waits until the test lets the part go on (or gives up after 5 s).
template <class Condition>
void AwaitOrGiveUp(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(100us);
}

// Copies its rows, counting each, and stops when FinishRow says so.
void* CopyRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto* params = static_cast<CopyParams*>(part->params);
  GenericMPParams& head = params->head;
  Recorder& recorder = *params->recorder;
  {
    std::lock_guard lock(recorder.mutex);
    recorder.parts.emplace_back(part->firstRow, part->endRow);
    recorder.threads.insert(std::this_thread::get_id());
  }
  AwaitOrGiveUp([&] { return recorder.released.load(); });
  for (int32_t row = part->firstRow; row < part->endRow; ++row) {
    std::memcpy(head.dstPixels + int64_t{row} * head.dstRowBytes, head.srcPixels + int64_t{row} * head.srcRowBytes,
                static_cast<size_t>(head.width) * static_cast<size_t>(head.srcPixelBytes));
    ++recorder.visits[static_cast<size_t>(row)];
    if (!rawfx::FinishRow(head)) break;
    if (recorder.holdAtProgress > 0 && std::atomic_ref<int32_t>(head.progress).load() >= recorder.holdAtProgress) {
      AwaitOrGiveUp([&] { return CancelSet(head); });
      if (CancelSet(head)) break;
    }
  }
  part->done = 1;
  return nullptr;
}

void* MaskedCopyRows(void* block) {
  auto* params = static_cast<CopyParams*>(static_cast<MPParamBlock*>(block)->params);
  ++params->recorder->maskedCalls;
  return CopyRows(block);
}

// Inverts every byte in place.
void* InvertRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  GenericMPParams& head = *static_cast<GenericMPParams*>(part->params);
  for (int32_t row = part->firstRow; row < part->endRow; ++row) {
    uint8_t* dst = head.dstPixels + int64_t{row} * head.dstRowBytes;
    const uint8_t* src = head.srcPixels + int64_t{row} * head.srcRowBytes;
    for (int32_t i = 0; i < head.width * head.srcPixelBytes; ++i) dst[i] = static_cast<uint8_t>(~src[i]);
    if (!rawfx::FinishRow(head)) break;
  }
  return nullptr;
}

// ---- the program's progress handler and the asynchronous callbacks ----------------------

struct ProgressLog {
  std::vector<std::pair<uint64_t, uint64_t>> reports;
  REALobject self = nullptr;
  uint64_t cancelAt = 0;  // 0: never asks
};
ProgressLog gHandlerLog;

void OnProgress(REALobject self, uint64_t value, uint64_t total, uint64_t, bool* cancel) {
  gHandlerLog.self = self;
  gHandlerLog.reports.emplace_back(value, total);
  if (gHandlerLog.cancelAt && value >= gHandlerLog.cancelAt) *cancel = true;
}

struct AsyncLog {
  std::atomic<int> completions{0};
  std::atomic<REALobject> target{nullptr};
  std::mutex mutex;
  std::vector<REALobject> results;  // each kept with a lock of the test's own
  std::atomic<int> deletes{0};
  std::atomic<REALobject> deleteSelf{nullptr};
  std::atomic<GenericMPParams*> deleteParams{nullptr};
};
AsyncLog* gAsync = nullptr;
Host* gAsyncHost = nullptr;

void OnComplete(REALobject target, REALobject result) {
  gAsync->target = target;
  gAsyncHost->Lock(result);
  std::lock_guard lock(gAsync->mutex);
  gAsync->results.push_back(result);
  ++gAsync->completions;
}

int RecordingDelete(REALobject self, GenericMPParams* params) {
  ++gAsync->deletes;
  gAsync->deleteSelf = self;
  gAsync->deleteParams = params;
  return 0;
}

class EngineTest : public rawfx::test::HostTest {
 protected:
  void SetUp() override {
    host.DefineClass({"ProgressEffect", "MPImageFilterRaw", {{kOnProgressDecl, reinterpret_cast<void*>(&OnProgress)}}});
    effect = host.New("ProgressEffect");
    engine = static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"));
    gHandlerLog = {};
    gAsync = &asyncLog;
    gAsyncHost = &host;
  }

  void TearDown() override {
    host.WaitForAsync();
    for (REALobject result : asyncLog.results) host.Unlock(result);
    host.Unlock(effect);
    HostTest::TearDown();
  }

  REALobject NewSource(int64_t height, int bits = 8, int64_t width = 9) {
    REALobject source = host.NewBitmap(width, height, 5, bits, 8);
    rawfx::test::FillPattern(host, source, static_cast<uint32_t>(height));
    return source;
  }

  REALobject Process(CopyParams& params, REALobject source, REALobject mask = nullptr, int32_t formatFlags = 13) {
    return engine->ops->ProcessParts(engine, &params, &CopyRows, &MaskedCopyRows, host.Bitmap(source).record, mask, 2,
                                     formatFlags, 1);
  }

  void StartAsync(CopyParams* params, REALobject source, REALobject target, ParamBlockDeleter deleter,
                  int32_t formatFlags = 13) {
    engine->ops->ProcessPartsAsync(effect, engine, source, params, &CopyRows, &MaskedCopyRows,
                                   host.Bitmap(source).record, nullptr, 3, formatFlags, 1, target,
                                   reinterpret_cast<void*>(&OnComplete), deleter);
  }

  REALobject LastResult() {
    std::lock_guard lock(asyncLog.mutex);
    return asyncLog.results.empty() ? nullptr : asyncLog.results.back();
  }

  REALobject effect = nullptr;
  MPImageFilterData* engine = nullptr;
  AsyncLog asyncLog;
};

// ---- splitting ------------------------------------------------------------------------------

void ExpectPolicyShape(SplitPolicy policy, const std::vector<std::pair<int32_t, int32_t>>& parts, int64_t height,
                       int threads) {
  int empty = 0;
  for (const auto& [first, end] : parts) {
    if (first == end) {
      ++empty;
      continue;
    }
    const int32_t size = end - first;
    switch (policy) {
      case SplitPolicy::Balanced:
      case SplitPolicy::WithEmptyParts: EXPECT_EQ(first % 4, 0) << "part at " << first; break;
      case SplitPolicy::SmallParts: EXPECT_TRUE(size >= 1 && size <= 3) << "part of " << size; break;
      case SplitPolicy::OddStarts: EXPECT_TRUE(first == 0 || first % 2 == 1) << "part at " << first; break;
      case SplitPolicy::SinglePart: EXPECT_EQ(size, height); break;
    }
  }
  const int64_t quads = (height + 3) / 4;
  if (policy == SplitPolicy::Balanced) {
    EXPECT_GE(static_cast<int64_t>(parts.size()), std::min<int64_t>(quads, threads)) << "too few to keep all busy";
  }
  EXPECT_EQ(empty > 0, policy == SplitPolicy::WithEmptyParts);
}

TEST_F(EngineTest, EveryRowLiesInExactlyOnePart) {
  for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                             SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts}) {
    host.SetSplitPolicy(policy);
    for (int threads : {1, 2, 3}) {
      host.SetThreads(threads);
      for (int64_t height : {1, 4, 5, 37}) {
        SCOPED_TRACE("policy " + std::to_string(static_cast<int>(policy)) + ", " + std::to_string(threads) +
                     " threads, " + std::to_string(height) + " rows");
        REALobject source = NewSource(height);
        Recorder recorder(height);
        CopyParams params{{}, &recorder};
        REALobject result = Process(params, source);
        ASSERT_NE(result, nullptr);
        for (int64_t row = 0; row < height; ++row) EXPECT_EQ(recorder.visits[static_cast<size_t>(row)], 1) << row;
        EXPECT_EQ(params.head.progress, height);
        EXPECT_EQ(host.lastEngineCall().parts, static_cast<int>(recorder.parts.size()));
        ExpectPolicyShape(policy, recorder.parts, height, threads);
        EXPECT_TRUE(SamePixels(host, result, source));
        host.Unlock(result);
        host.Unlock(source);
      }
    }
  }
}

TEST_F(EngineTest, FillsTheWholeHeadAndMakesTheResult) {
  for (int bits : {8, 16}) {
    REALobject source = NewSource(6, bits);
    Recorder recorder(6);
    CopyParams params{};
    std::memset(&params.head, 0xA5, sizeof params.head);  // stale values must all be replaced
    params.recorder = &recorder;
    REALobject result = Process(params, source, nullptr, bits == 8 ? 13 : 14);
    ASSERT_NE(result, nullptr);
    const auto src = host.Bitmap(source);
    const auto dst = host.Bitmap(result);
    const GenericMPParams& head = params.head;
    EXPECT_EQ(head.width, 9);
    EXPECT_EQ(head.height, 6);
    EXPECT_EQ(head.progress, 6);
    EXPECT_EQ(head.cancel, 0);
    EXPECT_EQ(head.srcPixels, src.pixels);
    EXPECT_EQ(head.dstPixels, dst.pixels);
    EXPECT_EQ(head.srcRowBytes, src.rowBytes);
    EXPECT_EQ(head.dstRowBytes, dst.rowBytes);
    EXPECT_NE(dst.rowBytes, src.rowBytes);  // the result's rows have padding of their own
    EXPECT_EQ(head.srcPixelBytes, 4 * bits / 8);
    EXPECT_EQ(head.dstPixelBytes, 4 * bits / 8);
    EXPECT_EQ(head.srcBitmap, src.record);
    EXPECT_EQ(head.dstBitmap, dst.record);
    EXPECT_EQ(head.maskData, nullptr);
    EXPECT_EQ(dst.format, src.format);
    EXPECT_EQ(dst.bitsPerChannel, bits);
    EXPECT_EQ(host.RefCount(result), 1);  // the caller's
    const EngineCall call = host.lastEngineCall();
    EXPECT_EQ(call.operation, EngineCall::Parts);
    EXPECT_EQ(call.params, &params);
    EXPECT_EQ(call.partFunction, &CopyRows);
    EXPECT_EQ(call.maskPartFunction, &MaskedCopyRows);
    EXPECT_EQ(call.modeCode, 2);
    EXPECT_EQ(call.formatFlags, bits == 8 ? 13 : 14);
    EXPECT_EQ(call.resultFlag, 1);
    host.Unlock(result);
    host.Unlock(source);
  }
}

TEST_F(EngineTest, AMaskSelectsTheMaskedPartFunction) {
  REALobject source = NewSource(8);
  REALobject maskBitmap = host.NewBitmap(9, 8, 0);
  REALobject mask = host.NewMask(maskBitmap);
  Recorder recorder(8);
  CopyParams params{{}, &recorder};
  REALobject result = Process(params, source, mask);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(recorder.maskedCalls.load(), static_cast<int>(recorder.parts.size()));
  auto classRef = reinterpret_cast<REALclassRef (*)(const char*)>(host.resolve("pluginObjectType"));
  auto pluginData = reinterpret_cast<void* (*)(REALobject, REALclassRef)>(host.resolve("PluginGetPluginData"));
  EXPECT_EQ(params.head.maskData, pluginData(mask, classRef("RawBitmapMask")));
  EXPECT_EQ(host.lastEngineCall().mask, mask);
  host.Unlock(result);

  REALobject smallBitmap = host.NewBitmap(9, 7, 0);
  REALobject smallMask = host.NewMask(smallBitmap);
  Recorder unused(8);
  CopyParams refused{{}, &unused};
  EXPECT_EQ(Process(refused, source, smallMask), nullptr);  // a mask must cover the source
  EXPECT_TRUE(unused.parts.empty());
  for (REALobject object : {smallMask, smallBitmap, mask, maskBitmap, source}) host.Unlock(object);
}

TEST_F(EngineTest, RefusesDepthsTheFlagsDoNotAllow) {
  struct Case {
    int bits;
    int32_t flags;
    bool runs;
  };
  for (const Case& c : {Case{8, 13, true}, Case{8, 5, true}, Case{8, 14, false}, Case{16, 14, true},
                        Case{16, 13, false}, Case{16, 5, false}}) {
    SCOPED_TRACE(std::to_string(c.bits) + " bits, flags " + std::to_string(c.flags));
    REALobject source = NewSource(4, c.bits);
    Recorder recorder(4);
    CopyParams params{{}, &recorder};
    REALobject result = Process(params, source, nullptr, c.flags);
    EXPECT_EQ(result != nullptr, c.runs);
    EXPECT_EQ(recorder.parts.empty(), !c.runs);
    EXPECT_EQ(host.lastEngineCall().parts, c.runs ? static_cast<int>(recorder.parts.size()) : 0);
    host.Unlock(result);
    host.Unlock(source);
  }
  EXPECT_EQ(engine->ops->ProcessParts(engine, nullptr, &CopyRows, &CopyRows, nullptr, nullptr, 2, 13, 1), nullptr);
}

TEST_F(EngineTest, InPlaceRunsWriteTheSource) {
  REALobject source = NewSource(5);
  REALobject original = NewSource(5);  // same seed, same pixels
  GenericMPParams head{};
  REALobject returned = engine->ops->ProcessPartsInPlace(engine, &head, &InvertRows, &InvertRows,
                                                         host.Bitmap(source).record, nullptr, 2, 13);
  EXPECT_EQ(returned, source);
  EXPECT_EQ(host.RefCount(source), 1);
  EXPECT_EQ(head.dstPixels, head.srcPixels);
  EXPECT_EQ(head.dstBitmap, head.srcBitmap);
  const auto before = host.Bitmap(original);
  const auto after = host.Bitmap(source);
  EXPECT_EQ(after.row(4)[35], static_cast<uint8_t>(~before.row(4)[35]));
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::PartsInPlace);
  host.Unlock(original);
  host.Unlock(source);
}

// ---- progress and cancel ---------------------------------------------------------------------

TEST_F(EngineTest, ProgressReachesTheObserverAndTheProgramHandler) {
  std::vector<std::pair<int64_t, int64_t>> observed;
  const std::thread::id caller = std::this_thread::get_id();
  bool onCaller = true;
  host.SetProgressObserver([&](int64_t done, int64_t total) {
    observed.emplace_back(done, total);
    onCaller = onCaller && std::this_thread::get_id() == caller;
    return true;
  });
  REALobject source = NewSource(64);
  Recorder recorder(64);
  CopyParams params{{}, &recorder};
  REALobject result = Process(params, source);
  ASSERT_NE(result, nullptr);
  ASSERT_FALSE(observed.empty());
  EXPECT_EQ(observed.back(), (std::pair<int64_t, int64_t>{64, 64}));
  EXPECT_TRUE(std::is_sorted(observed.begin(), observed.end()));
  EXPECT_TRUE(onCaller);
  ASSERT_FALSE(gHandlerLog.reports.empty());
  EXPECT_EQ(gHandlerLog.reports.back(), (std::pair<uint64_t, uint64_t>{64, 64}));
  EXPECT_EQ(gHandlerLog.self, effect);
  host.SetProgressObserver(nullptr);
  host.Unlock(result);
  host.Unlock(source);
}

// Rows each part did must be a prefix of the part: a cancel stops between rows.
void ExpectPrefixes(Recorder& recorder) {
  for (const auto& [first, end] : recorder.parts) {
    bool stopped = false;
    for (int32_t row = first; row < end; ++row) {
      const int visits = recorder.visits[static_cast<size_t>(row)];
      EXPECT_LE(visits, 1);
      if (stopped) {
        EXPECT_EQ(visits, 0) << "row " << row << " after the part stopped";
      }
      stopped = stopped || visits == 0;
    }
  }
}

int RowsDone(Recorder& recorder) {
  int done = 0;
  for (const auto& visits : recorder.visits) done += visits;
  return done;
}

TEST_F(EngineTest, ObserverCancelStopsTheRunBetweenRows) {
  host.SetThreads(2);
  host.SetProgressObserver([](int64_t done, int64_t) { return done < 8; });
  REALobject source = NewSource(64);
  Recorder recorder(64);
  recorder.holdAtProgress = 8;  // the parts wait there until the cancel arrives
  CopyParams params{{}, &recorder};
  EXPECT_EQ(Process(params, source), nullptr);
  ExpectPrefixes(recorder);
  EXPECT_LT(RowsDone(recorder), 64);
  EXPECT_EQ(params.head.progress, RowsDone(recorder));
  host.SetProgressObserver(nullptr);
  host.Unlock(source);
}

TEST_F(EngineTest, ProgramHandlerCanCancel) {
  gHandlerLog.cancelAt = 4;
  REALobject source = NewSource(40);
  Recorder recorder(40);
  recorder.holdAtProgress = 4;
  CopyParams params{{}, &recorder};
  EXPECT_EQ(Process(params, source), nullptr);
  ExpectPrefixes(recorder);
  EXPECT_LT(RowsDone(recorder), 40);
  host.Unlock(source);
}

TEST_F(EngineTest, APresetCancelLetsEachPartDoItsFirstRow) {
  host.SetSplitPolicy(SplitPolicy::WithEmptyParts);
  REALobject source = NewSource(37);
  host.RequestCancel(effect);
  Recorder recorder(37);
  CopyParams params{{}, &recorder};
  EXPECT_EQ(Process(params, source), nullptr);
  int nonEmpty = 0;
  for (const auto& [first, end] : recorder.parts) {
    if (first == end) continue;
    ++nonEmpty;
    for (int32_t row = first; row < end; ++row)
      EXPECT_EQ(recorder.visits[static_cast<size_t>(row)], row == first ? 1 : 0) << "row " << row;
  }
  EXPECT_EQ(params.head.progress, nonEmpty);

  Recorder next(37);  // the cancel was for one run only
  CopyParams again{{}, &next};
  REALobject result = Process(again, source);
  EXPECT_NE(result, nullptr);
  host.Unlock(result);
  host.Unlock(source);
}

TEST_F(EngineTest, OnlyEffectsCanBeCancelled) {
  REALobject colour = host.NewRGBColor(0, 0, 0);
  EXPECT_THROW(host.RequestCancel(colour), HostError);
  EXPECT_THROW(host.LastError(colour), HostError);
  EXPECT_EQ(host.LastError(effect), 0);
  host.Unlock(colour);
}

// ---- the worker pool ----------------------------------------------------------------------------

TEST_F(EngineTest, WorkersPersistAcrossRuns) {
  host.SetThreads(3);
  EXPECT_EQ(host.threads(), 3);
  host.SetSplitPolicy(SplitPolicy::SmallParts);
  REALobject source = NewSource(30);
  std::set<std::thread::id> workers;
  for (int run = 0; run < 10; ++run) {
    Recorder recorder(30);
    CopyParams params{{}, &recorder};
    host.Unlock(Process(params, source));
    workers.insert(recorder.threads.begin(), recorder.threads.end());
  }
  EXPECT_LE(workers.size(), 3u);
  EXPECT_FALSE(workers.count(std::this_thread::get_id()));
  host.Unlock(source);
}

// ---- asynchronous runs ---------------------------------------------------------------------------

TEST_F(EngineTest, AsyncRunHoldsItsObjectsAndCompletesOnce) {
  REALobject source = NewSource(24);
  REALobject target = host.NewRGBColor(0, 0, 0);
  Recorder recorder(24);
  recorder.released = false;
  CopyParams params{{}, &recorder};
  StartAsync(&params, source, target, &RecordingDelete);
  // Back before any row is done: the caller is not blocked.
  EXPECT_EQ(asyncLog.completions.load(), 0);
  EXPECT_EQ(host.RefCount(effect), 2);
  EXPECT_EQ(host.RefCount(source), 2);
  EXPECT_EQ(host.RefCount(target), 2);
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::PartsAsync);
  EXPECT_EQ(host.lastEngineCall().deleteCallback, &RecordingDelete);
  recorder.released = true;
  host.WaitForAsync();
  EXPECT_EQ(asyncLog.completions.load(), 1);
  EXPECT_EQ(asyncLog.target.load(), target);
  ASSERT_NE(LastResult(), nullptr);
  EXPECT_TRUE(SamePixels(host, LastResult(), source));
  EXPECT_EQ(asyncLog.deletes.load(), 1);
  EXPECT_EQ(asyncLog.deleteSelf.load(), effect);
  EXPECT_EQ(asyncLog.deleteParams.load(), &params.head);
  EXPECT_EQ(host.RefCount(effect), 1);
  EXPECT_EQ(host.RefCount(source), 1);
  EXPECT_EQ(host.RefCount(target), 1);
  EXPECT_EQ(host.RefCount(LastResult()), 1);  // only the completion's own lock is left
  host.Unlock(target);
  host.Unlock(source);
}

TEST_F(EngineTest, AsyncBlockWithoutDeleteCallbackIsDeleted) {
  REALobject source = NewSource(12);
  Recorder recorder(12);
  auto* params = new CopyParams{{}, &recorder};
  gWatchedBlock = params;
  gWatchedBlockDeletes = 0;
  StartAsync(params, source, nullptr, nullptr);
  host.WaitForAsync();
  gWatchedBlock = nullptr;
  EXPECT_EQ(gWatchedBlockDeletes.load(), 1);
  EXPECT_EQ(asyncLog.completions.load(), 1);
  EXPECT_EQ(asyncLog.target.load(), nullptr);
  EXPECT_NE(LastResult(), nullptr);
  host.Unlock(source);
}

TEST_F(EngineTest, FailedOrCancelledAsyncRunsCompleteWithNil) {
  REALobject source = NewSource(16);
  Recorder refused(16);
  CopyParams refusedParams{{}, &refused};
  StartAsync(&refusedParams, source, nullptr, &RecordingDelete, 14);  // 8-bit source, 16-bit flags
  host.WaitForAsync();
  EXPECT_TRUE(refused.parts.empty());
  EXPECT_EQ(asyncLog.completions.load(), 1);
  EXPECT_EQ(LastResult(), nullptr);
  EXPECT_EQ(asyncLog.deletes.load(), 1);

  Recorder held(16);
  held.released = false;
  CopyParams heldParams{{}, &held};
  StartAsync(&heldParams, source, nullptr, &RecordingDelete);
  host.RequestCancel(effect);
  held.released = true;
  host.WaitForAsync();
  EXPECT_EQ(asyncLog.completions.load(), 2);
  EXPECT_EQ(LastResult(), nullptr);
  EXPECT_EQ(asyncLog.deletes.load(), 2);
  ExpectPrefixes(held);
  host.Unlock(source);
}

TEST_F(EngineTest, WaitForAsyncWaitsForEveryRun) {
  REALobject source = NewSource(20);
  std::vector<std::unique_ptr<Recorder>> recorders;
  std::vector<std::unique_ptr<CopyParams>> blocks;
  for (int run = 0; run < 6; ++run) {
    recorders.push_back(std::make_unique<Recorder>(20));
    blocks.push_back(std::make_unique<CopyParams>(CopyParams{{}, recorders.back().get()}));
    StartAsync(blocks.back().get(), source, nullptr, &RecordingDelete);
  }
  host.WaitForAsync();
  EXPECT_EQ(asyncLog.completions.load(), 6);
  EXPECT_EQ(asyncLog.deletes.load(), 6);
  for (const auto& recorder : recorders) EXPECT_EQ(RowsDone(*recorder), 20);
  host.Unlock(source);
}

}  // namespace
