// InterlaceEffectRaw through the embedding host: the objects it holds, the
// order of its checks, the no-op case, and Apply and ApplyInPlace against the
// reference kernels for every setting, both colour families, masks and every
// row split.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "effects/interlace/interlace_kernels.h"
#include "support/effect_checks.h"
#include "support/interlace_reference.h"

namespace {

using namespace rawfx::test;
using rawfx::host::EngineCall;

constexpr const char* kClass = "InterlaceEffectRaw";

class InterlaceEffect : public EffectTest {
 protected:
  REALobject NewInterlace(int64_t horizontal, int64_t vertical) {
    REALobject effect = Keep(host.New(kClass));
    SetTypes(effect, horizontal, vertical);
    return effect;
  }
  void SetTypes(REALobject effect, int64_t horizontal, int64_t vertical) {
    host.Set<int64_t>(effect, "HorizontalInterlaceType", horizontal);
    host.Set<int64_t>(effect, "VerticalInterlaceType", vertical);
  }
  REALobject Apply(REALobject effect, REALobject source) { return host.Call<REALobject>(effect, kApply, source); }
  REALobject ApplyInPlace(REALobject effect, REALobject source) {
    host.Call<void>(effect, kApplyInPlace, source);
    return source;
  }
};

// The record, the enum's values and the defaults are those of
// docs/classes.md, which docs_classes_test compares with the module.
TEST_F(InterlaceEffect, HeldObjectsAndTypesStoredAsGiven) {
  REALobject effect = Keep(host.New(kClass));
  REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
  EXPECT_EQ(host.RefCount(colour), 2) << "the effect's reference and the getter's";
  SetTypes(effect, 7, -5);  // stored as given; Apply refuses them
  EXPECT_EQ(host.Get<int64_t>(effect, "HorizontalInterlaceType"), 7);
  EXPECT_EQ(host.Get<int64_t>(effect, "VerticalInterlaceType"), -5);

  ExpectHoldsOneLock(effect, "BackColor", Keep(host.NewRGBColor(1, 2, 3)), Keep(host.NewCMYKColor(1, 2, 3, 4)), false);
  REALobject bitmap = NewSource(2, 2, kRGB);
  ExpectHoldsOneLock(effect, "Mask", Keep(host.NewMask(bitmap)), Keep(host.NewMask(bitmap, true)), true);
}

// Both types NONE with a source: Apply returns the very source with one more
// reference, ApplyInPlace does nothing, whatever the depth, mask and colour.
TEST_F(InterlaceEffect, BothTypesNoneReturnTheSourceItself) {
  REALobject effect = NewInterlace(0, 0);
  REALobject mask = Keep(host.NewMask(NewSource(4, 3, kRGB)));
  host.Set<REALobject>(effect, "BackColor", Keep(host.NewCMYKColor(9, 8, 7, 6)));
  for (auto [bits, claimedBits] : {std::pair{8, 8}, {16, 16}, {8, 32}}) {
    for (bool withMask : {false, true}) {
      SCOPED_TRACE(std::to_string(claimedBits) + " bits" + (withMask ? ", masked" : ""));
      host.Set<REALobject>(effect, "Mask", withMask ? mask : nullptr);
      REALobject source = NewSource(4, 3, kCMYK, bits);
      host.Bitmap(source).record->bitsPerChannel = static_cast<uint8_t>(claimedBits);
      const std::vector<uint8_t> before = PixelBytes(host, source);
      REALobject result = Apply(effect, source);
      EXPECT_EQ(result, source);
      EXPECT_EQ(host.RefCount(source), 2);
      host.Unlock(result);
      ApplyInPlace(effect, source);
      EXPECT_EQ(host.RefCount(source), 1);
      EXPECT_EQ(PixelBytes(host, source), before);
      EXPECT_EQ(host.LastError(effect), 0);
      host.Bitmap(source).record->bitsPerChannel = static_cast<uint8_t>(bits);
    }
  }
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

// The horizontal type is tested first (before the source is looked at), then
// the no-op case, then the vertical type and the source, the depth last.
TEST_F(InterlaceEffect, RefusedSettingsAndSourcesStoreTheirCode) {
  struct Row {
    int64_t horizontal, vertical;
    bool nilSource;
    int bits;
    uint8_t claimedBits, channels;  // patched into the record; channels 0: as made
    int64_t code;
  };
  const Row rows[] = {
      {-1, 0, false, 8, 32, 0, 4}, {3, 5, false, 8, 32, 0, 4},  {3, 0, true, 8, 8, 0, 4},
      {0, -1, false, 8, 8, 0, 4},  {1, 3, false, 16, 16, 0, 4}, {2, int64_t{1} << 40, false, 8, 8, 0, 4},
      {0, 0, true, 8, 8, 0, 4},    {2, 1, true, 8, 8, 0, 4},    {1, 2, false, 8, 32, 0, 6},
      {0, 1, false, 8, 0, 0, 6},   {2, 0, false, 16, 15, 0, 6}, {1, 1, false, 8, 255, 0, 6},
      {1, 0, false, 8, 8, 9, 6},   {0, 2, false, 16, 16, 9, 6},  // more channels than colour entries
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("types " + std::to_string(row.horizontal) + "/" + std::to_string(row.vertical) + ", code " +
                 std::to_string(row.code));
    REALobject effect = NewInterlace(row.horizontal, row.vertical);
    REALobject source = row.nilSource ? nullptr : NewSource(3, 3, kRGBA, row.bits);
    RawBitmap saved{};
    if (source) {
      RawBitmap& record = *host.Bitmap(source).record;
      saved = record;
      record.bitsPerChannel = row.claimedBits;
      if (row.channels) (row.bits == 8 ? record.bytesPerPixel : record.channelCount) = row.channels;
    }
    ExpectRefused(effect, source, row.code, [&] { return Apply(effect, source); });
    ExpectRefused(effect, source, row.code, [&] { return ApplyInPlace(effect, source), REALobject{}; });
    if (source) *host.Bitmap(source).record = saved;
  }
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

// Every pair of types that runs, at both depths, with and then without a mask,
// on sources of both families with colours of the other family, alpha filled
// or kept: Apply and ApplyInPlace leave what the reference kernels make.
TEST_F(InterlaceEffect, RunsMatchTheReferenceKernels) {
  REALobject effect = Keep(host.New(kClass));
  REALobject mask = Keep(host.NewMask(NewSource(7, 9, kRGBA, 8, 99), false, 1));
  REALobject rgb = Keep(host.NewRGBColor(200, 100, 50, 40));
  REALobject cmyk = Keep(host.NewCMYKColor(10, 60, 120, 30, 20));
  const std::string rgbState = ColourState(rgb), cmykState = ColourState(cmyk);
  struct Look {
    int64_t format;
    REALobject colour;
    bool interlaceAlpha;
  };
  const std::pair<int64_t, int64_t> runningTypes[] = {{0, 1}, {0, 2}, {1, 0}, {1, 1}, {1, 2}, {2, 0}, {2, 1}, {2, 2}};
  for (const Look& look :
       {Look{kRGBA, cmyk, true}, Look{kCMYKA, rgb, true}, Look{kARGB, rgb, false}, Look{kCMYK, cmyk, false}}) {
    host.Set<REALobject>(effect, "BackColor", look.colour);
    host.Set<bool>(effect, "InterlaceAlphaChannel", look.interlaceAlpha);
    for (int bits : {8, 16}) {
      REALobject source = NewSource(7, 9, look.format, bits, static_cast<uint32_t>(look.format + bits));
      for (bool masked : {true, false}) {
        host.Set<REALobject>(effect, "Mask", masked ? mask : nullptr);
        const PartFunction reference =
            bits == 8 ? (masked ? rawfx::reference::InterlaceMaskPart : rawfx::reference::InterlacePart)
                      : (masked ? rawfx::reference::InterlaceMaskPart16 : rawfx::reference::InterlacePart16);
        for (auto [horizontal, vertical] : runningTypes) {
          SCOPED_TRACE("format " + std::to_string(look.format) + ", " + std::to_string(bits) + " bits, types " +
                       std::to_string(horizontal) + "/" + std::to_string(vertical) + (masked ? ", masked" : ""));
          SetTypes(effect, horizontal, vertical);
          InterlaceParams params{};
          params.horizontalType = horizontal;
          params.verticalType = vertical;
          params.interlaceAlpha = look.interlaceAlpha;
          const std::vector<int32_t> background =
              BackgroundValues(host, look.colour, look.format, bits, look.interlaceAlpha);
          std::copy(background.begin(), background.end(), params.channelValues);
          const REALobject usedMask = masked ? mask : nullptr;
          const int32_t flags = bits == 8 ? 13 : 14;
          ExpectMatchesReference(effect, source, &params, reference, {EngineCall::Parts, 2, flags, usedMask, false},
                                 [&] { return Apply(effect, source); });
          ExpectMatchesReference(effect, source, &params, reference,
                                 {EngineCall::PartsInPlace, 2, flags, usedMask, false},
                                 [&] { return ApplyInPlace(effect, source); });
        }
      }
    }
  }
  EXPECT_EQ(ColourState(rgb), rgbState);
  EXPECT_EQ(ColourState(cmyk), cmykState);
}

}  // namespace
