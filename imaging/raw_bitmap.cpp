#include "imaging/raw_bitmap.h"

#include "plugin/host_binding.h"

REALclassRef RawBitmapRef = nullptr;
REALclassRef RawBitmapMaskRef = nullptr;
RawBitmapConstructorFn RawBitmapConstructor = nullptr;

namespace {

REALclassRef BitmapClass() {
  if (!RawBitmapRef) RawBitmapRef = REALGetClassRef("RawBitmap");
  return RawBitmapRef;
}

REALclassRef MaskClass() {
  if (!RawBitmapMaskRef) RawBitmapMaskRef = REALGetClassRef("RawBitmapMask");
  return RawBitmapMaskRef;
}

}  // namespace

void InitializeRawBitmapSupport() {
  RawBitmapRef = nullptr;
  RawBitmapMaskRef = nullptr;
  RawBitmapConstructor = nullptr;
  // Only warms the host's lookup; the caches fill on first real use.
  REALGetClassRef("RawBitmap");
  REALGetClassRef("RawBitmapMask");
}

RawBitmap* GetRawBitmapData(REALobject bitmap) {
  return static_cast<RawBitmap*>(REALGetPluginData(bitmap, BitmapClass()));
}

RawBitmapMaskData* GetRawBitmapMaskData(REALobject mask) {
  return static_cast<RawBitmapMaskData*>(REALGetPluginData(mask, MaskClass()));
}

REALobject CreateRawBitmap(int64_t width, int64_t height, int64_t rowBytes, int64_t format, RawBitmap** data) {
  REALobject bitmap = REALnewInstanceWithClass(BitmapClass());
  if (!bitmap) return nullptr;
  if (!RawBitmapConstructor)
    RawBitmapConstructor =
        reinterpret_cast<RawBitmapConstructorFn>(REALLoadObjectMethod(bitmap, kRawBitmapConstructorDecl));
  RawBitmap* record = nullptr;
  // A companion without the constructor cannot give a valid bitmap.
  if (RawBitmapConstructor) {
    RawBitmapConstructor(bitmap, nullptr, width, height, rowBytes, format);
    record = GetRawBitmapData(bitmap);
  }
  *data = record;
  if (record && record->isValid) return bitmap;
  REALUnlockObject(bitmap);
  return nullptr;
}

REALobject CreateRawBitmapMask(REALobject bitmap, uint8_t activeChannel) {
  REALobject mask = REALnewInstanceWithClass(MaskClass());
  if (!mask) return nullptr;
  auto constructor =
      reinterpret_cast<RawBitmapMaskConstructorFn>(REALLoadObjectMethod(mask, kRawBitmapMaskConstructorDecl));
  if (!constructor) {
    REALUnlockObject(mask);
    return nullptr;
  }
  constructor(mask, bitmap, false, activeChannel);
  return mask;
}
