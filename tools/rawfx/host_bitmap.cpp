#include "tools/rawfx/host_bitmap.h"

#include <cstring>
#include <memory>
#include <optional>

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

REALobject NewBitmapForShape(host::Host& host, const ImageShape& shape) {
  const BitmapPlan plan = PlanBitmap(shape.layout);
  REALobject bitmap = host.NewBitmap(shape.width, shape.height, plan.format->code, shape.depth);
  if (!bitmap) {
    ImageShape held = shape;
    held.layout = plan.layout;
    throw ToolError(kExitBadInput, "the host cannot make a " + std::to_string(shape.width) + " x " +
                                       std::to_string(shape.height) + " " + plan.format->name + " bitmap of " +
                                       std::to_string(shape.depth) + " bits (" +
                                       std::to_string(held.byteCount() >> 20) +
                                       " MiB): larger than it allows, or not enough memory");
  }
  return bitmap;
}

void FillBitmap(const host::Host& host, REALobject bitmap, const Image& image) {
  const BitmapPlan plan = PlanBitmap(image.layout);
  std::optional<Image> converted;
  if (plan.layout != image.layout) converted = ConvertLayout(image, plan.layout);
  const Image& held = converted ? *converted : image;
  const host::BitmapView view = host.Bitmap(bitmap);
  const std::vector<uint8_t> positions = SamplePositions(plan.layout, *plan.format);
  if (held.depth == 16) {
    CopyIntoBitmap<uint16_t>(held, view, positions);
  } else {
    CopyIntoBitmap<uint8_t>(held, view, positions);
  }
}

REALobject NewBitmapFromImage(host::Host& host, const Image& image) {
  REALobject bitmap = NewBitmapForShape(host, image.shape());
  FillBitmap(host, bitmap, image);
  return bitmap;
}

namespace {

// Grey+alpha rows decoded into the first half of RGBA rows, widened in place from
// the right so that no sample is overwritten before it is read.
template <class Sample>
void WidenGreyAlphaRows(const host::BitmapView& view) {
  for (int64_t y = 0; y < view.height; ++y) {
    auto* row = reinterpret_cast<Sample*>(view.row(y));
    for (int64_t x = view.width - 1; x >= 0; --x) {
      const Sample grey = row[2 * x], alpha = row[2 * x + 1];
      row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = grey;
      row[4 * x + 3] = alpha;
    }
  }
}

}  // namespace

void DecodeIntoBitmap(const host::Host& host, REALobject bitmap, ImageReader& reader, const RowProgress& progress) {
  const host::BitmapView view = host.Bitmap(bitmap);
  const BitmapPlan plan = PlanBitmap(reader.shape.layout);
  const bool widened = reader.shape.layout == Layout::GrayAlpha && plan.layout == Layout::RGBA;
  if (!InFileOrder(*plan.format, plan.layout) || (plan.layout != reader.shape.layout && !widened)) {
    Image image = Image::Blank(reader.shape);
    reader.read(image.data.data(), image.rowBytes(), progress);
    const Image held = ConvertLayout(image, plan.layout);
    const std::vector<uint8_t> positions = SamplePositions(plan.layout, *plan.format);
    held.depth == 16 ? CopyIntoBitmap<uint16_t>(held, view, positions) : CopyIntoBitmap<uint8_t>(held, view, positions);
    return;
  }
  reader.read(view.pixels, static_cast<size_t>(view.rowBytes), progress);
  if (widened) view.bitsPerChannel == 16 ? WidenGreyAlphaRows<uint16_t>(view) : WidenGreyAlphaRows<uint8_t>(view);
}

namespace {

void MirrorInPlace(const host::BitmapView& view, bool mirrorX, bool mirrorY) {
  const size_t pixel = static_cast<size_t>(view.pixelBytes);
  std::vector<uint8_t> held(pixel);
  const auto swap = [&](uint8_t* a, uint8_t* b, size_t bytes) {
    std::memcpy(held.data(), a, bytes);
    std::memcpy(a, b, bytes);
    std::memcpy(b, held.data(), bytes);
  };
  if (mirrorY) {
    held.resize(static_cast<size_t>(view.rowBytes));
    for (int64_t y = 0; y < view.height / 2; ++y) swap(view.row(y), view.row(view.height - 1 - y), held.size());
    held.resize(pixel);
  }
  if (mirrorX) {
    for (int64_t y = 0; y < view.height; ++y) {
      uint8_t* row = view.row(y);
      for (int64_t x = 0; x < view.width / 2; ++x) swap(row + x * pixel, row + (view.width - 1 - x) * pixel, pixel);
    }
  }
}

}  // namespace

REALobject Orient(host::Host& host, REALobject bitmap, const Orientation& orientation) {
  const host::BitmapView from = host.Bitmap(bitmap);
  if (!orientation.transposed) {
    MirrorInPlace(from, orientation.mirrorX, orientation.mirrorY);
    return bitmap;
  }
  REALobject turned = host.NewBitmap(from.height, from.width, from.format, from.bitsPerChannel);
  if (!turned) {
    throw ToolError(kExitBadInput, "not enough memory to turn the " + std::to_string(from.width) + " x " +
                                       std::to_string(from.height) + " picture upright");
  }
  const host::BitmapView to = host.Bitmap(turned);
  const size_t pixel = static_cast<size_t>(from.pixelBytes);
  // Upright pixel (x, y) is stored at (y, x), mirrored across the stored picture's sides.
  for (int64_t y = 0; y < to.height; ++y) {
    uint8_t* out = to.row(y);
    const int64_t column = orientation.mirrorX ? from.width - 1 - y : y;
    for (int64_t x = 0; x < to.width; ++x, out += pixel) {
      const int64_t row = orientation.mirrorY ? from.height - 1 - x : x;
      std::memcpy(out, from.row(row) + column * static_cast<int64_t>(pixel), pixel);
    }
  }
  return turned;
}

bool HostCanMake(host::Host& host, const host::BitmapView& like) {
  REALobject probe = host.NewBitmap(like.width, like.height, like.format, like.bitsPerChannel);
  if (probe) host.Unlock(probe);
  return probe != nullptr;
}

ImageShape BitmapShape(const host::Host& host, REALobject bitmap) {
  const host::BitmapView view = host.Bitmap(bitmap);
  const host::FormatInfo* format = host::FindFormat(view.format);
  if (!format || (view.bitsPerChannel != 8 && view.bitsPerChannel != 16)) {
    throw ToolError(kExitEffectRefused, "the effect returned a bitmap of unknown format " + std::to_string(view.format));
  }
  return {view.width, view.height, LayoutOfFormat(*format), view.bitsPerChannel};
}

RowSource BitmapRows(const host::Host& host, REALobject bitmap, FileType type) {
  const host::BitmapView view = host.Bitmap(bitmap);
  const ImageShape held = BitmapShape(host, bitmap);
  const ImageShape stored = ShapeForFileType(held, type);
  const host::FormatInfo& format = *host::FindFormat(view.format);
  if (stored.layout == held.layout && stored.depth == held.depth && InFileOrder(format, held.layout) &&
      static_cast<size_t>(view.pixelBytes) * static_cast<size_t>(view.width) == held.rowBytes()) {
    return {stored, [view](int64_t y) -> const uint8_t* { return view.row(y); }};
  }
  // One row at a time: out of the bitmap's order into its family's layout, then into the file's.
  auto scratch = std::make_shared<Image>();
  return {stored, [view, held, stored, scratch, positions = SamplePositions(held.layout, format)](int64_t y) {
            host::BitmapView line = view;
            line.pixels = view.row(y);
            line.height = 1;
            Image row = Image::Blank(held.width, 1, held.layout, held.depth);
            held.depth == 16 ? CopyOutOfBitmap<uint16_t>(line, positions, row)
                             : CopyOutOfBitmap<uint8_t>(line, positions, row);
            *scratch = ConvertTo(row, {held.width, 1, stored.layout, stored.depth});
            return static_cast<const uint8_t*>(scratch->data.data());
          }};
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
