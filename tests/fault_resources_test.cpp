// Resources that cannot be had: a result bitmap the engine cannot create
// (refused by the host, or too large for the source's patched record), a mask
// that does not cover the source, and bitmap sizes the companion refuses. Each
// run gives nil, stores no error, changes nothing and leaves nothing alive.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

#include "imaging/raw_bitmap.h"
#include "plugin/host_binding.h"
#include "support/child_process.h"
#include "support/fault_checks.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using rawfx::host::EngineCall;
using rawfx::host::Host;

class FaultResources : public AsyncHostTest {};

enum class Fault { NoResult, HugeRecord, ShortMask };

// Every method that makes a result, with each fault; after it, with the
// resource there again, the same effect runs. An asynchronous run completes
// once with nil and its block is disposed of.
TEST_F(FaultResources, ResultOrMaskThatCannotBeHadGivesNilAndChangesNothing) {
  for (const char* className : kEffectClasses)
    for (Method method : {Method::Apply, Method::Async})
      for (Fault fault : {Fault::NoResult, Fault::HugeRecord, Fault::ShortMask}) {
        const std::string name = className;
        if (method == Method::Async && name != kPolar && name != kBarrel) continue;
        if (fault == Fault::ShortMask && name != kInterlace && name != kOilPaint) continue;
        SCOPED_TRACE(name + (method == Method::Async ? ".ApplyAsync, fault " : ".Apply, fault ") +
                     std::to_string(int(fault)));
        REALobject effect = NewEffect(host, className);
        REALobject source = NewPattern(host, 10, 6, kRGBA, 8, 12, 4);
        const std::vector<uint8_t> before = Pixels(host, source);
        RawBitmap* record = host.Bitmap(source).record;
        if (fault == Fault::NoResult) host.FailResultCreation(1);
        if (fault == Fault::HugeRecord) record->height = int64_t{1} << 25;  // passes the checks, but no result fits
        if (fault == Fault::ShortMask) {
          REALobject shortBitmap = host.NewBitmap(10, 5, kGray);
          REALobject mask = host.NewMask(shortBitmap);
          host.Set<REALobject>(effect, "Mask", mask);
          host.Unlock(mask);
          host.Unlock(shortBitmap);  // the mask keeps its bitmap alive until it goes
        }
        const size_t alive = host.LiveObjectCount();
        const int64_t disposed = host.asyncCounts().blocksDeleted + host.asyncCounts().deleteCallbacks;
        EXPECT_EQ(RunEffect(host, effect, method, source, log), nullptr);
        record->height = 6;
        EXPECT_EQ(host.LastError(effect), 0) << "the failure is the engine's, not a refused setting";
        const EngineCall call = host.lastEngineCall();
        EXPECT_EQ(std::tie(call.operation, call.parts),
                  std::make_tuple(method == Method::Async ? EngineCall::PartsAsync : EngineCall::Parts, 0))
            << "the effect asked the engine, which refused";
        EXPECT_EQ(host.asyncCounts().blocksDeleted + host.asyncCounts().deleteCallbacks,
                  disposed + (method == Method::Async));
        EXPECT_EQ(Pixels(host, source), before);
        EXPECT_EQ(host.LiveObjectCount(), alive) << "nothing made is left";

        if (fault == Fault::ShortMask) host.Set(effect, "Mask", nullptr);
        REALobject result = RunEffect(host, effect, method, source, log);
        EXPECT_NE(result, nullptr) << "one refusal only";
        for (REALobject object : {result, effect, source}) host.Unlock(object);
        EXPECT_EQ(host.LiveObjectCount(), 0u);
      }
}

// An in-place run makes no bitmap, so a refusal waiting for the next result does not touch it.
TEST_F(FaultResources, InPlaceRunNeedsNoResult) {
  REALobject source = NewPattern(host, 4, 4, kRGBA, 16, 3);
  const std::vector<uint8_t> before = Pixels(host, source);
  REALobject effect = NewEffect(host, kInterlace);
  host.FailResultCreation(1);
  host.Call<void>(effect, kApplyInPlace, source);
  EXPECT_NE(Pixels(host, source), before);
  EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr) << "the refusal is still waiting";
  for (REALobject object : {effect, source}) host.Unlock(object);
}

// The plug-in's own bitmap creation, bound to a real host in a fresh process:
// every size the companion refuses gives nil and leaves no instance behind.
Host* gChildHost = nullptr;
void* ChildResolver(const char* name) { return gChildHost->resolve(name); }

TEST(FaultCreateRawBitmap, RefusedSizesGiveNilAndLeaveNothing) {
  const ChildResult child = RunInChild([] {
    Host host;
    gChildHost = &host;
    gResolver = &ChildResolver;
    InitializeRawBitmapSupport();
    std::string report;
    struct Size {
      int64_t width, height, rowBytes, format;
    };
    const Size refused[] = {
        {0, 4, 0, kRGBA},  {4, 0, 0, kRGBA}, {-3, 4, 0, kRGBA}, {4, -3, 0, kRGBA}, {4, 4, 15, kRGBA},
        {4, 4, 0, 99},     {4, 4, 0, -1},    {int64_t{1} << 31, 1, 0, kGray},     {1 << 20, 1 << 20, 0, kRGBA},
        {INT64_MAX, INT64_MAX, 0, kRGBA},    {4, 4, INT64_MAX, kRGBA}};
    for (const auto& [width, height, rowBytes, format] : refused) {
      RawBitmap* data = nullptr;  // not to be used after a refusal: it belongs to the released instance
      if (CreateRawBitmap(width, height, rowBytes, format, &data) || host.LiveObjectCount() != 0)
        report += "accepted or kept " + std::to_string(width) + "x" + std::to_string(height) + "\n";
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
