// Imaging support against hand-built RawBitmap records: channel ordering,
// format families, mask values, background colour conversion, bitmap creation
// and the progress handler. Cases that fill class caches run in forked children.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <tuple>

#include "imaging/color_order.h"
#include "imaging/cpu_dispatch.h"
#include "imaging/mp_filter.h"
#include "plugin/host_binding.h"
#include "support/child_process.h"

namespace {

using V = std::vector<int>;
using S = std::vector<std::string>;
constexpr int U = 777;  // an entry the call must leave untouched

// A hand-built record. Offsets are byte positions in the order red, green, blue,
// alpha, black (cyan, magenta and yellow sit at red, green and blue).
RawBitmap Record(int64_t bytesPerPixel, std::array<uint8_t, 5> at, int64_t format = 4, uint8_t bits = 8,
                 int64_t channelCount = -1) {
  RawBitmap r{};
  std::tie(r.bytesPerPixel, r.channelCount, r.bitsPerChannel, r.format, r.isValid) =
      std::tuple(bytesPerPixel, channelCount >= 0 ? channelCount : bytesPerPixel * 8 / bits, bits, format, 1);
  std::memcpy(&r.redOffset, at.data(), at.size());  // red, green, blue, alpha and black are adjacent bytes
  return r;
}

RGBColorData Rgb(uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  return {r, g, b, a, uint16_t(r * 257), uint16_t(g * 257), uint16_t(b * 257), uint16_t(a * 257)};
}

CMYKColorData Cmyk(uint8_t c, uint8_t m, uint8_t y, uint8_t k, uint8_t a) {
  return {c, m, y, k, a, 0, uint16_t(c * 257), uint16_t(m * 257), uint16_t(y * 257), uint16_t(k * 257),
          uint16_t(a * 257)};
}

// Sixteen entries are offered, so that writes past the eighth show up.
struct Entries {
  int values[16];
  Entries() { std::fill(std::begin(values), std::end(values), U); }
  V First(size_t n) const { return V(values, values + n); }
};

TEST(ChannelOrder, ComponentsGoToTheirPositionsAndNothingElseIsWritten) {
  const struct {
    const char* what;
    RawBitmap bitmap;
    signed char includeAlpha;
    bool cmyk;   // orders Cmyk(11, 22, 33, 44, 55), else Rgb(10, 20, 30, 40)
    V expected;  // the first entries after the call
  } cases[] = {
      {"8-bit RGBA with alpha", Record(4, {0, 1, 2, 3}), 1, false, {10, 20, 30, 40, U}},
      {"8-bit RGBA without alpha", Record(4, {0, 1, 2, 3}), 0, false, {10, 20, 30, -1, U}},
      {"a byte without a component", Record(4, {1, 2, 3, 0}), 0, false, {-1, 10, 20, 30, U}},
      {"that byte as alpha", Record(4, {1, 2, 3, 0}), 1, false, {40, 10, 20, 30, U}},
      {"16-bit RGB by sample index", Record(6, {0, 2, 4, 0}, 3, 16), 0, false, {2570, 5140, 7710, U}},
      {"16-bit alpha at byte 6 is sample 3", Record(8, {0, 2, 4, 6}, 5, 16), 1, false, {2570, 5140, 7710, 10280, U}},
      // Any depth other than 8 walks samples: a 32-bit record still counts channels.
      {"32-bit", Record(6, {0, 2, 4, 0}, 3, 32, 3), 0, false, {2570, 5140, 7710, U}},
      {"CMYKA", Record(5, {0, 1, 2, 4, 3}, 14), 1, true, {11, 22, 33, 44, 55, U}},
      {"CMYKA without alpha", Record(5, {0, 1, 2, 4, 3}, 14), 0, true, {11, 22, 33, 44, -1, U}},
      {"16-bit KYMC", Record(8, {6, 4, 2, 9, 0}, 13, 16), 1, true, {257 * 44, 257 * 33, 257 * 22, 257 * 11, U}},
      // Where offsets coincide the first match wins: yellow, cyan, magenta, black;
      // red, green, blue; every colour before alpha.
      {"yellow before magenta", Record(2, {0, 1, 0, 9, 1}, 13), 0, true, {33, 22, U}},
      {"cyan before black", Record(2, {0, 0, 1, 9, 0}, 13), 0, true, {11, 33, U}},
      {"colours before alpha", Record(3, {0, 0, 1, 1}), 1, false, {10, 30, -1, U}},
      {"green before blue", Record(2, {1, 0, 0, 0}), 1, false, {20, 10, U}},
      {"no bytes", Record(0, {0, 1, 2, 3}), 1, false, {U}},
      {"negative CMYK bytes", Record(-1, {0, 1, 2, 4, 3}, 13), 1, true, {U}},
      {"16-bit walk counts channels, not bytes", Record(8, {0, 2, 4, 6}, 5, 16, 0), 1, false, {U}},
      {"never past the eighth", Record(12, {0, 1, 2, 3}), 1, false, {10, 20, 30, 40, -1, -1, -1, -1, U, U, U, U}},
      {"16-bit never past the eighth", Record(24, {0, 2, 4, 6}, 5, 16), 1, false,
       {2570, 5140, 7710, 10280, -1, -1, -1, -1, U, U, U, U}},
      {"CMYK never past the eighth", Record(200, {0, 1, 2, 4, 3}, 14), 1, true, {11, 22, 33, 44, 55, -1, -1, -1, U}},
  };
  for (auto c : cases) {
    Entries entries;
    RGBColorData rgb = Rgb(10, 20, 30, 40);
    CMYKColorData cmyk = Cmyk(11, 22, 33, 44, 55);
    if (c.cmyk)
      CMYKPartsToChannelOrder(&c.bitmap, c.includeAlpha, entries.values, &cmyk);
    else
      RGBColorPartsToChannelOrder(&c.bitmap, c.includeAlpha, entries.values, &rgb);
    EXPECT_EQ(entries.First(c.expected.size()), c.expected) << c.what;
  }
}

// The one-channel test compares signed: a negative code reads as one grey channel,
// while the CMYK test compares unsigned and never takes it for CMYK.
#if defined(__x86_64__)
// The module reads cpuid and XCR0 itself; the compiler's runtime (which a test may
// link) must come to the same answer on this machine.
TEST(CpuDispatch, DetectsAVX2AsTheCompilerRuntimeDoes) {
  __builtin_cpu_init();
  EXPECT_EQ(rawfx::cpu::HasAVX2(), __builtin_cpu_supports("avx2") != 0);
}
#endif

TEST(Formats, FamiliesByCode) {
  for (int64_t format : {13, 14, 15, 16}) EXPECT_TRUE(IsCMYKFormat(format)) << format;
  for (int64_t format : {int64_t{-1}, int64_t{0}, int64_t{12}, int64_t{17}, int64_t{22}, INT64_MIN, INT64_MAX})
    EXPECT_FALSE(IsCMYKFormat(format)) << format;
  for (int64_t format : {int64_t{0}, int64_t{1}, int64_t{2}, int64_t{22}, int64_t{23}, int64_t{-1}, INT64_MIN})
    EXPECT_TRUE(IsSingleChannelFormat(format)) << format;
  for (int64_t format : {3, 4, 12, 13, 17, 21, 24}) EXPECT_FALSE(IsSingleChannelFormat(format)) << format;
}

// A mask operation that returns a wider value contributes only the kernel's depth.
TEST(MaskValues, KeepOnlyTheKernelsDepth) {
  static const RawBitmapMaskOps ops = {
      nullptr, [](RawBitmapMaskData*, int64_t row) { return MaskRowHandle(row * 10); },
      [](RawBitmapMaskData*, MaskRowHandle row, int32_t x) { return uint32_t(0x100u | (row + x)); },
      nullptr, [](RawBitmapMaskData*, int64_t row) { return MaskRowHandle(row * 100); },
      [](RawBitmapMaskData*, MaskRowHandle row, int32_t x) { return uint32_t(0x10000u | (row + x)); }};
  RawBitmapMaskData mask{&ops};
  EXPECT_EQ(MaskAt8(&mask, MaskRow8(&mask, 3), 5), 35);
  EXPECT_EQ(MaskAt16(&mask, MaskRow16(&mask, 3), 5), 305);
}

// ---- through the binding, against a scripted host ---------------------------------

using rawfx::test::InFreshProcess;
using rawfx::test::ScriptedHost;
S gCalls, gClassLookups;

const REALclassRef kRGBClass = reinterpret_cast<REALclassRef>(16);
const REALclassRef kCMYKClass = reinterpret_cast<REALclassRef>(32);
const REALclassRef kBitmapClass = reinterpret_cast<REALclassRef>(48);

REALclassRef FakeObjectType(const char* name) {
  gClassLookups.push_back(name);
  const std::map<std::string, REALclassRef> classes = {
      {"ZandoriaColors.RGBColor", kRGBClass}, {"ZandoriaColors.CMYKColor", kCMYKClass}, {"RawBitmap", kBitmapClass}};
  return classes.contains(name) ? classes.at(name) : nullptr;
}

// A colour object as the companion lays it out: the conversion table in the
// word before the plug-in data.
struct FakeColour {
  REALclassRef classRef;
  const ColorConversionTable* table;
  alignas(8) unsigned char data[16];
};

const ColorConversionTable kConversions = {[](const void*, CMYKColorData* result) {
                                             gCalls.push_back("ToCMYK");
                                             *result = Cmyk(1, 2, 3, 4, 5);
                                           },
                                           [](const void*, RGBColorData* result) {
                                             gCalls.push_back("ToRGB");
                                             *result = Rgb(6, 7, 8, 9);
                                           }};

// The bitmap's format family decides which conversion runs; the colour object keeps its bytes.
TEST(BackgroundColour, IsConvertedToTheBitmapsFamilyAndOrdered) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("pluginObjectType", FakeObjectType);
    host.Learn("RuntimeObjectIsa", +[](REALobject object, REALclassRef classRef) {
      gCalls.push_back(classRef == kRGBClass ? "is RGB" : classRef == kCMYKClass ? "is CMYK" : "is other");
      return reinterpret_cast<FakeColour*>(object)->classRef == classRef;
    });
    host.Learn("PluginGetPluginData", +[](REALobject object, REALclassRef classRef) -> void* {
      FakeColour* colour = reinterpret_cast<FakeColour*>(object);
      return colour->classRef == classRef ? colour->data : nullptr;
    });
    gRGBRef = kRGBClass;  // the effects' constructors fill it
    gCMYKRef = nullptr;
    const auto family = ColourTestOrder::ByBitmapFamily, rgbFirst = ColourTestOrder::RGBFirst;
    const struct {
      bool cmykColour;
      RawBitmap bitmap;
      ColourTestOrder order;
      V values;
      S calls;
    } cases[] = {
        {false, Record(5, {0, 1, 2, 4, 3}, 13), family, {1, 2, 3, 4, 5, U}, {"is CMYK", "ToCMYK"}},
        {false, Record(5, {0, 1, 2, 4, 3}, 13), rgbFirst, {1, 2, 3, 4, 5, U}, {"is RGB", "ToCMYK"}},
        {false, Record(5, {0, 1, 2, 4, 3}, 16), family, {1, 2, 3, 4, 5, U}, {"is CMYK", "ToCMYK"}},
        {true, Record(4, {0, 1, 2, 3}, 17), family, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {true, Record(4, {0, 1, 2, 3}, 17), rgbFirst, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {true, Record(4, {0, 1, 2, 3}, 0), family, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {true, Record(4, {0, 1, 2, 3}, 22), family, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {true, Record(5, {3, 2, 1, 4, 0}, 13), family, {40, 30, 20, 10, 50, U}, {"is CMYK"}},
        {true, Record(5, {3, 2, 1, 4, 0}, 13), rgbFirst, {40, 30, 20, 10, 50, U}, {"is RGB"}},
        {false, Record(3, {2, 1, 0, 9}, 12), family, {30, 20, 10, U}, {"is RGB"}},
        {false, Record(3, {2, 1, 0, 9}, 12), rgbFirst, {30, 20, 10, U}, {"is RGB"}},
    };
    for (auto c : cases) {
      SCOPED_TRACE("format " + std::to_string(c.bitmap.format) + (c.cmykColour ? ", CMYK colour" : ", RGB colour") +
                   (c.order == rgbFirst ? ", RGB first" : ""));
      FakeColour colour{c.cmykColour ? kCMYKClass : kRGBClass, &kConversions, {}};
      const RGBColorData rgb = Rgb(10, 20, 30, 40);
      const CMYKColorData ink = Cmyk(10, 20, 30, 40, 50);
      std::memcpy(colour.data, c.cmykColour ? static_cast<const void*>(&ink) : &rgb, c.cmykColour ? 16 : 12);
      const FakeColour before = colour;
      Entries entries;
      OrderBackgroundColour(reinterpret_cast<REALobject>(&colour), &c.bitmap, 1, entries.values, c.order);
      EXPECT_EQ(entries.First(c.values.size()), c.values);
      EXPECT_EQ(gCalls, c.calls);
      EXPECT_EQ(std::memcmp(&before, &colour, sizeof before), 0) << "the colour object changed";
      gCalls.clear();
    }
    EXPECT_EQ(gCMYKRef, kCMYKClass);
    EXPECT_EQ(gClassLookups, S{"ZandoriaColors.CMYKColor"});
  });
}

RawBitmap gCreated{};
uint8_t gValidAfterConstruction = 0;
FakeColour gInstanceStorage{};  // any addressable object will do as the new instance
const REALobject kInstance = reinterpret_cast<REALobject>(&gInstanceStorage);

void FakeBitmapConstructor(REALobject self, REALobject srcBlock, int64_t width, int64_t height, int64_t rowBytes,
                           int64_t format) {
  std::ostringstream call;
  call << "construct " << (self == kInstance) << (srcBlock == nullptr) << " " << width << " " << height << " "
       << rowBytes << " " << format;
  gCalls.push_back(call.str());
  gCreated.isValid = gValidAfterConstruction;
}

void* FakeLoadObjectMethod(REALobject, const char* declaration) {
  gCalls.push_back(std::string("load ") + declaration);
  return reinterpret_cast<void*>(FakeBitmapConstructor);
}

// CreateRawBitmap gives a valid bitmap or nil holding no reference; the class is
// looked up once and start-up resets the caches; the progress handler is loaded
// by its exact declaration, and a nil target has none.
TEST(RawBitmapAccess, CreationDataCachesAndTheProgressHandler) {
  InFreshProcess([](ScriptedHost& host) {
    EXPECT_EQ(GetProgressProc(nullptr), nullptr);
    EXPECT_TRUE(host.asked.empty());
    host.Learn("pluginObjectType", FakeObjectType);
    RawBitmap* data = nullptr;
    EXPECT_EQ(CreateRawBitmap(3, 2, 12, 4, &data), nullptr);  // no instance: nothing loaded or released
    EXPECT_EQ(host.Asks("REALLoadObjectMethod") + host.Asks("REALUnlockObject"), 0);

    host.Learn("REALLoadObjectMethod", FakeLoadObjectMethod);
    host.Learn("CreateInstance", +[](REALclassRef classRef) {
      gCalls.push_back(classRef == kBitmapClass ? "new RawBitmap" : "new other");
      return kInstance;
    });
    host.Learn("PluginGetPluginData", +[](REALobject, REALclassRef classRef) -> void* {
      return classRef == kBitmapClass ? &gCreated : nullptr;
    });
    host.Learn("REALLockObject", +[](REALobject) { gCalls.push_back("lock"); });
    host.Learn("REALUnlockObject", +[](REALobject object) {
      gCalls.push_back(object == kInstance ? "unlock instance" : "unlock other");
    });
    gValidAfterConstruction = 0;  // an invalid result is released once and gives nil
    EXPECT_EQ(CreateRawBitmap(640, 480, 2560, 4, &data), nullptr);
    EXPECT_EQ(gCalls, (S{"new RawBitmap",
                         "load Constructor(srcBlock as MemoryBlock, width as Integer,height as Integer,"
                         "rowBytes as Integer,imageFormat as RawBitmap.RawBitmapFormat)",
                         "construct 11 640 480 2560 4", "unlock instance"}));
    gCalls.clear();
    gValidAfterConstruction = 1;  // a valid one comes with its data; the constructor is kept
    EXPECT_EQ(CreateRawBitmap(3, 2, 12, 13, &data), kInstance);
    EXPECT_EQ(data, &gCreated);
    EXPECT_EQ(CreateRawBitmap(5, 1, 20, 4, &data), kInstance);
    EXPECT_EQ(gCalls, (S{"new RawBitmap", "construct 11 3 2 12 13", "new RawBitmap", "construct 11 5 1 20 4"}));
    EXPECT_EQ(gClassLookups, S{"RawBitmap"});
    EXPECT_EQ(RawBitmapRef, kBitmapClass);
    InitializeRawBitmapSupport();  // clears the caches and asks for both classes without keeping the answers
    EXPECT_EQ(std::make_tuple(RawBitmapRef, RawBitmapMaskRef, RawBitmapConstructor),
              std::make_tuple(nullptr, nullptr, nullptr));
    GetRawBitmapData(kInstance);  // fills the cache again, once
    EXPECT_EQ(GetRawBitmapData(kInstance), &gCreated);
    EXPECT_EQ(gClassLookups, (S{"RawBitmap", "RawBitmap", "RawBitmapMask", "RawBitmap"}));

    gCalls.clear();
    EXPECT_EQ(GetProgressProc(reinterpret_cast<REALobject>(64)), reinterpret_cast<void*>(FakeBitmapConstructor));
    EXPECT_EQ(gCalls, S{"load OnProgress(value as UInt64,total as UInt64,extraInfo as UInt64,ByRef cancel as "
                        "Boolean)"});
  });
}

}  // namespace
