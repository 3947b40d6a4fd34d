// The companion colour classes: "ZandoriaColors.GenericColor" and its two
// subclasses "ZandoriaColors.RGBColor" and "ZandoriaColors.CMYKColor".
//
// A colour object carries its class's conversion table in the GenericColor
// data (the 8 bytes right before the subclass's record) and its components, at
// 8 and at 16 bits, in the subclass's record. A new colour of either kind is
// opaque black. The conversions are the plain ones without colour management:
// K = max - max(R, G, B), C = (max - R - K) * max / (max - K) and back
// R = (max - C) * (max - K) / max, rounded to nearest, done separately at 8 and
// at 16 bits; alpha is carried over.
#include <algorithm>
#include <cstring>

#include "host/host_internal.h"

namespace rawfx::host {

namespace {

template <class T>
constexpr uint64_t kMax = (uint64_t{1} << (8 * sizeof(T))) - 1;

uint64_t DivideRounded(uint64_t numerator, uint64_t denominator) { return (numerator + denominator / 2) / denominator; }

template <class T>
void RGBToCMYK(T red, T green, T blue, T& cyan, T& magenta, T& yellow, T& black) {
  const uint64_t brightest = std::max({red, green, blue});
  black = static_cast<T>(kMax<T> - brightest);
  if (brightest == 0) {
    cyan = magenta = yellow = 0;
    return;
  }
  cyan = static_cast<T>(DivideRounded((brightest - red) * kMax<T>, brightest));
  magenta = static_cast<T>(DivideRounded((brightest - green) * kMax<T>, brightest));
  yellow = static_cast<T>(DivideRounded((brightest - blue) * kMax<T>, brightest));
}

template <class T>
T CMYKToComponent(T ink, T black) {
  return static_cast<T>(DivideRounded((kMax<T> - ink) * (kMax<T> - black), kMax<T>));
}

void RGBDataToCMYK(const void* colour, CMYKColorData* result) {
  const auto* rgb = static_cast<const RGBColorData*>(colour);
  CMYKColorData cmyk{};
  RGBToCMYK(rgb->red, rgb->green, rgb->blue, cmyk.cyan, cmyk.magenta, cmyk.yellow, cmyk.black);
  RGBToCMYK(rgb->red16, rgb->green16, rgb->blue16, cmyk.cyan16, cmyk.magenta16, cmyk.yellow16, cmyk.black16);
  cmyk.alpha = rgb->alpha;
  cmyk.alpha16 = rgb->alpha16;
  *result = cmyk;
}

void CMYKDataToRGB(const void* colour, RGBColorData* result) {
  const auto* cmyk = static_cast<const CMYKColorData*>(colour);
  *result = RGBColorData{CMYKToComponent(cmyk->cyan, cmyk->black),
                         CMYKToComponent(cmyk->magenta, cmyk->black),
                         CMYKToComponent(cmyk->yellow, cmyk->black),
                         cmyk->alpha,
                         CMYKToComponent(cmyk->cyan16, cmyk->black16),
                         CMYKToComponent(cmyk->magenta16, cmyk->black16),
                         CMYKToComponent(cmyk->yellow16, cmyk->black16),
                         cmyk->alpha16};
}

void CopyRGB(const void* colour, RGBColorData* result) { *result = *static_cast<const RGBColorData*>(colour); }

void CopyCMYK(const void* colour, CMYKColorData* result) { *result = *static_cast<const CMYKColorData*>(colour); }

const ColorConversionTable kRGBTable = {&RGBDataToCMYK, &CopyRGB};
const ColorConversionTable kCMYKTable = {&CopyCMYK, &CMYKDataToRGB};

constexpr RGBColorData kOpaqueBlackRGB = {0, 0, 0, 255, 0, 0, 0, 65535};
constexpr CMYKColorData kOpaqueBlackCMYK = {0, 0, 0, 255, 255, 0, 0, 0, 0, 65535, 65535};

void SetTable(REALobject self, const ColorConversionTable* table) {
  void* word = DataOf(self, HostOf(self)->genericColourClass);
  std::memcpy(word, &table, sizeof table);
}

void RGBColourInit(REALobject self) {
  SetTable(self, &kRGBTable);
  *static_cast<RGBColorData*>(DataOf(self, HostOf(self)->rgbColourClass)) = kOpaqueBlackRGB;
}

void CMYKColourInit(REALobject self) {
  SetTable(self, &kCMYKTable);
  *static_cast<CMYKColorData*>(DataOf(self, HostOf(self)->cmykColourClass)) = kOpaqueBlackCMYK;
}

uint16_t Widen(uint8_t value) { return static_cast<uint16_t>(value * 257); }

}  // namespace

void Host::Impl::AddColourClasses() {
  ClassInfo* generic = AddClass("ZandoriaColors.GenericColor", nullptr, sizeof(void*));
  generic->instantiable = false;  // only its two kinds are made
  genericColourClass = generic;

  ClassInfo* rgb = AddClass(kRGBColorClass, generic, sizeof(RGBColorData));
  rgb->constructor = &RGBColourInit;
  rgbColourClass = rgb;

  ClassInfo* cmyk = AddClass(kCMYKColorClass, generic, sizeof(CMYKColorData));
  cmyk->constructor = &CMYKColourInit;
  cmykColourClass = cmyk;
}

REALobject Host::Impl::MakeColour(const ClassInfo* cls, const void* data, size_t bytes) {
  DrainDeferredDestruction();
  REALobject colour = NewObject(cls);
  if (colour) std::memcpy(DataOf(colour, cls), data, bytes);
  return colour;
}

// ---- Host: colours ---------------------------------------------------------------------------

REALobject Host::NewRGBColor(uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  const RGBColorData data{r, g, b, a, Widen(r), Widen(g), Widen(b), Widen(a)};
  return impl_->MakeColour(impl_->rgbColourClass, &data, sizeof data);
}

REALobject Host::NewRGBColor16(uint16_t r, uint16_t g, uint16_t b, uint16_t a) {
  auto narrow = [](uint16_t value) { return static_cast<uint8_t>(value >> 8); };
  const RGBColorData data{narrow(r), narrow(g), narrow(b), narrow(a), r, g, b, a};
  return impl_->MakeColour(impl_->rgbColourClass, &data, sizeof data);
}

REALobject Host::NewCMYKColor(uint8_t c, uint8_t m, uint8_t y, uint8_t k, uint8_t a) {
  const CMYKColorData data{c, m, y, k, a, 0, Widen(c), Widen(m), Widen(y), Widen(k), Widen(a)};
  return impl_->MakeColour(impl_->cmykColourClass, &data, sizeof data);
}

RGBColorData Host::RGBColor(REALobject colour) const {
  const ClassInfo* cls = impl_->LiveClass(colour);
  RGBColorData rgb{};
  if (cls == impl_->rgbColourClass)
    CopyRGB(DataOf(colour, cls), &rgb);
  else if (cls == impl_->cmykColourClass)
    CMYKDataToRGB(DataOf(colour, cls), &rgb);
  else
    throw HostError(ClassName(colour) + " is not a colour");
  return rgb;
}

CMYKColorData Host::CMYKColor(REALobject colour) const {
  const ClassInfo* cls = impl_->LiveClass(colour);
  CMYKColorData cmyk{};
  if (cls == impl_->cmykColourClass)
    CopyCMYK(DataOf(colour, cls), &cmyk);
  else if (cls == impl_->rgbColourClass)
    RGBDataToCMYK(DataOf(colour, cls), &cmyk);
  else
    throw HostError(ClassName(colour) + " is not a colour");
  return cmyk;
}

}  // namespace rawfx::host
