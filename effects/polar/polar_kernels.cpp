// The polar mapping and its part functions, arranged so that no value is
// computed twice where the plain per-pixel evaluation would compute it again
// with the same operands. Every shortcut gives exactly the double that the
// plain evaluation gives, so the bytes are the same as mapping every pixel in
// full (the differential test holds the two side by side):
// - what depends only on the row or only on the run is computed once for it;
// - rectangular to polar: a pixel and its mirror about the centre column see
//   the centre at the same distance, so they share one atan and one sqrt;
// - polar to rectangular: what depends only on the column comes from the run's
//   column table when the effect made one;
// - fmod is replaced where it is exact to do so without the call;
// - an AVX2 path maps four pixel pairs or columns at once and blends the
//   channels of a pixel in one vector, with the same operations in the same order.
// Measured on the project's machine (2 cores, x86-64 with AVX2, shared and
// noisy: best of several runs), 2048 x 2048 at one thread, against the plain
// per-pixel kernels: rectangular to polar 4.2x (8-bit RGBA) and 3.7x (16-bit
// RGB), polar to rectangular with the column table 9x and 7.8x (about 2.2x
// without it); the portable path alone 2.4x and 5.5x.
#include "effects/polar/polar_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include <immintrin.h>

#include "imaging/cpu_dispatch.h"

namespace {

// The angle constants, exactly these doubles: their last bits decide the results.
constexpr double kHalfPi = 1.5707963267948966;
constexpr double kPi = 3.141592653589793;
constexpr double kThreeHalfPi = 4.71238898038469;
constexpr double kTwoPi = 6.283185307179586;

constexpr int kMaxSamples = 8;  // entries of the background arrays

// True when v truncates to a signed 32-bit integer without leaving its range (false for NaN).
bool TruncationFitsInt32(double v) { return v > -2147483649.0 && v < 2147483648.0; }

// One coordinate of the acceptance test: it rounds (half up, by truncation) to
// 0 .. size - 1. A NaN or infinite coordinate, or a huge one, fails the range
// test before any conversion, which is the same as testing finiteness first.
bool RoundsIntoRange(double v, int32_t size) {
  const double rounded = v + 0.5;
  if (!TruncationFitsInt32(rounded)) return false;
  const int64_t index = static_cast<int32_t>(rounded);
  return index >= 0 && index <= int64_t{size} - 1;
}

// fmod(v, 2 pi) without the call where fmod returns its argument unchanged
// (0 <= v < 2 pi, -0 included); everything else still goes through fmod.
double WrapIntoTurn(double v) { return v >= 0.0 && v < kTwoPi ? v : std::fmod(v, kTwoPi); }

// fmod(s, 1.0), plus 1 when negative, for a finite s. s - trunc(s) is exact
// (both are multiples of the last place of s, and the difference is below 1),
// and fmod's result is that exact value with the sign of s, also when it is 0.
[[gnu::always_inline]] inline double BlendWeight(double s) {
  double weight = std::copysign(s - std::trunc(s), s);
  if (weight < 0.0) weight += 1.0;
  return weight;
}

// (100 - roundness) percent of the way from the inscribed radius m out to the
// border e; shareOfBorder is the (100 - roundness) of the run.
double PolarRadius(double shareOfBorder, double borderDistance, double inscribed) {
  return shareOfBorder * ((borderDistance - inscribed) / 100.0) + inscribed;
}

// ---- the run's geometry -----------------------------------------------------------

// Everything the mapping needs that depends on neither the row nor the column.
struct Geometry {
  int32_t width, height;
  double widthD, heightD;   // the sizes as doubles
  double heightPerWidth;    // H / W, the whole sizes' ratio
  double shareOfBorder;     // 100 - roundness
  double angleOffset;
  bool flipMapping, centerAtTop;
  // Rectangular to polar.
  double cx, cy, cxSquared, cySquared;
  double inscribedR2P;      // min(cx, cy)
  double lastColumn;        // W - 1
  double columnsPerRadian;  // (W - 1) / 2 pi
  // Polar to rectangular.
  double hw, hh;            // the whole sizes halved
  double inscribedP2R;      // min(hh, hw)
};

Geometry GeometryOf(const PolarizeSettings& s) {
  Geometry g{};
  g.width = s.width;
  g.height = s.height;
  g.widthD = s.width;
  g.heightD = s.height;
  g.heightPerWidth = g.heightD / g.widthD;
  g.shareOfBorder = 100.0 - s.roundness;
  g.angleOffset = s.angleOffset;
  g.flipMapping = s.flipMapping != 0;
  g.centerAtTop = s.centerAtTop != 0;
  g.cx = s.centerX;
  g.cy = s.centerY;
  g.cxSquared = g.cx * g.cx;
  g.cySquared = g.cy * g.cy;
  g.inscribedR2P = std::min(g.cx, g.cy);
  g.lastColumn = static_cast<double>(int64_t{s.width} - 1);
  g.columnsPerRadian = g.lastColumn / kTwoPi;
  g.hw = g.widthD * 0.5;
  g.hh = g.heightD * 0.5;
  g.inscribedP2R = std::min(g.hh, g.hw);
  return g;
}

// ---- rectangular to polar ---------------------------------------------------------
//
// The destination pixel (x, y) is seen from the centre (cx, cy). cx is
// (W - 1) * 0.5, a multiple of 0.5, and x is whole, so x - cx is exact; for the
// mirror column x' = W - 1 - x, cx - x' is the same exact double. A pixel right
// of the centre and its mirror therefore share the atan argument, the distance,
// the slope (whose sign fabs drops), the border distance, the radius and the
// source row; only the angle's formula differs. u below is that shared offset.

enum class RowSide { Above, OnCentre, Below };

// What depends only on the row.
struct PolarRow {
  RowSide side;
  double offset;         // y - cy, the slope's numerator
  double along;          // cy - y above the centre, y - cy below: the atan denominator
  double alongSquared;   // along * along
};

// Rows are told apart as the mapping's table does: y < cy, then y == cy. Its
// table puts a NaN row below the centre on the right and above it on the left;
// here it is below on both sides, which changes nothing, as its distance is NaN.
PolarRow PolarRowOf(double y, const Geometry& g) {
  PolarRow row{};
  row.offset = y - g.cy;
  if (y < g.cy) {
    row.side = RowSide::Above;
    row.along = g.cy - y;
  } else if (y == g.cy) {
    row.side = RowSide::OnCentre;
  } else {
    row.side = RowSide::Below;
    row.along = y - g.cy;
  }
  row.alongSquared = row.along * row.along;
  return row;
}

// Distance from the centre to the border along the ray of slope s; u == 0 is
// the vertical ray (x == cx, where the slope is taken as 0).
double BorderDistance(double slope, double u, const Geometry& g) {
  if (g.heightPerWidth >= slope) {
    if (u == 0.0) return g.cy;
    const double rise = slope * g.cx;
    return std::sqrt(rise * rise + g.cxSquared);
  }
  const double run = g.cy / slope;
  return std::sqrt(g.cySquared + run * run);
}

// What a pixel shares with its mirror: the distance from the centre and the source row.
struct Ray {
  double distance;
  double sourceY;
};

Ray RayOf(double u, const PolarRow& row, const Geometry& g) {
  Ray ray{};
  ray.distance = row.side == RowSide::OnCentre ? u : std::sqrt(row.alongSquared + u * u);
  const double slope = u != 0.0 ? std::fabs(row.offset / u) : 0.0;
  const double radius = PolarRadius(g.shareOfBorder, BorderDistance(slope, u, g), g.inscribedR2P);
  const double rowsPerDistance = g.heightD / radius;
  ray.sourceY = g.centerAtTop ? ray.distance * rowsPerDistance : g.heightD - ray.distance * rowsPerDistance;
  return ray;
}

// The angles, clockwise from straight up, of the pixel right of the centre
// (x >= cx) and of its mirror left of it.
struct MirrorAngles {
  double right;
  double left;
};

MirrorAngles AnglesOf(double u, const PolarRow& row) {
  if (row.side == RowSide::OnCentre) return {kHalfPi, kThreeHalfPi};
  const double t = std::atan(u / row.along);
  if (row.side == RowSide::Above) return {t, kTwoPi - t};
  return {kPi - t, t + kPi};
}

double SourceColumnOf(double angle, const Geometry& g) {
  const double a = WrapIntoTurn(g.angleOffset + angle);
  return g.flipMapping ? g.columnsPerRadian * a : g.lastColumn - g.columnsPerRadian * a;
}

// ---- polar to rectangular ---------------------------------------------------------

// The angle a (one turn, clockwise from up) folded to 0..pi/2 from the vertical axis.
double FoldToQuadrant(double a) {
  if (a >= kThreeHalfPi) return kTwoPi - a;
  if (a >= kPi) return -kPi + a;
  if (a >= kHalfPi) return kPi - a;
  return a;
}

// Column x is an angle. hw - dx is hw + (-dx) in IEEE arithmetic and
// -(sin * r) is (-sin) * r, so the quadrant's signs can ride on the steps.
PolarColumn ColumnOf(double x, const Geometry& g) {
  const double column = g.flipMapping ? x : g.widthD - x;
  const double a = WrapIntoTurn(g.angleOffset + (column * kTwoPi) / g.widthD);
  const double phi = FoldToQuadrant(a);

  const double tanPhi = std::tan(phi);
  const double cotangent = tanPhi != 0.0 ? 1.0 / tanPhi : 0.0;
  double ex, ey;
  if (g.heightPerWidth >= cotangent) {
    ex = phi == 0.0 ? 0.0 : g.hw;
    ey = phi == 0.0 ? g.hh : g.hw * cotangent;
  } else {
    ex = g.hh / cotangent;
    ey = g.hh;
  }
  const double border = std::sqrt(ey * ey + ex * ex);

  PolarColumn c{};
  c.radius = PolarRadius(g.shareOfBorder, border, g.inscribedP2R);
  const double sinPhi = std::sin(phi);
  const double cosPhi = std::cos(phi);
  // The quadrants' branches, tested in the mapping's order (a NaN angle takes
  // the last one, though its sine and cosine make the position NaN anyway).
  const bool leftHalf = a >= kPi;                              // sx = hw - dx
  const bool upperHalf = a >= kThreeHalfPi || !(a >= kHalfPi);  // sy = hh - dy
  c.xStep = leftHalf ? -sinPhi : sinPhi;
  c.yStep = upperHalf ? -cosPhi : cosPhi;
  return c;
}

// The row's share of the radius: (yy / H).
double RowShareOf(double y, const Geometry& g) { return (g.centerAtTop ? y : g.heightD - y) / g.heightD; }

struct Position {
  double x, y;
};

Position PositionOf(const PolarColumn& c, double rowShare, const Geometry& g) {
  const double r = rowShare * c.radius;
  return {g.hw + c.xStep * r, g.hh + r * c.yStep};
}

bool TableFits(const PolarColumnTable* table, const PolarizeSettings& s) {
  return table && !s.rectangularToPolar && table->width == s.width && table->height == s.height &&
         table->flipMapping == (s.flipMapping != 0) &&
         std::memcmp(&table->roundness, &s.roundness, sizeof(double)) == 0 &&
         std::memcmp(&table->angleOffset, &s.angleOffset, sizeof(double)) == 0;
}

// ---- the parts ----------------------------------------------------------------------

// What one part needs for every pixel, worked out before its first row.
template <class Sample>
struct PartContext {
  Geometry geometry;
  const uint8_t* srcPixels;
  int32_t srcRowBytes;
  int32_t srcPixelBytes;
  int channels;     // samples per pixel, at most the background's eight
  int64_t dstStep;  // in samples
  const Sample* background;
  // Source offsets are signed 32-bit products; a source too large for them is
  // never read, so no offset can wrap to memory outside the bitmap.
  bool sourceAddressable;
  const PolarColumn* columns;  // the run's column table, or nil
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

// A copy of options with the geometry of a width x height bitmap filled in.
PolarizeSettings WithGeometry(const PolarizeSettings& options, int32_t width, int32_t height) {
  PolarizeSettings s = options;
  s.width = width;
  s.height = height;
  s.centerX = static_cast<double>(int64_t{width} - 1) * 0.5;
  s.centerY = static_cast<double>(int64_t{height} - 1) * 0.5;
  return s;
}

template <class Sample>
PartContext<Sample> MakePartContext(const PolarCoordinatesParams& p) {
  const GenericMPParams& head = p.head;
  const PolarizeSettings settings = WithGeometry(p.settings, head.width, head.height);  // the part's own copy
  PartContext<Sample> c{};
  c.geometry = GeometryOf(settings);
  c.srcPixels = head.srcPixels;
  c.srcRowBytes = head.srcRowBytes;
  c.srcPixelBytes = head.srcPixelBytes;
  c.channels = std::clamp<int>(head.srcPixelBytes / static_cast<int>(sizeof(Sample)), 0, kMaxSamples);
  c.dstStep = head.dstPixelBytes / static_cast<int>(sizeof(Sample));
  c.background = BackgroundOf<Sample>(p);
  c.sourceAddressable = SourceOffsetsFitInt32(head);
  c.columns = TableFits(p.columnTable, settings) ? p.columnTable->Columns() : nullptr;
  return c;
}

template <class Sample>
const Sample* SourcePixel(const PartContext<Sample>& c, int32_t column, int32_t row) {
  const int32_t rowOffset = c.srcRowBytes * row;
  const int32_t columnOffset = c.srcPixelBytes * column;
  return reinterpret_cast<const Sample*>(c.srcPixels + rowOffset + columnOffset);
}

template <class Sample, int N>
void WriteBackground(const PartContext<Sample>& c, Sample* dst) {
  std::copy_n(c.background, N, dst);
}

// The four neighbours of an accepted position and its blend weights.
// Acceptance gives -1.5 < sx < W - 0.5 (likewise sy), so every truncation here
// fits 32 bits. The effect's own settings keep accepted positions at 0 or more;
// hand-built ones that accept a position at or below -1 make P00 the pixel in
// column or row -1, addressed as the mapping defines it.
template <class Sample>
struct Neighbours {
  const Sample* p00;
  const Sample* p10;
  const Sample* p01;
  const Sample* p11;
  double fx, fy;
};

template <class Sample>
[[gnu::always_inline]] inline Neighbours<Sample> NeighboursOf(const PartContext<Sample>& c, double sx, double sy) {
  const int32_t width = c.geometry.width;
  const int32_t height = c.geometry.height;
  const int32_t ix = static_cast<int32_t>(sx);
  const int32_t iy = static_cast<int32_t>(sy);
  // Besides the truncation tests, a neighbour past the last row or column is
  // outside: that only adds to them for positions just above or left of pixel 0
  // in a bitmap one pixel high or wide, which they would read beyond.
  const bool lowerOutside = iy < 0 || static_cast<int32_t>(sy + 1.0) >= height || iy + 1 >= height;
  const bool rightOutside = ix < 0 || static_cast<int32_t>(sx + 1.0) >= width || ix + 1 >= width;

  // A neighbour outside the source is the background pixel itself.
  Neighbours<Sample> n{};
  n.p00 = SourcePixel(c, ix, iy);
  n.p10 = rightOutside ? c.background : SourcePixel(c, ix + 1, iy);
  n.p01 = lowerOutside ? c.background : SourcePixel(c, ix, iy + 1);
  n.p11 = rightOutside || lowerOutside ? c.background : SourcePixel(c, ix + 1, iy + 1);
  n.fx = BlendWeight(sx);
  n.fy = BlendWeight(sy);
  return n;
}

// Bilinear sample at an accepted position.
template <class Sample, int N>
void WriteBlend(const PartContext<Sample>& c, double sx, double sy, Sample* dst) {
  const Neighbours<Sample> n = NeighboursOf(c, sx, sy);
  for (int i = 0; i < N; ++i) {
    const double top = (static_cast<double>(n.p10[i]) - n.p00[i]) * n.fx + n.p00[i];
    const double bottom = (static_cast<double>(n.p11[i]) - n.p01[i]) * n.fx + n.p01[i];
    const double value = (bottom - top) * n.fy + top;
    // A blend of samples stays within the samples' range, so the conversion is in range.
    dst[i] = static_cast<Sample>(static_cast<int32_t>(value));
  }
}

// A destination pixel whose source row already passed the acceptance test.
template <class Sample, int N>
void WriteAtColumn(const PartContext<Sample>& c, double sx, double sy, Sample* dst) {
  if (RoundsIntoRange(sx, c.geometry.width))
    WriteBlend<Sample, N>(c, sx, sy, dst);
  else
    WriteBackground<Sample, N>(c, dst);
}

template <class Sample, int N>
void WritePosition(const PartContext<Sample>& c, const Position& at, Sample* dst) {
  if (RoundsIntoRange(at.y, c.geometry.height))
    WriteAtColumn<Sample, N>(c, at.x, at.y, dst);
  else
    WriteBackground<Sample, N>(c, dst);
}

// ---- portable rows ------------------------------------------------------------------

// The pixel in column `right` (>= cx) and its mirror W - 1 - right, which is the
// same pixel when right == cx.
template <class Sample, int N>
void MapMirrorPair(const PartContext<Sample>& c, const PolarRow& row, int32_t right, Sample* dst) {
  const Geometry& g = c.geometry;
  const int32_t left = g.width - 1 - right;
  Sample* rightPixel = dst + c.dstStep * right;
  Sample* leftPixel = dst + c.dstStep * left;
  const double u = right - g.cx;
  const Ray ray = RayOf(u, row, g);
  if (!RoundsIntoRange(ray.sourceY, g.height)) {
    WriteBackground<Sample, N>(c, rightPixel);
    if (left != right) WriteBackground<Sample, N>(c, leftPixel);
    return;
  }
  const MirrorAngles angles = AnglesOf(u, row);
  WriteAtColumn<Sample, N>(c, SourceColumnOf(angles.right, g), ray.sourceY, rightPixel);
  if (left != right) WriteAtColumn<Sample, N>(c, SourceColumnOf(angles.left, g), ray.sourceY, leftPixel);
}

// Columns are taken in mirror pairs from the centre outward; the writes of a
// row go to distinct pixels, so their order does not matter.
template <class Sample, int N>
void RectangularToPolarRow(const PartContext<Sample>& c, int32_t y, Sample* dst) {
  const PolarRow row = PolarRowOf(y, c.geometry);
  for (int32_t right = c.geometry.width / 2; right < c.geometry.width; ++right)
    MapMirrorPair<Sample, N>(c, row, right, dst);
}

template <class Sample>
PolarColumn ColumnAt(const PartContext<Sample>& c, int32_t x) {
  return c.columns ? c.columns[x] : ColumnOf(x, c.geometry);
}

template <class Sample, int N>
void PolarToRectangularRow(const PartContext<Sample>& c, int32_t y, Sample* dst) {
  const double rowShare = RowShareOf(y, c.geometry);
  for (int32_t x = 0; x < c.geometry.width; ++x)
    WritePosition<Sample, N>(c, PositionOf(ColumnAt(c, x), rowShare, c.geometry), dst + c.dstStep * x);
}

// ---- AVX2 rows ----------------------------------------------------------------------
//
// Four mirror pairs or four columns at a time. Only +, -, *, / and sqrt, which
// are correctly rounded in every lane exactly as in scalar code, and exact
// operations (truncation, sign masks, blends, comparisons) are used, each in the
// order of the portable code; atan and fmod stay scalar library calls.

#define RAWFX_AVX2 __attribute__((target("avx2")))

// RoundsIntoRange in four lanes (all bits set where inside). The truncated
// value is compared as a double: it is a whole number, so that is exact.
RAWFX_AVX2 inline __m256d RoundsIntoRange4(__m256d v, int32_t size) {
  const __m256d rounded = _mm256_add_pd(v, _mm256_set1_pd(0.5));
  const __m256d fits = _mm256_and_pd(_mm256_cmp_pd(rounded, _mm256_set1_pd(-2147483649.0), _CMP_GT_OQ),
                                     _mm256_cmp_pd(rounded, _mm256_set1_pd(2147483648.0), _CMP_LT_OQ));
  const __m256d index = _mm256_round_pd(rounded, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m256d last = _mm256_set1_pd(static_cast<double>(int64_t{size} - 1));
  const __m256d inRange = _mm256_and_pd(_mm256_cmp_pd(index, _mm256_setzero_pd(), _CMP_GE_OQ),
                                        _mm256_cmp_pd(index, last, _CMP_LE_OQ));
  return _mm256_and_pd(fits, inRange);
}

RAWFX_AVX2 inline __m256d Select(__m256d whenTrue, __m256d whenFalse, __m256d mask) {
  return _mm256_blendv_pd(whenFalse, whenTrue, mask);
}

// kBytes bytes (at most 8) from p, little-endian, the rest 0. Pieced together
// in a register from loads of exactly those bytes: never past the last pixel of
// a buffer, and no wide reload of narrow stores.
template <int kBytes>
inline uint64_t LoadBytes(const uint8_t* p) {
  if constexpr (kBytes >= 8) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
  } else if constexpr (kBytes >= 4) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v | LoadBytes<kBytes - 4>(p + 4) << 32;
  } else if constexpr (kBytes >= 2) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v | LoadBytes<kBytes - 2>(p + 2) << 16;
  } else if constexpr (kBytes == 1) {
    return *p;
  } else {
    return 0;
  }
}

// The first kCount samples of a pixel as doubles (the other lanes 0).
template <class Sample, int kCount>
RAWFX_AVX2 inline __m256d LoadSamples(const Sample* p) {
  const __m128i bits = _mm_cvtsi64_si128(
      static_cast<int64_t>(LoadBytes<kCount * sizeof(Sample)>(reinterpret_cast<const uint8_t*>(p))));
  if constexpr (sizeof(Sample) == 1)
    return _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(bits));
  else
    return _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(bits));
}

// Stores the first kCount truncated values. They lie within the sample range
// (a blend never leaves the range of its samples), so the saturating packs
// change nothing and equal the scalar narrowing.
template <class Sample, int kCount>
RAWFX_AVX2 inline void StoreSamples(Sample* dst, __m256d values) {
  const __m128i wide = _mm256_cvttpd_epi32(values);
  const __m128i narrow = _mm_packus_epi32(wide, wide);
  if constexpr (sizeof(Sample) == 1) {
    const uint32_t bits = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(narrow, narrow)));
    std::memcpy(dst, &bits, kCount);
  } else {
    const uint64_t bits = static_cast<uint64_t>(_mm_cvtsi128_si64(narrow));
    std::memcpy(dst, &bits, kCount * sizeof(Sample));
  }
}

// Channels kFirst .. kFirst + kCount - 1 of the blend, in the scalar order.
template <class Sample, int kFirst, int kCount>
RAWFX_AVX2 inline void BlendChannels(const Neighbours<Sample>& n, Sample* dst) {
  const __m256d fx = _mm256_set1_pd(n.fx);
  const __m256d fy = _mm256_set1_pd(n.fy);
  const __m256d p00 = LoadSamples<Sample, kCount>(n.p00 + kFirst);
  const __m256d p10 = LoadSamples<Sample, kCount>(n.p10 + kFirst);
  const __m256d p01 = LoadSamples<Sample, kCount>(n.p01 + kFirst);
  const __m256d p11 = LoadSamples<Sample, kCount>(n.p11 + kFirst);
  const __m256d top = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(p10, p00), fx), p00);
  const __m256d bottom = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(p11, p01), fx), p01);
  const __m256d value = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(bottom, top), fy), top);
  StoreSamples<Sample, kCount>(dst + kFirst, value);
}

template <class Sample, int N>
RAWFX_AVX2 inline void WriteBlendAVX2(const PartContext<Sample>& c, double sx, double sy, Sample* dst) {
  const Neighbours<Sample> n = NeighboursOf(c, sx, sy);
  if constexpr (N > 0) BlendChannels<Sample, 0, (N < 4 ? N : 4)>(n, dst);
  if constexpr (N > 4) BlendChannels<Sample, 4, N - 4>(n, dst);
}

template <class Sample, int N>
RAWFX_AVX2 inline void WriteLane(const PartContext<Sample>& c, bool inside, double sx, double sy, Sample* dst) {
  if (inside)
    WriteBlendAVX2<Sample, N>(c, sx, sy, dst);
  else
    WriteBackground<Sample, N>(c, dst);
}

struct Rays4 {
  __m256d distance;
  __m256d sourceY;
};

// RayOf for four offsets u. Both border formulas are evaluated in every lane
// and the one the scalar code would take is kept; the other may divide by a
// zero slope, which is harmless under the default (masked) exception flags.
RAWFX_AVX2 inline Rays4 RaysOf4(__m256d u, const PolarRow& row, const Geometry& g) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d cx = _mm256_set1_pd(g.cx);
  const __m256d cy = _mm256_set1_pd(g.cy);
  Rays4 rays{};
  rays.distance = row.side == RowSide::OnCentre
                      ? u
                      : _mm256_sqrt_pd(_mm256_add_pd(_mm256_set1_pd(row.alongSquared), _mm256_mul_pd(u, u)));
  const __m256d vertical = _mm256_cmp_pd(u, zero, _CMP_EQ_OQ);
  const __m256d signBit = _mm256_set1_pd(-0.0);
  const __m256d slope =
      _mm256_andnot_pd(vertical, _mm256_andnot_pd(signBit, _mm256_div_pd(_mm256_set1_pd(row.offset), u)));

  const __m256d rise = _mm256_mul_pd(slope, cx);
  const __m256d throughSide =
      Select(cy, _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(rise, rise), _mm256_set1_pd(g.cxSquared))), vertical);
  const __m256d run = _mm256_div_pd(cy, slope);
  const __m256d throughTop = _mm256_sqrt_pd(_mm256_add_pd(_mm256_set1_pd(g.cySquared), _mm256_mul_pd(run, run)));
  const __m256d border =
      Select(throughSide, throughTop, _mm256_cmp_pd(_mm256_set1_pd(g.heightPerWidth), slope, _CMP_GE_OQ));

  const __m256d inscribed = _mm256_set1_pd(g.inscribedR2P);
  const __m256d radius = _mm256_add_pd(
      _mm256_mul_pd(_mm256_set1_pd(g.shareOfBorder),
                    _mm256_div_pd(_mm256_sub_pd(border, inscribed), _mm256_set1_pd(100.0))),
      inscribed);
  const __m256d height = _mm256_set1_pd(g.heightD);
  const __m256d rowsPerDistance = _mm256_div_pd(height, radius);
  const __m256d scaled = _mm256_mul_pd(rays.distance, rowsPerDistance);
  rays.sourceY = g.centerAtTop ? scaled : _mm256_sub_pd(height, scaled);
  return rays;
}

// SourceColumnOf in four lanes; fmod is called only for angles outside one turn.
RAWFX_AVX2 inline __m256d SourceColumns4(__m256d angle, const Geometry& g) {
  __m256d a = _mm256_add_pd(_mm256_set1_pd(g.angleOffset), angle);
  const __m256d inTurn = _mm256_and_pd(_mm256_cmp_pd(a, _mm256_setzero_pd(), _CMP_GE_OQ),
                                       _mm256_cmp_pd(a, _mm256_set1_pd(kTwoPi), _CMP_LT_OQ));
  if (_mm256_movemask_pd(inTurn) != 0xF) {
    alignas(32) double lanes[4];
    _mm256_store_pd(lanes, a);
    for (double& lane : lanes) lane = WrapIntoTurn(lane);
    a = _mm256_load_pd(lanes);
  }
  const __m256d columns = _mm256_mul_pd(_mm256_set1_pd(g.columnsPerRadian), a);
  return g.flipMapping ? columns : _mm256_sub_pd(_mm256_set1_pd(g.lastColumn), columns);
}

// The two angles of four mirror pairs; atan is called for the lanes in `wanted` only.
RAWFX_AVX2 inline void AnglesOf4(__m256d u, const PolarRow& row, int wanted, __m256d& right, __m256d& left) {
  if (row.side == RowSide::OnCentre) {
    right = _mm256_set1_pd(kHalfPi);
    left = _mm256_set1_pd(kThreeHalfPi);
    return;
  }
  alignas(32) double t[4];
  _mm256_store_pd(t, _mm256_div_pd(u, _mm256_set1_pd(row.along)));
  for (int lane = 0; lane < 4; ++lane) t[lane] = wanted >> lane & 1 ? std::atan(t[lane]) : 0.0;
  const __m256d angle = _mm256_load_pd(t);
  if (row.side == RowSide::Above) {
    right = angle;
    left = _mm256_sub_pd(_mm256_set1_pd(kTwoPi), angle);
  } else {
    right = _mm256_sub_pd(_mm256_set1_pd(kPi), angle);
    left = _mm256_add_pd(angle, _mm256_set1_pd(kPi));
  }
}

template <class Sample, int N>
RAWFX_AVX2 void RectangularToPolarRowAVX2(const PartContext<Sample>& c, int32_t y, Sample* dst) {
  const Geometry& g = c.geometry;
  const PolarRow row = PolarRowOf(y, g);
  int32_t right = g.width / 2;
  for (; g.width - right >= 4; right += 4) {
    const __m256d u = _mm256_sub_pd(_mm256_set_pd(right + 3, right + 2, right + 1, right), _mm256_set1_pd(g.cx));
    const Rays4 rays = RaysOf4(u, row, g);
    const __m256d rowInside = RoundsIntoRange4(rays.sourceY, g.height);
    const int rowMask = _mm256_movemask_pd(rowInside);
    __m256d rightSx = _mm256_setzero_pd(), leftSx = _mm256_setzero_pd();
    int rightMask = 0, leftMask = 0;
    if (rowMask) {
      __m256d rightAngle, leftAngle;
      AnglesOf4(u, row, rowMask, rightAngle, leftAngle);
      rightSx = SourceColumns4(rightAngle, g);
      leftSx = SourceColumns4(leftAngle, g);
      rightMask = _mm256_movemask_pd(_mm256_and_pd(rowInside, RoundsIntoRange4(rightSx, g.width)));
      leftMask = _mm256_movemask_pd(_mm256_and_pd(rowInside, RoundsIntoRange4(leftSx, g.width)));
    }
    alignas(32) double sy[4], sxRight[4], sxLeft[4];
    _mm256_store_pd(sy, rays.sourceY);
    _mm256_store_pd(sxRight, rightSx);
    _mm256_store_pd(sxLeft, leftSx);
    for (int lane = 0; lane < 4; ++lane) {
      const int32_t x = right + lane;
      const int32_t mirror = g.width - 1 - x;
      WriteLane<Sample, N>(c, rightMask >> lane & 1, sxRight[lane], sy[lane], dst + c.dstStep * x);
      if (mirror != x) WriteLane<Sample, N>(c, leftMask >> lane & 1, sxLeft[lane], sy[lane], dst + c.dstStep * mirror);
    }
  }
  for (; right < g.width; ++right) MapMirrorPair<Sample, N>(c, row, right, dst);
}

template <class Sample, int N>
RAWFX_AVX2 void PolarToRectangularRowAVX2(const PartContext<Sample>& c, int32_t y, Sample* dst) {
  const Geometry& g = c.geometry;
  const __m256d rowShare = _mm256_set1_pd(RowShareOf(y, g));
  int32_t x = 0;
  for (; g.width - x >= 4; x += 4) {
    const PolarColumn c0 = ColumnAt(c, x), c1 = ColumnAt(c, x + 1), c2 = ColumnAt(c, x + 2), c3 = ColumnAt(c, x + 3);
    const __m256d r = _mm256_mul_pd(rowShare, _mm256_set_pd(c3.radius, c2.radius, c1.radius, c0.radius));
    const __m256d xStep = _mm256_set_pd(c3.xStep, c2.xStep, c1.xStep, c0.xStep);
    const __m256d yStep = _mm256_set_pd(c3.yStep, c2.yStep, c1.yStep, c0.yStep);
    const __m256d sx = _mm256_add_pd(_mm256_set1_pd(g.hw), _mm256_mul_pd(xStep, r));
    const __m256d sy = _mm256_add_pd(_mm256_set1_pd(g.hh), _mm256_mul_pd(r, yStep));
    const int inside =
        _mm256_movemask_pd(_mm256_and_pd(RoundsIntoRange4(sy, g.height), RoundsIntoRange4(sx, g.width)));
    alignas(32) double sxLanes[4], syLanes[4];
    _mm256_store_pd(sxLanes, sx);
    _mm256_store_pd(syLanes, sy);
    for (int lane = 0; lane < 4; ++lane)
      WriteLane<Sample, N>(c, inside >> lane & 1, sxLanes[lane], syLanes[lane], dst + c.dstStep * (x + lane));
  }
  const double share = RowShareOf(y, g);
  for (; x < g.width; ++x) WritePosition<Sample, N>(c, PositionOf(ColumnAt(c, x), share, g), dst + c.dstStep * x);
}

// ---- driving the rows -----------------------------------------------------------------

template <class Sample, int N, bool kAVX2>
void MapRow(const PartContext<Sample>& c, const GenericMPParams& head, bool toPolar, int32_t y) {
  if (c.geometry.width <= 0) return;
  Sample* dst = reinterpret_cast<Sample*>(head.dstPixels + int64_t{head.dstRowBytes} * y);
  if (!c.sourceAddressable) {
    for (int32_t x = 0; x < c.geometry.width; ++x) WriteBackground<Sample, N>(c, dst + c.dstStep * x);
  } else if (toPolar) {
    kAVX2 ? RectangularToPolarRowAVX2<Sample, N>(c, y, dst) : RectangularToPolarRow<Sample, N>(c, y, dst);
  } else {
    kAVX2 ? PolarToRectangularRowAVX2<Sample, N>(c, y, dst) : PolarToRectangularRow<Sample, N>(c, y, dst);
  }
}

template <class Sample, int N, bool kAVX2>
void MapRows(MPParamBlock& part, PolarCoordinatesParams& p, const PartContext<Sample>& context) {
  const bool toPolar = p.settings.rectangularToPolar != 0;
  for (int32_t y = part.firstRow; y < part.endRow; ++y) {
    MapRow<Sample, N, kAVX2>(context, p.head, toPolar, y);
    if (!rawfx::FinishRow(p.head)) break;
  }
}

// The channel count is a constant of the row loops, so a pixel's blend is
// straight-line code.
template <class Sample, int... N>
void MapRowsWithChannels(MPParamBlock& part, PolarCoordinatesParams& p, const PartContext<Sample>& context,
                         std::integer_sequence<int, N...>) {
  const bool avx2 = rawfx::cpu::UseAVX2();
  ((context.channels == N ? (avx2 ? MapRows<Sample, N, true>(part, p, context)
                                  : MapRows<Sample, N, false>(part, p, context))
                          : void()),
   ...);
}

template <class Sample>
void* PolarCoordinatesRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<PolarCoordinatesParams*>(part->params);
  const PartContext<Sample> context = MakePartContext<Sample>(p);
  MapRowsWithChannels(*part, p, context, std::make_integer_sequence<int, kMaxSamples + 1>{});
  part->done = 1;
  return nullptr;
}

}  // namespace

bool PolarSourceAddressable(int64_t width, int64_t height, int64_t pixelBytes) {
  constexpr int64_t kLargest = std::numeric_limits<int32_t>::max();
  if (width > kLargest || height > kLargest || pixelBytes > kLargest) return false;
  const int64_t rowBytes = std::max<int64_t>(width, 0) * std::max<int64_t>(pixelBytes, 0);
  return rowBytes <= kLargest && rowBytes * std::max<int64_t>(height - 1, 0) <= kLargest;
}

// Wider bitmaps map every pixel in full: past a million columns the table
// would take tens of megabytes, filled on one thread before the run starts,
// and a record patched to a wild width would have the class fill it in vain.
constexpr int64_t kWidestTabled = int64_t{1} << 20;

size_t PolarColumnTableBytes(int64_t width, int64_t height) {
  constexpr int64_t kLargest = std::numeric_limits<int32_t>::max();
  if (width < 1 || width > kWidestTabled || height < 1 || height > kLargest) return 0;
  return sizeof(PolarColumnTable) + static_cast<size_t>(width) * sizeof(PolarColumn);
}

const PolarColumnTable* MakePolarColumnTable(void* storage, const PolarizeSettings& settings, int32_t width,
                                             int32_t height) {
  auto* table = new (storage) PolarColumnTable{width, height, settings.roundness, settings.angleOffset,
                                               static_cast<uint8_t>(settings.flipMapping != 0)};
  const Geometry g = GeometryOf(WithGeometry(settings, width, height));
  auto* columns = reinterpret_cast<PolarColumn*>(table + 1);
  for (int32_t x = 0; x < width; ++x) new (columns + x) PolarColumn(ColumnOf(x, g));
  return table;
}

bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings) {
  const Geometry g = GeometryOf(*settings);
  Position at{};
  if (settings->rectangularToPolar) {
    const PolarRow row = PolarRowOf(y, g);
    const bool right = x >= g.cx;
    const double u = right ? x - g.cx : g.cx - x;
    const MirrorAngles angles = AnglesOf(u, row);
    at = {SourceColumnOf(right ? angles.right : angles.left, g), RayOf(u, row, g).sourceY};
  } else {
    at = PositionOf(ColumnOf(x, g), RowShareOf(y, g), g);
  }
  if (!RoundsIntoRange(at.x, g.width) || !RoundsIntoRange(at.y, g.height)) return false;
  *sourceX = at.x;
  *sourceY = at.y;
  return true;
}

void* PolarCoordinatesPart(void* block) { return PolarCoordinatesRows<uint8_t>(block); }
void* PolarCoordinatesPart16(void* block) { return PolarCoordinatesRows<uint16_t>(block); }
