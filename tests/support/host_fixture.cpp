#include "support/host_fixture.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <numeric>
#include <tuple>
#include <utility>

#include "plugin/host_binding.h"

namespace rawfx::test {

void HostTest::TearDown() {
  host.WaitForAsync();
  EXPECT_EQ(host.LiveObjectClasses(), std::vector<std::string>{}) << "objects left alive";
  EXPECT_EQ(host.StrayLockCalls(), 0) << "locks or unlocks of objects that were not alive";
}

::testing::AssertionResult SamePixels(rawfx::host::Host& host, REALobject a, REALobject b) {
  const rawfx::host::BitmapView va = host.Bitmap(a), vb = host.Bitmap(b);
  if (std::tie(va.width, va.height, va.format, va.bitsPerChannel) !=
      std::tie(vb.width, vb.height, vb.format, vb.bitsPerChannel))
    return ::testing::AssertionFailure() << "bitmaps differ in size, format or depth";
  for (int64_t y = 0; y < va.height; ++y)
    if (!std::equal(va.row(y), va.row(y) + va.width * va.pixelBytes, vb.row(y)))
      return ::testing::AssertionFailure() << "first difference in row " << y;
  return ::testing::AssertionSuccess();
}

void InFreshProcess(const std::function<void(ScriptedHost&)>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {  // the child reports through its exit status; its failures print here
    static ScriptedHost host;
    gResolver = [](const char* name) -> void* {
      host.asked.emplace_back(name);
      const auto found = host.known.find(name);
      return found == host.known.end() ? nullptr : found->second;
    };
    body(host);
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed, crashed or exited early";
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
  const host::BitmapView view = host.Bitmap(bitmap);
  uint32_t state = seed * 2654435761u + 0x9E3779B9u;
  if (state == 0) state = 1;
  for (int64_t y = 0; y < view.height; ++y)
    for (int64_t i = 0; i < view.width * view.pixelBytes; ++i) {
      state ^= state << 13;  // xorshift32: small, fast and the same everywhere
      state ^= state >> 17;
      state ^= state << 5;
      view.row(y)[i] = uint8_t(state >> 24);
    }
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
  auto& [calls, kept] = log.calls_[target];
  ++calls;
  if (result) kept = (log.host_.Lock(result), result);
  if (log.releaseTarget) log.host_.Unlock(target);
}

int CompletionLog::Calls(REALobject target) const {
  std::lock_guard lock(mutex_);
  return calls_.count(target) ? calls_.at(target).first : 0;
}

int CompletionLog::TotalCalls() const {
  std::lock_guard lock(mutex_);
  return std::accumulate(calls_.begin(), calls_.end(), 0, [](int sum, const auto& c) { return sum + c.second.first; });
}

REALobject CompletionLog::Take(REALobject target) {
  std::lock_guard lock(mutex_);
  return calls_.count(target) ? std::exchange(calls_[target].second, nullptr) : nullptr;
}

void CompletionLog::Clear() {
  std::lock_guard lock(mutex_);
  for (const auto& [target, call] : calls_) host_.Unlock(call.second);
  calls_.clear();
}

void AsyncHostTest::TearDown() {
  host.WaitForAsync();
  log.Clear();
  HostTest::TearDown();
}

REALobject RunEffect(host::Host& host, REALobject effect, Method method, REALobject source, CompletionLog& log) {
  if (method == Method::Apply) return host.Call<REALobject>(effect, kApply, source);
  if (method == Method::InPlace) return host.Call<void>(effect, kApplyInPlace, source), nullptr;
  const int before = log.TotalCalls();
  host.Call<void>(effect, kApplyAsync, source, REALobject{nullptr}, log.method());
  host.WaitForAsync();
  EXPECT_EQ(log.TotalCalls() - before, host.LastError(effect) == 0 ? 1 : 0)
      << "a run that started completes once, a refused one never";
  return log.Take(nullptr);
}

}  // namespace rawfx::test::fault
