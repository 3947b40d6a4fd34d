// BarrelDistortEffectRaw through the embedding host: its colour and
// properties, refused runs, and Apply and ApplyAsync against the reference
// kernels for settings (non-finite ones included), depths, colour families and
// every row split.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "effects/barrel/barrel_class.h"
#include "support/barrel_reference.h"
#include "support/effect_checks.h"

namespace {

using namespace rawfx::test;
using namespace BarrelKeystone;
using rawfx::host::EngineCall;

constexpr const char* kClass = "BarrelDistortEffectRaw";
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

class BarrelEffect : public EffectTest {
 protected:
  BarrelDistortionData& Data(REALobject effect) {
    return *static_cast<BarrelDistortionData*>(host.ClassData(effect, kClass));
  }
};

TEST_F(BarrelEffect, HeldColourAndPropertiesStoredAsGiven) {
  REALobject effect = Keep(host.New(kClass));  // defaults: docs_classes_test
  REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
  EXPECT_TRUE(host.IsA(colour, "ZandoriaColors.RGBColor"));
  EXPECT_EQ(host.RefCount(colour), 2) << "the effect's reference and the getter's";
  ExpectHoldsOneLock(effect, "BackColor", Keep(host.NewRGBColor(1, 2, 3)), Keep(host.NewCMYKColor(1, 2, 3, 4)), false);

  // Stored unchanged, extremes included; each property reads back its own value.
  host.Set<double>(effect, "Distortion", -kInf);
  host.Set<double>(effect, "HorizontalKeystone", kNaN);
  host.Set<double>(effect, "VerticalKeystone", 1e300);
  EXPECT_EQ(host.Get<double>(effect, "Distortion"), -kInf);
  EXPECT_TRUE(std::isnan(host.Get<double>(effect, "HorizontalKeystone")));
  EXPECT_EQ(host.Get<double>(effect, "VerticalKeystone"), 1e300);
  host.Set<bool>(effect, "Interpolate", false);
  EXPECT_FALSE(host.Get<bool>(effect, "Interpolate"));
}

TEST_F(BarrelEffect, NilSourceAndOtherDepthsAreRefused) {
  REALobject effect = Keep(host.New(kClass));
  REALobject source = NewSource(4, 3, kRGB);
  for (uint8_t bits : {uint8_t{0}, uint8_t{8}, uint8_t{12}, uint8_t{32}}) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    REALobject run = bits == 8 ? nullptr : source;  // 8: a nil source
    host.Bitmap(source).record->bitsPerChannel = bits;
    const int64_t code = run ? 6 : 4;
    ExpectRefused(effect, run, code, [&] { return host.Call<REALobject>(effect, kApply, run); });
    ExpectRefused(effect, run, code, [&] { return ApplyAsync(effect, run, effect); });
  }
  host.Bitmap(source).record->bitsPerChannel = 8;
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

// One effect applies each row's settings (the first row its defaults) with
// Apply and with ApplyAsync; distortion -1 and non-finite settings map every
// pixel outside, so those results are all background.
TEST_F(BarrelEffect, RunsMatchTheReferenceKernels) {
  REALobject rgb = Keep(host.NewRGBColor(200, 100, 50, 77));
  REALobject cmyk = Keep(host.NewCMYKColor(10, 60, 200, 30, 99));
  const std::string rgbState = ColourState(rgb), cmykState = ColourState(cmyk);
  REALobject effect = Keep(host.New(kClass));
  struct Row {
    double distortion, horizontal, vertical;
    bool interpolate;
    int64_t format, width, height;
    int bits;
    REALobject colour;  // nil: the default colour
  };
  const Row rows[] = {
      {0.0, 0.0, 0.0, true, kRGBA, 12, 8, 8, nullptr},  {0.35, 0.1, -0.05, true, kRGBA, 37, 29, 16, rgb},
      {0.35, 0.1, -0.05, false, kRGBA, 37, 29, 8, rgb}, {0.5, -0.2, 0.25, false, kCMYK, 10, 6, 16, rgb},
      {-0.25, 0.0, 0.1, true, kBGRA, 7, 3, 8, cmyk},    {-1.0, 0.0, 0.0, false, kCMYKA, 5, 4, 8, rgb},
      {-1.0, 0.0, 0.0, true, kRGBA, 6, 3, 16, cmyk},    {kNaN, 0.0, 0.0, true, kRGB, 9, 6, 8, rgb},
      {kInf, 0.0, 0.0, false, kXRGB, 9, 6, 16, cmyk},   {0.0, kInf, 0.0, true, kRGB, 9, 6, 8, cmyk},
      {0.0, 0.0, -kInf, false, kRGB, 9, 6, 16, rgb},    {0.0, 0.0, kNaN, true, kCMYK, 9, 6, 8, cmyk},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("distortion " + std::to_string(row.distortion) + ", keystones " + std::to_string(row.horizontal) +
                 "/" + std::to_string(row.vertical) + ", format " + std::to_string(row.format) + ", " +
                 std::to_string(row.bits) + " bits" + (row.interpolate ? ", bilinear" : ""));
    if (row.colour) host.Set<REALobject>(effect, "BackColor", row.colour);
    host.Set<bool>(effect, "Interpolate", row.interpolate);
    host.Set<double>(effect, "Distortion", row.distortion);
    host.Set<double>(effect, "HorizontalKeystone", row.horizontal);
    host.Set<double>(effect, "VerticalKeystone", row.vertical);
    REALobject source = NewSource(row.width, row.height, row.format, row.bits, static_cast<uint32_t>(row.width));

    BarrelDistortionParams params{};
    const double keystone[9] = {1, 0, row.horizontal, 0, 1, row.vertical, row.horizontal, row.vertical, 1};
    std::copy(keystone, keystone + 9, params.keystone);
    params.distortion = row.distortion;
    params.centerX = static_cast<double>(row.width) * 0.5;
    params.centerY = static_cast<double>(row.height) * 0.5;
    params.distortionPlusOne = row.distortion + 1.0;
    REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
    const std::vector<int32_t> background = BackgroundValues(host, colour, row.format, row.bits, true);
    for (int i = 0; i < kMaxChannels; ++i) {
      params.backColor8[i] = static_cast<uint8_t>(background[i]);
      params.backColor16[i] = static_cast<uint16_t>(background[i]);
    }
    const PartFunction reference = row.bits == 8
                                       ? (row.interpolate ? rawfx::reference::BarrelDistortInterpolate8BitPart
                                                          : rawfx::reference::BarrelDistort8BitPart)
                                       : (row.interpolate ? rawfx::reference::BarrelDistortInterpolate16BitPart
                                                          : rawfx::reference::BarrelDistort16BitPart);
    const int32_t flags = row.bits == 8 ? 13 : 14;
    ExpectMatchesReference(effect, source, &params, reference, {EngineCall::Parts, 3, flags, nullptr, true},
                           [&] { return host.Call<REALobject>(effect, kApply, source); });
    EXPECT_EQ(Seen().call.params, &Data(effect).params) << "the block lives in the instance data";
    EXPECT_EQ(Seen().call.deleteCallback, nullptr);

    const rawfx::host::Host::AsyncCounts before = host.asyncCounts();
    ExpectMatchesReference(effect, source, &params, reference, {EngineCall::PartsAsync, 3, flags, nullptr, true},
                           [&] { return ApplyAsync(effect, source, Keep(host.NewCMYKColor(0, 0, 0, 0))); });
    EXPECT_EQ(Seen().call.params, &Data(effect).params);
    EXPECT_EQ(host.asyncCounts().blocksDeleted, before.blocksDeleted) << "the block is handed back, not deleted";
    EXPECT_GT(host.asyncCounts().deleteCallbacks, before.deleteCallbacks);
    ASSERT_NE(Seen().call.deleteCallback, nullptr);
    EXPECT_EQ(Seen().call.deleteCallback(effect, &Data(effect).params.head), 0);
  }
  EXPECT_EQ(ColourState(rgb), rgbState);
  EXPECT_EQ(ColourState(cmyk), cmykState);
}

}  // namespace
