#include "imaging/color_order.h"

#include <algorithm>

#include "plugin/host_binding.h"

REALclassRef gRGBRef = nullptr;
REALclassRef gCMYKRef = nullptr;

namespace {

// A colour component and the byte position of its channel; the first match wins.
struct Component {
  uint8_t offset;
  int32_t value;
};

template <int N>
void OrderComponents(const RawBitmap* bitmap, const Component (&components)[N], bool includeAlpha,
                     int32_t alpha, int* channelValues) {
  const bool wide = bitmap->bitsPerChannel != 8;
  const int64_t count = std::min<int64_t>(wide ? bitmap->channelCount : bitmap->bytesPerPixel, kMaxChannels);
  const int shift = wide ? 1 : 0;
  for (int64_t i = 0; i < count; ++i) {
    int32_t value = -1;
    for (const Component& c : components) {
      if (i == (c.offset >> shift)) {
        value = c.value;
        break;
      }
    }
    if (value == -1 && includeAlpha && i == (bitmap->alphaOffset >> shift)) value = alpha;
    channelValues[i] = value;
  }
}

REALclassRef CMYKClass() {
  if (!gCMYKRef) gCMYKRef = REALGetClassRef(kCMYKColorClass);
  return gCMYKRef;
}

}  // namespace

void RGBColorPartsToChannelOrder(RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                                 RGBColorData* colour) {
  const bool wide = bitmap->bitsPerChannel != 8;
  const Component components[] = {
      {bitmap->redOffset, wide ? colour->red16 : colour->red},
      {bitmap->greenOffset, wide ? colour->green16 : colour->green},
      {bitmap->blueOffset, wide ? colour->blue16 : colour->blue},
  };
  OrderComponents(bitmap, components, includeAlpha != 0, wide ? colour->alpha16 : colour->alpha, channelValues);
}

void CMYKPartsToChannelOrder(RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                             CMYKColorData* colour) {
  const bool wide = bitmap->bitsPerChannel != 8;
  const Component components[] = {
      {bitmap->blueOffset, wide ? colour->yellow16 : colour->yellow},
      {bitmap->redOffset, wide ? colour->cyan16 : colour->cyan},
      {bitmap->greenOffset, wide ? colour->magenta16 : colour->magenta},
      {bitmap->blackOffset, wide ? colour->black16 : colour->black},
  };
  OrderComponents(bitmap, components, includeAlpha != 0, wide ? colour->alpha16 : colour->alpha, channelValues);
}

void OrderBackgroundColour(REALobject colour, RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                           ColourTestOrder order) {
  const bool cmykBitmap = IsCMYKFormat(bitmap->format);
  bool isRGB;
  if (cmykBitmap && order == ColourTestOrder::ByBitmapFamily)
    isRGB = !REALObjectIsA(colour, CMYKClass());
  else
    isRGB = REALObjectIsA(colour, gRGBRef);

  // A colour the companion does not know yields no data: it orders as all zeros.
  const void* data = REALGetPluginData(colour, isRGB ? gRGBRef : CMYKClass());
  const ColorConversionTable* table = data ? ConversionTableOf(data) : nullptr;
  if (cmykBitmap) {
    CMYKColorData cmyk{};
    if (data && !isRGB) cmyk = *static_cast<const CMYKColorData*>(data);
    if (data && isRGB && table) table->ToCMYK(data, &cmyk);
    CMYKPartsToChannelOrder(bitmap, includeAlpha, channelValues, &cmyk);
  } else {
    RGBColorData rgb{};
    if (data && isRGB) rgb = *static_cast<const RGBColorData*>(data);
    if (data && !isRGB && table) table->ToRGB(data, &rgb);
    RGBColorPartsToChannelOrder(bitmap, includeAlpha, channelValues, &rgb);
  }
}

REALobject NewDefaultBackColour() {
  if (!gRGBRef) gRGBRef = REALGetClassRef(kRGBColorClass);
  return REALnewInstanceWithClass(gRGBRef);
}
