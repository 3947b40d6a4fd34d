// Access to the companion classes RawBitmap and RawBitmapMask.
// Both plug-in data layouts belong to the companion; the offsets are an interface.
#pragma once

#include <cstddef>
#include <cstdint>

#include "plugin/host_types.h"

// The fields of a RawBitmap's plug-in data that effects read. The gaps belong
// to the companion (pixel memory, row bytes and more) and are never touched here.
struct RawBitmap {
  int64_t width;            // 0
  int64_t height;           // 8
  uint8_t companion16[16];  // 16
  int64_t channelCount;     // 32
  uint8_t companion40[16];  // 40
  int64_t bytesPerPixel;    // 56
  uint8_t companion64[8];   // 64
  uint8_t redOffset;        // 72
  uint8_t greenOffset;      // 73
  uint8_t blueOffset;       // 74
  uint8_t alphaOffset;      // 75
  uint8_t blackOffset;      // 76
  uint8_t isValid;          // 77
  uint8_t companion78[2];   // 78
  int64_t format;           // 80
  uint8_t companion88[40];  // 88
  uint8_t hasAlpha;         // 128
  uint8_t bitsPerChannel;   // 129
  uint8_t companion130[6];  // 130
};
static_assert(offsetof(RawBitmap, height) == 8);
static_assert(offsetof(RawBitmap, channelCount) == 32);
static_assert(offsetof(RawBitmap, bytesPerPixel) == 56);
static_assert(offsetof(RawBitmap, redOffset) == 72);
static_assert(offsetof(RawBitmap, greenOffset) == 73);
static_assert(offsetof(RawBitmap, blueOffset) == 74);
static_assert(offsetof(RawBitmap, alphaOffset) == 75);
static_assert(offsetof(RawBitmap, blackOffset) == 76);
static_assert(offsetof(RawBitmap, isValid) == 77);
static_assert(offsetof(RawBitmap, format) == 80);
static_assert(offsetof(RawBitmap, hasAlpha) == 128);
static_assert(offsetof(RawBitmap, bitsPerChannel) == 129);
static_assert(sizeof(RawBitmap) == 136);

// Formats 13..16 are the CMYK family: (format - 13), taken unsigned, is at most 3.
// The subtraction is done unsigned, where it wraps instead of overflowing.
inline bool IsCMYKFormat(int64_t format) { return static_cast<uint64_t>(format) - 13 <= 3; }

// Formats 0, 1, 2, 22 and 23 carry a single grey channel.
inline bool IsSingleChannelFormat(int64_t format) { return format < 3 || format == 22 || format == 23; }

// A mask's plug-in data: its first word points at the operation table.
using MaskRowHandle = uint64_t;
struct RawBitmapMaskData;
struct RawBitmapMaskOps {
  void* slot0;
  MaskRowHandle (*RowMask8)(RawBitmapMaskData* self, int64_t row);
  uint32_t (*MaskValue8)(RawBitmapMaskData* self, MaskRowHandle row, int32_t x);
  void* slot3;
  MaskRowHandle (*RowMask16)(RawBitmapMaskData* self, int64_t row);
  uint32_t (*MaskValue16)(RawBitmapMaskData* self, MaskRowHandle row, int32_t x);
};
static_assert(offsetof(RawBitmapMaskOps, RowMask8) == 1 * 8);
static_assert(offsetof(RawBitmapMaskOps, MaskValue8) == 2 * 8);
static_assert(offsetof(RawBitmapMaskOps, RowMask16) == 4 * 8);
static_assert(offsetof(RawBitmapMaskOps, MaskValue16) == 5 * 8);

struct RawBitmapMaskData {
  const RawBitmapMaskOps* ops;
};

// Mask queries as the masked kernels make them: 8- or 16-bit values, low bits only.
inline MaskRowHandle MaskRow8(RawBitmapMaskData* m, int64_t row) { return m->ops->RowMask8(m, row); }
inline uint8_t MaskAt8(RawBitmapMaskData* m, MaskRowHandle h, int32_t x) {
  return static_cast<uint8_t>(m->ops->MaskValue8(m, h, x));
}
inline MaskRowHandle MaskRow16(RawBitmapMaskData* m, int64_t row) { return m->ops->RowMask16(m, row); }
inline uint16_t MaskAt16(RawBitmapMaskData* m, MaskRowHandle h, int32_t x) {
  return static_cast<uint16_t>(m->ops->MaskValue16(m, h, x));
}

inline constexpr const char* kRawBitmapConstructorDecl =
    "Constructor(srcBlock as MemoryBlock, width as Integer,height as Integer,rowBytes as Integer,"
    "imageFormat as RawBitmap.RawBitmapFormat)";
inline constexpr const char* kRawBitmapMaskConstructorDecl =
    "Constructor(bitMap as RawBitmap, inverted as Boolean, activeChannel as UInt8)";

// Signatures of the two constructors loaded by declaration.
using RawBitmapConstructorFn = void (*)(REALobject self, REALobject srcBlock, int64_t width, int64_t height,
                                        int64_t rowBytes, int64_t format);
using RawBitmapMaskConstructorFn = void (*)(REALobject self, REALobject bitmap, bool inverted,
                                            uint8_t activeChannel);

extern REALclassRef RawBitmapRef;
extern REALclassRef RawBitmapMaskRef;
extern RawBitmapConstructorFn RawBitmapConstructor;

void InitializeRawBitmapSupport();
RawBitmap* GetRawBitmapData(REALobject bitmap);
RawBitmapMaskData* GetRawBitmapMaskData(REALobject mask);
REALobject CreateRawBitmap(int64_t width, int64_t height, int64_t rowBytes, int64_t format, RawBitmap** data);
REALobject CreateRawBitmapMask(REALobject bitmap, uint8_t activeChannel);
