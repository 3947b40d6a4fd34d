// OilPaintEffectRaw through the embedding host: its clamped properties, the
// mask it holds, refused runs, and Apply against the reference kernels for
// every 8-bit format, brush size, smoothness, mask and row split.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "effects/oilpaint/oilpaint_class.h"
#include "support/effect_checks.h"
#include "support/oilpaint_kernel_reference.h"

namespace {

using namespace rawfx::test;
using rawfx::host::EngineCall;

constexpr const char* kClass = "OilPaintEffectRaw";
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

class OilPaintEffect : public EffectTest {
 protected:
  OilPaintData& Data(REALobject effect) { return *static_cast<OilPaintData*>(host.ClassData(effect, kClass)); }
};

TEST_F(OilPaintEffect, HeldMaskAndClampedProperties) {
  REALobject effect = Keep(host.New(kClass));  // defaults: docs_classes_test
  REALobject bitmap = NewSource(4, 4, kGrey);
  ExpectHoldsOneLock(effect, "Mask", Keep(host.NewMask(bitmap)), Keep(host.NewMask(bitmap, true)), true);

  const std::pair<uint8_t, uint8_t> brushSizes[] = {{0, 1}, {1, 1}, {3, 3}, {5, 5}, {6, 5}, {255, 5}};
  for (auto [set, read] : brushSizes) {
    host.Set<uint8_t>(effect, "BrushSize", set);
    EXPECT_EQ(host.Get<uint8_t>(effect, "BrushSize"), read) << int{set};
  }
  const std::pair<float, float> smoothnesses[] = {{0.0f, 0.04f},    {0.039f, 0.04f}, {-3.0f, 0.04f}, {0.04f, 0.04f},
                                                  {0.041f, 0.041f}, {1.0f, 1.0f},    {7.5f, 1.0f},   {kNaN, 1.0f}};
  for (auto [set, read] : smoothnesses) {
    host.Set<float>(effect, "Smoothness", set);
    EXPECT_EQ(host.Get<float>(effect, "Smoothness"), read) << set;
  }
}

// The source, then the brush size and smoothness (as stored in the instance
// data, past the setters' clamps), then the depth.
TEST_F(OilPaintEffect, RefusedSourcesAndSettingsStoreTheirCode) {
  struct Row {
    bool nilSource;
    int bits;
    uint8_t brush;
    float smoothness;
    int64_t code;
  };
  const Row rows[] = {{true, 8, 2, 0.4f, 4},     {true, 8, 0, 7.0f, 4},  {false, 16, 2, 0.4f, 6},
                      {false, 8, 0, 0.4f, 4},    {false, 8, 6, 0.4f, 4}, {false, 8, 2, 1.0001f, 4},
                      {false, 8, 2, 0.0399f, 4}, {false, 8, 2, kNaN, 4}, {false, 16, 6, 0.4f, 4}};
  for (const Row& row : rows) {
    SCOPED_TRACE("brush " + std::to_string(row.brush) + ", smoothness " + std::to_string(row.smoothness) + ", " +
                 std::to_string(row.bits) + " bits" + (row.nilSource ? ", nil source" : ""));
    REALobject effect = Keep(host.New(kClass));
    Data(effect).brushSize = row.brush;
    Data(effect).smoothness = row.smoothness;
    REALobject source = row.nilSource ? nullptr : NewSource(4, 4, kRGB, row.bits);
    ExpectRefused(effect, source, row.code, [&] { return host.Call<REALobject>(effect, kApply, source); });
  }
  EXPECT_EQ(host.lastEngineCall().operation, EngineCall::None);
}

// One effect with its defaults (brush 2, 103 bins), then every 8-bit format
// with brush sizes 1 to 5 and smoothness clamped or not; a third of them
// masked (mask values 0 and 255 included), half with two bits per byte for
// crowded bins.
TEST_F(OilPaintEffect, RunsMatchTheReferenceKernels) {
  const int64_t formats[] = {kRGBA, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13, 14, 15, 16, 22, 23};
  const float smoothnesses[] = {0.0f, 0.4f, 7.5f, 0.5f, 0.1f};
  REALobject maskBitmap = NewSource(17, 13, kGrey, 8, 99);
  host.Bitmap(maskBitmap).row(0)[0] = 0;
  host.Bitmap(maskBitmap).row(0)[1] = 255;
  REALobject mask = Keep(host.NewMask(maskBitmap));
  REALobject effect = Keep(host.New(kClass));
  for (size_t i = 0; i < std::size(formats); ++i) {
    const int64_t format = formats[i];
    const bool fresh = i == 0, masked = i % 3 == 1, coarse = i % 2 == 1;
    SCOPED_TRACE("format " + std::to_string(format) + (fresh ? ", fresh" : "") + (masked ? ", masked" : ""));
    if (!fresh) {
      host.Set<uint8_t>(effect, "BrushSize", static_cast<uint8_t>(1 + i % 5));
      host.Set<float>(effect, "Smoothness", smoothnesses[i % 5]);
    }
    host.Set<REALobject>(effect, "Mask", masked ? mask : nullptr);
    REALobject source = NewSource(17, 13, format, 8, static_cast<uint32_t>(i));
    const rawfx::host::BitmapView view = host.Bitmap(source);
    for (int64_t y = 0; coarse && y < view.height; ++y)
      for (int64_t b = 0; b < view.width * view.pixelBytes; ++b) view.row(y)[b] &= 0xC0;

    const rawfx::host::FormatInfo& info = *rawfx::host::FindFormat(format);
    OilPaintParams params{};
    params.brushSize = host.Get<uint8_t>(effect, "BrushSize");
    params.smoothness = host.Get<float>(effect, "Smoothness");
    params.maxLevel = static_cast<int16_t>(params.smoothness * 255.0f);
    params.redOffset = info.red;
    params.greenOffset = info.green;
    params.blueOffset = info.blue;
    const REALobject usedMask = masked ? mask : nullptr;
    ExpectMatchesReference(
        effect, source, &params, masked ? rawfx::reference::OilPaintMaskPart8bit : rawfx::reference::OilPaintPart8bit,
        {EngineCall::Parts, 3, 5, usedMask, false}, [&] { return host.Call<REALobject>(effect, kApply, source); });
  }
}

}  // namespace
