// WebP through libwebp: 8-bit RGB and RGBA, lossy or lossless. Reading feeds the
// file to libwebp's incremental decoder in blocks, which decodes straight into the
// caller's rows; writing fills libwebp's picture row by row and encodes it in memory.
#include <webp/decode.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

constexpr size_t kBlockBytes = 1 << 16;

class WebPReader final : public ImageReader {
 public:
  WebPReader(FilePointer file, std::string name) : file_(std::move(file)), name_(std::move(name)) {}

  void open(const ReadOptions& options) {
    // The header with its size is in the first bytes; a longer extended header needs a few more.
    std::vector<uint8_t> head(4096);
    head.resize(std::fread(head.data(), 1, head.size(), file_.get()));
    WebPBitstreamFeatures features{};
    const VP8StatusCode status = WebPGetFeatures(head.data(), head.size(), &features);
    if (status != VP8_STATUS_OK) throw Corrupt(status);
    if (features.has_animation) throw ImageError("cannot read " + name_ + ": animated WebP is not supported");
    const std::string refused = CheckPixelCount(features.width, features.height, options);
    if (!refused.empty()) throw ImageError("cannot read " + name_ + ": " + refused);
    shape = {features.width, features.height, features.has_alpha ? Layout::RGBA : Layout::RGB, 8};
    std::rewind(file_.get());
  }

  void read(uint8_t* pixels, size_t rowBytes, const RowProgress& progress) override {
    WebPDecBuffer output;
    WebPInitDecBuffer(&output);
    output.colorspace = shape.layout == Layout::RGBA ? MODE_RGBA : MODE_RGB;
    output.is_external_memory = 1;
    output.u.RGBA.rgba = pixels;
    output.u.RGBA.stride = static_cast<int>(rowBytes);
    output.u.RGBA.size = rowBytes * static_cast<size_t>(shape.height - 1) + shape.rowBytes();
    std::unique_ptr<WebPIDecoder, void (*)(WebPIDecoder*)> decoder(WebPINewDecoder(&output), WebPIDelete);
    if (!decoder) throw ImageError("cannot read " + name_ + ": out of memory");
    std::vector<uint8_t> block(kBlockBytes);
    VP8StatusCode status = VP8_STATUS_SUSPENDED;
    while (status == VP8_STATUS_SUSPENDED) {
      const size_t got = std::fread(block.data(), 1, block.size(), file_.get());
      if (got == 0) {
        if (std::ferror(file_.get())) throw ImageError("cannot read " + name_ + ": " + std::strerror(errno));
        throw ImageError("cannot read " + name_ + ": corrupt WebP: the file is truncated");
      }
      status = WebPIAppend(decoder.get(), block.data(), got);
      int rows = 0;
      WebPIDecGetRGB(decoder.get(), &rows, nullptr, nullptr, nullptr);
      ReportRow(progress, rows, shape.height, name_, "read");
    }
    if (status != VP8_STATUS_OK) throw Corrupt(status);
  }

 private:
  ImageError Corrupt(VP8StatusCode status) const {
    static constexpr const char* kReasons[] = {"",
                                               "out of memory",
                                               "invalid parameter",
                                               "bad data",
                                               "unsupported feature",
                                               "suspended",
                                               "user abort",
                                               "the file is truncated"};
    const auto index = static_cast<size_t>(status);
    return ImageError("cannot read " + name_ + ": corrupt WebP: " +
                      (index < std::size(kReasons) ? kReasons[index] : "unknown error"));
  }

  FilePointer file_;
  std::string name_;
};

struct EncodeState {
  const RowProgress* progress;
  int64_t height;
};

int OnEncodeProgress(int percent, const WebPPicture* picture) {
  const auto* state = static_cast<const EncodeState*>(picture->user_data);
  return !*state->progress || (*state->progress)(state->height + state->height * percent / 100, 2 * state->height);
}

const char* EncodeErrorOf(WebPEncodingError error) {
  switch (error) {
    case VP8_ENC_ERROR_OUT_OF_MEMORY:
    case VP8_ENC_ERROR_BITSTREAM_OUT_OF_MEMORY: return "out of memory";
    case VP8_ENC_ERROR_USER_ABORT: return "stopped";
    case VP8_ENC_ERROR_BAD_DIMENSION: return "WebP holds at most 16383 x 16383 pixels";
    default: return "the encoder failed";
  }
}

// The encoded picture with the profile, EXIF and XMP in WebP's own chunks (it has none for IPTC).
WebPData WithMetadata(const WebPMemoryWriter& encoded, const MetadataBlocks& blocks, const std::string& name) {
  const WebPData image{encoded.mem, encoded.size};
  std::unique_ptr<WebPMux, void (*)(WebPMux*)> mux(WebPMuxCreate(&image, 0), WebPMuxDelete);
  if (!mux) throw ImageError("cannot write " + name + ": out of memory");
  const std::pair<const char*, WebPData> chunks[] = {
      {"ICCP", {blocks.icc.data(), blocks.icc.size()}},
      {"EXIF", {blocks.exif.data(), blocks.exif.size()}},
      {"XMP ", {reinterpret_cast<const uint8_t*>(blocks.xmp.data()), blocks.xmp.size()}},
  };
  for (const auto& [fourcc, data] : chunks) {
    if (data.size > 0 && WebPMuxSetChunk(mux.get(), fourcc, &data, 0) != WEBP_MUX_OK) {
      throw ImageError("cannot write " + name + ": libwebp refused its " + fourcc + " chunk");
    }
  }
  WebPData assembled{};
  if (WebPMuxAssemble(mux.get(), &assembled) != WEBP_MUX_OK) {
    throw ImageError("cannot write " + name + ": libwebp cannot assemble the file");
  }
  return assembled;
}

}  // namespace

std::unique_ptr<ImageReader> OpenWebP(FilePointer file, const std::string& name, const ReadOptions& options) {
  auto reader = std::make_unique<WebPReader>(std::move(file), name);
  reader->open(options);
  return reader;
}

// Progress runs over twice the rows: filling the picture, then encoding it.
void EncodeWebP(const RowSource& rows, FILE* file, const WriteOptions& options, const std::string& name,
                const RowProgress& progress) {
  const ImageShape& shape = rows.shape;
  WebPConfig config;
  WebPPicture picture;
  if (!WebPConfigInit(&config) || !WebPPictureInit(&picture)) throw ImageError("cannot write " + name + ": libwebp");
  std::unique_ptr<WebPPicture, void (*)(WebPPicture*)> owner(&picture, WebPPictureFree);
  config.lossless = options.lossless ? 1 : 0;
  // Lossless keeps libwebp's default effort; quality is for lossy pictures only.
  if (!options.lossless) config.quality = static_cast<float>(options.quality > 0 ? options.quality : kDefaultWebPQuality);
  config.exact = 1;  // keep the colour under transparent pixels, as the other formats do
  picture.use_argb = 1;
  picture.width = static_cast<int>(shape.width);
  picture.height = static_cast<int>(shape.height);
  if (!WebPPictureAlloc(&picture)) throw ImageError("cannot write " + name + ": " + EncodeErrorOf(picture.error_code));
  const bool alpha = HasAlpha(shape.layout);
  const int channels = shape.channels();
  for (int64_t y = 0; y < shape.height; ++y) {
    const uint8_t* in = rows.row(y);
    uint32_t* out = picture.argb + y * picture.argb_stride;
    for (int64_t x = 0; x < shape.width; ++x, in += channels) {
      out[x] = uint32_t{alpha ? in[3] : uint8_t{255}} << 24 | uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    }
    ReportRow(progress, y + 1, 2 * shape.height, name, "write");
  }
  WebPMemoryWriter writer;
  WebPMemoryWriterInit(&writer);
  std::unique_ptr<WebPMemoryWriter, void (*)(WebPMemoryWriter*)> writerOwner(&writer, WebPMemoryWriterClear);
  picture.writer = WebPMemoryWrite;
  picture.custom_ptr = &writer;
  EncodeState state{&progress, shape.height};
  picture.user_data = &state;
  picture.progress_hook = OnEncodeProgress;
  if (!WebPEncode(&config, &picture)) throw ImageError("cannot write " + name + ": " + EncodeErrorOf(picture.error_code));
  owner.reset();  // the pixels are encoded
  WebPData output{writer.mem, writer.size};
  std::unique_ptr<WebPData, void (*)(WebPData*)> assembled(nullptr, WebPDataClear);
  if (options.metadata) {
    output = WithMetadata(writer, *options.metadata, name);
    assembled.reset(&output);
  }
  if (std::fwrite(output.bytes, 1, output.size, file) != output.size) throw WriteFailure(name, errno);
}

}  // namespace rawfx::tool
