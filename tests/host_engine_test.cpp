// The engine of MPImageFilterRaw, driven through its operation table with
// test part functions that copy rows and record what they were given: the
// split of rows into parts, the head, the result's clearing and size cap,
// progress and cancel, asynchronous runs with their completion and disposal,
// and blocks that a run still holds.

#include <atomic>
#include <chrono>
#include <cstring>
#include <numeric>
#include <thread>
#include <tuple>

#include "support/host_fixture.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using rawfx::host::EngineCall;
using rawfx::host::SplitPolicy;

// Waits until the condition holds (or gives up after 5 s).
bool AwaitOrGiveUp(const std::function<bool()>& condition) {
  for (int wait = 0; wait < 50000 && !condition(); ++wait) std::this_thread::sleep_for(std::chrono::microseconds(100));
  return condition();
}

// A parameter block whose part function copies rows and records what it saw.
struct CopyParams {
  explicit CopyParams(int64_t height) : visits(static_cast<size_t>(height)) {}
  GenericMPParams head{};
  std::mutex mutex;
  std::vector<std::pair<int32_t, int32_t>> parts;
  std::vector<std::atomic<int>> visits;
  std::atomic<bool> released{true};  // parts wait while false
  int holdAtProgress = 0;            // > 0: parts wait for a cancel once progress reaches it
  bool write = true;                 // false: rows are finished without a byte written

  int RowsDone() const { return std::accumulate(visits.begin(), visits.end(), 0); }
};

void* CopyRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<CopyParams*>(part->params);
  const GenericMPParams& h = p.head;
  {
    std::lock_guard lock(p.mutex);
    p.parts.emplace_back(part->firstRow, part->endRow);
  }
  AwaitOrGiveUp([&] { return p.released.load(); });
  for (int32_t row = part->firstRow; row < part->endRow; ++row) {
    if (p.write)
      std::memmove(h.dstPixels + row * h.dstRowBytes, h.srcPixels + row * h.srcRowBytes, h.width * h.srcPixelBytes);
    ++p.visits[static_cast<size_t>(row)];
    if (!rawfx::FinishRow(p.head)) break;
    if (p.holdAtProgress > 0 && rawfx::ProgressOf(h) >= p.holdAtProgress)
      if (AwaitOrGiveUp([&] { return rawfx::CancelRequested(h); })) break;
  }
  part->done = 1;
  return nullptr;
}

void* MaskedCopyRows(void* block) { return CopyRows(block); }  // named apart, for the engine's record

// What the program's progress handler and the delete callback were given (the
// callback runs on a worker; WaitForAsync orders it before the test reads).
struct Handlers {
  std::pair<uint64_t, uint64_t> lastReport;
  REALobject handlerSelf = nullptr;
  uint64_t cancelAt = 0;  // 0: the handler never asks
  std::vector<std::pair<REALobject, GenericMPParams*>> deleted;
} gHandlers;

void OnProgress(REALobject self, uint64_t value, uint64_t total, uint64_t, bool* cancel) {
  std::tie(gHandlers.handlerSelf, gHandlers.lastReport) = std::tuple(self, std::pair(value, total));
  if (gHandlers.cancelAt && value >= gHandlers.cancelAt) *cancel = true;
}

int RecordingDelete(REALobject self, GenericMPParams* params) {
  gHandlers.deleted.emplace_back(self, params);
  return 0;
}

class EngineTest : public AsyncHostTest {
 protected:
  void SetUp() override {
    host.DefineClass({"ProgressEffect", "MPImageFilterRaw", {{kOnProgressDecl, reinterpret_cast<void*>(&OnProgress)}}});
    effect = host.New("ProgressEffect");
    engine = static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"));
    gHandlers = {};
  }
  void TearDown() override {
    host.SetProgressObserver(nullptr);
    host.Unlock(effect);
    AsyncHostTest::TearDown();
  }

  REALobject Process(void* params, REALobject source, int32_t formatFlags = 13) {
    return engine->ops->ProcessParts(engine, params, &CopyRows, &MaskedCopyRows, host.Bitmap(source).record, nullptr,
                                     2, formatFlags, 1);
  }
  void StartAsync(void* params, REALobject source, REALobject target, ParamBlockDeleter deleter) {
    engine->ops->ProcessPartsAsync(effect, engine, source, params, &CopyRows, &MaskedCopyRows,
                                   host.Bitmap(source).record, nullptr, 3, 13, 1, target, log.method(), deleter);
  }

  REALobject effect = nullptr;
  MPImageFilterData* engine = nullptr;
};

// Under every policy, thread count, height and depth: every row lies in
// exactly one part, the head is filled whole (stale values replaced), and the
// result, with the source's shape but rows padded its own way, comes with one
// reference, the caller's. Progress reaches the host's observer, on the thread
// that started the run, and the program's handler. Flags without the source's
// depth bit and a nil block are refused before any part starts (a mask that
// does not cover the source: FaultRun's ShortMask; masked runs: the effects
// against their reference kernels). A result is cleared by the parts that fill
// it: where no part writes, even in memory just freed dirty, it reads zero.
// (In place, the source is the destination: the effects' ApplyInPlace against
// their reference kernels under every policy.)
TEST_F(EngineTest, EveryPolicyDoesEveryRowOnceFillsTheHeadAndClearsTheResult) {
  std::pair<int64_t, int64_t> observed;
  bool onCaller = true;
  host.SetProgressObserver([&, caller = std::this_thread::get_id()](int64_t done, int64_t total) {
    observed = {done, total};
    onCaller = onCaller && std::this_thread::get_id() == caller;
    return true;
  });
  for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                             SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts})
    for (int threads : {1, 2, 3})
      for (int64_t height : {1, 4, 5, 37, 301})
        for (int bits : {8, 16}) {
          SCOPED_TRACE(::testing::Message() << "policy " << int(policy) << ", " << threads << " threads, " << height
                                            << " rows, " << bits << " bits");
          host.SetSplitPolicy(policy);
          host.SetThreads(threads);
          // Flags 13 and 5 take 8-bit sources only, 14 16-bit ones only.
          const int32_t flags = bits == 16 ? 14 : threads == 2 ? 5 : 13, wrong = bits == 8 ? 14 : threads == 2 ? 5 : 13;
          REALobject source = NewPattern(host, 9, height, kRGBA, bits, uint32_t(height), 8);  // rows padded by 8
          CopyParams params(height);
          std::memset(&params.head, 0xA5, sizeof params.head);
          REALobject result = Process(&params, source, flags);
          ASSERT_NE(result, nullptr);
          for (int64_t row = 0; row < height; ++row) EXPECT_EQ(params.visits[size_t(row)], 1) << row;
          const bool balanced = policy == SplitPolicy::Balanced || policy == SplitPolicy::WithEmptyParts;
          for (const auto& [first, end] : params.parts)
            EXPECT_TRUE(!balanced || first == end || first % 4 == 0) << "a balanced part starts at row " << first;
          EXPECT_EQ(std::ranges::any_of(params.parts, [](auto part) { return part.first == part.second; }),
                    policy == SplitPolicy::WithEmptyParts);
          const int64_t enough = policy == SplitPolicy::Balanced ? std::min<int64_t>((height + 3) / 4, threads) : 1;
          EXPECT_GE(int64_t(params.parts.size()), enough) << "too few parts";
          const auto src = host.Bitmap(source), dst = host.Bitmap(result);
          const GenericMPParams& h = params.head;
          EXPECT_EQ(std::tie(h.width, h.height, h.progress, h.cancel, h.srcPixelBytes, h.dstPixelBytes, h.maskData),
                    std::make_tuple(9, height, height, 0, 4 * bits / 8, 4 * bits / 8, nullptr));
          EXPECT_EQ(std::tie(h.srcPixels, h.dstPixels, h.srcRowBytes, h.dstRowBytes, h.srcBitmap, h.dstBitmap),
                    std::tie(src.pixels, dst.pixels, src.rowBytes, dst.rowBytes, src.record, dst.record));
          EXPECT_NE(dst.rowBytes, src.rowBytes);
          EXPECT_TRUE(SamePixels(host, result, source));
          const EngineCall call = host.lastEngineCall();  // its codes and block: the effects' runs
          EXPECT_EQ(std::tie(call.operation, call.partFunction, call.maskPartFunction, call.parts),
                    std::make_tuple(EngineCall::Parts, &CopyRows, &MaskedCopyRows, int(params.parts.size())));
          EXPECT_EQ(std::tie(observed.first, observed.second, gHandlers.lastReport.first, gHandlers.lastReport.second),
                    std::make_tuple(height, height, height, height));
          std::memset(dst.pixels, 0xA5, size_t(dst.rowBytes * height));
          host.Unlock(result);  // freed dirty, for the next result to reuse

          CopyParams blank(height);
          blank.write = false;
          EXPECT_EQ(Process(&blank, source, wrong), nullptr) << "flags " << wrong;
          EXPECT_EQ(std::make_pair(blank.parts.size(), host.lastEngineCall().parts), std::make_pair(size_t{0}, 0));
          result = Process(&blank, source, flags);
          ASSERT_NE(result, nullptr);
          EXPECT_EQ(Pixels(host, result), std::vector<uint8_t>(size_t(dst.rowBytes * height))) << "an unwritten byte";
          for (REALobject object : {result, source}) host.Unlock(object);
        }
  EXPECT_TRUE(onCaller);
  EXPECT_EQ(gHandlers.handlerSelf, effect);
  EXPECT_EQ(engine->ops->ProcessParts(engine, nullptr, &CopyRows, &CopyRows, nullptr, nullptr, 2, 13, 1), nullptr);
}

// A cancel from the host's observer, from the program's handler or requested
// while the run goes stops every part between rows, gives nil, and holds for
// that run only: a whole run follows each. One that the observer asks for with
// the last row stops nothing. (One requested before the run: FaultRun's cancel
// at row -1; a cancel is no error of the effect: FaultRun.)
//
// An asynchronous run returns before any row is done and holds the effect,
// the source, the target and its block while it goes: a run of any kind with
// that block is refused before anything starts (nil, lastError 4, no part, no
// completion, no disposal). The run hands its block to the delete callback
// (blocks without one: the fault tests) before its one completion; then the
// block runs again, and a cancel armed for the next run goes with a run the
// engine refuses. The program's handler hears of an asynchronous run's rows
// and may cancel it: the completion then receives nil.
TEST_F(EngineTest, ACancelStopsARunBetweenRowsAndAnAsyncRunHoldsItsObjectsAndBlock) {
  host.SetThreads(2);
  host.SetSplitPolicy(SplitPolicy::WithEmptyParts);
  REALobject source = NewPattern(host, 9, 64, kRGBA, 8, 64, 8), target = host.NewRGBColor(0, 0, 0);
  for (const std::string by : {"observer", "last row after observer", "handler", "last row after handler", "request",
                               "last row after request"}) {
    SCOPED_TRACE(by);
    const bool whole = by.starts_with("last row");
    host.SetProgressObserver([this, by, whole](int64_t done, int64_t total) {
      if (by == "request" && done >= 8) host.RequestCancel(effect);
      return whole ? done < total : by != "observer" || done < 8;
    });
    gHandlers.cancelAt = by == "handler" ? 8 : 0;
    CopyParams params(64);
    params.holdAtProgress = whole ? 0 : 8;  // the parts wait there for the cancel
    REALobject result = Process(&params, source);
    EXPECT_EQ(std::pair(result != nullptr, params.RowsDone() == 64), std::pair(whole, whole));
    for (const auto& [first, end] : params.parts)
      for (int32_t row = first, stopped = 0; row < end; ++row) {  // the rows done are a prefix of the part
        EXPECT_LE(params.visits[size_t(row)], stopped ? 0 : 1) << "row " << row;
        stopped = stopped || params.visits[size_t(row)] == 0;
      }
    EXPECT_EQ(params.head.progress, params.RowsDone());
    host.Unlock(result);
  }
  host.SetProgressObserver(nullptr);

  CopyParams params(64);
  params.released = false;
  StartAsync(&params, source, target, &RecordingDelete);
  EXPECT_EQ(std::make_tuple(log.TotalCalls(), host.RefCount(effect), host.RefCount(source), host.RefCount(target),
                            host.lastEngineCall().operation, host.lastEngineCall().deleteCallback),
            std::make_tuple(0, 2, 2, 2, EngineCall::PartsAsync, &RecordingDelete));
  const std::function<REALobject()> reuses[] = {
      [&] { return Process(&params, source); },
      [&] {
        return engine->ops->ProcessPartsInPlace(engine, &params, &CopyRows, &CopyRows, host.Bitmap(source).record,
                                                nullptr, 2, 13);
      },
      [&] { return StartAsync(&params, source, target, &RecordingDelete), nullptr; },
  };
  for (const auto& reuse : reuses) {
    engine->lastError = 0;
    EXPECT_EQ(reuse(), nullptr);
    EXPECT_EQ(std::make_tuple(engine->lastError, host.lastEngineCall().parts), std::make_tuple(4, 0));
  }
  params.released = true;
  host.WaitForAsync();
  EXPECT_EQ(std::make_tuple(log.Calls(target), gHandlers.deleted.size(), gHandlers.lastReport, params.RowsDone()),
            std::make_tuple(1, 1u, std::pair<uint64_t, uint64_t>{64, 64}, 64));
  EXPECT_EQ(gHandlers.deleted.at(0), std::make_pair(effect, &params.head));
  REALobject result = log.Take(target);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(SamePixels(host, result, source));
  host.Unlock(result);  // the completion's own lock; the fixture sees any other left
  host.RequestCancel(effect);
  EXPECT_EQ(Process(&params, source, 14), nullptr) << "refused: the depth bit is wrong";
  result = Process(&params, source);
  EXPECT_NE(result, nullptr) << "the block runs again, and the cancel went with the refused run";
  host.Unlock(result);

  gHandlers.cancelAt = 1;
  CopyParams cancelled(64);
  StartAsync(&cancelled, source, target, &RecordingDelete);
  host.WaitForAsync();
  EXPECT_LT(cancelled.RowsDone(), 64);
  EXPECT_EQ(std::make_pair(log.Calls(target), log.Take(target)), std::make_pair(2, REALobject{nullptr}));
  for (REALobject object : {target, source}) host.Unlock(object);
}

// Every source the companion holds has a result it holds: result rows are
// padded only as far as the cap leaves room. Shown under a cap of 4096 bytes
// with sources that reach it (as 16384 x 16384 RGBA reaches the real one).
TEST(EngineSizeCap, EverySourceWithinTheCapHasAResult) {
  rawfx::host::HostOptions options;
  options.maxBitmapBytes = 4096;
  rawfx::host::Host capped(options);
  REALobject effect = capped.New(kPolar);
  for (const auto& [width, height, format, bits] :
       {std::tuple{32, 32, kRGBA, 8}, {16, 32, kRGBA, 16}, {1, 4096, kGray, 8}, {4096, 1, kGray, 8},
        {3, 1365, kGray, 8}}) {
    SCOPED_TRACE(::testing::Message() << width << " x " << height << " at " << bits << " bits");
    EXPECT_EQ(capped.NewBitmap(width, height + 1, format, bits), nullptr) << "a row more is past the cap";
    REALobject source = NewPattern(capped, width, height, format, bits, 7);
    REALobject result = capped.Call<REALobject>(effect, kApply, source);
    ASSERT_NE(result, nullptr);
    EXPECT_LE(capped.Bitmap(result).rowBytes * height, 4096);
    for (REALobject object : {result, source}) capped.Unlock(object);
  }
  capped.Unlock(effect);
  EXPECT_EQ(capped.LiveObjectCount(), 0u);
}

}  // namespace
