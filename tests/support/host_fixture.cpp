#include "support/host_fixture.h"

#include <string>

namespace rawfx::test {

namespace {

std::string Joined(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
  return joined;
}

// xorshift32: small, fast and the same everywhere.
uint32_t NextRandom(uint32_t& state) {
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

}  // namespace

void HostTest::TearDown() {
  host.WaitForAsync();
  EXPECT_EQ(host.LiveObjectCount(), 0u) << "objects left alive: " << Joined(host.LiveObjectClasses());
  EXPECT_EQ(host.StrayLockCalls(), 0) << "locks or unlocks of objects that were not alive";
}

void FillPattern(rawfx::host::Host& host, REALobject bitmap, uint32_t seed) {
  const rawfx::host::BitmapView view = host.Bitmap(bitmap);
  uint32_t state = seed * 2654435761u + 0x9E3779B9u;
  if (state == 0) state = 1;
  for (int64_t y = 0; y < view.height; ++y) {
    uint8_t* row = view.row(y);
    for (int64_t i = 0; i < view.width * view.pixelBytes; ++i) row[i] = static_cast<uint8_t>(NextRandom(state) >> 24);
  }
}

::testing::AssertionResult SamePixels(rawfx::host::Host& host, REALobject a, REALobject b) {
  const rawfx::host::BitmapView va = host.Bitmap(a);
  const rawfx::host::BitmapView vb = host.Bitmap(b);
  if (va.width != vb.width || va.height != vb.height || va.format != vb.format ||
      va.bitsPerChannel != vb.bitsPerChannel)
    return ::testing::AssertionFailure() << "bitmaps differ in shape: " << va.width << "x" << va.height << " format "
                                         << va.format << "/" << va.bitsPerChannel << " bits vs " << vb.width << "x"
                                         << vb.height << " format " << vb.format << "/" << vb.bitsPerChannel << " bits";
  for (int64_t y = 0; y < va.height; ++y) {
    const uint8_t* ra = va.row(y);
    const uint8_t* rb = vb.row(y);
    for (int64_t i = 0; i < va.width * va.pixelBytes; ++i)
      if (ra[i] != rb[i])
        return ::testing::AssertionFailure() << "first difference at row " << y << ", pixel " << i / va.pixelBytes
                                             << ", byte " << i % va.pixelBytes << ": " << int(ra[i]) << " vs "
                                             << int(rb[i]);
  }
  return ::testing::AssertionSuccess();
}

}  // namespace rawfx::test
