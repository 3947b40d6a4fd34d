// The tool's files run as a process: a photo's metadata kept through every output
// type with the picture turned upright, standard input and output, the encoding
// options, and a run's memory measured under a limited address space, where
// hostile headers are refused before memory is taken.
#include <zlib.h>

#include <exiv2/exiv2.hpp>

#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

// A camera picture with its orientation, a photographer's EXIF (300 dpi), XMP, IPTC
// and the header of an RGB colour profile padded to its declared size.
void MakePhoto(const std::string& path, const Image& stored, uint16_t orientation) {
  SaveImage(stored, path);
  Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  Exiv2::ExifData exif;
  exif["Exif.Image.Orientation"] = orientation;
  exif["Exif.Image.Artist"] = "A. Photographer";
  exif["Exif.Image.XResolution"] = Exiv2::URational(300, 1);
  exif["Exif.Image.YResolution"] = Exiv2::URational(300, 1);
  exif["Exif.Image.ResolutionUnit"] = uint16_t{2};
  exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
  Exiv2::XmpData xmp;
  xmp["Xmp.dc.rights"] = "CC0";
  Exiv2::IptcData iptc;
  iptc["Iptc.Application2.Keywords"] = "coffee";
  std::string icc(256, '\0');
  icc[2] = 1;  // 256 bytes, big-endian
  icc.replace(16, 8, "RGB XYZ "), icc.replace(36, 4, "acsp");
  image->setExifData(exif), image->setXmpData(xmp), image->setIptcData(iptc);
  Exiv2::DataBuf profile(reinterpret_cast<const Exiv2::byte*>(icc.data()), long(icc.size()));
  image->setIccProfile(profile);
  image->writeMetadata();
}

// What a file carries of the photo's metadata, as one line.
std::string Carried(const std::string& path) {
  Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  std::string carried;
  const auto add = [&](auto& data, const auto& key) {
    const auto found = data.findKey(key);
    carried += (found == data.end() ? std::string("-") : found->toString()) + ";";
  };
  for (const char* key : {"Exif.Image.Orientation", "Exif.Image.Artist", "Exif.GPSInfo.GPSLatitudeRef"})
    add(image->exifData(), Exiv2::ExifKey(key));
  add(image->xmpData(), Exiv2::XmpKey("Xmp.dc.rights"));
  add(image->iptcData(), Exiv2::IptcKey("Iptc.Application2.Keywords"));
  return carried + std::to_string(image->iccProfileDefined() ? image->iccProfile()->size_ : 0);
}

// The stored picture as it is viewed, by the EXIF definition of each orientation:
// upright (x, y) is stored at (y, x) when the sides are swapped (5 to 8), then mirrored.
Image Upright(const Image& stored, int orientation) {
  const bool swap = orientation >= 5, mirrorX = "01100011"[orientation - 1] == '1';
  const bool mirrorY = "00110110"[orientation - 1] == '1';
  Image upright = Image::Blank(swap ? stored.height : stored.width, swap ? stored.width : stored.height, stored.layout, 8);
  const int channels = stored.channels();
  for (int64_t y = 0; y < upright.height; ++y)
    for (int64_t x = 0; x < upright.width; ++x) {
      const int64_t sx = swap ? y : x, sy = swap ? x : y;
      std::copy_n(stored.row(mirrorY ? stored.height - 1 - sy : sy) + (mirrorX ? stored.width - 1 - sx : sx) * channels,
                  channels, upright.row(y) + x * channels);
    }
  return upright;
}

// Interlace with its defaults changes no pixel, so its output is the upright input.
TEST(ToolMetadata, IsKeptInEveryOutputTypeWithThePictureTurnedUpright) {
  ScratchDir scratch;
  const Image stored = TestImage(7, 4, Layout::RGB, 8);
  for (uint16_t orientation = 1; orientation <= 8; ++orientation) {
    MakePhoto(scratch / "in.png", stored, orientation);
    ASSERT_EQ(RunTool({"interlace", scratch / "in.png", scratch / "out.png"}, scratch).status, 0);
    EXPECT_TRUE(ReadImage(scratch / "out.png").image == Upright(stored, orientation)) << orientation;
  }
  const std::string in = scratch / "phone.jpg", all = "1;A. Photographer;N;lang=\"x-default\" CC0;coffee;256";
  MakePhoto(in, TestImage(30, 20, Layout::RGB, 8, true), 6);
  const Image upright = Upright(ReadImage(in).image, 6);
  for (const auto& [name, carried, error] : {std::tuple{"out.jpg", all, 3.0}, {"out.png", all, 0.0}, {"out.tif", all, 0.0},
                                             {"out.webp", "1;A. Photographer;N;lang=\"x-default\" CC0;-;256", 0.0}}) {
    const std::string out = scratch / name;
    ExpectRuns(scratch, {{{"interlace", out.ends_with("webp") ? "--lossless" : "-q", "-q", in, out}, 0, ""},
                         {{"info", out}, 0, "resolution: 300 x 300 dpi"}});
    const Image image = ReadImage(out).image;
    ASSERT_EQ(std::pair(image.width, image.height), std::pair(upright.width, upright.height));
    EXPECT_LE(MeanAbsoluteDifference(image, upright), error) << name;
    EXPECT_EQ(Carried(out), carried);
  }
  // --strip writes none of it; a grey output cannot carry an RGB profile, and says so.
  ExpectRuns(scratch, {
      {{"interlace", "--strip", in, scratch / "bare.png"}, 0, ""},
      {{"interlace", "--model", "gray", in, scratch / "grey.png"}, 0, "ICC profile is for RGB colour but the output holds grey pixels"},
      {{"info", in}, 0, "orientation: 6 (rotate 90 CW to view)\n  ICC profile: 256 bytes, RGB colour\n  EXIF: 7 tags\n  "
                        "XMP: 1 properties\n  IPTC: 1 datasets\n"},
  });
  EXPECT_EQ(Carried(scratch / "bare.png"), "-;-;-;-;-;0");
  EXPECT_TRUE(ReadImage(scratch / "bare.png").image == ReadImage(scratch / "out.png").image);
  EXPECT_EQ(RunTool({"info", scratch / "bare.png"}, scratch).out.find("resolution"), std::string::npos);
  EXPECT_EQ(Carried(scratch / "grey.png"), "1;A. Photographer;N;lang=\"x-default\" CC0;coffee;0");
}

// Standard input (a pipe, or a file) and standard output give what files give.
TEST(ToolStreams, GiveWhatFilesGive) {
  ScratchDir scratch;
  const std::string a = scratch / "a.png";
  SaveImage(TestImage(31, 17, Layout::RGBA, 8), a);
  ASSERT_EQ(RunTool({"polar", a, scratch / "c.png"}, scratch).status, 0);
  EXPECT_EQ(RunTool({"polar", "-q", "-", "-", "--format", "png"}, scratch, StdIn(a)).out, ReadText(scratch / "c.png"));
  const std::string line = "cat " + a + " | " RAWFX_TOOL_PATH " polar - - --format png > " + scratch / "b.png";
  ASSERT_EQ(std::system(line.c_str()), 0) << line;
  EXPECT_EQ(ReadText(scratch / "b.png"), ReadText(scratch / "c.png"));
}

// Each encoding option makes the file it applies to smaller.
TEST(ToolFormats, EncodingOptionsDoWhatTheySay) {
  ScratchDir scratch;
  SaveImage(TestImage(64, 48, Layout::RGB, 8, true), scratch / "ramp.png");
  const auto size = [&](const std::string& option, const std::string& value, const std::string& name) {
    EXPECT_EQ(RunTool({"interlace", option, value, "-q", scratch / "ramp.png", scratch / name}, scratch).status, 0) << name;
    return fs::file_size(scratch / name);
  };
  EXPECT_LT(size("--level", "9", "9.png"), size("--level", "0", "0.png"));
  EXPECT_LT(size("--compress", "lzw", "lzw.tif"), size("--compress", "none", "none.tif"));
  EXPECT_LT(size("--quality", "20", "20.jpg"), size("--quality", "95", "95.jpg"));
  EXPECT_LT(size("--quality", "20", "20.webp"), size("--quality", "95", "95.webp"));
}

// A PNG with nothing but its header (and an empty IDAT), declaring any size.
std::string PngHeader(uint32_t width, uint32_t height, char colourType) {
  const auto word = [](uint32_t value) { return std::string{char(value >> 24), char(value >> 16), char(value >> 8), char(value)}; };
  const auto chunk = [&](const std::string& body) {
    return word(uint32_t(body.size() - 4)) + body + word(crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size())));
  };
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR" + word(width) + word(height) + std::string{8, colourType, 0, 0, 0}) + chunk("IDAT") +
         chunk("IEND");
}

// Peak memory is the source and the result plus 10 %: measured as the address space a
// large run needs beyond what a tiny run of the same command needs. With less, or with
// hostile headers in the tiny run's room, a run fails cleanly.
TEST(ToolMemory, ARunNeedsTheSourceAndTheResultAndFailsCleanlyWithLess) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory does not fit in a limited address space";
#endif
  ScratchDir scratch;
  // Large enough that polar takes no ray table (kept to pictures of about 8 megapixels).
  const Image large = TestImage(3000, 2800, Layout::RGBA, 8, true);
  const double bytes = double(large.data.size());
  SaveImage(TestImage(8, 8, Layout::RGBA, 8, true), scratch / "tiny.tif");
  WriteOptions uncompressed;
  uncompressed.compression = TiffCompression::None;
  WriteImage(large, scratch / "large.tif", FileType::TIFF, uncompressed);
  WriteBytes(scratch / "wide.png", PngHeader(2147483647, 1, 6));
  WriteBytes(scratch / "side.png", PngHeader(1000001, 1, 0));
  WriteBytes(scratch / "huge.png", PngHeader(40000, 40000, 6));
  SaveImage(Image::Blank(1, 1000001, Layout::Gray, 8), scratch / "tall.tif");
  WriteBytes(scratch / "zeros.png", "");
  fs::resize_file(scratch / "zeros.png", 1 << 30);  // sparse: 1 GiB of zeros on no disk
  const auto polar = [&](const std::string& input, const std::string& more = "-q") {
    return Words{"polar", more, "--threads", "1", "--compress", "none", scratch / input, scratch / "out.tif"};
  };
  // One malloc arena, whose reservations would otherwise count as used.
  const auto room = [](double size) {
    Launch launch;
    launch.environment = {"MALLOC_ARENA_MAX=1"}, launch.addressSpace = uint64_t(size);
    return launch;
  };
  uint64_t low = 4 << 20, base = uint64_t{4} << 30;  // the smallest address space (to 4 MiB) a tiny run needs
  while (base - low > (4 << 20)) {
    const uint64_t middle = (low + base) / 2;
    (RunTool(polar("tiny.tif"), scratch, room(double(middle))).status == 0 ? base : low) = middle;
  }
  const double tiny = double(base);
  ExpectRuns(scratch, {
      {polar("large.tif"), 2, "memory", room(tiny + 0.5 * bytes)},  // too little for the source
      {polar("large.tif"), 2, "memory", room(tiny + 1.5 * bytes)},  // too little for the result
      {{"info", scratch / "wide.png"}, 2, "2147483647 x 1 pixels: a PNG side longer than 1000000 pixels is refused", room(tiny)},
      {polar("side.png"), 2, "a PNG side longer than 1000000", room(tiny)},
      {polar("huge.png", "--max-pixels=2000000000"), 2, "the host cannot make", room(tiny)},
      {{"info", scratch / "zeros.png"}, 2, "not a PNG, JPEG, TIFF or WebP image", room(tiny)},
      {{"polar", "--threads", "1", scratch / "tall.tif", scratch / "o.png"}, 2, "PNG holds at most 1000000 pixels a side", room(tiny)},
      {polar("large.tif"), 0, "", room(tiny + 2.2 * bytes)},
  });
}

}  // namespace
}  // namespace rawfx::tool::test
