// Imaging support: format families, mask values, the allocation limit, the
// background colour against a scripted host (which class is asked first, which
// conversion runs, where each component lands in a hand-built RawBitmap record),
// and bitmap creation through a real host. Cases that fill class caches run in
// forked children.

#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <iterator>
#include <random>
#include <tuple>

#include "imaging/color_order.h"
#include "imaging/cpu_dispatch.h"
#include "imaging/memory.h"
#include "imaging/simd.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using V = std::vector<int>;
using S = std::vector<std::string>;

#if defined(__x86_64__)
// The module reads cpuid and XCR0 itself; the compiler's runtime (which a test may
// link) must come to the same answer on this machine.
TEST(CpuDispatch, DetectsAVX2AndAVX512AsTheCompilerRuntimeDoes) {
  __builtin_cpu_init();
  EXPECT_EQ(rawfx::cpu::HasAVX2(), __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"));
  EXPECT_EQ(rawfx::cpu::HasAVX512(), __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                                         __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq"));
}
#endif

#if RAWFX_SIMD_X86
// Divide, where it takes the reciprocal and a fused correction, gives a / b to
// the bit: random pairs of every exponent, half of them in its range,
// significands biased to the ends of their binade (where the first quotient
// strays farthest), and zeros, infinities, NaNs and subnormals.
template <class Lanes>
void ExpectQuotientsOfDivision(Lanes divide) {
  const double special[] = {0.0, -0.0, INFINITY, -INFINITY, NAN, 0x1p-500, 0x1p500, 0x1.fffffffffffffp500,
                            0x1.fffffffffffffp-501, 0x1p-1074, 0x1p-1022, DBL_MAX, 1.0, -0x1.fffffffffffffp0};
  std::mt19937_64 random(11);
  const auto next = [&](int i) {
    if (i % 7 == 0) return special[random() % std::size(special)];
    uint64_t bits = random() & 0x800FFFFFFFFFFFFFull;
    if (i % 3 == 1) bits |= 0x000FFFFFFF000000ull;  // significand near 2
    if (i % 3 == 2) bits &= 0x80000000000FFFFFull;  // near 1
    const int exponent = static_cast<int>(i % 2 ? random() % 1030 - 515 : random() % 2100 - 1075);
    return std::ldexp(std::bit_cast<double>(bits | 0x3FF0000000000000ull), exponent);
  };
  for (int round = 0; round < 200000; ++round) {
    double a[8], b[8], q[8];
    for (int i = 0; i < 8; ++i) a[i] = next(round + i), b[i] = next(round + 3 * i + 1);
    divide(a, b, q);
    for (int i = 0; i < 8; ++i)
      ASSERT_EQ(std::bit_cast<uint64_t>(q[i]), std::bit_cast<uint64_t>(a[i] / b[i]))
          << std::hexfloat << a[i] << " / " << b[i];
  }
}

RAWFX_TARGET_AVX2 void DivideAVX2(const double* a, const double* b, double* q) {
  using namespace rawfx::simd::avx2;
  for (int i = 0; i < 8; i += 4) _mm256_storeu_pd(q + i, Divide(Load(a + i), DivisorOf(Load(b + i))));
}

RAWFX_TARGET_AVX512 void DivideAVX512(const double* a, const double* b, double* q) {
  using namespace rawfx::simd::avx512;
  _mm512_storeu_pd(q, Divide(Load(a), DivisorOf(Load(b))));
}

TEST(Divide, MatchesDivisionOnEveryPathThatHasIt) {
  if (rawfx::cpu::HasAVX2()) ExpectQuotientsOfDivision(DivideAVX2);
  if (rawfx::cpu::HasAVX512()) ExpectQuotientsOfDivision(DivideAVX512);
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

// The allocation limit the failure tests rely on: exactly `count` blocks, then nil
// until the limit is lifted; the live count follows NewPtr and DisposePtr.
TEST(Memory, AllocationLimitGrantsExactlyItsCountOfBlocks) {
  const int64_t live = rawfx::memory::LiveBlockCount();
  rawfx::memory::FailAllocationsAfter(1);
  void *granted = NewPtr(8), *refused = NewPtr(8);  // in this order
  rawfx::memory::FailAllocationsAfter(-1);
  void* unlimited = NewPtr(8);
  EXPECT_EQ(std::make_tuple(granted != nullptr, refused, unlimited != nullptr, rawfx::memory::LiveBlockCount()),
            std::make_tuple(true, nullptr, true, live + 2));
  for (void* block : {granted, unlimited}) DisposePtr(block);
  EXPECT_EQ(rawfx::memory::LiveBlockCount(), live);
}

// ---- the background colour, against a scripted host ----------------------------------------

constexpr int U = 777;  // an entry the call must leave untouched
const RGBColorData kRgb = {10, 20, 30, 40, 2570, 5140, 7710, 10280};
const CMYKColorData kInk = {10, 20, 30, 40, 50, 0, 2570, 5140, 7710, 10280, 12850};
S gCalls, gClassLookups;
const REALclassRef kRGBClass = reinterpret_cast<REALclassRef>(16), kCMYKClass = reinterpret_cast<REALclassRef>(32);

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

// A colour object as the companion lays it out: the conversion table in the
// word before the plug-in data.
struct FakeColour {
  REALclassRef classRef;
  const ColorConversionTable* table;
  alignas(8) unsigned char data[16];
};

const ColorConversionTable kConversions = {[](const void*, CMYKColorData* result) {
                                             gCalls.push_back("ToCMYK");
                                             *result = {1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0};
                                           },
                                           [](const void*, RGBColorData* result) {
                                             gCalls.push_back("ToRGB");
                                             *result = {6, 7, 8, 9, 0, 0, 0, 0};
                                           }};

// The bitmap's format family (FamiliesByCode) decides which conversion runs
// and, unless the effect asks for RGB first, which class a CMYK bitmap's colour
// is asked about (an RGB bitmap always asks RGB); the colour object keeps its
// bytes, and the CMYK class is looked up once. The components then go to their
// channels' positions and nothing past them is written.
TEST(BackgroundColour, IsConvertedToTheBitmapsFamilyAndOrderedByChannel) {
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
    const struct {
      const char* what;
      RawBitmap bitmap;
      signed char includeAlpha;
      bool cmykColour;  // kInk, else kRgb
      V values;         // the first entries after the call
      S calls = {};  // the questions and conversions, where they are the point of the case
    } cases[] = {
        {"RGB colour on CMYK", Record(5, {0, 1, 2, 4, 3}, 13), 1, false, {1, 2, 3, 4, 5, U}, {"is CMYK", "ToCMYK"}},
        {"CMYK colour on RGB", Record(4, {0, 1, 2, 3}, 17), 1, true, {6, 7, 8, 9, U}, {"is RGB", "ToRGB"}},
        {"CMYK colour on KYMC", Record(5, {3, 2, 1, 4, 0}, 13), 1, true, {40, 30, 20, 10, 50, U}, {"is CMYK"}},
        {"RGB colour on BGR", Record(3, {2, 1, 0, 9}, 12), 1, false, {30, 20, 10, U}, {"is RGB"}},
        {"a byte without a component", Record(4, {1, 2, 3, 0}), 0, false, {-1, 10, 20, 30, U}},
        {"that byte as alpha", Record(4, {1, 2, 3, 0}), 1, false, {40, 10, 20, 30, U}},
        {"16-bit alpha at byte 6 is sample 3", Record(8, {0, 2, 4, 6}, 5, 16), 1, false, {2570, 5140, 7710, 10280, U}},
        // Where offsets coincide the first match wins: yellow, cyan, magenta, black;
        // red, green, blue; every colour before alpha.
        {"yellow before magenta", Record(2, {0, 1, 0, 9, 1}, 13), 0, true, {30, 20, U}},
        {"cyan before black", Record(2, {0, 0, 1, 9, 0}, 13), 0, true, {10, 30, U}},
        {"colours before alpha", Record(3, {0, 0, 1, 1}), 1, false, {10, 30, -1, U}},
        {"green before blue", Record(2, {1, 0, 0, 0}), 1, false, {20, 10, U}},
        {"no bytes", Record(0, {0, 1, 2, 3}), 1, false, {U}},
        {"negative CMYK bytes", Record(-1, {0, 1, 2, 4, 3}, 13), 1, true, {U}},
        {"16-bit walk counts channels, not bytes", Record(8, {0, 2, 4, 6}, 5, 16, 0), 1, false, {U}},
        // The walk stops at the eighth entry, whatever the record says.
        {"never past the eighth", Record(12, {0, 1, 2, 3}), 1, false, {10, 20, 30, 40, -1, -1, -1, -1, U, U, U, U}},
    };
    for (auto c : cases)
      for (ColourTestOrder order : {ColourTestOrder::ByBitmapFamily, ColourTestOrder::RGBFirst}) {
        SCOPED_TRACE(std::string(c.what) + (order == ColourTestOrder::RGBFirst ? ", RGB first" : ""));
        FakeColour colour{c.cmykColour ? kCMYKClass : kRGBClass, &kConversions, {}};
        std::memcpy(colour.data, c.cmykColour ? static_cast<const void*>(&kInk) : &kRgb, c.cmykColour ? 16 : 12);
        int values[16];  // sixteen are offered, so that writes past the eighth show up
        std::fill(std::begin(values), std::end(values), U);
        OrderBackgroundColour(reinterpret_cast<REALobject>(&colour), &c.bitmap, c.includeAlpha, values, order);
        EXPECT_EQ(V(values, values + c.values.size()), c.values) << "the order decides no value";
        if (!c.calls.empty()) {
          if (order == ColourTestOrder::RGBFirst) c.calls[0] = "is RGB";  // the first question, and only that
          EXPECT_EQ(gCalls, c.calls);
        }
        gCalls.clear();
      }
    EXPECT_EQ(std::make_tuple(gCMYKRef, gClassLookups), std::make_tuple(kCMYKClass, S{kCMYKColorClass}));
  });
}

// ---- bitmap creation, through a real host ------------------------------------------------------

rawfx::host::Host* gChildHost = nullptr;

// The plug-in's own bitmap creation, bound to a real host in a fresh process:
// every size the companion refuses gives nil and leaves no instance behind; a
// valid one comes with its record.
TEST(RawBitmapAccess, RefusedSizesGiveNilAndLeaveNothing) {
  rawfx::test::InFreshProcess([](rawfx::test::ScriptedHost&) {
    rawfx::host::Host host;
    gChildHost = &host;
    gResolver = [](const char* name) { return gChildHost->resolve(name); };
    InitializeRawBitmapSupport();
    const std::tuple<int64_t, int64_t, int64_t, int64_t> refused[] = {
        {0, 4, 0, 5},  {4, 0, 0, 5},  {-3, 4, 0, 5}, {4, -3, 0, 5}, {4, 4, 15, 5}, {4, 4, 0, 99},
        {4, 4, 0, -1}, {int64_t{1} << 31, 1, 0, 0},  {1 << 20, 1 << 20, 0, 5}, {INT64_MAX, INT64_MAX, 0, 5},
        {4, 4, INT64_MAX, 5}};
    for (const auto& [width, height, rowBytes, format] : refused) {
      RawBitmap* data = nullptr;  // not to be used after a refusal: it belongs to the released instance
      EXPECT_EQ(CreateRawBitmap(width, height, rowBytes, format, &data), nullptr) << width << "x" << height;
    }
    RawBitmap* data = nullptr;
    REALobject fine = CreateRawBitmap(3, 2, 0, 5, &data);
    EXPECT_EQ(std::make_tuple(data, data ? data->width : 0), std::make_tuple(GetRawBitmapData(fine), 3));
    host.Unlock(fine);
    EXPECT_EQ(std::make_tuple(host.LiveObjectCount(), host.StrayLockCalls()), std::make_tuple(0u, 0));
  });
}

}  // namespace
