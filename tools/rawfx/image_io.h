// Image files for the rawfx tool: a plain in-memory image, and readers and
// writers for PNG (libpng), JPEG (libjpeg-turbo), TIFF (libtiff) and WebP
// (libwebp) that work row by row, so that pixels can go straight between a file
// and memory the caller owns (a host bitmap).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
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

// The size and sample layout of a picture; rows are packed.
struct ImageShape {
  int64_t width = 0;
  int64_t height = 0;
  Layout layout = Layout::RGB;
  int depth = 8;

  int channels() const { return ChannelsOf(layout); }
  size_t rowBytes() const { return static_cast<size_t>(width) * static_cast<size_t>(channels()) * (depth / 8); }
  // Bytes of the whole picture, or SIZE_MAX when that does not fit in memory's address range.
  size_t byteCount() const;
};

// Interleaved pixels with packed rows; 16-bit samples are stored in the machine's
// byte order. Sample values are 0..255 at depth 8 and 0..65535 at depth 16.
struct Image {
  int64_t width = 0;
  int64_t height = 0;
  Layout layout = Layout::RGB;
  int depth = 8;
  std::vector<uint8_t> data;

  static Image Blank(int64_t width, int64_t height, Layout layout, int depth);
  static Image Blank(const ImageShape& shape) { return Blank(shape.width, shape.height, shape.layout, shape.depth); }

  ImageShape shape() const { return {width, height, layout, depth}; }
  int channels() const { return ChannelsOf(layout); }
  size_t sampleCount() const { return static_cast<size_t>(width * height) * static_cast<size_t>(channels()); }
  size_t rowBytes() const { return shape().rowBytes(); }
  uint8_t* row(int64_t y) { return data.data() + static_cast<size_t>(y) * rowBytes(); }
  const uint8_t* row(int64_t y) const { return data.data() + static_cast<size_t>(y) * rowBytes(); }
  uint32_t sample(size_t index) const;
  void setSample(size_t index, uint32_t value);
  uint32_t maxSample() const { return depth == 16 ? 65535u : 255u; }
};

bool operator==(const Image& a, const Image& b);

enum class FileType { PNG, JPEG, TIFF, WebP };
const char* FileTypeName(FileType type);    // "PNG"
const char* FileTypeOption(FileType type);  // "png", as --format writes it

// The type named by a path's extension (.png, .jpg/.jpeg, .tif/.tiff, .webp, any
// case), or by a --format value (png, jpeg, jpg, tiff, tif, webp).
std::optional<FileType> FileTypeFromExtension(const std::string& path);
std::optional<FileType> FileTypeNamed(const std::string& name);
// The type a file's first bytes show (16 are enough), or nothing.
std::optional<FileType> FileTypeOfContent(const uint8_t* head, size_t size);

// A file that cannot be read or written; what() is one line naming the file and the reason.
class ImageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Called after each row a reader or writer has done, with the rows done and the
// rows in all; returning false stops the reading or writing (ImageError).
using RowProgress = std::function<bool(int64_t done, int64_t total)>;

// Files with more pixels than this are refused before any pixel memory is taken.
inline constexpr uint64_t kDefaultMaxPixels = 100'000'000;
// No PNG side may be longer than this, read or written (libpng's own limit, checked
// before libpng starts).
inline constexpr uint64_t kMaxPngSide = 1'000'000;

struct ReadOptions {
  uint64_t maxPixels = kDefaultMaxPixels;
  int page = 0;  // the TIFF page to read, counted from 1; 0: the first
};

// Pixels per inch (or per centimetre) along each axis; 0 when the file does not say.
struct Resolution {
  double x = 0, y = 0;
  bool perCentimetre = false;
  bool known() const { return x > 0 && y > 0; }
};

// An image file opened for reading: its type, shape and page count are known and
// have been checked against the limits, and no pixel memory has been taken.
struct ImageReader {
  FileType type = FileType::PNG;
  ImageShape shape;
  int pages = 1;  // pages in the file (TIFF directories); `shape` is the one being read
  Resolution resolution;

  virtual ~ImageReader() = default;
  // Decodes every row, top to bottom, as packed samples of shape's layout and depth
  // into rows rowBytes apart at pixels. ImageError on corrupt data or a stop.
  virtual void read(uint8_t* pixels, size_t rowBytes, const RowProgress& progress) = 0;
};

// Opens a file for reading. Its type is told by its first bytes, before anything
// else is read; messages name it as displayName (path when empty).
std::unique_ptr<ImageReader> OpenImage(const std::string& path, const ReadOptions& options = {},
                                       const std::string& displayName = {});

// What a file holds, as it was read.
struct ImageFile {
  Image image;
  FileType type = FileType::PNG;
};

// Reads a whole file into an Image (the tool itself decodes straight into host bitmaps).
ImageFile ReadImage(const std::string& path, const ReadOptions& options = {});

// The rows a writer encodes, fetched in order from top to bottom: packed samples of
// the shape's layout and depth, valid until the next call.
struct RowSource {
  ImageShape shape;
  std::function<const uint8_t*(int64_t y)> row;
};
RowSource RowsOf(const Image& image);

enum class TiffCompression { None, Deflate, LZW, Zstd };
// The names libtiff in this build can write ("zstd" only where it has the codec).
std::vector<std::string> TiffCompressionNames();
std::optional<TiffCompression> TiffCompressionNamed(const std::string& name);
uint16_t TiffCodecOf(TiffCompression compression);  // libtiff's COMPRESSION_ value

// Metadata in the form files store it, for the writers that embed it as they write.
struct MetadataBlocks {
  std::vector<uint8_t> icc;   // ICC profile
  std::vector<uint8_t> exif;  // EXIF as a TIFF structure (what follows "Exif\0\0" in a JPEG)
  std::string xmp;            // XMP packet
  std::vector<uint8_t> iptc;  // IPTC datasets
  std::vector<uint8_t> photoshopIptc;  // the same as a Photoshop resource block, as JPEG stores it
};

inline constexpr int kDefaultJpegQuality = 92;
inline constexpr int kDefaultWebPQuality = 90;

struct WriteOptions {
  int quality = 0;        // JPEG and lossy WebP, 1..100; 0: the type's default
  bool lossless = false;  // WebP: lossless instead of lossy
  int level = -1;         // PNG and deflate TIFF compression level 0..9; -1: the library's default
  TiffCompression compression = TiffCompression::Deflate;
  Resolution resolution;  // written where the type has a field for it
  const MetadataBlocks* metadata = nullptr;  // embedded by the PNG, JPEG and WebP writers
};

// Writes rows straight to path in the given type. The shape must fit the type (see
// FitsFileType); ImageError on any failure, with the system's reason for an I/O
// error, after which path may hold a partial file. Messages name the file as
// displayName (path when empty).
void WriteRows(const RowSource& rows, const std::string& path, FileType type, const WriteOptions& options = {},
               const std::string& displayName = {}, const RowProgress& progress = {});
void WriteImage(const Image& image, const std::string& path, FileType type, const WriteOptions& options = {},
                const std::string& displayName = {});

// Writes through a temporary file beside target that is renamed over it only when
// complete, so target is either untouched or whole. The type is target's extension.
void SaveImage(const Image& image, const std::string& target, const WriteOptions& options = {});

// Whether a file of this type can hold the layout and depth: PNG has no CMYK,
// JPEG has 8 bits and no alpha, WebP 8-bit RGB and RGBA, TIFF every layout at both depths.
bool FitsFileType(const ImageShape& shape, FileType type);
inline bool FitsFileType(const Image& image, FileType type) { return FitsFileType(image.shape(), type); }

// Why a file of this type cannot hold a picture this large, or empty when it can.
std::string SizeRefusedBy(const ImageShape& shape, FileType type);

// The one-line reason for a refused pixel count, or empty when the size is acceptable.
std::string CheckPixelCount(uint64_t width, uint64_t height, const ReadOptions& options);

// ---- per-format parts, used by OpenImage and WriteRows ----
using FilePointer = std::unique_ptr<FILE, int (*)(FILE*)>;
FilePointer OpenFile(const std::string& path, const char* mode, const std::string& name, const char* verb);
// Each opener gets the file positioned at its start.
std::unique_ptr<ImageReader> OpenPng(FilePointer file, const std::string& name, const ReadOptions& options);
std::unique_ptr<ImageReader> OpenJpeg(FilePointer file, const std::string& name, const ReadOptions& options);
std::unique_ptr<ImageReader> OpenTiff(FilePointer file, const std::string& name, const ReadOptions& options);
std::unique_ptr<ImageReader> OpenWebP(FilePointer file, const std::string& name, const ReadOptions& options);
using Encoder = void (*)(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                         const RowProgress& progress);
void EncodePng(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
               const RowProgress& progress);
void EncodeJpeg(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress);
void EncodeTiff(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress);
void EncodeWebP(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress);

// "cannot write NAME: REASON" with the system's reason for errno.
ImageError WriteFailure(const std::string& name, int error);
// Calls progress if set; ImageError "cannot VERB NAME: stopped" when it asks to stop.
void ReportRow(const RowProgress& progress, int64_t done, int64_t total, const std::string& name, const char* verb);

}  // namespace rawfx::tool
