// A slow, literal oil paint filter written straight from the effect's
// description, used as the expected result of the kernels. It shares no code
// with them: it keeps a fresh 256-bin histogram per pixel and walks the full
// square of offsets, skipping those outside the bitmap.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace rawfx::test {

// A bitmap as the reference sees it: pixels pixelBytes apart, rows rowBytes apart.
struct OilPaintImage {
  int width = 0;
  int height = 0;
  int pixelBytes = 0;
  int rowBytes = 0;
  std::vector<uint8_t> bytes;  // rowBytes * height

  uint8_t* Pixel(int x, int y) { return bytes.data() + y * rowBytes + x * pixelBytes; }
  const uint8_t* Pixel(int x, int y) const { return bytes.data() + y * rowBytes + x * pixelBytes; }
};

struct OilPaintSettings {
  int redOffset = 0;    // weighted 0.3
  int greenOffset = 1;  // weighted 0.59
  int blueOffset = 2;   // weighted 0.11
  float smoothness = 0.4f;
  int radius = 2;
  bool copyAlpha = false;  // the source has alpha
  int srcAlphaOffset = 0;
  int dstAlphaOffset = 0;
  // Mask value of pixel (x, y), of which the low 8 bits count; empty: no mask.
  std::function<uint32_t(int x, int y)> mask;
};

// The filter over rows firstRow .. endRow - 1 of dst, reading src; every byte
// of dst that the filter does not write keeps its value.
void ReferenceOilPaint(const OilPaintImage& src, OilPaintImage& dst, const OilPaintSettings& settings, int firstRow,
                       int endRow);

}  // namespace rawfx::test
