// Instance data of BarrelDistortEffectRaw (after the superclass's engine object).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "effects/barrel/barrel_kernels.h"
#include "plugin/host_types.h"

// A run holds params from the moment it is handed to the engine until the
// engine gives it back (the end of Apply, or the delete callback of
// ApplyAsync); running is set for that time, in what is otherwise the padding
// after interpolate, so the instance keeps its size. While it is set, Apply and
// ApplyAsync are refused and the keystone setters leave the matrix, which the
// kernels are reading, as it is.
struct BarrelDistortionData {
  uint8_t interpolate;           // the Interpolate property; the host reads and writes this byte itself
  std::atomic<uint8_t> running;  // a run holds params
  double distortion;             // copied into params by every apply
  REALobject backColor;          // held with one lock; never nil
  // Handed to the engine as is, also for asynchronous runs.
  BarrelDistortionParams params;
};
static_assert(std::atomic<uint8_t>::is_always_lock_free && sizeof(std::atomic<uint8_t>) == 1);
static_assert(offsetof(BarrelDistortionData, interpolate) == 0);
static_assert(offsetof(BarrelDistortionData, running) == 1);
static_assert(offsetof(BarrelDistortionData, distortion) == 8);
static_assert(offsetof(BarrelDistortionData, backColor) == 16);
static_assert(offsetof(BarrelDistortionData, params) == 24);
static_assert(sizeof(BarrelDistortionData) == 240);
