// The companion classes the host provides: RawBitmap and its formats,
// RawBitmapMask and its operation table, and the colour classes with their
// conversion tables.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <thread>

#include "host/host.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::BitmapView;
using rawfx::host::FormatInfo;
using rawfx::host::HostError;
using rawfx::test::HostTest;

class CompanionsTest : public HostTest {
 protected:
  template <class F>
  F Service(const char* name) {
    return reinterpret_cast<F>(host.resolve(name));
  }

  void* PluginData(REALobject object, const char* className) {
    auto classRef = Service<REALclassRef (*)(const char*)>("pluginObjectType");
    return Service<void* (*)(REALobject, REALclassRef)>("PluginGetPluginData")(object, classRef(className));
  }
};

// ---- formats ---------------------------------------------------------------------------

uint8_t ExpectedOffset(uint8_t sampleIndex, int bytesPerSample) {
  return sampleIndex == 0xFF ? 0xFF : static_cast<uint8_t>(sampleIndex * bytesPerSample);
}

TEST(Formats, TableIsConsistent) {
  std::set<int64_t> codes;
  for (const FormatInfo& f : rawfx::host::Formats()) {
    SCOPED_TRACE(f.name);
    EXPECT_TRUE(codes.insert(f.code).second) << "duplicate code";
    EXPECT_EQ(f.cmyk, f.code >= 13 && f.code <= 16);
    EXPECT_EQ(f.channels == 1, f.code <= 2 || f.code == 22 || f.code == 23);
    for (uint8_t index : {f.red, f.green, f.blue, f.alpha, f.black})
      EXPECT_TRUE(index == 0xFF || index < f.channels);
    EXPECT_TRUE(!f.hasAlpha || f.alpha != 0xFF);
    EXPECT_EQ(f.cmyk, f.black != 0xFF);
  }
  for (int64_t code : {0, 1, 2, 22, 23, 13, 14, 15, 16}) EXPECT_TRUE(codes.count(code)) << code;
  EXPECT_EQ(rawfx::host::FindFormat(11), nullptr);
  // The format with a padding byte: a fourth byte at the alpha position, no alpha.
  const FormatInfo* xrgb = rawfx::host::FindFormat(9);
  ASSERT_NE(xrgb, nullptr);
  EXPECT_EQ(xrgb->channels, 4);
  EXPECT_FALSE(xrgb->hasAlpha);
  EXPECT_EQ(xrgb->alpha, 0);
}

TEST_F(CompanionsTest, BitmapRecordsFollowTheFormatAtBothDepths) {
  for (const FormatInfo& f : rawfx::host::Formats()) {
    for (int bits : {8, 16}) {
      SCOPED_TRACE(std::string(f.name) + " at " + std::to_string(bits));
      REALobject bitmap = host.NewBitmap(5, 3, f.code, bits, 6);
      ASSERT_NE(bitmap, nullptr);
      const BitmapView view = host.Bitmap(bitmap);
      const RawBitmap* record = view.record;
      const int bytesPerSample = bits / 8;
      EXPECT_EQ(record, PluginData(bitmap, "RawBitmap"));
      EXPECT_EQ(record->width, 5);
      EXPECT_EQ(record->height, 3);
      EXPECT_EQ(record->channelCount, f.channels);
      EXPECT_EQ(record->bytesPerPixel, f.channels * bytesPerSample);
      EXPECT_EQ(view.rowBytes, 5 * f.channels * bytesPerSample + 6);
      EXPECT_EQ(record->redOffset, ExpectedOffset(f.red, bytesPerSample));
      EXPECT_EQ(record->greenOffset, ExpectedOffset(f.green, bytesPerSample));
      EXPECT_EQ(record->blueOffset, ExpectedOffset(f.blue, bytesPerSample));
      EXPECT_EQ(record->alphaOffset, ExpectedOffset(f.alpha, bytesPerSample));
      EXPECT_EQ(record->blackOffset, ExpectedOffset(f.black, bytesPerSample));
      EXPECT_EQ(record->hasAlpha, f.hasAlpha);
      EXPECT_EQ(record->bitsPerChannel, bits);
      EXPECT_EQ(record->format, f.code);
      EXPECT_EQ(record->isValid, 1);
      host.Unlock(bitmap);
    }
  }
  REALobject rgba16 = host.NewBitmap(1, 1, 5, 16);
  EXPECT_EQ(host.Bitmap(rgba16).record->alphaOffset, 6);
  host.Unlock(rgba16);
}

TEST_F(CompanionsTest, RefusedBitmapsAreNotKept) {
  EXPECT_EQ(host.NewBitmap(0, 4, 3), nullptr);
  EXPECT_EQ(host.NewBitmap(4, -1, 3), nullptr);
  EXPECT_EQ(host.NewBitmap(4, 4, 11), nullptr);
  EXPECT_EQ(host.NewBitmap(4, 4, 3, 12), nullptr);
  EXPECT_EQ(host.NewBitmap(4, 4, 3, 16, 3), nullptr);  // 16-bit rows must stay aligned
  EXPECT_EQ(host.NewBitmap(int64_t{1} << 20, int64_t{1} << 20, 5), nullptr);
  EXPECT_EQ(host.LiveObjectCount(), 0u);
  EXPECT_THROW(host.Bitmap(nullptr), HostError);
}

TEST_F(CompanionsTest, ConstructorLoadedByDeclaration) {
  using Constructor = void (*)(REALobject, REALobject, int64_t, int64_t, int64_t, int64_t);
  auto classRef = Service<REALclassRef (*)(const char*)>("pluginObjectType");
  REALobject bitmap = Service<REALobject (*)(REALclassRef)>("CreateInstance")(classRef("RawBitmap"));
  auto construct = reinterpret_cast<Constructor>(
      Service<void* (*)(REALobject, const char*)>("REALLoadObjectMethod")(bitmap, kRawBitmapConstructorDecl));
  ASSERT_NE(construct, nullptr);
  const RawBitmap* record = host.Bitmap(bitmap).record;
  EXPECT_EQ(record->isValid, 0);  // a new instance is empty

  construct(bitmap, nullptr, 7, 2, 0, 3);  // rowBytes 0: rows without padding
  EXPECT_EQ(record->isValid, 1);
  EXPECT_EQ(record->bitsPerChannel, 8);
  EXPECT_EQ(host.Bitmap(bitmap).rowBytes, 21);
  const BitmapView view = host.Bitmap(bitmap);
  for (int64_t y = 0; y < view.height; ++y)
    for (int64_t i = 0; i < view.rowBytes; ++i) ASSERT_EQ(view.row(y)[i], 0);

  construct(bitmap, nullptr, 7, 2, 20, 3);  // rows shorter than their pixels
  EXPECT_EQ(record->isValid, 0);
  construct(bitmap, nullptr, 7, 2, 0, 99);
  EXPECT_EQ(record->isValid, 0);
  construct(bitmap, bitmap, 7, 2, 0, 3);  // no memory blocks in this host
  EXPECT_EQ(record->isValid, 0);
  host.Unlock(bitmap);
}

// ---- masks ---------------------------------------------------------------------------------

class MaskTest : public CompanionsTest {
 protected:
  RawBitmapMaskData* MaskData(REALobject mask) { return static_cast<RawBitmapMaskData*>(PluginData(mask, "RawBitmapMask")); }
};

TEST_F(MaskTest, ValuesComeFromTheActiveChannel) {
  REALobject bitmap = host.NewBitmap(3, 2, 3);  // RGB, 8 bits
  const BitmapView view = host.Bitmap(bitmap);
  view.row(1)[2 * 3 + 1] = 200;  // green of pixel (2, 1)
  REALobject mask = host.NewMask(bitmap, false, 1);
  REALobject inverted = host.NewMask(bitmap, true, 1);
  RawBitmapMaskData* m = MaskData(mask);
  RawBitmapMaskData* inv = MaskData(inverted);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 1), 2), 200);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 1), 1), 0);
  EXPECT_EQ(MaskAt16(m, MaskRow16(m, 1), 2), 200 * 257);
  EXPECT_EQ(MaskAt8(inv, MaskRow8(inv, 1), 2), 55);
  EXPECT_EQ(MaskAt16(inv, MaskRow16(inv, 0), 0), 65535);
  EXPECT_EQ(host.RefCount(bitmap), 3);  // each mask holds the bitmap
  host.Unlock(mask);
  host.Unlock(inverted);
  EXPECT_EQ(host.RefCount(bitmap), 1);
  host.Unlock(bitmap);
}

TEST_F(MaskTest, SixteenBitMasksGiveFullValuesAndHighBytes) {
  REALobject grey = host.NewBitmap(2, 1, 0, 16);
  const uint16_t value = 0xABCD;
  std::memcpy(host.Bitmap(grey).row(0) + 2, &value, sizeof value);
  REALobject mask = host.NewMask(grey);
  RawBitmapMaskData* m = MaskData(mask);
  EXPECT_EQ(MaskAt16(m, MaskRow16(m, 0), 1), 0xABCD);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 0), 1), 0xAB);
  host.Unlock(mask);
  host.Unlock(grey);
}

TEST_F(MaskTest, OutsideTheBitmapLetsTheEffectThrough) {
  REALobject grey = host.NewBitmap(2, 2, 0);
  REALobject mask = host.NewMask(grey, true);
  RawBitmapMaskData* m = MaskData(mask);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 0), 1), 255);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 2), 0), 0);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, -1), 0), 0);
  EXPECT_EQ(MaskAt8(m, MaskRow8(m, 0), 2), 0);
  host.Unlock(mask);
  host.Unlock(grey);
}

TEST_F(MaskTest, RefusesMissingChannelsAndBitmaps) {
  REALobject grey = host.NewBitmap(2, 2, 0);
  EXPECT_EQ(host.NewMask(grey, false, 1), nullptr);
  EXPECT_EQ(host.NewMask(nullptr), nullptr);
  EXPECT_EQ(host.RefCount(grey), 1);
  host.Unlock(grey);
}

TEST_F(MaskTest, ReadsFromSeveralThreadsAgree) {
  REALobject bitmap = host.NewBitmap(64, 64, 0);
  rawfx::test::FillPattern(host, bitmap, 7);
  REALobject mask = host.NewMask(bitmap);
  RawBitmapMaskData* m = MaskData(mask);
  const BitmapView view = host.Bitmap(bitmap);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t)
    readers.emplace_back([&] {
      for (int y = 0; y < 64; ++y) {
        const MaskRowHandle row = MaskRow8(m, y);
        for (int x = 0; x < 64; ++x)
          if (MaskAt8(m, row, x) != view.row(y)[x]) ++mismatches;
      }
    });
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(mismatches.load(), 0);
  host.Unlock(mask);
  host.Unlock(bitmap);
}

// ---- colours ---------------------------------------------------------------------------------

TEST_F(CompanionsTest, NewColoursAreOpaqueBlack) {
  REALobject rgb = host.New(kRGBColorClass);
  REALobject cmyk = host.New(kCMYKColorClass);
  const RGBColorData r = host.RGBColor(rgb);
  const CMYKColorData c = host.CMYKColor(cmyk);
  EXPECT_EQ((std::vector<int>{r.red, r.green, r.blue, r.alpha, r.red16, r.alpha16}),
            (std::vector<int>{0, 0, 0, 255, 0, 65535}));
  EXPECT_EQ((std::vector<int>{c.cyan, c.magenta, c.yellow, c.black, c.alpha, c.black16, c.alpha16}),
            (std::vector<int>{0, 0, 0, 255, 255, 65535, 65535}));
  EXPECT_EQ(host.New("ZandoriaColors.GenericColor"), nullptr);
  host.Unlock(rgb);
  host.Unlock(cmyk);
}

TEST_F(CompanionsTest, ConversionTableSitsInTheWordBeforeTheColour) {
  REALobject rgb = host.NewRGBColor(255, 0, 0, 128);
  REALobject cmyk = host.NewCMYKColor(0, 0, 0, 0);
  void* rgbData = PluginData(rgb, kRGBColorClass);
  void* cmykData = PluginData(cmyk, kCMYKColorClass);
  EXPECT_EQ(static_cast<uint8_t*>(PluginData(rgb, "ZandoriaColors.GenericColor")) + 8, rgbData);

  CMYKColorData asCMYK{};
  ConversionTableOf(rgbData)->ToCMYK(rgbData, &asCMYK);
  EXPECT_EQ((std::vector<int>{asCMYK.cyan, asCMYK.magenta, asCMYK.yellow, asCMYK.black, asCMYK.alpha}),
            (std::vector<int>{0, 255, 255, 0, 128}));
  EXPECT_EQ((std::vector<int>{asCMYK.magenta16, asCMYK.black16, asCMYK.alpha16}),
            (std::vector<int>{65535, 0, 128 * 257}));

  RGBColorData asRGB{};
  ConversionTableOf(cmykData)->ToRGB(cmykData, &asRGB);  // no ink is white
  EXPECT_EQ((std::vector<int>{asRGB.red, asRGB.green, asRGB.blue, asRGB.red16}),
            (std::vector<int>{255, 255, 255, 65535}));
  EXPECT_EQ(host.RGBColor(rgb).red, 255);  // the colours keep their own values
  host.Unlock(rgb);
  host.Unlock(cmyk);
}

TEST_F(CompanionsTest, ConversionsAreTheNaiveOnes) {
  struct Case {
    uint8_t r, g, b;
    uint8_t c, m, y, k;
  };
  // K = 255 - max; C = (max - R) * 255 / max, rounded; back R = (255 - C) * (255 - K) / 255.
  for (const Case& t : {Case{0, 0, 0, 0, 0, 0, 255}, Case{255, 255, 255, 0, 0, 0, 0}, Case{0, 128, 255, 255, 127, 0, 0},
                        Case{100, 50, 0, 0, 128, 255, 155}}) {
    REALobject rgb = host.NewRGBColor(t.r, t.g, t.b);
    const CMYKColorData c = host.CMYKColor(rgb);
    EXPECT_EQ((std::vector<int>{c.cyan, c.magenta, c.yellow, c.black}), (std::vector<int>{t.c, t.m, t.y, t.k}));
    REALobject cmyk = host.NewCMYKColor(t.c, t.m, t.y, t.k);
    const RGBColorData back = host.RGBColor(cmyk);
    EXPECT_NEAR(back.red, t.r, 1);
    EXPECT_NEAR(back.green, t.g, 1);
    EXPECT_NEAR(back.blue, t.b, 1);
    host.Unlock(rgb);
    host.Unlock(cmyk);
  }
  REALobject deep = host.NewRGBColor16(0, 0x8000, 0xFFFF, 0x1234);
  const CMYKColorData c16 = host.CMYKColor(deep);
  EXPECT_EQ((std::vector<int>{c16.cyan16, c16.magenta16, c16.yellow16, c16.black16, c16.alpha16, c16.alpha}),
            (std::vector<int>{65535, 0x7FFF, 0, 0, 0x1234, 0x12}));
  host.Unlock(deep);
}

TEST_F(CompanionsTest, ColoursAreGenericColours) {
  REALobject rgb = host.NewRGBColor(1, 2, 3);
  EXPECT_TRUE(host.IsA(rgb, "ZandoriaColors.GenericColor"));
  EXPECT_FALSE(host.IsA(rgb, kCMYKColorClass));
  EXPECT_EQ(PluginData(rgb, kCMYKColorClass), nullptr);
  REALobject bitmap = host.NewBitmap(1, 1, 0);
  EXPECT_THROW(host.RGBColor(bitmap), HostError);
  host.Unlock(bitmap);
  host.Unlock(rgb);
}

}  // namespace
