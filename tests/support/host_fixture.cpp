#include "support/host_fixture.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <numeric>
#include <tuple>

#include "plugin/host_binding.h"

namespace rawfx::test {

namespace {

// xorshift32: small, fast and the same everywhere.
uint32_t NextRandom(uint32_t& state) {
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

ScriptedHost* gScripted = nullptr;

}  // namespace

void HostTest::TearDown() {
  host.WaitForAsync();
  std::string alive;
  for (const std::string& name : host.LiveObjectClasses()) alive += name + " ";
  EXPECT_EQ(host.LiveObjectCount(), 0u) << "objects left alive: " << alive;
  EXPECT_EQ(host.StrayLockCalls(), 0) << "locks or unlocks of objects that were not alive";
}

void FillPattern(rawfx::host::Host& host, REALobject bitmap, uint32_t seed) {
  const rawfx::host::BitmapView view = host.Bitmap(bitmap);
  uint32_t state = seed * 2654435761u + 0x9E3779B9u;
  if (state == 0) state = 1;
  for (int64_t y = 0; y < view.height; ++y)
    for (int64_t i = 0; i < view.width * view.pixelBytes; ++i) view.row(y)[i] = uint8_t(NextRandom(state) >> 24);
}

::testing::AssertionResult SamePixels(rawfx::host::Host& host, REALobject a, REALobject b) {
  const rawfx::host::BitmapView va = host.Bitmap(a), vb = host.Bitmap(b);
  if (std::tie(va.width, va.height, va.format, va.bitsPerChannel) !=
      std::tie(vb.width, vb.height, vb.format, vb.bitsPerChannel))
    return ::testing::AssertionFailure() << "bitmaps differ in shape: " << va.width << "x" << va.height << " format "
                                         << va.format << "/" << va.bitsPerChannel << " bits vs " << vb.width << "x"
                                         << vb.height << " format " << vb.format << "/" << vb.bitsPerChannel << " bits";
  for (int64_t y = 0; y < va.height; ++y)
    for (int64_t i = 0; i < va.width * va.pixelBytes; ++i)
      if (va.row(y)[i] != vb.row(y)[i])
        return ::testing::AssertionFailure() << "first difference at row " << y << ", pixel " << i / va.pixelBytes
                                             << ", byte " << i % va.pixelBytes << ": " << int(va.row(y)[i]) << " vs "
                                             << int(vb.row(y)[i]);
  return ::testing::AssertionSuccess();
}

std::string RunInChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "(no pipe)";
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string report = body();
    for (size_t sent = 0; sent < report.size();) {
      const ssize_t n = write(fds[1], report.data() + sent, report.size() - sent);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    std::fflush(nullptr);
    _exit(0);
  }
  close(fds[1]);
  std::string output;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) output.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? output : output + "(child died)";
}

void InFreshProcess(const std::function<void(ScriptedHost&)>& body) {
  EXPECT_EQ(RunInChild([&] {
              ScriptedHost host;
              gScripted = &host;
              gResolver = [](const char* name) -> void* {
                gScripted->asked.emplace_back(name);
                const auto found = gScripted->known.find(name);
                return found == gScripted->known.end() ? nullptr : found->second;
              };
              body(host);
              return std::string(::testing::Test::HasFailure() ? "failed" : "passed");
            }),
            "passed");
}

}  // namespace rawfx::test

namespace rawfx::test::fault {

REALobject NewEffect(host::Host& host, const char* className) {
  REALobject effect = host.New(className);
  EXPECT_NE(effect, nullptr) << className;
  if (std::string(className) == kInterlace) host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
  if (std::string(className) == kBarrel) {
    host.Set<double>(effect, "Distortion", 0.4);
    host.Set<double>(effect, "HorizontalKeystone", 0.1);
  }
  return effect;
}

REALobject NewPattern(host::Host& host, int64_t width, int64_t height, int64_t format, int bits, uint32_t seed,
                      int64_t rowPadding) {
  REALobject bitmap = host.NewBitmap(width, height, format, bits, rowPadding);
  FillPattern(host, bitmap, seed);
  return bitmap;
}

std::vector<uint8_t> Pixels(host::Host& host, REALobject bitmap) {
  const host::BitmapView view = host.Bitmap(bitmap);
  return {view.pixels, view.pixels + view.rowBytes * view.height};
}

std::vector<std::vector<uint8_t>> Rows(host::Host& host, REALobject bitmap) {
  const host::BitmapView view = host.Bitmap(bitmap);
  std::vector<std::vector<uint8_t>> rows;
  for (int64_t y = 0; y < view.height; ++y) rows.emplace_back(view.row(y), view.row(y) + view.width * view.pixelBytes);
  return rows;
}

int64_t& LastErrorField(host::Host& host, REALobject effect) {
  return static_cast<MPImageFilterData*>(host.ClassData(effect, "MPImageFilterRaw"))->lastError;
}

void CompletionLog::Complete(REALobject target, REALobject result) {
  CompletionLog& log = *active_;
  std::lock_guard lock(log.mutex_);
  ++log.calls_[target];
  if (result) {
    log.host_.Lock(result);
    log.results_[target] = result;
  }
  if (log.releaseTarget) log.host_.Unlock(target);
}

int CompletionLog::Calls(REALobject target) const {
  std::lock_guard lock(mutex_);
  const auto found = calls_.find(target);
  return found == calls_.end() ? 0 : found->second;
}

int CompletionLog::TotalCalls() const {
  std::lock_guard lock(mutex_);
  return std::accumulate(calls_.begin(), calls_.end(), 0, [](int sum, const auto& call) { return sum + call.second; });
}

REALobject CompletionLog::Take(REALobject target) {
  std::lock_guard lock(mutex_);
  const auto kept = results_.extract(target);
  return kept ? kept.mapped() : nullptr;
}

void CompletionLog::Clear() {
  std::lock_guard lock(mutex_);
  for (const auto& [target, result] : results_) host_.Unlock(result);
  results_.clear();
  calls_.clear();
}

void AsyncHostTest::TearDown() {
  host.WaitForAsync();
  log.Clear();
  HostTest::TearDown();
}

REALobject RunEffect(host::Host& host, REALobject effect, Method method, REALobject source, CompletionLog& log) {
  switch (method) {
    case Method::Apply: return host.Call<REALobject>(effect, kApply, source);
    case Method::InPlace: host.Call<void>(effect, kApplyInPlace, source); return nullptr;
    case Method::Async: break;
  }
  const int before = log.TotalCalls();
  host.Call<void>(effect, kApplyAsync, source, REALobject{nullptr}, log.method());
  host.WaitForAsync();
  EXPECT_EQ(log.TotalCalls() - before, host.LastError(effect) == 0 ? 1 : 0)
      << "a run that started completes once, a refused one never";
  return log.Take(nullptr);
}

}  // namespace rawfx::test::fault
