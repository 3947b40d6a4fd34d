// Written from the effect's description: every pixel mapped on its own, in the
// written order of operations, sampled nearest or bilinear.
#include "support/references.h"

#include <cmath>
#include <cstring>

namespace rawfx::reference {
namespace {

using namespace BarrelKeystone;

// Sample i of a pixel, through a byte pointer (16-bit rows may start at an odd address).
template <class Sample>
double SampleAt(const uint8_t* pixel, int i) {
  Sample s;
  std::memcpy(&s, pixel + i * sizeof(Sample), sizeof s);
  return s;
}

template <class Sample, bool kBilinear>
void* Barrel(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<BarrelDistortionParams*>(part.params);
  GenericMPParams& head = p.head;
  const double* k = p.keystone;
  const int sampleBytes = sizeof(Sample);
  const int channels = head.srcPixelBytes / sampleBytes;
  const int64_t step = head.dstPixelBytes / sampleBytes * sampleBytes;  // whole samples
  const auto* background =
      sizeof(Sample) == 1 ? p.backColor8 : reinterpret_cast<const uint8_t*>(p.backColor16);
  const double lastX = head.width - 1.0, lastY = head.height - 1.0;
  // The pixel at (column, row), or the background when it lies outside (NaN is outside).
  auto pixelAt = [&](double column, double row) -> const uint8_t* {
    if (!(column >= 0.0 && column <= lastX && row >= 0.0 && row <= lastY)) return background;
    return head.srcPixels + static_cast<int64_t>(row) * head.srcRowBytes +
           static_cast<int64_t>(column) * head.srcPixelBytes;
  };

  ForEachRow(part, head, [&](int32_t y) {
    uint8_t* out = head.dstPixels + int64_t{y} * head.dstRowBytes;
    const double ny = (y - p.centerY) / p.centerY;
    for (int32_t x = 0; x < head.width; ++x, out += step) {
      const double nx = (x - p.centerX) / p.centerX;
      const double r = ((nx * nx + ny * ny) * p.distortion + 1.0) / p.distortionPlusOne;
      const double u = nx * r, v = ny * r;
      const double X = u * k[k00] + v * k[k10] + k[k20];
      const double Y = u * k[k01] + v * k[k11] + k[k21];
      const double W = u * k[k02] + v * k[k12] + k[k22];
      const double sx = (X / W + 1.0) * p.centerX;
      const double sy = (Y / W + 1.0) * p.centerY;
      if (!kBilinear) {
        const bool inside = sx <= lastX && sy >= 0.0 && sx >= 0.0 && sy <= lastY;
        std::memcpy(out, inside ? pixelAt(sx, sy) : background, channels * sizeof(Sample));
        continue;
      }
      const double x0 = std::floor(sx), y0 = std::floor(sy);
      const uint8_t* tl = pixelAt(x0, y0);
      const uint8_t* tr = pixelAt(x0 + 1.0, y0);
      const uint8_t* bl = pixelAt(x0, y0 + 1.0);
      const uint8_t* br = pixelAt(x0 + 1.0, y0 + 1.0);
      double fx = std::fmod(sx, 1.0), fy = std::fmod(sy, 1.0);
      fx += fx < 0.0 ? 1.0 : 0.0;
      fy += fy < 0.0 ? 1.0 : 0.0;
      for (int i = 0; i < channels; ++i) {
        // Four background neighbours give the background exactly, also where the weights are NaN.
        const bool none = tl == background && tr == background && bl == background && br == background;
        const double upper = (SampleAt<Sample>(tr, i) - SampleAt<Sample>(tl, i)) * fx + SampleAt<Sample>(tl, i);
        const double lower = (SampleAt<Sample>(br, i) - SampleAt<Sample>(bl, i)) * fx + SampleAt<Sample>(bl, i);
        const Sample value = static_cast<Sample>(none ? SampleAt<Sample>(background, i) : (lower - upper) * fy + upper);
        std::memcpy(out + i * sizeof(Sample), &value, sizeof value);
      }
    }
  });
  part.done = 1;
  return nullptr;
}

}  // namespace

const PartTable kBarrelParts = {{Barrel<uint8_t, false>, Barrel<uint8_t, true>},
                                {Barrel<uint16_t, false>, Barrel<uint16_t, true>}};

}  // namespace rawfx::reference
