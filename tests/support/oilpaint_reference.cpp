// Written from the effect's description: every pixel gathers its whole
// neighbourhood into a fresh histogram and scans every bin.
#include "support/references.h"

#include <algorithm>

namespace rawfx::reference {
namespace {

// The bin of a pixel: its intensity (0.59 G + 0.3 R) + 0.11 B in double
// precision, truncated to its low 8 bits, times the smoothness in double
// precision, truncated to its low 8 bits; bin 0 for a product outside int32.
int32_t BinOf(const uint8_t* pixel, const OilPaintParams& p) {
  const uint8_t red = pixel[p.redOffset], green = pixel[p.greenOffset], blue = pixel[p.blueOffset];
  const auto intensity = static_cast<uint8_t>(static_cast<int32_t>((0.59 * green + 0.3 * red) + 0.11 * blue));
  const double scaled = intensity * static_cast<double>(p.smoothness);
  if (!(scaled > -2147483649.0 && scaled < 2147483648.0)) return 0;
  return static_cast<uint8_t>(static_cast<int32_t>(scaled));
}

// The mean colour of the fullest bin of 0 .. maxLevel (the lowest among
// equals) in the neighbourhood of (x, y), clipped to the bitmap.
void PaintMean(const OilPaintParams& p, int32_t x, int32_t y, uint8_t* dst) {
  const GenericMPParams& head = p.head;
  const int32_t r = p.brushSize, offsets[] = {p.redOffset, p.greenOffset, p.blueOffset};
  uint32_t counts[256] = {}, sums[256][3] = {};
  for (int32_t y2 = std::max(0, y - r); y2 <= std::min(head.height - 1, y + r); ++y2)
    for (int32_t x2 = std::max(0, x - r); x2 <= std::min(head.width - 1, x + r); ++x2) {
      const uint8_t* pixel = head.srcPixels + int64_t{y2} * head.srcRowBytes + int64_t{x2} * head.srcPixelBytes;
      const int32_t k = BinOf(pixel, p);
      counts[k]++;
      for (int c = 0; c < 3; ++c) sums[k][c] += pixel[offsets[c]];
    }
  int32_t best = 0;
  for (int32_t k = 0; k <= p.maxLevel; ++k)
    if (counts[k] > counts[best]) best = k;
  for (int c = 0; c < 3; ++c) dst[offsets[c]] = static_cast<uint8_t>(sums[best][c] / counts[best]);
}

// Masked, each colour byte (once per offset, coinciding ones included) then
// mixes with the source's, weighted by the mask value m, 0 and 255 included.
template <bool Masked>
void* OilPaintPart(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<OilPaintParams*>(part.params);
  GenericMPParams& head = p.head;
  const bool copyAlpha = head.srcBitmap->hasAlpha != 0;
  ForEachRow(part, head, [&](int32_t y) {
    const MaskRowHandle maskRow = Masked ? MaskRow8(head.maskData, y) : 0;
    for (int32_t x = 0; x < head.width; ++x) {
      const uint32_t m = Masked ? MaskAt8(head.maskData, maskRow, x) : 0;
      const uint8_t* src = head.srcPixels + int64_t{y} * head.srcRowBytes + int64_t{x} * head.srcPixelBytes;
      uint8_t* dst = head.dstPixels + int64_t{y} * head.dstRowBytes + int64_t{x} * head.dstPixelBytes;
      PaintMean(p, x, y, dst);
      if (copyAlpha) dst[head.dstBitmap->alphaOffset] = src[head.srcBitmap->alphaOffset];
      if (!Masked) continue;
      for (const int32_t offset : {p.redOffset, p.greenOffset, p.blueOffset})
        dst[offset] = static_cast<uint8_t>((src[offset] * m + dst[offset] * (255 - m)) >> 8);
    }
  });
  if (!Masked) part.done = 1;
  return nullptr;
}

}  // namespace

const PartTable kOilPaintParts = {{OilPaintPart<false>, OilPaintPart<true>}, {OilPaintPart<false>, OilPaintPart<true>}};

}  // namespace rawfx::reference
