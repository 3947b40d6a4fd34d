// The jobs of the rawfx effects done by other image libraries on the same
// 2048 x 2048 image, each reported beside rawfx's own figure for the job,
// measured in this program through the host's Apply at the same thread count,
// in turn with the peer's runs:
//  - OpenCV: xphoto::oilPainting, remap with a barrel map (nearest, bilinear;
//    with the map ready, and computing the map as part of the job), warpPolar
//    both ways;
//  - ImageMagick's convert with -paint, -distort Barrel, Polar and DePolar, run
//    as a process on a MIFF file of the image; the time is the command's, from
//    start to exit, file reading and writing included.
// Counters: MP/s (megapixels per second), rawfx_MP/s, and vs_rawfx, the peer's
// speed as a multiple of rawfx's (below 1: the peer is slower).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/xphoto/oilpainting.hpp>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_image.h"
#include "bench/bench_jobs.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using rawfx::bench::BarrelJob;
using rawfx::bench::Fixture;
using rawfx::bench::Job;
using rawfx::bench::kMegapixels;
using rawfx::bench::kSide;
using rawfx::bench::OilPaintJob;
using rawfx::bench::PolarJob;
using rawfx::bench::TimedApply;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// ---- rawfx's side ---------------------------------------------------------------------

// rawfx's Apply for a job, ready to run beside a peer. The last one made is
// kept, so the rounds and repetitions of one peer's benchmark share it.
TimedApply& RawfxApplyFor(const Job& job, int threads) {
  static std::unique_ptr<TimedApply> last;
  static std::string lastName;
  static int lastThreads = 0;
  if (!last || lastName != job.name || lastThreads != threads) {
    last.reset();  // one image at a time
    rawfx::host::HostOptions options;
    options.threads = threads;
    last = std::make_unique<TimedApply>(job, options);
    lastName = job.name;
    lastThreads = threads;
    last->Run();  // warm-up: code paged in, the result's memory taken once
  }
  return *last;
}

// Seconds per image of the peer and of rawfx, one of each per iteration, so
// that both see the machine alike: a shared machine's speed drifts over the
// seconds between two benchmarks by more than the differences measured.
struct Turns {
  std::vector<double> peer, rawfx;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Runs rawfx's Apply between two of the peer's runs, outside the benchmark's own timing.
void RawfxTurn(benchmark::State& state, TimedApply& rawfx, Turns& turns) {
  state.PauseTiming();
  turns.rawfx.push_back(rawfx.Run());
  state.ResumeTiming();
}

void Report(benchmark::State& state, const Turns& turns) {
  if (turns.peer.empty()) return;
  const double peer = Median(turns.peer), rawfx = Median(turns.rawfx);
  state.counters["MP/s"] = kMegapixels / peer;
  state.counters["rawfx_MP/s"] = kMegapixels / rawfx;
  state.counters["vs_rawfx"] = rawfx / peer;
}

// ---- the image in the peers' forms ---------------------------------------------------

// The benchmark image as an OpenCV matrix of 8-bit samples in the bitmap's order.
const cv::Mat& ImageMat(int channels, bool alpha) {
  static std::map<int, cv::Mat> images;
  cv::Mat& image = images[channels];
  if (!image.empty()) return image;
  Fixture fixture(channels, alpha, 8);
  const auto view = fixture.view();
  image.create(static_cast<int>(kSide), static_cast<int>(kSide), CV_8UC(channels));
  for (int64_t y = 0; y < kSide; ++y)
    std::memcpy(image.ptr(static_cast<int>(y)), view.row(y), static_cast<size_t>(kSide * channels));
  return image;
}

// ---- OpenCV ----------------------------------------------------------------------------

// Times call and rawfx's Apply in turn, with OpenCV limited to threads.
void TimeOpenCV(benchmark::State& state, const Job& job, int threads, const std::function<void()>& call) {
  cv::setNumThreads(threads);
  TimedApply& rawfx = RawfxApplyFor(job, threads);
  call();  // warm-up: buffers allocated, code paged in
  Turns turns;
  for (auto _ : state) {
    const auto start = Clock::now();
    call();
    turns.peer.push_back(Seconds(Clock::now() - start));
    RawfxTurn(state, rawfx, turns);
  }
  Report(state, turns);
}

// Source position of every destination pixel under a radial barrel of
// strength k: r' = r (1 + k r^2), r measured from the centre in half-sides
// (rawfx's job maps through a keystone matrix as well).
void ComputeBarrelMap(cv::Mat& mapX, cv::Mat& mapY, double k) {
  mapX.create(static_cast<int>(kSide), static_cast<int>(kSide), CV_32FC1);
  mapY.create(mapX.size(), CV_32FC1);
  const double centre = kSide * 0.5;
  cv::parallel_for_(cv::Range(0, static_cast<int>(kSide)), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      auto* xs = mapX.ptr<float>(y);
      auto* ys = mapY.ptr<float>(y);
      const double ny = (y - centre) / centre;
      for (int x = 0; x < kSide; ++x) {
        const double nx = (x - centre) / centre;
        const double scale = 1.0 + k * (nx * nx + ny * ny);
        xs[x] = static_cast<float>(centre + nx * scale * centre);
        ys[x] = static_cast<float>(centre + ny * scale * centre);
      }
    }
  });
}

void OpenCVOilPaint(benchmark::State& state, int brush, int threads) {
  const cv::Mat& source = ImageMat(3, false);
  cv::Mat result;
  // rawfx's default smoothness 0.4 gives 103 intensity levels; dividing by 3, 86.
  TimeOpenCV(state, OilPaintJob(brush), threads,
             [&] { cv::xphoto::oilPainting(source, result, brush, 3, cv::COLOR_RGB2GRAY); });
}

void OpenCVBarrel(benchmark::State& state, bool interpolate, bool computeMap, int threads) {
  const cv::Mat& source = ImageMat(4, true);
  cv::Mat mapX, mapY, result;
  cv::setNumThreads(threads);
  ComputeBarrelMap(mapX, mapY, 0.4);
  const int interpolation = interpolate ? cv::INTER_LINEAR : cv::INTER_NEAREST;
  TimeOpenCV(state, BarrelJob(interpolate), threads, [&] {
    if (computeMap) ComputeBarrelMap(mapX, mapY, 0.4);
    cv::remap(source, result, mapX, mapY, interpolation, cv::BORDER_CONSTANT);
  });
}

// warpPolar's forward direction unrolls a circular picture (rawfx's polar to
// rectangular); its inverse map wraps one (rectangular to polar).
void OpenCVPolar(benchmark::State& state, bool toPolar, int threads) {
  const cv::Mat& source = ImageMat(4, true);
  cv::Mat result;
  const cv::Point2f centre((kSide - 1) * 0.5f, (kSide - 1) * 0.5f);
  const int flags = cv::INTER_LINEAR | cv::WARP_FILL_OUTLIERS | cv::WARP_POLAR_LINEAR |
                    (toPolar ? cv::WARP_INVERSE_MAP : 0);
  TimeOpenCV(state, PolarJob(toPolar), threads, [&] {
    cv::warpPolar(source, result, cv::Size(static_cast<int>(kSide), static_cast<int>(kSide)), centre, kSide * 0.5,
                  flags);
  });
}

// ---- ImageMagick -------------------------------------------------------------------------

// Runs a program with arguments, its output discarded; true when it exits with 0.
bool RunProcess(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Debian's ImageMagick 6 binary by its own name first: a `convert` earlier on
// the PATH may be some other program.
const std::string& ImageMagickConvert() {
  static const std::string found = [] {
    for (const char* candidate : {"convert-im6.q16", "magick", "convert"}) {
      const std::string command = std::string(candidate) + " -version 2>/dev/null";
      FILE* pipe = popen(command.c_str(), "r");
      if (!pipe) continue;
      char line[256] = {};
      const bool named = std::fgets(line, sizeof line, pipe) && std::string(line).find("ImageMagick") != std::string::npos;
      pclose(pipe);
      if (named) return std::string(candidate);
    }
    return std::string();
  }();
  return found;
}

// A directory for the image files, removed when the program ends.
struct ScratchDirectory {
  std::filesystem::path path;
  ScratchDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "rawfx-peers-XXXXXX").string();
    if (mkdtemp(name.data())) path = name;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
};

ScratchDirectory& Scratch() {
  static ScratchDirectory scratch;
  return scratch;
}

// The image as a MIFF file, made once (untimed) from a PAM file written here.
std::string ImageFile(int channels, bool alpha) {
  const std::filesystem::path miff = Scratch().path / ("image" + std::to_string(channels) + ".miff");
  if (std::filesystem::exists(miff)) return miff.string();
  const std::filesystem::path pam = Scratch().path / ("image" + std::to_string(channels) + ".pam");
  const cv::Mat& image = ImageMat(channels, alpha);
  std::ofstream out(pam, std::ios::binary);
  out << "P7\nWIDTH " << kSide << "\nHEIGHT " << kSide << "\nDEPTH " << channels
      << "\nMAXVAL 255\nTUPLTYPE " << (alpha ? "RGB_ALPHA" : "RGB") << "\nENDHDR\n";
  for (int y = 0; y < image.rows; ++y)
    out.write(reinterpret_cast<const char*>(image.ptr(y)), static_cast<std::streamsize>(kSide * channels));
  out.close();
  if (!RunProcess({ImageMagickConvert(), pam.string(), miff.string()})) return std::string();
  return miff.string();
}

// Times `convert image <operation...> result` with ImageMagick limited to threads.
void ImageMagick(benchmark::State& state, const Job& job, std::vector<std::string> operation, int threads) {
  const std::string& convert = ImageMagickConvert();
  const std::string input = convert.empty() ? std::string() : ImageFile(job.channels, job.alpha);
  if (input.empty()) {
    state.SkipWithError("ImageMagick's convert is not installed");
    return;
  }
  std::vector<std::string> command = {convert, "-limit", "thread", std::to_string(threads), input};
  command.insert(command.end(), operation.begin(), operation.end());
  command.push_back((Scratch().path / "result.miff").string());
  TimedApply& rawfx = RawfxApplyFor(job, threads);
  Turns turns;
  for (auto _ : state) {
    const auto start = Clock::now();
    const bool ok = RunProcess(command);
    const double elapsed = Seconds(Clock::now() - start);
    if (!ok) {
      state.SkipWithError("convert failed");
      return;
    }
    state.SetIterationTime(elapsed);
    turns.peer.push_back(elapsed);
    RawfxTurn(state, rawfx, turns);
  }
  Report(state, turns);
}

void RegisterAll() {
  const int cores = static_cast<int>(std::thread::hardware_concurrency());
  std::vector<int> threadCounts = {1};
  if (cores > 1) threadCounts.push_back(cores);
  const auto add = [](const std::string& name, int threads, auto&& run, bool manualTime = false) {
    auto* b = benchmark::RegisterBenchmark((name + "/threads:" + std::to_string(threads)).c_str(),
                                           [=](benchmark::State& s) { run(s); });
    b->Unit(benchmark::kMillisecond);
    if (manualTime)
      b->UseManualTime()->Iterations(2);  // a process run takes seconds
    else
      b->UseRealTime()->MinTime(1.0);
  };
  for (int threads : threadCounts) {
    for (int brush : {2, 5}) {
      const Job job = OilPaintJob(brush);
      add("opencv_xphoto_oilPainting/size:" + std::to_string(brush), threads,
          [=](benchmark::State& s) { OpenCVOilPaint(s, brush, threads); });
      add("imagemagick_paint/" + std::to_string(brush), threads,
          [=](benchmark::State& s) { ImageMagick(s, job, {"-paint", std::to_string(brush)}, threads); }, true);
    }
    for (bool interpolate : {false, true}) {
      const Job job = BarrelJob(interpolate);
      const std::string mode = interpolate ? "bilinear" : "nearest";
      add("opencv_remap_" + mode + "/map_ready", threads,
          [=](benchmark::State& s) { OpenCVBarrel(s, interpolate, false, threads); });
      add("opencv_remap_" + mode + "/map_computed", threads,
          [=](benchmark::State& s) { OpenCVBarrel(s, interpolate, true, threads); });
    }
    add("imagemagick_distort_barrel", threads,
        [=](benchmark::State& s) { ImageMagick(s, BarrelJob(true), {"-distort", "Barrel", "0.0 0.0 0.4"}, threads); },
        true);
    for (bool toPolar : {true, false}) {
      const Job job = PolarJob(toPolar);
      add(std::string("opencv_warpPolar/") + (toPolar ? "inverse" : "forward"), threads,
          [=](benchmark::State& s) { OpenCVPolar(s, toPolar, threads); });
      add(std::string("imagemagick_distort_") + (toPolar ? "polar" : "depolar"), threads,
          [=](benchmark::State& s) {
            ImageMagick(s, job, {"-distort", toPolar ? "Polar" : "DePolar", "0"}, threads);
          },
          true);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
