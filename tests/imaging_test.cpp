// Imaging support against hand-built RawBitmap records: channel ordering,
// format families, background colour conversion, bitmap creation and the
// engine helpers. Cases that fill class caches run in forked children.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "imaging/color_order.h"
#include "imaging/mp_filter.h"
#include "imaging/raw_bitmap.h"
#include "plugin/host_binding.h"
#include "support/child_process.h"

namespace {

constexpr int kUntouched = 777;

// Sixteen entries so that writes past the eighth show up.
struct Entries {
  int values[16];
  Entries() { std::fill(std::begin(values), std::end(values), kUntouched); }
  std::vector<int> First(int n) const { return {values, values + n}; }
};

RawBitmap Bitmap8(int64_t bytesPerPixel, uint8_t red, uint8_t green, uint8_t blue, uint8_t alpha, int64_t format = 4) {
  RawBitmap bitmap{};
  bitmap.bitsPerChannel = 8;
  bitmap.bytesPerPixel = bytesPerPixel;
  bitmap.channelCount = bytesPerPixel;
  bitmap.redOffset = red;
  bitmap.greenOffset = green;
  bitmap.blueOffset = blue;
  bitmap.alphaOffset = alpha;
  bitmap.format = format;
  bitmap.isValid = 1;
  return bitmap;
}

RawBitmap Bitmap16(int64_t channelCount, uint8_t red, uint8_t green, uint8_t blue, uint8_t alpha) {
  RawBitmap bitmap = Bitmap8(channelCount * 2, red, green, blue, alpha);
  bitmap.bitsPerChannel = 16;
  bitmap.channelCount = channelCount;
  return bitmap;
}

RawBitmap CMYKBitmap8(int64_t bytesPerPixel, uint8_t cyan, uint8_t magenta, uint8_t yellow, uint8_t black,
                      uint8_t alpha) {
  RawBitmap bitmap = Bitmap8(bytesPerPixel, cyan, magenta, yellow, alpha, 13);
  bitmap.blackOffset = black;
  return bitmap;
}

RGBColorData Rgb(uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  return {r, g, b, a, static_cast<uint16_t>(r * 257), static_cast<uint16_t>(g * 257), static_cast<uint16_t>(b * 257),
          static_cast<uint16_t>(a * 257)};
}

CMYKColorData Cmyk(uint8_t c, uint8_t m, uint8_t y, uint8_t k, uint8_t a) {
  return {c, m, y, k, a, 0, static_cast<uint16_t>(c * 257), static_cast<uint16_t>(m * 257),
          static_cast<uint16_t>(y * 257), static_cast<uint16_t>(k * 257), static_cast<uint16_t>(a * 257)};
}

std::vector<int> OrderRGB(RawBitmap bitmap, signed char includeAlpha, RGBColorData colour, int n) {
  Entries entries;
  RGBColorPartsToChannelOrder(&bitmap, includeAlpha, entries.values, &colour);
  return entries.First(n);
}

std::vector<int> OrderCMYK(RawBitmap bitmap, signed char includeAlpha, CMYKColorData colour, int n) {
  Entries entries;
  CMYKPartsToChannelOrder(&bitmap, includeAlpha, entries.values, &colour);
  return entries.First(n);
}

using V = std::vector<int>;
using S = std::vector<std::string>;

// ---- channel order ---------------------------------------------------------------

TEST(ChannelOrder, RGBAWithAndWithoutAlpha) {
  const RawBitmap rgba = Bitmap8(4, 0, 1, 2, 3);
  EXPECT_EQ(OrderRGB(rgba, 1, Rgb(10, 20, 30, 40), 5), (V{10, 20, 30, 40, kUntouched}));
  EXPECT_EQ(OrderRGB(rgba, 0, Rgb(10, 20, 30, 40), 5), (V{10, 20, 30, -1, kUntouched}));
}

TEST(ChannelOrder, ByteWithoutAComponentGetsMinusOne) {
  const RawBitmap xrgb = Bitmap8(4, 1, 2, 3, 0);
  EXPECT_EQ(OrderRGB(xrgb, 0, Rgb(10, 20, 30, 40), 4), (V{-1, 10, 20, 30}));
  EXPECT_EQ(OrderRGB(xrgb, 1, Rgb(10, 20, 30, 40), 4), (V{40, 10, 20, 30}));
}

TEST(ChannelOrder, SixteenBitUsesSampleIndicesAndWideComponents) {
  const RawBitmap rgb16 = Bitmap16(3, 0, 2, 4, 0);
  EXPECT_EQ(OrderRGB(rgb16, 0, Rgb(1, 2, 3, 4), 4), (V{257, 514, 771, kUntouched}));

  // Alpha at byte 6 is sample 3.
  const RawBitmap rgba16 = Bitmap16(4, 0, 2, 4, 6);
  EXPECT_EQ(OrderRGB(rgba16, 1, Rgb(1, 2, 3, 255), 5), (V{257, 514, 771, 65535, kUntouched}));

  // Any depth other than 8 walks samples: a 32-bit record still counts channels.
  RawBitmap deep = rgb16;
  deep.bitsPerChannel = 32;
  EXPECT_EQ(OrderRGB(deep, 0, Rgb(1, 2, 3, 4), 4), (V{257, 514, 771, kUntouched}));
}

TEST(ChannelOrder, CMYKComponentsAtTheirOffsets) {
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(5, 0, 1, 2, 3, 4), 1, Cmyk(11, 22, 33, 44, 55), 6),
            (V{11, 22, 33, 44, 55, kUntouched}));
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(5, 0, 1, 2, 3, 4), 0, Cmyk(11, 22, 33, 44, 55), 5), (V{11, 22, 33, 44, -1}));

  RawBitmap cmyk16 = CMYKBitmap8(8, 6, 4, 2, 0, 9);
  cmyk16.bitsPerChannel = 16;
  cmyk16.channelCount = 4;
  EXPECT_EQ(OrderCMYK(cmyk16, 1, Cmyk(1, 2, 3, 4, 5), 5), (V{1028, 771, 514, 257, kUntouched}));
}

TEST(ChannelOrder, FirstMatchWinsWhenOffsetsCoincide) {
  // Yellow is tested before cyan, cyan before magenta, magenta before black.
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(2, 0, 1, 0, 1, 9), 0, Cmyk(11, 22, 33, 44, 55), 2), (V{33, 22}));
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(2, 0, 0, 1, 0, 9), 0, Cmyk(11, 22, 33, 44, 55), 2), (V{11, 33}));
  // Red before green before blue, and every colour before alpha.
  EXPECT_EQ(OrderRGB(Bitmap8(3, 0, 0, 1, 1), 1, Rgb(10, 20, 30, 40), 3), (V{10, 30, -1}));
  EXPECT_EQ(OrderRGB(Bitmap8(2, 1, 0, 0, 0), 1, Rgb(10, 20, 30, 40), 2), (V{20, 10}));
}

TEST(ChannelOrder, CountOfZeroOrLessWritesNothing) {
  EXPECT_EQ(OrderRGB(Bitmap8(0, 0, 1, 2, 3), 1, Rgb(10, 20, 30, 40), 4), V(4, kUntouched));
  EXPECT_EQ(OrderRGB(Bitmap8(-3, 0, 1, 2, 3), 1, Rgb(10, 20, 30, 40), 4), V(4, kUntouched));
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(-1, 0, 1, 2, 3, 4), 1, Cmyk(1, 2, 3, 4, 5), 4), V(4, kUntouched));
  RawBitmap empty16 = Bitmap16(0, 0, 2, 4, 6);
  empty16.bytesPerPixel = 8;  // the 16-bit walk counts channels, not bytes
  EXPECT_EQ(OrderRGB(empty16, 1, Rgb(10, 20, 30, 40), 4), V(4, kUntouched));
}

TEST(ChannelOrder, NeverWritesPastTheEighthEntry) {
  const V expected = {10, 20, 30, 40, -1, -1, -1, -1, kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(OrderRGB(Bitmap8(12, 0, 1, 2, 3), 1, Rgb(10, 20, 30, 40), 12), expected);
  RawBitmap wide16 = Bitmap16(12, 0, 2, 4, 6);
  EXPECT_EQ(OrderRGB(wide16, 1, Rgb(0, 0, 0, 0), 12),
            (V{0, 0, 0, 0, -1, -1, -1, -1, kUntouched, kUntouched, kUntouched, kUntouched}));
  EXPECT_EQ(OrderCMYK(CMYKBitmap8(200, 0, 1, 2, 3, 4), 1, Cmyk(1, 2, 3, 4, 5), 10),
            (V{1, 2, 3, 4, 5, -1, -1, -1, kUntouched, kUntouched}));
}

// ---- formats and layouts ---------------------------------------------------------

TEST(Formats, FamiliesByCode) {
  for (int64_t format : {13, 14, 15, 16}) EXPECT_TRUE(IsCMYKFormat(format)) << format;
  for (int64_t format : {int64_t{-1}, int64_t{0}, int64_t{12}, int64_t{17}, int64_t{22}, INT64_MIN, INT64_MAX}) EXPECT_FALSE(IsCMYKFormat(format)) << format;
  for (int64_t format : {0, 1, 2, 22, 23}) EXPECT_TRUE(IsSingleChannelFormat(format)) << format;
  for (int64_t format : {3, 4, 12, 13, 17, 21, 24}) EXPECT_FALSE(IsSingleChannelFormat(format)) << format;
}

// The one-channel test compares signed: a negative code reads as one grey channel,
// while the CMYK test compares unsigned and never takes it for CMYK.
TEST(Formats, NegativeCodesReadAsOneChannelNeverCMYK) {
  for (int64_t format : {int64_t{-1}, INT64_MIN}) {
    EXPECT_TRUE(IsSingleChannelFormat(format)) << format;
    EXPECT_FALSE(IsCMYKFormat(format)) << format;
  }
}

TEST(Layouts, ConversionTableIsTheWordBeforeTheColourData) {
  static const ColorConversionTable table{};
  struct {
    const ColorConversionTable* table;
    CMYKColorData data;
  } colour{&table, {}};
  EXPECT_EQ(ConversionTableOf(&colour.data), &table);
}

TEST(Layouts, MaskValuesKeepOnlyTheKernelsDepth) {
  static const RawBitmapMaskOps ops = {
      nullptr,
      [](RawBitmapMaskData*, int64_t row) -> MaskRowHandle { return static_cast<MaskRowHandle>(row * 10); },
      [](RawBitmapMaskData*, MaskRowHandle row, int32_t x) -> uint32_t { return 0x100u | (row + x); },
      nullptr,
      [](RawBitmapMaskData*, int64_t row) -> MaskRowHandle { return static_cast<MaskRowHandle>(row * 100); },
      [](RawBitmapMaskData*, MaskRowHandle row, int32_t x) -> uint32_t { return 0x10000u | (row + x); },
  };
  RawBitmapMaskData mask{&ops};
  const MaskRowHandle row8 = MaskRow8(&mask, 3);
  EXPECT_EQ(MaskAt8(&mask, row8, 5), 35);
  const MaskRowHandle row16 = MaskRow16(&mask, 3);
  EXPECT_EQ(MaskAt16(&mask, row16, 5), 305);
}

TEST(Layouts, EngineLiesNineWordsBeforeTheEffectData) {
  struct {
    MPImageFilterData engine;
    int64_t effect[2];
  } object{};
  object.engine.engine3[5] = 5;
  object.effect[0] = 9;
  EXPECT_EQ(rawfx::EngineOf(object.effect), &object.engine);
  rawfx::StoreError(object.effect, rawfx::kErrorUnsupportedDepth);
  EXPECT_EQ(object.engine.lastError, 6);
  EXPECT_EQ(object.engine.engine3[5], 5);
  EXPECT_EQ(object.effect[0], 9);
}

TEST(Engine, FinishRowCountsAndStopsOnCancel) {
  GenericMPParams head{};
  EXPECT_TRUE(rawfx::FinishRow(head));
  EXPECT_TRUE(rawfx::FinishRow(head));
  head.cancel = 1;
  EXPECT_FALSE(rawfx::FinishRow(head));
  EXPECT_EQ(head.progress, 3);
}

TEST(Engine, ParamBlockDeleteCallbackDoesNothing) {
  GenericMPParams head{};
  head.progress = 4;
  EXPECT_EQ(ParamBlockDeleteCallback(nullptr, nullptr), 0);
  EXPECT_EQ(ParamBlockDeleteCallback(reinterpret_cast<REALobject>(16), &head), 0);
  EXPECT_EQ(head.progress, 4);
}

// ---- a scripted host for the cases that go through the binding ---------------------

std::map<std::string, void*> gKnown;
std::vector<std::string> gAsked;
std::vector<std::string> gCalls;

void* ScriptedResolve(const char* name) {
  gAsked.emplace_back(name);
  auto found = gKnown.find(name);
  return found == gKnown.end() ? nullptr : found->second;
}

template <typename Fn>
void Learn(const char* name, Fn* routine) {
  gKnown[name] = reinterpret_cast<void*>(routine);
}

int Asks(const std::string& name) { return static_cast<int>(std::count(gAsked.begin(), gAsked.end(), name)); }

// Runs body in a fresh process with the scripted host installed; expectations
// that fail in the child print there and fail the case here.
void InFreshProcess(const std::function<void()>& body) {
  std::fflush(nullptr);
  const auto result = rawfx::test::RunInChild([&] {
    gResolver = ScriptedResolve;
    body();
    std::fflush(nullptr);
    return std::string(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  EXPECT_TRUE(result.exitedNormally);
  EXPECT_EQ(result.output, "passed");
}

template <typename T>
T* Handle(uintptr_t n) {
  return reinterpret_cast<T*>(n * 16);
}

const REALclassRef kRGBClass = Handle<REALclassRefStruct>(1);
const REALclassRef kCMYKClass = Handle<REALclassRefStruct>(2);
const REALclassRef kBitmapClass = Handle<REALclassRefStruct>(3);

std::string ClassName(REALclassRef classRef) {
  if (classRef == kRGBClass) return "RGB";
  if (classRef == kCMYKClass) return "CMYK";
  return classRef ? "other" : "nil";
}

std::vector<std::string> gClassLookups;

REALclassRef FakeObjectType(const char* name) {
  const std::string className = name;
  gClassLookups.push_back(className);
  if (className == "ZandoriaColors.RGBColor") return kRGBClass;
  if (className == "ZandoriaColors.CMYKColor") return kCMYKClass;
  if (className == "RawBitmap") return kBitmapClass;
  return nullptr;
}

// ---- background colour ------------------------------------------------------------

// A colour object as the companion lays it out: the conversion table in the
// word before the plug-in data.
struct FakeColour {
  REALclassRef classRef;
  const ColorConversionTable* table;
  alignas(8) unsigned char data[16];
};

REALobject AsObject(FakeColour& colour) { return reinterpret_cast<REALobject>(&colour); }
FakeColour& AsColour(REALobject object) { return *reinterpret_cast<FakeColour*>(object); }

bool FakeIsA(REALobject object, REALclassRef classRef) {
  gCalls.push_back("is " + ClassName(classRef));
  return AsColour(object).classRef == classRef;
}

void* FakeColourData(REALobject object, REALclassRef classRef) {
  FakeColour& colour = AsColour(object);
  return colour.classRef == classRef ? colour.data : nullptr;
}

void FakeToCMYK(const void*, CMYKColorData* result) {
  gCalls.push_back("ToCMYK");
  *result = Cmyk(1, 2, 3, 4, 5);
}

void FakeToRGB(const void*, RGBColorData* result) {
  gCalls.push_back("ToRGB");
  *result = Rgb(6, 7, 8, 9);
}

const ColorConversionTable kConversions = {FakeToCMYK, FakeToRGB};

FakeColour RGBColour(RGBColorData rgb) {
  FakeColour colour{kRGBClass, &kConversions, {}};
  std::memcpy(colour.data, &rgb, sizeof rgb);
  return colour;
}

FakeColour CMYKColour(CMYKColorData cmyk) {
  FakeColour colour{kCMYKClass, &kConversions, {}};
  std::memcpy(colour.data, &cmyk, sizeof cmyk);
  return colour;
}

void InstallColourHost() {
  Learn("pluginObjectType", FakeObjectType);
  Learn("RuntimeObjectIsa", FakeIsA);
  Learn("PluginGetPluginData", FakeColourData);
  gRGBRef = kRGBClass;  // the effects' constructors fill it
  gCMYKRef = nullptr;
}

struct ColourCase {
  FakeColour colour;
  RawBitmap bitmap;
  ColourTestOrder order;
  std::vector<int> values;
  std::vector<std::string> calls;
};

// Orders the colour into the bitmap and checks that the colour object kept its bytes.
void RunColourCase(ColourCase& run) {
  const FakeColour before = run.colour;
  Entries entries;
  OrderBackgroundColour(AsObject(run.colour), &run.bitmap, 1, entries.values, run.order);
  run.values = entries.First(static_cast<int>(run.bitmap.bytesPerPixel) + 1);
  run.calls = gCalls;
  gCalls.clear();
  EXPECT_EQ(std::memcmp(&before, &run.colour, sizeof before), 0) << "the colour object changed";
}

TEST(BackgroundColour, CMYKBitmapConvertsAnRGBColourWithToCMYK) {
  InFreshProcess([] {
    InstallColourHost();
    for (ColourTestOrder order : {ColourTestOrder::ByBitmapFamily, ColourTestOrder::RGBFirst}) {
      ColourCase run{RGBColour(Rgb(10, 20, 30, 40)), CMYKBitmap8(5, 0, 1, 2, 3, 4), order, {}, {}};
      RunColourCase(run);
      EXPECT_EQ(run.values, (V{1, 2, 3, 4, 5, kUntouched}));
      const S expected = order == ColourTestOrder::RGBFirst ? S{"is RGB", "ToCMYK"} : S{"is CMYK", "ToCMYK"};
      EXPECT_EQ(run.calls, expected);
    }
    EXPECT_EQ(gCMYKRef, kCMYKClass);
    EXPECT_EQ(gClassLookups, S{"ZandoriaColors.CMYKColor"});
  });
}

TEST(BackgroundColour, RGBBitmapConvertsACMYKColourWithToRGB) {
  InFreshProcess([] {
    InstallColourHost();
    for (ColourTestOrder order : {ColourTestOrder::ByBitmapFamily, ColourTestOrder::RGBFirst}) {
      ColourCase run{CMYKColour(Cmyk(10, 20, 30, 40, 50)), Bitmap8(4, 0, 1, 2, 3, 17), order, {}, {}};
      RunColourCase(run);
      EXPECT_EQ(run.values, (V{6, 7, 8, 9, kUntouched}));
      EXPECT_EQ(run.calls, (S{"is RGB", "ToRGB"}));
    }
  });
}

TEST(BackgroundColour, MatchingKindsAreOrderedWithoutConversion) {
  InFreshProcess([] {
    InstallColourHost();
    for (ColourTestOrder order : {ColourTestOrder::ByBitmapFamily, ColourTestOrder::RGBFirst}) {
      ColourCase cmyk{CMYKColour(Cmyk(10, 20, 30, 40, 50)), CMYKBitmap8(5, 3, 2, 1, 0, 4), order, {}, {}};
      RunColourCase(cmyk);
      EXPECT_EQ(cmyk.values, (V{40, 30, 20, 10, 50, kUntouched}));
      EXPECT_EQ(cmyk.calls, (order == ColourTestOrder::RGBFirst ? S{"is RGB"} : S{"is CMYK"}));

      ColourCase rgb{RGBColour(Rgb(10, 20, 30, 40)), Bitmap8(3, 2, 1, 0, 9, 12), order, {}, {}};
      RunColourCase(rgb);
      EXPECT_EQ(rgb.values, (V{30, 20, 10, kUntouched}));
      EXPECT_EQ(rgb.calls, S{"is RGB"});
    }
  });
}

TEST(BackgroundColour, FormatFamilyDecidesTheConversion) {
  InFreshProcess([] {
    InstallColourHost();
    for (int64_t format : {13, 16}) {
      RawBitmap bitmap = CMYKBitmap8(5, 0, 1, 2, 3, 4);
      bitmap.format = format;
      ColourCase run{RGBColour(Rgb(10, 20, 30, 40)), bitmap, ColourTestOrder::ByBitmapFamily, {}, {}};
      RunColourCase(run);
      EXPECT_EQ(run.calls.back(), "ToCMYK") << format;
    }
    for (int64_t format : {0, 12, 17, 22}) {
      ColourCase run{CMYKColour(Cmyk(1, 1, 1, 1, 1)), Bitmap8(4, 0, 1, 2, 3, format),
                     ColourTestOrder::ByBitmapFamily, {}, {}};
      RunColourCase(run);
      EXPECT_EQ(run.calls.back(), "ToRGB") << format;
    }
  });
}

// ---- RawBitmap creation and access -----------------------------------------------

RawBitmap gCreated{};
uint8_t gValidAfterConstruction = 0;
FakeColour gInstanceStorage{};  // any addressable object will do as the new instance

REALobject FakeCreateInstance(REALclassRef classRef) {
  gCalls.push_back("new " + std::string(classRef == kBitmapClass ? "RawBitmap" : "other"));
  return reinterpret_cast<REALobject>(&gInstanceStorage);
}

void FakeBitmapConstructor(REALobject self, REALobject srcBlock, int64_t width, int64_t height, int64_t rowBytes,
                           int64_t format) {
  gCalls.push_back("construct " + std::to_string(self == reinterpret_cast<REALobject>(&gInstanceStorage)) + " " +
                   std::to_string(srcBlock == nullptr) + " " + std::to_string(width) + " " + std::to_string(height) +
                   " " + std::to_string(rowBytes) + " " + std::to_string(format));
  gCreated.isValid = gValidAfterConstruction;
}

void* FakeLoadObjectMethod(REALobject, const char* declaration) {
  gCalls.push_back(std::string("load ") + declaration);
  return reinterpret_cast<void*>(FakeBitmapConstructor);
}

void* FakeBitmapData(REALobject, REALclassRef classRef) { return classRef == kBitmapClass ? &gCreated : nullptr; }

void InstallBitmapHost() {
  Learn("pluginObjectType", FakeObjectType);
  Learn("CreateInstance", FakeCreateInstance);
  Learn("REALLoadObjectMethod", FakeLoadObjectMethod);
  Learn("PluginGetPluginData", FakeBitmapData);
  Learn("REALLockObject", +[](REALobject) { gCalls.push_back("lock"); });
  Learn("REALUnlockObject", +[](REALobject object) {
    gCalls.push_back(object == reinterpret_cast<REALobject>(&gInstanceStorage) ? "unlock instance" : "unlock other");
  });
}

const char* const kExpectedConstructor =
    "load Constructor(srcBlock as MemoryBlock, width as Integer,height as Integer,rowBytes as Integer,"
    "imageFormat as RawBitmap.RawBitmapFormat)";

TEST(CreateRawBitmap, InvalidResultIsReleasedOnceAndGivesNil) {
  InFreshProcess([] {
    InstallBitmapHost();
    gValidAfterConstruction = 0;
    RawBitmap* data = nullptr;
    EXPECT_EQ(CreateRawBitmap(640, 480, 2560, 4, &data), nullptr);
    EXPECT_EQ(gCalls, (S{"new RawBitmap", kExpectedConstructor, "construct 1 1 640 480 2560 4", "unlock instance"}));
  });
}

TEST(CreateRawBitmap, ValidResultIsReturnedWithItsDataAndTheConstructorIsKept) {
  InFreshProcess([] {
    InstallBitmapHost();
    gValidAfterConstruction = 1;
    RawBitmap* data = nullptr;
    EXPECT_EQ(CreateRawBitmap(3, 2, 12, 13, &data), reinterpret_cast<REALobject>(&gInstanceStorage));
    EXPECT_EQ(data, &gCreated);
    EXPECT_EQ(CreateRawBitmap(5, 1, 20, 4, &data), reinterpret_cast<REALobject>(&gInstanceStorage));
    EXPECT_EQ(gCalls, (S{"new RawBitmap", kExpectedConstructor, "construct 1 1 3 2 12 13", "new RawBitmap",
                         "construct 1 1 5 1 20 4"}));
    EXPECT_EQ(gClassLookups, S{"RawBitmap"});
  });
}

TEST(CreateRawBitmap, NoInstanceGivesNilWithoutLoadingTheConstructor) {
  InFreshProcess([] {
    Learn("pluginObjectType", FakeObjectType);
    RawBitmap* data = nullptr;
    EXPECT_EQ(CreateRawBitmap(3, 2, 12, 4, &data), nullptr);
    EXPECT_EQ(Asks("REALLoadObjectMethod"), 0);
    EXPECT_EQ(Asks("REALUnlockObject"), 0);
  });
}

TEST(RawBitmapAccess, ClassIsLookedUpOnceAndStartUpResetsTheCache) {
  InFreshProcess([] {
    InstallBitmapHost();
    GetRawBitmapData(reinterpret_cast<REALobject>(&gInstanceStorage));
    EXPECT_EQ(GetRawBitmapData(reinterpret_cast<REALobject>(&gInstanceStorage)), &gCreated);
    EXPECT_EQ(gClassLookups, S{"RawBitmap"});
    EXPECT_EQ(RawBitmapRef, kBitmapClass);

    InitializeRawBitmapSupport();
    EXPECT_EQ(RawBitmapRef, nullptr);
    EXPECT_EQ(RawBitmapMaskRef, nullptr);
    EXPECT_EQ(RawBitmapConstructor, nullptr);
    // Asks for both classes without keeping the answers.
    EXPECT_EQ(gClassLookups, (S{"RawBitmap", "RawBitmap", "RawBitmapMask"}));
  });
}

// ---- progress handler --------------------------------------------------------------

TEST(ProgressProc, NilTargetHasNoHandler) {
  InFreshProcess([] {
    Learn("REALLoadObjectMethod", FakeLoadObjectMethod);
    EXPECT_EQ(GetProgressProc(nullptr), nullptr);
    EXPECT_TRUE(gAsked.empty());
  });
}

TEST(ProgressProc, HandlerIsLoadedByItsExactDeclaration) {
  InFreshProcess([] {
    Learn("REALLoadObjectMethod", FakeLoadObjectMethod);
    EXPECT_EQ(GetProgressProc(Handle<REALobjectStruct>(4)), reinterpret_cast<void*>(FakeBitmapConstructor));
    EXPECT_EQ(gCalls, S{"load OnProgress(value as UInt64,total as UInt64,extraInfo as UInt64,ByRef cancel as "
                        "Boolean)"});
  });
}

}  // namespace
