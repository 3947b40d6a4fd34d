// The effect runs that the peer benchmark and the module comparison time: an
// effect class with its settings, on the benchmark image in one format.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/bench_image.h"
#include "host/host.h"

namespace rawfx::bench {

struct Job {
  std::string name;
  int channels;
  bool alpha;
  const char* rawfxClass;
  std::function<void(rawfx::host::Host&, REALobject)> configure;
};

Job InterlaceJob();
Job OilPaintJob(int brush);
// Barrel through a keystone matrix as well as the radial factor.
Job BarrelJob(bool interpolate);
// Rectangular to polar wraps the picture around the centre (a circular result);
// polar to rectangular unrolls it.
Job PolarJob(bool toPolar);

// One job of each effect and mode, in that order.
std::vector<Job> AllJobs();

// A job's Apply on the benchmark image, in a host of its own made with options.
class TimedApply {
 public:
  TimedApply(const Job& job, rawfx::host::HostOptions options = {});
  ~TimedApply();
  TimedApply(const TimedApply&) = delete;
  TimedApply& operator=(const TimedApply&) = delete;

  // Seconds of one Apply (throws when Apply gives nil).
  double Run();

 private:
  Fixture fixture_;
  REALobject effect_ = nullptr;
};

}  // namespace rawfx::bench
