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

#include <csetjmp>
#include <cstring>
#include <memory>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

struct JpegErrors {
  jpeg_error_mgr manager;  // first, so libjpeg's pointer to it is a pointer to the whole
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void StoreErrorAndJump(j_common_ptr info) {
  auto* errors = reinterpret_cast<JpegErrors*>(info->err);
  (*info->err->format_message)(info, errors->message);
  longjmp(errors->jump, 1);
}

// Warnings are ignored, except data that stops short: libjpeg would pad the
// rest of the picture with grey and call it a success.
void TreatTruncationAsError(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) StoreErrorAndJump(info);
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
bool ReadHeader(jpeg_decompress_struct* info, JpegErrors* errors, const uint8_t* bytes, unsigned long size) {
  if (setjmp(errors->jump)) return false;
  jpeg_mem_src(info, bytes, size);
  jpeg_read_header(info, TRUE);
  switch (info->jpeg_color_space) {
    case JCS_GRAYSCALE: info->out_color_space = JCS_GRAYSCALE; break;
    case JCS_CMYK:
    case JCS_YCCK: info->out_color_space = JCS_CMYK; break;
    default: info->out_color_space = JCS_RGB; break;
  }
  return true;
}

bool ReadRows(jpeg_decompress_struct* info, JpegErrors* errors, uint8_t* pixels, size_t rowBytes) {
  if (setjmp(errors->jump)) return false;
  jpeg_start_decompress(info);
  while (info->output_scanline < info->output_height) {
    JSAMPROW row = pixels + info->output_scanline * rowBytes;
    jpeg_read_scanlines(info, &row, 1);
  }
  jpeg_finish_decompress(info);
  return true;
}

Layout LayoutOfColourSpace(J_COLOR_SPACE space) {
  if (space == JCS_GRAYSCALE) return Layout::Gray;
  if (space == JCS_CMYK) return Layout::CMYK;
  return Layout::RGB;
}

void InvertSamples(std::vector<uint8_t>& samples) {
  for (uint8_t& sample : samples) sample = static_cast<uint8_t>(255 - sample);
}

bool CreateCompressor(Compressor* compressor, JpegErrors* errors) {
  compressor->info.err = &errors->manager;
  if (setjmp(errors->jump)) return false;
  jpeg_create_compress(&compressor->info);
  compressor->created = true;
  return true;
}

bool WriteAll(jpeg_compress_struct* info, JpegErrors* errors, FILE* file, const Image* image,
              const uint8_t* pixels, int quality) {
  if (setjmp(errors->jump)) return false;
  jpeg_stdio_dest(info, file);
  info->image_width = static_cast<JDIMENSION>(image->width);
  info->image_height = static_cast<JDIMENSION>(image->height);
  info->input_components = image->channels();
  info->in_color_space = image->layout == Layout::Gray   ? JCS_GRAYSCALE
                         : image->layout == Layout::CMYK ? JCS_CMYK
                                                         : JCS_RGB;
  jpeg_set_defaults(info);
  jpeg_set_quality(info, quality, TRUE);
  jpeg_start_compress(info, TRUE);
  const size_t rowBytes = image->rowBytes();
  while (info->next_scanline < info->image_height) {
    JSAMPROW row = const_cast<uint8_t*>(pixels + info->next_scanline * rowBytes);
    jpeg_write_scanlines(info, &row, 1);
  }
  jpeg_finish_compress(info);
  return true;
}

using FilePointer = std::unique_ptr<FILE, int (*)(FILE*)>;

}  // namespace

Image DecodeJpeg(const std::vector<uint8_t>& bytes, const std::string& name, const ReadOptions& options) {
  JpegErrors errors;
  InstallErrorHandler(errors);
  Decompressor decompressor;
  if (!Create(&decompressor, &errors)) throw ImageError("cannot read " + name + ": " + errors.message);
  jpeg_decompress_struct* info = &decompressor.info;
  if (!ReadHeader(info, &errors, bytes.data(), bytes.size())) {
    throw ImageError("cannot read " + name + ": corrupt JPEG: " + errors.message);
  }
  const std::string refused = CheckPixelCount(info->image_width, info->image_height, options);
  if (!refused.empty()) throw ImageError("cannot read " + name + ": " + refused);

  Image image = Image::Blank(info->image_width, info->image_height, LayoutOfColourSpace(info->out_color_space), 8);
  if (!ReadRows(info, &errors, image.data.data(), image.rowBytes())) {
    throw ImageError("cannot read " + name + ": corrupt JPEG: " + errors.message);
  }
  if (image.layout == Layout::CMYK && info->saw_Adobe_marker) InvertSamples(image.data);
  return image;
}

void EncodeJpeg(const Image& image, const std::string& path, const std::string& name, int quality) {
  std::vector<uint8_t> inverted;
  const uint8_t* pixels = image.data.data();
  if (image.layout == Layout::CMYK) {
    inverted = image.data;
    InvertSamples(inverted);
    pixels = inverted.data();
  }
  FilePointer file(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!file) throw ImageError("cannot write " + name + ": " + std::strerror(errno));
  JpegErrors errors;
  InstallErrorHandler(errors);
  Compressor compressor;
  if (!CreateCompressor(&compressor, &errors) ||
      !WriteAll(&compressor.info, &errors, file.get(), &image, pixels, quality)) {
    throw ImageError("cannot write " + name + ": " + errors.message);
  }
  if (std::fclose(file.release()) != 0) throw ImageError("cannot write " + name + ": " + std::strerror(errno));
}

}  // namespace rawfx::tool
