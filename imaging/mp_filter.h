// The contract with the multiprocessing engine of the superclass MPImageFilterRaw:
// the engine object, its operations, the per-part record and the parameter-block head.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imaging/raw_bitmap.h"

// The record the engine hands each part function.
struct MPParamBlock {
  int32_t firstRow;
  int32_t endRow;
  uint8_t done;
  uint8_t pad9[7];
  void* params;
};
static_assert(offsetof(MPParamBlock, endRow) == 4);
static_assert(offsetof(MPParamBlock, done) == 8);
static_assert(offsetof(MPParamBlock, params) == 16);
static_assert(sizeof(MPParamBlock) == 24);

using PartFunction = void* (*)(void* block);

// The head of every effect's parameter block, filled by the engine.
struct GenericMPParams {
  int32_t width;          // 0
  int32_t height;         // 4
  int32_t progress;       // 8: rows finished, added to atomically
  uint8_t engine12[12];   // 12
  uint8_t* srcPixels;     // 24
  uint8_t* dstPixels;     // 32
  uint8_t cancel;         // 40: read atomically after every row
  uint8_t pad41[3];       // 41
  int32_t srcRowBytes;    // 44
  int32_t dstRowBytes;    // 48
  int32_t srcPixelBytes;  // 52
  int32_t dstPixelBytes;  // 56
  uint8_t pad60[4];       // 60
  RawBitmap* srcBitmap;   // 64
  RawBitmap* dstBitmap;   // 72
  RawBitmapMaskData* maskData;  // 80
};
static_assert(offsetof(GenericMPParams, progress) == 8);
static_assert(offsetof(GenericMPParams, srcPixels) == 24);
static_assert(offsetof(GenericMPParams, dstPixels) == 32);
static_assert(offsetof(GenericMPParams, cancel) == 40);
static_assert(offsetof(GenericMPParams, srcRowBytes) == 44);
static_assert(offsetof(GenericMPParams, dstRowBytes) == 48);
static_assert(offsetof(GenericMPParams, srcPixelBytes) == 52);
static_assert(offsetof(GenericMPParams, dstPixelBytes) == 56);
static_assert(offsetof(GenericMPParams, srcBitmap) == 64);
static_assert(offsetof(GenericMPParams, dstBitmap) == 72);
static_assert(offsetof(GenericMPParams, maskData) == 80);
static_assert(sizeof(GenericMPParams) == 88);

struct MPImageFilterData;

// The delete callback of an asynchronous run, called instead of deleting the
// block once no part reads it any more: from then on the block is free.
using ParamBlockDeleter = int (*)(REALobject self, GenericMPParams* params);

using ProcessPartsFn = REALobject (*)(MPImageFilterData* engine, void* params, PartFunction partFunction,
                                      PartFunction maskPartFunction, RawBitmap* source, REALobject mask,
                                      int32_t modeCode, int32_t formatFlags, int32_t resultFlag);
using ProcessPartsInPlaceFn = REALobject (*)(MPImageFilterData* engine, void* params, PartFunction partFunction,
                                             PartFunction maskPartFunction, RawBitmap* source, REALobject mask,
                                             int32_t modeCode, int32_t formatFlags);
using ProcessPartsAsyncFn = void (*)(REALobject self, MPImageFilterData* engine, REALobject sourceObject,
                                     void* params, PartFunction partFunction, PartFunction maskPartFunction,
                                     RawBitmap* source, REALobject mask, int32_t modeCode, int32_t formatFlags,
                                     int32_t resultFlag, REALobject completeTarget, void* completeMethod,
                                     ParamBlockDeleter deleteCallback);

// The engine's operation table; slots 2, 3 and 5 are the ones effects call.
struct MPEngineOps {
  void* slot0;
  void* slot1;
  ProcessPartsFn ProcessParts;
  ProcessPartsInPlaceFn ProcessPartsInPlace;
  void* slot4;
  ProcessPartsAsyncFn ProcessPartsAsync;
};
static_assert(offsetof(MPEngineOps, ProcessParts) == 2 * 8);
static_assert(offsetof(MPEngineOps, ProcessPartsInPlace) == 3 * 8);
static_assert(offsetof(MPEngineOps, ProcessPartsAsync) == 5 * 8);

// The superclass's instance data: 72 bytes directly before an effect's own data.
struct MPImageFilterData {
  const MPEngineOps* ops;  // word 0
  void* engineState;       // word 1: the engine's own
  int64_t lastError;       // word 2
  int64_t engine3[6];      // words 3..8: the engine's own
};
static_assert(offsetof(MPImageFilterData, lastError) == 16);
static_assert(sizeof(MPImageFilterData) == 72);

namespace rawfx {

inline constexpr int64_t kErrorInvalidArgument = 4;
inline constexpr int64_t kErrorOutOfMemory = 5;  // a run's own memory could not be had; nothing ran
inline constexpr int64_t kErrorUnsupportedDepth = 6;

inline constexpr int32_t kResultFlag = 1;
inline constexpr int32_t kFormatFlags8 = 13;
inline constexpr int32_t kFormatFlags16 = 14;

// The engine object in front of an effect's instance data.
inline MPImageFilterData* EngineOf(void* effectData) {
  return reinterpret_cast<MPImageFilterData*>(static_cast<uint8_t*>(effectData) - sizeof(MPImageFilterData));
}

inline void StoreError(void* effectData, int64_t code) { EngineOf(effectData)->lastError = code; }

// Atomic access to the two head fields that change during a run. The head is a
// fixed binary layout, so its fields are plain integers; the compiler's __atomic
// built-ins give them the guarantees of std::atomic without a library feature
// that older C++ libraries lack.
inline int32_t ProgressOf(const GenericMPParams& head) { return __atomic_load_n(&head.progress, __ATOMIC_RELAXED); }
inline bool CancelRequested(const GenericMPParams& head) { return __atomic_load_n(&head.cancel, __ATOMIC_ACQUIRE) != 0; }
inline void RequestCancel(GenericMPParams& head) { __atomic_store_n(&head.cancel, uint8_t{1}, __ATOMIC_RELEASE); }

// Called by every kernel once per finished row: counts the row and tells
// whether the part should go on (false once a cancel has been requested).
inline bool FinishRow(GenericMPParams& head) {
  __atomic_fetch_add(&head.progress, 1, __ATOMIC_RELAXED);
  return !CancelRequested(head);
}

}  // namespace rawfx

inline constexpr const char* kOnProgressDecl =
    "OnProgress(value as UInt64,total as UInt64,extraInfo as UInt64,ByRef cancel as Boolean)";

// The program's progress handler on target, or nil.
void* GetProgressProc(REALobject target);
