// Cancellation of every effect and method at every row of a small image and
// before a run starts: a stopped run gives nil (or, in place, leaves the rows
// after the stop as they were), the rows before the stop are the full run's,
// and nothing is leaked. A cancel from the progress observer, landing wherever
// a run is, gives nil or the whole result. A cancel requested before a call
// that the effect refuses does not stop the run after it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/fault_checks.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using rawfx::host::SplitPolicy;
using RowBytes = std::vector<std::vector<uint8_t>>;

// One effect, one of its methods and one depth.
struct Case {
  const char* className;
  Method method;
  int bits;
};
const Case kCases[] = {
    {kInterlace, Method::Apply, 8},    {kInterlace, Method::Apply, 16}, {kInterlace, Method::InPlace, 8},
    {kInterlace, Method::InPlace, 16}, {kPolar, Method::Apply, 8},      {kPolar, Method::Apply, 16},
    {kPolar, Method::Async, 8},        {kPolar, Method::Async, 16},     {kBarrel, Method::Apply, 8},
    {kBarrel, Method::Apply, 16},      {kBarrel, Method::Async, 8},     {kBarrel, Method::Async, 16},
    {kOilPaint, Method::Apply, 8},
};

const char* const kMethodNames[] = {"Apply", "ApplyInPlace", "ApplyAsync"};  // by Method

class FaultCancel : public AsyncHostTest {
 protected:
  static constexpr int32_t kWidth = 7, kHeight = 9;
  static constexpr uint32_t kSeed = 77;

  // What the inspector saw when the run ended: progress, cancel, parts and the destination's rows.
  struct Seen {
    int runs = 0;
    int32_t progress = -1;
    bool cancel = false;
    std::vector<std::pair<int32_t, int32_t>> parts;
    RowBytes rows;
  } seen;

  void SetUp() override {
    host.SetRunInspector([this](const rawfx::host::EngineCall&, const GenericMPParams& params,
                                const std::vector<MPParamBlock>& parts, REALobject destination) {
      seen = {seen.runs + 1, params.progress, params.cancel != 0, {}, Rows(host, destination)};
      for (const MPParamBlock& part : parts) seen.parts.emplace_back(part.firstRow, part.endRow);
    });
  }
  void TearDown() override {
    host.SetRunInspector(nullptr);
    AsyncHostTest::TearDown();
  }

  // The destination rows of an uncancelled run of the case.
  RowBytes FullRun(const Case& c, SplitPolicy policy) {
    host.SetSplitPolicy(policy);
    REALobject effect = NewEffect(host, c.className);
    REALobject source = NewPattern(host, kWidth, kHeight, kRGBA, c.bits, kSeed, 6);
    REALobject result = RunEffect(host, effect, c.method, source, log);
    RowBytes rows = Rows(host, c.method == Method::InPlace ? source : result);
    for (REALobject object : {result, source, effect}) host.Unlock(object);
    host.SetSplitPolicy(SplitPolicy::Balanced);
    return rows;
  }
};

// What each row holds when it is processed after the rows before it in the
// same part (following), and as the first row of a part (starting). Interlace
// starts its row phase afresh in every part, so a part that starts at an odd row
// fills differently; with OddStarts every odd row starts a part, and balanced
// parts start at even rows. The other effects give the same rows for any split.
// Row -1 stands for a cancel requested before the run, with the parts [0,1)
// [1,3) [3,6) [6,7) [7,9): each part does its first row only.
TEST_F(FaultCancel, CancelAtEveryRowOrBeforeTheRunStopsAfterThatRowAndLeaksNothing) {
  for (const Case& c : kCases) {
    const RowBytes following = FullRun(c, SplitPolicy::Balanced);
    RowBytes starting = following;
    const RowBytes oddStarts = FullRun(c, SplitPolicy::OddStarts);
    for (size_t y = 1; y < oddStarts.size(); y += 2) starting[y] = oddStarts[y];
    for (int32_t row = -1; row <= kHeight; ++row) {
      SCOPED_TRACE(std::string(c.className) + "." + kMethodNames[int(c.method)] + " at " + std::to_string(c.bits) +
                   " bits, cancel at row " + std::to_string(row));
      REALobject effect = NewEffect(host, c.className);
      REALobject source = NewPattern(host, kWidth, kHeight, kRGBA, c.bits, kSeed, 6);
      const RowBytes original = Rows(host, source);
      seen = {};
      if (row < 0) {
        host.SetSplitPolicy(SplitPolicy::SmallParts);
        host.RequestCancel(effect);
      } else {
        host.CancelAtRow(effect, row);
      }
      REALobject result = RunEffect(host, effect, c.method, source, log);
      host.SetSplitPolicy(SplitPolicy::Balanced);

      const auto done = [&](int32_t y) { return row < 0 ? y == 0 || y == 1 || y == 3 || y == 6 || y == 7 : y <= row; };
      const int32_t rowsDone = row < 0 ? 5 : std::min(row + 1, kHeight);
      ASSERT_EQ(seen.runs, 1);
      EXPECT_EQ(seen.progress, rowsDone);
      EXPECT_EQ(seen.cancel, row < kHeight);
      if (row >= 0 && row < kHeight) {
        EXPECT_EQ(seen.parts, (std::vector<std::pair<int32_t, int32_t>>{{0, row}, {row, kHeight}}));
      }
      // Rows before the cut are the full run's, the row at the cut starts a part,
      // and the rest keep what the destination held.
      for (int32_t y = 0; y < kHeight; ++y) {
        const std::vector<uint8_t> untouched =
            c.method == Method::InPlace ? original[y] : std::vector<uint8_t>(original[y].size(), 0);
        EXPECT_EQ(seen.rows[y], !done(y) ? untouched : y < row ? following[y] : starting[y]) << "row " << y;
      }
      if (c.method == Method::InPlace) {
        EXPECT_EQ(Rows(host, source), seen.rows);
      } else {
        EXPECT_EQ(result == nullptr, rowsDone < kHeight);
        if (result) {
          EXPECT_EQ(Rows(host, result), following);
        }
        EXPECT_EQ(Rows(host, source), original) << "the source is never written";
      }
      EXPECT_EQ(host.LastError(effect), 0) << "a cancel is not an error of the effect";
      for (REALobject object : {result, source, effect}) host.Unlock(object);
      ASSERT_EQ(host.LiveObjectCount(), 0u);
    }
  }
}

// The observer stops a run wherever it happens to be, while the kernels run on
// several workers: the result is then nil, or whole when the run had finished
// first. Oil paint with the widest brush over 512 x 512 pixels takes long
// enough for the cancel to land part way.
TEST_F(FaultCancel, ObserverCancelGivesNilOrTheWholeResult) {
  REALobject effect = NewEffect(host, kOilPaint);
  host.Set<uint8_t>(effect, "BrushSize", 5);
  REALobject source = NewPattern(host, 512, 512, kRGBA, 8, 3);
  REALobject expected = host.Call<REALobject>(effect, kApply, source);
  for (int64_t threshold : {0, 1, 256, 511, 512}) {
    SCOPED_TRACE("cancel once " + std::to_string(threshold) + " rows are done");
    int calls = 0;
    host.SetProgressObserver([&](int64_t done, int64_t total) {
      ++calls;
      EXPECT_LE(done, total);
      return done < threshold;
    });
    REALobject result = host.Call<REALobject>(effect, kApply, source);
    EXPECT_GE(calls, 1) << "the observer hears at least the end of the run";
    if (result) {
      EXPECT_TRUE(SamePixels(host, result, expected));
    } else {
      EXPECT_TRUE(seen.cancel && seen.progress < 512) << "only a stopped run gives nil";
    }
    EXPECT_TRUE(result || threshold < 512) << "a cancel asked for at the end stops nothing";
    host.Unlock(result);
  }
  host.SetProgressObserver(nullptr);
  for (REALobject object : {expected, source, effect}) host.Unlock(object);
}

// A cancel requested with no run going is for the effect's next run; a call
// that the effect refuses (nil source, lastError 4) takes it away, so the
// run after that is whole.
TEST_F(FaultCancel, ACancelBeforeARefusedCallDoesNotStopTheNextRun) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.className) + "." + kMethodNames[int(c.method)] + " at " + std::to_string(c.bits));
    REALobject effect = NewEffect(host, c.className);
    REALobject source = NewPattern(host, kWidth, kHeight, kRGBA, c.bits, kSeed, 6);
    host.RequestCancel(effect);
    EXPECT_EQ(RunEffect(host, effect, c.method, nullptr, log), nullptr);
    auto& lastError = static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"))->lastError;
    EXPECT_EQ(lastError, 4);
    lastError = 0;
    seen = {};
    REALobject result = RunEffect(host, effect, c.method, source, log);
    EXPECT_EQ(std::make_tuple(seen.runs, seen.cancel, seen.progress), std::make_tuple(1, false, kHeight));
    for (REALobject object : {result, source, effect}) host.Unlock(object);
  }
}

}  // namespace
