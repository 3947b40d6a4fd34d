// MPImageFilterRaw: the superclass of the effects, whose instance data is the
// multiprocessing engine. It checks a run's arguments, makes the result
// bitmap, fills the parameter block's head, cuts the rows into parts and runs
// the effect's part function over them on the host's worker threads.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "host/host_internal.h"

namespace rawfx::host {

// An engine object's own state, behind word 1 of MPImageFilterData.
struct EngineState {
  Host::Impl* host;
  REALobject self;
  std::mutex mutex;
  bool cancelNextRun = false;              // a cancel requested while no run was going
  int32_t cancelAtRow = -1;                // CancelAtRow for the next run; -1: none
  std::vector<GenericMPParams*> running;   // heads of the runs under way
};

namespace {

// Result rows get padding of their own, so that a kernel that steps through
// the destination with the source's stride is caught.
constexpr int64_t kResultRowPadding = 24;

// The row stride of a run's result: the source's pixels plus the padding, or
// as much of it as the companion's size cap leaves room for, so that every
// source the companion holds has a result it holds too. Padding stays a
// whole number of samples. A size the companion cannot hold gives -1.
int64_t ResultRowBytes(const RawBitmap& source, int64_t maxBytes) {
  int64_t pixelBytes;
  if (source.height <= 0 || __builtin_mul_overflow(source.width, source.bytesPerPixel, &pixelBytes)) return -1;
  const int64_t sampleBytes = source.bitsPerChannel == 16 ? 2 : 1;
  const int64_t room = maxBytes / source.height - pixelBytes;
  return pixelBytes + std::clamp<int64_t>(room / sampleBytes * sampleBytes, 0, kResultRowPadding);
}

constexpr auto kProgressInterval = std::chrono::milliseconds(2);

// Bit values of formatFlags that name the source depth.
constexpr int32_t kFlag8Bit = 1;
constexpr int32_t kFlag16Bit = 2;

struct Request {
  EngineCall::Operation operation;
  EngineState* state;
  void* params;
  PartFunction partFunction;
  PartFunction maskPartFunction;
  RawBitmap* source;
  REALobject mask;
  int32_t modeCode;
  int32_t formatFlags;
  int32_t resultFlag;
  ParamBlockDeleter deleteCallback;
};

// One run: its parts and how the end of the last part is reported.
struct Run {
  Host::Impl* host = nullptr;
  EngineState* state = nullptr;
  GenericMPParams* head = nullptr;
  PartFunction function = nullptr;
  REALobject result = nullptr;  // the new bitmap of a run that makes one
  uint8_t* uncleared = nullptr;  // its pixels, zeroed part by part
  size_t unclearedRowBytes = 0;
  std::vector<MPParamBlock> blocks;
  ThreadPool::Tasks tasks;  // the parts as the workers take them; none when they run on the starting thread
  bool cancelBetweenParts = false;  // CancelAtRow: two parts in order, cancel set between them
  std::atomic<size_t> remaining{0};
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  std::function<void()> whenDone;  // asynchronous runs: the completion
  void* asyncOnProgress = nullptr;  // asynchronous runs: the program's OnProgress handler, or nil
  std::mutex reportMutex;           // one report of an asynchronous run at a time
};

using RowRange = std::pair<int32_t, int32_t>;

// Rows cost unequal amounts in most effects (a polar row near the centre is
// not a row at the rim), so the workers take their parts from one queue, and
// the last parts shrink: once the rows left would give a worker fewer than
// kTailParts parts of full size, each part is that share of the rows left,
// down to one quad of rows. The workers then end within a few rows of each
// other rather than within a part. A full-size part is a 1/kPartsPerWorker
// share of one worker's rows: small enough that the rows RunPart clears are
// still in the worker's cache when the kernel fills them.
constexpr int kPartsPerWorker = 16;
constexpr int kTailParts = 2;

std::vector<RowRange> BalancedParts(int32_t height, int workers) {
  const int64_t quads = (int64_t{height} + 3) / 4;
  const int64_t fullSize = std::max<int64_t>(1, quads / (int64_t{workers} * kPartsPerWorker));
  std::vector<RowRange> ranges;
  for (int64_t first = 0; first < quads;) {
    const int64_t end = first + std::clamp<int64_t>((quads - first) / (int64_t{workers} * kTailParts), 1, fullSize);
    ranges.emplace_back(static_cast<int32_t>(4 * first), static_cast<int32_t>(std::min<int64_t>(4 * end, height)));
    first = end;
  }
  return ranges;
}

// Parts cut by a repeating list of sizes, after an optional first part.
std::vector<RowRange> PartsOfSizes(int32_t height, std::initializer_list<int32_t> sizes, int32_t firstSize) {
  std::vector<RowRange> ranges;
  int32_t row = 0;
  if (firstSize > 0 && height > 0) {
    ranges.emplace_back(0, std::min(firstSize, height));
    row = ranges.back().second;
  }
  for (size_t i = 0; row < height; ++i) {
    const int32_t size = *(sizes.begin() + i % sizes.size());
    const int32_t end = static_cast<int32_t>(std::min<int64_t>(int64_t{row} + size, height));
    ranges.emplace_back(row, end);
    row = end;
  }
  return ranges;
}

std::vector<RowRange> SplitRows(SplitPolicy policy, int32_t height, int workers) {
  switch (policy) {
    case SplitPolicy::SinglePart: return height > 0 ? std::vector<RowRange>{{0, height}} : std::vector<RowRange>{};
    case SplitPolicy::SmallParts: return PartsOfSizes(height, {1, 2, 3}, 0);
    case SplitPolicy::OddStarts: return PartsOfSizes(height, {2}, 1);
    case SplitPolicy::WithEmptyParts: {
      std::vector<RowRange> ranges;
      for (const RowRange& part : BalancedParts(height, workers)) {
        ranges.emplace_back(part.first, part.first);
        ranges.push_back(part);
      }
      ranges.emplace_back(height, height);
      return ranges;
    }
    case SplitPolicy::Balanced: break;
  }
  return BalancedParts(height, workers);
}

EngineState* StateOf(MPImageFilterData* engine) {
  return engine ? static_cast<EngineState*>(engine->engineState) : nullptr;
}

// A run is cancelled when it stopped on a cancel before all rows were done.
bool Cancelled(GenericMPParams* head) {
  return rawfx::CancelRequested(*head) && rawfx::ProgressOf(*head) < head->height;
}

// The bitmap object whose record source is, if it is one of this host's.
REALobject BitmapObjectOf(const Host::Impl& host, RawBitmap* source) {
  if (!source) return nullptr;
  auto object = reinterpret_cast<REALobject>(reinterpret_cast<uint8_t*>(source) - host.bitmapClass->dataOffset);
  return host.LiveClass(object) == host.bitmapClass ? object : nullptr;
}

bool DepthMatches(int bitsPerChannel, int32_t formatFlags) {
  if (bitsPerChannel == 8) return (formatFlags & kFlag8Bit) != 0;
  if (bitsPerChannel == 16) return (formatFlags & kFlag16Bit) != 0;
  return false;
}

void FillHead(GenericMPParams* head, RawBitmap* source, RawBitmap* destination, RawBitmapMaskData* maskData) {
  std::memset(head, 0, sizeof *head);
  head->width = static_cast<int32_t>(source->width);
  head->height = static_cast<int32_t>(source->height);
  head->srcPixels = BitmapPixels(source);
  head->dstPixels = BitmapPixels(destination);
  head->srcRowBytes = static_cast<int32_t>(BitmapRowBytes(source));
  head->dstRowBytes = static_cast<int32_t>(BitmapRowBytes(destination));
  head->srcPixelBytes = static_cast<int32_t>(source->bytesPerPixel);
  head->dstPixelBytes = static_cast<int32_t>(destination->bytesPerPixel);
  head->srcBitmap = source;
  head->dstBitmap = destination;
  head->maskData = maskData;
}

// The row a CancelAtRow asked to cut the next run at, once; -1 when none.
int32_t TakeCancelCut(EngineState& state) {
  std::lock_guard lock(state.mutex);
  return std::exchange(state.cancelAtRow, -1);
}

// Checks the request and readies run: result bitmap, head and parts. Nothing
// is made when a check fails.
bool Prepare(Host::Impl& host, const Request& request, Run& run) {
  RawBitmap* source = request.source;
  if (!request.params || !BitmapObjectOf(host, source) || !source->isValid) return false;
  if (!DepthMatches(source->bitsPerChannel, request.formatFlags)) return false;
  if (request.mask && !MaskCovers(host, request.mask, source)) return false;
  PartFunction function = request.mask ? request.maskPartFunction : request.partFunction;
  if (!function) return false;

  RawBitmap* destination = source;
  if (request.operation != EngineCall::PartsInPlace) {
    if (host.TakeResultFailure()) return false;
    run.result = host.MakeBitmap(source->width, source->height, source->format, source->bitsPerChannel,
                                 ResultRowBytes(*source, host.options.maxBitmapBytes),
                                 PixelClearing::ByCaller);
    if (!run.result) return false;
    destination = static_cast<RawBitmap*>(DataOf(run.result, host.bitmapClass));
    run.uncleared = BitmapPixels(destination);
    run.unclearedRowBytes = static_cast<size_t>(BitmapRowBytes(destination));
  }
  auto* head = static_cast<GenericMPParams*>(request.params);
  FillHead(head, source, destination, request.mask ? MaskDataOf(request.mask) : nullptr);

  run.host = &host;
  run.state = request.state;
  run.head = head;
  run.function = function;
  SplitPolicy policy;
  {
    std::lock_guard lock(host.mutex);
    policy = host.split;
  }
  std::vector<RowRange> ranges = SplitRows(policy, head->height, host.pool->size());
  if (const int32_t cut = TakeCancelCut(*request.state); cut >= 0 && cut < head->height) {
    ranges = {{0, cut}, {cut, head->height}};
    run.cancelBetweenParts = true;
  }
  for (const RowRange& range : ranges) run.blocks.push_back(MPParamBlock{range.first, range.second, 0, {}, head});
  return true;
}

EngineCall CallOf(const Request& request, int parts) {
  EngineCall call;
  call.operation = request.operation;
  call.modeCode = request.modeCode;
  call.formatFlags = request.formatFlags;
  call.resultFlag = request.resultFlag;
  call.partFunction = request.partFunction;
  call.maskPartFunction = request.maskPartFunction;
  call.mask = request.mask;
  call.params = request.params;
  call.deleteCallback = request.deleteCallback;
  call.parts = parts;
  return call;
}

void RecordCall(Host::Impl& host, const Request& request, int parts) {
  const EngineCall call = CallOf(request, parts);
  std::lock_guard lock(host.mutex);
  host.lastCall = call;
}

void ReportFromWorker(Run& run);

void Finish(Run& run) {
  if (run.whenDone) {
    run.whenDone();
    return;
  }
  std::lock_guard lock(run.mutex);
  run.done = true;
  run.finished.notify_all();
}

// Runs part i. A new result's rows are zeroed here, by the worker about to
// fill them: clearing scales with the cores and leaves the rows in its cache.
// Every row lies in exactly one part and every part runs, cancelled or not,
// so the whole result is cleared before anyone can see it.
void RunPart(Run& run, size_t i) {
  MPParamBlock& block = run.blocks[i];
  if (run.uncleared && block.endRow > block.firstRow)
    std::memset(run.uncleared + run.unclearedRowBytes * static_cast<size_t>(block.firstRow), 0,
                run.unclearedRowBytes * static_cast<size_t>(block.endRow - block.firstRow));
  run.function(&block);
  if (run.asyncOnProgress) ReportFromWorker(run);
}

// Runs every part in order on this thread; a run cut by CancelAtRow gets its
// cancel between its two parts.
void RunPartsInOrder(Run& run) {
  for (size_t i = 0; i < run.blocks.size(); ++i) {
    if (run.cancelBetweenParts && i == 1) rawfx::RequestCancel(*run.head);
    RunPart(run, i);
  }
}

// The tasks in which the workers will run the parts, made before the run
// starts. None on a worker thread: the parts run right there, as that thread
// may be the only worker there is.
void MakeTasks(Run& run) {
  if (run.blocks.empty() || ThreadPool::OnWorkerThread()) return;
  if (run.cancelBetweenParts) {
    run.tasks.emplace_back([&run] {
      RunPartsInOrder(run);
      Finish(run);
    });
    return;
  }
  for (size_t i = 0; i < run.blocks.size(); ++i)
    run.tasks.emplace_back([&run, i] {
      RunPart(run, i);
      if (run.remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) Finish(run);
    });
}

// Registers the run with its engine, where a cancel can reach it; a cancel
// armed for the engine's next run is this run's.
void Register(Run& run) {
  std::lock_guard lock(run.state->mutex);
  run.state->running.push_back(run.head);
  if (std::exchange(run.state->cancelNextRun, false)) rawfx::RequestCancel(*run.head);
}

// Hands the parts to the workers, or runs them here; nothing here allocates.
// Once the last part is handed over, run may end at any moment: read nothing
// of it after that.
void Start(Run& run) {
  const size_t parts = run.blocks.size();
  run.remaining.store(parts, std::memory_order_relaxed);
  if (parts == 0) {
    Finish(run);
  } else if (run.tasks.empty()) {
    RunPartsInOrder(run);
    Finish(run);
  } else {
    run.host->pool->Submit(std::move(run.tasks));
  }
}

void Unregister(Run& run) {
  std::lock_guard lock(run.state->mutex);
  auto& running = run.state->running;
  running.erase(std::remove(running.begin(), running.end(), run.head), running.end());
}

// Tells the observer and the program's OnProgress handler how far the run is;
// true when either asks for a cancel.
bool Report(Run& run, const std::function<bool(int64_t, int64_t)>& observer, void* onProgress) {
  const int64_t done = rawfx::ProgressOf(*run.head);
  const int64_t total = run.head->height;
  bool cancel = observer && !observer(done, total);
  if (onProgress) {
    bool handlerCancel = false;
    reinterpret_cast<OnProgressMethod>(onProgress)(run.state->self, static_cast<uint64_t>(done),
                                                   static_cast<uint64_t>(total), 0, &handlerCancel);
    cancel = cancel || handlerCancel;
  }
  return cancel;
}

// An asynchronous run has no waiting caller to report from: the worker that
// finishes a part tells the program's handler, one report at a time. A worker
// that finds another one reporting goes back to work rather than wait.
void ReportFromWorker(Run& run) {
  std::unique_lock lock(run.reportMutex, std::try_to_lock);
  if (lock.owns_lock() && Report(run, {}, run.asyncOnProgress)) rawfx::RequestCancel(*run.head);
}

// Whom a synchronous run reports its progress to, found before it starts.
struct Listeners {
  std::function<bool(int64_t, int64_t)> observer;
  void* onProgress;
};

Listeners ListenersOf(const Run& run) {
  Listeners listeners{{}, run.host->FindMethod(run.state->self, kOnProgressDecl)};
  std::lock_guard lock(run.host->mutex);
  listeners.observer = run.host->observer;
  return listeners;
}

// The calling thread waits for the parts, reporting progress as it changes.
void WaitReporting(Run& run, const Listeners& listeners) {
  const auto& [observer, onProgress] = listeners;
  int32_t reported = -1;
  std::unique_lock lock(run.mutex);
  while (!run.finished.wait_for(lock, kProgressInterval, [&] { return run.done; })) {
    lock.unlock();
    if (rawfx::ProgressOf(*run.head) != reported) {
      reported = rawfx::ProgressOf(*run.head);
      if (Report(run, observer, onProgress)) rawfx::RequestCancel(*run.head);
    }
    lock.lock();
  }
  lock.unlock();
  Report(run, observer, onProgress);
}

// Shows an accepted run to the inspector, if a test or fuzz target set one.
void Inspect(Host::Impl& host, const Request& request, const Run& run) {
  Host::RunInspector inspector;
  {
    std::lock_guard lock(host.mutex);
    inspector = host.inspector;
  }
  if (inspector)
    inspector(CallOf(request, static_cast<int>(run.blocks.size())), *run.head, run.blocks,
              run.result ? run.result : BitmapObjectOf(host, request.source));
}

// A cancel requested for the next run is meant for a run that starts; a
// refused one drops it, so that it cannot stop a later, unrelated run.
void DropArmedCancel(EngineState& state) {
  std::lock_guard lock(state.mutex);
  state.cancelNextRun = false;
}

void Refused(Host::Impl& host, const Request& request) {
  RecordCall(host, request, 0);
  DropArmedCancel(*request.state);
}

// A block that a run still holds is not touched: no run starts, nothing is
// disposed of or completed, and lastError tells the caller why.
void RefuseHeldBlock(MPImageFilterData* engine, const Request& request) {
  engine->lastError = rawfx::kErrorInvalidArgument;
  Refused(*request.state->host, request);
}

// Everything a run needs before it starts, made while nothing runs (and,
// for a synchronous run, its listeners found), with a shortage of memory taken
// as a refusal: the engine is called from the plug-in, through which no
// exception may pass. What was made is given back, and the caller learns of
// the refusal from the nil result.
bool PrepareOrRefuse(Host::Impl& host, const Request& request, Run& run, Listeners* listeners = nullptr) {
  try {
    if (Prepare(host, request, run)) {
      if (listeners) *listeners = ListenersOf(run);
      MakeTasks(run);
      Register(run);
      RecordCall(host, request, static_cast<int>(run.blocks.size()));
      return true;
    }
  } catch (const std::bad_alloc&) {
    host.Unlock(std::exchange(run.result, nullptr));
  }
  Refused(host, request);
  return false;
}

REALobject RunClaimed(const Request& request) {
  Host::Impl& host = *request.state->host;
  Run run;
  Listeners listeners;
  if (!PrepareOrRefuse(host, request, run, &listeners)) return nullptr;
  Start(run);
  WaitReporting(run, listeners);
  Unregister(run);
  Inspect(host, request, run);
  if (Cancelled(run.head)) {
    host.Unlock(run.result);
    return nullptr;
  }
  // In place there is no new bitmap; the source is named, not handed over.
  return run.result ? run.result : BitmapObjectOf(host, request.source);
}

REALobject RunSync(MPImageFilterData* engine, const Request& request) {
  Host::Impl& host = *request.state->host;
  if (!host.ClaimBlock(request.params)) {
    RefuseHeldBlock(engine, request);
    return nullptr;
  }
  REALobject result = RunClaimed(request);
  host.ReleaseBlock(request.params);
  return result;
}

struct AsyncRun {
  Request request;
  REALobject self;
  REALobject sourceObject;
  REALobject completeTarget;
  void* completeMethod;
  Run run;
  bool prepared = false;
};

// Gives the block back once no part reads it: to the effect's delete
// callback, or to the global operator delete when there is none.
void DisposeOfBlock(Host::Impl& host, const Request& request, REALobject self) {
  void* params = request.params;
  if (!params) return;
  host.ReleaseBlock(params);
  if (request.deleteCallback) {
    host.deleteCallbacks.fetch_add(1, std::memory_order_relaxed);
    request.deleteCallback(self, static_cast<GenericMPParams*>(params));
  } else {
    host.blocksDeleted.fetch_add(1, std::memory_order_relaxed);
    ::operator delete(params);
  }
}

// The end of an asynchronous run, on the worker that finished it: one
// disposal of the parameter block, then one call of the completion method
// (the result lent for the call), then the locks taken for the run are given
// back. The block goes first so that a completion method may start the
// effect's next run with it.
void CompleteAsync(AsyncRun* async) {
  Host::Impl& host = *async->request.state->host;
  Run& run = async->run;
  if (async->prepared) {
    Unregister(run);
    Inspect(host, async->request, run);
  }
  if (async->prepared && run.asyncOnProgress) Report(run, {}, run.asyncOnProgress);  // the last word, as in a sync run
  REALobject result = async->prepared && !Cancelled(run.head) ? run.result : nullptr;
  if (!result) host.Unlock(run.result);
  DisposeOfBlock(host, async->request, async->self);
  if (async->completeMethod) {
    host.completionCalls.fetch_add(1, std::memory_order_relaxed);
    reinterpret_cast<CompletionMethod>(async->completeMethod)(async->completeTarget, result);
  }
  host.Unlock(result);
  for (REALobject held : {async->request.mask, async->completeTarget, async->sourceObject, async->self})
    host.Unlock(held);
  delete async;
  {
    std::lock_guard lock(host.asyncMutex);
    --host.asyncRuns;
  }
  host.asyncFinished.notify_all();
}

void RunAsync(AsyncRun* async) {
  Host::Impl& host = *async->request.state->host;
  for (REALobject held : {async->self, async->sourceObject, async->completeTarget, async->request.mask})
    host.Lock(held);
  {
    std::lock_guard lock(host.asyncMutex);
    ++host.asyncRuns;
  }
  host.asyncStarted.fetch_add(1, std::memory_order_relaxed);
  async->prepared = PrepareOrRefuse(host, async->request, async->run);
  async->run.whenDone = [async] { CompleteAsync(async); };
  if (async->prepared) {
    async->run.asyncOnProgress = host.FindMethod(async->self, kOnProgressDecl);
    Start(async->run);
    return;
  }
  try {
    host.pool->Submit([async] { CompleteAsync(async); });
  } catch (const std::bad_alloc&) {
    CompleteAsync(async);  // on this thread, as no worker can be asked
  }
}

// ---- the operation table ------------------------------------------------------------------

REALobject ProcessParts(MPImageFilterData* engine, void* params, PartFunction partFunction,
                        PartFunction maskPartFunction, RawBitmap* source, REALobject mask, int32_t modeCode,
                        int32_t formatFlags, int32_t resultFlag) {
  EngineState* state = StateOf(engine);
  if (!state) return nullptr;
  return RunSync(engine, {EngineCall::Parts, state, params, partFunction, maskPartFunction, source, mask, modeCode,
                          formatFlags, resultFlag, nullptr});
}

REALobject ProcessPartsInPlace(MPImageFilterData* engine, void* params, PartFunction partFunction,
                               PartFunction maskPartFunction, RawBitmap* source, REALobject mask, int32_t modeCode,
                               int32_t formatFlags) {
  EngineState* state = StateOf(engine);
  if (!state) return nullptr;
  return RunSync(engine, {EngineCall::PartsInPlace, state, params, partFunction, maskPartFunction, source, mask,
                          modeCode, formatFlags, 0, nullptr});
}

void ProcessPartsAsync(REALobject self, MPImageFilterData* engine, REALobject sourceObject, void* params,
                       PartFunction partFunction, PartFunction maskPartFunction, RawBitmap* source, REALobject mask,
                       int32_t modeCode, int32_t formatFlags, int32_t resultFlag, REALobject completeTarget,
                       void* completeMethod, ParamBlockDeleter deleteCallback) {
  EngineState* state = StateOf(engine);
  if (!state) return;
  const Request request{EngineCall::PartsAsync, state, params, partFunction, maskPartFunction, source, mask,
                        modeCode, formatFlags, resultFlag, deleteCallback};
  if (!state->host->ClaimBlock(params)) {
    RefuseHeldBlock(engine, request);
    return;
  }
  auto* async = new (std::nothrow) AsyncRun{request, self, sourceObject, completeTarget, completeMethod, {}, false};
  if (!async) {  // nothing runs: the block goes back at once and lastError says why
    engine->lastError = rawfx::kErrorOutOfMemory;
    Refused(*state->host, request);
    DisposeOfBlock(*state->host, request, self);
    return;
  }
  RunAsync(async);
}

const MPEngineOps kEngineOps = {nullptr, nullptr, &ProcessParts, &ProcessPartsInPlace, nullptr, &ProcessPartsAsync};

MPImageFilterData* EngineDataOf(REALobject self) {
  return static_cast<MPImageFilterData*>(DataOf(self, HostOf(self)->filterClass));
}

void FilterInit(REALobject self) {
  MPImageFilterData* engine = EngineDataOf(self);
  engine->ops = &kEngineOps;
  engine->engineState = new EngineState{HostOf(self), self, {}, false, -1, {}};
}

void FilterDestroy(REALobject self) {
  MPImageFilterData* engine = EngineDataOf(self);
  delete static_cast<EngineState*>(engine->engineState);
  engine->engineState = nullptr;
}

}  // namespace

void Host::Impl::AddFilterClass() {
  ClassInfo* filter = AddClass("MPImageFilterRaw", nullptr, sizeof(MPImageFilterData));
  filter->constructor = &FilterInit;
  filter->destructor = &FilterDestroy;
  filterClass = filter;
}

void Host::Impl::RequestCancel(REALobject effect) {
  if (!owner.IsA(effect, filterClass->name)) throw HostError(owner.ClassName(effect) + " has no engine");
  EngineState* state = StateOf(EngineDataOf(effect));
  std::lock_guard lock(state->mutex);
  if (state->running.empty()) state->cancelNextRun = true;
  for (GenericMPParams* head : state->running) rawfx::RequestCancel(*head);
}

// Without memory to record the claim the run goes ahead unguarded rather
// than being refused as if the block were held.
bool Host::Impl::ClaimBlock(const void* params) {
  if (!params) return true;  // nothing to hold; the run's checks refuse it
  std::lock_guard lock(mutex);
  try {
    return blocksInFlight.insert(params).second;
  } catch (const std::bad_alloc&) {
    return true;
  }
}

void Host::Impl::ReleaseBlock(const void* params) {
  std::lock_guard lock(mutex);
  blocksInFlight.erase(params);
}

void Host::Impl::EndCall(REALobject object) {
  const ClassInfo* cls = LiveClass(object);
  while (cls && cls != filterClass) cls = cls->super;
  if (EngineState* state = cls ? StateOf(EngineDataOf(object)) : nullptr) DropArmedCancel(*state);
}

void Host::Impl::WaitForAsync() {
  {
    std::unique_lock lock(asyncMutex);
    asyncFinished.wait(lock, [this] { return asyncRuns == 0; });
  }
  DrainDeferredDestruction();
}

// ---- Host: the engine -------------------------------------------------------------------------

int64_t Host::LastError(REALobject effect) const {
  auto* engine = static_cast<MPImageFilterData*>(ClassData(effect, "MPImageFilterRaw"));
  if (!engine) throw HostError(ClassName(effect) + " has no engine");
  return engine->lastError;
}

void Host::SetThreads(int threads) {
  auto retired = std::make_unique<ThreadPool>(threads > 0 ? threads : DefaultThreads());
  std::swap(impl_->pool, retired);
  retired.reset();  // runs what it still had queued, then joins its workers
}

int Host::threads() const { return impl_->pool->size(); }

void Host::SetSplitPolicy(SplitPolicy policy) {
  std::lock_guard lock(impl_->mutex);
  impl_->split = policy;
}

void Host::SetProgressObserver(std::function<bool(int64_t done, int64_t total)> observer) {
  std::lock_guard lock(impl_->mutex);
  impl_->observer = std::move(observer);
}

void Host::RequestCancel(REALobject effect) { impl_->RequestCancel(effect); }

void Host::EndCall(REALobject self) noexcept { impl_->EndCall(self); }

void Host::WaitForAsync() { impl_->WaitForAsync(); }

EngineCall Host::lastEngineCall() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->lastCall;
}

// ---- Host: fault injection and inspection -------------------------------------------------

// Counts one refusal off, unless none is left; concurrent runs take one each.
bool Host::Impl::TakeResultFailure() {
  int left = resultFailures.load(std::memory_order_relaxed);
  do {
    if (left <= 0) return false;
  } while (!resultFailures.compare_exchange_weak(left, left - 1, std::memory_order_relaxed));
  return true;
}

void Host::FailResultCreation(int count) { impl_->resultFailures.store(std::max(count, 0)); }

void Host::CancelAtRow(REALobject effect, int32_t row) {
  if (!IsA(effect, impl_->filterClass->name)) throw HostError(ClassName(effect) + " has no engine");
  EngineState* state = StateOf(EngineDataOf(effect));
  std::lock_guard lock(state->mutex);
  state->cancelAtRow = std::max(row, int32_t{0});
}

void Host::SetRunInspector(RunInspector inspector) {
  std::lock_guard lock(impl_->mutex);
  impl_->inspector = std::move(inspector);
}

Host::AsyncCounts Host::asyncCounts() const {
  return {impl_->asyncStarted.load(), impl_->completionCalls.load(), impl_->blocksDeleted.load(),
          impl_->deleteCallbacks.load()};
}

}  // namespace rawfx::host
