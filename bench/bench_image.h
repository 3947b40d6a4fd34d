// The image both benchmark programs time: 2048 x 2048 pixels of smooth value
// noise with gradients and a fine grain, in a host bitmap of the asked format.
#pragma once

#include <cstdint>
#include <memory>

#include "host/host.h"

namespace rawfx::bench {

inline constexpr int64_t kSide = 2048;
inline constexpr double kMegapixels = static_cast<double>(kSide * kSide) / 1e6;

// The RGB-family format with this many channels, with or without alpha.
const rawfx::host::FormatInfo& FormatWith(int channels, bool alpha);

// Sample value of a channel in 0 .. 1: what photographs look like to a
// histogram or an interpolator, unlike uniform random pixels.
double Texture(int64_t x, int64_t y, int channel);

// A host of its own and the image in one of its bitmaps.
struct Fixture {
  std::unique_ptr<rawfx::host::Host> host;
  REALobject source = nullptr;
  int channels, bits;

  Fixture(int channelCount, bool alpha, int bitsPerChannel, rawfx::host::HostOptions options = {});
  ~Fixture();
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  rawfx::host::BitmapView view() const { return host->Bitmap(source); }
};

}  // namespace rawfx::bench
