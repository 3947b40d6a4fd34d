#include "tools/rawfx/image_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
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

const char* FileTypeName(FileType type) {
  switch (type) {
    case FileType::PNG: return "PNG";
    case FileType::JPEG: return "JPEG";
    case FileType::TIFF: return "TIFF";
  }
  return "?";
}

std::optional<FileType> FileTypeFromExtension(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return std::nullopt;
  std::string extension = path.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == "png") return FileType::PNG;
  if (extension == "jpg" || extension == "jpeg") return FileType::JPEG;
  if (extension == "tif" || extension == "tiff") return FileType::TIFF;
  return std::nullopt;
}

std::string CheckPixelCount(uint64_t width, uint64_t height, const ReadOptions& options) {
  if (width == 0 || height == 0) return "the image has no pixels";
  if (height > options.maxPixels / width) {
    return std::to_string(width) + " x " + std::to_string(height) + " pixels is more than the limit of " +
           std::to_string(options.maxPixels) + " (raise it with --max-pixels)";
  }
  return {};
}

namespace {

std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) throw ImageError("cannot read " + path + ": it is a directory");
  std::ifstream file(path, std::ios::binary);
  if (!file) throw ImageError("cannot read " + path + ": " + std::strerror(errno));
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw ImageError("cannot read " + path + ": " + std::strerror(errno));
  return bytes;
}

bool StartsWith(const std::vector<uint8_t>& bytes, std::initializer_list<uint8_t> signature) {
  return bytes.size() >= signature.size() && std::equal(signature.begin(), signature.end(), bytes.begin());
}

std::optional<FileType> FileTypeFromContent(const std::vector<uint8_t>& bytes) {
  if (StartsWith(bytes, {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'})) return FileType::PNG;
  if (StartsWith(bytes, {0xFF, 0xD8, 0xFF})) return FileType::JPEG;
  if (StartsWith(bytes, {'I', 'I', 42, 0}) || StartsWith(bytes, {'M', 'M', 0, 42}) ||
      StartsWith(bytes, {'I', 'I', 43, 0}) || StartsWith(bytes, {'M', 'M', 0, 43})) {
    return FileType::TIFF;
  }
  return std::nullopt;
}

}  // namespace

ImageFile ReadImage(const std::string& path, const ReadOptions& options) {
  const std::vector<uint8_t> bytes = ReadWholeFile(path);
  if (bytes.empty()) throw ImageError("cannot read " + path + ": the file is empty");
  const std::optional<FileType> type = FileTypeFromContent(bytes);
  if (!type) throw ImageError("cannot read " + path + ": not a PNG, JPEG or TIFF image");
  try {
    switch (*type) {
      case FileType::PNG: return {DecodePng(bytes, path, options), *type};
      case FileType::JPEG: return {DecodeJpeg(bytes, path, options), *type};
      case FileType::TIFF: return {ReadTiff(path, options), *type};
    }
  } catch (const std::bad_alloc&) {
    throw ImageError("cannot read " + path + ": not enough memory for its pixels");
  } catch (const std::length_error&) {
    throw ImageError("cannot read " + path + ": not enough memory for its pixels");
  }
  throw ImageError("cannot read " + path);
}

bool FitsFileType(const Image& image, FileType type) {
  switch (type) {
    case FileType::PNG: return image.layout != Layout::CMYK;
    case FileType::JPEG: return image.depth == 8 && !HasAlpha(image.layout);
    case FileType::TIFF: return true;
  }
  return false;
}

void WriteImage(const Image& image, const std::string& path, FileType type, const WriteOptions& options,
                const std::string& displayName) {
  const std::string& name = displayName.empty() ? path : displayName;
  if (!FitsFileType(image, type)) {
    throw ImageError("cannot write " + name + ": " + FileTypeName(type) + " cannot hold " +
                     std::to_string(image.depth) + "-bit " + LayoutName(image.layout) + " pixels");
  }
  switch (type) {
    case FileType::PNG: EncodePng(image, path, name); return;
    case FileType::JPEG: EncodeJpeg(image, path, name, options.jpegQuality); return;
    case FileType::TIFF: WriteTiff(image, path, name); return;
  }
}

void SaveImage(const Image& image, const std::string& target, const WriteOptions& options) {
  const std::optional<FileType> type = FileTypeFromExtension(target);
  if (!type) throw ImageError("cannot write " + target + ": the name must end in .png, .jpg, .jpeg, .tif or .tiff");
  PendingFile file(target);
  WriteImage(image, file.temporaryPath(), *type, options, target);
  file.commit();
}

}  // namespace rawfx::tool
