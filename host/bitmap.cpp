// The companion classes RawBitmap (pixel memory and its RawBitmap record) and
// RawBitmapMask (mask values read from one channel of a bitmap).
#include <cstdlib>
#include <cstring>

#include "host/host_internal.h"

namespace rawfx::host {

namespace {

constexpr uint8_t kNone = 0xFF;

// The companion's own fields, kept in the record's gaps: the pixel memory at
// byte 16 and the row stride at byte 24.
constexpr size_t kPixelsAt = 16;
constexpr size_t kRowBytesAt = 24;
static_assert(kPixelsAt >= offsetof(RawBitmap, companion16) && kRowBytesAt + 8 <= offsetof(RawBitmap, channelCount));

constexpr int64_t kMaxDimension = INT32_MAX;

void SetPixels(RawBitmap* record, uint8_t* pixels) {
  std::memcpy(reinterpret_cast<uint8_t*>(record) + kPixelsAt, &pixels, sizeof pixels);
}

void SetRowBytes(RawBitmap* record, int64_t rowBytes) {
  std::memcpy(reinterpret_cast<uint8_t*>(record) + kRowBytesAt, &rowBytes, sizeof rowBytes);
}

RawBitmap* RecordOf(REALobject bitmap) {
  return static_cast<RawBitmap*>(DataOf(bitmap, HostOf(bitmap)->bitmapClass));
}

uint8_t ByteOffset(uint8_t sampleIndex, int bytesPerSample) {
  return sampleIndex == kNone ? kNone : static_cast<uint8_t>(sampleIndex * bytesPerSample);
}

void ReleasePixels(RawBitmap* record) {
  std::free(BitmapPixels(record));
  SetPixels(record, nullptr);
}

// A new instance is an empty, invalid bitmap of the default depth.
void BitmapInit(REALobject self) { RecordOf(self)->bitsPerChannel = 8; }

void BitmapDestroy(REALobject self) { ReleasePixels(RecordOf(self)); }

// Sizes the constructor accepts; rowBytes 0 asks for rows without padding.
int64_t AcceptedRowBytes(int64_t width, int64_t height, int64_t rowBytes, int64_t pixelBytes, int bytesPerSample,
                         int64_t maxBytes) {
  if (width <= 0 || height <= 0 || width > kMaxDimension || height > kMaxDimension) return 0;
  const int64_t minimum = width * pixelBytes;
  const int64_t stride = rowBytes == 0 ? minimum : rowBytes;
  if (stride < minimum || stride > kMaxDimension || stride % bytesPerSample != 0) return 0;
  if (stride > maxBytes / height) return 0;
  return stride;
}

// Lays out a bitmap of the record's depth with pixel memory of its own; the
// record is left invalid when the size, stride or format is refused. Memory
// is zero-filled unless clearing says the caller clears it.
void ConstructPixels(RawBitmap* record, int64_t width, int64_t height, int64_t rowBytes, int64_t format,
                     PixelClearing clearing, int64_t maxBytes) {
  const uint8_t depth = record->bitsPerChannel;
  ReleasePixels(record);
  std::memset(record, 0, sizeof *record);
  record->bitsPerChannel = depth;
  record->format = format;
  const FormatInfo* info = FindFormat(format);
  if (!info || (depth != 8 && depth != 16)) return;
  const int bytesPerSample = depth / 8;
  const int64_t pixelBytes = int64_t{info->channels} * bytesPerSample;
  const int64_t stride = AcceptedRowBytes(width, height, rowBytes, pixelBytes, bytesPerSample, maxBytes);
  if (stride == 0) return;
  const size_t rows = static_cast<size_t>(height), bytesPerRow = static_cast<size_t>(stride);
  auto* pixels = static_cast<uint8_t*>(clearing == PixelClearing::Now ? std::calloc(rows, bytesPerRow)
                                                                      : std::malloc(rows * bytesPerRow));
  if (!pixels) return;
  SetPixels(record, pixels);
  SetRowBytes(record, stride);
  record->width = width;
  record->height = height;
  record->channelCount = info->channels;
  record->bytesPerPixel = pixelBytes;
  record->redOffset = ByteOffset(info->red, bytesPerSample);
  record->greenOffset = ByteOffset(info->green, bytesPerSample);
  record->blueOffset = ByteOffset(info->blue, bytesPerSample);
  record->alphaOffset = ByteOffset(info->alpha, bytesPerSample);
  record->blackOffset = ByteOffset(info->black, bytesPerSample);
  record->hasAlpha = info->hasAlpha;
  record->isValid = 1;
}

// "Constructor(srcBlock as MemoryBlock, width, height, rowBytes, imageFormat)":
// the depth is the instance's bitsPerChannel at the time of the call (8 for a
// new instance). Pixels are always the bitmap's own, zero-filled; this host has
// no MemoryBlock class, so a source block makes the bitmap invalid.
void BitmapConstruct(REALobject self, REALobject srcBlock, int64_t width, int64_t height, int64_t rowBytes,
                     int64_t format) {
  RawBitmap* record = RecordOf(self);
  const int64_t accepted = srcBlock ? 0 : width;  // refused like a bad size
  ConstructPixels(record, accepted, height, rowBytes, format, PixelClearing::Now, HostOf(self)->options.maxBitmapBytes);
}

// ---- RawBitmapMask ------------------------------------------------------------------

// A mask's plug-in data: the operation table first, as the kernels expect,
// then what the operations read. Everything is fixed by the constructor, so
// the operations may run on several threads at once.
struct MaskData {
  RawBitmapMaskData base;
  REALobject bitmap;  // locked while the mask holds it
  const uint8_t* pixels;
  int64_t rowBytes;
  int64_t width;
  int64_t height;
  int64_t pixelBytes;
  int64_t sampleOffset;  // byte position of the active channel in a pixel
  uint8_t wide;          // 16-bit samples
  uint8_t inverted;
  uint8_t valid;
};
static_assert(offsetof(MaskData, base) == 0);

MaskData* MaskOf(REALobject mask) { return static_cast<MaskData*>(DataOf(mask, HostOf(mask)->maskClass)); }

// A row handle is the row's first byte, or 0 for a row outside the bitmap.
MaskRowHandle MaskRow(RawBitmapMaskData* self, int64_t row) {
  const auto* mask = reinterpret_cast<const MaskData*>(self);
  if (!mask->valid || row < 0 || row >= mask->height) return 0;
  return reinterpret_cast<MaskRowHandle>(mask->pixels + row * mask->rowBytes);
}

// The active channel's value at full 16-bit scale (8-bit samples * 257), 0 outside.
uint32_t Sample16(const MaskData* mask, MaskRowHandle row, int32_t x) {
  if (row == 0 || x < 0 || x >= mask->width) return 0;
  const uint8_t* at = reinterpret_cast<const uint8_t*>(row) + x * mask->pixelBytes + mask->sampleOffset;
  uint16_t value;
  if (mask->wide)
    std::memcpy(&value, at, sizeof value);
  else
    value = static_cast<uint16_t>(*at * 257);
  return mask->inverted ? 65535u - value : value;
}

uint32_t MaskValue16(RawBitmapMaskData* self, MaskRowHandle row, int32_t x) {
  return Sample16(reinterpret_cast<const MaskData*>(self), row, x);
}

uint32_t MaskValue8(RawBitmapMaskData* self, MaskRowHandle row, int32_t x) {
  return Sample16(reinterpret_cast<const MaskData*>(self), row, x) >> 8;
}

const RawBitmapMaskOps kMaskOps = {nullptr, &MaskRow, &MaskValue8, nullptr, &MaskRow, &MaskValue16};

void MaskInit(REALobject self) { MaskOf(self)->base.ops = &kMaskOps; }

void MaskDestroy(REALobject self) { HostOf(self)->Unlock(MaskOf(self)->bitmap); }

// "Constructor(bitMap as RawBitmap, inverted as Boolean, activeChannel as UInt8)":
// activeChannel counts samples of a pixel; a missing or invalid bitmap or a
// channel it does not have leaves the mask invalid.
void MaskConstruct(REALobject self, REALobject bitmap, bool inverted, uint8_t activeChannel) {
  Host::Impl* host = HostOf(self);
  MaskData* mask = MaskOf(self);
  REALobject previous = mask->bitmap;
  *mask = MaskData{{&kMaskOps}, nullptr, nullptr, 0, 0, 0, 0, 0, 0, inverted, 0};
  host->Unlock(previous);
  if (host->LiveClass(bitmap) != host->bitmapClass) return;
  const RawBitmap* record = RecordOf(bitmap);
  if (!record->isValid || activeChannel >= record->channelCount) return;
  host->Lock(bitmap);
  const int bytesPerSample = record->bitsPerChannel / 8;
  *mask = MaskData{{&kMaskOps},
                   bitmap,
                   BitmapPixels(record),
                   BitmapRowBytes(record),
                   record->width,
                   record->height,
                   record->bytesPerPixel,
                   int64_t{activeChannel} * bytesPerSample,
                   record->bitsPerChannel == 16,
                   inverted,
                   1};
}

}  // namespace

uint8_t* BitmapPixels(const RawBitmap* record) {
  uint8_t* pixels;
  std::memcpy(&pixels, reinterpret_cast<const uint8_t*>(record) + kPixelsAt, sizeof pixels);
  return pixels;
}

int64_t BitmapRowBytes(const RawBitmap* record) {
  int64_t rowBytes;
  std::memcpy(&rowBytes, reinterpret_cast<const uint8_t*>(record) + kRowBytesAt, sizeof rowBytes);
  return rowBytes;
}

bool MaskCovers(const Host::Impl& host, REALobject mask, const RawBitmap* source) {
  if (host.LiveClass(mask) != host.maskClass) return false;
  const MaskData* data = MaskOf(mask);
  return data->valid && data->width >= source->width && data->height >= source->height;
}

RawBitmapMaskData* MaskDataOf(REALobject mask) { return &MaskOf(mask)->base; }

// Sample indices; byte positions are these times the bytes per sample. The X
// formats have a fourth byte that carries no colour: it sits at the alpha
// position but the format has no alpha (hasAlpha false).
const std::vector<FormatInfo>& Formats() {
  static const std::vector<FormatInfo> formats = {
      {0, "Gray", 1, false, false, 0, 0, 0, kNone, kNone},
      {1, "Luminance", 1, false, false, 0, 0, 0, kNone, kNone},
      {2, "Intensity", 1, false, false, 0, 0, 0, kNone, kNone},
      {3, "RGB", 3, false, false, 0, 1, 2, kNone, kNone},
      {4, "BGR", 3, false, false, 2, 1, 0, kNone, kNone},
      {5, "RGBA", 4, false, true, 0, 1, 2, 3, kNone},
      {6, "ARGB", 4, false, true, 1, 2, 3, 0, kNone},
      {7, "BGRA", 4, false, true, 2, 1, 0, 3, kNone},
      {8, "ABGR", 4, false, true, 3, 2, 1, 0, kNone},
      {9, "XRGB", 4, false, false, 1, 2, 3, 0, kNone},
      {10, "BGRX", 4, false, false, 2, 1, 0, 3, kNone},
      {13, "CMYK", 4, true, false, 0, 1, 2, kNone, 3},
      {14, "CMYKA", 5, true, true, 0, 1, 2, 4, 3},
      {15, "ACMYK", 5, true, true, 1, 2, 3, 0, 4},
      {16, "KCMY", 4, true, false, 1, 2, 3, kNone, 0},
      {22, "Value", 1, false, false, 0, 0, 0, kNone, kNone},
      {23, "Density", 1, false, false, 0, 0, 0, kNone, kNone},
  };
  return formats;
}

const FormatInfo* FindFormat(int64_t code) {
  for (const FormatInfo& format : Formats())
    if (format.code == code) return &format;
  return nullptr;
}

void Host::Impl::AddBitmapClasses() {
  ClassInfo* bitmap = AddClass("RawBitmap", nullptr, sizeof(RawBitmap));
  bitmap->constructor = &BitmapInit;
  bitmap->destructor = &BitmapDestroy;
  bitmap->methods = {{kRawBitmapConstructorDecl, reinterpret_cast<void*>(&BitmapConstruct)}};
  bitmapClass = bitmap;

  ClassInfo* mask = AddClass("RawBitmapMask", nullptr, sizeof(MaskData));
  mask->constructor = &MaskInit;
  mask->destructor = &MaskDestroy;
  mask->methods = {{kRawBitmapMaskConstructorDecl, reinterpret_cast<void*>(&MaskConstruct)}};
  maskClass = mask;
}

REALobject Host::Impl::MakeBitmap(int64_t width, int64_t height, int64_t format, int bitsPerChannel,
                                  int64_t rowBytes, PixelClearing clearing) {
  REALobject bitmap = NewObject(bitmapClass);
  if (!bitmap) return nullptr;
  RecordOf(bitmap)->bitsPerChannel = static_cast<uint8_t>(bitsPerChannel == 8 || bitsPerChannel == 16 ? bitsPerChannel : 0);
  ConstructPixels(RecordOf(bitmap), width, height, rowBytes, format, clearing, options.maxBitmapBytes);
  if (RecordOf(bitmap)->isValid) return bitmap;
  Unlock(bitmap);
  return nullptr;
}

// ---- Host: bitmaps and masks --------------------------------------------------------------

REALobject Host::NewBitmap(int64_t width, int64_t height, int64_t format, int bitsPerChannel, int64_t rowPadding) {
  const FormatInfo* info = FindFormat(format);
  if (!info || rowPadding < 0 || width <= 0 || width > kMaxDimension || rowPadding > kMaxDimension) return nullptr;
  const int64_t bytesPerSample = bitsPerChannel == 16 ? 2 : 1;
  const int64_t rowBytes = width * info->channels * bytesPerSample + rowPadding;
  impl_->DrainDeferredDestruction();
  return impl_->MakeBitmap(width, height, format, bitsPerChannel, rowBytes);
}

BitmapView Host::Bitmap(REALobject bitmap) const {
  if (impl_->LiveClass(bitmap) != impl_->bitmapClass) throw HostError(ClassName(bitmap) + " is not a RawBitmap");
  RawBitmap* record = RecordOf(bitmap);
  BitmapView view;
  view.pixels = BitmapPixels(record);
  view.rowBytes = BitmapRowBytes(record);
  view.width = record->width;
  view.height = record->height;
  view.format = record->format;
  view.bitsPerChannel = record->bitsPerChannel;
  view.pixelBytes = record->bytesPerPixel;
  view.record = record;
  return view;
}

REALobject Host::NewMask(REALobject bitmap, bool inverted, uint8_t activeChannel) {
  REALobject mask = New("RawBitmapMask");
  if (!mask) return nullptr;
  MaskConstruct(mask, bitmap, inverted, activeChannel);
  if (MaskOf(mask)->valid) return mask;
  Unlock(mask);
  return nullptr;
}

}  // namespace rawfx::host
