#include "imaging/cpu_dispatch.h"

#include <atomic>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif
#if defined(__APPLE__)
#include <sys/sysctl.h>
#endif

namespace rawfx::cpu {
namespace {

std::atomic<Path> gWidest{Path::AVX512};

#if defined(__x86_64__) || defined(__i386__)
struct Registers {
  uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
};

// The register state the operating system saves, from XCR0; zero when the OS
// does not say (no OSXSAVE) or the CPU has no AVX.
uint64_t SavedState() {
  Registers r;
  if (!__get_cpuid(1, &r.eax, &r.ebx, &r.ecx, &r.edx)) return 0;
  constexpr uint32_t kOsxsave = 1u << 27, kAvx = 1u << 28;
  if ((r.ecx & (kOsxsave | kAvx)) != (kOsxsave | kAvx)) return 0;
  uint32_t xcr0Low = 0, xcr0High = 0;
  __asm__("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
  return uint64_t{xcr0High} << 32 | xcr0Low;
}

uint32_t BasicFeatures() {
  Registers r;
  return __get_cpuid(1, &r.eax, &r.ebx, &r.ecx, &r.edx) ? r.ecx : 0;
}

uint32_t ExtendedFeatures() {
  Registers r;
  return __get_cpuid_count(7, 0, &r.eax, &r.ebx, &r.ecx, &r.edx) ? r.ebx : 0;
}

// Read with cpuid rather than the compiler's CPU-model built-ins, which need
// its runtime library; a loadable bundle links none. A CPU that has AVX2 under
// an OS that does not save the upper register halves must not run AVX code.
// The AVX2 path also uses fused multiply-adds, which AVX2 processors have too.
bool DetectAVX2() {
  constexpr uint64_t kXmmAndYmmState = 0x6;
  constexpr uint32_t kAvx2 = 1u << 5, kFma = 1u << 12;
  return (SavedState() & kXmmAndYmmState) == kXmmAndYmmState && (ExtendedFeatures() & kAvx2) != 0 &&
         (BasicFeatures() & kFma) != 0;
}

// macOS saves the AVX-512 registers only once a thread first uses them, so
// XCR0 does not show them beforehand; the kernel's own answer is asked instead.
bool OsSavesAvx512State() {
#if defined(__APPLE__)
  int enabled = 0;
  size_t size = sizeof enabled;
  return sysctlbyname("hw.optional.avx512f", &enabled, &size, nullptr, 0) == 0 && enabled != 0;
#else
  constexpr uint64_t kOpmaskAndZmmState = 0xE6;
  return (SavedState() & kOpmaskAndZmmState) == kOpmaskAndZmmState;
#endif
}

bool DetectAVX512() {
  constexpr uint32_t kF = 1u << 16, kDq = 1u << 17, kBw = 1u << 30, kVl = 1u << 31;
  constexpr uint32_t kNeeded = kF | kDq | kBw | kVl;
  return HasAVX2() && (ExtendedFeatures() & kNeeded) == kNeeded && OsSavesAvx512State();
}
#else
bool DetectAVX2() { return false; }
bool DetectAVX512() { return false; }
#endif

bool Allows(Path path) { return gWidest.load(std::memory_order_relaxed) >= path; }

}  // namespace

bool HasAVX2() {
  static const bool available = DetectAVX2();
  return available;
}

bool HasAVX512() {
  static const bool available = DetectAVX512();
  return available;
}

bool UseAVX2() { return HasAVX2() && Allows(Path::AVX2); }

bool UseAVX512() { return HasAVX512() && Allows(Path::AVX512); }

void LimitPaths(Path widest) { gWidest.store(widest, std::memory_order_relaxed); }

}  // namespace rawfx::cpu
