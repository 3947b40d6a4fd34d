// A one-line progress bar on standard error, redrawn in place:
//   oil paint [##########..........]  50%  120/240 rows  1.3 s
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace rawfx::tool {

class ProgressBar {
 public:
  // A disabled bar draws nothing; the tool enables it only when standard error is a
  // terminal and --quiet is not given.
  ProgressBar(bool enabled, std::string label, std::FILE* out = stderr);
  ~ProgressBar();  // clears the line if anything was drawn

  // Rows done of total; safe to call from any thread. Redraws at most every 100 ms,
  // and always on reaching the total.
  void update(int64_t done, int64_t total);
  void finish();

  // The text of one drawing, for tests.
  static std::string Render(const std::string& label, int64_t done, int64_t total, double seconds);

 private:
  bool enabled_;
  std::string label_;
  std::FILE* out_;
  std::mutex mutex_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_, lastDraw_;
};

}  // namespace rawfx::tool
