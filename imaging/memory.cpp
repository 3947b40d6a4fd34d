#include "imaging/memory.h"

// macOS supplies NewPtr and DisposePtr; this layer is for every other system.
#if !defined(__APPLE__)

#include <atomic>
#include <cstdlib>

namespace {

// Allocations still allowed before injected failures start; negative: no limit.
// Kernels allocate from several engine threads at once, hence the atomics.
std::atomic<int64_t> gAllocationsLeft{-1};
std::atomic<int64_t> gLiveBlocks{0};

// Uses up one allowed allocation; false once a test's limit is reached.
bool TakeAllocationTurn() {
  int64_t left = gAllocationsLeft.load(std::memory_order_relaxed);
  while (left > 0) {
    if (gAllocationsLeft.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return true;
  }
  return left < 0;
}

}  // namespace

void* NewPtr(long byteCount) {
  if (byteCount < 0 || !TakeAllocationTurn()) return nullptr;
  void* block = std::malloc(static_cast<size_t>(byteCount));
  if (block) gLiveBlocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void DisposePtr(void* block) {
  if (!block) return;
  gLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

namespace rawfx::memory {

void FailAllocationsAfter(int64_t count) { gAllocationsLeft.store(count, std::memory_order_relaxed); }

int64_t LiveBlockCount() { return gLiveBlocks.load(std::memory_order_relaxed); }

}  // namespace rawfx::memory

#endif  // !__APPLE__
