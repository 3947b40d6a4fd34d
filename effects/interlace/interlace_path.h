// The interlace byte select, written once and compiled per path (see
// imaging/simd.h): a vector of bytes at a time, then the remnant byte by byte.
//
// No include guard: included once per path by interlace_kernels.cpp.
namespace RAWFX_SIMD_PATH {

using namespace rawfx::simd::RAWFX_SIMD_PATH;

// The mask bytes are all ones or all zeros: the pattern's byte where set, the
// source's elsewhere. The patterns carry one vector more than `length`, so a
// vector read from any offset below it stays inside.
RAWFX_SIMD_ENTRY void SelectBytes(const uint8_t* src, uint8_t* dst, int64_t n, const uint8_t* pattern,
                                  const uint8_t* mask, int64_t offset, int64_t length) {
  constexpr int64_t kBytes = sizeof(Vb);
  int64_t i = 0;
  for (; i + kBytes <= n; i += kBytes) {
    const Vb s = LoadByteLanes(src + i);
    const Vb p = LoadByteLanes(pattern + offset);
    const Vb m = LoadByteLanes(mask + offset);
    StoreByteLanes(dst + i, SelectByteLanes(m, p, s));
    offset += kBytes;
    if (offset >= length) offset -= length;
  }
  SelectTail(src + i, dst + i, n - i, pattern, mask, offset, length);
}

}  // namespace RAWFX_SIMD_PATH
