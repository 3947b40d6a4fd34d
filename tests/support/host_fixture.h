// Shared by the tests that run the plug-in inside the embedding host: a fixture
// that checks nothing is left alive, patterned bitmaps, the effects' methods and
// a log of asynchronous completions, and forked children for what needs a fresh
// process (start-up, stub caches that bind once). It brings the test framework,
// the host and the standard containers those tests use.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "host/host.h"

namespace rawfx::test {

// A fresh host (with its own copy of the module) per test. TearDown waits for
// asynchronous runs and then checks that the test left no object alive and
// released nothing twice.
class HostTest : public ::testing::Test {
 protected:
  void TearDown() override;

  rawfx::host::Host host;
};

// Same size, format and depth, and the same pixel bytes (padding excluded);
// on a difference, says where the first one is.
::testing::AssertionResult SamePixels(rawfx::host::Host& host, REALobject a, REALobject b);

// A host that is nothing but a resolver: the names it knows and every name it was asked.
struct ScriptedHost {
  std::map<std::string, void*, std::less<>> known;
  std::vector<std::string> asked;

  template <typename Fn>
  void Learn(const char* name, Fn* routine) {
    known[name] = reinterpret_cast<void*>(routine);
  }
  int Asks(std::string_view name) const { return int(std::count(asked.begin(), asked.end(), name)); }
};

// Runs body in a forked child (so every stub cache starts empty) with the
// plug-in's resolver answering from a new scripted host; expectations that fail
// in the child print there and fail the case here.
void InFreshProcess(const std::function<void(ScriptedHost&)>& body);

}  // namespace rawfx::test

// The vocabulary of the fault and engine tests.
namespace rawfx::test::fault {

inline constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
inline constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
inline constexpr const char* kApplyAsync =
    "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
inline constexpr const char* kPolarApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";
inline constexpr const char* kInterlace = "InterlaceEffectRaw";
inline constexpr const char* kBarrel = "BarrelDistortEffectRaw";
inline constexpr const char* kOilPaint = "OilPaintEffectRaw";
inline constexpr const char* kPolar = "PolarCoordinatesEffectRaw";
inline constexpr const char* kEffectClasses[] = {kInterlace, kBarrel, kOilPaint, kPolar};  // registration order
inline constexpr int64_t kGray = 0, kRGBA = 5, kCMYK = 13;

// A new effect whose settings change pixels: interlace fills every other row,
// barrel distorts with a keystone.
REALobject NewEffect(host::Host& host, const char* className);

// A new bitmap whose pixel bytes (padding excluded) are pseudo-random values
// that depend only on seed, the same on every machine.
REALobject NewPattern(host::Host& host, int64_t width, int64_t height, int64_t format, int bits, uint32_t seed,
                      int64_t rowPadding = 0);

std::vector<uint8_t> Pixels(host::Host& host, REALobject bitmap);             // every byte, padding included
std::vector<std::vector<uint8_t>> Rows(host::Host& host, REALobject bitmap);  // each row, padding excluded
int64_t& LastErrorField(host::Host& host, REALobject effect);                 // to clear it before a run

// Counts the completions of asynchronous runs by target and keeps each
// result locked (one run per target at a time). Completions reach the newest log.
class CompletionLog {
 public:
  explicit CompletionLog(host::Host& host) : host_(host) { active_ = this; }
  ~CompletionLog() { active_ = active_ == this ? nullptr : active_; }

  void* method() const { return reinterpret_cast<void*>(&Complete); }  // the completeMethod of ApplyAsync
  int Calls(REALobject target) const;
  int TotalCalls() const;
  REALobject Take(REALobject target);  // the result kept for target (nil: none), with the log's reference
  void Clear();  // unlocks the results still kept and forgets every call: a later object may reuse an address

  bool releaseTarget = false;  // the completion drops the program's reference on its target

 private:
  static void Complete(REALobject target, REALobject result);  // on an engine worker

  static inline CompletionLog* active_ = nullptr;
  host::Host& host_;
  mutable std::mutex mutex_;
  std::map<REALobject, std::pair<int, REALobject>> calls_;  // by target: completions and the result kept
};

// A HostTest whose completion log gives its results back before the leak check.
class AsyncHostTest : public rawfx::test::HostTest {
 protected:
  void TearDown() override;

  CompletionLog log{host};
};

enum class Method { Apply, InPlace, Async };

// Runs the method with a nil completion target and waits for it; the result
// comes with one reference for the caller (nil when none, always nil in place).
// An asynchronous run must complete exactly once unless the effect stored an error.
REALobject RunEffect(host::Host& host, REALobject effect, Method method, REALobject source, CompletionLog& log);

}  // namespace rawfx::test::fault
