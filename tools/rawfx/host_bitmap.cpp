#include "tools/rawfx/host_bitmap.h"

#include <cstring>

#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

// Where each of the layout's samples sits in a pixel of the format, in layout order.
std::vector<uint8_t> SamplePositions(Layout layout, const host::FormatInfo& format) {
  std::vector<uint8_t> positions;
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha: positions = {format.red}; break;
    case Layout::RGB:
    case Layout::RGBA: positions = {format.red, format.green, format.blue}; break;
    case Layout::CMYK: positions = {format.red, format.green, format.blue, format.black}; break;
  }
  if (HasAlpha(layout)) positions.push_back(format.alpha);
  return positions;
}

bool Holds(const host::FormatInfo& format, Layout layout) {
  const bool grey = format.channels - (format.hasAlpha ? 1 : 0) == 1 && !format.cmyk;
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha:
      if (!grey) return false;
      break;
    case Layout::RGB:
    case Layout::RGBA:
      if (grey || format.cmyk) return false;
      break;
    case Layout::CMYK:
      if (!format.cmyk) return false;
      break;
  }
  return format.hasAlpha == HasAlpha(layout) && format.channels == ChannelsOf(layout);
}

bool InFileOrder(const host::FormatInfo& format, Layout layout) {
  const std::vector<uint8_t> positions = SamplePositions(layout, format);
  for (size_t i = 0; i < positions.size(); ++i) {
    if (positions[i] != i) return false;
  }
  return true;
}

const host::FormatInfo* FormatFor(Layout layout) {
  const host::FormatInfo* any = nullptr;
  for (const host::FormatInfo& format : host::Formats()) {
    if (!Holds(format, layout)) continue;
    if (InFileOrder(format, layout)) return &format;
    if (!any) any = &format;
  }
  return any;
}

Layout LayoutOfFormat(const host::FormatInfo& format) {
  if (format.cmyk) return Layout::CMYK;
  if (format.channels - (format.hasAlpha ? 1 : 0) == 1) return format.hasAlpha ? Layout::GrayAlpha : Layout::Gray;
  return format.hasAlpha ? Layout::RGBA : Layout::RGB;
}

// Copies samples between an image (packed, layout order) and a bitmap pixel
// (the format's order); a bitmap channel that carries nothing is set to max.
template <class Sample>
void CopyIntoBitmap(const Image& image, const host::BitmapView& view, const std::vector<uint8_t>& positions) {
  const int channels = image.channels();
  const int64_t pixelSamples = view.pixelBytes / static_cast<int64_t>(sizeof(Sample));
  for (int64_t y = 0; y < image.height; ++y) {
    const auto* in = reinterpret_cast<const Sample*>(image.row(y));
    auto* out = reinterpret_cast<Sample*>(view.row(y));
    for (int64_t x = 0; x < image.width; ++x, in += channels, out += pixelSamples) {
      std::fill(out, out + pixelSamples, static_cast<Sample>(image.maxSample()));
      for (int c = 0; c < channels; ++c) out[positions[static_cast<size_t>(c)]] = in[c];
    }
  }
}

template <class Sample>
void CopyOutOfBitmap(const host::BitmapView& view, const std::vector<uint8_t>& positions, Image& image) {
  const int channels = image.channels();
  const int64_t pixelSamples = view.pixelBytes / static_cast<int64_t>(sizeof(Sample));
  for (int64_t y = 0; y < image.height; ++y) {
    const auto* in = reinterpret_cast<const Sample*>(view.row(y));
    auto* out = reinterpret_cast<Sample*>(image.row(y));
    for (int64_t x = 0; x < image.width; ++x, in += pixelSamples, out += channels) {
      for (int c = 0; c < channels; ++c) out[c] = in[positions[static_cast<size_t>(c)]];
    }
  }
}

}  // namespace

BitmapPlan PlanBitmap(Layout layout) {
  if (const host::FormatInfo* format = FormatFor(layout)) return {layout, format};
  if (layout == Layout::GrayAlpha) return PlanBitmap(Layout::RGBA);
  throw ToolError(kExitBadInput, std::string("the host has no bitmap format for ") + LayoutName(layout) + " pixels");
}

REALobject NewBitmapFromImage(host::Host& host, const Image& image) {
  const BitmapPlan plan = PlanBitmap(image.layout);
  const Image converted = ConvertLayout(image, plan.layout);
  REALobject bitmap = host.NewBitmap(converted.width, converted.height, plan.format->code, converted.depth);
  if (!bitmap) {
    throw ToolError(kExitBadInput, "the host refused a " + std::to_string(image.width) + " x " +
                                       std::to_string(image.height) + " " + plan.format->name + " bitmap of " +
                                       std::to_string(image.depth) + " bits");
  }
  const host::BitmapView view = host.Bitmap(bitmap);
  const std::vector<uint8_t> positions = SamplePositions(plan.layout, *plan.format);
  if (converted.depth == 16) {
    CopyIntoBitmap<uint16_t>(converted, view, positions);
  } else {
    CopyIntoBitmap<uint8_t>(converted, view, positions);
  }
  return bitmap;
}

Image ImageFromBitmap(const host::Host& host, REALobject bitmap) {
  const host::BitmapView view = host.Bitmap(bitmap);
  const host::FormatInfo* format = host::FindFormat(view.format);
  if (!format || (view.bitsPerChannel != 8 && view.bitsPerChannel != 16)) {
    throw ToolError(kExitEffectRefused, "the effect returned a bitmap of unknown format " + std::to_string(view.format));
  }
  const Layout layout = LayoutOfFormat(*format);
  Image image = Image::Blank(view.width, view.height, layout, view.bitsPerChannel);
  const std::vector<uint8_t> positions = SamplePositions(layout, *format);
  if (image.depth == 16) {
    CopyOutOfBitmap<uint16_t>(view, positions, image);
  } else {
    CopyOutOfBitmap<uint8_t>(view, positions, image);
  }
  return image;
}

}  // namespace rawfx::tool
