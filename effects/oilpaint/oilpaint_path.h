// The oil paint binning, written once and compiled per path (see
// imaging/simd.h): the intensity and bin of a lane group of pixels, and the
// rows painted with it.
//
// No include guard: included once per path by oilpaint_kernels.cpp.
namespace RAWFX_SIMD_PATH {

using namespace rawfx::simd::RAWFX_SIMD_PATH;

// Where red, green and blue lie in a pixel's 4-byte word.
struct WordLayout {
  int red, green, blue;
};

// The bins and colours of kLanes pixels whose words are `stride` bytes apart.
// Intensity: (0.59 G + 0.3 R) + 0.11 B in double precision, truncated, low 8
// bits; it lies within 0 .. 255, so its conversion is in range. Bin: the
// intensity times the smoothness (the float widened), truncated, low 8 bits; a
// product outside the int32 range converts to INT32_MIN, whose low bits give
// bin 0.
RAWFX_SIMD_FN void BinGroup(const uint8_t* words, int64_t stride, WordLayout at, double smoothness, uint8_t* bins,
                            PackedColour* colours) {
  const Vi w = LoadWords(words, stride);
  const Vi red = ByteOf(w, at.red);
  const Vi green = ByteOf(w, at.green);
  const Vi blue = ByteOf(w, at.blue);
  const Vd sum = (Set(0.59) * ToDouble(green) + Set(0.3) * ToDouble(red)) + Set(0.11) * ToDouble(blue);
  const Vd intensity = ToDouble(LowByte(TruncToInt32(sum)));
  StoreLowBytes(bins, LowByte(TruncToInt32(intensity * Set(smoothness))));
  StorePackedBytes(colours, w, at.red, at.green, at.blue);
}

struct Path {
  // Both are called from the generic rows and inlined there by the entry's
  // flatten, so the AVX2 instances run as AVX2 code.

  // Bins columns first .. end - 1 of a source row into the ring row. Groups
  // start at multiples of kLanes, so their ring slots do not wrap; columns
  // whose channels cannot be read as one word are staged into words first.
  RAWFX_SIMD_ENTRY static void BinRow(const Binning& b, const uint8_t* row, int32_t first, int32_t end, uint8_t* bins,
                                   PackedColour* colours) {
    const double smoothness = b.smoothness;
    int32_t column = first;
    if (first % kLanes == 0) {
      const WordLayout layout{b.redOffset - b.wordOffset, b.greenOffset - b.wordOffset, b.blueOffset - b.wordOffset};
      const int32_t wordEnd = std::min(end, b.wordColumns);
      for (; column + kLanes <= wordEnd; column += kLanes) {
        const int32_t slot = RingSlot(column);
        BinGroup(row + int64_t{column} * b.pixelBytes + b.wordOffset, b.pixelBytes, layout, smoothness, bins + slot,
                 colours + slot);
      }
    }
    while (column < end) {
      const int count = std::min<int32_t>(kLanes, end - column);
      uint8_t staged[4 * kLanes] = {};
      for (int j = 0; j < count; ++j) {
        const uint8_t* pixel = row + int64_t{column + j} * b.pixelBytes;
        staged[4 * j] = pixel[b.redOffset];
        staged[4 * j + 1] = pixel[b.greenOffset];
        staged[4 * j + 2] = pixel[b.blueOffset];
      }
      uint8_t groupBins[kLanes];
      PackedColour groupColours[kLanes];
      BinGroup(staged, 4, WordLayout{0, 1, 2}, smoothness, groupBins, groupColours);
      for (int j = 0; j < count; ++j) {
        bins[RingSlot(column + j)] = groupBins[j];
        colours[RingSlot(column + j)] = groupColours[j];
      }
      column += count;
    }
  }

  RAWFX_SIMD_ENTRY static int32_t FullestBin(const uint8_t* counts, int32_t bins) {
    return FullestBinSearch<kLanes>(counts, bins);
  }
};

template <bool Masked>
RAWFX_SIMD_ENTRY __attribute__((flatten)) void PaintRows(OilPaintParams& p, const Scratch& s, int32_t firstRow,
                                                         int32_t endRow) {
  PaintRowsWith<Masked, Path>(p, s, firstRow, endRow);
}

}  // namespace RAWFX_SIMD_PATH
