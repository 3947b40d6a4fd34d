#include "tools/rawfx/image_convert.h"

#include <algorithm>

namespace rawfx::tool {
namespace {

enum class Family { Gray, RGB, CMYK };

Family FamilyOf(Layout layout) {
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha: return Family::Gray;
    case Layout::CMYK: return Family::CMYK;
    default: return Family::RGB;
  }
}

// One pixel's colour samples in its own family, and its alpha.
struct Pixel {
  Family family;
  uint32_t colour[4];
  uint32_t alpha;
};

uint32_t Scale(uint32_t a, uint32_t b, uint32_t max) {
  return static_cast<uint32_t>((uint64_t{a} * b + max / 2) / max);
}

void ToRGB(const Pixel& pixel, uint32_t max, uint32_t rgb[3]) {
  switch (pixel.family) {
    case Family::Gray: std::fill(rgb, rgb + 3, pixel.colour[0]); return;
    case Family::RGB: std::copy(pixel.colour, pixel.colour + 3, rgb); return;
    case Family::CMYK: {
      const uint32_t white = max - pixel.colour[3];
      for (int i = 0; i < 3; ++i) rgb[i] = Scale(max - pixel.colour[i], white, max);
      return;
    }
  }
}

uint32_t Luma(const uint32_t rgb[3]) {
  const uint64_t weighted = 299ull * rgb[0] + 587ull * rgb[1] + 114ull * rgb[2];
  return static_cast<uint32_t>((weighted + 500) / 1000);
}

void RGBToCMYK(const uint32_t rgb[3], uint32_t max, uint32_t cmyk[4]) {
  const uint32_t brightest = std::max({rgb[0], rgb[1], rgb[2]});
  cmyk[3] = max - brightest;
  for (int i = 0; i < 3; ++i) {
    cmyk[i] = brightest == 0 ? 0 : static_cast<uint32_t>((uint64_t{brightest - rgb[i]} * max + brightest / 2) / brightest);
  }
}

Pixel ReadPixel(const Image& image, size_t first) {
  Pixel pixel{FamilyOf(image.layout), {0, 0, 0, 0}, image.maxSample()};
  const int colourSamples = image.channels() - (HasAlpha(image.layout) ? 1 : 0);
  for (int i = 0; i < colourSamples; ++i) pixel.colour[i] = image.sample(first + static_cast<size_t>(i));
  if (HasAlpha(image.layout)) pixel.alpha = image.sample(first + static_cast<size_t>(colourSamples));
  return pixel;
}

void WritePixel(const Pixel& pixel, Image& image, size_t first) {
  const uint32_t max = image.maxSample();
  const Family family = FamilyOf(image.layout);
  uint32_t samples[5] = {};
  int count = 0;
  if (family == pixel.family) {
    count = family == Family::Gray ? 1 : family == Family::RGB ? 3 : 4;
    std::copy(pixel.colour, pixel.colour + count, samples);
  } else {
    uint32_t rgb[3];
    ToRGB(pixel, max, rgb);
    if (family == Family::Gray) {
      samples[0] = Luma(rgb);
      count = 1;
    } else if (family == Family::RGB) {
      std::copy(rgb, rgb + 3, samples);
      count = 3;
    } else {
      RGBToCMYK(rgb, max, samples);
      count = 4;
    }
  }
  if (HasAlpha(image.layout)) samples[count++] = pixel.alpha;
  for (int i = 0; i < count; ++i) image.setSample(first + static_cast<size_t>(i), samples[i]);
}

}  // namespace

Image ConvertDepth(const Image& image, int depth) {
  if (image.depth == depth) return image;
  Image result = Image::Blank(image.width, image.height, image.layout, depth);
  const size_t count = image.sampleCount();
  for (size_t i = 0; i < count; ++i) {
    const uint32_t value = image.sample(i);
    result.setSample(i, depth == 16 ? value * 257 : (value + 128) / 257);
  }
  return result;
}

Image ConvertLayout(const Image& image, Layout layout) {
  if (image.layout == layout) return image;
  Image result = Image::Blank(image.width, image.height, layout, image.depth);
  const size_t pixels = static_cast<size_t>(image.width * image.height);
  const size_t from = static_cast<size_t>(image.channels());
  const size_t to = static_cast<size_t>(result.channels());
  for (size_t p = 0; p < pixels; ++p) WritePixel(ReadPixel(image, p * from), result, p * to);
  return result;
}

Layout LayoutForModel(Layout current, ColourModel model) {
  const bool alpha = HasAlpha(current);
  switch (model) {
    case ColourModel::Gray: return alpha ? Layout::GrayAlpha : Layout::Gray;
    case ColourModel::RGB: return alpha ? Layout::RGBA : Layout::RGB;
    case ColourModel::CMYK: return Layout::CMYK;
  }
  return current;
}

Image ConvertTo(const Image& image, const ImageShape& shape) {
  return ConvertLayout(ConvertDepth(image, shape.depth), shape.layout);
}

namespace {

// The layout each file type stores each layout in, where it differs.
struct Refit {
  FileType type;
  Layout from, to;
};
constexpr Refit kRefits[] = {
    {FileType::PNG, Layout::CMYK, Layout::RGB},        {FileType::JPEG, Layout::GrayAlpha, Layout::Gray},
    {FileType::JPEG, Layout::RGBA, Layout::RGB},       {FileType::WebP, Layout::Gray, Layout::RGB},
    {FileType::WebP, Layout::GrayAlpha, Layout::RGBA}, {FileType::WebP, Layout::CMYK, Layout::RGB},
};

}  // namespace

ImageShape ShapeForFileType(const ImageShape& shape, FileType type) {
  ImageShape fitted = shape;
  for (const Refit& refit : kRefits) {
    if (refit.type == type && refit.from == shape.layout) fitted.layout = refit.to;
  }
  if (type == FileType::JPEG || type == FileType::WebP) fitted.depth = 8;
  return fitted;
}

std::string FitNote(const ImageShape& from, FileType type) {
  const ImageShape to = ShapeForFileType(from, type);
  if (to.layout == from.layout && to.depth == from.depth) return {};
  return std::string(FileTypeName(type)) + " cannot hold " + std::to_string(from.depth) + "-bit " +
         LayoutName(from.layout) + ": written as " + std::to_string(to.depth) + "-bit " + LayoutName(to.layout);
}

Fitted FitForFileType(const Image& image, FileType type) {
  const std::string note = FitNote(image.shape(), type);
  if (note.empty()) return {image, {}};
  return {ConvertTo(image, ShapeForFileType(image.shape(), type)), note};
}

}  // namespace rawfx::tool
