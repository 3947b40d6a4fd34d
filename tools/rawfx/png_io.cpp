// PNG through libpng. libpng reports errors with longjmp: every function that
// calls setjmp below holds only plain data in its frame, and every object with a
// destructor (buffers, the libpng structures' owner, the file) lives in a caller,
// so no destructor is ever skipped.
#include <png.h>

#include <bit>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

struct PngErrorState {
  char message[256] = "unknown error";
};

void StoreErrorAndJump(png_structp png, png_const_charp message) {
  auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
  std::snprintf(state->message, sizeof state->message, "%s", message);
  png_longjmp(png, 1);
}

void IgnoreWarning(png_structp, png_const_charp) {}

struct MemorySource {
  const uint8_t* data;
  size_t size;
  size_t position;
};

void ReadFromMemory(png_structp png, png_bytep out, size_t count) {
  auto* source = static_cast<MemorySource*>(png_get_io_ptr(png));
  if (source->size - source->position < count) png_error(png, "the file is truncated");
  std::memcpy(out, source->data + source->position, count);
  source->position += count;
}

struct ReadStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~ReadStructs() { png_destroy_read_struct(&png, &info, nullptr); }
};

struct PngHeader {
  png_uint_32 width = 0, height = 0;
  int depth = 0;
  int colourType = 0;
};

// Reads the header and asks for 8- or 16-bit grey, grey+alpha, RGB or RGBA
// samples in the machine's byte order, whatever the file holds.
bool ReadHeader(png_structp png, png_infop info, PngHeader* header) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_info(png, info);
  const int colourType = png_get_color_type(png, info);
  const int depth = png_get_bit_depth(png, info);
  if (colourType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colourType == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
  if (depth == 16 && kLittleEndian) png_set_swap(png);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  header->width = png_get_image_width(png, info);
  header->height = png_get_image_height(png, info);
  header->depth = png_get_bit_depth(png, info);
  header->colourType = png_get_color_type(png, info);
  return true;
}

bool ReadRows(png_structp png, png_infop info, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  png_read_end(png, info);
  return true;
}

Layout LayoutOfColourType(int colourType) {
  switch (colourType) {
    case PNG_COLOR_TYPE_GRAY: return Layout::Gray;
    case PNG_COLOR_TYPE_GRAY_ALPHA: return Layout::GrayAlpha;
    case PNG_COLOR_TYPE_RGB_ALPHA: return Layout::RGBA;
    default: return Layout::RGB;
  }
}

int ColourTypeOfLayout(Layout layout) {
  switch (layout) {
    case Layout::Gray: return PNG_COLOR_TYPE_GRAY;
    case Layout::GrayAlpha: return PNG_COLOR_TYPE_GRAY_ALPHA;
    case Layout::RGBA: return PNG_COLOR_TYPE_RGB_ALPHA;
    default: return PNG_COLOR_TYPE_RGB;
  }
}

template <class Pointer, class Bytes>
std::vector<Pointer> RowPointers(Bytes* data, size_t rowBytes, int64_t height) {
  std::vector<Pointer> rows(static_cast<size_t>(height));
  for (size_t y = 0; y < rows.size(); ++y) rows[y] = const_cast<Pointer>(data + y * rowBytes);
  return rows;
}

struct WriteStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~WriteStructs() { png_destroy_write_struct(&png, &info); }
};

bool WriteAll(png_structp png, png_infop info, FILE* file, const Image* image, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(image->width), static_cast<png_uint_32>(image->height),
               image->depth, ColourTypeOfLayout(image->layout), PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  if (image->depth == 16 && kLittleEndian) png_set_swap(png);
  png_write_image(png, rows);
  png_write_end(png, info);
  return true;
}

using FilePointer = std::unique_ptr<FILE, int (*)(FILE*)>;

}  // namespace

Image DecodePng(const std::vector<uint8_t>& bytes, const std::string& name, const ReadOptions& options) {
  PngErrorState errors;
  ReadStructs structs;
  structs.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &errors, StoreErrorAndJump, IgnoreWarning);
  if (structs.png) structs.info = png_create_info_struct(structs.png);
  if (!structs.info) throw ImageError("cannot read " + name + ": out of memory");
  // The pixel limit below is the one that counts; libpng's own per-side limit is lower.
  png_set_user_limits(structs.png, 0x7fffffff, 0x7fffffff);
  MemorySource source{bytes.data(), bytes.size(), 0};
  png_set_read_fn(structs.png, &source, ReadFromMemory);

  PngHeader header;
  if (!ReadHeader(structs.png, structs.info, &header)) {
    throw ImageError("cannot read " + name + ": corrupt PNG: " + errors.message);
  }
  const std::string refused = CheckPixelCount(header.width, header.height, options);
  if (!refused.empty()) throw ImageError("cannot read " + name + ": " + refused);

  Image image = Image::Blank(header.width, header.height, LayoutOfColourType(header.colourType), header.depth);
  std::vector<png_bytep> rows = RowPointers<png_bytep>(image.data.data(), image.rowBytes(), image.height);
  if (!ReadRows(structs.png, structs.info, rows.data())) {
    throw ImageError("cannot read " + name + ": corrupt PNG: " + errors.message);
  }
  return image;
}

void EncodePng(const Image& image, const std::string& path, const std::string& name) {
  FilePointer file(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!file) throw ImageError("cannot write " + name + ": " + std::strerror(errno));
  PngErrorState errors;
  WriteStructs structs;
  structs.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &errors, StoreErrorAndJump, IgnoreWarning);
  if (structs.png) structs.info = png_create_info_struct(structs.png);
  if (!structs.info) throw ImageError("cannot write " + name + ": out of memory");
  std::vector<png_bytep> rows = RowPointers<png_bytep>(image.data.data(), image.rowBytes(), image.height);
  if (!WriteAll(structs.png, structs.info, file.get(), &image, rows.data())) {
    throw ImageError("cannot write " + name + ": " + errors.message);
  }
  if (std::fclose(file.release()) != 0) throw ImageError("cannot write " + name + ": " + std::strerror(errno));
}

}  // namespace rawfx::tool
