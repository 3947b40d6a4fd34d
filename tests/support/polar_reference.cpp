#include "support/references.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace rawfx::reference {
namespace {

using namespace rawfx::polar;

// A coordinate is inside when it rounds (half up, by truncation) to one of
// size pixels. The range is tested before the conversion: NaN, infinities and
// coordinates that do not truncate into a signed 32-bit integer are outside.
bool RoundsInto(double v, int32_t size) {
  const double rounded = v + 0.5;
  return rounded > -2147483649.0 && rounded < 2147483648.0 && static_cast<int32_t>(rounded) >= 0 &&
         static_cast<int32_t>(rounded) <= int64_t{size} - 1;
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
  const double cx = s.centerX, cy = s.centerY;
  const double width = s.width, height = s.height;
  const AngleAndDistance polar = AngleAndDistanceOf(x, y, cx, cy);

  const double slope = x != cx ? std::fabs((y - cy) / (x - cx)) : 0.0;
  // The ray leaves through a side when the whole sizes' ratio is at least the slope.
  const double border = height / width >= slope ? (x != cx ? std::sqrt((slope * cx) * (slope * cx) + cx * cx) : cy)
                                                : std::sqrt(cy * cy + (cy / slope) * (cy / slope));
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
  const double width = s.width, height = s.height;
  const double column = s.flipMapping ? x : width - x;
  const double a = std::fmod(s.angleOffset + (column * kTwoPi) / width, kTwoPi);
  const double phi = FoldToQuadrant(a);

  // The whole sizes halved: this direction centres on the middle of the bitmap's area.
  const double hw = width * 0.5, hh = height * 0.5;
  const double tanPhi = std::tan(phi);
  const double cotangent = tanPhi != 0.0 ? 1.0 / tanPhi : 0.0;
  // The ray leaves through a side when the whole sizes' ratio is at least the cotangent.
  const bool throughSide = height / width >= cotangent;
  const double ex = !throughSide ? hh / cotangent : phi == 0.0 ? 0.0 : hw;
  const double ey = !throughSide ? hh : phi == 0.0 ? hh : hw * cotangent;
  const double border = std::sqrt(ey * ey + ex * ex);
  const double radius = PolarRadius(s.roundness, border, std::min(hh, hw));

  const double fromCentre = s.centerAtTop ? y : height - y;
  const double r = (fromCentre / height) * radius;
  const double dx = std::sin(phi) * r, dy = r * std::cos(phi);
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

template <class Sample>
void* Polar(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<PolarCoordinatesParams*>(part.params);
  GenericMPParams& head = p.head;
  PolarizeSettings s = p.settings;  // the part's own copy, with the geometry filled in
  s.width = head.width;
  s.height = head.height;
  s.centerX = static_cast<double>(int64_t{head.width} - 1) * 0.5;
  s.centerY = static_cast<double>(int64_t{head.height} - 1) * 0.5;
  const int n = std::clamp<int>(head.srcPixelBytes / static_cast<int>(sizeof(Sample)), 0, kMaxSamples);
  const auto* background =
      reinterpret_cast<const Sample*>(sizeof(Sample) == 1 ? p.backColor8 : static_cast<void*>(p.backColor16));
  // Source offsets are signed 32-bit products: a source whose offsets do not
  // all fit is never read, so no offset can wrap outside the bitmap.
  const int64_t lastRowOffset = int64_t{head.srcRowBytes} * std::max(head.height - 1, 0);
  const int64_t lastColumnOffset = int64_t{head.srcPixelBytes} * std::max(head.width - 1, 0);
  const bool addressable = lastRowOffset == static_cast<int32_t>(lastRowOffset) &&
                           lastColumnOffset == static_cast<int32_t>(lastColumnOffset);
  auto sourcePixel = [&](int32_t u, int32_t v) {
    return reinterpret_cast<const Sample*>(head.srcPixels + head.srcRowBytes * v + head.srcPixelBytes * u);
  };

  ForEachRow(part, head, [&](int32_t y) {
    auto* dst = reinterpret_cast<Sample*>(head.dstPixels + int64_t{head.dstRowBytes} * y);
    for (int32_t x = 0; x < s.width; ++x, dst += head.dstPixelBytes / static_cast<int>(sizeof(Sample))) {
      double sx, sy;
      if (!addressable || !reference::CalculateUndistortedCoordinates(x, y, &sx, &sy, &s)) {
        std::copy_n(background, n, dst);
        continue;
      }
      // Accepted: -1.5 < sx < W - 0.5 and likewise sy, so every truncation fits.
      const int32_t ix = static_cast<int32_t>(sx), iy = static_cast<int32_t>(sy);
      // A neighbour past the last row or column is outside as well: that
      // matters only just above or left of pixel 0 in a bitmap one pixel high or wide.
      const bool lowerOut = iy < 0 || static_cast<int32_t>(sy + 1.0) >= s.height || iy + 1 >= s.height;
      const bool rightOut = ix < 0 || static_cast<int32_t>(sx + 1.0) >= s.width || ix + 1 >= s.width;
      const Sample* p00 = sourcePixel(ix, iy);
      const Sample* p10 = rightOut ? background : sourcePixel(ix + 1, iy);
      const Sample* p01 = lowerOut ? background : sourcePixel(ix, iy + 1);
      const Sample* p11 = rightOut || lowerOut ? background : sourcePixel(ix + 1, iy + 1);
      double fx = std::fmod(sx, 1.0), fy = std::fmod(sy, 1.0);
      if (fx < 0.0) fx += 1.0;
      if (fy < 0.0) fy += 1.0;
      for (int i = 0; i < n; ++i) {
        const double top = (static_cast<double>(p10[i]) - p00[i]) * fx + p00[i];
        const double bottom = (static_cast<double>(p11[i]) - p01[i]) * fx + p01[i];
        dst[i] = static_cast<Sample>(static_cast<int32_t>((bottom - top) * fy + top));
      }
    }
  });
  part.done = 1;
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
  if (!RoundsInto(sx, settings->width) || !RoundsInto(sy, settings->height)) return false;
  *sourceX = sx;
  *sourceY = sy;
  return true;
}

const PartTable kPolarParts = {{Polar<uint8_t>, Polar<uint8_t>}, {Polar<uint16_t>, Polar<uint16_t>}};

}  // namespace rawfx::reference
