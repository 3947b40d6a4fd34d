// The tool's image files: round trips of every layout through PNG, JPEG and TIFF,
// the less common TIFF organisations, corrupt and hostile input, safe output,
// and the depth and colour model conversions. How the tool itself reports the
// common read and write failures is checked in tool_errors_test.
#include <gtest/gtest.h>
#include <tiffio.h>

#include <cstring>
#include <functional>

#include "tool_test_support.h"
#include "tools/rawfx/image_convert.h"

namespace rawfx::tool {
namespace {

using test::ScratchDir;
using Bytes = std::vector<uint8_t>;

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ImageError& error) {
    return error.what();
  }
  return "no error";
}

using RoundTrip = std::tuple<FileType, Layout, int>;

std::vector<RoundTrip> EveryLayoutEachTypeHolds() {
  std::vector<RoundTrip> cases;
  for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}) {
    for (const int depth : {8, 16}) {
      if (layout != Layout::CMYK) cases.emplace_back(FileType::PNG, layout, depth);
      cases.emplace_back(FileType::TIFF, layout, depth);
    }
    if (!HasAlpha(layout)) cases.emplace_back(FileType::JPEG, layout, 8);
    if (layout == Layout::RGB || layout == Layout::RGBA) cases.emplace_back(FileType::WebP, layout, 8);
  }
  return cases;
}

class ToolRoundTrip : public testing::TestWithParam<RoundTrip> {};

// Exact, except through lossy JPEG: smooth ramps come back close (CMYK ink amounts not inverted).
TEST_P(ToolRoundTrip, GivesThePixelsBackInTheSameLayout) {
  const auto [type, layout, depth] = GetParam();
  const bool jpeg = type == FileType::JPEG;
  ScratchDir scratch;
  const Image original = jpeg ? test::RampImage(32, 24, layout) : test::NoiseImage(13, 7, layout, depth);
  const std::string path = scratch / (std::string("image.") + FileTypeOption(type));
  WriteOptions options;
  options.quality = 95;
  options.lossless = true;  // WebP
  SaveImage(original, path, options);
  const ImageFile read = ReadImage(path);
  ASSERT_EQ(std::make_tuple(read.type, read.image.layout, read.image.depth, read.image.width, read.image.height),
            std::make_tuple(type, layout, depth, original.width, original.height));
  if (jpeg)
    EXPECT_LT(test::MeanAbsoluteDifference(read.image, original), 3.0);
  else
    EXPECT_TRUE(read.image == original);
}

INSTANTIATE_TEST_SUITE_P(ToolFiles, ToolRoundTrip, testing::ValuesIn(EveryLayoutEachTypeHolds()));

// Writes the image as TIFF in separate planes and/or 16 x 16 tiles, as other writers do.
void WriteTiffWith(const std::string& path, const Image& image, uint16_t photometric, bool planes, bool tiles) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  const int channels = image.channels(), bytes = image.depth / 8, samples = planes ? 1 : channels;
  const uint16_t alphaKind = EXTRASAMPLE_ASSOCALPHA;
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, uint16_t(image.depth));
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, uint16_t(channels));
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  if (HasAlpha(image.layout)) TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &alphaKind);
  TIFFSetField(tiff, tiles ? TIFFTAG_TILEWIDTH : TIFFTAG_ROWSPERSTRIP, tiles ? 16 : 1);
  if (tiles) TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
  // Blocks (tiles, or one-row strips) plane by plane in libtiff's numbering, zero past the image's edge.
  const int64_t blockWidth = tiles ? 16 : image.width, blockHeight = tiles ? 16 : 1;
  uint32_t block = 0;
  for (int plane = 0; plane < channels / samples; ++plane)
    for (int64_t top = 0; top < image.height; top += blockHeight)
      for (int64_t left = 0; left < image.width; left += blockWidth, ++block) {
        Bytes data(static_cast<size_t>(blockWidth * blockHeight * samples * bytes));
        for (int64_t y = top; y < std::min(top + blockHeight, image.height); ++y)
          for (int64_t x = left; x < std::min(left + blockWidth, image.width); ++x)
            std::memcpy(&data[((y - top) * blockWidth + x - left) * samples * bytes],
                        &image.data[((y * image.width + x) * channels + plane) * bytes], samples * bytes);
        (tiles ? TIFFWriteEncodedTile : TIFFWriteEncodedStrip)(tiff, block, data.data(), tmsize_t(data.size()));
      }
  TIFFClose(tiff);
}

TEST(ToolTiffFiles, ReadsPlanesTilesAndWhiteIsZeroGrey) {
  ScratchDir scratch;
  const Image rgba = test::NoiseImage(21, 19, Layout::RGBA, 16);
  for (const auto& [planes, tiles] : {std::pair{true, false}, {false, true}, {true, true}}) {
    WriteTiffWith(scratch / "organised.tif", rgba, PHOTOMETRIC_RGB, planes, tiles);
    EXPECT_TRUE(ReadImage(scratch / "organised.tif").image == rgba) << "planes " << planes << " tiles " << tiles;
  }
  const Image grey = test::NoiseImage(9, 5, Layout::Gray, 8);
  WriteTiffWith(scratch / "white.tif", grey, PHOTOMETRIC_MINISWHITE, false, false);
  const Image read = ReadImage(scratch / "white.tif").image;
  ASSERT_EQ(read.layout, Layout::Gray);
  for (size_t i = 0; i < grey.sampleCount(); ++i) ASSERT_EQ(read.sample(i), 255 - grey.sample(i));
}

TEST(ToolReadErrors, NameTheFileAndTheReasonOnOneLine) {
  ScratchDir scratch;
  SaveImage(test::NoiseImage(40, 30, Layout::RGB, 8), scratch / "good.png");
  SaveImage(test::NoiseImage(40, 30, Layout::RGB, 8), scratch / "good.tif");
  SaveImage(test::RampImage(40, 30, Layout::RGB), scratch / "good.jpg");
  std::string png = test::ReadText(scratch / "good.png");
  png[40] = static_cast<char>(png[40] ^ 0x55);  // inside the first IDAT
  test::WriteBytes(scratch / "crc.png", png);
  test::WriteBytes(scratch / "empty.png", "");
  for (const char* name : {"good.tif", "good.jpg"}) {
    const std::string bytes = test::ReadText(scratch / name);
    test::WriteBytes(scratch / (std::string("cut-") + name), bytes.substr(0, bytes.size() * 2 / 3));
  }
  for (const auto& [name, reason] :
       {std::pair{"empty.png", "empty"}, {"crc.png", "corrupt PNG"}, {"cut-good.tif", "TIFF"},
        {"cut-good.jpg", "corrupt JPEG: Premature end of JPEG file"}}) {
    const std::string message = ErrorOf([&] { ReadImage(scratch / name); });
    EXPECT_NE(message.find("cannot read " + scratch / name + ": "), std::string::npos) << message;
    EXPECT_NE(message.find(reason), std::string::npos) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }
}

// Every truncation of a file is refused. (Damaged bytes in general are the
// image_loaders_fuzzer's: an image or an ImageError, never a crash.)
TEST(ToolReadErrors, EveryTruncationOfAFileIsRefused) {
  ScratchDir scratch;
  SaveImage(test::NoiseImage(20, 12, Layout::RGBA, 16), scratch / "whole.png");
  SaveImage(test::RampImage(20, 12, Layout::CMYK), scratch / "whole.jpg");
  SaveImage(test::NoiseImage(20, 12, Layout::RGB, 16), scratch / "whole.tif");
  SaveImage(test::NoiseImage(20, 12, Layout::RGBA, 8), scratch / "whole.webp");
  for (const char* name : {"whole.png", "whole.jpg", "whole.tif", "whole.webp"}) {
    const std::string bytes = test::ReadText(scratch / name);
    for (size_t length = 1; length < bytes.size(); length += 7) {
      test::WriteBytes(scratch / "cut", bytes.substr(0, length));
      EXPECT_NE(ErrorOf([&] { ReadImage(scratch / "cut"); }), "no error") << name << " cut at " << length;
    }
  }
}

TEST(ToolReadErrors, PixelCountsOverTheLimitAreRefusedBeforeDecoding) {
  ScratchDir scratch;
  for (const char* name : {"big.png", "big.jpg", "big.tif"}) {
    SaveImage(test::RampImage(100, 60, Layout::RGB), scratch / name);
    const std::string message = ErrorOf([&] { ReadImage(scratch / name, ReadOptions{5999}); });
    EXPECT_NE(message.find("100 x 60 pixels is more than the limit of 5999"), std::string::npos) << message;
    EXPECT_EQ(ErrorOf([&] { ReadImage(scratch / name, ReadOptions{6000}); }), "no error");
  }
}

// A failed write names the system's reason, as a full disk gives it.
TEST(ToolWriteErrors, GiveTheSystemsReason) {
  const Image image = test::NoiseImage(64, 64, Layout::RGB, 8);
  for (const FileType type : {FileType::PNG, FileType::JPEG, FileType::TIFF, FileType::WebP}) {
    EXPECT_EQ(ErrorOf([&] { WriteImage(image, "/dev/full", type, {}, "full.img"); }),
              "cannot write full.img: No space left on device")
        << FileTypeName(type);
  }
}

TEST(ToolSafeOutput, ReplacesTheTargetOnlyWhenComplete) {
  ScratchDir scratch;
  const Image first = test::NoiseImage(8, 8, Layout::RGB, 8);
  SaveImage(first, scratch / "out.png");
  // CMYK does not fit PNG: the writer fails and the old file must stay as it was.
  EXPECT_NE(ErrorOf([&] { SaveImage(test::NoiseImage(8, 8, Layout::CMYK, 8), scratch / "out.png"); }), "no error");
  EXPECT_TRUE(ReadImage(scratch / "out.png").image == first);
  EXPECT_EQ(scratch.names(), std::set<std::string>{"out.png"});
}

TEST(ToolFileTypes, AreToldByExtensionInAnyCase) {
  for (const auto& [path, type] : std::initializer_list<std::pair<const char*, std::optional<FileType>>>{
           {"a/b.PNG", FileType::PNG}, {"b.Jpeg", FileType::JPEG}, {"b.jpg", FileType::JPEG},
           {"b.tiff", FileType::TIFF}, {"b.tif", FileType::TIFF}, {"b.WebP", FileType::WebP}, {"dir.png/b", std::nullopt},
           {"b.gif", std::nullopt}})
    EXPECT_EQ(FileTypeFromExtension(path), type) << path;
}

TEST(ToolConversions, DepthGoesUpExactlyAndComesBackRounded) {
  const Image eight = test::NoiseImage(17, 3, Layout::RGBA, 8);
  const Image sixteen = ConvertDepth(eight, 16);
  EXPECT_EQ(sixteen.sample(1), 65535u);
  EXPECT_EQ(sixteen.sample(5), eight.sample(5) * 257);
  EXPECT_TRUE(ConvertDepth(sixteen, 8) == eight);
  Image odd = Image::Blank(1, 2, Layout::Gray, 16);
  odd.setSample(0, 257 * 10 + 128);  // 10.498: down
  odd.setSample(1, 257 * 10 + 129);  // 10.502: up
  EXPECT_EQ(ConvertDepth(odd, 8).data, (Bytes{10, 11}));
}

TEST(ToolConversions, ColourModelsMapPrimariesAndKeepAlpha) {
  Image rgba = Image::Blank(3, 1, Layout::RGBA, 8);
  rgba.data = {255, 0, 0, 10, 255, 255, 255, 20, 0, 0, 0, 30};
  EXPECT_EQ(ConvertLayout(rgba, Layout::GrayAlpha).data, (Bytes{76, 10, 255, 20, 0, 30}));  // red: 0.299 * 255
  const Image cmyk = ConvertLayout(rgba, Layout::CMYK);
  EXPECT_EQ(cmyk.data, (Bytes{0, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0, 255}));
  // CMYK has no alpha, so it comes back opaque.
  EXPECT_EQ(ConvertLayout(cmyk, Layout::RGBA).data, (Bytes{255, 0, 0, 255, 255, 255, 255, 255, 0, 0, 0, 255}));
  EXPECT_EQ(LayoutForModel(Layout::RGBA, ColourModel::Gray), Layout::GrayAlpha);
  EXPECT_EQ(LayoutForModel(Layout::Gray, ColourModel::RGB), Layout::RGB);
  EXPECT_EQ(LayoutForModel(Layout::RGBA, ColourModel::CMYK), Layout::CMYK);
}

// A file type gets what it can hold: JPEG 8-bit RGB with a note, PNG no CMYK.
TEST(ToolConversions, FittingAFileTypeChangesOnlyWhatItCannotHold) {
  const Image rgba16 = test::NoiseImage(5, 5, Layout::RGBA, 16);
  EXPECT_TRUE(FitForFileType(rgba16, FileType::PNG).image == rgba16);
  EXPECT_EQ(FitForFileType(rgba16, FileType::PNG).note, "");
  const Fitted jpeg = FitForFileType(rgba16, FileType::JPEG);
  EXPECT_EQ(std::make_pair(jpeg.image.layout, jpeg.image.depth), std::make_pair(Layout::RGB, 8));
  EXPECT_NE(jpeg.note.find("8-bit RGB"), std::string::npos) << jpeg.note;
  EXPECT_EQ(FitForFileType(test::NoiseImage(5, 5, Layout::CMYK, 16), FileType::PNG).image.layout, Layout::RGB);
}

}  // namespace
}  // namespace rawfx::tool
