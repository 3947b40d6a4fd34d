// How the kernels use the instruction sets the module dispatches to: the CPU
// check, the target attributes, one lane set per path and the sample moves.
//
// A kernel's arithmetic is written once, as a text over a lane set, and that
// text is compiled once per path: a kernel file has imaging/simd_paths.h include
// it with RAWFX_SIMD_PATH defined as portable, then (on x86-64) as avx2 and, for
// the texts that have a wide form (the warps), as avx512. The text opens
// `namespace RAWFX_SIMD_PATH`, uses `rawfx::simd::RAWFX_SIMD_PATH` (the lane
// set) and marks its functions RAWFX_SIMD_FN (inlined helpers) or
// RAWFX_SIMD_ENTRY (what the dispatch picks), which carry the path's target
// attribute. RAWFX_PICK_PATH(name) then picks the instance for the running CPU,
// once per part.
//
// Every lane operation gives in each lane exactly the double its scalar
// counterpart gives: +, -, *, / and sqrt are correctly rounded in vectors as
// in scalar code, floor and trunc are exact, comparisons are ordered (false
// for NaN), and nothing is contracted into fused operations (-ffp-contract=off);
// the one use of fused instructions, Divide, gives the correctly rounded
// quotient as / does. So one text gives the same bits on every path.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "imaging/cpu_dispatch.h"

// RAWFX_PORTABLE_ONLY builds the portable path alone, as on other CPUs.
#if defined(__x86_64__) && !defined(RAWFX_PORTABLE_ONLY)
#define RAWFX_SIMD_X86 1
// GCC 12 takes the deliberately undefined vectors inside its AVX-512 headers for
// uninitialised values once they are inlined (fixed in GCC 13).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#else
#define RAWFX_SIMD_X86 0
#endif

#define RAWFX_ALWAYS_INLINE __attribute__((always_inline)) inline
#define RAWFX_TARGET_AVX2 __attribute__((target("avx2,fma")))
#define RAWFX_TARGET_AVX512 __attribute__((target("avx2,fma,avx512f,avx512vl,avx512bw,avx512dq")))

#define RAWFX_SIMD_CAT2(a, b) a##b
#define RAWFX_SIMD_CAT(a, b) RAWFX_SIMD_CAT2(a, b)
#define RAWFX_SIMD_FN_portable RAWFX_ALWAYS_INLINE
#define RAWFX_SIMD_FN_avx2 RAWFX_ALWAYS_INLINE RAWFX_TARGET_AVX2
#define RAWFX_SIMD_ENTRY_portable
#define RAWFX_SIMD_ENTRY_avx2 RAWFX_TARGET_AVX2
#define RAWFX_SIMD_FN_avx512 RAWFX_ALWAYS_INLINE RAWFX_TARGET_AVX512
#define RAWFX_SIMD_ENTRY_avx512 RAWFX_TARGET_AVX512
#define RAWFX_SIMD_FN RAWFX_SIMD_CAT(RAWFX_SIMD_FN_, RAWFX_SIMD_PATH)
#define RAWFX_SIMD_ENTRY RAWFX_SIMD_CAT(RAWFX_SIMD_ENTRY_, RAWFX_SIMD_PATH)

// The instance of a path-compiled function for the running CPU: the widest one
// the processor and the OS support (and tests have not excluded).
#if RAWFX_SIMD_X86
#define RAWFX_PICK_PATH(...)                                                \
  (::rawfx::cpu::UseAVX512() ? avx512::__VA_ARGS__                          \
   : ::rawfx::cpu::UseAVX2() ? avx2::__VA_ARGS__                            \
                             : portable::__VA_ARGS__)
#else
#define RAWFX_PICK_PATH(...) (portable::__VA_ARGS__)
#endif

namespace rawfx::simd {

// ---- sample moves shared by every path ---------------------------------------------
// Through byte pointers: 16-bit rows need not start on an even address.

template <class Word>
RAWFX_ALWAYS_INLINE Word LoadWord(const uint8_t* at) {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

template <class Word>
RAWFX_ALWAYS_INLINE void StoreWord(uint8_t* at, Word word) {
  std::memcpy(at, &word, sizeof word);
}

// n in 1..8 bytes, the first in the lowest bits, read as two words that
// overlap in the middle: never a byte outside the n.
RAWFX_ALWAYS_INLINE uint64_t LoadBytes(const uint8_t* at, int64_t n) {
  if (n >= 4) return LoadWord<uint32_t>(at) | uint64_t{LoadWord<uint32_t>(at + n - 4)} << (8 * (n - 4));
  if (n >= 2) return LoadWord<uint16_t>(at) | uint64_t{LoadWord<uint16_t>(at + n - 2)} << (8 * (n - 2));
  return *at;
}

RAWFX_ALWAYS_INLINE void StoreBytes(uint8_t* at, uint64_t bytes, int64_t n) {
  if (n >= 4) {
    StoreWord(at, static_cast<uint32_t>(bytes));
    StoreWord(at + n - 4, static_cast<uint32_t>(bytes >> (8 * (n - 4))));
  } else if (n >= 2) {
    StoreWord(at, static_cast<uint16_t>(bytes));
    StoreWord(at + n - 2, static_cast<uint16_t>(bytes >> (8 * (n - 2))));
  } else {
    *at = static_cast<uint8_t>(bytes);
  }
}

// Copies n bytes (none when n <= 0); out and in do not overlap.
RAWFX_ALWAYS_INLINE void CopyBytes(uint8_t* out, const uint8_t* in, int64_t n) {
  if (n <= 0) return;
  if (n <= 8) {
    StoreBytes(out, LoadBytes(in, n), n);
  } else if (n <= 16) {
    const uint64_t head = LoadWord<uint64_t>(in);
    const uint64_t tail = LoadWord<uint64_t>(in + n - 8);
    StoreWord(out, head);
    StoreWord(out + n - 8, tail);
  } else {
    std::memcpy(out, in, static_cast<size_t>(n));
  }
}

RAWFX_ALWAYS_INLINE void PrefetchLine(const void* at) { __builtin_prefetch(at); }

// The most lanes any path has: a table that kernels read a lane group at a time
// holds a whole number of such groups, so no path reads past it.
inline constexpr int64_t kWidestLanes = 8;
constexpr int64_t WholeLaneGroups(int64_t n) { return (n + kWidestLanes - 1) / kWidestLanes * kWidestLanes; }

// True when v truncates to a signed 32-bit integer without leaving its range (false for NaN).
RAWFX_ALWAYS_INLINE bool TruncationFitsInt32(double v) { return v > -2147483649.0 && v < 2147483648.0; }

// ---- the portable lane set: one double per lane --------------------------------------
namespace portable {

inline constexpr int kLanes = 1;
using Vd = double;   // doubles
using Md = bool;     // a lane's condition
using Vi = int32_t;  // 32-bit integers
using Vb = uint64_t; // bytes, for byte selects

RAWFX_ALWAYS_INLINE Vd Set(double v) { return v; }
RAWFX_ALWAYS_INLINE Vd Iota(double first) { return first; }
RAWFX_ALWAYS_INLINE Vd Load(const double* p) { return *p; }
RAWFX_ALWAYS_INLINE void Store(double* p, Vd v) { *p = v; }
RAWFX_ALWAYS_INLINE Md Lt(Vd a, Vd b) { return a < b; }
RAWFX_ALWAYS_INLINE Md Le(Vd a, Vd b) { return a <= b; }
RAWFX_ALWAYS_INLINE Md Gt(Vd a, Vd b) { return a > b; }
RAWFX_ALWAYS_INLINE Md Ge(Vd a, Vd b) { return a >= b; }
RAWFX_ALWAYS_INLINE Md Eq(Vd a, Vd b) { return a == b; }
RAWFX_ALWAYS_INLINE Md And(Md a, Md b) { return a && b; }
RAWFX_ALWAYS_INLINE Md Or(Md a, Md b) { return a || b; }
RAWFX_ALWAYS_INLINE Md AndNot(Md notThis, Md that) { return !notThis && that; }
RAWFX_ALWAYS_INLINE int Bits(Md m) { return m ? 1 : 0; }
RAWFX_ALWAYS_INLINE Vd Select(Md m, Vd whenTrue, Vd whenFalse) { return m ? whenTrue : whenFalse; }
// 0 where m is false, v where it is true.
RAWFX_ALWAYS_INLINE Vd ZeroUnless(Md m, Vd v) { return m ? v : 0.0; }
RAWFX_ALWAYS_INLINE Vd Sqrt(Vd v) { return std::sqrt(v); }
// Quotients by one divisor: plain divisions here (see imaging/simd_divide.h).
struct Divisor {
  Vd value;
};
RAWFX_ALWAYS_INLINE Divisor DivisorOf(Vd b) { return {b}; }
RAWFX_ALWAYS_INLINE Divisor DivisorOf(double b, double) { return {b}; }
RAWFX_ALWAYS_INLINE Vd Divide(Vd a, const Divisor& b) { return a / b.value; }
RAWFX_ALWAYS_INLINE Vd Floor(Vd v) { return std::floor(v); }
RAWFX_ALWAYS_INLINE Vd Trunc(Vd v) { return std::trunc(v); }
RAWFX_ALWAYS_INLINE Vd Abs(Vd v) { return std::fabs(v); }
RAWFX_ALWAYS_INLINE Vd Min(Vd a, Vd b) { return a < b ? a : b; }
RAWFX_ALWAYS_INLINE Vd Reverse(Vd v) { return v; }
RAWFX_ALWAYS_INLINE Vd CopySign(Vd magnitude, Vd sign) { return std::copysign(magnitude, sign); }
// f of the lanes in `wanted` (bit i: lane i), 0 in the others.
template <class F>
RAWFX_ALWAYS_INLINE Vd PerLane(Vd v, int wanted, F f) {
  return wanted & 1 ? f(v) : 0.0;
}
// Truncation toward zero; a value out of the int32 range (or NaN) gives INT32_MIN.
RAWFX_ALWAYS_INLINE Vi TruncToInt32(Vd v) { return TruncationFitsInt32(v) ? static_cast<int32_t>(v) : INT32_MIN; }
RAWFX_ALWAYS_INLINE Vi LowByte(Vi v) { return v & 0xFF; }
RAWFX_ALWAYS_INLINE Vd ToDouble(Vi v) { return v; }
RAWFX_ALWAYS_INLINE void StoreLowBytes(uint8_t* out, Vi v) { *out = static_cast<uint8_t>(v); }
// The 4-byte words of kLanes pixels `stride` bytes apart, and byte i of each.
RAWFX_ALWAYS_INLINE Vi LoadWords(const uint8_t* p, int64_t) { return static_cast<Vi>(LoadWord<uint32_t>(p)); }
RAWFX_ALWAYS_INLINE Vi ByteOf(Vi words, int i) { return static_cast<Vi>(static_cast<uint32_t>(words) >> (8 * i) & 0xFF); }
// Bytes a, b and c of each word packed as a | b << 16 | c << 32, one 64-bit word per lane.
RAWFX_ALWAYS_INLINE void StorePackedBytes(uint64_t* out, Vi words, int a, int b, int c) {
  *out = uint64_t(uint32_t(ByteOf(words, a))) | uint64_t(uint32_t(ByteOf(words, b))) << 16 |
         uint64_t(uint32_t(ByteOf(words, c))) << 32;
}

// Up to kLanes samples of a pixel as doubles, and back, truncated.
template <class Sample>
RAWFX_ALWAYS_INLINE Vd LoadSamples(const uint8_t* at, int) {
  return LoadWord<Sample>(at);
}
template <class Sample>
RAWFX_ALWAYS_INLINE void StoreSamples(uint8_t* at, Vd values, int) {
  StoreWord(at, static_cast<Sample>(values));
}

RAWFX_ALWAYS_INLINE Vb LoadByteLanes(const uint8_t* p) { return LoadWord<Vb>(p); }
// The bytes of whenSet where the mask's bytes are all ones, of otherwise where they are 0.
RAWFX_ALWAYS_INLINE Vb SelectByteLanes(Vb mask, Vb whenSet, Vb otherwise) {
  return otherwise ^ ((otherwise ^ whenSet) & mask);
}
RAWFX_ALWAYS_INLINE void StoreByteLanes(uint8_t* p, Vb v) { StoreWord(p, v); }

// Addresses: pixel (column, row) of an image, both whole numbers in the int32
// range (a caller zeroes the lanes it does not want converted).
using Vp = const uint8_t*;
RAWFX_ALWAYS_INLINE Vp PixelAddress(const uint8_t* pixels, Vd column, Vd row, int64_t rowBytes, int64_t pixelBytes) {
  return pixels + static_cast<int64_t>(static_cast<int32_t>(row)) * rowBytes +
         static_cast<int64_t>(static_cast<int32_t>(column)) * pixelBytes;
}
RAWFX_ALWAYS_INLINE Vp Offset(Vp p, int64_t bytes) { return p + bytes; }
// Stores the address where chosen, otherwise `otherwise`.
RAWFX_ALWAYS_INLINE void StoreAddress(const uint8_t** to, Md chosen, Vp address, const uint8_t* otherwise) {
  *to = chosen ? address : otherwise;
}

}  // namespace portable

// ---- the AVX2 lane set: four doubles per lane group ----------------------------------
#if RAWFX_SIMD_X86
namespace avx2 {

inline constexpr int kLanes = 4;
using Vd = __m256d;
using Md = __m256d;  // all bits set where true
using Vi = __m128i;
using Vb = __m256i;

#define RAWFX_LANE RAWFX_ALWAYS_INLINE RAWFX_TARGET_AVX2
RAWFX_LANE Vd Set(double v) { return _mm256_set1_pd(v); }
RAWFX_LANE Vd Iota(double first) { return _mm256_set1_pd(first) + _mm256_setr_pd(0.0, 1.0, 2.0, 3.0); }
RAWFX_LANE Vd Load(const double* p) { return _mm256_loadu_pd(p); }
RAWFX_LANE void Store(double* p, Vd v) { _mm256_storeu_pd(p, v); }
RAWFX_LANE Md Lt(Vd a, Vd b) { return _mm256_cmp_pd(a, b, _CMP_LT_OQ); }
RAWFX_LANE Md Le(Vd a, Vd b) { return _mm256_cmp_pd(a, b, _CMP_LE_OQ); }
RAWFX_LANE Md Gt(Vd a, Vd b) { return _mm256_cmp_pd(a, b, _CMP_GT_OQ); }
RAWFX_LANE Md Ge(Vd a, Vd b) { return _mm256_cmp_pd(a, b, _CMP_GE_OQ); }
RAWFX_LANE Md Eq(Vd a, Vd b) { return _mm256_cmp_pd(a, b, _CMP_EQ_OQ); }
RAWFX_LANE Md And(Md a, Md b) { return _mm256_and_pd(a, b); }
RAWFX_LANE Md Or(Md a, Md b) { return _mm256_or_pd(a, b); }
RAWFX_LANE Md AndNot(Md notThis, Md that) { return _mm256_andnot_pd(notThis, that); }
RAWFX_LANE int Bits(Md m) { return _mm256_movemask_pd(m); }
RAWFX_LANE Vd Select(Md m, Vd whenTrue, Vd whenFalse) { return _mm256_blendv_pd(whenFalse, whenTrue, m); }
RAWFX_LANE Vd ZeroUnless(Md m, Vd v) { return _mm256_and_pd(m, v); }
RAWFX_LANE Vd Sqrt(Vd v) { return _mm256_sqrt_pd(v); }
RAWFX_LANE Vd MulAdd(Vd a, Vd b, Vd c) { return _mm256_fmadd_pd(a, b, c); }     // a b + c, rounded once
RAWFX_LANE Vd NegMulAdd(Vd a, Vd b, Vd c) { return _mm256_fnmadd_pd(a, b, c); }  // c - a b, rounded once
RAWFX_LANE Vd Floor(Vd v) { return _mm256_round_pd(v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
RAWFX_LANE Vd Trunc(Vd v) { return _mm256_round_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC); }
RAWFX_LANE Vd Abs(Vd v) { return _mm256_andnot_pd(_mm256_set1_pd(-0.0), v); }
RAWFX_LANE Vd Min(Vd a, Vd b) { return _mm256_min_pd(a, b); }
RAWFX_LANE Vd Reverse(Vd v) { return _mm256_permute4x64_pd(v, 0x1B); }
RAWFX_LANE Vd CopySign(Vd magnitude, Vd sign) {
  const Vd signBit = _mm256_set1_pd(-0.0);
  return _mm256_or_pd(_mm256_andnot_pd(signBit, magnitude), _mm256_and_pd(signBit, sign));
}
template <class F>
RAWFX_LANE Vd PerLane(Vd v, int wanted, F f) {
  alignas(32) double lanes[4];
  _mm256_store_pd(lanes, v);
  for (int lane = 0; lane < 4; ++lane) lanes[lane] = wanted >> lane & 1 ? f(lanes[lane]) : 0.0;
  return _mm256_load_pd(lanes);
}
// cvttpd gives INT32_MIN for a value out of range or NaN, as the portable set does.
RAWFX_LANE Vi TruncToInt32(Vd v) { return _mm256_cvttpd_epi32(v); }
RAWFX_LANE Vi LowByte(Vi v) { return _mm_and_si128(v, _mm_set1_epi32(0xFF)); }
RAWFX_LANE Vd ToDouble(Vi v) { return _mm256_cvtepi32_pd(v); }
RAWFX_LANE void StoreLowBytes(uint8_t* out, Vi v) {
  StoreWord(out, static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi8(v, _mm_setr_epi8(0, 4, 8, 12, -1, -1, -1,
                                                                                            -1, -1, -1, -1, -1, -1,
                                                                                            -1, -1, -1)))));
}

// A pixel stride of 4 is one plain load; any other a gather of the four words.
RAWFX_LANE Vi LoadWords(const uint8_t* p, int64_t stride) {
  if (stride == 4) return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i index = _mm_mullo_epi32(_mm_setr_epi32(0, 1, 2, 3), _mm_set1_epi32(static_cast<int32_t>(stride)));
  return _mm_i32gather_epi32(reinterpret_cast<const int*>(p), index, 1);
}
// Byte shuffles: an index with its top bit set gives 0.
RAWFX_LANE Vi ByteOf(Vi words, int i) {
  const __m128i index = _mm_add_epi32(_mm_setr_epi32(0, 4, 8, 12),
                                      _mm_set1_epi32(static_cast<int32_t>(0x80808000u | static_cast<uint32_t>(i))));
  return _mm_shuffle_epi8(words, index);
}
RAWFX_LANE void StorePackedBytes(uint64_t* out, Vi words, int a, int b, int c) {
  // Both 128-bit halves hold the four words; 64-bit word k of the result takes
  // word k's bytes a, b and c (at 4k + a ...) into its bytes 0, 2 and 4.
  const __m256i wordStart = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 4, 0, 4, 0, 0, 0,  //
                                             8, 0, 8, 0, 8, 0, 0, 0, 12, 0, 12, 0, 12, 0, 0, 0);
  const __m256i unused = _mm256_set1_epi64x(static_cast<long long>(0x8080800080008000ull));
  const __m256i offsets = _mm256_set1_epi64x(static_cast<long long>(uint64_t(uint32_t(a)) | uint64_t(uint32_t(b)) << 16 |
                                                                    uint64_t(uint32_t(c)) << 32));
  const __m256i index = _mm256_or_si256(_mm256_add_epi8(wordStart, offsets), unused);
  const __m256i packed = _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(words), index);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), packed);
}

// count (1..4) samples as doubles, the other lanes 0. Four or eight bytes
// (the usual pixels, where count is a constant) are one plain load.
template <class Sample>
RAWFX_LANE Vd LoadSamples(const uint8_t* at, int count) {
  const int64_t bytes = count * int64_t{sizeof(Sample)};
  __m128i packed;
  if (bytes == 4)
    packed = _mm_cvtsi32_si128(LoadWord<int32_t>(at));
  else if (bytes == 8)
    packed = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
  else
    packed = _mm_cvtsi64_si128(static_cast<long long>(LoadBytes(at, bytes)));
  if constexpr (sizeof(Sample) == 1)
    return _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(packed));
  else
    return _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(packed));
}

// Stores count truncated samples. A blend lies between its samples, so it fits
// the sample type and the saturating packs leave it as the scalar narrowing does.
template <class Sample>
RAWFX_LANE void StoreSamples(uint8_t* at, Vd values, int count) {
  const int64_t bytes = count * int64_t{sizeof(Sample)};
  __m128i packed = _mm_packus_epi32(_mm256_cvttpd_epi32(values), _mm_setzero_si128());
  if constexpr (sizeof(Sample) == 1) packed = _mm_packus_epi16(packed, _mm_setzero_si128());
  if (bytes == 4)
    StoreWord(at, _mm_cvtsi128_si32(packed));
  else if (bytes == 8)
    _mm_storel_epi64(reinterpret_cast<__m128i*>(at), packed);
  else
    StoreBytes(at, static_cast<uint64_t>(_mm_cvtsi128_si64(packed)), bytes);
}

RAWFX_LANE Vb LoadByteLanes(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
RAWFX_LANE Vb SelectByteLanes(Vb mask, Vb whenSet, Vb otherwise) { return _mm256_blendv_epi8(otherwise, whenSet, mask); }
RAWFX_LANE void StoreByteLanes(uint8_t* p, Vb v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

using Vp = __m256i;
// Each factor fits 32 signed bits, so the 64-bit products are exact.
RAWFX_LANE Vp PixelAddress(const uint8_t* pixels, Vd column, Vd row, int64_t rowBytes, int64_t pixelBytes) {
  const __m256i columns = _mm256_cvtepi32_epi64(_mm256_cvttpd_epi32(column));
  const __m256i rows = _mm256_cvtepi32_epi64(_mm256_cvttpd_epi32(row));
  const __m256i offsets = _mm256_add_epi64(_mm256_mul_epi32(rows, _mm256_set1_epi64x(rowBytes)),
                                           _mm256_mul_epi32(columns, _mm256_set1_epi64x(pixelBytes)));
  return _mm256_add_epi64(_mm256_set1_epi64x(reinterpret_cast<intptr_t>(pixels)), offsets);
}
RAWFX_LANE Vp Offset(Vp p, int64_t bytes) { return _mm256_add_epi64(p, _mm256_set1_epi64x(bytes)); }
RAWFX_LANE void StoreAddress(const uint8_t** to, Md chosen, Vp address, const uint8_t* otherwise) {
  const __m256i pick = _mm256_blendv_epi8(_mm256_set1_epi64x(reinterpret_cast<intptr_t>(otherwise)), address,
                                          _mm256_castpd_si256(chosen));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), pick);
}
#include "imaging/simd_divide.h"
#undef RAWFX_LANE

}  // namespace avx2

// ---- the AVX-512 lane set: eight doubles per lane group ------------------------------
// For the warps' position arithmetic and blends. Conditions are mask registers;
// samples move through masked loads and stores, which touch no byte outside
// the pixel. Byte lanes stay 256 bits wide, as in the AVX2 set.
namespace avx512 {

inline constexpr int kLanes = 8;
static_assert(kLanes <= kWidestLanes);
using Vd = __m512d;
using Md = __mmask8;  // bit i set where lane i is true
using Vb = __m256i;

#define RAWFX_LANE RAWFX_ALWAYS_INLINE RAWFX_TARGET_AVX512
RAWFX_LANE Vd Set(double v) { return _mm512_set1_pd(v); }
RAWFX_LANE Vd Iota(double first) {
  return _mm512_set1_pd(first) + _mm512_setr_pd(0.0, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0);
}
RAWFX_LANE Vd Load(const double* p) { return _mm512_loadu_pd(p); }
RAWFX_LANE void Store(double* p, Vd v) { _mm512_storeu_pd(p, v); }
RAWFX_LANE Md Lt(Vd a, Vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_LT_OQ); }
RAWFX_LANE Md Le(Vd a, Vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_LE_OQ); }
RAWFX_LANE Md Gt(Vd a, Vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_GT_OQ); }
RAWFX_LANE Md Ge(Vd a, Vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_GE_OQ); }
RAWFX_LANE Md Eq(Vd a, Vd b) { return _mm512_cmp_pd_mask(a, b, _CMP_EQ_OQ); }
RAWFX_LANE Md And(Md a, Md b) { return static_cast<Md>(a & b); }
RAWFX_LANE Md Or(Md a, Md b) { return static_cast<Md>(a | b); }
RAWFX_LANE Md AndNot(Md notThis, Md that) { return static_cast<Md>(~notThis & that); }
RAWFX_LANE int Bits(Md m) { return m; }
RAWFX_LANE Vd Select(Md m, Vd whenTrue, Vd whenFalse) { return _mm512_mask_blend_pd(m, whenFalse, whenTrue); }
RAWFX_LANE Vd ZeroUnless(Md m, Vd v) { return _mm512_maskz_mov_pd(m, v); }
RAWFX_LANE Vd Sqrt(Vd v) { return _mm512_sqrt_pd(v); }
RAWFX_LANE Vd MulAdd(Vd a, Vd b, Vd c) { return _mm512_fmadd_pd(a, b, c); }
RAWFX_LANE Vd NegMulAdd(Vd a, Vd b, Vd c) { return _mm512_fnmadd_pd(a, b, c); }
RAWFX_LANE Vd Floor(Vd v) { return _mm512_roundscale_pd(v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
RAWFX_LANE Vd Trunc(Vd v) { return _mm512_roundscale_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC); }
RAWFX_LANE Vd Abs(Vd v) { return _mm512_abs_pd(v); }
RAWFX_LANE Vd Min(Vd a, Vd b) { return _mm512_min_pd(a, b); }
RAWFX_LANE Vd Reverse(Vd v) { return _mm512_permutexvar_pd(_mm512_setr_epi64(7, 6, 5, 4, 3, 2, 1, 0), v); }
RAWFX_LANE Vd CopySign(Vd magnitude, Vd sign) {
  const __m512i signBit = _mm512_set1_epi64(static_cast<long long>(0x8000000000000000ull));
  return _mm512_castsi512_pd(_mm512_or_si512(_mm512_andnot_si512(signBit, _mm512_castpd_si512(magnitude)),
                                             _mm512_and_si512(signBit, _mm512_castpd_si512(sign))));
}
template <class F>
RAWFX_LANE Vd PerLane(Vd v, int wanted, F f) {
  alignas(64) double lanes[8];
  _mm512_store_pd(lanes, v);
  for (int lane = 0; lane < 8; ++lane) lanes[lane] = wanted >> lane & 1 ? f(lanes[lane]) : 0.0;
  return _mm512_load_pd(lanes);
}

// Samples widen straight to 64-bit lanes and convert from there, and results
// convert to 64-bit lanes and narrow from there: one shuffle-port step fewer
// each way than through 32-bit lanes, where a blend of two pixels spends most
// of its steps. A blend fits the sample type, so a truncated lane narrows as it is.

// count (1..8) samples as doubles, the other lanes 0.
template <class Sample>
RAWFX_LANE Vd LoadSamples(const uint8_t* at, int count) {
  const auto bytes = static_cast<__mmask16>((1u << (count * sizeof(Sample))) - 1);
  const __m128i packed = _mm_maskz_loadu_epi8(bytes, at);
  if constexpr (sizeof(Sample) == 1)
    return _mm512_cvtepi64_pd(_mm512_cvtepu8_epi64(packed));
  else
    return _mm512_cvtepi64_pd(_mm512_cvtepu16_epi64(packed));
}

// Stores count truncated samples.
template <class Sample>
RAWFX_LANE void StoreSamples(uint8_t* at, Vd values, int count) {
  const auto bytes = static_cast<__mmask16>((1u << (count * sizeof(Sample))) - 1);
  const __m512i whole = _mm512_cvttpd_epi64(values);
  if constexpr (sizeof(Sample) == 1)
    _mm_mask_storeu_epi8(at, bytes, _mm512_cvtepi64_epi8(whole));
  else
    _mm_mask_storeu_epi8(at, bytes, _mm512_cvtepi64_epi16(whole));
}

// Two four-sample pixels fill the eight lanes: their samples side by side,
// each pixel's weight over its own samples, and their blends stored back.
template <class Sample, int kChannels>
RAWFX_LANE Vd LoadPixels(const uint8_t* const* from) {
  static_assert(kChannels == 4);
  if constexpr (sizeof(Sample) == 1)
    return _mm512_cvtepi64_pd(_mm512_cvtepu8_epi64(
        _mm_insert_epi32(_mm_cvtsi32_si128(LoadWord<int32_t>(from[0])), LoadWord<int32_t>(from[1]), 1)));
  else
    return _mm512_cvtepi64_pd(_mm512_cvtepu16_epi64(
        _mm_insert_epi64(_mm_cvtsi64_si128(LoadWord<int64_t>(from[0])), LoadWord<int64_t>(from[1]), 1)));
}
// Two broadcasts from memory, the second merged into the upper lanes: no
// shuffle-port step, where a permute of the pair would take one.
template <int kChannels>
RAWFX_LANE Vd SpreadWeights(const double* weights) {
  static_assert(kChannels == 4);
  return _mm512_mask_broadcastsd_pd(_mm512_set1_pd(weights[0]), 0xF0, _mm_load_sd(weights + 1));
}
// Pixels side by side in memory (a row's destinations) take one store.
template <class Sample, int kChannels>
RAWFX_LANE void StorePixels(uint8_t* const* to, Vd values) {
  static_assert(kChannels == 4);
  const __m512i whole = _mm512_cvttpd_epi64(values);
  const bool adjacent = to[1] == to[0] + kChannels * sizeof(Sample);
  if constexpr (sizeof(Sample) == 1) {
    const __m128i packed = _mm512_cvtepi64_epi8(whole);
    if (adjacent) return _mm_storel_epi64(reinterpret_cast<__m128i*>(to[0]), packed);
    StoreWord(to[0], _mm_cvtsi128_si32(packed));
    StoreWord(to[1], _mm_extract_epi32(packed, 1));
  } else {
    const __m128i packed = _mm512_cvtepi64_epi16(whole);
    if (adjacent) return _mm_storeu_si128(reinterpret_cast<__m128i*>(to[0]), packed);
    StoreWord(to[0], _mm_cvtsi128_si64(packed));
    StoreWord(to[1], _mm_extract_epi64(packed, 1));
  }
}

using Vp = __m512i;
// Each factor fits 32 signed bits, so the 64-bit products are exact.
RAWFX_LANE Vp PixelAddress(const uint8_t* pixels, Vd column, Vd row, int64_t rowBytes, int64_t pixelBytes) {
  const __m512i columns = _mm512_cvttpd_epi64(column);
  const __m512i rows = _mm512_cvttpd_epi64(row);
  const __m512i offsets = _mm512_add_epi64(_mm512_mul_epi32(rows, _mm512_set1_epi64(rowBytes)),
                                           _mm512_mul_epi32(columns, _mm512_set1_epi64(pixelBytes)));
  return _mm512_add_epi64(_mm512_set1_epi64(reinterpret_cast<intptr_t>(pixels)), offsets);
}
RAWFX_LANE Vp Offset(Vp p, int64_t bytes) { return _mm512_add_epi64(p, _mm512_set1_epi64(bytes)); }
RAWFX_LANE void StoreAddress(const uint8_t** to, Md chosen, Vp address, const uint8_t* otherwise) {
  const __m512i pick =
      _mm512_mask_blend_epi64(chosen, _mm512_set1_epi64(reinterpret_cast<intptr_t>(otherwise)), address);
  _mm512_storeu_si512(to, pick);
}
#include "imaging/simd_divide.h"
#undef RAWFX_LANE

}  // namespace avx512
#endif

}  // namespace rawfx::simd
