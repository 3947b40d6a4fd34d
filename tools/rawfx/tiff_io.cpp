// TIFF through libtiff. Grey, grey+alpha, RGB, RGBA and CMYK at 8 and 16 bits
// are read sample for sample, from strips or tiles, interleaved or in planes;
// any other kind that libtiff can render (palette, YCbCr, bilevel) is read as
// 8-bit RGB or RGBA through its RGBA interface. Any page of a multi-page file
// can be read.
#include <tiffio.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
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

// libtiff reads and writes through the caller's FILE, so that a failed write keeps the system's reason.
struct TiffStream {
  FILE* file;
  int error = 0;
};

tmsize_t ReadProc(thandle_t handle, void* data, tmsize_t size) {
  auto* stream = static_cast<TiffStream*>(handle);
  const size_t got = std::fread(data, 1, static_cast<size_t>(size), stream->file);
  if (got < static_cast<size_t>(size) && std::ferror(stream->file)) stream->error = errno;
  return static_cast<tmsize_t>(got);
}

tmsize_t WriteProc(thandle_t handle, void* data, tmsize_t size) {
  auto* stream = static_cast<TiffStream*>(handle);
  const size_t put = std::fwrite(data, 1, static_cast<size_t>(size), stream->file);
  if (put < static_cast<size_t>(size)) stream->error = errno;
  return static_cast<tmsize_t>(put);
}

toff_t SeekProc(thandle_t handle, toff_t offset, int whence) {
  auto* stream = static_cast<TiffStream*>(handle);
  if (offset > static_cast<toff_t>(std::numeric_limits<off_t>::max())) return static_cast<toff_t>(-1);
  if (fseeko(stream->file, static_cast<off_t>(offset), whence) != 0) {
    stream->error = errno;  // a seek flushes what was buffered, so a full disk can show here
    return static_cast<toff_t>(-1);
  }
  return static_cast<toff_t>(ftello(stream->file));
}

int CloseProc(thandle_t) { return 0; }  // the caller closes the file

toff_t SizeProc(thandle_t handle) {
  struct stat status {};
  return fstat(fileno(static_cast<TiffStream*>(handle)->file), &status) == 0 ? static_cast<toff_t>(status.st_size) : 0;
}

int MapProc(thandle_t, void**, toff_t*) { return 0; }
void UnmapProc(thandle_t, void*, toff_t) {}

TiffPointer Open(TiffStream* stream, const std::string& name, const char* mode, TiffMessages* messages) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, CaptureError, messages);
  TIFFOpenOptionsSetWarningHandlerExtR(options, IgnoreWarning, nullptr);
  // A strip or tile larger than this is taken as a corrupt file, not a reason to allocate.
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, tmsize_t{512} << 20);
  TiffPointer tiff(TIFFClientOpenExt(name.c_str(), mode, stream, ReadProc, WriteProc, SeekProc, CloseProc, SizeProc,
                                     MapProc, UnmapProc, options));
  TIFFOpenOptionsFree(options);
  return tiff;
}

// What the file's first directory says about its pixels.
struct TiffShape {
  uint32_t width = 0, height = 0;
  uint16_t bitsPerSample = 0, samplesPerPixel = 0, photometric = 0, planar = PLANARCONFIG_CONTIG;
  uint16_t sampleFormat = SAMPLEFORMAT_UINT, inkSet = INKSET_CMYK, extraSamples = 0;
  uint16_t orientation = ORIENTATION_TOPLEFT;
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
  TIFFGetFieldDefaulted(tiff, TIFFTAG_ORIENTATION, &shape.orientation);
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

// Where decoded pixels go: packed rows of the reader's shape, rowBytes apart.
struct Target {
  uint8_t* pixels;
  size_t rowBytes;
  ImageShape shape;
  uint8_t* row(int64_t y) const { return pixels + static_cast<size_t>(y) * rowBytes; }
};

// Copies `count` pixels of one decoded stretch into the target, keeping the first
// channels() samples of each file pixel (or the one plane `plane`).
struct Stretch {
  const uint8_t* source;
  int fileSamples;  // samples per pixel in the stretch: the file's, or 1 in a plane
  int plane;        // -1: interleaved
};

void CopyPixels(const Stretch& stretch, const Target& target, int64_t x, int64_t y, int64_t count) {
  const int channels = target.shape.channels();
  const int bytes = target.shape.depth / 8;
  const int firstChannel = stretch.plane < 0 ? 0 : stretch.plane;
  const int copied = stretch.plane < 0 ? channels : 1;
  uint8_t* out = target.row(y) + static_cast<size_t>(x * channels + firstChannel) * bytes;
  const uint8_t* in = stretch.source;
  for (int64_t i = 0; i < count; ++i) {
    std::memcpy(out, in, static_cast<size_t>(copied * bytes));
    out += channels * bytes;
    in += stretch.fileSamples * bytes;
  }
}

int PlanesOf(const TiffShape& shape, const Target& target) {
  return shape.planar == PLANARCONFIG_SEPARATE ? target.shape.channels() : 1;
}

Stretch StretchOf(const TiffShape& shape, const std::vector<uint8_t>& buffer, int plane) {
  if (shape.planar == PLANARCONFIG_SEPARATE) return {buffer.data(), 1, plane};
  return {buffer.data(), shape.samplesPerPixel, -1};
}

// Reports rows done over every plane; false when the caller asked to stop.
struct RowCounter {
  const RowProgress& progress;
  int64_t total;
  bool report(int64_t done) const { return !progress || progress(done, total); }
};

enum class Outcome { Done, Failed, Stopped };

Outcome ReadStrips(TIFF* tiff, const TiffShape& shape, const Target& target, const RowProgress& progress) {
  std::vector<uint8_t> line(static_cast<size_t>(TIFFScanlineSize64(tiff)));
  const int planes = PlanesOf(shape, target);
  const RowCounter counter{progress, int64_t{planes} * shape.height};
  for (int plane = 0; plane < planes; ++plane) {
    for (uint32_t y = 0; y < shape.height; ++y) {
      if (TIFFReadScanline(tiff, line.data(), y, static_cast<uint16_t>(plane)) < 0) return Outcome::Failed;
      CopyPixels(StretchOf(shape, line, plane), target, 0, y, shape.width);
      if (!counter.report(int64_t{plane} * shape.height + y + 1)) return Outcome::Stopped;
    }
  }
  return Outcome::Done;
}

Outcome ReadTiles(TIFF* tiff, const TiffShape& shape, const Target& target, const RowProgress& progress) {
  uint32_t tileWidth = 0, tileHeight = 0;
  TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
  TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
  if (tileWidth == 0 || tileHeight == 0) return Outcome::Failed;
  std::vector<uint8_t> tile(static_cast<size_t>(TIFFTileSize64(tiff)));
  const size_t tileRowBytes = static_cast<size_t>(TIFFTileRowSize64(tiff));
  const int planes = PlanesOf(shape, target);
  const RowCounter counter{progress, int64_t{planes} * shape.height};
  for (int plane = 0; plane < planes; ++plane) {
    for (uint32_t top = 0; top < shape.height; top += tileHeight) {
      const uint32_t rows = std::min(tileHeight, shape.height - top);
      for (uint32_t left = 0; left < shape.width; left += tileWidth) {
        if (TIFFReadTile(tiff, tile.data(), left, top, 0, static_cast<uint16_t>(plane)) < 0) return Outcome::Failed;
        const uint32_t columns = std::min(tileWidth, shape.width - left);
        for (uint32_t row = 0; row < rows; ++row) {
          Stretch stretch = StretchOf(shape, tile, plane);
          stretch.source += row * tileRowBytes;
          CopyPixels(stretch, target, left, top + row, columns);
        }
      }
      if (!counter.report(int64_t{plane} * shape.height + top + rows)) return Outcome::Stopped;
    }
  }
  return Outcome::Done;
}

void InvertGrey(const Target& target) {
  const int channels = target.shape.channels();
  const int64_t width = target.shape.width;
  for (int64_t y = 0; y < target.shape.height; ++y) {
    if (target.shape.depth == 8) {
      uint8_t* row = target.row(y);
      for (int64_t x = 0; x < width; ++x) row[x * channels] = static_cast<uint8_t>(255 - row[x * channels]);
    } else {
      auto* row = reinterpret_cast<uint16_t*>(target.row(y));
      for (int64_t x = 0; x < width; ++x) row[x * channels] = static_cast<uint16_t>(65535 - row[x * channels]);
    }
  }
}

// Palette, YCbCr, bilevel and other kinds, rendered by libtiff to 8-bit RGBA a band
// of rows at a time, in the file's own row order (orientation is the caller's).
Outcome ReadThroughRGBA(TIFF* tiff, const TiffShape& shape, const Target& target, const RowProgress& progress) {
  char reason[1024] = "";
  TIFFRGBAImage rgba{};
  if (!TIFFRGBAImageBegin(&rgba, tiff, 0, reason)) return Outcome::Failed;
  rgba.req_orientation = shape.orientation;
  constexpr uint32_t kBandRows = 64;
  std::vector<uint32_t> band(static_cast<size_t>(shape.width) * kBandRows);
  const int channels = target.shape.channels();
  Outcome outcome = Outcome::Done;
  for (uint32_t top = 0; top < shape.height && outcome == Outcome::Done; top += kBandRows) {
    const uint32_t rows = std::min(kBandRows, shape.height - top);
    rgba.row_offset = static_cast<int>(top);
    rgba.col_offset = 0;
    if (!TIFFRGBAImageGet(&rgba, band.data(), shape.width, rows)) {
      outcome = Outcome::Failed;
      break;
    }
    for (uint32_t row = 0; row < rows; ++row) {
      uint8_t* out = target.row(top + row);
      const uint32_t* in = band.data() + static_cast<size_t>(row) * shape.width;
      for (uint32_t x = 0; x < shape.width; ++x, out += channels) {
        const uint32_t pixel = in[x];
        const uint8_t samples[4] = {static_cast<uint8_t>(TIFFGetR(pixel)), static_cast<uint8_t>(TIFFGetG(pixel)),
                                    static_cast<uint8_t>(TIFFGetB(pixel)), static_cast<uint8_t>(TIFFGetA(pixel))};
        std::memcpy(out, samples, static_cast<size_t>(channels));
      }
    }
    if (progress && !progress(top + rows, shape.height)) outcome = Outcome::Stopped;
  }
  TIFFRGBAImageEnd(&rgba);
  return outcome;
}

uint16_t PhotometricOf(Layout layout) {
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha: return PHOTOMETRIC_MINISBLACK;
    case Layout::CMYK: return PHOTOMETRIC_SEPARATED;
    default: return PHOTOMETRIC_RGB;
  }
}

void SetWriteTags(TIFF* tiff, const ImageShape& shape, const WriteOptions& options) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(shape.width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(shape.height));
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(shape.depth));
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(shape.channels()));
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PhotometricOf(shape.layout));
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  const uint16_t codec = TiffCodecOf(options.compression);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, codec);
  if (codec != COMPRESSION_NONE) TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  if (codec == COMPRESSION_ADOBE_DEFLATE && options.level >= 0) TIFFSetField(tiff, TIFFTAG_ZIPQUALITY, options.level);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
  if (shape.layout == Layout::CMYK) TIFFSetField(tiff, TIFFTAG_INKSET, INKSET_CMYK);
  if (HasAlpha(shape.layout)) {
    const uint16_t kinds[] = {EXTRASAMPLE_UNASSALPHA};
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, kinds);
  }
  if (options.resolution.known()) {
    TIFFSetField(tiff, TIFFTAG_XRESOLUTION, static_cast<float>(options.resolution.x));
    TIFFSetField(tiff, TIFFTAG_YRESOLUTION, static_cast<float>(options.resolution.y));
    TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, options.resolution.perCentimetre ? RESUNIT_CENTIMETER : RESUNIT_INCH);
  }
}

Resolution ResolutionOf(TIFF* tiff) {
  float x = 0, y = 0;
  uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_RESOLUTIONUNIT, &unit);
  if (unit == RESUNIT_NONE || !TIFFGetField(tiff, TIFFTAG_XRESOLUTION, &x) ||
      !TIFFGetField(tiff, TIFFTAG_YRESOLUTION, &y) || !(x > 0) || !(y > 0)) {
    return {};
  }
  return {x, y, unit == RESUNIT_CENTIMETER};
}

class TiffReader final : public ImageReader {
 public:
  TiffReader(FilePointer file, std::string name) : file_(std::move(file)), stream_{file_.get()}, name_(std::move(name)) {}

  void open(const ReadOptions& options) {
    tiff_ = Open(&stream_, name_, "r", &messages_);
    if (!tiff_) throw Fail("corrupt TIFF");
    pages = static_cast<int>(std::min<tdir_t>(TIFFNumberOfDirectories(tiff_.get()), INT32_MAX));
    if (options.page > pages) {
      throw ImageError("cannot read " + name_ + ": --page " + std::to_string(options.page) + ": the file has " +
                       std::to_string(pages) + (pages == 1 ? " page" : " pages"));
    }
    if (options.page > 1 && !TIFFSetDirectory(tiff_.get(), static_cast<tdir_t>(options.page - 1))) {
      throw Fail("corrupt TIFF");
    }
    file_shape_ = ReadShape(tiff_.get());
    const std::string refused = CheckPixelCount(file_shape_.width, file_shape_.height, options);
    if (!refused.empty()) throw ImageError("cannot read " + name_ + ": " + refused);
    // libtiff decodes a whole strip or tile of every sample before it renders a
    // row: a file declaring thousands of samples a pixel costs gigabytes and
    // seconds within any pixel limit. No layout rawfx reads has more than 8.
    if (file_shape_.samplesPerPixel > 8) {
      throw ImageError("cannot read " + name_ + ": unsupported TIFF: " + std::to_string(file_shape_.samplesPerPixel) +
                       " samples per pixel (at most 8)");
    }
    resolution = ResolutionOf(tiff_.get());
    direct_ = DirectLayout(file_shape_);
    if (direct_) {
      shape = {file_shape_.width, file_shape_.height, *direct_, file_shape_.bitsPerSample};
      return;
    }
    char reason[1024] = "";
    if (!TIFFRGBAImageOK(tiff_.get(), reason)) throw ImageError("cannot read " + name_ + ": unsupported TIFF: " + reason);
    shape = {file_shape_.width, file_shape_.height, file_shape_.extraSamples > 0 ? Layout::RGBA : Layout::RGB, 8};
  }

  void read(uint8_t* pixels, size_t rowBytes, const RowProgress& progress) override {
    const Target target{pixels, rowBytes, shape};
    TIFF* tiff = tiff_.get();
    const Outcome outcome = !direct_              ? ReadThroughRGBA(tiff, file_shape_, target, progress)
                            : TIFFIsTiled(tiff) ? ReadTiles(tiff, file_shape_, target, progress)
                                                : ReadStrips(tiff, file_shape_, target, progress);
    if (outcome == Outcome::Stopped) throw ImageError("cannot read " + name_ + ": stopped");
    if (outcome == Outcome::Failed) throw Fail("corrupt TIFF");
    if (direct_ && file_shape_.photometric == PHOTOMETRIC_MINISWHITE) InvertGrey(target);
  }

 private:
  ImageError Fail(const std::string& reason) const {
    if (stream_.error != 0) return ImageError("cannot read " + name_ + ": " + std::strerror(stream_.error));
    return ImageError("cannot read " + name_ + ": " + reason + (messages_.error[0] ? ": " : "") + messages_.error);
  }

  FilePointer file_;
  TiffStream stream_;
  std::string name_;
  TiffMessages messages_;
  TiffPointer tiff_;
  TiffShape file_shape_;
  std::optional<Layout> direct_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenTiff(FilePointer file, const std::string& name, const ReadOptions& options) {
  auto reader = std::make_unique<TiffReader>(std::move(file), name);
  reader->open(options);
  return reader;
}

void EncodeTiff(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress) {
  TiffMessages messages;
  TiffStream stream{file};
  TiffPointer tiff = Open(&stream, name, "w", &messages);
  const auto fail = [&] {
    if (stream.error != 0) return WriteFailure(name, stream.error);
    return ImageError("cannot write " + name + ": " + messages.error);
  };
  if (!tiff) throw fail();
  SetWriteTags(tiff.get(), rows.shape, options);
  // libtiff may change the row it is given (the predictor works in place).
  std::vector<uint8_t> line(rows.shape.rowBytes());
  for (int64_t y = 0; y < rows.shape.height; ++y) {
    std::memcpy(line.data(), rows.row(y), line.size());
    if (TIFFWriteScanline(tiff.get(), line.data(), static_cast<uint32_t>(y), 0) < 0) throw fail();
    ReportRow(progress, y + 1, rows.shape.height, name, "write");
  }
  if (!TIFFFlush(tiff.get()) || stream.error != 0) throw fail();
}

}  // namespace rawfx::tool
