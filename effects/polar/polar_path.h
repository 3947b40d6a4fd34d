// The polar mapping's per-pixel arithmetic, written once and compiled per path
// (see imaging/simd.h): the acceptance test, the rays and angles of
// rectangular to polar, the positions of polar to rectangular and the
// neighbour rules, handed to the warps' sampling engine.
//
// No include guard: included once per path by polar_kernels.cpp.
namespace RAWFX_SIMD_PATH {

using namespace rawfx::simd::RAWFX_SIMD_PATH;
#include "imaging/sampler.h"

struct Pair {
  Vd x, y;
};

// One coordinate of the acceptance test: it rounds (half up, by truncation) to
// 0 .. size - 1. A NaN or infinite coordinate, or a huge one, fails the range
// test before any conversion, which is the same as testing finiteness first.
// The truncated value is compared as a double: it is whole, so that is exact.
RAWFX_SIMD_FN Md RoundsIntoRange(Vd v, int32_t size) {
  const Vd rounded = v + Set(0.5);
  const Md fits = And(Gt(rounded, Set(-2147483649.0)), Lt(rounded, Set(2147483648.0)));
  const Vd index = Trunc(rounded);
  return And(fits, And(Ge(index, Set(0.0)), Le(index, Set(static_cast<double>(int64_t{size} - 1)))));
}

// ---- rectangular to polar ---------------------------------------------------------
//
// The destination pixel (x, y) is seen from the centre (cx, cy). cx is
// (W - 1) * 0.5, a multiple of 0.5, and x is whole, so x - cx is exact; for the
// mirror column x' = W - 1 - x, cx - x' is the same exact double. A pixel right
// of the centre and its mirror therefore share the atan argument, the distance,
// the slope (whose sign fabs drops), the border distance, the radius and the
// source row; only the angle's formula differs. u below is that shared offset.

struct Rays {
  Vd distance;
  Vd sourceY;
};

// The rows per unit of distance along the ray of slope s, from the border
// distance: through a side when H / W >= s (cy on the vertical ray, u = 0,
// where the slope is taken as 0), else through the top or bottom. Both
// formulas are evaluated in every lane and the one the mapping takes is kept;
// the other may divide by a zero slope, which is harmless with the default
// (masked) exception flags.
RAWFX_SIMD_FN Vd RowsPerDistance(Vd u, const PolarRow& row, const Geometry& g) {
  const Md vertical = Eq(u, Set(0.0));
  const Vd slope = Select(vertical, Set(0.0), Abs(Set(row.offset) / u));
  const Vd rise = slope * Set(g.cx);
  const Vd throughSide = Select(vertical, Set(g.cy), Sqrt(rise * rise + Set(g.cxSquared)));
  const Vd run = Set(g.cy) / slope;
  const Vd throughTop = Sqrt(Set(g.cySquared) + run * run);
  const Vd border = Select(Ge(Set(g.heightPerWidth), slope), throughSide, throughTop);
  const Vd inscribed = Set(g.inscribedR2P);
  const Vd radius = Set(g.shareOfBorder) * ((border - inscribed) / Set(100.0)) + inscribed;
  return Set(g.heightD) / radius;
}

// The distance from the centre and the source row.
RAWFX_SIMD_FN Rays RaysOf(Vd u, const PolarRow& row, const Geometry& g) {
  Rays rays{};
  rays.distance = row.side == RowSide::OnCentre ? u : Sqrt(Set(row.alongSquared) + u * u);
  const Vd rowsPerDistance = g.inscribedRays ? Set(g.rowsPerInscribed) : RowsPerDistance(u, row, g);
  const Vd scaled = rays.distance * rowsPerDistance;
  rays.sourceY = g.centerAtTop ? scaled : Set(g.heightD) - scaled;
  return rays;
}

// atan(u / along) in the lanes in `wanted` (0 in the others); not used on the
// centre row, whose angles are constants.
RAWFX_SIMD_FN Vd AtanOf(Vd u, const PolarRow& row, int wanted) {
  return PerLane(u / Set(row.along), wanted, [](double v) { return std::atan(v); });
}

// The angles, clockwise from straight up, of the pixel right of the centre
// (x >= cx) and of its mirror left of it, from the row's atan t.
RAWFX_SIMD_FN void AnglesOf(Vd t, const PolarRow& row, Vd& right, Vd& left) {
  if (row.side == RowSide::OnCentre) {
    right = Set(kHalfPi);
    left = Set(kThreeHalfPi);
  } else if (row.side == RowSide::Above) {
    right = t;
    left = Set(kTwoPi) - t;
  } else {
    right = Set(kPi) - t;
    left = t + Set(kPi);
  }
}

RAWFX_SIMD_FN Vd SourceColumnOf(Vd angle, const Geometry& g) {
  constexpr int kAll = (1 << kLanes) - 1;
  Vd a = Set(g.angleOffset) + angle;
  if (Bits(And(Ge(a, Set(0.0)), Lt(a, Set(kTwoPi)))) != kAll) a = PerLane(a, kAll, WrapIntoTurn);
  const Vd columns = Set(g.columnsPerRadian) * a;
  return g.flipMapping ? columns : Set(g.lastColumn) - columns;
}

// ---- polar to rectangular ---------------------------------------------------------

// The source position of a column (its steps and radius) on the row whose
// share of the radius is rowShare.
RAWFX_SIMD_FN Pair PositionOf(Vd xStep, Vd yStep, Vd radius, double rowShare, const Geometry& g) {
  const Vd r = Set(rowShare) * radius;
  return {Set(g.hw) + xStep * r, Set(g.hh) + r * yStep};
}

// ---- sampling ---------------------------------------------------------------------

// The neighbours of an accepted position: P00 is the pixel at the truncated
// position, always read from the source; the right column is outside when
// ix < 0 or trunc(sx + 1) >= W, the lower row when iy < 0 or trunc(sy + 1) >= H.
// Besides those tests, a neighbour past the last row or column is outside: that
// only adds to them for positions just above or left of pixel 0 in a bitmap one
// pixel high or wide, which they would read beyond. Acceptance gives
// -1.5 < sx < W - 0.5 (likewise sy), so every truncation fits 32 bits. A
// position that is not accepted takes the background whole.
RAWFX_SIMD_FN void PlanAt(const Geometry& g, const SourceLayout& s, Vd sx, Vd sy, Md accepted, int at,
                          BilinearPlan& plan) {
  const Vd ix = Trunc(sx);
  const Vd iy = Trunc(sy);
  const Vd width = Set(g.widthD), height = Set(g.heightD), zero = Set(0.0), one = Set(1.0);
  const Md lowerOutside = Or(Or(Lt(iy, zero), Ge(Trunc(sy + one), height)), Ge(iy + one, height));
  const Md rightOutside = Or(Or(Lt(ix, zero), Ge(Trunc(sx + one), width)), Ge(ix + one, width));
  const Neighbours n{ix,
                     iy,
                     accepted,
                     AndNot(rightOutside, accepted),
                     AndNot(lowerOutside, accepted),
                     AndNot(Or(rightOutside, lowerOutside), accepted),
                     Fraction(sx),
                     Fraction(sy)};
  PlanBilinear(s, n, at, plan);
}

// Rectangular to polar in mirror pairs: entry group k holds kLanes pixels right
// of the centre, then their mirrors. A lane past the row's last pair repeats
// the last pair, and the centre column (its own mirror, in odd widths) takes
// its right-hand position twice, so a pixel written twice gets the same bytes.
struct ToPolarPlanner {
  static constexpr bool kListedOut = true;
  static constexpr int kEntriesPerChunk = kChunk / 2;  // mirror pairs
  const RowJob& job;
  SourceLayout source;
  PolarRow row;
  int32_t firstRight;  // the first column at or right of the centre

  // The atans of the kLanes pairs from `pair` on: the mirrored row's, when
  // it has filled the run's table; else worked out in the lanes in `wanted`.
  RAWFX_SIMD_FN Vd AtansAt(int64_t pair, Vd u, int wanted) const {
    if (job.rayUse == RayUse::Read) return Load(job.rays + pair);
    const Vd t = wanted && row.side != RowSide::OnCentre ? AtanOf(u, row, wanted) : Set(0.0);
    if (job.rayUse == RayUse::Fill) Store(job.rays + pair, t);
    return t;
  }

  RAWFX_SIMD_FN void Plan(int64_t first, BilinearPlan& plan) const {
    const Geometry& g = *job.geometry;
    const int64_t pairs = std::min<int64_t>(kEntriesPerChunk, g.width - firstRight - first);
    const int groups = static_cast<int>((pairs + kLanes - 1) / kLanes);
    for (int k = 0; k < groups; ++k) {
      const double firstColumn = static_cast<double>(firstRight + first + int64_t{k} * kLanes);
      const Vd right = Min(Iota(firstColumn), Set(g.lastColumn));
      const Vd u = right - Set(g.cx);
      const Vd sourceY = RaysOf(u, row, g).sourceY;
      const Md rowInside = RoundsIntoRange(sourceY, g.height);
      const int wanted = Bits(rowInside);
      const Vd t = AtansAt(first + int64_t{k} * kLanes, u, wanted);
      Vd rightSx = Set(0.0), leftSx = Set(0.0);
      Md rightInside = rowInside, leftInside = rowInside;
      if (wanted) {
        Vd rightAngle, leftAngle;
        AnglesOf(t, row, rightAngle, leftAngle);
        rightSx = SourceColumnOf(rightAngle, g);
        leftSx = Select(Eq(u, Set(0.0)), rightSx, SourceColumnOf(leftAngle, g));
        rightInside = And(rowInside, RoundsIntoRange(rightSx, g.width));
        leftInside = And(rowInside, RoundsIntoRange(leftSx, g.width));
      }
      const int at = 2 * k * kLanes;
      PlanAt(g, source, rightSx, sourceY, rightInside, at, plan);
      PlanAt(g, source, leftSx, sourceY, leftInside, at + kLanes, plan);
      for (int lane = 0; lane < kLanes; ++lane) {
        const int64_t column = std::min<int64_t>(firstRight + first + int64_t{k} * kLanes + lane, g.width - 1);
        plan.out[at + lane] = job.out[0] + column * job.step;
        plan.out[at + kLanes + lane] = job.out[0] + (g.width - 1 - column) * job.step;
      }
    }
    plan.count = 2 * groups * kLanes;
  }
};

// Polar to rectangular, column after column, for one row of a band; the
// columns come from the run's table, or are worked out here when the run has none.
struct ToRectangularPlanner {
  static constexpr bool kListedOut = false;
  static constexpr int kEntriesPerChunk = kChunk;
  const RowJob* band;
  SourceLayout source;
  double rowShare;
  uint8_t* out;  // the row's pixels

  RAWFX_SIMD_FN void Plan(int64_t first, BilinearPlan& plan) const {
    const RowJob& job = *band;
    const Geometry& g = *job.geometry;
    const int count = static_cast<int>(std::min<int64_t>(kEntriesPerChunk, g.width - first));
    const double *xSteps, *ySteps, *radii;
    double own[3][kChunk];
    if (job.columns) {
      xSteps = job.columns->XSteps() + first;
      ySteps = job.columns->YSteps() + first;
      radii = job.columns->Radii() + first;
    } else {
      for (int i = 0; i < kChunk; ++i) {
        const PolarColumn c = i < count ? ColumnOf(static_cast<double>(first + i), g) : PolarColumn{};
        own[0][i] = c.xStep;
        own[1][i] = c.yStep;
        own[2][i] = c.radius;
      }
      xSteps = own[0];
      ySteps = own[1];
      radii = own[2];
    }
    for (int at = 0; at < count; at += kLanes) {
      const Pair p = PositionOf(Load(xSteps + at), Load(ySteps + at), Load(radii + at), rowShare, g);
      const Md accepted = And(RoundsIntoRange(p.y, g.height), RoundsIntoRange(p.x, g.width));
      PlanAt(g, source, p.x, p.y, accepted, at, plan);
    }
    plan.first = out + first * job.step;
    plan.step = job.step;
    plan.count = count;
  }
};

// The job's rows: one rectangular-to-polar row, or a band of polar-to-rectangular ones.
template <class Sample, int kChannels>
RAWFX_SIMD_ENTRY void MapRows(const RowJob& job) {
  const Geometry& g = *job.geometry;
  const SourceLayout source{job.srcPixels, job.srcRowBytes, job.srcPixelBytes, job.background};
  if (job.toPolar) {
    const int32_t firstRight = g.width / 2;
    const ToPolarPlanner planner{job, source, PolarRowOf(job.y, g), firstRight};
    SampleRow<Sample, kChannels, BilinearPlan>(planner, g.width - firstRight, job.channels, job.backwards);
  } else {
    ToRectangularPlanner planners[kBandRows];
    for (int r = 0; r < job.rows; ++r) planners[r] = {&job, source, RowShareOf(job.y + r, g), job.out[r]};
    SampleRows<Sample, kChannels, BilinearPlan, kBandRows>(planners, job.rows, g.width, job.channels, job.backwards);
  }
}

}  // namespace RAWFX_SIMD_PATH
