#include "tools/rawfx/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace rawfx::tool {
namespace {

constexpr int kBarWidth = 24, kMinBarWidth = 6;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

// Columns of the terminal out writes to; COLUMNS, then 80, when it cannot be asked.
int TerminalWidth(std::FILE* out) {
  winsize size{};
  if (ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  const int fromEnvironment = columns ? std::atoi(columns) : 0;
  return fromEnvironment > 0 ? fromEnvironment : 80;
}

double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

ProgressBar::ProgressBar(bool enabled, std::string label, std::FILE* out)
    : enabled_(enabled), label_(std::move(label)), out_(out), phaseStart_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

// The label, then the bar when there is room for it, then the count.
std::string ProgressBar::Render(const std::string& label, int64_t done, int64_t total, double seconds, int width) {
  const int64_t clamped = std::clamp<int64_t>(done, 0, std::max<int64_t>(total, 0));
  char tail[96];
  if (total > 0) {
    std::snprintf(tail, sizeof tail, " %3d%%  %lld/%lld rows  %.1f s", static_cast<int>(clamped * 100 / total),
                  static_cast<long long>(clamped), static_cast<long long>(total), seconds);
  } else {
    std::snprintf(tail, sizeof tail, "  %.1f s", seconds);
  }
  const int room = width - static_cast<int>(label.size() + std::char_traits<char>::length(tail)) - 3;
  std::string bar;
  if (total > 0 && room >= kMinBarWidth) {
    const int barWidth = std::min(kBarWidth, room);
    const int filled = static_cast<int>(clamped * barWidth / total);
    bar = " [" + std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(barWidth - filled), '.') +
          "]";
  }
  std::string line = label + bar + tail;
  const size_t fits = static_cast<size_t>(std::max(width, 0));
  if (line.size() <= fits) return line;
  // Too long even without the bar: the label loses its middle (the file's name
  // goes before the counter and the phase), then, if need be, its start.
  const size_t over = line.size() - fits + 3;
  if (label.size() >= over + 8) {
    const size_t keep = (label.size() - over) / 2;
    line = label.substr(0, keep) + "..." + label.substr(label.size() - (label.size() - over - keep)) + tail;
  }
  if (line.size() > fits) line.erase(0, line.size() - fits);
  return line;
}

void ProgressBar::phase(std::string name, int64_t total) {
  const std::lock_guard<std::mutex> lock(mutex_);
  endPhaseLocked();
  phase_ = std::move(name);
  done_ = 0;
  total_ = total;
  phaseStart_ = std::chrono::steady_clock::now();
  drawLocked(true);
}

void ProgressBar::advance(int64_t n) {
  const std::lock_guard<std::mutex> lock(mutex_);
  done_ += n;
  drawLocked(false);
}

void ProgressBar::update(int64_t done, int64_t total) {
  const std::lock_guard<std::mutex> lock(mutex_);
  done_ = done;
  total_ = total;
  drawLocked(false);
}

void ProgressBar::drawLocked(bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && drawn_ && now - lastDraw_ < kRedrawInterval && done_ < total_) return;
  lastDraw_ = now;
  std::string label = label_.empty() ? phase_ : label_ + "  " + phase_;
  // One column stays free: a line that fills the last column wraps on some terminals.
  const std::string line = Render(label, done_, total_, Since(phaseStart_), TerminalWidth(out_) - 1);
  std::fprintf(out_, "\r%s\033[K", line.c_str());
  std::fflush(out_);
  drawn_ = true;
}

void ProgressBar::endPhaseLocked() {
  if (!phase_.empty()) timings_.emplace_back(phase_, Since(phaseStart_));
  phase_.clear();
}

void ProgressBar::clearLocked() {
  if (!drawn_) return;
  std::fprintf(out_, "\r\033[K");
  std::fflush(out_);
  drawn_ = false;
}

void ProgressBar::clearLine() {
  const std::lock_guard<std::mutex> lock(mutex_);
  clearLocked();
}

void ProgressBar::finish() {
  const std::lock_guard<std::mutex> lock(mutex_);
  endPhaseLocked();
  clearLocked();
}

std::vector<std::pair<std::string, double>> ProgressBar::timings() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return timings_;
}

}  // namespace rawfx::tool
