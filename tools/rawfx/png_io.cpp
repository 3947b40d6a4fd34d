// PNG through libpng. libpng reports errors with longjmp: every function that
// calls setjmp below holds only plain data in its frame and throws nothing, and
// every object with a destructor (the libpng structures' owner, the file) lives
// in a caller, so no destructor is ever skipped.
#include <png.h>

#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

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

uint32_t BigEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// The size the file declares, from its first chunk, before libpng sets anything up for it.
void CheckDeclaredSize(FILE* file, const std::string& name, const ReadOptions& options) {
  uint8_t start[24];
  if (std::fread(start, 1, sizeof start, file) != sizeof start || std::memcmp(start + 12, "IHDR", 4) != 0) {
    throw ImageError("cannot read " + name + ": corrupt PNG: no image header");
  }
  const uint32_t width = BigEndian32(start + 16), height = BigEndian32(start + 20);
  if (width > kMaxPngSide || height > kMaxPngSide) {
    throw ImageError("cannot read " + name + ": " + std::to_string(width) + " x " + std::to_string(height) +
                     " pixels: a PNG side longer than " + std::to_string(kMaxPngSide) + " pixels is refused");
  }
  const std::string refused = CheckPixelCount(width, height, options);
  if (!refused.empty()) throw ImageError("cannot read " + name + ": " + refused);
  std::rewind(file);
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
  int passes = 1;
  png_uint_32 xPerMetre = 0, yPerMetre = 0;
};

// The file, and the system's reason when reading or writing it failed.
struct PngStream {
  FILE* file;
  int error = 0;
};

void ReadBytes(png_structp png, png_bytep data, size_t count) {
  auto* stream = static_cast<PngStream*>(png_get_io_ptr(png));
  if (std::fread(data, 1, count, stream->file) == count) return;
  if (std::ferror(stream->file)) stream->error = errno;
  png_error(png, "the file is truncated");
}

// Reads the header and asks for 8- or 16-bit grey, grey+alpha, RGB or RGBA
// samples in the machine's byte order, whatever the file holds.
bool ReadHeader(png_structp png, png_infop info, PngStream* stream, PngHeader* header) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_read_fn(png, stream, ReadBytes);
  png_read_info(png, info);
  const int colourType = png_get_color_type(png, info);
  const int depth = png_get_bit_depth(png, info);
  if (colourType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colourType == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
  if (depth == 16 && kLittleEndian) png_set_swap(png);
  header->passes = png_set_interlace_handling(png);
  png_read_update_info(png, info);
  header->width = png_get_image_width(png, info);
  header->height = png_get_image_height(png, info);
  header->depth = png_get_bit_depth(png, info);
  header->colourType = png_get_color_type(png, info);
  int unit = 0;
  if (png_get_pHYs(png, info, &header->xPerMetre, &header->yPerMetre, &unit) && unit != PNG_RESOLUTION_METER) {
    header->xPerMetre = header->yPerMetre = 0;
  }
  return true;
}

enum class Outcome { Done, Failed, Stopped };

// Rows pass by pass (an interlaced file visits every row once per pass).
Outcome ReadRows(png_structp png, png_infop info, const PngHeader* header, uint8_t* pixels, size_t rowBytes,
                 const RowProgress* progress) {
  if (setjmp(png_jmpbuf(png))) return Outcome::Failed;
  const int64_t total = int64_t{header->passes} * header->height;
  for (int64_t done = 0; done < total; ++done) {
    png_read_row(png, pixels + static_cast<size_t>(done % header->height) * rowBytes, nullptr);
    if (*progress && !(*progress)(done + 1, total)) return Outcome::Stopped;
  }
  png_read_end(png, info);
  return Outcome::Done;
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

class PngReader final : public ImageReader {
 public:
  PngReader(FilePointer file, std::string name)
      : file_(std::move(file)), stream_{file_.get()}, name_(std::move(name)) {}

  void open(const ReadOptions& options) {
    CheckDeclaredSize(file_.get(), name_, options);
    structs_.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &errors_, StoreErrorAndJump, IgnoreWarning);
    if (structs_.png) structs_.info = png_create_info_struct(structs_.png);
    if (!structs_.info) throw ImageError("cannot read " + name_ + ": out of memory");
    png_set_user_limits(structs_.png, kMaxPngSide, kMaxPngSide);
    if (!ReadHeader(structs_.png, structs_.info, &stream_, &header_)) throw Corrupt();
    shape = {header_.width, header_.height, LayoutOfColourType(header_.colourType), header_.depth};
    resolution = {header_.xPerMetre * 0.0254, header_.yPerMetre * 0.0254, false};  // dots per inch
  }

  void read(uint8_t* pixels, size_t rowBytes, const RowProgress& progress) override {
    switch (ReadRows(structs_.png, structs_.info, &header_, pixels, rowBytes, &progress)) {
      case Outcome::Done: return;
      case Outcome::Failed: throw Corrupt();
      case Outcome::Stopped: throw ImageError("cannot read " + name_ + ": stopped");
    }
  }

 private:
  ImageError Corrupt() const {
    if (stream_.error != 0) return ImageError("cannot read " + name_ + ": " + std::strerror(stream_.error));
    return ImageError("cannot read " + name_ + ": corrupt PNG: " + errors_.message);
  }

  FilePointer file_;
  PngStream stream_;
  std::string name_;
  PngErrorState errors_;
  ReadStructs structs_;
  PngHeader header_;
};

struct WriteStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~WriteStructs() { png_destroy_write_struct(&png, &info); }
};

void WriteBytes(png_structp png, png_bytep data, size_t count) {
  auto* output = static_cast<PngStream*>(png_get_io_ptr(png));
  if (std::fwrite(data, 1, count, output->file) != count) {
    output->error = errno;
    png_error(png, "write failed");
  }
}

void FlushBytes(png_structp png) {
  auto* output = static_cast<PngStream*>(png_get_io_ptr(png));
  if (std::fflush(output->file) != 0) {
    output->error = errno;
    png_error(png, "write failed");
  }
}

// IPTC the way other PNG writers keep it: a compressed text chunk holding the
// datasets as hexadecimal, after a line with their name and one with their length.
std::string RawProfileText(const std::vector<uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "\niptc\n" + std::string(8 - std::min<size_t>(8, std::to_string(bytes.size()).size()), ' ') +
                     std::to_string(bytes.size()) + "\n";
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
    if (i % 36 == 35 || i + 1 == bytes.size()) text += '\n';
  }
  return text;
}

// The profile (iCCP), EXIF (eXIf), XMP (iTXt) and IPTC (zTXt), set before the header is written.
void SetMetadata(png_structp png, png_infop info, const MetadataBlocks& blocks, std::string* iptcText) {
  if (!blocks.icc.empty()) {
    png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, blocks.icc.data(),
                 static_cast<png_uint_32>(blocks.icc.size()));
  }
  if (!blocks.exif.empty()) {
    png_set_eXIf_1(png, info, static_cast<png_uint_32>(blocks.exif.size()), const_cast<uint8_t*>(blocks.exif.data()));
  }
  png_text texts[2] = {};
  int count = 0;
  if (!blocks.xmp.empty()) {
    png_text& xmp = texts[count++];
    xmp.compression = PNG_ITXT_COMPRESSION_NONE;
    xmp.key = const_cast<char*>("XML:com.adobe.xmp");
    xmp.text = const_cast<char*>(blocks.xmp.c_str());
    xmp.itxt_length = blocks.xmp.size();
  }
  if (!blocks.iptc.empty()) {
    *iptcText = RawProfileText(blocks.iptc);
    png_text& iptc = texts[count++];
    iptc.compression = PNG_TEXT_COMPRESSION_zTXt;
    iptc.key = const_cast<char*>("Raw profile type iptc");
    iptc.text = iptcText->data();
    iptc.text_length = iptcText->size();
  }
  if (count > 0) png_set_text(png, info, texts, count);
}

Outcome WriteAll(png_structp png, png_infop info, PngStream* output, const RowSource* rows,
                 const WriteOptions* options, const RowProgress* progress) {
  if (setjmp(png_jmpbuf(png))) return Outcome::Failed;
  const ImageShape& shape = rows->shape;
  png_set_write_fn(png, output, WriteBytes, FlushBytes);
  png_set_IHDR(png, info, static_cast<png_uint_32>(shape.width), static_cast<png_uint_32>(shape.height),
               shape.depth, ColourTypeOfLayout(shape.layout), PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  if (options->level >= 0) png_set_compression_level(png, options->level);
  // A profile libpng finds inconsistent is left out with a warning rather than failing the write.
  png_set_benign_errors(png, 1);
  std::string iptcText;
  if (options->metadata) SetMetadata(png, info, *options->metadata, &iptcText);
  const Resolution& resolution = options->resolution;
  if (resolution.known()) {
    const double toMetre = resolution.perCentimetre ? 100.0 : 100.0 / 2.54;
    png_set_pHYs(png, info, static_cast<png_uint_32>(resolution.x * toMetre + 0.5),
                 static_cast<png_uint_32>(resolution.y * toMetre + 0.5), PNG_RESOLUTION_METER);
  }
  png_write_info(png, info);
  if (shape.depth == 16 && kLittleEndian) png_set_swap(png);
  for (int64_t y = 0; y < shape.height; ++y) {
    png_write_row(png, rows->row(y));
    if (*progress && !(*progress)(y + 1, shape.height)) return Outcome::Stopped;
  }
  png_write_end(png, nullptr);  // every chunk went before the pixels; with info, libpng would repeat eXIf
  return Outcome::Done;
}

}  // namespace

std::unique_ptr<ImageReader> OpenPng(FilePointer file, const std::string& name, const ReadOptions& options) {
  auto reader = std::make_unique<PngReader>(std::move(file), name);
  reader->open(options);
  return reader;
}

void EncodePng(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
               const RowProgress& progress) {
  PngErrorState errors;
  WriteStructs structs;
  structs.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &errors, StoreErrorAndJump, IgnoreWarning);
  if (structs.png) structs.info = png_create_info_struct(structs.png);
  if (!structs.info) throw ImageError("cannot write " + name + ": out of memory");
  PngStream output{file};
  switch (WriteAll(structs.png, structs.info, &output, &rows, &options, &progress)) {
    case Outcome::Done: return;
    case Outcome::Failed:
      if (output.error != 0) throw WriteFailure(name, output.error);
      throw ImageError("cannot write " + name + ": " + errors.message);
    case Outcome::Stopped: throw ImageError("cannot write " + name + ": stopped");
  }
}

}  // namespace rawfx::tool
