// Properties that hold a host object (a colour, a mask) with one lock of the effect's.
#pragma once

#include "plugin/host_binding.h"

namespace rawfx {

// Getters hand the caller its own reference; the host ignores a lock of nil.
inline REALobject HandOut(REALobject held) {
  REALLockObject(held);
  return held;
}

// The new object is locked before the old one is released, so assigning the
// object already held cannot free it in between. nil is stored as given.
inline void ReplaceHeld(REALobject& held, REALobject value) {
  REALLockObject(value);
  if (held) REALUnlockObject(held);
  held = value;
}

// Destructors give back what the instance holds.
inline void ReleaseHeld(REALobject held) {
  if (held) REALUnlockObject(held);
}

}  // namespace rawfx
