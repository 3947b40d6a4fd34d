// The sampling engine of the warps (polar and barrel), one text compiled per
// path: include it inside a path's namespace after imaging/simd.h has set up the
// lane set (see there). Nothing here is an effect's own rule: an effect maps its
// pixels to source positions, decides per position which neighbours come from
// the source and what the weights are, and hands that to this engine.
//
// A row is done in chunks. A chunk is first planned (the source address of each
// neighbour, or the background, and the weights) and its source pixels are
// prefetched; it is filled only after the next chunk has been planned. The warps
// read the source along curves that the hardware prefetcher cannot follow, so
// without this a pixel's loads would wait for memory after its position's long
// chain of arithmetic.
//
// No include guard: the text is meant to be included once per path.

inline constexpr int kChunk = 64;  // entries planned ahead of their fill; a multiple of every lane count

// The source as the planners address it.
struct SourceLayout {
  const uint8_t* pixels;
  int64_t rowBytes;
  int64_t pixelBytes;
  const uint8_t* background;  // one sample per channel, in the bitmap's order
};

// Where a plan's entries are written: entry i at first + i * step, or, for a
// planner whose entries do not lie in a row (kListedOut), at out[i].
struct Destinations {
  uint8_t* first;
  int64_t step;
  uint8_t* out[kChunk];

  template <bool kListed>
  RAWFX_SIMD_FN uint8_t* At(int i) const {
    return kListed ? out[i] : first + i * step;
  }
};

struct NearestPlan : Destinations {
  int count;
  const uint8_t* from[kChunk];
};

struct BilinearPlan : Destinations {
  int count;
  const uint8_t* topLeft[kChunk];
  const uint8_t* topRight[kChunk];
  const uint8_t* bottomLeft[kChunk];
  const uint8_t* bottomRight[kChunk];
  double fx[kChunk];
  double fy[kChunk];
};

// What an effect's neighbour rules decide for kLanes positions.
struct Neighbours {
  Vd column, row;  // of the top-left neighbour: whole numbers, in the int32 range where any neighbour is read
  Md topLeft, topRight, bottomLeft, bottomRight;  // read from the source; the others are the background
  Vd fx, fy;       // the weights
};

// The weight fmod(s, 1.0), plus 1 when negative, as s - floor(s). Both are
// one rounding of the same real: for s >= 0, fmod gives s - trunc(s) exactly
// (both multiples of the last place of s, less than 1 apart), and that is
// s - floor(s); for a negative s, fmod's part is exact and adding 1 rounds
// (s - trunc(s)) + 1 once, where s - floor(s) rounds s - (trunc(s) - 1) once.
// They differ only in the sign of a zero, for a whole negative s (fmod gives
// -0), which no blend shows: a zero weight times a whole difference is a zero,
// and a zero plus a sample is that sample (+0 for a 0 sample, whichever zero).
// Non-finite positions give NaN both ways.
RAWFX_SIMD_FN Vd Fraction(Vd s) { return s - Floor(s); }

// Lanes whose neighbours are all the background get weights 0: blending four
// background samples with them gives the background exactly, and it keeps the
// NaN weights of a non-finite position out of the blend.
RAWFX_SIMD_FN void PlanBilinear(const SourceLayout& s, const Neighbours& n, int at, BilinearPlan& plan) {
  const Md any = Or(Or(n.topLeft, n.topRight), Or(n.bottomLeft, n.bottomRight));
  const Vp topLeft = PixelAddress(s.pixels, ZeroUnless(any, n.column), ZeroUnless(any, n.row), s.rowBytes,
                                  s.pixelBytes);
  const Vp bottomLeft = Offset(topLeft, s.rowBytes);
  StoreAddress(plan.topLeft + at, n.topLeft, topLeft, s.background);
  StoreAddress(plan.topRight + at, n.topRight, Offset(topLeft, s.pixelBytes), s.background);
  StoreAddress(plan.bottomLeft + at, n.bottomLeft, bottomLeft, s.background);
  StoreAddress(plan.bottomRight + at, n.bottomRight, Offset(bottomLeft, s.pixelBytes), s.background);
  Store(plan.fx + at, ZeroUnless(any, n.fx));
  Store(plan.fy + at, ZeroUnless(any, n.fy));
}

// The source pixel (column, row) where inside, else the background.
RAWFX_SIMD_FN void PlanNearest(const SourceLayout& s, Vd column, Vd row, Md inside, int at, NearestPlan& plan) {
  const Vp from = PixelAddress(s.pixels, ZeroUnless(inside, column), ZeroUnless(inside, row), s.rowBytes,
                               s.pixelBytes);
  StoreAddress(plan.from + at, inside, from, s.background);
}

// The right-hand neighbours mostly share the left ones' cache lines.
RAWFX_SIMD_FN void Prefetch(const BilinearPlan& plan) {
  for (int i = 0; i < plan.count; ++i) {
    rawfx::simd::PrefetchLine(plan.topLeft[i]);
    rawfx::simd::PrefetchLine(plan.bottomLeft[i]);
  }
}

RAWFX_SIMD_FN void Prefetch(const NearestPlan& plan) {
  for (int i = 0; i < plan.count; ++i) rawfx::simd::PrefetchLine(plan.from[i]);
}

// kChannels is the samples per pixel when a fill is compiled for one pixel
// size, or 0 when it takes `channels` at run time.
template <class Sample, int kChannels>
RAWFX_SIMD_FN void CopyPixel(uint8_t* out, const uint8_t* in, int channels) {
  if constexpr (kChannels > 0)
    std::memcpy(out, in, kChannels * sizeof(Sample));
  else
    rawfx::simd::CopyBytes(out, in, int64_t{channels} * int64_t{sizeof(Sample)});
}

template <class Sample, int kChannels, bool kListed>
RAWFX_SIMD_FN void Fill(const NearestPlan& plan, int channels) {
  for (int i = 0; i < plan.count; ++i)
    CopyPixel<Sample, kChannels>(plan.template At<kListed>(i), plan.from[i], channels);
}

// Per sample, as doubles: upper = (tr - tl) fx + tl, lower = (br - bl) fx + bl,
// value = (lower - upper) fy + upper, stored truncated.
RAWFX_SIMD_FN Vd Blend(Vd tl, Vd tr, Vd bl, Vd br, Vd fx, Vd fy) {
  const Vd upper = (tr - tl) * fx + tl;
  const Vd lower = (br - bl) * fx + bl;
  return (lower - upper) * fy + upper;
}

// Where whole pixels fill a lane group together (two four-sample pixels in
// eight lanes, the one lane set with loads and stores of pixel groups), they
// are blended a group at a time, background included. Otherwise pixel by pixel,
// a lane group of its samples at a time; with both weights +0 (all bits clear)
// the blend is the top-left pixel exactly, so it is copied (a -0 weight takes
// the blend, which gives the same).
template <class Sample, int kChannels, bool kListed>
RAWFX_SIMD_FN void Fill(const BilinearPlan& plan, int runtimeChannels) {
  constexpr int kGroup = kChannels > 0 && kLanes % kChannels == 0 ? kLanes / kChannels : 1;
  const int channels = kChannels > 0 ? kChannels : runtimeChannels;
  int i = 0;
  if constexpr (kGroup > 1) {
    for (; i + kGroup <= plan.count; i += kGroup) {
      uint8_t* out[kGroup];
      for (int p = 0; p < kGroup; ++p) out[p] = plan.template At<kListed>(i + p);
      StorePixels<Sample, kChannels>(
          out, Blend(LoadPixels<Sample, kChannels>(plan.topLeft + i), LoadPixels<Sample, kChannels>(plan.topRight + i),
                     LoadPixels<Sample, kChannels>(plan.bottomLeft + i),
                     LoadPixels<Sample, kChannels>(plan.bottomRight + i), SpreadWeights<kChannels>(plan.fx + i),
                     SpreadWeights<kChannels>(plan.fy + i)));
    }
  }
  for (; i < plan.count; ++i) {
    uint8_t* out = plan.template At<kListed>(i);
    if ((rawfx::simd::LoadWord<uint64_t>(reinterpret_cast<const uint8_t*>(plan.fx + i)) |
         rawfx::simd::LoadWord<uint64_t>(reinterpret_cast<const uint8_t*>(plan.fy + i))) == 0) {
      CopyPixel<Sample, kChannels>(out, plan.topLeft[i], channels);
      continue;
    }
    const Vd fx = Set(plan.fx[i]);
    const Vd fy = Set(plan.fy[i]);
    for (int c = 0; c < channels; c += kLanes) {
      const int count = std::min(kLanes, channels - c);
      const int64_t at = c * int64_t{sizeof(Sample)};
      StoreSamples<Sample>(out + at,
                           Blend(LoadSamples<Sample>(plan.topLeft[i] + at, count),
                                 LoadSamples<Sample>(plan.topRight[i] + at, count),
                                 LoadSamples<Sample>(plan.bottomLeft[i] + at, count),
                                 LoadSamples<Sample>(plan.bottomRight[i] + at, count), fx, fy),
                           count);
    }
  }
}

// Plans and prefetches the chunk from `first` on of each row of a band.
template <class Plan, class Planner>
RAWFX_SIMD_FN void PlanChunks(const Planner* planners, int rows, int64_t first, Plan* plans) {
  for (int r = 0; r < rows; ++r) {
    planners[r].Plan(first, plans[r]);
    Prefetch(plans[r]);
  }
}

// Runs the rows of a band through the engine together: planners[r].Plan(first,
// plan) plans row r's entries from `first` on (at most Planner::kEntriesPerChunk)
// and sets plan.count and the destinations. The chunks of one column range are
// planned for every row of the band before those of the range before are
// filled. Neighbouring rows of a warp read neighbouring source lines, so a
// band of them reads each line while it is in the first-level cache rather
// than once per row. Backwards, the chunks are taken from the row's end to its
// start (a warp that alternates directions starts each band where the one
// before ended).
template <class Sample, int kChannels, class Plan, int kMaxRows, class Planner>
RAWFX_SIMD_FN void SampleRows(const Planner* planners, int rows, int64_t entries, int channels, bool backwards) {
  constexpr int64_t kPerChunk = Planner::kEntriesPerChunk;
  const int64_t chunks = (entries + kPerChunk - 1) / kPerChunk;
  const auto firstOf = [&](int64_t chunk) { return (backwards ? chunks - 1 - chunk : chunk) * kPerChunk; };
  Plan plans[2][kMaxRows];
  if (chunks > 0) PlanChunks(planners, rows, firstOf(0), plans[0]);
  for (int64_t chunk = 0; chunk < chunks; ++chunk) {
    if (chunk + 1 < chunks) PlanChunks(planners, rows, firstOf(chunk + 1), plans[(chunk + 1) & 1]);
    for (int r = 0; r < rows; ++r) Fill<Sample, kChannels, Planner::kListedOut>(plans[chunk & 1][r], channels);
  }
}

// One row, as a band of one.
template <class Sample, int kChannels, class Plan, class Planner>
RAWFX_SIMD_FN void SampleRow(const Planner& planner, int64_t entries, int channels, bool backwards = false) {
  SampleRows<Sample, kChannels, Plan, 1>(&planner, 1, entries, channels, backwards);
}
