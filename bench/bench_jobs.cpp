#include "bench/bench_jobs.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace rawfx::bench {

using rawfx::host::Host;

Job InterlaceJob() {
  return {"interlace_rgba8", 4, true, "InterlaceEffectRaw", [](Host& host, REALobject e) {
            host.Set<int64_t>(e, "HorizontalInterlaceType", 1);
            host.Set<int64_t>(e, "VerticalInterlaceType", 2);
          }};
}

Job OilPaintJob(int brush) {
  return {"oil_paint_brush" + std::to_string(brush) + "_rgb8", 3, false, "OilPaintEffectRaw",
          [=](Host& host, REALobject e) { host.Set<uint8_t>(e, "BrushSize", static_cast<uint8_t>(brush)); }};
}

Job BarrelJob(bool interpolate) {
  return {std::string("barrel_") + (interpolate ? "bilinear" : "nearest") + "_rgba8", 4, true,
          "BarrelDistortEffectRaw", [=](Host& host, REALobject e) {
            host.Set<double>(e, "Distortion", 0.4);
            host.Set<double>(e, "HorizontalKeystone", 0.1);
            host.Set<bool>(e, "Interpolate", interpolate);
          }};
}

Job PolarJob(bool toPolar) {
  return {std::string("polar_") + (toPolar ? "to_polar" : "to_rect") + "_rgba8", 4, true,
          "PolarCoordinatesEffectRaw",
          [=](Host& host, REALobject e) { host.Set<bool>(e, "RectangularToPolar", toPolar); }};
}

std::vector<Job> AllJobs() {
  return {InterlaceJob(), OilPaintJob(2), BarrelJob(false), BarrelJob(true), PolarJob(true), PolarJob(false)};
}

TimedApply::TimedApply(const Job& job, rawfx::host::HostOptions options)
    : fixture_(job.channels, job.alpha, 8, std::move(options)) {
  effect_ = fixture_.host->New(job.rawfxClass);
  job.configure(*fixture_.host, effect_);
}

TimedApply::~TimedApply() { fixture_.host->Unlock(effect_); }

double TimedApply::Run() {
  Host& host = *fixture_.host;
  const auto start = std::chrono::steady_clock::now();
  REALobject result = host.Call<REALobject>(effect_, "Apply(source as RawBitmap) as RawBitmap", fixture_.source);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!result) throw std::runtime_error("Apply returned nil");
  host.Unlock(result);
  return seconds;
}

}  // namespace rawfx::bench
