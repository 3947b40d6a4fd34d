// What the tests of the four effect classes share: a fixture that keeps the
// objects a test makes and sees every run the engine accepts, and the checks
// that every effect needs: runs compared byte for byte with the reference
// kernels over the engine's own parts under every split policy, refused runs,
// properties that hold an object, and background colours in a
// bitmap's channel order.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "support/host_fixture.h"

namespace rawfx::test {

// RawBitmap format codes the tests use.
inline constexpr int64_t kGrey = 0, kRGB = 3, kRGBA = 5, kARGB = 6, kBGRA = 7, kXRGB = 9, kCMYK = 13, kCMYKA = 14;

// The three methods every effect has (not all of them each); the engine must get
// a run of Apply as Parts, of ApplyInPlace as PartsInPlace, of ApplyAsync as PartsAsync.
enum class Via { Apply, InPlace, Async };

// How an effect must hand a run to the engine, besides the operation.
struct ExpectedCall {
  int32_t modeCode;
  int32_t formatFlags;
  REALobject mask;
  bool onePartFunction;  // the same function passed as plain and as masked part
};

// The pixel bytes of a bitmap, rows packed (padding excluded).
std::vector<uint8_t> PixelBytes(rawfx::host::Host& host, REALobject bitmap);

// The value a colour gives each channel of a bitmap of that format and depth,
// in the bitmap's order: the colour converted to the bitmap's family, alpha
// only when includeAlpha, -1 for a channel that carries no component.
std::vector<int32_t> BackgroundValues(rawfx::host::Host& host, REALobject colour, int64_t format, int bits,
                                      bool includeAlpha);

class EffectTest : public HostTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Released at the end of the test, before the leak check.
  REALobject Keep(REALobject object) {
    if (object) kept_.push_back(object);
    return object;
  }
  // A kept bitmap of pattern pixels with padded rows.
  REALobject NewSource(int64_t width, int64_t height, int64_t format, int bits = 8, uint32_t seed = 1);
  // Runs the method on source to its end: the result with a reference for the
  // caller, or nil; the source itself after ApplyInPlace. ApplyAsync completes
  // on an object the fixture keeps, made before any test watches allocations.
  REALobject Run(Via via, REALobject effect, REALobject source);
  int64_t& LastError(REALobject effect) {
    return static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"))->lastError;
  }
  // The last run the engine accepted, as its run inspector saw it.
  struct SeenRun {
    int count = 0;  // runs accepted so far
    rawfx::host::EngineCall call;
    std::vector<MPParamBlock> parts;
  };
  SeenRun Seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  // Both views of a colour, to show that a run left it as it was.
  std::string ColourState(REALobject colour);

  // Runs `run` (by default the method `via`) with 1 and 4 workers under every
  // split policy. Each run must be handed to the engine as `via` and `expected`
  // say, leave lastError as it was, leave the source unchanged and the result's
  // row padding zero, and give what referencePart makes of the source over the
  // engine's own parts with params (its head filled here, the effect's fields
  // by the caller). `run` returns the destination: a result with a reference
  // for the caller, or the source itself after an in-place run (restored here afterwards).
  void ExpectMatchesReference(REALobject effect, REALobject source, void* params, PartFunction referencePart, Via via,
                              const ExpectedCall& expected, std::function<REALobject()> run = {});
  // `run` must give nil, store `code` (over another code stored before), start
  // no run and no completion, and leave the source's memory as it was.
  void ExpectRefused(REALobject effect, REALobject source, int64_t code, const std::function<REALobject()>& run);
  // The same for each of the methods.
  void ExpectRefused(REALobject effect, REALobject source, int64_t code, std::initializer_list<Via> vias) {
    for (Via via : vias) {
      SCOPED_TRACE(testing::Message() << "method " << static_cast<int>(via));
      ExpectRefused(effect, source, code, [&] {
        const REALobject result = Run(via, effect, source);
        return via == Via::InPlace ? nullptr : result;
      });
    }
  }
  // The effect holds exactly one lock on the object in property: setting it
  // twice takes one, the getter hands out its own, nil is ignored (colours)
  // or removes the object (masks), and a replaced object is released.
  void ExpectHoldsOneLock(REALobject effect, const char* property, REALobject first, REALobject second,
                          bool nilRemoves);

 private:
  static void RecordCompletion(REALobject target, REALobject result);

  std::mutex mutex_;  // completions and the inspector run on engine workers
  SeenRun seen_;
  int completions_ = 0;
  REALobject completionTarget_ = nullptr;
  REALobject completionResult_ = nullptr;
  REALobject completeTarget_ = nullptr;  // the target Run gives ApplyAsync
  std::vector<REALobject> kept_;
};

}  // namespace rawfx::test
