// Heap blocks for kernel scratch, from the operating system's memory manager.
//
// NewPtr and DisposePtr are the plug-in's only allocation calls outside the
// asynchronous parameter blocks. On macOS they are the system's own C functions
// (CoreServices), bound when the host application loads the bundle. Elsewhere
// memory.cpp defines them over malloc, with two test hooks in rawfx::memory: a
// way to make allocations fail on demand and a count of blocks not yet given
// back. Production code never calls the hooks; like every symbol of the plug-in
// they are hidden, so the loadable module does not export them, and each image
// that links the plug-in's objects (module or static library) has its own copy.
#pragma once

#include <cstdint>

#if defined(__APPLE__)
#define RAWFX_SYSTEM_FUNCTION __attribute__((visibility("default")))
#else
#define RAWFX_SYSTEM_FUNCTION
#endif

extern "C" {

// A new block of byteCount bytes, or nil when none can be had (a negative
// byteCount, an exhausted allocator or a failure injected by a test).
RAWFX_SYSTEM_FUNCTION void* NewPtr(long byteCount);

// Gives back a block that NewPtr returned; nil is accepted and ignored.
RAWFX_SYSTEM_FUNCTION void DisposePtr(void* block);

}  // extern "C"

namespace rawfx::memory {

// Lets the next `count` calls of NewPtr succeed and makes every later call
// return nil, until the next call of this function. A negative count lifts
// the limit (the state the process starts in).
void FailAllocationsAfter(int64_t count);

// Blocks returned by NewPtr and not yet given back with DisposePtr.
int64_t LiveBlockCount();

}  // namespace rawfx::memory
