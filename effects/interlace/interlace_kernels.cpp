#include "effects/interlace/interlace_kernels.h"

#include <algorithm>
#include <cstring>

#include "imaging/simd.h"

// Speed. Every byte of a row is either the source's or the fill colour's, so a
// row whose source and destination pixels are packed alike is worked as bytes:
// copied runs are block copies (nothing at all in place), filled rows are
// stored from a prepared colour pattern, and rows with filled columns are one
// byte select of source and pattern through a prepared byte mask. Rows laid out
// any other way, or overlapping without being the same row, take the literal
// pixel-by-pixel walk.

namespace {

// What differs between 8- and 16-bit samples: where the channel count and the
// pixel steps come from, the mask operations and the mask's full value.
template <class Sample>
struct Depth;

template <>
struct Depth<uint8_t> {
  static constexpr uint32_t kFullMask = 255;
  static constexpr int kMixShift = 8;
  static int64_t Channels(const GenericMPParams& h) { return h.srcBitmap->bytesPerPixel; }
  static int64_t AlphaChannel(const GenericMPParams& h) { return h.srcBitmap->alphaOffset; }
  static int64_t SrcStep(const GenericMPParams& h) { return h.srcPixelBytes; }
  static int64_t DstStep(const GenericMPParams& h) { return h.dstPixelBytes; }
  static MaskRowHandle MaskRow(RawBitmapMaskData* m, int64_t row) { return MaskRow8(m, row); }
  static uint32_t MaskAt(RawBitmapMaskData* m, MaskRowHandle r, int32_t x) { return MaskAt8(m, r, x); }
};

template <>
struct Depth<uint16_t> {
  static constexpr uint32_t kFullMask = 65535;
  static constexpr int kMixShift = 16;
  static int64_t Channels(const GenericMPParams& h) { return h.srcBitmap->channelCount; }
  // Offsets are byte positions; a 16-bit sample index is half of one.
  static int64_t AlphaChannel(const GenericMPParams& h) { return h.srcBitmap->alphaOffset >> 1; }
  static int64_t SrcStep(const GenericMPParams& h) { return h.srcBitmap->channelCount; }
  static int64_t DstStep(const GenericMPParams& h) { return h.dstBitmap->channelCount; }
  static MaskRowHandle MaskRow(RawBitmapMaskData* m, int64_t row) { return MaskRow16(m, row); }
  static uint32_t MaskAt(RawBitmapMaskData* m, MaskRowHandle r, int32_t x) { return MaskAt16(m, r, x); }
};

// One step of a phase countdown; true when this row (or pixel) is filled.
bool TakeFillTurn(int64_t& phase) {
  if (phase == 1) {
    phase = 2;
    return true;
  }
  --phase;
  return false;
}

// A part that starts at an odd row starts its columns in the other phase;
// its row phase is left as it is.
int64_t ColumnPhaseAt(int64_t verticalType, int32_t firstRow) {
  if (firstRow % 2 != 1) return verticalType;
  if (verticalType == kInterlaceOdd) return kInterlaceEven;
  if (verticalType == kInterlaceEven) return kInterlaceOdd;
  return verticalType;
}

// ---- byte patterns of packed rows ---------------------------------------------------

constexpr int64_t kVectorBytes = 32;
constexpr int64_t kPatternBytes = 1024;  // at most; a whole number of pixel pairs and vectors

// The fill colour repeated pixel after pixel, and two byte masks over it: the
// bytes a filled row takes from the colour (every channel but a kept alpha) and
// the same on every other pixel, starting with the first. All three repeat
// after `length` bytes and carry kVectorBytes more so that a read of one vector
// from any offset below `length` stays inside.
struct RowPatterns {
  int64_t pixelBytes = 0;
  int64_t length = 0;
  alignas(32) uint8_t colour[kPatternBytes + kVectorBytes];
  alignas(32) uint8_t wholeRow[kPatternBytes + kVectorBytes];
  alignas(32) uint8_t everyOther[kPatternBytes + kVectorBytes];

  template <class Sample>
  void Build(const Sample* fill, int64_t channels, int64_t keptChannel) {
    pixelBytes = channels * static_cast<int64_t>(sizeof(Sample));
    const int64_t unit = 64 * pixelBytes;  // a multiple of two pixels and of a vector
    length = unit * (kPatternBytes / unit);
    std::memcpy(colour, fill, static_cast<size_t>(pixelBytes));
    for (int64_t c = 0; c < channels; ++c)
      std::memset(wholeRow + c * sizeof(Sample), c == keptChannel ? 0 : 0xFF, sizeof(Sample));
    std::memcpy(everyOther, wholeRow, static_cast<size_t>(pixelBytes));
    std::memset(everyOther + pixelBytes, 0, static_cast<size_t>(pixelBytes));
    Repeat(colour, pixelBytes);
    Repeat(wholeRow, pixelBytes);
    Repeat(everyOther, 2 * pixelBytes);
  }

 private:
  // Doubles the first `filled` bytes until the whole array repeats them.
  static void Repeat(uint8_t* bytes, int64_t filled) {
    const int64_t total = kPatternBytes + kVectorBytes;
    while (filled < total) {
      const int64_t more = std::min(filled, total - filled);
      std::memcpy(bytes + filled, bytes, static_cast<size_t>(more));
      filled += more;
    }
  }
};

// dst[i] = mask[o] ? pattern[o] : src[i] for i < n, with o running from offset
// and wrapping at length. src and dst are the same bytes or do not overlap.
using SelectBytesFn = void (*)(const uint8_t* src, uint8_t* dst, int64_t n, const uint8_t* pattern,
                               const uint8_t* mask, int64_t offset, int64_t length);

void SelectTail(const uint8_t* src, uint8_t* dst, int64_t n, const uint8_t* pattern, const uint8_t* mask,
                int64_t offset, int64_t length) {
  for (int64_t i = 0; i < n; ++i) {
    dst[i] = mask[offset] ? pattern[offset] : src[i];
    if (++offset == length) offset = 0;
  }
}

}  // namespace

namespace {
#define RAWFX_PATH_TEXT "effects/interlace/interlace_path.h"
#include "imaging/simd_paths.h"
}  // namespace

namespace {

// How a row's source and destination pixels lie relative to each other.
enum class RowLayout {
  PackedInPlace,  // the same bytes, pixels packed alike: copies cost nothing
  PackedApart,    // packed alike and not overlapping: copies are block copies
  Literal,        // anything else: walk pixel by pixel, channel by channel
};

// The settings of one part call, read once: everything a row needs.
template <class Sample, bool Masked>
class InterlaceRows {
  using D = Depth<Sample>;

 public:
  explicit InterlaceRows(InterlaceParams& p)
      : head_(p.head),
        width_(p.head.width),
        channels_(D::Channels(p.head)),
        keptChannel_(p.interlaceAlpha ? -1 : D::AlphaChannel(p.head)),
        srcStep_(D::SrcStep(p.head)),
        dstStep_(D::DstStep(p.head)),
        packed_(channels_ >= 1 && channels_ <= kMaxChannels && srcStep_ == channels_ && dstStep_ == channels_),
        keepsChannel_(keptChannel_ >= 0 && keptChannel_ < channels_),
        selectBytes_(RAWFX_PICK_PATH(SelectBytes)) {
    const int64_t filledChannels = std::clamp<int64_t>(channels_, 0, kMaxChannels);
    for (int64_t i = 0; i < filledChannels; ++i) fill_[i] = static_cast<Sample>(p.channelValues[i]);
    if (packed_) patterns_.Build(fill_, channels_, keptChannel_);
  }

  void Run(int64_t horizontalType, int64_t verticalType, int32_t firstRow, int32_t endRow) {
    int64_t rowPhase = horizontalType;
    int64_t columnPhase = ColumnPhaseAt(verticalType, firstRow);
    for (int32_t row = firstRow; row < endRow; ++row) {
      const MaskRowHandle maskRow = Masked ? D::MaskRow(head_.maskData, row) : 0;
      const Sample* src = reinterpret_cast<const Sample*>(head_.srcPixels + int64_t{row} * head_.srcRowBytes);
      Sample* dst = reinterpret_cast<Sample*>(head_.dstPixels + int64_t{row} * head_.dstRowBytes);
      if (TakeFillTurn(rowPhase))
        FillRow(src, dst, maskRow);
      else
        InterlaceRow(src, dst, maskRow, columnPhase);
      if (!rawfx::FinishRow(head_)) break;
    }
  }

 private:
  RowLayout LayoutOf(const Sample* src, const Sample* dst) const {
    if (!packed_) return RowLayout::Literal;
    const auto s = reinterpret_cast<uintptr_t>(src), d = reinterpret_cast<uintptr_t>(dst);
    const auto n = static_cast<uintptr_t>(RowBytes(width_));
    if (s == d) return RowLayout::PackedInPlace;
    if (s + n <= d || d + n <= s) return RowLayout::PackedApart;
    return RowLayout::Literal;
  }

  int64_t RowBytes(int64_t pixels) const { return pixels * patterns_.pixelBytes; }

  void FillRow(const Sample* src, Sample* dst, MaskRowHandle maskRow) const {
    if (width_ <= 0) return;
    const RowLayout layout = LayoutOf(src, dst);
    if (layout == RowLayout::Literal) {
      for (int32_t x = 0; x < width_; ++x) LiteralFill(src + x * srcStep_, dst + x * dstStep_, maskRow, x);
    } else if constexpr (Masked) {
      CopyPixels(src, dst, width_, layout);
      for (int32_t x = 0; x < width_; ++x) MixPixel(src + x * channels_, dst + x * channels_, maskRow, x);
    } else if (keepsChannel_) {
      SelectPattern(src, dst, RowBytes(width_), patterns_.wholeRow, 0);
    } else {
      StoreColour(dst, RowBytes(width_));
    }
  }

  // Pixels are copied until the phase reaches 1 or 2 (all of them when it is
  // 0 or below), then filled and copied by turns. columnPhase carries on from
  // row to row: it is not reset here.
  void InterlaceRow(const Sample* src, Sample* dst, MaskRowHandle maskRow, int64_t& columnPhase) const {
    if (width_ <= 0) return;
    const RowLayout layout = LayoutOf(src, dst);
    if (layout == RowLayout::Literal) {
      for (int32_t x = 0; x < width_; ++x) {
        if (TakeFillTurn(columnPhase))
          LiteralFill(src + x * srcStep_, dst + x * dstStep_, maskRow, x);
        else
          LiteralCopy(src + x * srcStep_, dst + x * dstStep_);
      }
      return;
    }
    const int64_t lead = columnPhase <= 0 ? width_ : std::min<int64_t>(width_, std::max<int64_t>(columnPhase - 2, 0));
    columnPhase -= lead;
    const int64_t rest = width_ - lead;
    if (rest == 0) {
      CopyPixels(src, dst, lead, layout);
      return;
    }
    const int64_t firstFilled = lead + (columnPhase == kInterlaceOdd ? 0 : 1);
    if (rest % 2 == 1) columnPhase = 3 - columnPhase;
    if constexpr (Masked) {
      CopyPixels(src, dst, width_, layout);
      for (int64_t x = firstFilled; x < width_; x += 2)
        MixPixel(src + x * channels_, dst + x * channels_, maskRow, static_cast<int32_t>(x));
    } else {
      CopyPixels(src, dst, lead, layout);
      const int64_t offset = (firstFilled - lead) * patterns_.pixelBytes;
      SelectPattern(src + lead * channels_, dst + lead * channels_, RowBytes(rest), patterns_.everyOther, offset);
    }
  }

  void CopyPixels(const Sample* src, Sample* dst, int64_t pixels, RowLayout layout) const {
    if (layout == RowLayout::PackedApart && pixels > 0) std::memcpy(dst, src, static_cast<size_t>(RowBytes(pixels)));
  }

  void SelectPattern(const Sample* src, Sample* dst, int64_t bytes, const uint8_t* mask, int64_t offset) const {
    selectBytes_(reinterpret_cast<const uint8_t*>(src), reinterpret_cast<uint8_t*>(dst), bytes, patterns_.colour,
                 mask, offset, patterns_.length);
  }

  // A row filled whole without a kept channel reads no source at all.
  void StoreColour(Sample* dst, int64_t bytes) const {
    auto* out = reinterpret_cast<uint8_t*>(dst);
    for (int64_t done = 0; done < bytes; done += patterns_.length)
      std::memcpy(out + done, patterns_.colour, static_cast<size_t>(std::min(patterns_.length, bytes - done)));
  }

  // A filled pixel of a packed masked row whose destination already holds the
  // source pixel: mask 0 writes the colour (a kept channel is already right),
  // the full value leaves the source, anything else mixes every channel.
  void MixPixel(const Sample* src, Sample* dst, MaskRowHandle maskRow, int32_t x) const {
    const uint32_t m = D::MaskAt(head_.maskData, maskRow, x);
    if (m == D::kFullMask) return;
    if (m == 0) {
      for (int64_t i = 0; i < channels_; ++i)
        if (i != keptChannel_) dst[i] = fill_[i];
      return;
    }
    for (int64_t i = 0; i < channels_; ++i) dst[i] = Mix(src[i], FillValue(src, i), m);
  }

  // Each channel is read from the source before the same position is written,
  // so src and dst may overlap in any way.
  void LiteralFill(const Sample* src, Sample* dst, MaskRowHandle maskRow, int32_t x) const {
    if constexpr (Masked) {
      const uint32_t m = D::MaskAt(head_.maskData, maskRow, x);
      for (int64_t i = 0; i < channels_; ++i) dst[i] = Mix(src[i], FillValue(src, i), m);
    } else {
      for (int64_t i = 0; i < channels_; ++i) dst[i] = FillValue(src, i);
    }
  }

  void LiteralCopy(const Sample* src, Sample* dst) const {
    for (int64_t i = 0; i < channels_; ++i) dst[i] = src[i];
  }

  // The kept alpha channel takes the source; any other channel the low bits of
  // its colour entry (an entry of -1 gives the sample's maximum).
  Sample FillValue(const Sample* src, int64_t channel) const {
    if (channel == keptChannel_) return src[channel];
    return fill_[channel];
  }

  // Mask m weights the source: 0 gives the fill value, the full value the source.
  static Sample Mix(Sample source, Sample fill, uint32_t m) {
    if (m == 0) return fill;
    if (m == D::kFullMask) return source;
    const uint32_t mixed = (uint32_t{source} * m + uint32_t{fill} * (D::kFullMask - m)) >> D::kMixShift;
    return static_cast<Sample>(mixed);
  }

  GenericMPParams& head_;
  const int32_t width_;
  const int64_t channels_;
  const int64_t keptChannel_;  // -1 when the alpha channel is filled too
  const int64_t srcStep_;      // in samples
  const int64_t dstStep_;
  const bool packed_;        // both pixel steps equal the channel count
  const bool keepsChannel_;  // a filled pixel keeps one source channel
  const SelectBytesFn selectBytes_;
  Sample fill_[kMaxChannels] = {};
  RowPatterns patterns_;
};

template <class Sample, bool Masked>
void* InterlacePartOf(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  auto& params = *static_cast<InterlaceParams*>(part->params);
  InterlaceRows<Sample, Masked>(params).Run(params.horizontalType, params.verticalType, part->firstRow,
                                            part->endRow);
  return nullptr;
}

}  // namespace

void* InterlacePart(void* block) { return InterlacePartOf<uint8_t, false>(block); }
void* InterlaceMaskPart(void* block) { return InterlacePartOf<uint8_t, true>(block); }
void* InterlacePart16(void* block) { return InterlacePartOf<uint16_t, false>(block); }
void* InterlaceMaskPart16(void* block) { return InterlacePartOf<uint16_t, true>(block); }
