#include "support/fault_checks.h"

#include <gtest/gtest.h>

#include <string>

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
  int total = 0;
  for (const auto& [target, calls] : calls_) total += calls;
  return total;
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
