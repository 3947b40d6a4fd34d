#include "imaging/cpu_dispatch.h"

#include <atomic>

namespace rawfx::cpu {
namespace {

std::atomic<bool> gForceScalar{false};

bool DetectAVX2() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

}  // namespace

bool HasAVX2() {
  static const bool available = DetectAVX2();
  return available;
}

bool UseAVX2() { return HasAVX2() && !gForceScalar.load(std::memory_order_relaxed); }

void ForceScalar(bool scalar) { gForceScalar.store(scalar, std::memory_order_relaxed); }

}  // namespace rawfx::cpu
