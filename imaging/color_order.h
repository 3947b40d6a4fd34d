// Background colours: the companion colour records and their ordering into
// one value per channel of a bitmap, in the bitmap's own channel order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imaging/raw_bitmap.h"

struct RGBColorData {
  uint8_t red, green, blue, alpha;            // 0..3
  uint16_t red16, green16, blue16, alpha16;   // 4..11
};
static_assert(offsetof(RGBColorData, red16) == 4);
static_assert(offsetof(RGBColorData, alpha16) == 10);

struct CMYKColorData {
  uint8_t cyan, magenta, yellow, black, alpha;                 // 0..4
  uint8_t unused5;                                             // 5
  uint16_t cyan16, magenta16, yellow16, black16, alpha16;      // 6..15
};
static_assert(offsetof(CMYKColorData, cyan16) == 6);
static_assert(offsetof(CMYKColorData, alpha16) == 14);
static_assert(sizeof(CMYKColorData) == 16);

// The word before a colour's plug-in data points at its class's conversion table.
struct ColorConversionTable {
  void (*ToCMYK)(const void* colour, CMYKColorData* result);
  void (*ToRGB)(const void* colour, RGBColorData* result);
};
static_assert(offsetof(ColorConversionTable, ToRGB) == 8);

inline const ColorConversionTable* ConversionTableOf(const void* colourData) {
  return *(reinterpret_cast<const ColorConversionTable* const*>(colourData) - 1);
}

// One value per channel; -1 marks a channel that carries no colour component.
inline constexpr int kMaxChannels = 8;
using ChannelValues = int32_t[kMaxChannels];

extern REALclassRef gRGBRef;
extern REALclassRef gCMYKRef;

inline constexpr const char* kRGBColorClass = "ZandoriaColors.RGBColor";
inline constexpr const char* kCMYKColorClass = "ZandoriaColors.CMYKColor";

void RGBColorPartsToChannelOrder(RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                                 RGBColorData* colour);
void CMYKPartsToChannelOrder(RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                             CMYKColorData* colour);

// Which colour class is tested first when choosing how to read the colour.
enum class ColourTestOrder {
  ByBitmapFamily,  // a CMYK bitmap asks "is it CMYK?", any other bitmap "is it RGB?"
  RGBFirst,        // always ask "is it RGB?"; anything else is taken as CMYK
};

// Orders a (non-nil) background colour object into channelValues for bitmap,
// converting between RGB and CMYK when the colour and the bitmap's family differ.
void OrderBackgroundColour(REALobject colour, RawBitmap* bitmap, signed char includeAlpha, int* channelValues,
                           ColourTestOrder order);

// Fills a new default background colour for an effect's constructor.
REALobject NewDefaultBackColour();
