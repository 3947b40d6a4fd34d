#include "support/oilpaint_kernel_reference.h"

#include <algorithm>

#include "support/reference_rows.h"

namespace rawfx::reference {
namespace {

// The intensity of a pixel: (0.59 G + 0.3 R) + 0.11 B in double precision,
// truncated, low 8 bits.
uint8_t IntensityOf(uint8_t red, uint8_t green, uint8_t blue) {
  const double sum = (0.59 * green + 0.3 * red) + 0.11 * blue;
  return static_cast<uint8_t>(static_cast<int32_t>(sum));
}

// The bin of an intensity: intensity * smoothness in double precision,
// truncated, low 8 bits; bin 0 for a product outside the int32 range.
uint8_t BinOf(uint8_t intensity, float smoothness) {
  const double scaled = intensity * static_cast<double>(smoothness);
  if (!(scaled > -2147483649.0 && scaled < 2147483648.0)) return 0;
  return static_cast<uint8_t>(static_cast<int32_t>(scaled));
}

// The histogram of one part call, on its stack, for the most bins a byte can
// name: a count and three colour sums per bin. Counts start cleared and every
// scan clears them again as it reads them. Sums are never cleared: a bin's
// sums restart when its count goes 0 -> 1.
struct Histogram {
  uint8_t counts[256] = {};  // at most 121 pixels per neighbourhood: never wraps
  uint32_t redSums[256], greenSums[256], blueSums[256];
};

struct BestBin {
  int32_t bin;
  uint32_t count;
};

// The settings of one part call, read once, and the painting of one row.
template <bool Masked>
class OilPaintRows {
 public:
  OilPaintRows(const OilPaintParams& p, Histogram& h)
      : p_(p),
        h_(h),
        radius_(p.brushSize),
        copyAlpha_(p.head.srcBitmap->hasAlpha != 0),
        srcAlpha_(copyAlpha_ ? p.head.srcBitmap->alphaOffset : 0),
        dstAlpha_(copyAlpha_ ? p.head.dstBitmap->alphaOffset : 0) {}

  void Paint(int32_t y) {
    const GenericMPParams& head = p_.head;
    const uint8_t* srcRow = head.srcPixels + int64_t{y} * head.srcRowBytes;
    uint8_t* dst = head.dstPixels + int64_t{y} * head.dstRowBytes;
    const int32_t top = std::max(0, y - radius_);
    const int32_t bottom = std::min(head.height - 1, y + radius_);
    const MaskRowHandle maskRow = Masked ? MaskRow8(head.maskData, y) : 0;
    for (int32_t x = 0; x < head.width; ++x) {
      const uint8_t m = Masked ? MaskAt8(head.maskData, maskRow, x) : 0;
      const uint8_t* src = srcRow + int64_t{x} * head.srcPixelBytes;
      Gather(x, top, bottom);
      WriteMean(dst, PickBestBin());
      if (copyAlpha_) dst[dstAlpha_] = src[srcAlpha_];
      if (Masked) Blend(dst, src, m);
      dst += head.dstPixelBytes;
    }
  }

 private:
  // Counts the neighbourhood of (x, y): rows top..bottom, columns clipped to the bitmap.
  void Gather(int32_t x, int32_t top, int32_t bottom) {
    const GenericMPParams& head = p_.head;
    const int32_t left = std::max(0, x - radius_);
    const int32_t right = std::min(head.width - 1, x + radius_);
    for (int32_t y2 = top; y2 <= bottom; ++y2) {
      const uint8_t* src = head.srcPixels + int64_t{y2} * head.srcRowBytes + int64_t{left} * head.srcPixelBytes;
      for (int32_t x2 = left; x2 <= right; ++x2) {
        Add(src);
        src += head.srcPixelBytes;
      }
    }
  }

  void Add(const uint8_t* pixel) {
    const uint8_t red = pixel[p_.redOffset];
    const uint8_t green = pixel[p_.greenOffset];
    const uint8_t blue = pixel[p_.blueOffset];
    const uint8_t k = BinOf(IntensityOf(red, green, blue), p_.smoothness);
    if (h_.counts[k]++ == 0) {
      h_.redSums[k] = red;
      h_.greenSums[k] = green;
      h_.blueSums[k] = blue;
    } else {
      h_.redSums[k] += red;
      h_.greenSums[k] += green;
      h_.blueSums[k] += blue;
    }
  }

  // The most populated bin, the lowest one among equals; clears every count it reads.
  BestBin PickBestBin() {
    BestBin best{0, 0};
    for (int32_t k = 0; k <= p_.maxLevel; ++k) {
      const uint32_t count = h_.counts[k];
      h_.counts[k] = 0;
      if (count > best.count) best = {k, count};
    }
    return best;
  }

  // The pixel at (x, y) is always in its own neighbourhood, so best.count >= 1.
  void WriteMean(uint8_t* dst, BestBin best) {
    dst[p_.redOffset] = static_cast<uint8_t>(h_.redSums[best.bin] / best.count);
    dst[p_.greenOffset] = static_cast<uint8_t>(h_.greenSums[best.bin] / best.count);
    dst[p_.blueOffset] = static_cast<uint8_t>(h_.blueSums[best.bin] / best.count);
  }

  // Mixes each colour byte with the source, the source weighted by m; applied to
  // every m, 0 and 255 included. Coinciding offsets are mixed once per offset.
  void Blend(uint8_t* dst, const uint8_t* src, uint32_t m) {
    for (const int32_t offset : {p_.redOffset, p_.greenOffset, p_.blueOffset}) {
      dst[offset] = static_cast<uint8_t>((src[offset] * m + dst[offset] * (255 - m)) >> 8);
    }
  }

  const OilPaintParams& p_;
  Histogram& h_;
  const int32_t radius_;
  const bool copyAlpha_;
  const int32_t srcAlpha_;
  const int32_t dstAlpha_;
};

// One part: its rows in increasing order, each counted as progress, stopping
// after the row during which a cancel was requested.
template <bool Masked>
void* OilPaintPart(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  if (part.firstRow < part.endRow) {
    auto& p = *static_cast<OilPaintParams*>(part.params);
    Histogram histogram;
    OilPaintRows<Masked> rows(p, histogram);
    ForEachRow(part, p.head, [&](int32_t y) { rows.Paint(y); });
  }
  if (!Masked) part.done = 1;
  return nullptr;
}

}  // namespace

const PartFunction OilPaintPart8bit = OilPaintPart<false>;
const PartFunction OilPaintMaskPart8bit = OilPaintPart<true>;

}  // namespace rawfx::reference
