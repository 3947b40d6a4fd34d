// JPEG through libjpeg-turbo. Its errors end in longjmp: every function that
// calls setjmp below holds only plain data in its frame, and everything with a
// destructor lives in a caller, so no destructor is ever skipped.
//
// CMYK is stored the way the common writers store it: inverted samples with an
// Adobe marker. Reading undoes the inversion whenever the marker is there.
#include <cstdio>
// jpeglib.h needs FILE and size_t declared first.
#include <jerror.h>
#include <jpeglib.h>

#include <cerrno>
#include <csetjmp>
#include <string_view>
#include <vector>
#include <cstring>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

struct JpegErrors {
  jpeg_error_mgr manager;  // first, so libjpeg's pointer to it is a pointer to the whole
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
  int systemError = 0;   // errno of a failed read or write, taken before anything can change it
  FILE* input = nullptr;  // the file read, whose error state tells a failed read from an end
};

[[noreturn]] void StoreErrorAndJump(j_common_ptr info) {
  auto* errors = reinterpret_cast<JpegErrors*>(info->err);
  if (info->err->msg_code == JERR_FILE_WRITE) errors->systemError = errno;
  (*info->err->format_message)(info, errors->message);
  longjmp(errors->jump, 1);
}

// Warnings are ignored, except data that stops short: libjpeg would pad the
// rest of the picture with grey and call it a success.
void TreatTruncationAsError(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    if (errors->input && std::ferror(errors->input)) errors->systemError = errno;
    StoreErrorAndJump(info);
  }
}

void InstallErrorHandler(JpegErrors& errors) {
  jpeg_std_error(&errors.manager);
  errors.manager.error_exit = StoreErrorAndJump;
  errors.manager.emit_message = TreatTruncationAsError;
  std::snprintf(errors.message, sizeof errors.message, "unknown error");
}

struct Decompressor {
  jpeg_decompress_struct info{};
  bool created = false;
  ~Decompressor() {
    if (created) jpeg_destroy_decompress(&info);
  }
};

struct Compressor {
  jpeg_compress_struct info{};
  bool created = false;
  ~Compressor() {
    if (created) jpeg_destroy_compress(&info);
  }
};

bool Create(Decompressor* decompressor, JpegErrors* errors) {
  decompressor->info.err = &errors->manager;
  if (setjmp(errors->jump)) return false;
  jpeg_create_decompress(&decompressor->info);
  decompressor->created = true;
  return true;
}

// Reads the header and picks the output colour space: grey stays grey, CMYK and
// YCCK become CMYK, everything else RGB.
bool ReadHeader(jpeg_decompress_struct* info, JpegErrors* errors, FILE* file) {
  if (setjmp(errors->jump)) return false;
  jpeg_stdio_src(info, file);
  jpeg_read_header(info, TRUE);
  switch (info->jpeg_color_space) {
    case JCS_GRAYSCALE: info->out_color_space = JCS_GRAYSCALE; break;
    case JCS_CMYK:
    case JCS_YCCK: info->out_color_space = JCS_CMYK; break;
    default: info->out_color_space = JCS_RGB; break;
  }
  return true;
}

enum class Outcome { Done, Failed, Stopped };

Outcome ReadRows(jpeg_decompress_struct* info, JpegErrors* errors, uint8_t* pixels, size_t rowBytes,
                 const RowProgress* progress) {
  if (setjmp(errors->jump)) return Outcome::Failed;
  jpeg_start_decompress(info);
  while (info->output_scanline < info->output_height) {
    JSAMPROW row = pixels + info->output_scanline * rowBytes;
    jpeg_read_scanlines(info, &row, 1);
    if (*progress && !(*progress)(info->output_scanline, info->output_height)) return Outcome::Stopped;
  }
  jpeg_finish_decompress(info);
  return Outcome::Done;
}

Layout LayoutOfColourSpace(J_COLOR_SPACE space) {
  if (space == JCS_GRAYSCALE) return Layout::Gray;
  if (space == JCS_CMYK) return Layout::CMYK;
  return Layout::RGB;
}

void InvertSamples(uint8_t* samples, size_t count) {
  for (size_t i = 0; i < count; ++i) samples[i] = static_cast<uint8_t>(255 - samples[i]);
}

bool CreateCompressor(Compressor* compressor, JpegErrors* errors) {
  compressor->info.err = &errors->manager;
  if (setjmp(errors->jump)) return false;
  jpeg_create_compress(&compressor->info);
  compressor->created = true;
  return true;
}

// JFIF density: unit 1 is dots per inch, 2 dots per centimetre.
void SetDensity(jpeg_compress_struct* info, const Resolution& resolution) {
  if (!resolution.known() || resolution.x > 65535 || resolution.y > 65535) return;
  info->density_unit = resolution.perCentimetre ? 2 : 1;
  info->X_density = static_cast<UINT16>(resolution.x + 0.5);
  info->Y_density = static_cast<UINT16>(resolution.y + 0.5);
}

// EXIF and XMP in APP1, IPTC in APP13 (as a Photoshop resource), the profile in APP2
// markers. A block too large for one marker is left out (the profile is split).
void WriteMarkers(jpeg_compress_struct* info, const MetadataBlocks& blocks) {
  constexpr size_t kMaxMarkerBytes = 65533;
  const auto write = [&](int marker, std::string_view prefix, const uint8_t* data, size_t size) {
    if (size == 0 || prefix.size() + size > kMaxMarkerBytes) return;
    std::vector<uint8_t> bytes(prefix.begin(), prefix.end());
    bytes.insert(bytes.end(), data, data + size);
    jpeg_write_marker(info, marker, bytes.data(), static_cast<unsigned>(bytes.size()));
  };
  write(JPEG_APP0 + 1, std::string_view("Exif\0\0", 6), blocks.exif.data(), blocks.exif.size());
  write(JPEG_APP0 + 1, std::string_view("http://ns.adobe.com/xap/1.0/\0", 29),
        reinterpret_cast<const uint8_t*>(blocks.xmp.data()), blocks.xmp.size());
  write(JPEG_APP0 + 13, std::string_view("Photoshop 3.0\0", 14), blocks.photoshopIptc.data(),
        blocks.photoshopIptc.size());
  if (!blocks.icc.empty()) {
    jpeg_write_icc_profile(info, blocks.icc.data(), static_cast<unsigned>(blocks.icc.size()));
  }
}

// CMYK rows are inverted into `scratch` on their way out.
Outcome WriteAll(jpeg_compress_struct* info, JpegErrors* errors, FILE* file, const RowSource* rows,
                 const WriteOptions* options, uint8_t* scratch, const RowProgress* progress) {
  if (setjmp(errors->jump)) return Outcome::Failed;
  const ImageShape& shape = rows->shape;
  jpeg_stdio_dest(info, file);
  info->image_width = static_cast<JDIMENSION>(shape.width);
  info->image_height = static_cast<JDIMENSION>(shape.height);
  info->input_components = shape.channels();
  info->in_color_space = shape.layout == Layout::Gray   ? JCS_GRAYSCALE
                         : shape.layout == Layout::CMYK ? JCS_CMYK
                                                        : JCS_RGB;
  jpeg_set_defaults(info);
  jpeg_set_quality(info, options->quality > 0 ? options->quality : kDefaultJpegQuality, TRUE);
  SetDensity(info, options->resolution);
  jpeg_start_compress(info, TRUE);
  if (options->metadata) WriteMarkers(info, *options->metadata);
  const size_t rowBytes = shape.rowBytes();
  while (info->next_scanline < info->image_height) {
    JSAMPROW row = const_cast<uint8_t*>(rows->row(info->next_scanline));
    if (scratch) {
      std::memcpy(scratch, row, rowBytes);
      InvertSamples(scratch, rowBytes);
      row = scratch;
    }
    jpeg_write_scanlines(info, &row, 1);
    if (*progress && !(*progress)(info->next_scanline, info->image_height)) return Outcome::Stopped;
  }
  jpeg_finish_compress(info);
  return Outcome::Done;
}

class JpegReader final : public ImageReader {
 public:
  JpegReader(FilePointer file, std::string name) : file_(std::move(file)), name_(std::move(name)) {
    InstallErrorHandler(errors_);
    errors_.input = file_.get();
  }

  void open(const ReadOptions& options) {
    if (!Create(&decompressor_, &errors_)) throw ImageError("cannot read " + name_ + ": " + errors_.message);
    jpeg_decompress_struct* info = &decompressor_.info;
    if (!ReadHeader(info, &errors_, file_.get())) throw Corrupt();
    const std::string refused = CheckPixelCount(info->image_width, info->image_height, options);
    if (!refused.empty()) throw ImageError("cannot read " + name_ + ": " + refused);
    shape = {info->image_width, info->image_height, LayoutOfColourSpace(info->out_color_space), 8};
    if (info->saw_JFIF_marker && (info->density_unit == 1 || info->density_unit == 2)) {
      resolution = {double(info->X_density), double(info->Y_density), info->density_unit == 2};
    }
  }

  void read(uint8_t* pixels, size_t rowBytes, const RowProgress& progress) override {
    jpeg_decompress_struct* info = &decompressor_.info;
    switch (ReadRows(info, &errors_, pixels, rowBytes, &progress)) {
      case Outcome::Done: break;
      case Outcome::Failed: throw Corrupt();
      case Outcome::Stopped: throw ImageError("cannot read " + name_ + ": stopped");
    }
    if (shape.layout == Layout::CMYK && info->saw_Adobe_marker) {
      for (int64_t y = 0; y < shape.height; ++y) InvertSamples(pixels + static_cast<size_t>(y) * rowBytes, shape.rowBytes());
    }
  }

 private:
  ImageError Corrupt() const {
    if (errors_.systemError != 0) return ImageError("cannot read " + name_ + ": " + std::strerror(errors_.systemError));
    // A progressive file holds every coefficient while it is read, which may not fit.
    if (errors_.manager.msg_code == JERR_OUT_OF_MEMORY) {
      return ImageError("cannot read " + name_ + ": not enough memory to decode it");
    }
    return ImageError("cannot read " + name_ + ": corrupt JPEG: " + errors_.message);
  }

  FilePointer file_;
  std::string name_;
  JpegErrors errors_;
  Decompressor decompressor_;
};

}  // namespace

std::unique_ptr<ImageReader> OpenJpeg(FilePointer file, const std::string& name, const ReadOptions& options) {
  auto reader = std::make_unique<JpegReader>(std::move(file), name);
  reader->open(options);
  return reader;
}

void EncodeJpeg(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress) {
  std::vector<uint8_t> scratch(rows.shape.layout == Layout::CMYK ? rows.shape.rowBytes() : 0);
  JpegErrors errors;
  InstallErrorHandler(errors);
  Compressor compressor;
  if (!CreateCompressor(&compressor, &errors)) throw ImageError("cannot write " + name + ": " + errors.message);
  switch (WriteAll(&compressor.info, &errors, file, &rows, &options, scratch.empty() ? nullptr : scratch.data(),
                   &progress)) {
    case Outcome::Done: return;
    case Outcome::Failed:
      if (errors.systemError != 0) throw WriteFailure(name, errors.systemError);
      throw ImageError("cannot write " + name + ": " + errors.message);
    case Outcome::Stopped: throw ImageError("cannot write " + name + ": stopped");
  }
}

}  // namespace rawfx::tool
