// The engine of MPImageFilterRaw, driven through its operation table with
// test part functions that copy rows and record what they were given: the
// split of rows into parts, the head, progress and cancel, and asynchronous
// runs with their completion and disposal.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <tuple>
#include <vector>

#include "host/host.h"
#include "support/host_fixture.h"

// A watch on the global operator delete, for the asynchronous disposal rule.
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
using rawfx::host::SplitPolicy;
using rawfx::test::SamePixels;
using Parts = std::vector<std::pair<int32_t, int32_t>>;
using namespace std::chrono_literals;

// Waits until the condition holds (or gives up after 5 s).
template <class Condition>
void AwaitOrGiveUp(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(100us);
}

// A parameter block whose part function copies rows and records what it saw.
struct CopyParams {
  explicit CopyParams(int64_t height) : visits(static_cast<size_t>(height)) {}
  GenericMPParams head{};
  std::mutex mutex;
  Parts parts;
  std::vector<std::atomic<int>> visits;
  std::atomic<int> maskedCalls{0};
  std::atomic<bool> released{true};  // parts wait while false
  int holdAtProgress = 0;            // > 0: parts wait for a cancel once progress reaches it

  int RowsDone() const {
    int done = 0;
    for (const auto& v : visits) done += v;
    return done;
  }
  bool Cancelled() { return std::atomic_ref<uint8_t>(head.cancel).load() != 0; }
};

void* CopyRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<CopyParams*>(part->params);
  {
    std::lock_guard lock(p.mutex);
    p.parts.emplace_back(part->firstRow, part->endRow);
  }
  AwaitOrGiveUp([&] { return p.released.load(); });
  for (int32_t row = part->firstRow; row < part->endRow; ++row) {
    std::memmove(p.head.dstPixels + int64_t{row} * p.head.dstRowBytes,
                 p.head.srcPixels + int64_t{row} * p.head.srcRowBytes, size_t(p.head.width * p.head.srcPixelBytes));
    ++p.visits[static_cast<size_t>(row)];
    if (!rawfx::FinishRow(p.head)) break;
    if (p.holdAtProgress > 0 && std::atomic_ref<int32_t>(p.head.progress).load() >= p.holdAtProgress) {
      AwaitOrGiveUp([&] { return p.Cancelled(); });
      if (p.Cancelled()) break;
    }
  }
  part->done = 1;
  return nullptr;
}

void* MaskedCopyRows(void* block) {
  ++static_cast<CopyParams*>(static_cast<MPParamBlock*>(block)->params)->maskedCalls;
  return CopyRows(block);
}

// Finishes its rows without copying, for a block that holds nothing but the head.
void* FinishRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  for (int32_t row = part->firstRow; row < part->endRow; ++row)
    if (!rawfx::FinishRow(*static_cast<GenericMPParams*>(part->params))) break;
  return nullptr;
}

// Rows each part did must be a prefix of the part: a cancel stops between rows.
void ExpectPrefixes(const CopyParams& params) {
  for (const auto& [first, end] : params.parts) {
    bool stopped = false;
    for (int32_t row = first; row < end; ++row) {
      const int visits = params.visits[static_cast<size_t>(row)];
      EXPECT_LE(visits, stopped ? 0 : 1) << "row " << row;
      stopped = stopped || visits == 0;
    }
  }
}

// The program's progress handler and the asynchronous completion and delete callbacks.
struct Log {
  std::vector<std::pair<uint64_t, uint64_t>> reports;
  REALobject handlerSelf = nullptr;
  uint64_t cancelAt = 0;  // 0: the handler never asks
  std::atomic<int> completions{0}, deletes{0};
  std::atomic<REALobject> target{nullptr}, deleteSelf{nullptr};
  std::atomic<GenericMPParams*> deleteParams{nullptr};
  std::mutex mutex;
  std::vector<REALobject> results;  // each kept with a lock of the test's own
  rawfx::host::Host* host = nullptr;
};
Log* gLog = nullptr;

void OnProgress(REALobject self, uint64_t value, uint64_t total, uint64_t, bool* cancel) {
  gLog->handlerSelf = self;
  gLog->reports.emplace_back(value, total);
  if (gLog->cancelAt && value >= gLog->cancelAt) *cancel = true;
}

void OnComplete(REALobject target, REALobject result) {
  gLog->target = target;
  gLog->host->Lock(result);
  std::lock_guard lock(gLog->mutex);
  gLog->results.push_back(result);
  ++gLog->completions;
}

int RecordingDelete(REALobject self, GenericMPParams* params) {
  ++gLog->deletes;
  gLog->deleteSelf = self;
  gLog->deleteParams = params;
  return 0;
}

class EngineTest : public rawfx::test::HostTest {
 protected:
  void SetUp() override {
    host.DefineClass({"ProgressEffect", "MPImageFilterRaw", {{kOnProgressDecl, reinterpret_cast<void*>(&OnProgress)}}});
    effect = host.New("ProgressEffect");
    engine = static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"));
    log.host = &host;
    gLog = &log;
  }

  void TearDown() override {
    host.WaitForAsync();
    host.SetProgressObserver(nullptr);
    for (REALobject object : log.results) host.Unlock(object);
    host.Unlock(effect);
    HostTest::TearDown();
  }

  REALobject NewSource(int64_t height, int bits = 8) {
    REALobject source = host.NewBitmap(9, height, 5, bits, 8);
    rawfx::test::FillPattern(host, source, static_cast<uint32_t>(height));
    return source;
  }

  REALobject Process(CopyParams& params, REALobject source, REALobject mask = nullptr, int32_t formatFlags = 13) {
    return engine->ops->ProcessParts(engine, &params, &CopyRows, &MaskedCopyRows, host.Bitmap(source).record, mask, 2,
                                     formatFlags, 1);
  }

  void StartAsync(void* params, REALobject source, REALobject target, ParamBlockDeleter deleter,
                  int32_t formatFlags = 13, PartFunction part = &CopyRows) {
    engine->ops->ProcessPartsAsync(effect, engine, source, params, part, &MaskedCopyRows, host.Bitmap(source).record,
                                   nullptr, 3, formatFlags, 1, target, reinterpret_cast<void*>(&OnComplete), deleter);
  }

  REALobject LastResult() {
    std::lock_guard lock(log.mutex);
    return log.results.empty() ? nullptr : log.results.back();
  }

  REALobject effect = nullptr;
  MPImageFilterData* engine = nullptr;
  Log log;
};

// ---- splitting and the head ---------------------------------------------------------------

void ExpectPolicyShape(SplitPolicy policy, const Parts& parts, int64_t height, int threads) {
  int empty = 0;
  for (const auto& [first, end] : parts) {
    const int32_t size = end - first;
    empty += size == 0;
    if (size == 0) continue;
    switch (policy) {
      case SplitPolicy::Balanced:
      case SplitPolicy::WithEmptyParts: EXPECT_EQ(first % 4, 0) << "part at " << first; break;
      case SplitPolicy::SmallParts: EXPECT_TRUE(size >= 1 && size <= 3) << "part of " << size; break;
      case SplitPolicy::OddStarts: EXPECT_TRUE(first == 0 || first % 2 == 1) << "part at " << first; break;
      case SplitPolicy::SinglePart: EXPECT_EQ(size, height); break;
    }
  }
  if (policy == SplitPolicy::Balanced) {
    EXPECT_GE(int64_t(parts.size()), std::min<int64_t>((height + 3) / 4, threads)) << "too few to keep all busy";
  }
  EXPECT_EQ(empty > 0, policy == SplitPolicy::WithEmptyParts);
}

// Progress reaches the host's observer, on the thread that started the run, and the program's handler.
TEST_F(EngineTest, EveryRowLiesInExactlyOnePartAndProgressCountsRows) {
  std::pair<int64_t, int64_t> observed;
  bool onCaller = true;
  host.SetProgressObserver([&, caller = std::this_thread::get_id()](int64_t done, int64_t total) {
    observed = {done, total};
    onCaller = onCaller && std::this_thread::get_id() == caller;
    return true;
  });
  for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                             SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts}) {
    host.SetSplitPolicy(policy);
    for (int threads : {1, 2, 3}) {
      host.SetThreads(threads);
      for (int64_t height : {1, 4, 5, 37}) {
        SCOPED_TRACE("policy " + std::to_string(static_cast<int>(policy)) + ", " + std::to_string(threads) +
                     " threads, " + std::to_string(height) + " rows");
        REALobject source = NewSource(height);
        CopyParams params(height);
        REALobject result = Process(params, source);
        ASSERT_NE(result, nullptr);
        for (int64_t row = 0; row < height; ++row) EXPECT_EQ(params.visits[size_t(row)], 1) << row;
        EXPECT_EQ(params.head.progress, height);
        EXPECT_EQ(observed, std::make_pair(height, height));
        ASSERT_FALSE(log.reports.empty());
        EXPECT_EQ(log.reports.back(), std::make_pair(uint64_t(height), uint64_t(height)));
        EXPECT_EQ(host.lastEngineCall().parts, static_cast<int>(params.parts.size()));
        ExpectPolicyShape(policy, params.parts, height, threads);
        EXPECT_TRUE(SamePixels(host, result, source));
        host.Unlock(result);
        host.Unlock(source);
      }
    }
  }
  host.SetProgressObserver(nullptr);
  EXPECT_TRUE(onCaller);
  EXPECT_EQ(log.handlerSelf, effect);
}

TEST_F(EngineTest, FillsTheWholeHeadAndMakesTheResultOrWritesInPlace) {
  for (int bits : {8, 16}) {
    const int32_t flags = bits == 8 ? 13 : 14;
    REALobject source = NewSource(6, bits);
    CopyParams params(6);
    std::memset(&params.head, 0xA5, sizeof params.head);  // stale values must all be replaced
    REALobject result = Process(params, source, nullptr, flags);
    ASSERT_NE(result, nullptr);
    const auto src = host.Bitmap(source);
    const auto dst = host.Bitmap(result);
    const GenericMPParams& h = params.head;
    EXPECT_EQ(std::tie(h.width, h.height, h.progress, h.cancel, h.srcPixelBytes, h.dstPixelBytes),
              std::make_tuple(9, 6, 6, 0, 4 * bits / 8, 4 * bits / 8));
    EXPECT_EQ(std::tie(h.srcPixels, h.dstPixels, h.srcRowBytes, h.dstRowBytes, h.srcBitmap, h.dstBitmap),
              std::tie(src.pixels, dst.pixels, src.rowBytes, dst.rowBytes, src.record, dst.record));
    EXPECT_EQ(h.maskData, nullptr);
    EXPECT_NE(dst.rowBytes, src.rowBytes);  // the result's rows have padding of their own
    EXPECT_EQ(std::tie(dst.format, dst.bitsPerChannel), std::tie(src.format, bits));
    EXPECT_EQ(host.RefCount(result), 1);  // the caller's
    const EngineCall call = host.lastEngineCall();
    EXPECT_EQ(std::tie(call.operation, call.params, call.partFunction, call.maskPartFunction),
              std::make_tuple(EngineCall::Parts, static_cast<void*>(&params), &CopyRows, &MaskedCopyRows));
    EXPECT_EQ(std::tie(call.modeCode, call.formatFlags, call.resultFlag), std::make_tuple(2, flags, 1));
    host.Unlock(result);

    CopyParams inPlace(6);  // the source is the destination, and the source itself comes back
    EXPECT_EQ(engine->ops->ProcessPartsInPlace(engine, &inPlace, &CopyRows, &CopyRows, src.record, nullptr, 2, flags),
              source);
    EXPECT_EQ(std::tie(inPlace.head.srcPixels, inPlace.head.dstPixels, inPlace.head.dstBitmap),
              std::tie(src.pixels, src.pixels, src.record));
    EXPECT_EQ(std::make_tuple(inPlace.RowsDone(), host.RefCount(source), host.lastEngineCall().operation),
              std::make_tuple(6, 1, EngineCall::PartsInPlace));
    host.Unlock(source);
  }
}

// The result is cleared by the parts that fill it; rows and padding that no
// part writes must still read zero, even in memory freed dirty just before.
TEST_F(EngineTest, AResultIsAllZeroWhereNoPartWrote) {
  for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SmallParts, SplitPolicy::OddStarts,
                             SplitPolicy::WithEmptyParts}) {
    host.SetSplitPolicy(policy);
    for (int bits : {8, 16}) {
      REALobject source = NewSource(301, bits);
      REALobject dirty = host.NewBitmap(9, 301, 5, bits, 24);  // a result's size, freed dirty
      const auto dirtyView = host.Bitmap(dirty);
      std::memset(dirtyView.pixels, 0xA5, size_t(dirtyView.rowBytes * dirtyView.height));
      host.Unlock(dirty);

      GenericMPParams head{};
      REALobject result = engine->ops->ProcessParts(engine, &head, &FinishRows, &FinishRows,
                                                    host.Bitmap(source).record, nullptr, 2, bits == 8 ? 13 : 14, 1);
      ASSERT_NE(result, nullptr);
      const auto view = host.Bitmap(result);
      const size_t bytes = size_t(view.rowBytes * view.height);
      EXPECT_EQ(size_t(std::count(view.pixels, view.pixels + bytes, uint8_t{0})), bytes)
          << "policy " << static_cast<int>(policy) << ", " << bits << " bits";
      host.Unlock(result);
      host.Unlock(source);
    }
  }
}

TEST_F(EngineTest, RefusesDepthsTheFlagsDoNotAllowAndMasksThatDoNotCoverTheSource) {
  for (auto [bits, flags, runs] : {std::tuple{8, 13, true}, {8, 5, true}, {8, 14, false}, {16, 14, true},
                                   {16, 13, false}, {16, 5, false}}) {
    SCOPED_TRACE(std::to_string(bits) + " bits, flags " + std::to_string(flags));
    REALobject source = NewSource(4, bits);
    CopyParams params(4);
    REALobject result = Process(params, source, nullptr, flags);
    EXPECT_EQ(result != nullptr, runs);
    EXPECT_EQ(params.parts.empty(), !runs);
    EXPECT_EQ(host.lastEngineCall().parts, runs ? static_cast<int>(params.parts.size()) : 0);
    host.Unlock(result);
    host.Unlock(source);
  }
  EXPECT_EQ(engine->ops->ProcessParts(engine, nullptr, &CopyRows, &CopyRows, nullptr, nullptr, 2, 13, 1), nullptr);

  // A mask selects the masked part function, and must cover the source.
  REALobject source = NewSource(8);
  REALobject maskBitmap = host.NewBitmap(9, 8, 0), smallBitmap = host.NewBitmap(9, 7, 0);
  REALobject mask = host.NewMask(maskBitmap), smallMask = host.NewMask(smallBitmap);
  CopyParams params(8), refused(8);
  REALobject result = Process(params, source, mask);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(params.maskedCalls.load(), static_cast<int>(params.parts.size()));
  EXPECT_EQ(params.head.maskData, host.ClassData(mask, "RawBitmapMask"));
  EXPECT_EQ(host.lastEngineCall().mask, mask);
  EXPECT_EQ(Process(refused, source, smallMask), nullptr);
  EXPECT_TRUE(refused.parts.empty());
  for (REALobject object : {result, smallMask, smallBitmap, mask, maskBitmap, source}) host.Unlock(object);
}

// ---- cancel ------------------------------------------------------------------------------------

// A cancel asked for by the host's observer or by the program's handler stops the run between rows.
TEST_F(EngineTest, ObserverOrProgramHandlerCancelStopsTheRunBetweenRows) {
  host.SetThreads(2);
  for (bool byHandler : {false, true}) {
    SCOPED_TRACE(byHandler ? "program handler" : "observer");
    host.SetProgressObserver([=](int64_t done, int64_t) { return byHandler || done < 8; });
    log.cancelAt = byHandler ? 8 : 0;
    REALobject source = NewSource(64);
    CopyParams params(64);
    params.holdAtProgress = 8;  // the parts wait there until the cancel arrives
    EXPECT_EQ(Process(params, source), nullptr);
    ExpectPrefixes(params);
    EXPECT_LT(params.RowsDone(), 64);
    EXPECT_EQ(params.head.progress, params.RowsDone());
    host.Unlock(source);
  }
}

TEST_F(EngineTest, APresetCancelLetsEachPartDoItsFirstRow) {
  host.SetSplitPolicy(SplitPolicy::WithEmptyParts);
  REALobject source = NewSource(37);
  host.RequestCancel(effect);
  CopyParams params(37);
  EXPECT_EQ(Process(params, source), nullptr);
  int nonEmpty = 0;
  for (const auto& [first, end] : params.parts) {
    nonEmpty += first != end;
    for (int32_t row = first; row < end; ++row)
      EXPECT_EQ(params.visits[size_t(row)], row == first ? 1 : 0) << "row " << row;
  }
  EXPECT_EQ(params.head.progress, nonEmpty);
  CopyParams again(37);  // the cancel was for one run only
  REALobject result = Process(again, source);
  EXPECT_NE(result, nullptr);
  host.Unlock(result);
  host.Unlock(source);
  EXPECT_EQ(host.LastError(effect), 0);
}

// ---- asynchronous runs ---------------------------------------------------------------------------

TEST_F(EngineTest, AsyncRunHoldsItsObjectsCompletesOnceAndCallsTheDeleteCallback) {
  REALobject source = NewSource(24);
  REALobject target = host.NewRGBColor(0, 0, 0);
  CopyParams params(24);
  params.released = false;
  StartAsync(&params, source, target, &RecordingDelete);
  // Back before any row is done: the caller is not blocked.
  EXPECT_EQ(log.completions.load(), 0);
  EXPECT_EQ(std::make_tuple(host.RefCount(effect), host.RefCount(source), host.RefCount(target)),
            std::make_tuple(2, 2, 2));
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::PartsAsync);
  EXPECT_EQ(host.lastEngineCall().deleteCallback, &RecordingDelete);
  params.released = true;
  host.WaitForAsync();
  EXPECT_EQ(std::make_tuple(log.completions.load(), log.target.load(), log.deletes.load(), log.deleteSelf.load(),
                            log.deleteParams.load()),
            std::make_tuple(1, target, 1, effect, &params.head));
  ASSERT_NE(LastResult(), nullptr);
  EXPECT_TRUE(SamePixels(host, LastResult(), source));
  // Only the completion's own lock on the result is left.
  EXPECT_EQ(std::make_tuple(host.RefCount(effect), host.RefCount(source), host.RefCount(target),
                            host.RefCount(LastResult())),
            std::make_tuple(1, 1, 1, 1));
  host.Unlock(target);
  host.Unlock(source);
}

TEST_F(EngineTest, FailedOrCancelledAsyncRunsCompleteWithNilAndABlockWithoutCallbackIsDeleted) {
  REALobject source = NewSource(16);
  CopyParams refused(16);
  StartAsync(&refused, source, nullptr, &RecordingDelete, 14);  // 8-bit source, 16-bit flags
  host.WaitForAsync();
  EXPECT_TRUE(refused.parts.empty());
  EXPECT_EQ(std::make_tuple(log.completions.load(), LastResult(), log.deletes.load()),
            std::make_tuple(1, REALobject{}, 1));

  CopyParams held(16);
  held.released = false;
  StartAsync(&held, source, nullptr, &RecordingDelete);
  host.RequestCancel(effect);
  held.released = true;
  host.WaitForAsync();
  EXPECT_EQ(std::make_tuple(log.completions.load(), LastResult(), log.deletes.load()),
            std::make_tuple(2, REALobject{}, 2));
  ExpectPrefixes(held);

  auto* plain = new GenericMPParams{};  // without a delete callback the engine deletes the block
  gWatchedBlock = plain;
  gWatchedBlockDeletes = 0;
  StartAsync(plain, source, nullptr, nullptr, 13, &FinishRows);
  host.WaitForAsync();
  gWatchedBlock = nullptr;
  EXPECT_EQ(std::make_tuple(gWatchedBlockDeletes.load(), log.completions.load(), log.deletes.load()),
            std::make_tuple(1, 3, 2));
  EXPECT_NE(LastResult(), nullptr);
  host.Unlock(source);
}

TEST_F(EngineTest, WaitForAsyncWaitsForEveryRun) {
  REALobject source = NewSource(16);
  std::vector<std::unique_ptr<CopyParams>> runs;
  for (int run = 0; run < 6; ++run) {
    runs.push_back(std::make_unique<CopyParams>(16));
    StartAsync(runs.back().get(), source, nullptr, &RecordingDelete);
  }
  host.WaitForAsync();
  EXPECT_EQ(std::make_tuple(log.completions.load(), log.deletes.load()), std::make_tuple(6, 6));
  for (const auto& run : runs) EXPECT_EQ(run->RowsDone(), 16);
  host.Unlock(source);
}

}  // namespace
