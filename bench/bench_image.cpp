#include "bench/bench_image.h"

#include <cmath>
#include <stdexcept>
#include <utility>

namespace rawfx::bench {

const rawfx::host::FormatInfo& FormatWith(int channels, bool alpha) {
  for (const auto& f : rawfx::host::Formats())
    if (f.channels == channels && f.hasAlpha == alpha && !f.cmyk) return f;
  throw std::runtime_error("no such format");
}

double Texture(int64_t x, int64_t y, int channel) {
  const double fx = static_cast<double>(x) / kSide, fy = static_cast<double>(y) / kSide;
  const double waves = std::sin(fx * 23.0 + channel) * std::cos(fy * 17.0 - channel) * 0.25;
  const uint32_t h = static_cast<uint32_t>(x * 73856093 ^ y * 19349663 ^ channel * 83492791);
  const double grain = static_cast<double>((h * 2654435761u) >> 24) / 255.0 * 0.1;
  return std::fmin(1.0, std::fmax(0.0, 0.45 + 0.3 * fx * (1 - fy) + waves + grain));
}

Fixture::Fixture(int channelCount, bool alpha, int bitsPerChannel, rawfx::host::HostOptions options)
    : host(std::make_unique<rawfx::host::Host>(std::move(options))), channels(channelCount), bits(bitsPerChannel) {
  source = host->NewBitmap(kSide, kSide, FormatWith(channels, alpha).code, bits);
  const auto bitmap = view();
  for (int64_t y = 0; y < kSide; ++y)
    for (int64_t x = 0; x < kSide; ++x) {
      uint8_t* p = bitmap.row(y) + x * bitmap.pixelBytes;
      for (int c = 0; c < channels; ++c) {
        const double v = Texture(x, y, c);
        if (bits == 8)
          p[c] = static_cast<uint8_t>(v * 255.0);
        else
          reinterpret_cast<uint16_t*>(p)[c] = static_cast<uint16_t>(v * 65535.0);
      }
    }
}

Fixture::~Fixture() { host->Unlock(source); }

}  // namespace rawfx::bench
