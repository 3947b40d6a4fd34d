#include "effects/oilpaint/oilpaint_kernels.h"

#include <algorithm>
#include <cstring>

#include "imaging/memory.h"
#include "imaging/simd.h"

// Speed. The histogram of a pixel's square is not gathered anew for every
// pixel but slid along the row: moving one pixel right takes out the column
// that leaves the square and adds the one that enters it. Counts and colour
// sums stay exact integers whatever the order of additions and subtractions,
// so the winning bin and its mean are those of the literal gather. The bins
// and colours of the square's source rows are worked out a chunk of columns
// at a time, along each source row, into a ring that also still holds the
// columns about to leave; the binning is written once (oilpaint_path.h) and
// runs a lane group of pixels per step, and the fullest bin is found with
// byte-wise vector maxima over the counts where the CPU has them.

namespace {

using rawfx::oilpaint::MeanOf;

// A pixel's three colour channels in one integer: red in bits 0..15, green in
// 16..31, blue in 32..47. A square holds at most 121 pixels, so a bin's
// channel sums stay below 121 x 255 = 30855 < 2^16: adding and subtracting
// packed colours in any order leaves every lane's exact sum, with no carry
// between lanes.
using PackedColour = uint64_t;

uint32_t RedOf(PackedColour c) { return static_cast<uint32_t>(c & 0xFFFF); }
uint32_t GreenOf(PackedColour c) { return static_cast<uint32_t>(c >> 16 & 0xFFFF); }
uint32_t BlueOf(PackedColour c) { return static_cast<uint32_t>(c >> 32 & 0xFFFF); }

constexpr int32_t kVectorBytes = 32;
constexpr int32_t kMaxWordPixelBytes = 64;
constexpr int32_t kMaxDiameter = 11;
// Columns binned at a time, and the ring's width in columns: a power of two
// with room for a chunk beyond the square's columns and the one entering.
constexpr int32_t kChunkColumns = 64;
constexpr int32_t kRingColumns = 128;
static_assert(kChunkColumns + kMaxDiameter + 1 <= kRingColumns);
static_assert(kChunkColumns % 8 == 0 && (kRingColumns & (kRingColumns - 1)) == 0);

int32_t RingSlot(int32_t column) { return column & (kRingColumns - 1); }

// Bins rounded up to whole vectors: the counts block is read a vector at a time.
constexpr int32_t PaddedBins(int32_t bins) { return (bins + kVectorBytes - 1) / kVectorBytes * kVectorBytes; }

// The histogram of one part call and the ring of binned columns, taken once
// per call in four blocks, sized by the bins and the brush only.
struct Scratch {
  uint8_t* counts = nullptr;            // per bin, padded with bins that stay empty
  PackedColour* sums = nullptr;         // per bin; exact while the bin's count is above 0
  uint8_t* ringBins = nullptr;          // square row x ring slot: a pixel's bin
  PackedColour* ringColours = nullptr;  // the same pixel's colour
  bool onHeap = false;                  // the blocks came from NewPtr and go back with DisposePtr
};

// Scratch for the most bins (256: a bin is a byte) and the widest brush, on
// the part's stack: when the heap has none, the part still paints every row,
// with the same result, instead of leaving a blank.
struct FallbackScratch {
  alignas(kVectorBytes) uint8_t counts[PaddedBins(256)];
  PackedColour sums[256];
  uint8_t ringBins[kMaxDiameter * kRingColumns];
  PackedColour ringColours[kMaxDiameter * kRingColumns];
};

// Gives back the heap blocks that s holds, in the order they were taken.
void GiveBackScratch(Scratch& s) {
  if (!s.onHeap) return;
  DisposePtr(s.counts);
  DisposePtr(s.sums);
  DisposePtr(s.ringBins);
  DisposePtr(s.ringColours);
}

// Takes the four blocks from the heap, or, when any of them cannot be had,
// gives back the others and uses the fallback. The class admits at most 256
// bins and a diameter of kMaxDiameter, which the fallback holds.
Scratch TakeScratch(int32_t bins, int32_t diameter, FallbackScratch& fallback) {
  const int64_t ringPixels = int64_t{diameter} * kRingColumns;
  Scratch s{static_cast<uint8_t*>(NewPtr(PaddedBins(bins))),
            static_cast<PackedColour*>(NewPtr(int64_t{bins} * int64_t{sizeof(PackedColour)})),
            static_cast<uint8_t*>(NewPtr(ringPixels)),
            static_cast<PackedColour*>(NewPtr(ringPixels * int64_t{sizeof(PackedColour)})), true};
  if (s.counts && s.sums && s.ringBins && s.ringColours) return s;
  GiveBackScratch(s);
  return {fallback.counts, fallback.sums, fallback.ringBins, fallback.ringColours, false};
}

// Everything that turns source pixels into bins, read once per call.
struct Binning {
  Binning(const OilPaintParams& p, const Scratch& s)
      : redOffset(p.redOffset),
        greenOffset(p.greenOffset),
        blueOffset(p.blueOffset),
        smoothness(p.smoothness),
        pixelBytes(p.head.srcPixelBytes),
        rowBytes(p.head.srcRowBytes),
        ringBins(s.ringBins),
        ringColours(s.ringColours) {
    const int32_t lowest = std::min({redOffset, greenOffset, blueOffset});
    const int32_t span = std::max({redOffset, greenOffset, blueOffset}) - lowest;
    wordOffset = lowest;
    wordColumns = WordColumns(p.head.width, lowest, span);
  }

  // How many leading columns can be read as one 4-byte word per pixel, at
  // the lowest colour offset. All three channels must lie in that word, and
  // the word of column c, bytes c x pixelBytes + lowest .. + 3 of the row,
  // must end by the last byte that the literal gather reads in a row,
  // (width - 1) x pixelBytes + lowest + span: nothing is read that the
  // reference does not read around. Pixels wider than kMaxWordPixelBytes
  // keep the gather's 32-bit indexes far from overflow; no format has them.
  int32_t WordColumns(int32_t width, int32_t lowest, int32_t span) const {
    if (width <= 0 || pixelBytes <= 0 || pixelBytes > kMaxWordPixelBytes || lowest < 0 || span > 3) return 0;
    const int64_t latestStart = (int64_t{width} - 1) * pixelBytes + span - 3;
    return latestStart < 0 ? 0 : static_cast<int32_t>(std::min<int64_t>(width, latestStart / pixelBytes + 1));
  }

  const int32_t redOffset;
  const int32_t greenOffset;
  const int32_t blueOffset;
  const float smoothness;
  const int32_t pixelBytes;
  const int64_t rowBytes;
  uint8_t* const ringBins;
  PackedColour* const ringColours;
  int32_t wordOffset = 0;   // the lowest colour offset
  int32_t wordColumns = 0;  // leading columns whose channels can be read as a word
};

// The lowest of the most populated bins: a plain scan on one lane.
template <int kLanes>
int32_t FullestBinSearch(const uint8_t* counts, int32_t bins) {
  int32_t best = 0;
  for (int32_t k = 1; k < bins; ++k)
    if (counts[k] > counts[best]) best = k;
  return best;
}

#if RAWFX_SIMD_X86
// On four lanes: the largest count by byte-wise maxima, then the first bin
// holding it. Padding bins are empty and every square holds a pixel, so the
// padding never wins.
template <>
RAWFX_TARGET_AVX2 int32_t FullestBinSearch<4>(const uint8_t* counts, int32_t bins) {
  const int32_t padded = PaddedBins(bins);
  __m256i largest = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(counts));
  for (int32_t k = kVectorBytes; k < padded; k += kVectorBytes)
    largest = _mm256_max_epu8(largest, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(counts + k)));
  __m128i half = _mm_max_epu8(_mm256_castsi256_si128(largest), _mm256_extracti128_si256(largest, 1));
  half = _mm_max_epu8(half, _mm_srli_si128(half, 8));
  half = _mm_max_epu8(half, _mm_srli_si128(half, 4));
  half = _mm_max_epu8(half, _mm_srli_si128(half, 2));
  half = _mm_max_epu8(half, _mm_srli_si128(half, 1));
  const __m256i target = _mm256_broadcastb_epi8(half);
  for (int32_t k = 0;; k += kVectorBytes) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(counts + k));
    const auto hits = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, target)));
    if (hits != 0) return k + __builtin_ctz(hits);
  }
}
#endif

struct BinTotal {
  uint32_t count;
  PackedColour sum;
};

// The settings of one part call, read once, and the painting of one row.
template <bool Masked, class Path>
class OilPaintRows {
 public:
  OilPaintRows(const OilPaintParams& p, const Scratch& s)
      : head_(p.head),
        binning_(p, s),
        counts_(s.counts),
        sums_(s.sums),
        radius_(p.brushSize),
        bins_(int32_t{p.maxLevel} + 1),
        copyAlpha_(p.head.srcBitmap->hasAlpha != 0),
        srcAlpha_(copyAlpha_ ? p.head.srcBitmap->alphaOffset : 0),
        dstAlpha_(copyAlpha_ ? p.head.dstBitmap->alphaOffset : 0) {}

  void Paint(int32_t y) {
    const MaskRowHandle maskRow = Masked ? MaskRow8(head_.maskData, y) : 0;
    const int32_t width = head_.width;
    if (width <= 0) return;
    StartSquare(y);
    for (int32_t column = 0; column <= std::min(radius_, width - 1); ++column) Add(column);

    const uint8_t* src = head_.srcPixels + int64_t{y} * head_.srcRowBytes;
    uint8_t* dst = head_.dstPixels + int64_t{y} * head_.dstRowBytes;
    for (int32_t x = 0;; ++x) {
      const uint8_t m = Masked ? MaskAt8(head_.maskData, maskRow, x) : 0;
      // The fullest bin is read before the square moves on and the pixel is
      // written after: the writes then fill the wait of the next search for
      // the counts just stored.
      const BinTotal fullest = FullestBinTotal();
      const bool last = x + 1 == width;
      if (!last) MoveRight(x);
      WritePixel(dst, src, m, fullest);
      if (last) break;
      src += head_.srcPixelBytes;
      dst += head_.dstPixelBytes;
    }
  }

 private:
  // Clears the histogram and bins the first chunk of the square's source rows.
  void StartSquare(int32_t y) {
    const int32_t top = std::max(0, y - radius_);
    rows_ = std::min(head_.height - 1, y + radius_) - top + 1;
    squareTop_ = head_.srcPixels + int64_t{top} * head_.srcRowBytes;
    std::memset(counts_, 0, static_cast<size_t>(PaddedBins(bins_)));
    std::memset(sums_, 0, static_cast<size_t>(bins_) * sizeof(PackedColour));
    binnedEnd_ = 0;
    BinNextChunk();
  }

  // Bins the next chunk of columns of every source row of the square. The
  // ring keeps the chunk before it, which holds the columns still to leave.
  void BinNextChunk() {
    const int32_t end = std::min(head_.width, binnedEnd_ + kChunkColumns);
    const uint8_t* row = squareTop_;
    for (int32_t r = 0; r < rows_; ++r, row += binning_.rowBytes) {
      Path::BinRow(binning_, row, binnedEnd_, end, binning_.ringBins + r * kRingColumns,
                   binning_.ringColours + r * kRingColumns);
    }
    binnedEnd_ = end;
  }

  // Moves the square from column x to column x + 1.
  void MoveRight(int32_t x) {
    const int32_t entering = x + 1 + radius_;
    const int32_t leaving = x - radius_;
    if (entering < head_.width) {
      if (entering >= binnedEnd_) BinNextChunk();
      if (leaving >= 0) {
        Replace(leaving, entering);
      } else {
        Add(entering);
      }
    } else if (leaving >= 0) {
      Remove(leaving);
    }
  }

  void Add(int32_t column) {
    const uint8_t* bins = binning_.ringBins + RingSlot(column);
    const PackedColour* colours = binning_.ringColours + RingSlot(column);
    for (int32_t r = 0; r < rows_; ++r, bins += kRingColumns, colours += kRingColumns) {
      ++counts_[*bins];
      sums_[*bins] += *colours;
    }
  }

  void Remove(int32_t column) {
    const uint8_t* bins = binning_.ringBins + RingSlot(column);
    const PackedColour* colours = binning_.ringColours + RingSlot(column);
    for (int32_t r = 0; r < rows_; ++r, bins += kRingColumns, colours += kRingColumns) {
      --counts_[*bins];
      sums_[*bins] -= *colours;
    }
  }

  // Remove(leaving) and Add(entering) in one pass over the square's rows.
  void Replace(int32_t leaving, int32_t entering) {
    const int32_t shift = RingSlot(entering) - RingSlot(leaving);
    const uint8_t* bins = binning_.ringBins + RingSlot(leaving);
    const PackedColour* colours = binning_.ringColours + RingSlot(leaving);
    uint8_t* const counts = counts_;
    PackedColour* const sums = sums_;
    for (int32_t r = 0; r < rows_; ++r, bins += kRingColumns, colours += kRingColumns) {
      const uint8_t out = bins[0];
      const uint8_t in = bins[shift];
      --counts[out];
      ++counts[in];
      sums[out] -= colours[0];
      sums[in] += colours[shift];
    }
  }

  // The count and colour sums of the fullest bin. The pixel itself is in
  // its square, so the count is at least 1.
  BinTotal FullestBinTotal() const {
    const int32_t best = Path::FullestBin(counts_, bins_);
    return {counts_[best], sums_[best]};
  }

  // The mean colour of the fullest bin, the alpha copy and the mask blend, in that order.
  void WritePixel(uint8_t* dst, const uint8_t* src, uint32_t m, BinTotal fullest) const {
    dst[binning_.redOffset] = static_cast<uint8_t>(MeanOf(RedOf(fullest.sum), fullest.count));
    dst[binning_.greenOffset] = static_cast<uint8_t>(MeanOf(GreenOf(fullest.sum), fullest.count));
    dst[binning_.blueOffset] = static_cast<uint8_t>(MeanOf(BlueOf(fullest.sum), fullest.count));
    if (copyAlpha_) dst[dstAlpha_] = src[srcAlpha_];
    if (Masked) Blend(dst, src, m);
  }

  // Mixes each colour byte with the source, the source weighted by m; applied to
  // every m, 0 and 255 included. Coinciding offsets are mixed once per offset.
  void Blend(uint8_t* dst, const uint8_t* src, uint32_t m) const {
    for (const int32_t offset : {binning_.redOffset, binning_.greenOffset, binning_.blueOffset}) {
      dst[offset] = static_cast<uint8_t>((src[offset] * m + dst[offset] * (255 - m)) >> 8);
    }
  }

  const GenericMPParams& head_;
  const Binning binning_;
  uint8_t* const counts_;
  PackedColour* const sums_;
  const int32_t radius_;
  const int32_t bins_;
  const bool copyAlpha_;
  const int32_t srcAlpha_;
  const int32_t dstAlpha_;
  int32_t rows_ = 0;                    // source rows in the current square
  const uint8_t* squareTop_ = nullptr;  // the square's top source row
  int32_t binnedEnd_ = 0;               // columns binned so far in the current row
};

// The rows of one part in increasing order, each counted as progress, stopping
// after the row during which a cancel was requested.
template <bool Masked, class Path>
void PaintRowsWith(OilPaintParams& p, const Scratch& s, int32_t firstRow, int32_t endRow) {
  OilPaintRows<Masked, Path> rows(p, s);
  for (int32_t y = firstRow; y < endRow; ++y) {
    rows.Paint(y);
    if (!rawfx::FinishRow(p.head)) break;
  }
}

}  // namespace

namespace {
#define RAWFX_PATH_TEXT "effects/oilpaint/oilpaint_path.h"
#include "imaging/simd_paths.h"
}  // namespace

namespace {

// One part. Its scratch comes from the heap, or from the stack when the heap
// has none; either way every row of the part is painted exactly.
template <bool Masked>
void* OilPaintPart(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  if (part.firstRow < part.endRow) {
    auto& p = *static_cast<OilPaintParams*>(part.params);
    FallbackScratch fallback;
    Scratch scratch = TakeScratch(int32_t{p.maxLevel} + 1, 2 * int32_t{p.brushSize} + 1, fallback);
    RAWFX_PICK_PATH(PaintRows<Masked>)(p, scratch, part.firstRow, part.endRow);
    GiveBackScratch(scratch);
  }
  if constexpr (!Masked) part.done = 1;
  return nullptr;
}

}  // namespace

void* OilPaintPart8bit(void* block) { return OilPaintPart<false>(block); }
void* OilPaintMaskPart8bit(void* block) { return OilPaintPart<true>(block); }
