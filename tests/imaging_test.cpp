// Imaging support: channel ordering against hand-built RawBitmap records,
// format families, mask values, the background colour through a scripted host
// (which class is asked first, which conversion runs), and bitmap creation
// through a real host. Cases that fill class caches run in forked children.

#include <array>
#include <cstring>
#include <tuple>

#include "imaging/color_order.h"
#include "imaging/cpu_dispatch.h"
#include "imaging/memory.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

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

// Sixteen entries are offered, so that writes past the eighth show up; the
// first n after the call.
template <class Order>
V Entries(size_t n, Order order) {
  int values[16];
  std::fill(std::begin(values), std::end(values), U);
  order(values);
  return V(values, values + n);
}

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
      // Both orders share the walk, and so its cap at eight entries.
      {"never past the eighth", Record(12, {0, 1, 2, 3}), 1, false, {10, 20, 30, 40, -1, -1, -1, -1, U, U, U, U}},
      {"16-bit never past the eighth", Record(24, {0, 2, 4, 6}, 5, 16), 1, false,
       {2570, 5140, 7710, 10280, -1, -1, -1, -1, U, U, U, U}},
  };
  for (auto c : cases) {
    RGBColorData rgb = Rgb(10, 20, 30, 40);
    CMYKColorData cmyk = Cmyk(11, 22, 33, 44, 55);
    EXPECT_EQ(Entries(c.expected.size(),
                      [&](int* values) {
                        if (c.cmyk) CMYKPartsToChannelOrder(&c.bitmap, c.includeAlpha, values, &cmyk);
                        else RGBColorPartsToChannelOrder(&c.bitmap, c.includeAlpha, values, &rgb);
                      }),
              c.expected)
        << c.what;
  }
}

#if defined(__x86_64__)
// The module reads cpuid and XCR0 itself; the compiler's runtime (which a test may
// link) must come to the same answer on this machine.
TEST(CpuDispatch, DetectsAVX2AsTheCompilerRuntimeDoes) {
  __builtin_cpu_init();
  EXPECT_EQ(rawfx::cpu::HasAVX2(), __builtin_cpu_supports("avx2") != 0);
}
#endif

// The one-channel test compares signed: a negative code reads as one grey channel,
// while the CMYK test compares unsigned and never takes it for CMYK.
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
  EXPECT_EQ((V{MaskAt8(&mask, MaskRow8(&mask, 3), 5), MaskAt16(&mask, MaskRow16(&mask, 3), 5)}), (V{35, 305}));
}

// ---- the background colour, against a scripted host ----------------------------------------

S gCalls, gClassLookups;
const REALclassRef kRGBClass = reinterpret_cast<REALclassRef>(16), kCMYKClass = reinterpret_cast<REALclassRef>(32);

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

// The bitmap's format family (FamiliesByCode) decides which conversion runs
// and, unless the effect asks for RGB first, which class a CMYK bitmap's colour
// is asked about (an RGB bitmap always asks RGB); the colour object keeps its
// bytes, and the CMYK class is looked up once.
TEST(BackgroundColour, IsConvertedToTheBitmapsFamilyAndOrdered) {
  rawfx::test::InFreshProcess([](rawfx::test::ScriptedHost& host) {
    host.Learn("pluginObjectType", +[](const char* name) {
      gClassLookups.push_back(name);
      return std::string(name) == kCMYKColorClass ? kCMYKClass : nullptr;
    });
    host.Learn("RuntimeObjectIsa", +[](REALobject object, REALclassRef classRef) {
      gCalls.push_back(classRef == kRGBClass ? "is RGB" : classRef == kCMYKClass ? "is CMYK" : "is other");
      return reinterpret_cast<FakeColour*>(object)->classRef == classRef;
    });
    host.Learn("PluginGetPluginData", +[](REALobject object, REALclassRef classRef) -> void* {
      FakeColour* colour = reinterpret_cast<FakeColour*>(object);
      return colour->classRef == classRef ? colour->data : nullptr;
    });
    gRGBRef = kRGBClass;  // the effects' constructors fill it
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
        {true, Record(4, {0, 1, 2, 3}, 17), family, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {true, Record(5, {3, 2, 1, 4, 0}, 13), family, {40, 30, 20, 10, 50, U}, {"is CMYK"}},
        {true, Record(5, {3, 2, 1, 4, 0}, 13), rgbFirst, {40, 30, 20, 10, 50, U}, {"is RGB"}},
        {false, Record(3, {2, 1, 0, 9}, 12), family, {30, 20, 10, U}, {"is RGB"}},
    };
    for (auto c : cases) {
      SCOPED_TRACE(::testing::Message() << "format " << c.bitmap.format << (c.cmykColour ? ", CMYK" : ", RGB")
                                        << " colour" << (c.order == rgbFirst ? ", RGB first" : ""));
      FakeColour colour{c.cmykColour ? kCMYKClass : kRGBClass, &kConversions, {}};
      const RGBColorData rgb = Rgb(10, 20, 30, 40);
      const CMYKColorData ink = Cmyk(10, 20, 30, 40, 50);
      std::memcpy(colour.data, c.cmykColour ? static_cast<const void*>(&ink) : &rgb, c.cmykColour ? 16 : 12);
      const FakeColour before = colour;
      EXPECT_EQ(Entries(c.values.size(),
                        [&](int* values) {
                          OrderBackgroundColour(reinterpret_cast<REALobject>(&colour), &c.bitmap, 1, values, c.order);
                        }),
                c.values);
      EXPECT_EQ(gCalls, c.calls);
      EXPECT_EQ(std::memcmp(&before, &colour, sizeof before), 0) << "the colour object changed";
      gCalls.clear();
    }
    EXPECT_EQ(std::make_tuple(gCMYKRef, gClassLookups), std::make_tuple(kCMYKClass, S{kCMYKColorClass}));
  });
}

// The allocation limit the failure tests rely on: exactly `count` blocks, then nil
// until the limit is lifted; the live count follows NewPtr and DisposePtr.
TEST(Memory, AllocationLimitGrantsExactlyItsCountOfBlocks) {
  const int64_t live = rawfx::memory::LiveBlockCount();
  rawfx::memory::FailAllocationsAfter(1);
  void* granted = NewPtr(8);
  void* refused = NewPtr(8);
  rawfx::memory::FailAllocationsAfter(-1);
  void* unlimited = NewPtr(8);
  EXPECT_EQ(std::make_tuple(granted != nullptr, refused, unlimited != nullptr, rawfx::memory::LiveBlockCount()),
            std::make_tuple(true, nullptr, true, live + 2));
  for (void* block : {granted, unlimited}) DisposePtr(block);
  EXPECT_EQ(rawfx::memory::LiveBlockCount(), live);
}

// ---- bitmap creation, through a real host ------------------------------------------------------

rawfx::host::Host* gChildHost = nullptr;

// The plug-in's own bitmap creation, bound to a real host in a fresh process:
// every size the companion refuses gives nil and leaves no instance behind; a
// valid one comes with its record.
TEST(RawBitmapAccess, RefusedSizesGiveNilAndLeaveNothing) {
  const std::string report = rawfx::test::RunInChild([] {
    rawfx::host::Host host;
    gChildHost = &host;
    gResolver = [](const char* name) { return gChildHost->resolve(name); };
    InitializeRawBitmapSupport();
    std::string problems;
    const std::tuple<int64_t, int64_t, int64_t, int64_t> refused[] = {
        {0, 4, 0, 5},  {4, 0, 0, 5},  {-3, 4, 0, 5}, {4, -3, 0, 5}, {4, 4, 15, 5}, {4, 4, 0, 99},
        {4, 4, 0, -1}, {int64_t{1} << 31, 1, 0, 0},  {1 << 20, 1 << 20, 0, 5}, {INT64_MAX, INT64_MAX, 0, 5},
        {4, 4, INT64_MAX, 5}};
    for (const auto& [width, height, rowBytes, format] : refused) {
      RawBitmap* data = nullptr;  // not to be used after a refusal: it belongs to the released instance
      if (CreateRawBitmap(width, height, rowBytes, format, &data) || host.LiveObjectCount() != 0)
        problems += "accepted or kept " + std::to_string(width) + "x" + std::to_string(height) + "\n";
    }
    RawBitmap* data = nullptr;
    REALobject fine = CreateRawBitmap(3, 2, 0, 5, &data);
    if (!fine || !data || data->width != 3 || GetRawBitmapData(fine) != data) problems += "refused a valid size\n";
    host.Unlock(fine);
    if (host.LiveObjectCount() != 0 || host.StrayLockCalls() != 0) problems += "unbalanced at the end\n";
    return problems.empty() ? std::string("ok") : problems;
  });
  EXPECT_EQ(report, "ok");
}

}  // namespace
