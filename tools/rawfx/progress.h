// A one-line progress bar on standard error, redrawn in place, over the phases of
// a run (reading, the effect, writing), each counted in rows:
//   [2/3] b.png  oil paint [##########..........]  50%  120/240 rows  1.3 s
// The line is cut to the terminal's width, so it never wraps. The bar also times
// each phase, for --verbose.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace rawfx::tool {

class ProgressBar {
 public:
  // A disabled bar draws nothing (but still times the phases); the tool enables it
  // only when standard error is a terminal and --quiet is not given. The label
  // comes first on the line ("[2/3] b.png" in a batch; may be empty).
  ProgressBar(bool enabled, std::string label, std::FILE* out = stderr);
  ~ProgressBar();  // clears the line if anything was drawn

  // Starts a phase of total rows (0 when not known yet), ending the one before.
  void phase(std::string name, int64_t total);
  // Rows done in the current phase: n more, or done of total in all (for the engine's
  // observer, and for readers and writers that learn the total as they go). Safe to
  // call from any thread; redraws at most every 100 ms, and always on reaching the total.
  void advance(int64_t n = 1);
  void update(int64_t done, int64_t total);
  // Clears the line so that a message can be printed; the next drawing brings it back.
  void clearLine();
  // Ends the last phase and clears the line.
  void finish();

  // Each phase that ended, with its seconds.
  std::vector<std::pair<std::string, double>> timings() const;

  // The text of one drawing, at most width characters, for tests.
  static std::string Render(const std::string& label, int64_t done, int64_t total, double seconds, int width = 80);

 private:
  void drawLocked(bool force);
  void clearLocked();
  void endPhaseLocked();

  bool enabled_;
  std::string label_;
  std::FILE* out_;
  mutable std::mutex mutex_;
  bool drawn_ = false;
  std::string phase_;
  int64_t done_ = 0, total_ = 0;
  std::chrono::steady_clock::time_point phaseStart_, lastDraw_;
  std::vector<std::pair<std::string, double>> timings_;
};

}  // namespace rawfx::tool
