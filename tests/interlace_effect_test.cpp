// InterlaceEffectRaw through the embedding host: its rows and defaults, the
// accessors, the order of the checks, the no-op case, colours of either family,
// Apply against ApplyInPlace, and independence of threads and row splits.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/host_fixture.h"

namespace {

namespace rh = rawfx::host;
using rawfx::test::FillPattern;
using rawfx::test::SamePixels;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";

// RawBitmapFormat codes used here.
constexpr int64_t kRGB = 3;
constexpr int64_t kRGBA = 5;
constexpr int64_t kCMYK = 13;

// The pairs of types that make the effect run (both NONE is the no-op).
const std::pair<int64_t, int64_t> kRunningTypes[] = {{0, 1}, {0, 2}, {1, 0}, {1, 1}, {1, 2},
                                                     {2, 0}, {2, 1}, {2, 2}};

// One reference, released when the test leaves its scope (also on a failed ASSERT).
class Ref {
 public:
  Ref(rh::Host& host, REALobject object) : host_(host), object_(object) {}
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() { host_.Unlock(object_); }
  operator REALobject() const { return object_; }

 private:
  rh::Host& host_;
  REALobject object_;
};

uint32_t SampleAt(const rh::BitmapView& v, int64_t x, int64_t y, int sample) {
  const uint8_t* pixel = v.row(y) + x * v.pixelBytes;
  if (v.bitsPerChannel == 16) {
    uint16_t value;
    std::memcpy(&value, pixel + 2 * sample, 2);
    return value;
  }
  return pixel[sample];
}

// The pixel bytes of a bitmap (padding excluded), to compare before and after.
std::vector<uint8_t> PixelBytes(const rh::BitmapView& v) {
  std::vector<uint8_t> bytes;
  for (int64_t y = 0; y < v.height; ++y) bytes.insert(bytes.end(), v.row(y), v.row(y) + v.width * v.pixelBytes);
  return bytes;
}

class InterlaceEffect : public rawfx::test::HostTest {
 protected:
  REALobject NewEffect(int64_t horizontal, int64_t vertical) {
    REALobject effect = host.New("InterlaceEffectRaw");
    SetTypes(effect, horizontal, vertical);
    return effect;
  }
  void SetTypes(REALobject effect, int64_t horizontal, int64_t vertical) {
    host.Set<int64_t>(effect, "HorizontalInterlaceType", horizontal);
    host.Set<int64_t>(effect, "VerticalInterlaceType", vertical);
  }
  REALobject NewSource(int64_t width, int64_t height, int64_t format, int bits = 8, uint32_t seed = 1) {
    REALobject bitmap = host.NewBitmap(width, height, format, bits, 4);  // padded rows
    FillPattern(host, bitmap, seed);
    return bitmap;
  }
  REALobject Apply(REALobject effect, REALobject source) { return host.Call<REALobject>(effect, kApply, source); }
  void ApplyInPlace(REALobject effect, REALobject source) { host.Call<void>(effect, kApplyInPlace, source); }

  // Stores 6 in the effect's lastError (a source that claims 32 bits per
  // channel), so that a following check shows that it stored a code itself.
  void StoreDepthError(REALobject effect) {
    const int64_t h = host.Get<int64_t>(effect, "HorizontalInterlaceType");
    const int64_t v = host.Get<int64_t>(effect, "VerticalInterlaceType");
    SetTypes(effect, 1, 0);
    Ref source(host, NewSource(2, 2, kRGB));
    ClaimDepth(source, 32);
    EXPECT_EQ(Apply(effect, source), nullptr);
    ClaimDepth(source, 8);
    ASSERT_EQ(host.LastError(effect), 6);
    SetTypes(effect, h, v);
  }
  // The companion makes only 8- and 16-bit bitmaps; other depths are made by
  // editing the record the effect reads.
  void ClaimDepth(REALobject bitmap, uint8_t bits) { host.Bitmap(bitmap).record->bitsPerChannel = bits; }
};

// ---- the class as the host sees it ---------------------------------------------------

TEST_F(InterlaceEffect, NewObjectHasTheDocumentedDefaults) {
  Ref effect(host, host.New("InterlaceEffectRaw"));
  ASSERT_NE(effect, nullptr);
  EXPECT_EQ(host.Get<REALobject>(effect, "Mask"), nullptr);
  EXPECT_TRUE(host.Get<bool>(effect, "InterlaceAlphaChannel"));
  EXPECT_EQ(host.Get<int64_t>(effect, "HorizontalInterlaceType"), 0);
  EXPECT_EQ(host.Get<int64_t>(effect, "VerticalInterlaceType"), 0);
  Ref colour(host, host.Get<REALobject>(effect, "BackColor"));
  EXPECT_TRUE(host.IsA(colour, "ZandoriaColors.RGBColor"));
  EXPECT_EQ(host.RefCount(colour), 2) << "the effect's reference and the getter's";
}

TEST_F(InterlaceEffect, RecordCarriesTheTypeEnum) {
  const REALclassDefinition* record = nullptr;
  for (const REALclassDefinition* r : host.registeredRecords())
    if (std::string(r->name) == "InterlaceEffectRaw") record = r;
  ASSERT_NE(record, nullptr);
  EXPECT_STREQ(record->superName, "MPImageFilterRaw");
  EXPECT_STREQ(record->interfaces, "IRawBitmapProcessor");
  EXPECT_EQ(record->dataSize, 40);

  ASSERT_EQ(record->enumCount, 1);
  const ClassEnumEntry& types = record->enums[0];
  EXPECT_STREQ(types.name, "InterlaceTypeValues");
  EXPECT_STREQ(types.type, "Integer");
  EXPECT_EQ(types.flags, 32);
  ASSERT_EQ(types.valueCount, 3);
  EXPECT_STREQ(types.values[0], "INTERLACE_NONE = 0");
  EXPECT_STREQ(types.values[1], "INTERLACE_ODD = 1");
  EXPECT_STREQ(types.values[2], "INTERLACE_EVEN = 2");
}

TEST_F(InterlaceEffect, NilBackColorKeepsTheOldColour) {
  Ref effect(host, NewEffect(1, 0));
  Ref colour(host, host.NewRGBColor(10, 20, 30));
  host.Set<REALobject>(effect, "BackColor", colour);
  host.Set<REALobject>(effect, "BackColor", nullptr);
  {
    Ref held(host, host.Get<REALobject>(effect, "BackColor"));
    EXPECT_EQ(held, colour);
    EXPECT_EQ(host.RefCount(colour), 3);
  }
  Ref source(host, NewSource(3, 2, kRGB));
  Ref result(host, Apply(effect, source));
  ASSERT_NE(result, nullptr);
  const rh::BitmapView v = host.Bitmap(result);
  EXPECT_EQ(SampleAt(v, 1, 0, 0), 10u);
  EXPECT_EQ(SampleAt(v, 1, 0, 2), 30u);
}

TEST_F(InterlaceEffect, ReplacedAndReassignedObjectsKeepOneReference) {
  Ref effect(host, NewEffect(1, 0));
  Ref first(host, host.NewRGBColor(1, 2, 3));
  Ref second(host, host.NewCMYKColor(1, 2, 3, 4));
  host.Set<REALobject>(effect, "BackColor", first);
  host.Set<REALobject>(effect, "BackColor", first);
  EXPECT_EQ(host.RefCount(first), 2);
  host.Set<REALobject>(effect, "BackColor", second);
  EXPECT_EQ(host.RefCount(first), 1);
  EXPECT_EQ(host.RefCount(second), 2);

  Ref bitmap(host, NewSource(2, 2, kRGB));
  Ref mask(host, host.NewMask(bitmap));
  host.Set<REALobject>(effect, "Mask", mask);
  host.Set<REALobject>(effect, "Mask", mask);
  EXPECT_EQ(host.RefCount(mask), 2);
}

TEST_F(InterlaceEffect, NilMaskRemovesTheMask) {
  Ref effect(host, NewEffect(1, 1));
  Ref source(host, NewSource(9, 7, kRGBA, 8, 3));
  Ref maskBitmap(host, NewSource(9, 7, kRGBA, 8, 4));
  Ref mask(host, host.NewMask(maskBitmap));
  Ref plain(host, Apply(effect, source));

  host.Set<REALobject>(effect, "Mask", mask);
  {
    Ref held(host, host.Get<REALobject>(effect, "Mask"));
    EXPECT_EQ(held, mask);
  }
  Ref masked(host, Apply(effect, source));
  EXPECT_EQ(host.lastEngineCall().mask, mask);
  EXPECT_FALSE(SamePixels(host, masked, plain));

  host.Set<REALobject>(effect, "Mask", nullptr);
  EXPECT_EQ(host.Get<REALobject>(effect, "Mask"), nullptr);
  EXPECT_EQ(host.RefCount(mask), 1);
  Ref unmasked(host, Apply(effect, source));
  EXPECT_EQ(host.lastEngineCall().mask, nullptr);
  EXPECT_TRUE(SamePixels(host, unmasked, plain));
}

// ---- checks and the no-op case ------------------------------------------------------------

TEST_F(InterlaceEffect, BothTypesNoneReturnTheSourceItself) {
  Ref effect(host, NewEffect(0, 0));
  Ref maskBitmap(host, NewSource(4, 3, kRGB));
  Ref mask(host, host.NewMask(maskBitmap));
  Ref cmyk(host, host.NewCMYKColor(9, 8, 7, 6));
  struct Source {
    int64_t format;
    int bits;
    uint8_t claimedBits;
  };
  for (const Source s : {Source{kRGB, 8, 8}, Source{kRGBA, 16, 16}, Source{kCMYK, 8, 8}, Source{kRGB, 8, 32}}) {
    for (bool withMask : {false, true}) {
      host.Set<REALobject>(effect, "Mask", withMask ? static_cast<REALobject>(mask) : nullptr);
      host.Set<REALobject>(effect, "BackColor", cmyk);
      Ref source(host, NewSource(4, 3, s.format, s.bits));
      ClaimDepth(source, s.claimedBits);
      const std::vector<uint8_t> before = PixelBytes(host.Bitmap(source));

      REALobject result = Apply(effect, source);
      EXPECT_EQ(result, static_cast<REALobject>(source));
      EXPECT_EQ(host.RefCount(source), 2);
      host.Unlock(result);
      ApplyInPlace(effect, source);
      EXPECT_EQ(host.RefCount(source), 1);

      EXPECT_EQ(PixelBytes(host.Bitmap(source)), before);
      EXPECT_EQ(host.lastEngineCall().operation, rh::EngineCall::None);
      EXPECT_EQ(host.LastError(effect), 0);
      ClaimDepth(source, static_cast<uint8_t>(s.bits));
    }
  }
}

TEST_F(InterlaceEffect, HorizontalTypeIsCheckedBeforeTheSource) {
  Ref effect(host, NewEffect(0, 0));
  Ref source(host, NewSource(3, 3, kRGB));
  for (int64_t horizontal : {-1, 3}) {
    for (int64_t vertical : {0, 1, 5}) {
      StoreDepthError(effect);
      SetTypes(effect, horizontal, vertical);
      ClaimDepth(source, 32);  // would give 6 if the source were looked at
      EXPECT_EQ(Apply(effect, source), nullptr);
      EXPECT_EQ(host.LastError(effect), 4) << horizontal << "/" << vertical;
      StoreDepthError(effect);
      ApplyInPlace(effect, source);
      EXPECT_EQ(host.LastError(effect), 4);
      ClaimDepth(source, 8);
    }
  }
  EXPECT_EQ(host.lastEngineCall().operation, rh::EngineCall::None);
}

TEST_F(InterlaceEffect, BadVerticalTypeGivesFour) {
  Ref effect(host, NewEffect(0, 0));
  Ref source(host, NewSource(3, 3, kRGB));
  const std::vector<uint8_t> before = PixelBytes(host.Bitmap(source));
  for (int64_t horizontal : {0, 1, 2}) {
    for (int64_t vertical : {int64_t{-1}, int64_t{3}, int64_t{1} << 40}) {
      StoreDepthError(effect);
      SetTypes(effect, horizontal, vertical);
      EXPECT_EQ(Apply(effect, source), nullptr);
      EXPECT_EQ(host.LastError(effect), 4);
      StoreDepthError(effect);
      ApplyInPlace(effect, source);
      EXPECT_EQ(host.LastError(effect), 4);
    }
  }
  EXPECT_EQ(PixelBytes(host.Bitmap(source)), before);
}

TEST_F(InterlaceEffect, NilSourceGivesFourForEverySetting) {
  Ref effect(host, NewEffect(0, 0));
  for (int64_t horizontal = -1; horizontal <= 3; ++horizontal) {
    for (int64_t vertical = -1; vertical <= 3; ++vertical) {
      StoreDepthError(effect);
      SetTypes(effect, horizontal, vertical);
      EXPECT_EQ(Apply(effect, nullptr), nullptr);
      EXPECT_EQ(host.LastError(effect), 4) << horizontal << "/" << vertical;
      StoreDepthError(effect);
      ApplyInPlace(effect, nullptr);
      EXPECT_EQ(host.LastError(effect), 4) << horizontal << "/" << vertical;
    }
  }
}

TEST_F(InterlaceEffect, DepthsOtherThan8And16GiveSix) {
  Ref effect(host, NewEffect(1, 2));
  Ref source(host, NewSource(3, 3, kRGBA));
  const std::vector<uint8_t> before = PixelBytes(host.Bitmap(source));
  for (uint8_t bits : {0, 1, 7, 9, 15, 32, 255}) {
    Ref other(host, NewEffect(1, 2));
    ClaimDepth(source, bits);
    EXPECT_EQ(Apply(other, source), nullptr);
    EXPECT_EQ(host.LastError(other), 6) << int(bits);
    ApplyInPlace(effect, source);
    EXPECT_EQ(host.LastError(effect), 6) << int(bits);
  }
  ClaimDepth(source, 8);
  EXPECT_EQ(PixelBytes(host.Bitmap(source)), before);
  EXPECT_EQ(host.lastEngineCall().operation, rh::EngineCall::None);
}

TEST_F(InterlaceEffect, PixelsWiderThanEightChannelsGiveSix) {
  // The colour has one entry per channel for at most eight channels.
  Ref effect(host, NewEffect(1, 0));
  Ref narrow(host, NewSource(3, 3, kRGBA, 8));
  Ref wide(host, NewSource(3, 3, kRGBA, 16));
  host.Bitmap(narrow).record->bytesPerPixel = 9;
  EXPECT_EQ(Apply(effect, narrow), nullptr);
  EXPECT_EQ(host.LastError(effect), 6);
  host.Bitmap(narrow).record->bytesPerPixel = 4;

  Ref other(host, NewEffect(1, 0));
  host.Bitmap(wide).record->channelCount = 9;
  ApplyInPlace(other, wide);
  EXPECT_EQ(host.LastError(other), 6);
  host.Bitmap(wide).record->channelCount = 4;
  EXPECT_EQ(host.lastEngineCall().operation, rh::EngineCall::None);
}

TEST_F(InterlaceEffect, SuccessLeavesAnEarlierErrorInPlace) {
  Ref effect(host, NewEffect(2, 0));
  EXPECT_EQ(Apply(effect, nullptr), nullptr);
  ASSERT_EQ(host.LastError(effect), 4);
  Ref source(host, NewSource(5, 4, kRGB));
  Ref result(host, Apply(effect, source));
  EXPECT_NE(result, nullptr);
  ApplyInPlace(effect, source);
  EXPECT_EQ(host.LastError(effect), 4);
}

// ---- runs ---------------------------------------------------------------------------------

TEST_F(InterlaceEffect, EngineIsCalledWithTheDocumentedValues) {
  Ref effect(host, NewEffect(1, 0));
  for (int bits : {8, 16}) {
    Ref source(host, NewSource(4, 4, kRGBA, bits));
    Ref result(host, Apply(effect, source));
    ASSERT_NE(result, nullptr);
    rh::EngineCall call = host.lastEngineCall();
    EXPECT_EQ(call.operation, rh::EngineCall::Parts);
    EXPECT_EQ(call.modeCode, 2);
    EXPECT_EQ(call.formatFlags, bits == 8 ? 13 : 14);
    EXPECT_EQ(call.resultFlag, 1);
    EXPECT_EQ(call.mask, nullptr);
    EXPECT_NE(call.partFunction, call.maskPartFunction);
    EXPECT_EQ(host.Bitmap(result).bitsPerChannel, bits);

    ApplyInPlace(effect, source);
    call = host.lastEngineCall();
    EXPECT_EQ(call.operation, rh::EngineCall::PartsInPlace);
    EXPECT_EQ(call.modeCode, 2);
    EXPECT_EQ(call.formatFlags, bits == 8 ? 13 : 14);
  }
}

TEST_F(InterlaceEffect, FillsWithTheColourAndKeepsAlphaWhenAsked) {
  Ref effect(host, NewEffect(1, 0));
  Ref colour(host, host.NewRGBColor(10, 20, 30, 40));
  host.Set<REALobject>(effect, "BackColor", colour);
  const rh::FormatInfo* rgba = rh::FindFormat(kRGBA);
  ASSERT_NE(rgba, nullptr);
  for (bool interlaceAlpha : {true, false}) {
    host.Set<bool>(effect, "InterlaceAlphaChannel", interlaceAlpha);
    Ref source(host, NewSource(3, 2, kRGBA));
    Ref result(host, Apply(effect, source));
    ASSERT_NE(result, nullptr);
    const rh::BitmapView in = host.Bitmap(source), out = host.Bitmap(result);
    for (int64_t x = 0; x < 3; ++x) {
      EXPECT_EQ(SampleAt(out, x, 0, rgba->red), 10u);
      EXPECT_EQ(SampleAt(out, x, 0, rgba->green), 20u);
      EXPECT_EQ(SampleAt(out, x, 0, rgba->blue), 30u);
      EXPECT_EQ(SampleAt(out, x, 0, rgba->alpha), interlaceAlpha ? 40u : SampleAt(in, x, 0, rgba->alpha));
      for (int c = 0; c < 4; ++c) EXPECT_EQ(SampleAt(out, x, 1, c), SampleAt(in, x, 1, c));
    }
  }
}

TEST_F(InterlaceEffect, ColoursAreConvertedToTheSourceFamily) {
  Ref effect(host, NewEffect(0, 1));
  const rh::FormatInfo* cmykFormat = rh::FindFormat(kCMYK);
  const rh::FormatInfo* rgbFormat = rh::FindFormat(kRGB);
  ASSERT_TRUE(cmykFormat && rgbFormat);
  for (int bits : {8, 16}) {
    // A CMYK source with an RGB colour.
    Ref rgbColour(host, host.NewRGBColor(200, 100, 50));
    const RGBColorData rgbBefore = host.RGBColor(rgbColour);
    const CMYKColorData asCMYK = host.CMYKColor(rgbColour);
    host.Set<REALobject>(effect, "BackColor", rgbColour);
    Ref cmykSource(host, NewSource(2, 1, kCMYK, bits));
    Ref cmykResult(host, Apply(effect, cmykSource));
    ASSERT_NE(cmykResult, nullptr);
    const rh::BitmapView c = host.Bitmap(cmykResult);
    const bool wide = bits == 16;
    EXPECT_EQ(SampleAt(c, 0, 0, cmykFormat->red), wide ? asCMYK.cyan16 : asCMYK.cyan);
    EXPECT_EQ(SampleAt(c, 0, 0, cmykFormat->green), wide ? asCMYK.magenta16 : asCMYK.magenta);
    EXPECT_EQ(SampleAt(c, 0, 0, cmykFormat->blue), wide ? asCMYK.yellow16 : asCMYK.yellow);
    EXPECT_EQ(SampleAt(c, 0, 0, cmykFormat->black), wide ? asCMYK.black16 : asCMYK.black);
    const RGBColorData rgbAfter = host.RGBColor(rgbColour);
    EXPECT_EQ(std::memcmp(&rgbBefore, &rgbAfter, sizeof rgbBefore), 0);

    // An RGB source with a CMYK colour.
    Ref cmykColour(host, host.NewCMYKColor(10, 60, 120, 30));
    const CMYKColorData cmykBefore = host.CMYKColor(cmykColour);
    const RGBColorData asRGB = host.RGBColor(cmykColour);
    host.Set<REALobject>(effect, "BackColor", cmykColour);
    Ref rgbSource(host, NewSource(2, 1, kRGB, bits));
    Ref rgbResult(host, Apply(effect, rgbSource));
    ASSERT_NE(rgbResult, nullptr);
    const rh::BitmapView r = host.Bitmap(rgbResult);
    EXPECT_EQ(SampleAt(r, 0, 0, rgbFormat->red), wide ? asRGB.red16 : asRGB.red);
    EXPECT_EQ(SampleAt(r, 0, 0, rgbFormat->green), wide ? asRGB.green16 : asRGB.green);
    EXPECT_EQ(SampleAt(r, 0, 0, rgbFormat->blue), wide ? asRGB.blue16 : asRGB.blue);
    const CMYKColorData cmykAfter = host.CMYKColor(cmykColour);
    EXPECT_EQ(std::memcmp(&cmykBefore, &cmykAfter, sizeof cmykBefore), 0);
  }
}

TEST_F(InterlaceEffect, ApplyInPlaceLeavesWhatApplyReturns) {
  Ref effect(host, NewEffect(0, 0));
  Ref maskBitmap(host, NewSource(7, 6, kRGBA, 8, 99));
  Ref mask(host, host.NewMask(maskBitmap, false, 1));
  for (bool withMask : {false, true}) {
    host.Set<REALobject>(effect, "Mask", withMask ? static_cast<REALobject>(mask) : nullptr);
    for (int bits : {8, 16}) {
      for (auto [h, v] : kRunningTypes) {
        SetTypes(effect, h, v);
        Ref source(host, NewSource(7, 6, kRGBA, bits, static_cast<uint32_t>(h * 3 + v)));
        Ref result(host, Apply(effect, source));
        ASSERT_NE(result, nullptr);
        ApplyInPlace(effect, source);
        EXPECT_TRUE(SamePixels(host, source, result)) << h << "/" << v << " " << bits << " bits, mask " << withMask;
      }
    }
  }
}

// The default split starts its parts at multiples of four rows, where both
// phases are as they are at row 0, so a run comes out as one part would make it.
TEST_F(InterlaceEffect, ResultDoesNotDependOnThreadsOrTheBalancedSplit) {
  Ref effect(host, NewEffect(0, 0));
  for (int64_t width : {8, 9}) {
    Ref maskBitmap(host, NewSource(width, 37, kRGBA, 8, 5));
    Ref mask(host, host.NewMask(maskBitmap, false, 2));
    for (bool withMask : {false, true}) {
      host.Set<REALobject>(effect, "Mask", withMask ? static_cast<REALobject>(mask) : nullptr);
      for (int bits : {8, 16}) {
        Ref source(host, NewSource(width, 37, kRGBA, bits, 7));
        for (auto [h, v] : kRunningTypes) {
          SetTypes(effect, h, v);
          host.SetThreads(1);
          host.SetSplitPolicy(rh::SplitPolicy::SinglePart);
          Ref reference(host, Apply(effect, source));
          ASSERT_NE(reference, nullptr);
          for (int threads : {1, 3, 4}) {
            for (rh::SplitPolicy split : {rh::SplitPolicy::Balanced, rh::SplitPolicy::WithEmptyParts}) {
              host.SetThreads(threads);
              host.SetSplitPolicy(split);
              Ref result(host, Apply(effect, source));
              EXPECT_GT(host.lastEngineCall().parts, 1);
              EXPECT_TRUE(SamePixels(host, result, reference))
                  << "width " << width << ", " << bits << " bits, types " << h << "/" << v << ", " << threads
                  << " threads, split " << static_cast<int>(split) << ", mask " << withMask;
            }
          }
        }
      }
    }
  }
}

// Parts of one and then two rows each start at odd rows: each part counts its
// rows afresh but swaps ODD and EVEN for its columns.
TEST_F(InterlaceEffect, PartsAtOddRowsSwapOnlyTheColumnPhase) {
  constexpr int64_t kWidth = 5, kHeight = 7;
  Ref effect(host, NewEffect(0, 0));
  Ref colour(host, host.NewRGBColor(250, 251, 252));
  host.Set<REALobject>(effect, "BackColor", colour);
  Ref source(host, host.NewBitmap(kWidth, kHeight, kRGB));
  const rh::BitmapView in = host.Bitmap(source);
  for (int64_t y = 0; y < kHeight; ++y)
    for (int64_t i = 0; i < kWidth * 3; ++i) in.row(y)[i] = static_cast<uint8_t>(y * 16 + i);  // below 250
  host.SetSplitPolicy(rh::SplitPolicy::OddStarts);

  struct Case {
    int64_t h, v;
    std::vector<std::string> filled;
  };
  // Parts: row 0, rows 1-2, rows 3-4, rows 5-6.
  const Case cases[] = {
      {1, 0, {"FFFFF", "FFFFF", ".....", "FFFFF", ".....", "FFFFF", "....."}},
      {2, 0, {".....", ".....", "FFFFF", ".....", "FFFFF", ".....", "FFFFF"}},
      {0, 1, {"F.F.F", ".F.F.", "F.F.F", ".F.F.", "F.F.F", ".F.F.", "F.F.F"}},
      {0, 2, {".F.F.", "F.F.F", ".F.F.", "F.F.F", ".F.F.", "F.F.F", ".F.F."}},
      {1, 1, {"FFFFF", "FFFFF", ".F.F.", "FFFFF", ".F.F.", "FFFFF", ".F.F."}},
      {2, 2, {".F.F.", "F.F.F", "FFFFF", "F.F.F", "FFFFF", "F.F.F", "FFFFF"}},
  };
  for (const Case& c : cases) {
    SetTypes(effect, c.h, c.v);
    Ref result(host, Apply(effect, source));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(host.lastEngineCall().parts, 4);
    const rh::BitmapView out = host.Bitmap(result);
    std::vector<std::string> filled;
    for (int64_t y = 0; y < kHeight; ++y) {
      std::string row;
      for (int64_t x = 0; x < kWidth; ++x) {
        const bool isColour = SampleAt(out, x, y, 0) == 250 && SampleAt(out, x, y, 1) == 251 &&
                              SampleAt(out, x, y, 2) == 252;
        const bool isSource = std::memcmp(out.row(y) + x * 3, in.row(y) + x * 3, 3) == 0;
        row += isColour ? 'F' : isSource ? '.' : '?';
      }
      filled.push_back(row);
    }
    EXPECT_EQ(filled, c.filled) << c.h << "/" << c.v;
  }
}

}  // namespace
