// Two builds of the module timed against each other in one process, to tell
// whether a change to a kernel pays:
//
//   rawfx_compare BASE_MODULE NEW_MODULE [--threads=N] [--rounds=N] [JOB ...]
//
// Each build is loaded by a host of its own, and each job's Apply runs on the
// benchmark image in rounds of base, new, new, base. A shared machine's speed
// drifts over seconds by more than most kernel changes are worth, so the two
// builds are only compared within a round: a round gives new's speed relative
// to base's, and the median over the rounds is reported with its quartiles.
// Two copies of one build come out within about two per cent of 1 in 100 rounds.
// JOB selects jobs by the start of their names (all when none is given).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_image.h"
#include "bench/bench_jobs.h"

namespace {

using rawfx::bench::Job;
using rawfx::bench::TimedApply;

struct Options {
  std::string modules[2];
  int threads = 1;
  int rounds = 100;
  std::vector<std::string> jobPrefixes;
};

// The value at fraction q of the sorted values.
double Quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1) + 0.5)];
}

// Each round's speed of new relative to base, and every run's seconds of each.
struct Tally {
  std::vector<double> speedups, seconds[2];
};

// Where a build's image and results lie in memory moves its speed by a few per
// cent, alike for all its runs; so a pair of hosts runs only a block of rounds,
// and the next block has a new pair, made in the other order.
constexpr int kRoundsPerPair = 20;

void RunBlock(const Job& job, const Options& options, int firstMade, int rounds, Tally& tally) {
  std::unique_ptr<TimedApply> side[2];
  for (int k : {firstMade, 1 - firstMade}) {
    rawfx::host::HostOptions host;
    host.modulePath = options.modules[k];
    host.threads = options.threads;
    side[k] = std::make_unique<TimedApply>(job, std::move(host));
  }
  TimedApply &base = *side[0], &changed = *side[1];
  for (int warmUp = 0; warmUp < 2; ++warmUp) base.Run(), changed.Run();
  for (int round = 0; round < rounds; ++round) {
    const double runs[4] = {base.Run(), changed.Run(), changed.Run(), base.Run()};
    tally.speedups.push_back((runs[0] + runs[3]) / (runs[1] + runs[2]));
    tally.seconds[0].insert(tally.seconds[0].end(), {runs[0], runs[3]});
    tally.seconds[1].insert(tally.seconds[1].end(), {runs[1], runs[2]});
  }
}

void Compare(const Job& job, const Options& options) {
  Tally tally;
  for (int done = 0; done < options.rounds; done += kRoundsPerPair)
    RunBlock(job, options, done / kRoundsPerPair % 2, std::min(kRoundsPerPair, options.rounds - done), tally);
  const auto megapixelsPerSecond = [](const std::vector<double>& seconds) {
    return rawfx::bench::kMegapixels / Quantile(seconds, 0.5);
  };
  std::printf("%-26s %7d %9.1f %9.1f %8.3f  %.3f - %.3f\n", job.name.c_str(), options.threads,
              megapixelsPerSecond(tally.seconds[0]), megapixelsPerSecond(tally.seconds[1]),
              Quantile(tally.speedups, 0.5), Quantile(tally.speedups, 0.25), Quantile(tally.speedups, 0.75));
  std::fflush(stdout);
}

bool Selected(const Job& job, const Options& options) {
  if (options.jobPrefixes.empty()) return true;
  return std::any_of(options.jobPrefixes.begin(), options.jobPrefixes.end(),
                     [&](const std::string& prefix) { return job.name.rfind(prefix, 0) == 0; });
}

// A count option's value, or 0 when it is not a whole number from 1 to 10000.
int CountOf(const std::string& text) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  return !text.empty() && *end == '\0' && value >= 1 && value <= 10000 ? static_cast<int>(value) : 0;
}

bool Parse(int argc, char** argv, Options& options) {
  int modules = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.rfind("--threads=", 0) == 0) {
      if (!(options.threads = CountOf(argument.substr(10)))) return false;
    } else if (argument.rfind("--rounds=", 0) == 0) {
      if (!(options.rounds = CountOf(argument.substr(9)))) return false;
    } else if (argument.rfind("--", 0) == 0) {
      return false;
    } else if (modules < 2) {
      options.modules[modules++] = argument;
    } else {
      options.jobPrefixes.push_back(argument);
    }
  }
  return modules == 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::fprintf(stderr, "usage: rawfx_compare BASE_MODULE NEW_MODULE [--threads=N] [--rounds=N] [JOB ...]\n");
    return 2;
  }
  std::vector<Job> jobs;
  for (const Job& job : rawfx::bench::AllJobs())
    if (Selected(job, options)) jobs.push_back(job);
  if (jobs.empty()) {
    std::fprintf(stderr, "rawfx_compare: no job's name starts with the ones given\n");
    return 2;
  }
  std::printf("%-26s %7s %9s %9s %8s  %s\n", "job", "threads", "base MP/s", "new MP/s", "new/base",
              "its quartiles");
  try {
    for (const Job& job : jobs) Compare(job, options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "rawfx_compare: %s\n", e.what());
    return 1;
  }
  return 0;
}
