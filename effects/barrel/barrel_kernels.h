// Barrel distortion: the parameter block the engine hands the part functions,
// and the four part functions (8/16-bit samples, nearest or bilinear sampling).
#pragma once

#include <cstddef>
#include <cstdint>

#include "imaging/mp_filter.h"

// The engine fills the head; the effect fills the fields after it. The block
// lives inside the effect's instance data and is read by every part of a run.
struct BarrelDistortionParams {
  GenericMPParams head;
  // 3x3 projective matrix, row by row: k00 k01 k02 / k10 k11 k12 / k20 k21 k22.
  // Keystones: k02 = k20 = horizontal, k12 = k21 = vertical.
  double keystone[9];
  double distortion;
  double centerX;            // source width * 0.5
  double centerY;            // source height * 0.5
  double distortionPlusOne;  // distortion + 1.0
  uint8_t backColor8[8];     // background sample per channel, 8-bit bitmaps
  uint16_t backColor16[8];   // background sample per channel, 16-bit bitmaps
};
static_assert(offsetof(BarrelDistortionParams, keystone) == 88);
static_assert(offsetof(BarrelDistortionParams, distortion) == 160);
static_assert(offsetof(BarrelDistortionParams, centerX) == 168);
static_assert(offsetof(BarrelDistortionParams, centerY) == 176);
static_assert(offsetof(BarrelDistortionParams, distortionPlusOne) == 184);
static_assert(offsetof(BarrelDistortionParams, backColor8) == 192);
static_assert(offsetof(BarrelDistortionParams, backColor16) == 200);
static_assert(sizeof(BarrelDistortionParams) == 216);

// Cells of the keystone matrix by name: params.keystone[BarrelKeystone::k21].
namespace BarrelKeystone {
enum Cell { k00, k01, k02, k10, k11, k12, k20, k21, k22 };
}

// Part functions: block is an MPParamBlock* whose params is a BarrelDistortionParams*.
void* BarrelDistort8BitPart(void* block);
void* BarrelDistortInterpolate8BitPart(void* block);
void* BarrelDistort16BitPart(void* block);
void* BarrelDistortInterpolate16BitPart(void* block);
