// Compiles a kernel's text once for every path the module dispatches to: the
// file that RAWFX_PATH_TEXT names is included with RAWFX_SIMD_PATH defined as
// portable, then (on x86-64) as avx2. Include this inside an unnamed namespace,
// right after defining RAWFX_PATH_TEXT; it is meant to be included once per
// kernel file, so it has no include guard.
#ifndef RAWFX_PATH_TEXT
#error "define RAWFX_PATH_TEXT as the kernel text to compile for every path"
#endif

#define RAWFX_SIMD_PATH portable
#include RAWFX_PATH_TEXT
#undef RAWFX_SIMD_PATH
#if RAWFX_SIMD_X86
#define RAWFX_SIMD_PATH avx2
#include RAWFX_PATH_TEXT
#undef RAWFX_SIMD_PATH
#endif
#undef RAWFX_PATH_TEXT
