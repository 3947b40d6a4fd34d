// The companion classes the host provides: RawBitmap and its formats,
// RawBitmapMask and its operation table, and the colour classes with their
// conversion tables.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "host/host.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::HostError;
using V = std::vector<int>;

class CompanionsTest : public rawfx::test::HostTest {
 protected:
  // An object's plug-in data through the services the plug-in uses.
  void* PluginData(REALobject object, const char* className) {
    auto classRef = reinterpret_cast<REALclassRef (*)(const char*)>(host.resolve("pluginObjectType"));
    return reinterpret_cast<void* (*)(REALobject, REALclassRef)>(host.resolve("PluginGetPluginData"))(
        object, classRef(className));
  }
  // The mask's value at (x, y) through its 8- or 16-bit operations.
  int MaskAt(REALobject mask, int64_t y, int32_t x, bool wide = false) {
    auto* data = static_cast<RawBitmapMaskData*>(PluginData(mask, "RawBitmapMask"));
    return wide ? MaskAt16(data, MaskRow16(data, y), x) : MaskAt8(data, MaskRow8(data, y), x);
  }
};

// Byte positions scale with the depth; X formats have a fourth byte at the alpha
// position but no alpha; grey is read as red, green and blue. Sizes, formats
// and depths the companion refuses give nil.
TEST_F(CompanionsTest, BitmapRecordsFollowTheirFormatOrAreRefused) {
  struct Known {
    int64_t code;
    int bits;
    V channelsAndOffsets;  // channels; red, green, blue, alpha and black byte positions
    bool hasAlpha;
  };
  for (const Known& k : {Known{0, 8, {1, 0, 0, 0, 0xFF, 0xFF}, false}, Known{0, 16, {1, 0, 0, 0, 0xFF, 0xFF}, false},
                         Known{7, 8, {4, 2, 1, 0, 3, 0xFF}, true}, Known{5, 16, {4, 0, 2, 4, 6, 0xFF}, true},
                         Known{9, 8, {4, 1, 2, 3, 0, 0xFF}, false}, Known{16, 16, {4, 2, 4, 6, 0xFF, 0}, false},
                         Known{15, 8, {5, 1, 2, 3, 0, 4}, true}}) {
    SCOPED_TRACE(std::to_string(k.code) + " at " + std::to_string(k.bits));
    REALobject bitmap = host.NewBitmap(5, 3, k.code, k.bits, 6);
    ASSERT_NE(bitmap, nullptr);
    const rawfx::host::BitmapView view = host.Bitmap(bitmap);
    const RawBitmap& r = *view.record;
    EXPECT_EQ(view.record, PluginData(bitmap, "RawBitmap"));
    EXPECT_EQ(view.rowBytes, 5 * r.bytesPerPixel + 6);
    EXPECT_EQ((V{int(r.channelCount), r.redOffset, r.greenOffset, r.blueOffset, r.alphaOffset, r.blackOffset}),
              k.channelsAndOffsets);
    EXPECT_EQ((V{int(r.width), int(r.height), int(r.bytesPerPixel), r.bitsPerChannel, int(r.format), r.isValid,
                 r.hasAlpha}),
              (V{5, 3, k.channelsAndOffsets[0] * k.bits / 8, k.bits, int(k.code), 1, k.hasAlpha}));
    host.Unlock(bitmap);
  }
  for (const auto& [width, height, format, bits, padding] :
       {std::tuple{0, 4, 3, 8, 0}, {4, -1, 3, 8, 0}, {4, 4, 11, 8, 0}, {4, 4, 3, 12, 0}, {4, 4, 3, 16, 3},
        {1 << 20, 1 << 20, 5, 8, 0}}) {  // odd padding: 16-bit rows must stay aligned
    EXPECT_EQ(host.NewBitmap(width, height, format, bits, padding), nullptr) << width << "x" << height;
  }
  EXPECT_THROW(host.Bitmap(nullptr), HostError);
}

TEST_F(CompanionsTest, MaskValuesComeFromTheActiveChannel) {
  REALobject bitmap = host.NewBitmap(3, 2, 3);  // RGB, 8 bits
  host.Bitmap(bitmap).row(1)[2 * 3 + 1] = 200;  // green of pixel (2, 1)
  REALobject mask = host.NewMask(bitmap, false, 1);
  REALobject inverted = host.NewMask(bitmap, true, 1);
  EXPECT_EQ((V{MaskAt(mask, 1, 2), MaskAt(mask, 1, 1), MaskAt(mask, 1, 2, true), MaskAt(inverted, 1, 2),
               MaskAt(inverted, 0, 0, true)}),
            (V{200, 0, 200 * 257, 55, 65535}));
  // Outside the bitmap an inverted mask lets the effect through.
  EXPECT_EQ((V{MaskAt(inverted, 2, 0), MaskAt(inverted, -1, 0), MaskAt(inverted, 0, 3)}), (V{0, 0, 0}));
  EXPECT_EQ(host.RefCount(bitmap), 3);  // each mask holds the bitmap
  host.Unlock(mask);
  host.Unlock(inverted);
  EXPECT_EQ(host.NewMask(bitmap, false, 3), nullptr);  // RGB has no fourth channel
  EXPECT_EQ(host.NewMask(nullptr), nullptr);

  REALobject grey = host.NewBitmap(2, 1, 0, 16);
  const uint16_t value = 0xABCD;
  std::memcpy(host.Bitmap(grey).row(0) + 2, &value, sizeof value);
  REALobject deep = host.NewMask(grey);
  EXPECT_EQ((V{MaskAt(deep, 0, 1, true), MaskAt(deep, 0, 1)}), (V{0xABCD, 0xAB}));
  for (REALobject object : {deep, grey, bitmap}) host.Unlock(object);
}

TEST_F(CompanionsTest, NewColoursAreOpaqueBlackGenericColours) {
  REALobject rgb = host.New(kRGBColorClass);
  REALobject cmyk = host.New(kCMYKColorClass);
  const RGBColorData r = host.RGBColor(rgb);
  const CMYKColorData c = host.CMYKColor(cmyk);
  EXPECT_EQ((V{r.red, r.green, r.blue, r.alpha, r.red16, r.alpha16}), (V{0, 0, 0, 255, 0, 65535}));
  EXPECT_EQ((V{c.cyan, c.magenta, c.yellow, c.black, c.alpha, c.black16, c.alpha16}),
            (V{0, 0, 0, 255, 255, 65535, 65535}));
  EXPECT_EQ(host.New("ZandoriaColors.GenericColor"), nullptr);
  EXPECT_TRUE(host.IsA(rgb, "ZandoriaColors.GenericColor"));
  EXPECT_FALSE(host.IsA(rgb, kCMYKColorClass));
  EXPECT_EQ(PluginData(rgb, kCMYKColorClass), nullptr);
  REALobject bitmap = host.NewBitmap(1, 1, 0);
  EXPECT_THROW(host.RGBColor(bitmap), HostError);
  for (REALobject object : {rgb, cmyk, bitmap}) host.Unlock(object);
}

TEST_F(CompanionsTest, ConversionsAreTheNaiveOnesThroughTheTableBeforeTheColour) {
  struct Case {
    uint8_t r, g, b;
    uint8_t c, m, y, k;
  };
  // K = 255 - max; C = (max - R) * 255 / max, rounded; back R = (255 - C) * (255 - K) / 255.
  for (const Case& t : {Case{0, 0, 0, 0, 0, 0, 255}, Case{255, 255, 255, 0, 0, 0, 0}, Case{255, 0, 0, 0, 255, 255, 0},
                        Case{0, 128, 255, 255, 127, 0, 0}, Case{100, 50, 0, 0, 128, 255, 155}}) {
    REALobject rgb = host.NewRGBColor(t.r, t.g, t.b, 128);
    REALobject cmyk = host.NewCMYKColor(t.c, t.m, t.y, t.k);
    void* rgbData = PluginData(rgb, kRGBColorClass);
    void* cmykData = PluginData(cmyk, kCMYKColorClass);
    EXPECT_EQ(static_cast<uint8_t*>(PluginData(rgb, "ZandoriaColors.GenericColor")) + 8, rgbData);
    CMYKColorData c{};
    ConversionTableOf(rgbData)->ToCMYK(rgbData, &c);
    EXPECT_EQ((V{c.cyan, c.magenta, c.yellow, c.black, c.alpha, c.black16, c.alpha16}),
              (V{t.c, t.m, t.y, t.k, 128, t.k * 257, 128 * 257}));
    RGBColorData back{};
    ConversionTableOf(cmykData)->ToRGB(cmykData, &back);
    EXPECT_NEAR(back.red, t.r, 1);
    EXPECT_NEAR(back.green, t.g, 1);
    EXPECT_NEAR(back.blue, t.b, 1);
    EXPECT_EQ(host.RGBColor(rgb).red, t.r);  // the colours keep their own values
    host.Unlock(rgb);
    host.Unlock(cmyk);
  }
  REALobject deep = host.NewRGBColor16(0, 0x8000, 0xFFFF, 0x1234);
  const CMYKColorData c16 = host.CMYKColor(deep);
  EXPECT_EQ((V{c16.cyan16, c16.magenta16, c16.yellow16, c16.black16, c16.alpha16, c16.alpha}),
            (V{65535, 0x7FFF, 0, 0, 0x1234, 0x12}));
  host.Unlock(deep);
}

}  // namespace
