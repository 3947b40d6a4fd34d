// Image files for the rawfx tool: a plain in-memory image and the readers and
// writers for PNG (libpng), JPEG (libjpeg-turbo) and TIFF (libtiff).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace rawfx::tool {

// How the samples of a pixel are laid out, in this order inside the pixel.
enum class Layout {
  Gray,       // grey
  GrayAlpha,  // grey, alpha
  RGB,        // red, green, blue
  RGBA,       // red, green, blue, alpha
  CMYK,       // cyan, magenta, yellow, black (0 = no ink)
};

int ChannelsOf(Layout layout);
bool HasAlpha(Layout layout);
const char* LayoutName(Layout layout);  // "grey", "grey+alpha", "RGB", "RGBA", "CMYK"

// Interleaved pixels with packed rows; 16-bit samples are stored in the machine's
// byte order. Sample values are 0..255 at depth 8 and 0..65535 at depth 16.
struct Image {
  int64_t width = 0;
  int64_t height = 0;
  Layout layout = Layout::RGB;
  int depth = 8;
  std::vector<uint8_t> data;

  static Image Blank(int64_t width, int64_t height, Layout layout, int depth);

  int channels() const { return ChannelsOf(layout); }
  size_t sampleCount() const { return static_cast<size_t>(width * height) * static_cast<size_t>(channels()); }
  size_t rowBytes() const { return static_cast<size_t>(width) * static_cast<size_t>(channels()) * (depth / 8); }
  uint8_t* row(int64_t y) { return data.data() + static_cast<size_t>(y) * rowBytes(); }
  const uint8_t* row(int64_t y) const { return data.data() + static_cast<size_t>(y) * rowBytes(); }
  uint32_t sample(size_t index) const;
  void setSample(size_t index, uint32_t value);
  uint32_t maxSample() const { return depth == 16 ? 65535u : 255u; }
};

bool operator==(const Image& a, const Image& b);

enum class FileType { PNG, JPEG, TIFF };
const char* FileTypeName(FileType type);

// The type named by a path's extension (.png, .jpg/.jpeg, .tif/.tiff, any case).
std::optional<FileType> FileTypeFromExtension(const std::string& path);

// A file that cannot be read or written; what() is one line naming the file and the reason.
class ImageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Files with more pixels than this are refused before any pixel memory is taken.
inline constexpr uint64_t kDefaultMaxPixels = 100'000'000;

struct ReadOptions {
  uint64_t maxPixels = kDefaultMaxPixels;
};

struct WriteOptions {
  int jpegQuality = 92;
};

// What a file holds, as it was read.
struct ImageFile {
  Image image;
  FileType type = FileType::PNG;
};

// Reads the first image of a file; the type is told by the file's content, not its name.
ImageFile ReadImage(const std::string& path, const ReadOptions& options = {});

// Writes an image straight to path in the given type. The image must fit the type
// (see FitsFileType); ImageError on any failure, after which path may hold a partial
// file. Messages name the file as displayName (path when empty).
void WriteImage(const Image& image, const std::string& path, FileType type, const WriteOptions& options = {},
                const std::string& displayName = {});

// Writes through a temporary file beside target that is renamed over it only when
// complete, so target is either untouched or whole. The type is target's extension.
void SaveImage(const Image& image, const std::string& target, const WriteOptions& options = {});

// Whether a file of this type can hold the layout and depth: PNG has no CMYK,
// JPEG has 8 bits and no alpha, TIFF holds every layout at both depths.
bool FitsFileType(const Image& image, FileType type);

// Per-format readers and writers, used by ReadImage and WriteImage.
Image DecodePng(const std::vector<uint8_t>& bytes, const std::string& name, const ReadOptions& options);
Image DecodeJpeg(const std::vector<uint8_t>& bytes, const std::string& name, const ReadOptions& options);
Image ReadTiff(const std::string& path, const ReadOptions& options);
void EncodePng(const Image& image, const std::string& path, const std::string& name);
void EncodeJpeg(const Image& image, const std::string& path, const std::string& name, int quality);
void WriteTiff(const Image& image, const std::string& path, const std::string& name);

// The one-line reason for a refused pixel count, or empty when the size is acceptable.
std::string CheckPixelCount(uint64_t width, uint64_t height, const ReadOptions& options);

}  // namespace rawfx::tool
