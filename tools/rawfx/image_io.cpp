#include "tools/rawfx/image_io.h"

#include <tiffio.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>

#include "tools/rawfx/pending_file.h"

namespace rawfx::tool {

int ChannelsOf(Layout layout) {
  switch (layout) {
    case Layout::Gray: return 1;
    case Layout::GrayAlpha: return 2;
    case Layout::RGB: return 3;
    case Layout::RGBA: return 4;
    case Layout::CMYK: return 4;
  }
  return 0;
}

bool HasAlpha(Layout layout) { return layout == Layout::GrayAlpha || layout == Layout::RGBA; }

const char* LayoutName(Layout layout) {
  switch (layout) {
    case Layout::Gray: return "grey";
    case Layout::GrayAlpha: return "grey+alpha";
    case Layout::RGB: return "RGB";
    case Layout::RGBA: return "RGBA";
    case Layout::CMYK: return "CMYK";
  }
  return "?";
}

size_t ImageShape::byteCount() const {
  const size_t row = rowBytes();
  if (height <= 0 || row == 0) return 0;
  if (row > std::numeric_limits<size_t>::max() / static_cast<size_t>(height)) return std::numeric_limits<size_t>::max();
  return row * static_cast<size_t>(height);
}

Image Image::Blank(int64_t width, int64_t height, Layout layout, int depth) {
  Image image;
  image.width = width;
  image.height = height;
  image.layout = layout;
  image.depth = depth;
  image.data.assign(image.rowBytes() * static_cast<size_t>(height), 0);
  return image;
}

uint32_t Image::sample(size_t index) const {
  if (depth == 8) return data[index];
  uint16_t value;
  std::memcpy(&value, data.data() + 2 * index, 2);
  return value;
}

void Image::setSample(size_t index, uint32_t value) {
  if (depth == 8) {
    data[index] = static_cast<uint8_t>(value);
    return;
  }
  const uint16_t narrow = static_cast<uint16_t>(value);
  std::memcpy(data.data() + 2 * index, &narrow, 2);
}

bool operator==(const Image& a, const Image& b) {
  return a.width == b.width && a.height == b.height && a.layout == b.layout && a.depth == b.depth &&
         a.data == b.data;
}

namespace {

// Everything the tool knows of a file type, in one row per type.
struct FileTypeInfo {
  FileType type;
  const char* name;
  std::vector<std::string> extensions;  // the first is the one --format names
  std::vector<std::vector<int>> signatures;  // first bytes; -1 matches any byte
  int64_t maxSide;                           // the longest side the format can store
  std::unique_ptr<ImageReader> (*open)(FilePointer, const std::string&, const ReadOptions&);
  Encoder encode;
};

const std::vector<FileTypeInfo>& FileTypes() {
  static const std::vector<FileTypeInfo> types = {
      {FileType::PNG, "PNG", {"png"}, {{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}}, kMaxPngSide, OpenPng, EncodePng},
      {FileType::JPEG, "JPEG", {"jpeg", "jpg"}, {{0xFF, 0xD8, 0xFF}}, 65500, OpenJpeg, EncodeJpeg},
      {FileType::TIFF, "TIFF", {"tiff", "tif"},
       {{'I', 'I', 42, 0}, {'M', 'M', 0, 42}, {'I', 'I', 43, 0}, {'M', 'M', 0, 43}}, UINT32_MAX, OpenTiff, EncodeTiff},
      {FileType::WebP, "WebP", {"webp"}, {{'R', 'I', 'F', 'F', -1, -1, -1, -1, 'W', 'E', 'B', 'P'}},
       16383, OpenWebP, EncodeWebP},
  };
  return types;
}

const FileTypeInfo& InfoOf(FileType type) {
  return *std::find_if(FileTypes().begin(), FileTypes().end(), [type](const FileTypeInfo& info) { return info.type == type; });
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

constexpr size_t kSniffBytes = 16;

bool Matches(const std::vector<int>& signature, const uint8_t* head, size_t size) {
  if (size < signature.size()) return false;
  for (size_t i = 0; i < signature.size(); ++i) {
    if (signature[i] >= 0 && signature[i] != head[i]) return false;
  }
  return true;
}

const FileTypeInfo* SniffType(const uint8_t* head, size_t size) {
  for (const FileTypeInfo& info : FileTypes()) {
    for (const std::vector<int>& signature : info.signatures) {
      if (Matches(signature, head, size)) return &info;
    }
  }
  return nullptr;
}

}  // namespace

const char* FileTypeName(FileType type) { return InfoOf(type).name; }

std::optional<FileType> FileTypeOfContent(const uint8_t* head, size_t size) {
  const FileTypeInfo* info = SniffType(head, size);
  return info ? std::optional(info->type) : std::nullopt;
}
const char* FileTypeOption(FileType type) { return InfoOf(type).extensions.front().c_str(); }

std::optional<FileType> FileTypeNamed(const std::string& name) {
  const std::string lower = Lower(name);
  for (const FileTypeInfo& info : FileTypes()) {
    if (std::find(info.extensions.begin(), info.extensions.end(), lower) != info.extensions.end()) return info.type;
  }
  return std::nullopt;
}

std::optional<FileType> FileTypeFromExtension(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return std::nullopt;
  return FileTypeNamed(path.substr(dot + 1));
}

std::string CheckPixelCount(uint64_t width, uint64_t height, const ReadOptions& options) {
  if (width == 0 || height == 0) return "the image has no pixels";
  if (height > options.maxPixels / width) {
    return std::to_string(width) + " x " + std::to_string(height) + " pixels is more than the limit of " +
           std::to_string(options.maxPixels) + " (raise it with --max-pixels)";
  }
  return {};
}

ImageError WriteFailure(const std::string& name, int error) {
  return ImageError("cannot write " + name + ": " + std::strerror(error));
}

void ReportRow(const RowProgress& progress, int64_t done, int64_t total, const std::string& name, const char* verb) {
  if (progress && !progress(done, total)) throw ImageError(std::string("cannot ") + verb + " " + name + ": stopped");
}

FilePointer OpenFile(const std::string& path, const char* mode, const std::string& name, const char* verb) {
  FilePointer file(std::fopen(path.c_str(), mode), std::fclose);
  if (!file) throw ImageError(std::string("cannot ") + verb + " " + name + ": " + std::strerror(errno));
  return file;
}

std::unique_ptr<ImageReader> OpenImage(const std::string& path, const ReadOptions& options,
                                       const std::string& displayName) {
  const std::string& name = displayName.empty() ? path : displayName;
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) throw ImageError("cannot read " + name + ": it is a directory");
  FilePointer file = OpenFile(path, "rb", name, "read");
  std::array<uint8_t, kSniffBytes> head{};
  const size_t got = std::fread(head.data(), 1, head.size(), file.get());
  if (std::ferror(file.get())) throw ImageError("cannot read " + name + ": " + std::strerror(errno));
  if (got == 0) throw ImageError("cannot read " + name + ": the file is empty");
  const FileTypeInfo* info = SniffType(head.data(), got);
  if (!info) throw ImageError("cannot read " + name + ": not a PNG, JPEG, TIFF or WebP image");
  if (std::fseek(file.get(), 0, SEEK_SET) != 0) throw ImageError("cannot read " + name + ": " + std::strerror(errno));
  if (options.page > 1 && info->type != FileType::TIFF) {
    throw ImageError("cannot read " + name + ": --page " + std::to_string(options.page) + ": a " + info->name +
                     " file has one page");
  }
  std::unique_ptr<ImageReader> reader = info->open(std::move(file), name, options);
  reader->type = info->type;
  return reader;
}

ImageFile ReadImage(const std::string& path, const ReadOptions& options) {
  try {
    std::unique_ptr<ImageReader> reader = OpenImage(path, options);
    Image image = Image::Blank(reader->shape);
    reader->read(image.data.data(), image.rowBytes(), {});
    return {std::move(image), reader->type};
  } catch (const std::bad_alloc&) {
    throw ImageError("cannot read " + path + ": not enough memory for its pixels");
  } catch (const std::length_error&) {
    throw ImageError("cannot read " + path + ": not enough memory for its pixels");
  }
}

RowSource RowsOf(const Image& image) {
  return {image.shape(), [&image](int64_t y) { return image.row(y); }};
}

namespace {

struct TiffCompressionRow {
  const char* name;
  TiffCompression compression;
  uint16_t codec;
};
constexpr TiffCompressionRow kTiffCompressions[] = {
    {"none", TiffCompression::None, COMPRESSION_NONE},
    {"deflate", TiffCompression::Deflate, COMPRESSION_ADOBE_DEFLATE},
    {"lzw", TiffCompression::LZW, COMPRESSION_LZW},
    {"zstd", TiffCompression::Zstd, COMPRESSION_ZSTD},
};

}  // namespace

std::vector<std::string> TiffCompressionNames() {
  std::vector<std::string> names;
  for (const TiffCompressionRow& row : kTiffCompressions) {
    if (TIFFIsCODECConfigured(row.codec)) names.emplace_back(row.name);
  }
  return names;
}

std::optional<TiffCompression> TiffCompressionNamed(const std::string& name) {
  for (const TiffCompressionRow& row : kTiffCompressions) {
    if (name == row.name) return row.compression;
  }
  return std::nullopt;
}

uint16_t TiffCodecOf(TiffCompression compression) {
  for (const TiffCompressionRow& row : kTiffCompressions) {
    if (row.compression == compression) return row.codec;
  }
  return COMPRESSION_NONE;
}

bool FitsFileType(const ImageShape& shape, FileType type) {
  switch (type) {
    case FileType::PNG: return shape.layout != Layout::CMYK;
    case FileType::JPEG: return shape.depth == 8 && !HasAlpha(shape.layout);
    case FileType::TIFF: return true;
    case FileType::WebP: return shape.depth == 8 && (shape.layout == Layout::RGB || shape.layout == Layout::RGBA);
  }
  return false;
}

std::string SizeRefusedBy(const ImageShape& shape, FileType type) {
  const FileTypeInfo& info = InfoOf(type);
  if (shape.width <= info.maxSide && shape.height <= info.maxSide) return {};
  return std::string(info.name) + " holds at most " + std::to_string(info.maxSide) + " pixels a side, not " +
         std::to_string(shape.width) + " x " + std::to_string(shape.height);
}

void WriteRows(const RowSource& rows, const std::string& path, FileType type, const WriteOptions& options,
               const std::string& displayName, const RowProgress& progress) {
  const std::string& name = displayName.empty() ? path : displayName;
  const ImageShape& shape = rows.shape;
  if (!FitsFileType(shape, type)) {
    throw ImageError("cannot write " + name + ": " + FileTypeName(type) + " cannot hold " +
                     std::to_string(shape.depth) + "-bit " + LayoutName(shape.layout) + " pixels");
  }
  if (const std::string refused = SizeRefusedBy(shape, type); !refused.empty()) {
    throw ImageError("cannot write " + name + ": " + refused);
  }
  FilePointer file = OpenFile(path, "w+b", name, "write");
  InfoOf(type).encode(rows, file.get(), options, name, progress);
  if (std::fflush(file.get()) != 0 || std::ferror(file.get())) throw WriteFailure(name, errno);
  if (std::fclose(file.release()) != 0) throw WriteFailure(name, errno);
}

void WriteImage(const Image& image, const std::string& path, FileType type, const WriteOptions& options,
                const std::string& displayName) {
  WriteRows(RowsOf(image), path, type, options, displayName);
}

void SaveImage(const Image& image, const std::string& target, const WriteOptions& options) {
  const std::optional<FileType> type = FileTypeFromExtension(target);
  if (!type) {
    throw ImageError("cannot write " + target + ": the name must end in .png, .jpg, .jpeg, .tif, .tiff or .webp");
  }
  PendingFile file(target);
  WriteImage(image, file.temporaryPath(), *type, options, target);
  file.commit();
}

}  // namespace rawfx::tool
