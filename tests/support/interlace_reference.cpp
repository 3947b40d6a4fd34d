// Written from the effect's description, pixel by pixel and channel by channel.
#include "support/references.h"

namespace rawfx::reference {
namespace {

// The phase rule: 1 fills and becomes 2, anything else copies and counts down.
bool Fills(int64_t& phase) {
  const bool fill = phase == 1;
  phase = fill ? 2 : phase - 1;
  return fill;
}

template <class Sample, bool Masked>
void* Interlace(void* block) {
  auto& part = *static_cast<MPParamBlock*>(block);
  auto& p = *static_cast<InterlaceParams*>(part.params);
  GenericMPParams& head = p.head;
  constexpr bool k8 = sizeof(Sample) == 1;
  constexpr uint32_t kFull = k8 ? 255 : 65535;
  const int64_t channels = k8 ? head.srcBitmap->bytesPerPixel : head.srcBitmap->channelCount;
  const int64_t alpha = k8 ? head.srcBitmap->alphaOffset : head.srcBitmap->alphaOffset >> 1;
  const int64_t srcStep = k8 ? head.srcPixelBytes : head.srcBitmap->channelCount;
  const int64_t dstStep = k8 ? head.dstPixelBytes : head.dstBitmap->channelCount;

  int64_t rowPhase = p.horizontalType;
  int64_t columnPhase = p.verticalType;
  if (part.firstRow % 2 == 1 && (columnPhase == 1 || columnPhase == 2)) columnPhase = 3 - columnPhase;

  ForEachRow(part, head, [&](int32_t y) {
    const MaskRowHandle maskRow = !Masked ? 0 : k8 ? MaskRow8(head.maskData, y) : MaskRow16(head.maskData, y);
    const auto* src = reinterpret_cast<const Sample*>(head.srcPixels + int64_t{y} * head.srcRowBytes);
    auto* dst = reinterpret_cast<Sample*>(head.dstPixels + int64_t{y} * head.dstRowBytes);
    const bool wholeRow = Fills(rowPhase);
    for (int32_t x = 0; x < head.width; ++x, src += srcStep, dst += dstStep) {
      const bool fill = wholeRow || Fills(columnPhase);
      uint32_t m = 0;  // the mask is asked only where a pixel is filled
      if (Masked && fill) m = k8 ? MaskAt8(head.maskData, maskRow, x) : MaskAt16(head.maskData, maskRow, x);
      for (int64_t i = 0; i < channels; ++i) {
        const uint32_t s = src[i];
        const uint32_t v = i == alpha && !p.interlaceAlpha ? s : static_cast<Sample>(p.channelValues[i]);
        const uint32_t mixed = m == 0 ? v : m == kFull ? s : (s * m + v * (kFull - m)) >> (k8 ? 8 : 16);
        dst[i] = static_cast<Sample>(fill ? mixed : s);
      }
    }
  });
  return nullptr;
}

}  // namespace

const PartTable kInterlaceParts = {{Interlace<uint8_t, false>, Interlace<uint8_t, true>},
                                   {Interlace<uint16_t, false>, Interlace<uint16_t, true>}};

}  // namespace rawfx::reference
