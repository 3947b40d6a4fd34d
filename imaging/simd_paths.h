// Compiles a kernel's text once for every path the module dispatches to: the
// file that RAWFX_PATH_TEXT names is included with RAWFX_SIMD_PATH defined as
// portable, then (on x86-64) as avx2 and, when RAWFX_PATH_WIDE is defined too, as
// avx512. Eight lanes pay where the work is double arithmetic per pixel (the
// warps); the byte-wise texts keep four, and their avx512 name is the avx2 form.
// Include this inside an unnamed namespace, right after defining RAWFX_PATH_TEXT;
// it is meant to be included once per kernel file, so it has no include guard.
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
#ifdef RAWFX_PATH_WIDE
#define RAWFX_SIMD_PATH avx512
#include RAWFX_PATH_TEXT
#undef RAWFX_SIMD_PATH
#else
namespace avx512 = avx2;
#endif
#endif
#undef RAWFX_PATH_TEXT
#undef RAWFX_PATH_WIDE
