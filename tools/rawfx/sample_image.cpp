#include "tools/rawfx/sample_image.h"

#include <algorithm>
#include <cmath>

namespace rawfx::tool {
namespace {

struct Colour {
  double r, g, b;
};

// Integer hash noise in [-1, 1]: the texture, identical everywhere.
double Noise(int64_t x, int64_t y) {
  uint32_t h = static_cast<uint32_t>(x) * 374761393u + static_cast<uint32_t>(y) * 668265263u;
  h = (h ^ (h >> 13)) * 1274126177u;
  h ^= h >> 16;
  return static_cast<double>(h & 0xFFFF) / 32767.5 - 1.0;
}

Colour Mix(Colour under, Colour over, double amount) {
  return {under.r + (over.r - under.r) * amount, under.g + (over.g - under.g) * amount,
          under.b + (over.b - under.b) * amount};
}

// How much of a one-pixel-wide feature at distance d covers the pixel.
double Coverage(double d, double halfWidth) { return std::clamp(halfWidth + 0.5 - std::abs(d), 0.0, 1.0); }

Colour Background(double u, double v, int64_t x, int64_t y) {
  const double grain = 3.0 * Noise(x, y);
  return {40 + 190 * u + grain, 50 + 150 * v + grain, 210 - 150 * u + grain};
}

Colour Grid(Colour pixel, int64_t x, int64_t y, int64_t spacing) {
  const bool onLine = x % spacing == 0 || y % spacing == 0;
  const bool major = (x % (spacing * 4) == 0) || (y % (spacing * 4) == 0);
  if (!onLine) return pixel;
  return Mix(pixel, {15, 15, 25}, major ? 0.9 : 0.6);
}

Colour Rings(Colour pixel, double x, double y, double cx, double cy, double step) {
  const double d = std::hypot(x - cx, y - cy);
  const double nearest = std::round(d / step) * step;
  if (nearest == 0) return pixel;
  return Mix(pixel, {250, 250, 245}, Coverage(d - nearest, 1.0));
}

Colour Disc(Colour pixel, double x, double y, double cx, double cy, double radius, Colour fill) {
  const double inside = std::clamp(radius - std::hypot(x - cx, y - cy) + 0.5, 0.0, 1.0);
  return Mix(pixel, fill, 0.85 * inside);
}

uint8_t Clamp8(double value) { return static_cast<uint8_t>(std::clamp(std::lround(value), 0L, 255L)); }

}  // namespace

Image SampleImage(int64_t width, int64_t height) {
  Image image = Image::Blank(width, height, Layout::RGB, 8);
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  const int64_t spacing = std::max<int64_t>(4, width / 16);
  const int64_t rampTop = height - std::max<int64_t>(4, height / 12);
  for (int64_t y = 0; y < height; ++y) {
    uint8_t* out = image.row(y);
    for (int64_t x = 0; x < width; ++x, out += 3) {
      const double fx = static_cast<double>(x), fy = static_cast<double>(y);
      Colour pixel = Background(fx / w, fy / h, x, y);
      pixel = Grid(pixel, x, y, spacing);
      pixel = Rings(pixel, fx, fy, w / 2, h / 2, h / 9);
      pixel = Disc(pixel, fx, fy, w * 0.27, h * 0.32, h * 0.13, {230, 40, 40});
      pixel = Disc(pixel, fx, fy, w * 0.73, h * 0.32, h * 0.13, {40, 200, 60});
      pixel = Disc(pixel, fx, fy, w * 0.50, h * 0.70, h * 0.13, {50, 80, 240});
      if (y >= rampTop) {
        const double grey = 255.0 * fx / (w - 1);
        pixel = {grey, grey, grey};
      }
      out[0] = Clamp8(pixel.r);
      out[1] = Clamp8(pixel.g);
      out[2] = Clamp8(pixel.b);
    }
  }
  return image;
}

Image SampleMask(int64_t width, int64_t height) {
  Image mask = Image::Blank(width, height, Layout::Gray, 8);
  const double cx = static_cast<double>(width) / 2, cy = static_cast<double>(height) / 2;
  const double radius = static_cast<double>(height) * 0.36, edge = static_cast<double>(height) * 0.06;
  for (int64_t y = 0; y < height; ++y) {
    uint8_t* out = mask.row(y);
    for (int64_t x = 0; x < width; ++x) {
      const double d = std::hypot(static_cast<double>(x) - cx, static_cast<double>(y) - cy);
      out[x] = Clamp8(255.0 * std::clamp((d - radius) / edge, 0.0, 1.0));
    }
  }
  return mask;
}

}  // namespace rawfx::tool
