// Shared by the fault and host tests: the effects' method declarations,
// effects set to change pixels, patterned bitmaps and their bytes, and a
// completion method that keeps what asynchronous runs hand back.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "host/host.h"
#include "support/host_fixture.h"

namespace rawfx::test::fault {

inline constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
inline constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
inline constexpr const char* kApplyAsync =
    "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
inline constexpr const char* kInterlace = "InterlaceEffectRaw";
inline constexpr const char* kBarrel = "BarrelDistortEffectRaw";
inline constexpr const char* kOilPaint = "OilPaintEffectRaw";
inline constexpr const char* kPolar = "PolarCoordinatesEffectRaw";
inline constexpr const char* kEffectClasses[] = {kInterlace, kBarrel, kOilPaint, kPolar};  // registration order
inline constexpr int64_t kGray = 0, kRGBA = 5, kCMYK = 13;

// A new effect whose settings change pixels: interlace fills every other row,
// barrel distorts with a keystone.
REALobject NewEffect(host::Host& host, const char* className);

// A new bitmap filled by FillPattern with seed.
REALobject NewPattern(host::Host& host, int64_t width, int64_t height, int64_t format, int bits, uint32_t seed,
                      int64_t rowPadding = 0);

std::vector<uint8_t> Pixels(host::Host& host, REALobject bitmap);             // every byte, padding included
std::vector<std::vector<uint8_t>> Rows(host::Host& host, REALobject bitmap);  // each row, padding excluded

// Counts the completions of asynchronous runs by target and keeps each
// result locked (one run per target at a time). Completions reach the newest log.
class CompletionLog {
 public:
  explicit CompletionLog(host::Host& host) : host_(host) { active_ = this; }
  ~CompletionLog() { active_ = active_ == this ? nullptr : active_; }
  CompletionLog(const CompletionLog&) = delete;
  CompletionLog& operator=(const CompletionLog&) = delete;

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
  std::map<REALobject, int> calls_;
  std::map<REALobject, REALobject> results_;
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
