// Shared helpers for tests that run the plug-in inside the embedding host.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "host/host.h"

namespace rawfx::test {

// A fresh host (with its own copy of the module) per test. TearDown waits for
// asynchronous runs and then checks that the test left no object alive and
// released nothing twice.
class HostTest : public ::testing::Test {
 protected:
  void TearDown() override;

  rawfx::host::Host host;
};

// Fills every pixel byte of bitmap (padding excluded) with pseudo-random
// values that depend only on seed, the same on every machine.
void FillPattern(rawfx::host::Host& host, REALobject bitmap, uint32_t seed);

// Same size, format and depth, and the same pixel bytes (padding excluded);
// on a difference, says where the first one is.
::testing::AssertionResult SamePixels(rawfx::host::Host& host, REALobject a, REALobject b);

}  // namespace rawfx::test
