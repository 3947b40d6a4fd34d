// The barrel warp's arithmetic, written once and compiled per path (see
// imaging/simd.h): the position of kLanes destination pixels and the
// neighbour rules of both samplings, handed to the warps' sampling engine.
//
// No include guard: included once per path by barrel_kernels.cpp.
namespace RAWFX_SIMD_PATH {

using namespace rawfx::simd::RAWFX_SIMD_PATH;
#include "imaging/sampler.h"

struct Pair {
  Vd x, y;
};

// nx = (x - centerX) / centerX.
RAWFX_SIMD_FN Vd NormalisedColumn(const SourceMapping& m, Vd column) {
  const Vd centerX = Set(m.centerX);
  return (column - centerX) / centerX;
}

// The columns' nx, which every row of a part shares: worked out once per part
// for the first `count` columns (a multiple of kLanes is written).
RAWFX_SIMD_ENTRY void NormaliseColumns(const SourceMapping& m, double* nx, int64_t count) {
  for (int64_t x = 0; x < count; x += kLanes) Store(nx + x, NormalisedColumn(m, Iota(static_cast<double>(x))));
}

// The radial factor r = ((nx nx + ny ny) distortion + 1) / (distortion + 1).
RAWFX_SIMD_FN Vd RadialFactor(const SourceMapping& m, const RowTerms& row, Vd nx) {
  return Divide((nx * nx + Set(row.nySquared)) * Set(m.distortion) + Set(1.0),
                DivisorOf(m.distortionPlusOne, m.reciprocalOfPlusOne));
}

// The factors of the kLanes columns from `column` on: those of their mirrors,
// in reverse, where the mirrors lie left of them among the row's kept factors
// (a division saved for each); otherwise worked out, and kept while they fit.
RAWFX_SIMD_FN Vd RadialFactorAt(const RowJob& job, int64_t column, Vd nx) {
  const int64_t lastMirror = job.mirrorSum - column, firstMirror = lastMirror - (kLanes - 1);
  if (firstMirror >= 0 && lastMirror < column && lastMirror < job.radialColumns)
    return Reverse(Load(job.radial + firstMirror));
  const Vd r = RadialFactor(*job.mapping, job.row, nx);
  if (column + kLanes <= job.radialColumns) Store(job.radial + column, r);
  return r;
}

// The keystone step, (u, v, 1) times the matrix, and back to pixels. NaN where
// the mapping is undefined (distortion -1, or W = 0 with X or Y = 0).
//
// An affine matrix skips both divisions, exactly: for finite u and v, W is
// (+-0) + (+-0) + 1 = 1 and a quotient by 1 is its dividend. A non-finite u or v
// makes W NaN and so both quotients; without them, X and Y are then not finite
// either (infinity or NaN times any cell is infinite or NaN), and a position
// that is not finite takes the background as a NaN one does.
RAWFX_SIMD_FN Pair Project(const SourceMapping& m, Pair uv) {
  const Vd X = uv.x * Set(m.m00) + uv.y * Set(m.m10) + Set(m.m20);
  const Vd Y = uv.x * Set(m.m01) + uv.y * Set(m.m11) + Set(m.m21);
  if (m.affine) return {(X + Set(1.0)) * Set(m.centerX), (Y + Set(1.0)) * Set(m.centerY)};
  const Divisor W = DivisorOf(uv.x * Set(m.m02) + uv.y * Set(m.m12) + Set(m.m22));
  return {(Divide(X, W) + Set(1.0)) * Set(m.centerX), (Divide(Y, W) + Set(1.0)) * Set(m.centerY)};
}

// 0 <= v <= last; false for NaN.
RAWFX_SIMD_FN Md Within(Vd v, double last) { return And(Le(Set(0.0), v), Le(v, Set(last))); }

// Nearest: the pixel at the truncated position when all four bounds hold.
RAWFX_SIMD_FN void PlanAt(const RowJob& job, const SourceLayout& s, Pair p, int at, NearestPlan& plan) {
  const Md inside = And(And(Le(p.x, Set(job.lastColumn)), Ge(p.y, Set(0.0))),
                        And(Ge(p.x, Set(0.0)), Le(p.y, Set(job.lastRow))));
  PlanNearest(s, p.x, p.y, inside, at, plan);
}

// Bilinear: the four pixels around floor(position), each read where it lies
// inside the source.
RAWFX_SIMD_FN void PlanAt(const RowJob& job, const SourceLayout& s, Pair p, int at, BilinearPlan& plan) {
  const Vd x0 = Floor(p.x);
  const Vd y0 = Floor(p.y);
  const Md left = Within(x0, job.lastColumn);
  const Md right = Within(x0 + Set(1.0), job.lastColumn);
  const Md top = Within(y0, job.lastRow);
  const Md bottom = Within(y0 + Set(1.0), job.lastRow);
  const Neighbours n{x0, y0, And(left, top), And(right, top), And(left, bottom), And(right, bottom),
                     Fraction(p.x), Fraction(p.y)};
  PlanBilinear(s, n, at, plan);
}

template <class PlanType>
struct RowPlanner {
  static constexpr bool kListedOut = false;
  static constexpr int kEntriesPerChunk = kChunk;
  const RowJob& job;
  SourceLayout source;

  // Three sweeps over the chunk's lane groups rather than one per group: the
  // divisions of many groups are then in flight together instead of each
  // group waiting on its own chain. Lanes past the row's end are planned
  // (only lanes that passed a bounds test are converted) and never filled.
  RAWFX_SIMD_FN void Plan(int64_t first, PlanType& plan) const {
    const int count = static_cast<int>(std::min<int64_t>(kEntriesPerChunk, job.width - first));
    const int groups = (count + kLanes - 1) / kLanes;
    Pair staged[kChunk / kLanes];
    for (int g = 0; g < groups; ++g) {
      const int64_t column = first + int64_t{g} * kLanes;
      const Vd nx = column < job.normalisedColumns ? Load(job.columnNx + column)
                                                   : NormalisedColumn(*job.mapping, Iota(static_cast<double>(column)));
      const Vd r = RadialFactorAt(job, column, nx);
      staged[g] = {nx * r, Set(job.row.ny) * r};  // (u, v)
    }
    for (int g = 0; g < groups; ++g) staged[g] = Project(*job.mapping, staged[g]);
    for (int g = 0; g < groups; ++g) PlanAt(job, source, staged[g], g * kLanes, plan);
    plan.first = job.out + first * job.step;
    plan.step = job.step;
    plan.count = count;
  }
};

template <class Sample, Sampling mode, int kChannels>
RAWFX_SIMD_ENTRY void FillRow(const RowJob& job) {
  using PlanType = std::conditional_t<mode == Sampling::Nearest, NearestPlan, BilinearPlan>;
  const RowPlanner<PlanType> planner{job, {job.srcPixels, job.srcRowBytes, job.srcPixelBytes, job.background}};
  SampleRow<Sample, kChannels, PlanType>(planner, job.width, job.channels);
}

}  // namespace RAWFX_SIMD_PATH
