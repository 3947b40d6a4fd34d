#include "tools/rawfx/progress.h"

#include <algorithm>

namespace rawfx::tool {
namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

}  // namespace

ProgressBar::ProgressBar(bool enabled, std::string label, std::FILE* out)
    : enabled_(enabled), label_(std::move(label)), out_(out), start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

std::string ProgressBar::Render(const std::string& label, int64_t done, int64_t total, double seconds) {
  const int64_t clamped = std::clamp<int64_t>(done, 0, std::max<int64_t>(total, 0));
  const int percent = total > 0 ? static_cast<int>(clamped * 100 / total) : 0;
  const int filled = total > 0 ? static_cast<int>(clamped * kBarWidth / total) : 0;
  char text[160];
  std::snprintf(text, sizeof text, "%s [%s%s] %3d%%  %lld/%lld rows  %.1f s", label.c_str(),
                std::string(static_cast<size_t>(filled), '#').c_str(),
                std::string(static_cast<size_t>(kBarWidth - filled), '.').c_str(), percent,
                static_cast<long long>(clamped), static_cast<long long>(total), seconds);
  return text;
}

void ProgressBar::update(int64_t done, int64_t total) {
  if (!enabled_) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - lastDraw_ < kRedrawInterval && done < total) return;
  lastDraw_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  std::fprintf(out_, "\r%s\033[K", Render(label_, done, total, seconds).c_str());
  std::fflush(out_);
  drawn_ = true;
}

void ProgressBar::finish() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!drawn_) return;
  std::fprintf(out_, "\r\033[K");
  std::fflush(out_);
  drawn_ = false;
}

}  // namespace rawfx::tool
