// The polar mapping and its part functions, arranged so that no value is
// computed twice where the plain per-pixel evaluation would compute it again
// with the same operands. Every shortcut gives exactly the double that the
// plain evaluation gives, so the bytes are the same as mapping every pixel in
// full (the differential test holds the two side by side):
// - what depends only on the row or only on the run is computed once for it;
// - rectangular to polar: a pixel and its mirror about the centre column see
//   the centre at the same distance, so they share one atan and the ray's
//   square roots; a row and its mirror about the centre row share the atans
//   through the run's ray table when the effect made one (polar_kernels.h);
// - polar to rectangular: what depends only on the column comes from the run's
//   column table when the effect made one;
// - fmod is replaced where it is exact to do so without the call.
// The per-pixel arithmetic is written once (polar_path.h) and compiled for
// every path; the rows go through the warps' sampling engine, odd rows from
// their end (RowJob::backwards), polar-to-rectangular rows in bands that read
// each source line once for several rows (MapInBands).
#include "effects/polar/polar_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "imaging/simd.h"

namespace {

using namespace rawfx::polar;

// fmod(v, 2 pi) without the call where fmod returns its argument unchanged
// (0 <= v < 2 pi, -0 included); everything else still goes through fmod.
double WrapIntoTurn(double v) { return v >= 0.0 && v < kTwoPi ? v : std::fmod(v, kTwoPi); }

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
  // With no share of the border (roundness 100, what the class always sets)
  // every ray's radius is the inscribed one: the border distance is finite, so
  // 0 * ((e - m) / 100) + m is m exactly, and the border need not be found.
  bool inscribedRays;
  double rowsPerInscribed;  // H / min(cx, cy), the rows per unit of distance then
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
  g.inscribedRays = g.shareOfBorder == 0.0;
  g.rowsPerInscribed = g.heightD / g.inscribedR2P;
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

bool TableFits(const PolarColumnTable* table, const PolarizeSettings& s) {
  return table && !s.rectangularToPolar && table->width == s.width && table->height == s.height &&
         table->flipMapping == (s.flipMapping != 0) &&
         std::memcmp(&table->roundness, &s.roundness, sizeof(double)) == 0 &&
         std::memcmp(&table->angleOffset, &s.angleOffset, sizeof(double)) == 0;
}

bool TableFits(const PolarRayTable* table, const PolarizeSettings& s) {
  return table && s.rectangularToPolar && table->width == s.width && table->height == s.height;
}

// ---- the parts ----------------------------------------------------------------------

bool ProductFitsInt32(int64_t a, int64_t b) {
  const int64_t product = a * b;
  return product >= std::numeric_limits<int32_t>::min() && product <= std::numeric_limits<int32_t>::max();
}

// Source offsets are signed 32-bit products; a source too large for them is
// never read, so no offset can wrap to memory outside the bitmap.
bool SourceOffsetsFitInt32(const GenericMPParams& head) {
  const int64_t lastRow = std::max<int64_t>(int64_t{head.height} - 1, 0);
  const int64_t lastColumn = std::max<int64_t>(int64_t{head.width} - 1, 0);
  return ProductFitsInt32(head.srcRowBytes, lastRow) && ProductFitsInt32(head.srcPixelBytes, lastColumn);
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

// Polar to rectangular maps bands of up to kBandRows rows together, through a
// scratch buffer of kBandBytes on the stack (MapInBands). With the band's
// plans that is about 100 KiB of stack, a fifth of the smallest thread stack
// the engine's workers get on macOS (512 KiB).
constexpr int kBandRows = 4;
constexpr size_t kBandBytes = size_t{64} << 10;

// What a rectangular-to-polar row does with its row of the run's ray table.
enum class RayUse { Own, Fill, Read };

// Destination rows (one, or a band from y on) and everything their pixels need.
struct RowJob {
  const Geometry* geometry;
  const PolarColumnTable* columns;  // the run's column table, or nil
  double* rays;                     // the row's angles in the run's ray table (RayUse::Own: nil)
  RayUse rayUse;
  double y;
  const uint8_t* srcPixels;
  int64_t srcRowBytes, srcPixelBytes;
  const uint8_t* background;
  int channels;  // samples per pixel, at most the background's eight
  int rows;                 // 1, or up to kBandRows polar-to-rectangular rows
  uint8_t* out[kBandRows];  // where each row's pixels go
  int64_t step;             // bytes, whole samples
  bool toPolar;
  // Odd rows (or bands) are mapped from their end: each row reads the source
  // along a curve that spans much of it, and its neighbour row along almost
  // the same curve, so a row that starts where the last one ended finds its
  // first source lines, and their pages' translations, still cached.
  bool backwards;
};

using RowMapper = void (*)(const RowJob&);

}  // namespace

namespace {
#define RAWFX_PATH_TEXT "effects/polar/polar_path.h"
#define RAWFX_PATH_WIDE
#include "imaging/simd_paths.h"
}  // namespace

namespace {

template <class Sample>
const uint8_t* BackgroundOf(const PolarCoordinatesParams& p) {
  if constexpr (sizeof(Sample) == 1)
    return p.backColor8;
  else
    return reinterpret_cast<const uint8_t*>(p.backColor16);
}

// The usual pixels (three or four samples) get blends compiled for their size.
template <class Sample>
RowMapper RowMapperFor(int channels) {
  if (channels == 3) return RAWFX_PICK_PATH(MapRows<Sample, 3>);
  if (channels == 4) return RAWFX_PICK_PATH(MapRows<Sample, 4>);
  return RAWFX_PICK_PATH(MapRows<Sample, 0>);
}

// The row pair of row y in a ray table: the rows above the centre are their
// own pair, a row below is its mirror's; -1 for the centre row, which has no atan.
int32_t RowPairOf(const PolarRayTable& table, int32_t y) {
  if (y < table.rowPairs) return y;
  const int32_t mirror = table.height - 1 - y;
  return mirror < table.rowPairs ? mirror : -1;
}

// Maps job's row, sharing its atans with its mirror through the run's ray
// table (nil: none). The claim needs no order of its own, as only the claimer
// writes the angles; the release that marks them ready publishes them to the
// acquire that finds them ready.
void MapRowSharingRays(RowMapper mapRow, RowJob& job, PolarRayTable* table) {
  const int32_t pair = table ? RowPairOf(*table, static_cast<int32_t>(job.y)) : -1;
  if (pair < 0) return mapRow(job);
  std::atomic<uint8_t>& state = table->States()[pair];
  uint8_t expected = PolarRayTable::kFree;
  if (state.load(std::memory_order_acquire) == PolarRayTable::kReady)
    job.rayUse = RayUse::Read;
  else if (state.compare_exchange_strong(expected, PolarRayTable::kClaimed, std::memory_order_relaxed))
    job.rayUse = RayUse::Fill;
  job.rays = job.rayUse == RayUse::Own ? nullptr : table->Angles(pair);
  mapRow(job);
  if (job.rayUse == RayUse::Fill) state.store(PolarRayTable::kReady, std::memory_order_release);
  job.rayUse = RayUse::Own;
  job.rays = nullptr;
}

uint8_t* DestinationRow(const GenericMPParams& head, int32_t y) {
  return head.dstPixels + int64_t{head.dstRowBytes} * y;
}

// The bytes of a destination row that its pixels' blends may write.
size_t RowSpan(const GenericMPParams& head, const RowJob& job, int sampleBytes) {
  return static_cast<size_t>((int64_t{head.width} - 1) * job.step + int64_t{job.channels} * sampleBytes);
}

// The rows of polar to rectangular that a part maps together: as many as the
// scratch holds, up to kBandRows; 1 (straight into the destination) where a
// row alone does not fit or the rows overlap, and for rectangular to polar,
// whose rows share their angles with their mirrors row by row.
int BandRowsOf(const GenericMPParams& head, const RowJob& job, size_t span) {
  if (job.toPolar || head.width < 1 || span > static_cast<size_t>(std::max(head.dstRowBytes, 0))) return 1;
  return static_cast<int>(std::clamp<size_t>(kBandBytes / std::max<size_t>(span, 1), 1, kBandRows));
}

// Row by row, straight into the destination.
template <class Sample>
void MapRowByRow(RowMapper mapRows, RowJob& job, const MPParamBlock& part, GenericMPParams& head,
                 PolarRayTable* rays, bool addressable) {
  for (int32_t y = part.firstRow; y < part.endRow; ++y) {
    job.y = y;
    job.backwards = (y & 1) != 0;
    job.out[0] = DestinationRow(head, y);
    if (!addressable) {
      for (int32_t x = 0; x < head.width; ++x)
        std::memcpy(job.out[0] + x * job.step, job.background, static_cast<size_t>(job.channels) * sizeof(Sample));
    } else if (head.width > 0) {
      MapRowSharingRays(mapRows, job, rays);
    }
    if (!rawfx::FinishRow(head)) return;
  }
}

// In bands: a band's rows are mapped together into the scratch, then copied
// to the destination in order, each finished (progress, cancel) before the
// next is copied, so that rows below a cancel keep their contents as they do
// row by row. The scratch starts as a copy of the rows, so bytes that no
// blend writes stay as they were.
void MapInBands(RowMapper mapRows, RowJob& job, const MPParamBlock& part, GenericMPParams& head, int band,
                size_t span) {
  alignas(64) uint8_t scratch[kBandBytes];
  for (int32_t y = part.firstRow; y < part.endRow; y += band) {
    job.y = y;
    job.rows = static_cast<int>(std::min<int64_t>(band, int64_t{part.endRow} - y));
    job.backwards = ((y - part.firstRow) / band & 1) != 0;
    for (int r = 0; r < job.rows; ++r) {
      job.out[r] = scratch + r * span;
      std::memcpy(job.out[r], DestinationRow(head, y + r), span);
    }
    mapRows(job);
    for (int r = 0; r < job.rows; ++r) {
      std::memcpy(DestinationRow(head, y + r), job.out[r], span);
      if (!rawfx::FinishRow(head)) return;
    }
  }
}

template <class Sample>
void* PolarCoordinatesRows(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<PolarCoordinatesParams*>(part->params);
  GenericMPParams& head = p.head;
  constexpr int kSampleBytes = sizeof(Sample);
  const PolarizeSettings settings = WithGeometry(p.settings, head.width, head.height);  // the part's own copy
  const Geometry geometry = GeometryOf(settings);
  RowJob job{&geometry,
             TableFits(p.columnTable, settings) ? p.columnTable : nullptr,
             nullptr,
             RayUse::Own,
             0.0,
             head.srcPixels,
             head.srcRowBytes,
             head.srcPixelBytes,
             BackgroundOf<Sample>(p),
             std::clamp<int>(head.srcPixelBytes / kSampleBytes, 0, kMaxSamples),
             1,
             {},
             head.dstPixelBytes / kSampleBytes * kSampleBytes,
             settings.rectangularToPolar != 0,
             false};
  const bool addressable = SourceOffsetsFitInt32(head);
  const RowMapper mapRows = RowMapperFor<Sample>(job.channels);
  const size_t span = RowSpan(head, job, kSampleBytes);
  const int band = addressable ? BandRowsOf(head, job, span) : 1;
  if (band > 1)
    MapInBands(mapRows, job, *part, head, band, span);
  else
    MapRowByRow<Sample>(mapRows, job, *part, head, TableFits(p.rayTable, settings) ? p.rayTable : nullptr,
                        addressable);
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
  return sizeof(PolarColumnTable) + 3 * static_cast<size_t>(rawfx::simd::WholeLaneGroups(width)) * sizeof(double);
}

const PolarColumnTable* MakePolarColumnTable(void* storage, const PolarizeSettings& settings, int32_t width,
                                             int32_t height) {
  const auto stride = static_cast<int32_t>(rawfx::simd::WholeLaneGroups(width));
  auto* table = new (storage) PolarColumnTable{width,
                                               height,
                                               settings.roundness,
                                               settings.angleOffset,
                                               static_cast<uint8_t>(settings.flipMapping != 0),
                                               stride};
  const Geometry g = GeometryOf(WithGeometry(settings, width, height));
  auto* values = reinterpret_cast<double*>(table + 1);
  for (int32_t x = 0; x < stride; ++x) {
    const PolarColumn c = ColumnOf(std::min(x, width - 1), g);
    values[x] = c.xStep;
    values[stride + x] = c.yStep;
    values[2 * stride + x] = c.radius;
  }
  return table;
}

size_t PolarRayTableBytes(int64_t width, int64_t height) {
  constexpr int64_t kLargest = std::numeric_limits<int32_t>::max();
  if (width < 1 || width > kWidestTabled || height < 2 || height > kLargest) return 0;
  const auto rowPairs = static_cast<size_t>(height / 2);
  const auto stride = static_cast<size_t>(rawfx::simd::WholeLaneGroups(width - width / 2));
  return sizeof(PolarRayTable) + PolarRayTable::StatesBytes(rowPairs) + rowPairs * stride * sizeof(double);
}

PolarRayTable* MakePolarRayTable(void* storage, int32_t width, int32_t height) {
  const auto stride = static_cast<int32_t>(rawfx::simd::WholeLaneGroups(width - width / 2));
  auto* table = new (storage) PolarRayTable{width, height, stride, height / 2};
  for (int32_t pair = 0; pair < table->rowPairs; ++pair)
    new (table->States() + pair) std::atomic<uint8_t>(PolarRayTable::kFree);
  return table;
}

size_t PolarRunTableBytes(int64_t width, int64_t height, int64_t pixelBytes, bool toPolar) {
  if (!toPolar) return PolarColumnTableBytes(width, height);
  const size_t bytes = PolarRayTableBytes(width, height);
  if (bytes == 0 || !PolarSourceAddressable(width, height, pixelBytes)) return 0;
  // Addressable: the row's bytes and the height are below 2^31, so their product fits.
  const auto rowBytes = static_cast<uint64_t>(width * std::max<int64_t>(pixelBytes, 0));
  return bytes <= rowBytes * static_cast<uint64_t>(height) ? bytes : 0;
}

bool CalculateUndistortedCoordinates(double x, double y, double* sourceX, double* sourceY,
                                     PolarizeSettings* settings) {
  const Geometry g = GeometryOf(*settings);
  double sx, sy;
  if (settings->rectangularToPolar) {
    const PolarRow row = PolarRowOf(y, g);
    const bool right = x >= g.cx;
    const double u = right ? x - g.cx : g.cx - x;
    double rightAngle, leftAngle;
    portable::AnglesOf(row.side == RowSide::OnCentre ? 0.0 : portable::AtanOf(u, row, 1), row, rightAngle, leftAngle);
    sx = portable::SourceColumnOf(right ? rightAngle : leftAngle, g);
    sy = portable::RaysOf(u, row, g).sourceY;
  } else {
    const PolarColumn c = ColumnOf(x, g);
    const portable::Pair at = portable::PositionOf(c.xStep, c.yStep, c.radius, RowShareOf(y, g), g);
    sx = at.x;
    sy = at.y;
  }
  if (!portable::RoundsIntoRange(sx, g.width) || !portable::RoundsIntoRange(sy, g.height)) return false;
  *sourceX = sx;
  *sourceY = sy;
  return true;
}

void* PolarCoordinatesPart(void* block) { return PolarCoordinatesRows<uint8_t>(block); }
void* PolarCoordinatesPart16(void* block) { return PolarCoordinatesRows<uint16_t>(block); }
