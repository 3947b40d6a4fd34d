// OilPaintEffectRaw through the embedding host: properties, checks, the call
// to the engine and results against the reference filter.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "effects/oilpaint/oilpaint_class.h"
#include "support/host_fixture.h"
#include "support/oilpaint_reference.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::SplitPolicy;
using rawfx::test::OilPaintImage;
using rawfx::test::OilPaintSettings;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr int64_t kRGB = 3;
constexpr int64_t kRGBA = 5;
constexpr int64_t kARGB = 6;
constexpr int64_t kGray = 0;

// ---- the block's effect fields, without the host ------------------------------------

RawBitmap RecordWithOffsets(int64_t format) {
  RawBitmap record{};
  record.format = format;
  record.redOffset = 1;
  record.greenOffset = 2;
  record.blueOffset = 3;
  record.bitsPerChannel = 8;
  return record;
}

TEST(OilPaintPrepareParams, MaxLevelIsSmoothnessTimes255InSinglePrecision) {
  const struct {
    float smoothness;
    int16_t maxLevel;
  } cases[] = {{0.04f, 10}, {0.4f, 102}, {1.0f, 255}, {0.5f, 127}};
  for (const auto& c : cases) {
    const OilPaintData data{nullptr, c.smoothness, 4};
    OilPaintParams params{};
    rawfx::oilpaint::PrepareParams(data, RecordWithOffsets(kRGB), params);
    EXPECT_EQ(params.maxLevel, c.maxLevel) << c.smoothness;
    EXPECT_EQ(params.smoothness, c.smoothness);
    EXPECT_EQ(params.brushSize, 4);
  }
}

TEST(OilPaintPrepareParams, OneChannelFormatsReadTheRedOffsetThrice) {
  for (const int64_t format : {-1, 0, 1, 2, 22, 23}) {
    OilPaintParams params{};
    rawfx::oilpaint::PrepareParams({nullptr, 0.4f, 2}, RecordWithOffsets(format), params);
    EXPECT_EQ(params.redOffset, 1) << format;
    EXPECT_EQ(params.greenOffset, 1) << format;
    EXPECT_EQ(params.blueOffset, 1) << format;
  }
  for (const int64_t format : {3, 5, 13, 16, 21, 24}) {
    OilPaintParams params{};
    rawfx::oilpaint::PrepareParams({nullptr, 0.4f, 2}, RecordWithOffsets(format), params);
    EXPECT_EQ(params.redOffset, 1) << format;
    EXPECT_EQ(params.greenOffset, 2) << format;
    EXPECT_EQ(params.blueOffset, 3) << format;
  }
}

// ---- through the host ----------------------------------------------------------------

std::vector<uint8_t> PixelBytes(const BitmapView& view) {
  std::vector<uint8_t> bytes;
  for (int64_t y = 0; y < view.height; ++y)
    bytes.insert(bytes.end(), view.row(y), view.row(y) + view.width * view.pixelBytes);
  return bytes;
}

OilPaintImage ImageOf(const BitmapView& view) {
  OilPaintImage image;
  image.width = static_cast<int>(view.width);
  image.height = static_cast<int>(view.height);
  image.pixelBytes = static_cast<int>(view.pixelBytes);
  image.rowBytes = static_cast<int>(view.width * view.pixelBytes);
  image.bytes = PixelBytes(view);
  return image;
}

class OilPaintEffect : public rawfx::test::HostTest {
 protected:
  REALobject NewEffect() { return host.New("OilPaintEffectRaw"); }
  REALobject Apply(REALobject effect, REALobject source) { return host.Call<REALobject>(effect, kApply, source); }

  // A bitmap of random bytes; coarse keeps two bits per byte, for crowded bins.
  REALobject NewPattern(int64_t width, int64_t height, int64_t format, uint32_t seed, bool coarse = false) {
    REALobject bitmap = host.NewBitmap(width, height, format, 8, 3);
    rawfx::test::FillPattern(host, bitmap, seed);
    if (coarse) {
      const BitmapView view = host.Bitmap(bitmap);
      for (int64_t y = 0; y < height; ++y) {
        for (int64_t i = 0; i < width * view.pixelBytes; ++i) view.row(y)[i] &= 0xC0;
      }
    }
    return bitmap;
  }

  // A bitmap of one row of grey (R = G = B) pixels in an RGB format or one grey channel.
  REALobject NewRow(int64_t format, const std::vector<uint8_t>& greys) {
    REALobject bitmap = host.NewBitmap(static_cast<int64_t>(greys.size()), 1, format);
    const BitmapView view = host.Bitmap(bitmap);
    for (size_t x = 0; x < greys.size(); ++x) {
      for (int64_t i = 0; i < view.pixelBytes; ++i)
        view.row(0)[static_cast<int64_t>(x) * view.pixelBytes + i] = greys[x];
    }
    return bitmap;
  }

  std::vector<uint8_t> FirstBytes(REALobject bitmap) {
    const BitmapView view = host.Bitmap(bitmap);
    std::vector<uint8_t> firsts;
    for (int64_t x = 0; x < view.width; ++x) firsts.push_back(view.row(0)[x * view.pixelBytes]);
    return firsts;
  }

  // What the filter makes of source (zero where it writes nothing); mask values
  // are the grey bytes of maskBitmap.
  std::vector<uint8_t> Expected(REALobject source, int radius, float smoothness, REALobject maskBitmap = nullptr) {
    const BitmapView view = host.Bitmap(source);
    const RawBitmap& record = *view.record;
    const bool grey = view.format < 3 || view.format == 22 || view.format == 23;
    OilPaintSettings settings;
    settings.redOffset = record.redOffset;
    settings.greenOffset = grey ? record.redOffset : record.greenOffset;
    settings.blueOffset = grey ? record.redOffset : record.blueOffset;
    settings.smoothness = smoothness;
    settings.radius = radius;
    settings.copyAlpha = record.hasAlpha != 0;
    settings.srcAlphaOffset = settings.dstAlphaOffset = record.alphaOffset;
    if (maskBitmap) {
      const BitmapView mask = host.Bitmap(maskBitmap);
      settings.mask = [mask](int x, int y) { return uint32_t{mask.row(y)[x * mask.pixelBytes]}; };
    }
    const OilPaintImage src = ImageOf(view);
    OilPaintImage dst = src;
    std::fill(dst.bytes.begin(), dst.bytes.end(), 0);
    rawfx::test::ReferenceOilPaint(src, dst, settings, 0, src.height);
    return dst.bytes;
  }

  // The effect's fields of the parameter block, read while the run goes (the
  // block lives on Apply's stack): the observer's last report comes before
  // the engine returns.
  std::optional<OilPaintParams> ApplyCapturingParams(REALobject effect, REALobject source, REALobject* result) {
    std::optional<OilPaintParams> seen;
    host.SetProgressObserver([&](int64_t, int64_t) {
      seen = *static_cast<const OilPaintParams*>(host.lastEngineCall().params);
      return true;
    });
    *result = Apply(effect, source);
    host.SetProgressObserver(nullptr);
    return seen;
  }

  void Release(std::initializer_list<REALobject> objects) {
    for (REALobject object : objects) host.Unlock(object);
  }
};

TEST_F(OilPaintEffect, ClassRowsAndDefaults) {
  REALobject effect = NewEffect();
  ASSERT_NE(effect, nullptr);
  EXPECT_TRUE(host.IsA(effect, "MPImageFilterRaw"));
  EXPECT_STREQ(host.FindProperty(effect, "Mask")->type, "RawBitmapMask");
  EXPECT_STREQ(host.FindProperty(effect, "BrushSize")->type, "UInt8");
  EXPECT_STREQ(host.FindProperty(effect, "Smoothness")->type, "Single");
  EXPECT_NE(host.FindMethod(effect, kApply), nullptr);
  EXPECT_EQ(host.Get<uint8_t>(effect, "BrushSize"), 2);
  EXPECT_EQ(host.Get<float>(effect, "Smoothness"), 0.4f);
  EXPECT_EQ(host.Get<REALobject>(effect, "Mask"), nullptr);
  int records = 0;
  for (const REALclassDefinition* record : host.registeredRecords()) {
    if (std::string(record->name) != "OilPaintEffectRaw") continue;
    ++records;
    EXPECT_STREQ(record->superName, "MPImageFilterRaw");
    EXPECT_EQ(record->dataSize, 16);
    EXPECT_STREQ(record->interfaces, "IRawBitmapProcessor");
    EXPECT_EQ(record->propertyCount, 3);
    EXPECT_EQ(record->methodCount, 1);
    EXPECT_EQ(record->enumCount, 0);
  }
  EXPECT_EQ(records, 1);
  Release({effect});
}

TEST_F(OilPaintEffect, BrushSizeIsClampedToOneToFive) {
  REALobject effect = NewEffect();
  const struct { uint8_t set, read; } cases[] = {{0, 1}, {1, 1}, {3, 3}, {5, 5}, {6, 5}, {200, 5}, {255, 5}};
  for (const auto& c : cases) {
    host.Set<uint8_t>(effect, "BrushSize", c.set);
    EXPECT_EQ(host.Get<uint8_t>(effect, "BrushSize"), c.read) << int{c.set};
  }
  Release({effect});
}

TEST_F(OilPaintEffect, SmoothnessIsClampedToItsRange) {
  REALobject effect = NewEffect();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const struct {
    float set, read;
  } cases[] = {{0.0f, 0.04f}, {0.04f, 0.04f}, {0.039f, 0.04f}, {-3.0f, 0.04f}, {0.041f, 0.041f},
               {0.5f, 0.5f},  {1.0f, 1.0f},   {7.5f, 1.0f},    {nan, 1.0f}};
  for (const auto& c : cases) {
    host.Set<float>(effect, "Smoothness", c.set);
    EXPECT_EQ(host.Get<float>(effect, "Smoothness"), c.read) << c.set;
  }
  Release({effect});
}

TEST_F(OilPaintEffect, NilSourceIs4And16BitSourceIs6AndNeitherReachesTheEngine) {
  REALobject effect = NewEffect();
  EXPECT_EQ(Apply(effect, nullptr), nullptr);
  EXPECT_EQ(host.LastError(effect), 4);
  REALobject wide = host.NewBitmap(4, 4, kRGB, 16);
  EXPECT_EQ(Apply(effect, wide), nullptr);
  EXPECT_EQ(host.LastError(effect), 6);
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);

  // A success leaves the last code in place.
  REALobject source = NewPattern(4, 4, kRGB, 1);
  REALobject result = Apply(effect, source);
  EXPECT_NE(result, nullptr);
  EXPECT_EQ(host.LastError(effect), 6);
  Release({result, source, wide, effect});
}

TEST_F(OilPaintEffect, SettingsOutsideTheirRangesAre4) {
  REALobject effect = NewEffect();
  REALobject source = NewPattern(4, 4, kRGB, 2);
  auto* data = static_cast<OilPaintData*>(host.ClassData(effect, "OilPaintEffectRaw"));
  const struct {
    uint8_t brush;
    float smoothness;
  } bad[] = {{0, 0.4f}, {6, 0.4f}, {2, 1.0001f}, {2, 0.0399f}, {2, std::numeric_limits<float>::quiet_NaN()}};
  for (const auto& b : bad) {
    data->brushSize = b.brush;
    data->smoothness = b.smoothness;
    EXPECT_EQ(Apply(effect, source), nullptr);
    EXPECT_EQ(host.LastError(effect), 4);
  }
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
  Release({source, effect});
}

TEST_F(OilPaintEffect, EngineGetsModeThreeFlagsFiveAndTheMask) {
  REALobject effect = NewEffect();
  REALobject source = NewPattern(6, 5, kRGBA, 3);
  REALobject result = Apply(effect, source);
  ASSERT_NE(result, nullptr);
  EngineCall call = host.lastEngineCall();
  EXPECT_EQ(call.operation, EngineCall::Parts);
  EXPECT_EQ(call.modeCode, 3);
  EXPECT_EQ(call.formatFlags, 5);
  EXPECT_EQ(call.resultFlag, 1);
  EXPECT_EQ(call.mask, nullptr);
  EXPECT_NE(call.partFunction, nullptr);
  EXPECT_NE(call.maskPartFunction, nullptr);
  EXPECT_NE(call.partFunction, call.maskPartFunction);

  REALobject mask = host.NewMask(source, false, 3);
  host.Set<REALobject>(effect, "Mask", mask);
  REALobject masked = Apply(effect, source);
  ASSERT_NE(masked, nullptr);
  call = host.lastEngineCall();
  EXPECT_EQ(call.mask, mask);
  EXPECT_EQ(host.LastError(effect), 0);
  Release({masked, mask, result, source, effect});
}

TEST_F(OilPaintEffect, FreshObjectUsesRadiusTwoAnd103Bins) {
  REALobject effect = NewEffect();
  // Pixel 0 sees (W, B) with radius 1, (W, B, W) with 2 and (W, B, W, B) with 3:
  // only radius 2 gives the white pair (bin 102, the top one) the majority.
  REALobject row = NewRow(kRGB, {255, 0, 255, 0, 0, 0, 0});
  REALobject rowResult = Apply(effect, row);
  ASSERT_NE(rowResult, nullptr);
  EXPECT_EQ(FirstBytes(rowResult), (std::vector<uint8_t>{255, 0, 0, 0, 0, 0, 0}));

  REALobject source = NewPattern(23, 19, kRGBA, 4);
  REALobject result = nullptr;
  const std::optional<OilPaintParams> params = ApplyCapturingParams(effect, source, &result);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(PixelBytes(host.Bitmap(result)), Expected(source, 2, 0.4f));
  ASSERT_TRUE(params.has_value());
  EXPECT_EQ(params->brushSize, 2);
  EXPECT_EQ(params->maxLevel, 102);
  EXPECT_EQ(params->smoothness, 0.4f);
  EXPECT_EQ(params->redOffset, 0);
  EXPECT_EQ(params->greenOffset, 1);
  EXPECT_EQ(params->blueOffset, 2);
  Release({result, source, rowResult, row, effect});
}

TEST_F(OilPaintEffect, ClampedSmoothnessAppliesWith11And256Bins) {
  REALobject effect = NewEffect();
  REALobject source = NewPattern(15, 12, kRGB, 5, true);
  const struct {
    float set, stored;
    int16_t maxLevel;
  } cases[] = {{0.0f, 0.04f, 10}, {0.04f, 0.04f, 10}, {7.5f, 1.0f, 255}};
  for (const auto& c : cases) {
    host.Set<float>(effect, "Smoothness", c.set);
    REALobject result = nullptr;
    const std::optional<OilPaintParams> params = ApplyCapturingParams(effect, source, &result);
    ASSERT_NE(result, nullptr) << c.set;
    ASSERT_TRUE(params.has_value());
    EXPECT_EQ(params->maxLevel, c.maxLevel);
    EXPECT_EQ(PixelBytes(host.Bitmap(result)), Expected(source, 2, c.stored)) << c.set;
    host.Unlock(result);
  }
  Release({source, effect});
}

TEST_F(OilPaintEffect, MatchesTheReferenceInEveryEightBitFormat) {
  REALobject effect = NewEffect();
  uint32_t seed = 10;
  for (const int64_t format : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13, 14, 15, 16, 22, 23}) {
    for (const bool coarse : {false, true}) {
      const uint8_t brush = static_cast<uint8_t>(1 + seed % 5);
      const float smoothness = 0.04f + 0.06f * static_cast<float>(seed % 16);
      host.Set<uint8_t>(effect, "BrushSize", brush);
      host.Set<float>(effect, "Smoothness", smoothness);
      REALobject source = NewPattern(17, 13, format, ++seed, coarse);
      REALobject result = Apply(effect, source);
      ASSERT_NE(result, nullptr) << format;
      EXPECT_EQ(PixelBytes(host.Bitmap(result)), Expected(source, brush, host.Get<float>(effect, "Smoothness")))
          << "format " << format << (coarse ? " coarse" : "");
      Release({result, source});
    }
  }
  Release({effect});
}

TEST_F(OilPaintEffect, MaskedResultMatchesTheReference) {
  REALobject effect = NewEffect();
  host.Set<uint8_t>(effect, "BrushSize", 3);
  for (const int64_t format : {kRGB, kRGBA, kGray}) {
    REALobject source = NewPattern(19, 14, format, 20 + static_cast<uint32_t>(format), true);
    REALobject maskBitmap = NewPattern(19, 14, kGray, 30 + static_cast<uint32_t>(format));
    // Mask values 0 and 255 included, without any shortcut.
    host.Bitmap(maskBitmap).row(0)[0] = 0;
    host.Bitmap(maskBitmap).row(0)[1] = 255;
    REALobject mask = host.NewMask(maskBitmap);
    host.Set<REALobject>(effect, "Mask", mask);
    REALobject result = Apply(effect, source);
    ASSERT_NE(result, nullptr) << format;
    EXPECT_EQ(PixelBytes(host.Bitmap(result)), Expected(source, 3, 0.4f, maskBitmap)) << "format " << format;
    host.Set<REALobject>(effect, "Mask", nullptr);
    Release({result, mask, maskBitmap, source});
  }
  Release({effect});
}

TEST_F(OilPaintEffect, MaskExtremesGive254) {
  REALobject effect = NewEffect();
  REALobject white = NewRow(kRGB, {255});
  for (const uint8_t m : {0, 255}) {
    REALobject maskBitmap = NewRow(kGray, {m});
    REALobject mask = host.NewMask(maskBitmap);
    host.Set<REALobject>(effect, "Mask", mask);
    REALobject result = Apply(effect, white);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(PixelBytes(host.Bitmap(result)), (std::vector<uint8_t>{254, 254, 254})) << int{m};
    Release({result, mask, maskBitmap});
  }
  Release({white, effect});
}

TEST_F(OilPaintEffect, OneChannelGreysLoseOneToTheirIntensity) {
  // A pair of g with intensity g - 1 shares its bin with g - 1: (g + g + g - 1) / 3.
  REALobject effect = NewEffect();
  const struct {
    uint8_t g;
    float smoothness;
  } cases[] = {{1, 1.0f}, {2, 0.5f}, {4, 1.0f}, {5, 0.2f}};
  for (const int64_t format : {0, 22, 23}) {
    for (const auto& c : cases) {
      host.Set<float>(effect, "Smoothness", c.smoothness);
      REALobject source = NewRow(format, {c.g, static_cast<uint8_t>(c.g - 1), c.g});
      REALobject result = Apply(effect, source);
      ASSERT_NE(result, nullptr);
      EXPECT_EQ(FirstBytes(result), std::vector<uint8_t>(3, static_cast<uint8_t>(c.g - 1)))
          << "format " << format << " grey " << int{c.g};
      Release({result, source});
    }
  }
  Release({effect});
}

TEST_F(OilPaintEffect, BlackBesideWhiteBecomesBlack) {
  REALobject effect = NewEffect();
  REALobject source = NewRow(kRGB, {0, 255});
  for (uint8_t brush = 1; brush <= 5; ++brush) {
    for (const float smoothness : {0.04f, 0.4f, 1.0f}) {
      host.Set<uint8_t>(effect, "BrushSize", brush);
      host.Set<float>(effect, "Smoothness", smoothness);
      REALobject result = Apply(effect, source);
      ASSERT_NE(result, nullptr);
      EXPECT_EQ(PixelBytes(host.Bitmap(result)), std::vector<uint8_t>(6, 0)) << int{brush} << " " << smoothness;
      host.Unlock(result);
    }
  }
  Release({source, effect});
}

TEST_F(OilPaintEffect, AlphaIsCopiedNotAveragedAndTheSourceKept) {
  REALobject effect = NewEffect();
  host.Set<uint8_t>(effect, "BrushSize", 4);
  for (const int64_t format : {kRGBA, kARGB}) {
    REALobject source = NewPattern(12, 9, format, 40 + static_cast<uint32_t>(format));
    const std::vector<uint8_t> before = PixelBytes(host.Bitmap(source));
    REALobject result = Apply(effect, source);
    ASSERT_NE(result, nullptr);
    const BitmapView in = host.Bitmap(source);
    const BitmapView out = host.Bitmap(result);
    const int alpha = in.record->alphaOffset;
    for (int64_t y = 0; y < in.height; ++y) {
      for (int64_t x = 0; x < in.width; ++x) {
        EXPECT_EQ(out.row(y)[x * 4 + alpha], in.row(y)[x * 4 + alpha]) << x << "," << y;
      }
    }
    EXPECT_EQ(PixelBytes(in), before);
    Release({result, source});
  }
  Release({effect});
}

TEST_F(OilPaintEffect, SameResultForAnyThreadsAndSplit) {
  REALobject effect = NewEffect();
  host.Set<uint8_t>(effect, "BrushSize", 3);
  REALobject source = NewPattern(21, 37, kRGBA, 50, true);
  REALobject maskBitmap = NewPattern(21, 37, kGray, 51);
  REALobject mask = host.NewMask(maskBitmap);
  for (const bool masked : {false, true}) {
    host.Set<REALobject>(effect, "Mask", masked ? mask : nullptr);
    const std::vector<uint8_t> expected = Expected(source, 3, 0.4f, masked ? maskBitmap : nullptr);
    for (const int threads : {1, 2, 4}) {
      host.SetThreads(threads);
      for (const SplitPolicy split : {SplitPolicy::Balanced, SplitPolicy::SinglePart, SplitPolicy::SmallParts,
                                      SplitPolicy::OddStarts, SplitPolicy::WithEmptyParts}) {
        host.SetSplitPolicy(split);
        REALobject result = Apply(effect, source);
        ASSERT_NE(result, nullptr);
        EXPECT_EQ(PixelBytes(host.Bitmap(result)), expected)
            << threads << " threads, split " << static_cast<int>(split) << (masked ? ", masked" : "");
        host.Unlock(result);
      }
    }
  }
  host.Set<REALobject>(effect, "Mask", nullptr);
  Release({mask, maskBitmap, source, effect});
}

TEST_F(OilPaintEffect, CancelBeforeTheRunLetsEachPartDoOneRow) {
  REALobject effect = NewEffect();
  REALobject source = NewPattern(8, 20, kRGB, 60);
  host.SetSplitPolicy(SplitPolicy::SmallParts);
  int64_t done = -1, total = -1;
  host.SetProgressObserver([&](int64_t d, int64_t t) {
    done = d;
    total = t;
    return true;
  });
  host.RequestCancel(effect);
  EXPECT_EQ(Apply(effect, source), nullptr);
  host.SetProgressObserver(nullptr);
  const EngineCall call = host.lastEngineCall();
  EXPECT_EQ(done, call.parts);  // parts of 1, 2 and 3 rows: one row each
  EXPECT_EQ(total, 20);
  EXPECT_EQ(host.LastError(effect), 0);
  Release({source, effect});
}

TEST_F(OilPaintEffect, CancelDuringTheRunStopsIt) {
  REALobject effect = NewEffect();
  host.Set<uint8_t>(effect, "BrushSize", 5);
  host.Set<float>(effect, "Smoothness", 1.0f);
  // Wide rows, so that the run lasts many progress intervals even with fast kernels.
  REALobject source = NewPattern(3000, 300, kRGB, 70);
  host.SetThreads(1);
  host.SetSplitPolicy(SplitPolicy::SinglePart);
  int64_t lastDone = -1;
  host.SetProgressObserver([&](int64_t done, int64_t) {
    lastDone = done;
    return done == 0;
  });
  EXPECT_EQ(Apply(effect, source), nullptr);
  host.SetProgressObserver(nullptr);
  EXPECT_GT(lastDone, 0);
  EXPECT_LT(lastDone, 300);
  Release({source, effect});
}

TEST_F(OilPaintEffect, MaskHoldsExactlyOneLock) {
  REALobject effect = NewEffect();
  REALobject bitmap = host.NewBitmap(4, 4, kGray);
  REALobject mask = host.NewMask(bitmap);
  ASSERT_EQ(host.RefCount(mask), 1);
  host.Set<REALobject>(effect, "Mask", mask);
  EXPECT_EQ(host.RefCount(mask), 2);
  host.Set<REALobject>(effect, "Mask", mask);
  EXPECT_EQ(host.RefCount(mask), 2);

  REALobject got = host.Get<REALobject>(effect, "Mask");
  EXPECT_EQ(got, mask);
  EXPECT_EQ(host.RefCount(mask), 3);
  host.Unlock(got);

  host.Set<REALobject>(effect, "Mask", nullptr);
  EXPECT_EQ(host.RefCount(mask), 1);
  EXPECT_EQ(host.Get<REALobject>(effect, "Mask"), nullptr);

  host.Set<REALobject>(effect, "Mask", mask);
  host.Unlock(effect);  // the destructor gives the lock back
  EXPECT_EQ(host.RefCount(mask), 1);
  Release({mask, bitmap});
}

}  // namespace
