// Cancellation of every effect and method at every row of a small image, before
// a run starts and from the progress observer: a stopped run gives nil (or, in
// place, leaves the rows after the stop as they were), the rows before the stop
// are the full run's, and nothing is leaked.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "support/host_fixture.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::Host;
using rawfx::host::SplitPolicy;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr int64_t kRGBA = 5;

enum class Method { Apply, InPlace, Async };

// One effect, one of its methods and one depth, with settings that change every pixel.
struct Case {
  const char* className;
  Method method;
  int bits;
};

std::string NameOf(const Case& c) {
  const char* method = c.method == Method::Apply ? "Apply" : c.method == Method::InPlace ? "ApplyInPlace" : "ApplyAsync";
  return std::string(c.className) + "." + method + " at " + std::to_string(c.bits) + " bits";
}

const Case kCases[] = {
    {"InterlaceEffectRaw", Method::Apply, 8},          {"InterlaceEffectRaw", Method::Apply, 16},
    {"InterlaceEffectRaw", Method::InPlace, 8},        {"InterlaceEffectRaw", Method::InPlace, 16},
    {"PolarCoordinatesEffectRaw", Method::Apply, 8},   {"PolarCoordinatesEffectRaw", Method::Apply, 16},
    {"PolarCoordinatesEffectRaw", Method::Async, 8},   {"PolarCoordinatesEffectRaw", Method::Async, 16},
    {"BarrelDistortEffectRaw", Method::Apply, 8},      {"BarrelDistortEffectRaw", Method::Apply, 16},
    {"BarrelDistortEffectRaw", Method::Async, 8},      {"BarrelDistortEffectRaw", Method::Async, 16},
    {"OilPaintEffectRaw", Method::Apply, 8},
};

// The last asynchronous result, locked for the test; completions run on a worker.
std::atomic<int> gCompletions{0};
REALobject gAsyncResult = nullptr;
Host* gHost = nullptr;

void KeepResult(REALobject, REALobject result) {
  if (result) gHost->Lock(result);
  gAsyncResult = result;
  gCompletions.fetch_add(1);
}

// Rows as the inspector saw them in the destination when the run ended.
struct Seen {
  int runs = 0;
  int32_t progress = -1;
  bool cancel = false;
  std::vector<std::pair<int32_t, int32_t>> parts;
  std::vector<std::vector<uint8_t>> rows;
};

std::vector<uint8_t> RowBytes(const BitmapView& view, int64_t y) {
  return {view.row(y), view.row(y) + view.width * view.pixelBytes};
}

std::vector<std::vector<uint8_t>> AllRows(Host& host, REALobject bitmap) {
  const BitmapView view = host.Bitmap(bitmap);
  std::vector<std::vector<uint8_t>> rows;
  for (int64_t y = 0; y < view.height; ++y) rows.push_back(RowBytes(view, y));
  return rows;
}

class FaultCancel : public rawfx::test::HostTest {
 protected:
  static constexpr int64_t kWidth = 7, kHeight = 9;

  Seen seen;

  void SetUp() override {
    gHost = &host;
    gCompletions = 0;
    gAsyncResult = nullptr;
    host.SetRunInspector([this](const EngineCall&, const GenericMPParams& params,
                                const std::vector<MPParamBlock>& parts, REALobject destination) {
      seen.runs++;
      seen.progress = params.progress;
      seen.cancel = params.cancel != 0;
      seen.parts.clear();
      for (const MPParamBlock& part : parts) seen.parts.emplace_back(part.firstRow, part.endRow);
      seen.rows = AllRows(host, destination);
    });
  }
  void TearDown() override {
    host.SetRunInspector(nullptr);
    HostTest::TearDown();
  }

  REALobject NewEffect(const char* className) {
    REALobject effect = host.New(className);
    EXPECT_NE(effect, nullptr) << className;
    if (std::string(className) == "InterlaceEffectRaw") host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
    if (std::string(className) == "BarrelDistortEffectRaw") host.Set<double>(effect, "Distortion", 0.4);
    return effect;
  }

  REALobject NewSource(int bits, uint32_t seed) {
    REALobject source = host.NewBitmap(kWidth, kHeight, kRGBA, bits, 6);
    rawfx::test::FillPattern(host, source, seed);
    return source;
  }

  // Runs the method; the result comes back with one reference for the caller
  // (nil when there is none, and always nil in place).
  REALobject Run(REALobject effect, Method method, REALobject source) {
    switch (method) {
      case Method::Apply: return host.Call<REALobject>(effect, kApply, source);
      case Method::InPlace: host.Call<void>(effect, kApplyInPlace, source); return nullptr;
      case Method::Async: {
        const int before = gCompletions.load();
        host.Call<void>(effect, kApplyAsync, source, nullptr, reinterpret_cast<void*>(&KeepResult));
        host.WaitForAsync();
        EXPECT_EQ(gCompletions.load(), before + 1) << "one completion per run";
        return std::exchange(gAsyncResult, nullptr);
      }
    }
    return nullptr;
  }

  // The destination rows of an uncancelled run of the case on a copy of the source pattern.
  std::vector<std::vector<uint8_t>> FullRun(const Case& c, uint32_t seed, SplitPolicy policy) {
    host.SetSplitPolicy(policy);
    REALobject effect = NewEffect(c.className);
    REALobject source = NewSource(c.bits, seed);
    REALobject result = Run(effect, c.method, source);
    std::vector<std::vector<uint8_t>> rows = AllRows(host, c.method == Method::InPlace ? source : result);
    for (REALobject object : {result, source, effect}) host.Unlock(object);
    host.SetSplitPolicy(SplitPolicy::Balanced);
    return rows;
  }

  // What each row holds when it is processed as the first row of a part, and
  // when it follows the rows before it in the same part. Interlace starts its
  // row phase afresh in every part, so a part that starts at an odd row fills
  // differently; with OddStarts every odd row starts a part, and balanced parts
  // start at even rows. The other effects give the same rows for any split.
  struct Expected {
    std::vector<std::vector<uint8_t>> following, starting;
  };
  Expected ExpectedRows(const Case& c, uint32_t seed) {
    Expected expected{FullRun(c, seed, SplitPolicy::Balanced), {}};
    expected.starting = expected.following;
    const std::vector<std::vector<uint8_t>> oddStarts = FullRun(c, seed, SplitPolicy::OddStarts);
    for (size_t y = 1; y < oddStarts.size(); y += 2) expected.starting[y] = oddStarts[y];
    return expected;
  }
};

TEST_F(FaultCancel, CancelAtEveryRowStopsAfterThatRowAndLeaksNothing) {
  for (const Case& c : kCases) {
    const uint32_t seed = 77;
    const Expected expected = ExpectedRows(c, seed);
    const std::vector<std::vector<uint8_t>>& full = expected.following;
    for (int32_t row = 0; row <= kHeight; ++row) {
      SCOPED_TRACE(NameOf(c) + ", cancel at row " + std::to_string(row));
      REALobject effect = NewEffect(c.className);
      REALobject source = NewSource(c.bits, seed);
      const std::vector<std::vector<uint8_t>> original = AllRows(host, source);
      seen = {};
      host.CancelAtRow(effect, row);
      REALobject result = Run(effect, c.method, source);

      const int32_t rowsDone = std::min<int32_t>(row + 1, kHeight);
      const bool stopped = rowsDone < kHeight;
      ASSERT_EQ(seen.runs, 1);
      EXPECT_EQ(seen.progress, rowsDone);
      EXPECT_EQ(seen.cancel, row < kHeight);
      if (row < kHeight) {
        EXPECT_EQ(seen.parts, (std::vector<std::pair<int32_t, int32_t>>{{0, row}, {row, kHeight}}));
      }
      // Rows before the cut are the full run's, the row at the cut starts the second
      // part, and the rest keep what the destination held.
      for (int32_t y = 0; y < kHeight; ++y) {
        const std::vector<uint8_t> untouched =
            c.method == Method::InPlace ? original[y] : std::vector<uint8_t>(original[y].size(), 0);
        const std::vector<uint8_t>& done = y < row ? full[y] : expected.starting[y];
        EXPECT_EQ(seen.rows[y], y < rowsDone ? done : untouched) << "row " << y;
      }
      if (c.method == Method::InPlace) {
        EXPECT_EQ(AllRows(host, source), seen.rows);
      } else {
        EXPECT_EQ(result == nullptr, stopped);
        if (result) {
          EXPECT_EQ(AllRows(host, result), full);
        }
        EXPECT_EQ(AllRows(host, source), original) << "the source is never written";
      }
      EXPECT_EQ(host.LastError(effect), 0) << "a cancel is not an error of the effect";
      for (REALobject object : {result, source, effect}) host.Unlock(object);
      ASSERT_EQ(host.LiveObjectCount(), 0u);
    }
  }
}

// With the cancel already set when the run starts, every part stops after its
// first row: small parts of one to three rows leave the rows after each part's first.
TEST_F(FaultCancel, CancelBeforeTheRunLetsEveryPartDoItsFirstRowOnly) {
  const int32_t firstRows[] = {0, 1, 3, 6, 7};
  for (const Case& c : kCases) {
    SCOPED_TRACE(NameOf(c));
    const uint32_t seed = 5;
    const Expected expected = ExpectedRows(c, seed);
    REALobject effect = NewEffect(c.className);
    REALobject source = NewSource(c.bits, seed);
    const std::vector<std::vector<uint8_t>> original = AllRows(host, source);
    seen = {};
    host.SetSplitPolicy(SplitPolicy::SmallParts);  // parts [0,1) [1,3) [3,6) [6,7) [7,9)
    host.RequestCancel(effect);
    REALobject result = Run(effect, c.method, source);
    ASSERT_EQ(seen.runs, 1);
    EXPECT_EQ(seen.progress, 5);
    for (int32_t y = 0; y < kHeight; ++y) {
      const bool done = std::find(std::begin(firstRows), std::end(firstRows), y) != std::end(firstRows);
      const std::vector<uint8_t> untouched =
          c.method == Method::InPlace ? original[y] : std::vector<uint8_t>(original[y].size(), 0);
      EXPECT_EQ(seen.rows[y], done ? expected.starting[y] : untouched) << "row " << y;
    }
    EXPECT_EQ(result, nullptr);
    for (REALobject object : {result, source, effect}) host.Unlock(object);
  }
}

// The observer stops a run wherever it happens to be: the result is then nil,
// or whole when the run had finished first. Oil paint with the widest brush
// over 512 x 512 pixels takes long enough for the cancel to land part way.
TEST_F(FaultCancel, ObserverCancelGivesNilOrTheWholeResult) {
  REALobject effect = host.New("OilPaintEffectRaw");
  host.Set<uint8_t>(effect, "BrushSize", 5);
  constexpr int64_t kSize = 512;
  REALobject source = host.NewBitmap(kSize, kSize, kRGBA, 8, 0);
  rawfx::test::FillPattern(host, source, 3);
  REALobject expected = host.Call<REALobject>(effect, kApply, source);
  ASSERT_NE(expected, nullptr);

  for (int64_t threshold : {int64_t{0}, int64_t{1}, kSize / 2, kSize - 1, kSize}) {
    SCOPED_TRACE("cancel once " + std::to_string(threshold) + " rows are done");
    int calls = 0;
    host.SetProgressObserver([&](int64_t done, int64_t total) {
      ++calls;
      EXPECT_LE(done, total);
      return done < threshold;
    });
    seen = {};
    REALobject result = host.Call<REALobject>(effect, kApply, source);
    EXPECT_GE(calls, 1) << "the observer hears at least the end of the run";
    if (result) {
      EXPECT_TRUE(rawfx::test::SamePixels(host, result, expected));
    } else {
      EXPECT_LT(seen.progress, kSize);
      EXPECT_TRUE(seen.cancel);
    }
    if (threshold == kSize) {
      EXPECT_NE(result, nullptr) << "a cancel asked for at the end stops nothing";
    }
    host.Unlock(result);
  }
  host.SetProgressObserver(nullptr);
  for (REALobject object : {expected, source, effect}) host.Unlock(object);
}

}  // namespace
