// The plain barrel distortion kernels. Every destination pixel is mapped back
// to a source position (radial rescaling about the centre, then the keystone
// matrix) and filled from the source there, or from the background colour.
// All arithmetic is double precision in a fixed order so results are exact to
// the bit; positions are never rounded, stored samples are truncated.
#include "support/barrel_reference.h"

#include <cmath>
#include <cstring>

namespace rawfx::reference {
namespace {

using namespace BarrelKeystone;

enum class Sampling { Nearest, Bilinear };

struct Position {
  double x;
  double y;
};

// The per-row share of the position formula.
struct RowTerms {
  double ny;
  double nySquared;
};

// Destination pixel -> source position, with the matrix cells and the radial
// terms loaded once per part.
struct SourceMapping {
  double m00, m01, m02, m10, m11, m12, m20, m21, m22;
  double distortion, distortionPlusOne, centerX, centerY;

  RowTerms Row(int32_t y) const {
    const double ny = (static_cast<double>(y) - centerY) / centerY;
    return {ny, ny * ny};
  }

  // NaN when the mapping is undefined there (distortion -1, or W = 0 with X or Y = 0).
  Position At(int32_t x, const RowTerms& row) const {
    const double nx = (static_cast<double>(x) - centerX) / centerX;
    const double r = ((nx * nx + row.nySquared) * distortion + 1.0) / distortionPlusOne;
    const double u = nx * r;
    const double v = row.ny * r;
    const double X = u * m00 + v * m10 + m20;
    const double Y = u * m01 + v * m11 + m21;
    const double W = u * m02 + v * m12 + m22;
    return {(X / W + 1.0) * centerX, (Y / W + 1.0) * centerY};
  }
};

SourceMapping MappingOf(const BarrelDistortionParams& p) {
  const double* k = p.keystone;
  return {k[k00], k[k01], k[k02], k[k10],       k[k11],  k[k12],
          k[k20], k[k21], k[k22], p.distortion, p.distortionPlusOne, p.centerX, p.centerY};
}

// Samples are read and written through byte pointers: 16-bit rows need not
// start on an even address when the companion pads them.
template <class Sample>
Sample LoadSample(const uint8_t* pixel, int channel) {
  Sample sample;
  std::memcpy(&sample, pixel + channel * sizeof(Sample), sizeof(Sample));
  return sample;
}

template <class Sample>
void StoreSample(uint8_t* pixel, int channel, Sample sample) {
  std::memcpy(pixel + channel * sizeof(Sample), &sample, sizeof(Sample));
}

template <class Sample>
void CopyPixel(uint8_t* out, const uint8_t* in, int channels) {
  for (int c = 0; c < channels; ++c) StoreSample<Sample>(out, c, LoadSample<Sample>(in, c));
}

// The source as the kernels see it. Bounds are doubles so that a position is
// tested before it is ever converted to an integer (NaN fails every test).
struct SourceImage {
  const uint8_t* pixels;
  int64_t rowBytes;
  int64_t pixelBytes;
  double lastColumn;
  double lastRow;
  const uint8_t* background;  // one sample per channel, in the bitmap's order

  bool Holds(double column, double row) const {
    return 0.0 <= column && column <= lastColumn && 0.0 <= row && row <= lastRow;
  }

  // column and row must have passed a bounds test: both are in range and >= 0,
  // so the conversion truncates toward zero without overflow.
  const uint8_t* PixelAt(double column, double row) const {
    return pixels + static_cast<int64_t>(row) * rowBytes + static_cast<int64_t>(column) * pixelBytes;
  }
};

template <class Sample>
const uint8_t* BackgroundOf(const BarrelDistortionParams& p) {
  if constexpr (sizeof(Sample) == 1)
    return p.backColor8;
  else
    return reinterpret_cast<const uint8_t*>(p.backColor16);
}

template <class Sample>
SourceImage SourceOf(const BarrelDistortionParams& p) {
  const GenericMPParams& head = p.head;
  return {head.srcPixels,
          head.srcRowBytes,
          head.srcPixelBytes,
          static_cast<double>(head.width) - 1.0,
          static_cast<double>(head.height) - 1.0,
          BackgroundOf<Sample>(p)};
}

template <class Sample>
void NearestPixel(uint8_t* out, const SourceImage& source, Position s, int channels) {
  const bool inside = s.x <= source.lastColumn && s.y >= 0.0 && s.x >= 0.0 && s.y <= source.lastRow;
  CopyPixel<Sample>(out, inside ? source.PixelAt(s.x, s.y) : source.background, channels);
}

// s - floor(s), in [0, 1].
double Fraction(double s) {
  double f = std::fmod(s, 1.0);
  if (f < 0.0) f += 1.0;
  return f;
}

template <class Sample>
void BlendPixel(uint8_t* out, const SourceImage& source, Position s, int channels) {
  const double x0 = std::floor(s.x);
  const double y0 = std::floor(s.y);
  const double x1 = x0 + 1.0;
  const double y1 = y0 + 1.0;
  const bool hasTopLeft = source.Holds(x0, y0);
  const bool hasTopRight = source.Holds(x1, y0);
  const bool hasBottomLeft = source.Holds(x0, y1);
  const bool hasBottomRight = source.Holds(x1, y1);
  // Four background neighbours blend to exactly the background. Taking it
  // directly also covers a non-finite position, whose weights are NaN.
  if (!hasTopLeft && !hasTopRight && !hasBottomLeft && !hasBottomRight) {
    CopyPixel<Sample>(out, source.background, channels);
    return;
  }
  const uint8_t* topLeft = hasTopLeft ? source.PixelAt(x0, y0) : source.background;
  const uint8_t* topRight = hasTopRight ? source.PixelAt(x1, y0) : source.background;
  const uint8_t* bottomLeft = hasBottomLeft ? source.PixelAt(x0, y1) : source.background;
  const uint8_t* bottomRight = hasBottomRight ? source.PixelAt(x1, y1) : source.background;
  const double fx = Fraction(s.x);
  const double fy = Fraction(s.y);
  for (int c = 0; c < channels; ++c) {
    const double tl = LoadSample<Sample>(topLeft, c);
    const double tr = LoadSample<Sample>(topRight, c);
    const double bl = LoadSample<Sample>(bottomLeft, c);
    const double br = LoadSample<Sample>(bottomRight, c);
    const double upper = (tr - tl) * fx + tl;
    const double lower = (br - bl) * fx + bl;
    const double value = (lower - upper) * fy + upper;
    // The value lies between the samples, so it fits the sample type; truncated.
    StoreSample<Sample>(out, c, static_cast<Sample>(value));
  }
}

template <class Sample, Sampling mode>
void* BarrelDistortPart(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& params = *static_cast<BarrelDistortionParams*>(part->params);
  GenericMPParams& head = params.head;
  constexpr int kSampleBytes = sizeof(Sample);
  const SourceMapping mapping = MappingOf(params);
  const SourceImage source = SourceOf<Sample>(params);
  const int channels = head.srcPixelBytes / kSampleBytes;
  // Whole samples only: a 16-bit destination steps by an even number of bytes.
  const int64_t dstStep = head.dstPixelBytes / kSampleBytes * kSampleBytes;

  for (int32_t y = part->firstRow; y < part->endRow; ++y) {
    const RowTerms row = mapping.Row(y);
    uint8_t* out = head.dstPixels + static_cast<int64_t>(y) * head.dstRowBytes;
    for (int32_t x = 0; x < head.width; ++x, out += dstStep) {
      const Position s = mapping.At(x, row);
      if constexpr (mode == Sampling::Nearest)
        NearestPixel<Sample>(out, source, s, channels);
      else
        BlendPixel<Sample>(out, source, s, channels);
    }
    if (!rawfx::FinishRow(head)) break;
  }
  part->done = 1;
  return nullptr;
}

}  // namespace

void* BarrelDistort8BitPart(void* block) { return BarrelDistortPart<uint8_t, Sampling::Nearest>(block); }
void* BarrelDistortInterpolate8BitPart(void* block) { return BarrelDistortPart<uint8_t, Sampling::Bilinear>(block); }
void* BarrelDistort16BitPart(void* block) { return BarrelDistortPart<uint16_t, Sampling::Nearest>(block); }
void* BarrelDistortInterpolate16BitPart(void* block) { return BarrelDistortPart<uint16_t, Sampling::Bilinear>(block); }

}  // namespace rawfx::reference
