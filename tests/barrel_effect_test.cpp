// BarrelDistortEffectRaw through the embedding host: properties, checks,
// background colours, kernel choice and runs on any number of threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "effects/barrel/barrel_class.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::SplitPolicy;
using namespace BarrelKeystone;

constexpr const char* kClass = "BarrelDistortEffectRaw";
constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr const char* kRGBClass = "ZandoriaColors.RGBColor";
constexpr const char* kCMYKClass = "ZandoriaColors.CMYKColor";
constexpr int64_t kRGB = 3, kBGRA = 7, kRGBA = 5, kCMYK = 13, kCMYKA = 14;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// What the completion method saw; it runs on an engine thread.
struct Completions {
  rawfx::host::Host* host = nullptr;
  std::atomic<int> calls{0};
  REALobject target = nullptr;
  REALobject result = nullptr;  // locked for the test
};
Completions gCompletions;

void RecordCompletion(REALobject target, REALobject result) {
  gCompletions.target = target;
  if (result) gCompletions.host->Lock(result);
  gCompletions.result = result;
  gCompletions.calls.fetch_add(1);
}

class BarrelEffect : public rawfx::test::HostTest {
 protected:
  REALobject effect = nullptr;
  std::vector<REALobject> held;

  void SetUp() override {
    gCompletions.host = &host;
    gCompletions.calls = 0;
    gCompletions.target = gCompletions.result = nullptr;
    effect = Hold(host.New(kClass));
    ASSERT_NE(effect, nullptr);
  }
  void TearDown() override {
    host.WaitForAsync();
    Hold(gCompletions.result);  // a completion the test did not collect
    for (REALobject object : held) host.Unlock(object);
    HostTest::TearDown();
  }

  REALobject Hold(REALobject object) {
    if (object) held.push_back(object);
    return object;
  }
  BarrelDistortionData& Data() { return *static_cast<BarrelDistortionData*>(host.ClassData(effect, kClass)); }

  REALobject NewBitmap(int64_t w, int64_t h, int64_t format, int bits = 8, int64_t padding = 0) {
    REALobject bitmap = Hold(host.NewBitmap(w, h, format, bits, padding));
    EXPECT_NE(bitmap, nullptr);
    return bitmap;
  }
  REALobject Apply(REALobject source) { return Hold(host.Call<REALobject>(effect, kApply, source)); }
  // Runs ApplyAsync to its end; the result comes back locked (and held), or nil.
  REALobject ApplyAsync(REALobject source, REALobject target = nullptr) {
    host.Call<void>(effect, kApplyAsync, source, target, reinterpret_cast<void*>(&RecordCompletion));
    host.WaitForAsync();
    const REALobject result = gCompletions.result;
    gCompletions.result = nullptr;
    return Hold(result);
  }
  void SetBackColor(REALobject colour) { host.Set<REALobject>(effect, "BackColor", colour); }
  REALobject BackColor() { return Hold(host.Get<REALobject>(effect, "BackColor")); }
};

template <class Sample>
Sample SampleAt(const BitmapView& view, int64_t x, int64_t y, int channel) {
  Sample s;
  std::memcpy(&s, view.row(y) + x * view.pixelBytes + channel * sizeof(Sample), sizeof s);
  return s;
}

template <class Sample>
void SetSample(const BitmapView& view, int64_t x, int64_t y, int channel, Sample s) {
  std::memcpy(view.row(y) + x * view.pixelBytes + channel * sizeof(Sample), &s, sizeof s);
}

// Every pixel of bitmap holds expected[c] in channel c.
template <class Sample>
::testing::AssertionResult AllPixelsAre(const BitmapView& view, const std::vector<Sample>& expected) {
  for (int64_t y = 0; y < view.height; ++y)
    for (int64_t x = 0; x < view.width; ++x)
      for (size_t c = 0; c < expected.size(); ++c)
        if (SampleAt<Sample>(view, x, y, static_cast<int>(c)) != expected[c])
          return ::testing::AssertionFailure() << "pixel " << x << "," << y << " channel " << c << " is "
                                               << SampleAt<Sample>(view, x, y, static_cast<int>(c)) << ", not "
                                               << expected[c];
  return ::testing::AssertionSuccess();
}

// ---- properties ----------------------------------------------------------------------

TEST_F(BarrelEffect, NewObjectHasItsDefaults) {
  EXPECT_TRUE(host.Get<bool>(effect, "Interpolate"));
  EXPECT_EQ(host.Get<double>(effect, "Distortion"), 0.0);
  EXPECT_EQ(host.Get<double>(effect, "VerticalKeystone"), 0.0);
  EXPECT_EQ(host.Get<double>(effect, "HorizontalKeystone"), 0.0);
  const REALobject colour = BackColor();
  EXPECT_TRUE(host.IsA(colour, kRGBClass));
  EXPECT_EQ(host.RefCount(colour), 2);  // the effect's lock and the getter's
  const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (int cell = k00; cell <= k22; ++cell) EXPECT_EQ(Data().params.keystone[cell], identity[cell]) << cell;
}

TEST_F(BarrelEffect, KeystoneSettersWriteBothSymmetricCells) {
  host.Set<double>(effect, "HorizontalKeystone", 0.25);
  EXPECT_EQ(host.Get<double>(effect, "HorizontalKeystone"), 0.25);
  const double afterH[9] = {1, 0, 0.25, 0, 1, 0, 0.25, 0, 1};
  for (int cell = k00; cell <= k22; ++cell) EXPECT_EQ(Data().params.keystone[cell], afterH[cell]) << cell;

  host.Set<double>(effect, "VerticalKeystone", -0.1);
  EXPECT_EQ(host.Get<double>(effect, "VerticalKeystone"), -0.1);
  const double afterV[9] = {1, 0, 0.25, 0, 1, -0.1, 0.25, -0.1, 1};
  for (int cell = k00; cell <= k22; ++cell) EXPECT_EQ(Data().params.keystone[cell], afterV[cell]) << cell;
}

TEST_F(BarrelEffect, ValuesAreStoredUnchanged) {
  host.Set<double>(effect, "Distortion", 0.75);
  EXPECT_EQ(host.Get<double>(effect, "Distortion"), 0.75);
  EXPECT_EQ(Data().distortion, 0.75);
  host.Set<double>(effect, "Distortion", -kInf);
  EXPECT_EQ(host.Get<double>(effect, "Distortion"), -kInf);
  host.Set<double>(effect, "HorizontalKeystone", kNaN);
  EXPECT_TRUE(std::isnan(host.Get<double>(effect, "HorizontalKeystone")));
  host.Set<double>(effect, "VerticalKeystone", 1e300);
  EXPECT_EQ(host.Get<double>(effect, "VerticalKeystone"), 1e300);

  host.Set<bool>(effect, "Interpolate", false);
  EXPECT_FALSE(host.Get<bool>(effect, "Interpolate"));
  EXPECT_EQ(Data().interpolate, 0);
}

TEST_F(BarrelEffect, BackColorHoldsExactlyOneLock) {
  const REALobject first = BackColor();
  const REALobject colour = Hold(host.NewCMYKColor(1, 2, 3, 4));
  SetBackColor(colour);
  EXPECT_EQ(host.RefCount(colour), 2);
  EXPECT_EQ(host.RefCount(first), 1);  // released by the effect, still ours

  SetBackColor(colour);  // the colour it already holds
  EXPECT_EQ(host.RefCount(colour), 2);

  SetBackColor(nullptr);  // ignored
  EXPECT_EQ(BackColor(), colour);
  EXPECT_EQ(host.RefCount(colour), 3);  // the effect's, the test's and the getter's
}

// ---- failed runs ----------------------------------------------------------------------

TEST_F(BarrelEffect, NilSourceIsAnInvalidArgument) {
  EXPECT_EQ(Apply(nullptr), nullptr);
  EXPECT_EQ(host.LastError(effect), 4);
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);

  EXPECT_EQ(ApplyAsync(nullptr), nullptr);
  EXPECT_EQ(gCompletions.calls, 0);
  EXPECT_EQ(host.LastError(effect), 4);
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

TEST_F(BarrelEffect, OtherDepthsAreRefused) {
  const REALobject source = NewBitmap(4, 3, kRGB);
  RawBitmap* record = host.Bitmap(source).record;
  record->bitsPerChannel = 32;
  EXPECT_EQ(Apply(source), nullptr);
  EXPECT_EQ(host.LastError(effect), 6);
  EXPECT_EQ(ApplyAsync(source), nullptr);
  EXPECT_EQ(gCompletions.calls, 0);
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);

  // A later success leaves the code in place.
  record->bitsPerChannel = 8;
  EXPECT_NE(Apply(source), nullptr);
  EXPECT_EQ(host.LastError(effect), 6);
}

// ---- the run --------------------------------------------------------------------------

struct KernelChoice {
  int bits;
  bool async;
};

class BarrelKernelChoice : public BarrelEffect, public ::testing::WithParamInterface<KernelChoice> {};

// In a 10-wide bitmap column 1 maps to x = 0.9999999999999998: the nearest
// kernels copy column 0 (0), the bilinear ones blend 0 and 200 into 199.
TEST_P(BarrelKernelChoice, InterpolateSelectsBilinearSampling) {
  const KernelChoice choice = GetParam();
  const REALobject source = NewBitmap(10, 2, kRGB, choice.bits);
  const BitmapView view = host.Bitmap(source);
  for (int64_t y = 0; y < 2; ++y)
    for (int c = 0; c < 3; ++c) {
      if (choice.bits == 8)
        SetSample<uint8_t>(view, 1, y, c, 200);
      else
        SetSample<uint16_t>(view, 1, y, c, 200);
    }
  for (bool interpolate : {false, true}) {
    host.Set<bool>(effect, "Interpolate", interpolate);
    const REALobject result = choice.async ? ApplyAsync(source, effect) : Apply(source);
    ASSERT_NE(result, nullptr);
    const BitmapView out = host.Bitmap(result);
    const int expected = interpolate ? 199 : 0;
    for (int c = 0; c < 3; ++c)
      EXPECT_EQ(choice.bits == 8 ? SampleAt<uint8_t>(out, 1, 0, c) : SampleAt<uint16_t>(out, 1, 0, c), expected);

    const EngineCall call = host.lastEngineCall();
    EXPECT_EQ(call.operation, choice.async ? EngineCall::PartsAsync : EngineCall::Parts);
    EXPECT_EQ(call.modeCode, 3);
    EXPECT_EQ(call.formatFlags, choice.bits == 8 ? 13 : 14);
    EXPECT_EQ(call.resultFlag, 1);
    EXPECT_EQ(call.mask, nullptr);
    EXPECT_EQ(call.partFunction, call.maskPartFunction);
    EXPECT_EQ(call.params, &Data().params);
    if (choice.async) {
      ASSERT_NE(call.deleteCallback, nullptr);
      EXPECT_EQ(call.deleteCallback(effect, &Data().params.head), 0);
      EXPECT_EQ(gCompletions.target, effect);
    } else {
      EXPECT_EQ(call.deleteCallback, nullptr);
    }
  }
  EXPECT_EQ(gCompletions.calls, choice.async ? 2 : 0);
}

INSTANTIATE_TEST_SUITE_P(DepthsAndMethods, BarrelKernelChoice,
                         ::testing::Values(KernelChoice{8, false}, KernelChoice{8, true}, KernelChoice{16, false},
                                           KernelChoice{16, true}),
                         [](const auto& test) {
                           return std::to_string(test.param.bits) + (test.param.async ? "BitAsync" : "BitApply");
                         });

TEST_F(BarrelEffect, FillsCentreAndDistortionForEachRun) {
  host.Set<double>(effect, "Distortion", 0.5);
  Apply(NewBitmap(1000, 500, kRGB));
  EXPECT_EQ(Data().params.centerX, 500.0);
  EXPECT_EQ(Data().params.centerY, 250.0);
  EXPECT_EQ(Data().params.distortion, 0.5);
  EXPECT_EQ(Data().params.distortionPlusOne, 1.5);

  host.Set<double>(effect, "Distortion", -0.25);
  Apply(NewBitmap(7, 3, kRGB, 16));
  EXPECT_EQ(Data().params.centerX, 3.5);
  EXPECT_EQ(Data().params.centerY, 1.5);
  EXPECT_EQ(Data().params.distortion, -0.25);
  EXPECT_EQ(Data().params.distortionPlusOne, 0.75);
}

// Distortion -1 maps every pixel to no position: the result is the background.
TEST_F(BarrelEffect, RGBColourIsConvertedForACMYKBitmap) {
  const REALobject colour = Hold(host.NewRGBColor(200, 100, 50, 77));
  const RGBColorData before = host.RGBColor(colour);
  SetBackColor(colour);
  host.Set<double>(effect, "Distortion", -1.0);
  CMYKColorData cmyk;
  ConversionTableOf(host.ClassData(colour, kRGBClass))->ToCMYK(&before, &cmyk);
  ASSERT_EQ(cmyk.cyan, 0);
  ASSERT_EQ(cmyk.black, 55);

  const REALobject result8 = Apply(NewBitmap(5, 4, kCMYKA));
  ASSERT_NE(result8, nullptr);
  EXPECT_TRUE(AllPixelsAre<uint8_t>(host.Bitmap(result8), {cmyk.cyan, cmyk.magenta, cmyk.yellow, cmyk.black, 77}));
  const REALobject result16 = Apply(NewBitmap(5, 4, kCMYK, 16));
  ASSERT_NE(result16, nullptr);
  EXPECT_TRUE(
      AllPixelsAre<uint16_t>(host.Bitmap(result16), {cmyk.cyan16, cmyk.magenta16, cmyk.yellow16, cmyk.black16}));

  const RGBColorData after = host.RGBColor(colour);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(BarrelEffect, CMYKColourIsConvertedForAnRGBBitmap) {
  const REALobject colour = Hold(host.NewCMYKColor(10, 60, 200, 30, 99));
  const CMYKColorData before = host.CMYKColor(colour);
  SetBackColor(colour);
  host.Set<double>(effect, "Distortion", -1.0);
  RGBColorData rgb;
  ConversionTableOf(host.ClassData(colour, kCMYKClass))->ToRGB(&before, &rgb);

  for (bool interpolate : {false, true}) {
    host.Set<bool>(effect, "Interpolate", interpolate);
    const REALobject result = Apply(NewBitmap(6, 3, kBGRA));  // blue, green, red, alpha
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(AllPixelsAre<uint8_t>(host.Bitmap(result), {rgb.blue, rgb.green, rgb.red, 99}));
  }
  const REALobject result16 = Apply(NewBitmap(6, 3, kRGBA, 16));
  EXPECT_TRUE(AllPixelsAre<uint16_t>(host.Bitmap(result16), {rgb.red16, rgb.green16, rgb.blue16, rgb.alpha16}));

  const CMYKColorData after = host.CMYKColor(colour);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(BarrelEffect, NonFiniteSettingsGiveTheBackground) {
  SetBackColor(Hold(host.NewRGBColor(9, 8, 7)));
  const REALobject source = NewBitmap(9, 6, kRGB);
  rawfx::test::FillPattern(host, source, 5);
  struct Setting {
    const char* property;
    double value;
  };
  for (Setting s : {Setting{"Distortion", kNaN}, Setting{"Distortion", kInf}, Setting{"HorizontalKeystone", kInf},
                    Setting{"VerticalKeystone", -kInf}, Setting{"VerticalKeystone", kNaN}})
    for (bool interpolate : {false, true}) {
      for (const char* property : {"Distortion", "HorizontalKeystone", "VerticalKeystone"})
        host.Set<double>(effect, property, 0.0);
      host.Set<bool>(effect, "Interpolate", interpolate);
      host.Set<double>(effect, s.property, s.value);
      const REALobject result = Apply(source);
      ASSERT_NE(result, nullptr);
      EXPECT_TRUE(AllPixelsAre<uint8_t>(host.Bitmap(result), {9, 8, 7})) << s.property << " " << s.value;
    }
}

TEST_F(BarrelEffect, SixteenBitPixelsWriteTheirFourSamplesOnly) {
  SetBackColor(Hold(host.NewRGBColor16(1000, 2000, 3000, 4000)));
  host.Set<double>(effect, "Distortion", 0.4);
  const REALobject source = NewBitmap(8, 6, kRGBA, 16, 10);
  rawfx::test::FillPattern(host, source, 11);
  for (bool interpolate : {false, true}) {
    host.Set<bool>(effect, "Interpolate", interpolate);
    const REALobject result = Apply(source);
    ASSERT_NE(result, nullptr);
    const BitmapView out = host.Bitmap(result);
    ASSERT_EQ(out.pixelBytes, 8);
    ASSERT_GT(out.rowBytes, out.width * out.pixelBytes);
    for (int64_t y = 0; y < out.height; ++y)
      for (int64_t b = out.width * out.pixelBytes; b < out.rowBytes; ++b) EXPECT_EQ(out.row(y)[b], 0) << y;
    // The top left corner maps to (-1.14, -0.86), outside with all its neighbours.
    for (int c = 0; c < 4; ++c) EXPECT_EQ(SampleAt<uint16_t>(out, 0, 0, c), 1000 * (c + 1));
  }
  // Without distortion a power-of-two size maps every pixel onto itself.
  host.Set<double>(effect, "Distortion", 0.0);
  EXPECT_TRUE(rawfx::test::SamePixels(host, Apply(source), source));
}

// ---- asynchronous and parallel runs ---------------------------------------------------------

class BarrelRuns : public BarrelEffect, public ::testing::WithParamInterface<int> {
 protected:
  REALobject PreparedSource() {
    host.Set<double>(effect, "Distortion", 0.35);
    host.Set<double>(effect, "HorizontalKeystone", 0.1);
    host.Set<double>(effect, "VerticalKeystone", -0.05);
    SetBackColor(Hold(host.NewRGBColor(250, 5, 128, 200)));
    const REALobject source = NewBitmap(37, 29, kRGBA, GetParam());
    rawfx::test::FillPattern(host, source, 42);
    return source;
  }
};

TEST_P(BarrelRuns, AsyncCompletesOnceWithTheSyncResult) {
  const REALobject source = PreparedSource();
  for (bool interpolate : {false, true}) {
    host.Set<bool>(effect, "Interpolate", interpolate);
    const REALobject expected = Apply(source);
    const int callsBefore = gCompletions.calls;
    const REALobject target = Hold(host.NewRGBColor(0, 0, 0));
    const REALobject result = ApplyAsync(source, target);
    EXPECT_EQ(gCompletions.calls, callsBefore + 1);
    EXPECT_EQ(gCompletions.target, target);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(rawfx::test::SamePixels(host, result, expected));
  }
}

TEST_P(BarrelRuns, ResultsDoNotDependOnThreadsOrParts) {
  const REALobject source = PreparedSource();
  for (bool interpolate : {false, true}) {
    host.Set<bool>(effect, "Interpolate", interpolate);
    host.SetThreads(1);
    host.SetSplitPolicy(SplitPolicy::SinglePart);
    const REALobject reference = Apply(source);
    ASSERT_NE(reference, nullptr);
    for (int threads : {1, 4})
      for (SplitPolicy policy : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                                 SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts}) {
        host.SetThreads(threads);
        host.SetSplitPolicy(policy);
        EXPECT_TRUE(rawfx::test::SamePixels(host, Apply(source), reference))
            << threads << " threads, policy " << static_cast<int>(policy);
      }
  }
}

INSTANTIATE_TEST_SUITE_P(Depths, BarrelRuns, ::testing::Values(8, 16),
                         [](const auto& test) { return std::to_string(test.param) + "Bit"; });

}  // namespace
