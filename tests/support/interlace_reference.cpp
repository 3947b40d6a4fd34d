#include "support/interlace_reference.h"

namespace rawfx::reference {
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

// The settings of one part call, read once: everything a row needs.
template <class Sample, bool Masked>
class InterlaceRows {
  using D = Depth<Sample>;

 public:
  explicit InterlaceRows(InterlaceParams& p)
      : params_(p),
        head_(p.head),
        channels_(D::Channels(p.head)),
        keptChannel_(p.interlaceAlpha ? -1 : D::AlphaChannel(p.head)),
        srcStep_(D::SrcStep(p.head)),
        dstStep_(D::DstStep(p.head)) {}

  void Run(int32_t firstRow, int32_t endRow) {
    int64_t rowPhase = params_.horizontalType;
    int64_t columnPhase = ColumnPhaseAt(params_.verticalType, firstRow);
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
  void FillRow(const Sample* src, Sample* dst, MaskRowHandle maskRow) const {
    for (int32_t x = 0; x < head_.width; ++x, src += srcStep_, dst += dstStep_) FillPixel(src, dst, maskRow, x);
  }

  // columnPhase carries on from row to row: it is not reset here.
  void InterlaceRow(const Sample* src, Sample* dst, MaskRowHandle maskRow, int64_t& columnPhase) const {
    for (int32_t x = 0; x < head_.width; ++x, src += srcStep_, dst += dstStep_) {
      if (TakeFillTurn(columnPhase))
        FillPixel(src, dst, maskRow, x);
      else
        CopyPixel(src, dst);
    }
  }

  // Each channel is read from the source before the same position is written,
  // so src and dst may be the same pixel.
  void FillPixel(const Sample* src, Sample* dst, MaskRowHandle maskRow, int32_t x) const {
    if constexpr (Masked) {
      const uint32_t m = D::MaskAt(head_.maskData, maskRow, x);
      for (int64_t i = 0; i < channels_; ++i) dst[i] = Mix(src[i], FillValue(src, i), m);
    } else {
      for (int64_t i = 0; i < channels_; ++i) dst[i] = FillValue(src, i);
    }
  }

  void CopyPixel(const Sample* src, Sample* dst) const {
    for (int64_t i = 0; i < channels_; ++i) dst[i] = src[i];
  }

  // The kept alpha channel takes the source; any other channel the low bits of
  // its colour entry (an entry of -1 gives the sample's maximum).
  Sample FillValue(const Sample* src, int64_t channel) const {
    if (channel == keptChannel_) return src[channel];
    return static_cast<Sample>(params_.channelValues[channel]);
  }

  // Mask m weights the source: 0 gives the fill value, the full value the source.
  static Sample Mix(Sample source, Sample fill, uint32_t m) {
    if (m == 0) return fill;
    if (m == D::kFullMask) return source;
    const uint32_t mixed = (uint32_t{source} * m + uint32_t{fill} * (D::kFullMask - m)) >> D::kMixShift;
    return static_cast<Sample>(mixed);
  }

  const InterlaceParams& params_;
  GenericMPParams& head_;
  const int64_t channels_;
  const int64_t keptChannel_;  // -1 when the alpha channel is filled too
  const int64_t srcStep_;      // in samples
  const int64_t dstStep_;
};

template <class Sample, bool Masked>
void* InterlacePartOf(void* block) {
  auto* part = static_cast<MPParamBlock*>(block);
  InterlaceRows<Sample, Masked>(*static_cast<InterlaceParams*>(part->params)).Run(part->firstRow, part->endRow);
  return nullptr;
}

}  // namespace

void* InterlacePart(void* block) { return InterlacePartOf<uint8_t, false>(block); }
void* InterlaceMaskPart(void* block) { return InterlacePartOf<uint8_t, true>(block); }
void* InterlacePart16(void* block) { return InterlacePartOf<uint16_t, false>(block); }
void* InterlaceMaskPart16(void* block) { return InterlacePartOf<uint16_t, true>(block); }

}  // namespace rawfx::reference
