#include "support/polar_reference.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace rawfx::reference {
namespace {

// The angle constants, exactly these doubles: their last bits decide the results.
constexpr double kHalfPi = 1.5707963267948966;
constexpr double kPi = 3.141592653589793;
constexpr double kThreeHalfPi = 4.71238898038469;
constexpr double kTwoPi = 6.283185307179586;

constexpr int kMaxSamples = 8;  // entries of the background arrays

// True when v truncates to a signed 32-bit integer without leaving its range (false for NaN).
bool TruncationFitsInt32(double v) { return v > -2147483649.0 && v < 2147483648.0; }

// A position is inside when it rounds (half up, by truncation) to a pixel of the bitmap.
// The range is tested before any conversion: non-finite or huge positions are outside.
bool InsideSource(double sx, double sy, int32_t width, int32_t height) {
  if (!std::isfinite(sx) || !std::isfinite(sy)) return false;
  const double roundedX = sx + 0.5;
  const double roundedY = sy + 0.5;
  if (!TruncationFitsInt32(roundedX) || !TruncationFitsInt32(roundedY)) return false;
  const int64_t column = static_cast<int32_t>(roundedX);
  const int64_t row = static_cast<int32_t>(roundedY);
  return column >= 0 && column <= int64_t{width} - 1 && row >= 0 && row <= int64_t{height} - 1;
}

// (100 - roundness) percent of the way from the inscribed radius m out to the border e.
double PolarRadius(double roundness, double borderDistance, double inscribed) {
  return (100.0 - roundness) * ((borderDistance - inscribed) / 100.0) + inscribed;
}

struct AngleAndDistance {
  double angle;     // clockwise from straight up
  double distance;  // from the centre
};

// Where (x, y) lies seen from the centre (cx, cy); rows run downward. A NaN
// coordinate falls into one of the branches and carries its NaN on.
AngleAndDistance AngleAndDistanceOf(double x, double y, double cx, double cy) {
  if (x >= cx) {
    if (y < cy) return {std::atan((x - cx) / (cy - y)), std::sqrt((cy - y) * (cy - y) + (x - cx) * (x - cx))};
    if (y == cy) return {kHalfPi, x - cx};
    return {kPi - std::atan((x - cx) / (y - cy)), std::sqrt((y - cy) * (y - cy) + (x - cx) * (x - cx))};
  }
  if (y > cy) return {std::atan((cx - x) / (y - cy)) + kPi, std::sqrt((y - cy) * (y - cy) + (cx - x) * (cx - x))};
  if (y == cy) return {kThreeHalfPi, cx - x};
  return {kTwoPi - std::atan((cx - x) / (cy - y)), std::sqrt((cy - y) * (cy - y) + (cx - x) * (cx - x))};
}

// The destination is the polar picture: angle picks the source column, distance the row.
void RectangularToPolarSource(double x, double y, const PolarizeSettings& s, double& sx, double& sy) {
  const double cx = s.centerX;
  const double cy = s.centerY;
  const double width = s.width;
  const double height = s.height;
  const AngleAndDistance polar = AngleAndDistanceOf(x, y, cx, cy);

  const double slope = x != cx ? std::fabs((y - cy) / (x - cx)) : 0.0;
  // The ray leaves through a side when the whole sizes' ratio is at least the slope.
  double border;
  if (height / width >= slope)
    border = x != cx ? std::sqrt((slope * cx) * (slope * cx) + cx * cx) : cy;
  else
    border = std::sqrt(cy * cy + (cy / slope) * (cy / slope));
  const double radius = PolarRadius(s.roundness, border, std::min(cx, cy));

  const double angle = std::fmod(s.angleOffset + polar.angle, kTwoPi);
  const double lastColumn = static_cast<double>(int64_t{s.width} - 1);
  const double columnsPerRadian = lastColumn / kTwoPi;
  sx = s.flipMapping ? columnsPerRadian * angle : lastColumn - columnsPerRadian * angle;

  const double rowsPerDistance = height / radius;
  sy = s.centerAtTop ? polar.distance * rowsPerDistance : height - polar.distance * rowsPerDistance;
}

// The angle a (one turn, clockwise from up) folded to 0..pi/2 from the vertical axis.
double FoldToQuadrant(double a) {
  if (a >= kThreeHalfPi) return kTwoPi - a;
  if (a >= kPi) return -kPi + a;
  if (a >= kHalfPi) return kPi - a;
  return a;
}

// The destination is the rectangular picture: column x is an angle, row y a distance.
void PolarToRectangularSource(double x, double y, const PolarizeSettings& s, double& sx, double& sy) {
  const double width = s.width;
  const double height = s.height;
  const double column = s.flipMapping ? x : width - x;
  const double a = std::fmod(s.angleOffset + (column * kTwoPi) / width, kTwoPi);
  const double phi = FoldToQuadrant(a);

  // The whole sizes halved: this direction centres on the middle of the bitmap's area.
  const double hw = width * 0.5;
  const double hh = height * 0.5;
  const double tanPhi = std::tan(phi);
  const double cotangent = tanPhi != 0.0 ? 1.0 / tanPhi : 0.0;
  double ex, ey;
  if (height / width >= cotangent) {
    ex = phi == 0.0 ? 0.0 : hw;
    ey = phi == 0.0 ? hh : hw * cotangent;
  } else {
    ex = hh / cotangent;
    ey = hh;
  }
  const double border = std::sqrt(ey * ey + ex * ex);
  const double radius = PolarRadius(s.roundness, border, std::min(hh, hw));

  const double fromCentre = s.centerAtTop ? y : height - y;
  const double r = (fromCentre / height) * radius;
  const double dx = std::sin(phi) * r;
  const double dy = r * std::cos(phi);
  if (a >= kThreeHalfPi) {
    sx = hw - dx, sy = hh - dy;
  } else if (a >= kPi) {
    sx = hw - dx, sy = hh + dy;
  } else if (a >= kHalfPi) {
    sx = hw + dx, sy = hh + dy;
  } else {
    sx = hw + dx, sy = hh - dy;
  }
}

// What one part needs for every pixel, worked out before its first row.
template <class Sample>
struct PartContext {
  PolarizeSettings settings;  // the part's own copy, geometry filled in
  const uint8_t* srcPixels;
  int32_t srcRowBytes;
  int32_t srcPixelBytes;
  int channels;  // samples per pixel, at most the background's eight
  int64_t dstStep;  // in samples
  const Sample* background;
  // Source offsets are signed 32-bit products; a source too large for them is
  // never read, so no offset can wrap to memory outside the bitmap.
  bool sourceAddressable;
};

bool ProductFitsInt32(int64_t a, int64_t b) {
  const int64_t product = a * b;
  return product >= std::numeric_limits<int32_t>::min() && product <= std::numeric_limits<int32_t>::max();
}

// True when every row offset and every column offset of the source fits 32 bits.
bool SourceOffsetsFitInt32(const GenericMPParams& head) {
  const int64_t lastRow = std::max<int64_t>(int64_t{head.height} - 1, 0);
  const int64_t lastColumn = std::max<int64_t>(int64_t{head.width} - 1, 0);
  return ProductFitsInt32(head.srcRowBytes, lastRow) && ProductFitsInt32(head.srcPixelBytes, lastColumn);
}

template <class Sample>
const Sample* BackgroundOf(const PolarCoordinatesParams& p) {
  if constexpr (sizeof(Sample) == 1)
    return p.backColor8;
  else
    return p.backColor16;
}

template <class Sample>
PartContext<Sample> MakePartContext(const PolarCoordinatesParams& p) {
  const GenericMPParams& head = p.head;
  PartContext<Sample> c{};
  c.settings = p.settings;
  c.settings.width = head.width;
  c.settings.height = head.height;
  c.settings.centerX = static_cast<double>(int64_t{head.width} - 1) * 0.5;
  c.settings.centerY = static_cast<double>(int64_t{head.height} - 1) * 0.5;
  c.srcPixels = head.srcPixels;
  c.srcRowBytes = head.srcRowBytes;
  c.srcPixelBytes = head.srcPixelBytes;
  c.channels = std::clamp<int>(head.srcPixelBytes / static_cast<int>(sizeof(Sample)), 0, kMaxSamples);
  c.dstStep = head.dstPixelBytes / static_cast<int>(sizeof(Sample));
  c.background = BackgroundOf<Sample>(p);
  c.sourceAddressable = SourceOffsetsFitInt32(head);
  return c;
}

template <class Sample>
const Sample* SourcePixel(const PartContext<Sample>& c, int32_t column, int32_t row) {
  const int32_t rowOffset = c.srcRowBytes * row;
  const int32_t columnOffset = c.srcPixelBytes * column;
  return reinterpret_cast<const Sample*>(c.srcPixels + rowOffset + columnOffset);
}

// Bilinear sample at an accepted position. Acceptance gives -0.5 <= sx < W - 0.5
// (likewise sy), so every truncation here fits 32 bits and (ix, iy) is a source pixel.
template <class Sample>
void WriteSampledPixel(const PartContext<Sample>& c, double sx, double sy, Sample* dst) {
  const int32_t width = c.settings.width;
  const int32_t height = c.settings.height;
  const int32_t ix = static_cast<int32_t>(sx);
  const int32_t iy = static_cast<int32_t>(sy);
  // Besides the truncation tests, a neighbour past the last row or column is
  // outside: that only adds to them for positions just above or left of pixel 0
  // in a bitmap one pixel high or wide, which they would read beyond.
  const bool lowerOutside = iy < 0 || static_cast<int32_t>(sy + 1.0) >= height || iy + 1 >= height;
  const bool rightOutside = ix < 0 || static_cast<int32_t>(sx + 1.0) >= width || ix + 1 >= width;

  // A neighbour outside the source is the background pixel itself.
  const Sample* p00 = SourcePixel(c, ix, iy);
  const Sample* p10 = rightOutside ? c.background : SourcePixel(c, ix + 1, iy);
  const Sample* p01 = lowerOutside ? c.background : SourcePixel(c, ix, iy + 1);
  const Sample* p11 = rightOutside || lowerOutside ? c.background : SourcePixel(c, ix + 1, iy + 1);

  double fx = std::fmod(sx, 1.0);
  if (fx < 0.0) fx += 1.0;
  double fy = std::fmod(sy, 1.0);
  if (fy < 0.0) fy += 1.0;

  for (int i = 0; i < c.channels; ++i) {
    const double top = (static_cast<double>(p10[i]) - p00[i]) * fx + p00[i];
    const double bottom = (static_cast<double>(p11[i]) - p01[i]) * fx + p01[i];
    const double value = (bottom - top) * fy + top;
    // A blend of samples stays within the samples' range, so the conversion is in range.
    dst[i] = static_cast<Sample>(static_cast<int32_t>(value));
  }
}

template <class Sample>
void MapRow(PartContext<Sample>& c, const GenericMPParams& head, int32_t row) {
  const int32_t width = c.settings.width;
  if (width <= 0) return;
  Sample* dst = reinterpret_cast<Sample*>(head.dstPixels + int64_t{head.dstRowBytes} * row);
  const double y = row;
  for (int32_t x = 0; x < width; ++x, dst += c.dstStep) {
    double sx, sy;
    if (c.sourceAddressable && reference::CalculateUndistortedCoordinates(x, y, &sx, &sy, &c.settings))
      WriteSampledPixel(c, sx, sy, dst);
    else
      std::copy_n(c.background, c.channels, dst);
  }
}

template <class Sample>
void* PolarCoordinatesRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<PolarCoordinatesParams*>(part->params);
  PartContext<Sample> context = MakePartContext<Sample>(p);
  for (int32_t row = part->firstRow; row < part->endRow; ++row) {
    MapRow(context, p.head, row);
    if (!rawfx::FinishRow(p.head)) break;
  }
  part->done = 1;
  return nullptr;
}

}  // namespace

bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings) {
  double sx, sy;
  if (settings->rectangularToPolar)
    RectangularToPolarSource(x, y, *settings, sx, sy);
  else
    PolarToRectangularSource(x, y, *settings, sx, sy);
  if (!InsideSource(sx, sy, settings->width, settings->height)) return false;
  *sourceX = sx;
  *sourceY = sy;
  return true;
}

void* PolarCoordinatesPart(void* block) { return PolarCoordinatesRows<uint8_t>(block); }
void* PolarCoordinatesPart16(void* block) { return PolarCoordinatesRows<uint16_t>(block); }

}  // namespace rawfx::reference
