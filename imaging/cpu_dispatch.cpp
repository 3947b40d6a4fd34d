#include "imaging/cpu_dispatch.h"

#include <atomic>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace rawfx::cpu {
namespace {

std::atomic<bool> gForceScalar{false};

#if defined(__x86_64__) || defined(__i386__)
// The AVX state (XMM and YMM registers) is saved by the operating system only
// when it says so in XCR0; a CPU that has AVX2 under an OS that does not save
// the upper halves must not run AVX code.
bool OsSavesAvxState() {
  uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
  constexpr uint32_t kOsxsave = 1u << 27, kAvx = 1u << 28;
  if ((ecx & (kOsxsave | kAvx)) != (kOsxsave | kAvx)) return false;
  uint32_t xcr0Low = 0, xcr0High = 0;
  __asm__("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
  constexpr uint32_t kXmmAndYmmState = 0x6;
  return (xcr0Low & kXmmAndYmmState) == kXmmAndYmmState;
}

// Read with cpuid rather than the compiler's CPU-model built-ins, which need
// its runtime library; a loadable bundle links none.
bool DetectAVX2() {
  uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!OsSavesAvxState() || !__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
  constexpr uint32_t kAvx2 = 1u << 5;
  return (ebx & kAvx2) != 0;
}
#else
bool DetectAVX2() { return false; }
#endif

}  // namespace

bool HasAVX2() {
  static const bool available = DetectAVX2();
  return available;
}

bool UseAVX2() { return HasAVX2() && !gForceScalar.load(std::memory_order_relaxed); }

void ForceScalar(bool scalar) { gForceScalar.store(scalar, std::memory_order_relaxed); }

}  // namespace rawfx::cpu
