// The barrel distortion part functions. Every destination pixel is mapped back
// to a source position (radial rescaling about the centre, then the keystone
// matrix) and filled from the source there, or from the background colour.
// All arithmetic is double precision in a fixed order so results are exact to
// the bit; positions are never rounded, stored samples are truncated.
//
// The mapping and the neighbour rules are written once (barrel_path.h) and
// compiled for every path; the rows go through the warps' sampling engine.
#include "effects/barrel/barrel_kernels.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "imaging/simd.h"

namespace {

using namespace BarrelKeystone;

enum class Sampling { Nearest, Bilinear };

// The settings of the mapping, loaded once per part.
struct SourceMapping {
  double m00, m01, m02, m10, m11, m12, m20, m21, m22;
  double distortion, distortionPlusOne, centerX, centerY;
  bool affine;  // the third column is (0, 0, 1): no keystone, as the effect starts
  double reciprocalOfPlusOne;  // 1 / (distortion + 1), for the radial factor's quotients
};

SourceMapping MappingOf(const BarrelDistortionParams& p) {
  const double* k = p.keystone;
  const bool affine = k[k02] == 0.0 && k[k12] == 0.0 && k[k22] == 1.0;
  return {k[k00], k[k01], k[k02], k[k10], k[k11], k[k12], k[k20], k[k21], k[k22],
          p.distortion, p.distortionPlusOne, p.centerX, p.centerY, affine, 1.0 / p.distortionPlusOne};
}

// The per-row share of the position formula.
struct RowTerms {
  double ny;
  double nySquared;
};

RowTerms RowTermsOf(const SourceMapping& m, int32_t y) {
  const double ny = (static_cast<double>(y) - m.centerY) / m.centerY;
  return {ny, ny * ny};
}

// One destination row and everything its pixels need.
struct RowJob {
  const SourceMapping* mapping;
  RowTerms row;
  double lastColumn, lastRow;  // doubles, so a position is tested before it is converted
  const uint8_t* srcPixels;
  int64_t srcRowBytes, srcPixelBytes;
  const uint8_t* background;
  int channels;
  uint8_t* out;
  int64_t step;
  int64_t width;
  const double* columnNx;     // nx of the first normalisedColumns columns
  int64_t normalisedColumns;  // a multiple of every lane count
  // The row's radial factors of its first radialColumns columns (a multiple
  // of every lane count), kept as they are worked out, and the sum of a
  // column and its mirror about the centre (-1 when columns have no mirror
  // with the same factor).
  double* radial;
  int64_t radialColumns;
  int64_t mirrorSum;
};

using RowFiller = void (*)(const RowJob&);

}  // namespace

namespace {
#define RAWFX_PATH_TEXT "effects/barrel/barrel_path.h"
#define RAWFX_PATH_WIDE
#include "imaging/simd_paths.h"
}  // namespace

namespace {

// The usual pixels (three or four samples) get fills compiled for their size,
// where the copies and blends become fixed-size moves.
template <class Sample, Sampling mode>
RowFiller RowFillerFor(int channels) {
  if (channels == 3) return RAWFX_PICK_PATH(FillRow<Sample, mode, 3>);
  if (channels == 4) return RAWFX_PICK_PATH(FillRow<Sample, mode, 4>);
  return RAWFX_PICK_PATH(FillRow<Sample, mode, 0>);
}

template <class Sample>
const uint8_t* BackgroundOf(const BarrelDistortionParams& p) {
  if constexpr (sizeof(Sample) == 1)
    return p.backColor8;
  else
    return reinterpret_cast<const uint8_t*>(p.backColor16);
}

constexpr int64_t kNormalisedColumns = 4096;
constexpr int64_t kRadialColumns = kNormalisedColumns / 2;

// Column x and column 2 cx - x have the same radial factor when cx is a
// multiple of one half (the effect's centre, width / 2, always is): then
// x - cx and (2 cx - x) - cx are exact and opposite, so are their nx, and
// the factor takes nx only squared. The mirror sum 2 cx then fits an int32.
int64_t MirrorSumOf(double centerX) {
  const double sum = centerX * 2.0;
  return sum >= 0.0 && sum <= 2147483647.0 && sum == static_cast<double>(static_cast<int64_t>(sum))
             ? static_cast<int64_t>(sum)
             : -1;
}

template <class Sample, Sampling mode>
void* BarrelDistortPart(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& params = *static_cast<BarrelDistortionParams*>(part->params);
  GenericMPParams& head = params.head;
  constexpr int kSampleBytes = sizeof(Sample);
  const SourceMapping mapping = MappingOf(params);
  RowJob job{&mapping,
             {},
             static_cast<double>(head.width) - 1.0,
             static_cast<double>(head.height) - 1.0,
             head.srcPixels,
             head.srcRowBytes,
             head.srcPixelBytes,
             BackgroundOf<Sample>(params),
             head.srcPixelBytes / kSampleBytes,
             nullptr,
             // Whole samples only: a 16-bit destination steps by an even number of bytes.
             head.dstPixelBytes / kSampleBytes * kSampleBytes,
             head.width,
             nullptr,
             0,
             nullptr,
             0,
             MirrorSumOf(mapping.centerX)};
  const RowFiller fillRow = RowFillerFor<Sample, mode>(job.channels);
  // The columns' nx on the part's stack, for the widths most bitmaps have;
  // wider rows work out the rest per row.
  double columnNx[kNormalisedColumns];
  job.columnNx = columnNx;
  job.normalisedColumns = std::clamp<int64_t>(rawfx::simd::WholeLaneGroups(head.width), 0, kNormalisedColumns);
  RAWFX_PICK_PATH(NormaliseColumns)(mapping, columnNx, job.normalisedColumns);
  // The left half's radial factors of rows up to that width, which the right
  // half reuses; none are kept when no column has a mirror to reuse them.
  double radial[kRadialColumns];
  job.radial = radial;
  job.radialColumns = job.mirrorSum < 0 ? 0 : std::min(job.normalisedColumns, kRadialColumns);

  for (int32_t y = part->firstRow; y < part->endRow; ++y) {
    job.row = RowTermsOf(mapping, y);
    job.out = head.dstPixels + static_cast<int64_t>(y) * head.dstRowBytes;
    fillRow(job);
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
