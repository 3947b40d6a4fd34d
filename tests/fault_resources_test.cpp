// Resources that cannot be had: a bitmap size the companion refuses, a result
// bitmap the engine cannot create (refused by the host, or too large for the
// source's patched record), and a mask that does not cover the source. Each
// run gives nil, changes nothing and leaves nothing alive.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/host.h"
#include "imaging/raw_bitmap.h"
#include "plugin/host_binding.h"
#include "support/child_process.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr int64_t kRGBA = 5, kGray = 0;

const char* const kClasses[] = {"InterlaceEffectRaw", "PolarCoordinatesEffectRaw", "BarrelDistortEffectRaw",
                                "OilPaintEffectRaw"};

class FaultResources : public rawfx::test::HostTest {
 protected:
  REALobject NewEffect(const std::string& className) {
    REALobject effect = host.New(className);
    if (className == "InterlaceEffectRaw") host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
    if (className == "BarrelDistortEffectRaw") host.Set<double>(effect, "Distortion", -0.5);
    return effect;
  }
  std::vector<uint8_t> Pixels(REALobject bitmap) {
    const rawfx::host::BitmapView view = host.Bitmap(bitmap);
    return {view.pixels, view.pixels + view.rowBytes * view.height};
  }
};

TEST_F(FaultResources, ResultTheEngineCannotCreateGivesNilAndNoError) {
  REALobject source = host.NewBitmap(10, 6, kRGBA, 8, 4);
  rawfx::test::FillPattern(host, source, 12);
  const std::vector<uint8_t> before = Pixels(source);
  for (const char* className : kClasses) {
    SCOPED_TRACE(className);
    REALobject effect = NewEffect(className);
    const size_t alive = host.LiveObjectCount();
    host.FailResultCreation(1);
    EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr);
    EXPECT_EQ(host.LastError(effect), 0) << "the failure is the engine's, not a refused setting";
    EXPECT_EQ(host.lastEngineCall().operation, rawfx::host::EngineCall::Parts) << "the effect did ask the engine";
    EXPECT_EQ(Pixels(source), before);
    EXPECT_EQ(host.LiveObjectCount(), alive) << "nothing made is left";
    REALobject result = host.Call<REALobject>(effect, kApply, source);
    EXPECT_NE(result, nullptr) << "one refusal only";
    host.Unlock(result);
    host.Unlock(effect);
  }
  host.Unlock(source);
}

// An in-place run makes no bitmap, so a refusal waiting for the next result
// does not touch it.
TEST_F(FaultResources, InPlaceRunNeedsNoResult) {
  REALobject source = host.NewBitmap(4, 4, kRGBA, 16);
  rawfx::test::FillPattern(host, source, 3);
  const std::vector<uint8_t> before = Pixels(source);
  REALobject effect = NewEffect("InterlaceEffectRaw");
  host.FailResultCreation(1);
  host.Call<void>(effect, kApplyInPlace, source);
  EXPECT_NE(Pixels(source), before);
  EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr) << "the refusal is still waiting";
  host.FailResultCreation(0);
  for (REALobject object : {effect, source}) host.Unlock(object);
}

// A source record patched to a height whose pixels would pass the companion's
// limit: the checks pass, the engine cannot make the result, nothing runs.
TEST_F(FaultResources, HugeSourceRecordGivesNil) {
  for (const char* className : kClasses) {
    SCOPED_TRACE(className);
    REALobject source = host.NewBitmap(64, 2, kRGBA, 8);
    RawBitmap* record = host.Bitmap(source).record;
    record->height = int64_t{1} << 30;
    REALobject effect = NewEffect(className);
    EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr);
    EXPECT_EQ(host.LastError(effect), 0);
    record->height = 2;
    for (REALobject object : {effect, source}) host.Unlock(object);
    EXPECT_EQ(host.LiveObjectCount(), 0u);
  }
}

// A mask smaller than the source is refused by the engine; the mask keeps its bitmap alive until it goes.
TEST_F(FaultResources, MaskSmallerThanTheSourceGivesNil) {
  REALobject source = host.NewBitmap(8, 8, kRGBA, 8);
  REALobject small = host.NewBitmap(8, 7, kGray, 8);
  REALobject mask = host.NewMask(small);
  host.Unlock(small);
  for (const char* className : {"InterlaceEffectRaw", "OilPaintEffectRaw"}) {
    SCOPED_TRACE(className);
    REALobject effect = NewEffect(className);
    host.Set<REALobject>(effect, "Mask", mask);
    EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr);
    host.Unlock(effect);
  }
  for (REALobject object : {mask, source}) host.Unlock(object);
}

// The plug-in's own bitmap creation, bound to a real host in a fresh process:
// every size the companion refuses gives nil and leaves no instance behind.
Host* gChildHost = nullptr;
void* ChildResolver(const char* name) { return gChildHost->resolve(name); }

TEST(FaultCreateRawBitmap, RefusedSizesGiveNilAndLeaveNothing) {
  const rawfx::test::ChildResult child = rawfx::test::RunInChild([] {
    Host host;
    gChildHost = &host;
    gResolver = &ChildResolver;
    InitializeRawBitmapSupport();
    std::string report;
    struct Size {
      int64_t width, height, rowBytes, format;
    };
    const Size refused[] = {
        {0, 4, 0, kRGBA},           {4, 0, 0, kRGBA},        {-3, 4, 0, kRGBA},     {4, -3, 0, kRGBA},
        {4, 4, 15, kRGBA},          {4, 4, 0, 99},           {4, 4, 0, -1},         {int64_t{1} << 31, 1, 0, kGray},
        {1 << 20, 1 << 20, 0, kRGBA}, {INT64_MAX, INT64_MAX, 0, kRGBA}, {4, 4, INT64_MAX, kRGBA},
    };
    for (const Size& s : refused) {
      RawBitmap* data = nullptr;  // not to be used after a refusal: it belongs to the released instance
      if (CreateRawBitmap(s.width, s.height, s.rowBytes, s.format, &data))
        report += "accepted " + std::to_string(s.width) + "x" + std::to_string(s.height) + "\n";
      if (host.LiveObjectCount() != 0) report += "left an instance\n";
    }
    RawBitmap* data = nullptr;
    REALobject fine = CreateRawBitmap(3, 2, 0, kRGBA, &data);
    if (!fine || !data || data->width != 3) report += "refused a valid size\n";
    host.Unlock(fine);
    if (host.LiveObjectCount() != 0 || host.StrayLockCalls() != 0) report += "unbalanced at the end\n";
    return report.empty() ? std::string("ok") : report;
  });
  EXPECT_TRUE(child.exitedNormally);
  EXPECT_EQ(child.output, "ok");
}

}  // namespace
