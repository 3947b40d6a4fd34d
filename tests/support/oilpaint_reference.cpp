#include "support/oilpaint_reference.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace rawfx::test {

namespace {

int ReferenceIntensity(int red, int green, int blue) {
  double weighted = 0.59 * green;
  weighted = weighted + 0.3 * red;
  weighted = weighted + 0.11 * blue;
  return static_cast<int>(weighted) % 256;  // weighted is never negative
}

int ReferenceBin(int red, int green, int blue, float smoothness) {
  const double scaled = static_cast<double>(ReferenceIntensity(red, green, blue)) * static_cast<double>(smoothness);
  return static_cast<int>(scaled) % 256;
}

struct BinTotals {
  std::array<int, 256> pixels{};
  std::array<uint64_t, 256> red{}, green{}, blue{};
};

BinTotals Neighbourhood(const OilPaintImage& src, const OilPaintSettings& s, int x, int y) {
  BinTotals totals;
  for (int dy = -s.radius; dy <= s.radius; ++dy) {
    for (int dx = -s.radius; dx <= s.radius; ++dx) {
      const int sx = x + dx;
      const int sy = y + dy;
      if (sx < 0 || sy < 0 || sx >= src.width || sy >= src.height) continue;
      const uint8_t* q = src.Pixel(sx, sy);
      const int bin = ReferenceBin(q[s.redOffset], q[s.greenOffset], q[s.blueOffset], s.smoothness);
      totals.pixels[bin] += 1;
      totals.red[bin] += q[s.redOffset];
      totals.green[bin] += q[s.greenOffset];
      totals.blue[bin] += q[s.blueOffset];
    }
  }
  return totals;
}

void PaintPixel(const OilPaintImage& src, OilPaintImage& dst, const OilPaintSettings& s, int x, int y) {
  const BinTotals totals = Neighbourhood(src, s, x, y);
  // max_element returns the first of several equal maxima: the lowest bin.
  const auto winner = std::max_element(totals.pixels.begin(), totals.pixels.end());
  const auto bin = static_cast<size_t>(std::distance(totals.pixels.begin(), winner));
  const auto members = static_cast<uint64_t>(*winner);
  uint8_t* out = dst.Pixel(x, y);
  const uint8_t* in = src.Pixel(x, y);
  out[s.redOffset] = static_cast<uint8_t>(totals.red[bin] / members);
  out[s.greenOffset] = static_cast<uint8_t>(totals.green[bin] / members);
  out[s.blueOffset] = static_cast<uint8_t>(totals.blue[bin] / members);
  if (s.copyAlpha) out[s.dstAlphaOffset] = in[s.srcAlphaOffset];
  if (!s.mask) return;
  const int m = static_cast<int>(s.mask(x, y) % 256);
  for (const int offset : {s.redOffset, s.greenOffset, s.blueOffset}) {
    out[offset] = static_cast<uint8_t>((in[offset] * m + out[offset] * (255 - m)) / 256);
  }
}

}  // namespace

void ReferenceOilPaint(const OilPaintImage& src, OilPaintImage& dst, const OilPaintSettings& settings, int firstRow,
                       int endRow) {
  for (int y = firstRow; y < endRow; ++y) {
    for (int x = 0; x < src.width; ++x) PaintPixel(src, dst, settings, x, y);
  }
}

}  // namespace rawfx::test
