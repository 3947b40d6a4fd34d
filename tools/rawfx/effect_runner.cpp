#include "tools/rawfx/effect_runner.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

// Leaves no observer behind that points into a finished run.
struct ObserverScope {
  host::Host& host;
  ~ObserverScope() { host.SetProgressObserver(nullptr); }
};

void ApplySettings(host::Host& host, REALobject effect, const EffectJob& job) {
  for (const PropertySetting& setting : job.properties) {
    std::visit([&](auto value) { host.Set(effect, setting.name, value); }, setting.value);
  }
  if (job.backColour && job.effect->backColour) {
    const ColourOption& c = *job.backColour;
    HostRef colour(host, c.cmyk ? host.NewCMYKColor(c.parts[0], c.parts[1], c.parts[2], c.parts[3], c.alpha)
                                : host.NewRGBColor(c.parts[0], c.parts[1], c.parts[2], c.alpha));
    host.Set(effect, "BackColor", colour.get());
  }
}

// The completion of an asynchronous run. The engine calls a plain function with
// the completion target and the result, so the run's outcome is found through the
// target: the tool passes the effect object itself and runs one effect at a time.
struct AsyncOutcome {
  std::mutex mutex;
  host::Host* host = nullptr;
  REALobject target = nullptr;
  REALobject result = nullptr;
  bool completed = false;
};
AsyncOutcome gAsync;

void OnAsyncComplete(REALobject target, REALobject result) {
  const std::lock_guard<std::mutex> lock(gAsync.mutex);
  if (target != gAsync.target) return;
  if (result) gAsync.host->Lock(result);  // the result is lent for the call
  gAsync.result = result;
  gAsync.completed = true;
}

// Waits for the asynchronous run on a helper thread while this thread turns a
// Ctrl-C into the engine's cancel request.
REALobject RunAsync(host::Host& host, REALobject effect, REALobject source) {
  {
    const std::lock_guard<std::mutex> lock(gAsync.mutex);
    gAsync.host = &host;
    gAsync.target = effect;
    gAsync.result = nullptr;
    gAsync.completed = false;
  }
  host.Call<void, REALobject, REALobject, void*>(effect, kApplyAsync, source, effect,
                                                  reinterpret_cast<void*>(&OnAsyncComplete));
  std::atomic<bool> finished{false};
  std::thread waiter([&] {
    host.WaitForAsync();
    finished = true;
  });
  bool cancelRequested = false;
  while (!finished) {
    if (Interrupted() && !cancelRequested) {
      host.RequestCancel(effect);
      cancelRequested = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  waiter.join();
  const std::lock_guard<std::mutex> lock(gAsync.mutex);
  gAsync.target = nullptr;
  return gAsync.result;
}

// ApplyInPlace has no result: a run that stored no new error code changed the
// source, which is then the result (with a reference of its own).
REALobject ApplyInPlace(host::Host& host, REALobject effect, REALobject source) {
  const int64_t errorBefore = host.LastError(effect);
  host.Call<void, REALobject>(effect, kApplyInPlace, source);
  if (host.LastError(effect) != errorBefore) return nullptr;
  host.Lock(source);
  return source;
}

[[noreturn]] void ThrowCancelled() { throw ToolError(InterruptedStatus(), InterruptedMessage()); }

}  // namespace

bool IsRegistered(const host::Host& host, const EffectInfo& effect) {
  const std::vector<std::string> names = host.registeredClassNames();
  return std::find(names.begin(), names.end(), effect.className) != names.end();
}

REALobject RunEffect(host::Host& host, const EffectJob& job, REALobject source, ProgressBar& progress,
                     RunReport* report) {
  const EffectInfo& info = *job.effect;
  if (!IsRegistered(host, info)) {
    throw ToolError(kExitEffectRefused, "the " + std::string(info.title) + " effect (" + std::string(info.className) +
                                            ") is not in this build of the plug-in");
  }
  HostRef effect(host, host.New(info.className));
  if (!effect.get()) throw ToolError(kExitEffectRefused, "cannot create " + std::string(info.className));
  ApplySettings(host, effect.get(), job);
  std::optional<HostRef> maskBitmap, mask;
  if (job.mask && info.mask) {
    maskBitmap.emplace(host, NewBitmapFromImage(host, *job.mask));
    mask.emplace(host, host.NewMask(maskBitmap->get()));
    host.Set(effect.get(), "Mask", mask->get());
  }

  ObserverScope observerScope{host};
  host.SetProgressObserver([&progress](int64_t done, int64_t total) {
    progress.update(done, total);
    return !Interrupted();
  });
  const bool inPlace = job.inPlace && info.inPlace;
  const bool async = job.async && info.async && !inPlace;
  REALobject result = nullptr;
  double seconds = 0;
  {
    EngineCancelScope cancelThroughEngine;
    if (Interrupted()) ThrowCancelled();
    const auto start = std::chrono::steady_clock::now();
    result = inPlace ? ApplyInPlace(host, effect.get(), source)
             : async ? RunAsync(host, effect.get(), source)
                     : host.Call<REALobject, REALobject>(effect.get(), kApply, source);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  HostRef resultRef(host, result);

  if (Interrupted()) ThrowCancelled();
  const host::BitmapView view = host.Bitmap(source);
  if (!result) {
    const int64_t code = host.LastError(effect.get());
    if (code == 0 && !HostCanMake(host, view)) {
      throw ToolError(kExitBadInput, "not enough memory for the " + std::string(info.title) + " result; nothing was written");
    }
    throw ToolError(kExitEffectRefused, ExplainEffectError(info, code, view.bitsPerChannel));
  }
  if (report) *report = {seconds, host.threads(), async, inPlace};
  return resultRef.release();
}

}  // namespace rawfx::tool
