// TIFF through libtiff. Grey, grey+alpha, RGB, RGBA and CMYK at 8 and 16 bits
// are read sample for sample, from strips or tiles, interleaved or in planes;
// any other kind that libtiff can render (palette, YCbCr, bilevel) is read as
// 8-bit RGB or RGBA through its RGBA interface.
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

// Keeps the first error libtiff reports for this file, so the message is ours.
struct TiffMessages {
  char error[512] = "";
};

int CaptureError(TIFF*, void* user, const char* module, const char* format, va_list arguments) {
  auto* messages = static_cast<TiffMessages*>(user);
  if (messages->error[0] == '\0') {
    char text[400];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::snprintf(messages->error, sizeof messages->error, "%s%s%s", module ? module : "", module ? ": " : "",
                  text);
  }
  return 1;
}

int IgnoreWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using TiffPointer = std::unique_ptr<TIFF, TiffCloser>;

TiffPointer Open(const std::string& path, const char* mode, TiffMessages* messages) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, CaptureError, messages);
  TIFFOpenOptionsSetWarningHandlerExtR(options, IgnoreWarning, nullptr);
  // A strip or tile larger than this is taken as a corrupt file, not a reason to allocate.
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, tmsize_t{512} << 20);
  TiffPointer tiff(TIFFOpenExt(path.c_str(), mode, options));
  TIFFOpenOptionsFree(options);
  return tiff;
}

// What the file's first directory says about its pixels.
struct TiffShape {
  uint32_t width = 0, height = 0;
  uint16_t bitsPerSample = 0, samplesPerPixel = 0, photometric = 0, planar = PLANARCONFIG_CONTIG;
  uint16_t sampleFormat = SAMPLEFORMAT_UINT, inkSet = INKSET_CMYK, extraSamples = 0;
};

TiffShape ReadShape(TIFF* tiff) {
  TiffShape shape;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &shape.width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &shape.height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &shape.bitsPerSample);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &shape.samplesPerPixel);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &shape.planar);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &shape.sampleFormat);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_INKSET, &shape.inkSet);
  uint16_t* extraKinds = nullptr;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_EXTRASAMPLES, &shape.extraSamples, &extraKinds);
  if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &shape.photometric)) shape.photometric = 0xFFFF;
  return shape;
}

// The layout read sample for sample, or nothing when the RGBA interface must do.
std::optional<Layout> DirectLayout(const TiffShape& shape) {
  if (shape.bitsPerSample != 8 && shape.bitsPerSample != 16) return std::nullopt;
  if (shape.samplesPerPixel > 8 || shape.extraSamples >= shape.samplesPerPixel) return std::nullopt;
  if (shape.sampleFormat != SAMPLEFORMAT_UINT) return std::nullopt;
  const bool alpha = shape.extraSamples > 0;
  const int colourSamples = shape.samplesPerPixel - shape.extraSamples;
  switch (shape.photometric) {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
      if (colourSamples == 1) return alpha ? Layout::GrayAlpha : Layout::Gray;
      break;
    case PHOTOMETRIC_RGB:
      if (colourSamples == 3) return alpha ? Layout::RGBA : Layout::RGB;
      break;
    case PHOTOMETRIC_SEPARATED:
      if (colourSamples == 4 && shape.inkSet == INKSET_CMYK && !alpha) return Layout::CMYK;
      break;
    default: break;
  }
  return std::nullopt;
}

// Copies `count` pixels of one decoded stretch into the image, keeping the first
// image.channels() samples of each file pixel (or the one plane `plane`).
struct Stretch {
  const uint8_t* source;
  int fileSamples;  // samples per pixel in the stretch: the file's, or 1 in a plane
  int plane;        // -1: interleaved
};

void CopyPixels(const Stretch& stretch, Image& image, int64_t x, int64_t y, int64_t count) {
  const int channels = image.channels();
  const int bytes = image.depth / 8;
  const int firstChannel = stretch.plane < 0 ? 0 : stretch.plane;
  const int copied = stretch.plane < 0 ? channels : 1;
  uint8_t* out = image.row(y) + static_cast<size_t>(x * channels + firstChannel) * bytes;
  const uint8_t* in = stretch.source;
  for (int64_t i = 0; i < count; ++i) {
    std::memcpy(out, in, static_cast<size_t>(copied * bytes));
    out += channels * bytes;
    in += stretch.fileSamples * bytes;
  }
}

int PlanesOf(const TiffShape& shape, const Image& image) {
  return shape.planar == PLANARCONFIG_SEPARATE ? image.channels() : 1;
}

Stretch StretchOf(const TiffShape& shape, const std::vector<uint8_t>& buffer, int plane) {
  if (shape.planar == PLANARCONFIG_SEPARATE) return {buffer.data(), 1, plane};
  return {buffer.data(), shape.samplesPerPixel, -1};
}

bool ReadStrips(TIFF* tiff, const TiffShape& shape, Image& image) {
  std::vector<uint8_t> line(static_cast<size_t>(TIFFScanlineSize64(tiff)));
  for (int plane = 0; plane < PlanesOf(shape, image); ++plane) {
    for (uint32_t y = 0; y < shape.height; ++y) {
      if (TIFFReadScanline(tiff, line.data(), y, static_cast<uint16_t>(plane)) < 0) return false;
      CopyPixels(StretchOf(shape, line, plane), image, 0, y, shape.width);
    }
  }
  return true;
}

bool ReadTiles(TIFF* tiff, const TiffShape& shape, Image& image) {
  uint32_t tileWidth = 0, tileHeight = 0;
  TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
  TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
  if (tileWidth == 0 || tileHeight == 0) return false;
  std::vector<uint8_t> tile(static_cast<size_t>(TIFFTileSize64(tiff)));
  const size_t tileRowBytes = static_cast<size_t>(TIFFTileRowSize64(tiff));
  for (int plane = 0; plane < PlanesOf(shape, image); ++plane) {
    for (uint32_t top = 0; top < shape.height; top += tileHeight) {
      for (uint32_t left = 0; left < shape.width; left += tileWidth) {
        if (TIFFReadTile(tiff, tile.data(), left, top, 0, static_cast<uint16_t>(plane)) < 0) return false;
        const uint32_t columns = std::min(tileWidth, shape.width - left);
        for (uint32_t row = 0; row < tileHeight && top + row < shape.height; ++row) {
          Stretch stretch = StretchOf(shape, tile, plane);
          stretch.source += row * tileRowBytes;
          CopyPixels(stretch, image, left, top + row, columns);
        }
      }
    }
  }
  return true;
}

void InvertGrey(Image& image) {
  const int channels = image.channels();
  for (size_t i = 0; i < image.sampleCount(); i += static_cast<size_t>(channels)) {
    image.setSample(i, image.maxSample() - image.sample(i));
  }
}

// Palette, YCbCr, bilevel and other kinds, rendered by libtiff to 8-bit RGBA.
bool ReadThroughRGBA(TIFF* tiff, const TiffShape& shape, Image& image) {
  std::vector<uint32_t> pixels(static_cast<size_t>(shape.width) * shape.height);
  if (!TIFFReadRGBAImageOriented(tiff, shape.width, shape.height, pixels.data(), ORIENTATION_TOPLEFT, 0)) {
    return false;
  }
  const int channels = image.channels();
  for (size_t i = 0; i < pixels.size(); ++i) {
    const uint32_t pixel = pixels[i];
    const uint8_t samples[4] = {static_cast<uint8_t>(TIFFGetR(pixel)), static_cast<uint8_t>(TIFFGetG(pixel)),
                                static_cast<uint8_t>(TIFFGetB(pixel)), static_cast<uint8_t>(TIFFGetA(pixel))};
    std::memcpy(image.data.data() + i * static_cast<size_t>(channels), samples, static_cast<size_t>(channels));
  }
  return true;
}

uint16_t PhotometricOf(Layout layout) {
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha: return PHOTOMETRIC_MINISBLACK;
    case Layout::CMYK: return PHOTOMETRIC_SEPARATED;
    default: return PHOTOMETRIC_RGB;
  }
}

void SetWriteTags(TIFF* tiff, const Image& image) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.height));
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(image.depth));
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(image.channels()));
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PhotometricOf(image.layout));
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
  if (image.layout == Layout::CMYK) TIFFSetField(tiff, TIFFTAG_INKSET, INKSET_CMYK);
  if (HasAlpha(image.layout)) {
    const uint16_t kinds[] = {EXTRASAMPLE_UNASSALPHA};
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, kinds);
  }
}

}  // namespace

Image ReadTiff(const std::string& path, const ReadOptions& options) {
  TiffMessages messages;
  TiffPointer tiff = Open(path, "r", &messages);
  const auto fail = [&](const std::string& reason) {
    return ImageError("cannot read " + path + ": " + reason + (messages.error[0] ? ": " : "") + messages.error);
  };
  if (!tiff) throw fail("corrupt TIFF");
  const TiffShape shape = ReadShape(tiff.get());
  const std::string refused = CheckPixelCount(shape.width, shape.height, options);
  if (!refused.empty()) throw ImageError("cannot read " + path + ": " + refused);

  if (const std::optional<Layout> layout = DirectLayout(shape)) {
    Image image = Image::Blank(shape.width, shape.height, *layout, shape.bitsPerSample);
    const bool read = TIFFIsTiled(tiff.get()) ? ReadTiles(tiff.get(), shape, image)
                                              : ReadStrips(tiff.get(), shape, image);
    if (!read) throw fail("corrupt TIFF");
    if (shape.photometric == PHOTOMETRIC_MINISWHITE) InvertGrey(image);
    return image;
  }
  char reason[1024] = "";
  if (!TIFFRGBAImageOK(tiff.get(), reason)) {
    throw ImageError("cannot read " + path + ": unsupported TIFF: " + reason);
  }
  Image image = Image::Blank(shape.width, shape.height, shape.extraSamples > 0 ? Layout::RGBA : Layout::RGB, 8);
  if (!ReadThroughRGBA(tiff.get(), shape, image)) throw fail("corrupt TIFF");
  return image;
}

void WriteTiff(const Image& image, const std::string& path, const std::string& name) {
  TiffMessages messages;
  TiffPointer tiff = Open(path, "w", &messages);
  const auto fail = [&] { return ImageError("cannot write " + name + ": " + messages.error); };
  if (!tiff) throw fail();
  SetWriteTags(tiff.get(), image);
  // libtiff may change the row it is given (the predictor works in place).
  std::vector<uint8_t> line(image.rowBytes());
  for (int64_t y = 0; y < image.height; ++y) {
    std::memcpy(line.data(), image.row(y), line.size());
    if (TIFFWriteScanline(tiff.get(), line.data(), static_cast<uint32_t>(y), 0) < 0) throw fail();
  }
  if (!TIFFFlush(tiff.get())) throw fail();
}

}  // namespace rawfx::tool
