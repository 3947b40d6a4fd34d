#include "tools/rawfx/interrupt.h"

#include <signal.h>

#include <atomic>

namespace rawfx::tool {
namespace {

// A lock-free atomic is safe to store from a signal handler and to read from any thread.
std::atomic<bool> gInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnInterrupt(int) { gInterrupted.store(true, std::memory_order_relaxed); }

}  // namespace

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
}

bool Interrupted() { return gInterrupted.load(std::memory_order_relaxed); }

}  // namespace rawfx::tool
