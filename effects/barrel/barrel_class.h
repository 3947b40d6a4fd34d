// Instance data of BarrelDistortEffectRaw (after the superclass's engine object).
#pragma once

#include <cstddef>
#include <cstdint>

#include "effects/barrel/barrel_kernels.h"
#include "plugin/host_types.h"

struct BarrelDistortionData {
  uint8_t interpolate;  // the Interpolate property; the host reads and writes this byte itself
  double distortion;    // copied into params by every apply
  REALobject backColor;  // held with one lock; never nil
  // Handed to the engine as is, also for asynchronous runs; the keystone
  // setters write straight into its matrix.
  BarrelDistortionParams params;
};
static_assert(offsetof(BarrelDistortionData, interpolate) == 0);
static_assert(offsetof(BarrelDistortionData, distortion) == 8);
static_assert(offsetof(BarrelDistortionData, backColor) == 16);
static_assert(offsetof(BarrelDistortionData, params) == 24);
static_assert(sizeof(BarrelDistortionData) == 240);
