// The tool's files run as a process: a photo's metadata kept through every output type
// with the picture turned upright, the encoding options, and a run's memory measured
// under a limited address space, where hostile headers are refused before memory is taken.
#include <zlib.h>

#include <exiv2/exiv2.hpp>

#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

// A camera picture with its orientation, a photographer's EXIF (300 dpi), XMP, IPTC and
// the header of an RGB colour profile padded to its declared size (256 bytes, big-endian).
void MakePhoto(const std::string& path, const Image& stored, int orientation) {
  Save(stored, path);
  const Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  Exiv2::ExifData exif;
  for (const auto& [key, value] : std::map<std::string, std::string>{
           {"Image.Orientation", std::to_string(orientation)}, {"Image.Artist", "A. Photographer"},
           {"Image.XResolution", "300/1"}, {"Image.YResolution", "300/1"}, {"Image.ResolutionUnit", "2"},
           {"GPSInfo.GPSLatitudeRef", "N"}})
    exif["Exif." + key] = value;
  Exiv2::XmpData xmp;
  xmp["Xmp.dc.rights"] = "CC0";
  Exiv2::IptcData iptc;
  iptc["Iptc.Application2.Keywords"] = "coffee";
  std::string icc(256, '\0');
  icc[2] = 1, icc.replace(16, 8, "RGB XYZ "), icc.replace(36, 4, "acsp");
  Exiv2::DataBuf profile(reinterpret_cast<const Exiv2::byte*>(icc.data()), long(icc.size()));
  image->setExifData(exif), image->setXmpData(xmp), image->setIptcData(iptc), image->setIccProfile(profile);
  image->writeMetadata();
}

// What a file carries of the photo's metadata, as one line.
std::string Carried(const std::string& path) {
  const Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  std::map<std::string, std::string> found;
  const auto collect = [&](const auto& data) {
    for (const auto& datum : data) found[datum.key()] = datum.toString();
  };
  collect(image->exifData()), collect(image->xmpData()), collect(image->iptcData());
  std::string carried;
  for (const std::string key : {"Exif.Image.Orientation", "Exif.Image.Artist", "Exif.GPSInfo.GPSLatitudeRef",
                                "Xmp.dc.rights", "Iptc.Application2.Keywords"})
    carried += (found.contains(key) ? found[key] : "-") + ";";
  return carried + std::to_string(image->iccProfileDefined() ? image->iccProfile()->size_ : 0);
}

// The stored 8-bit picture as it is viewed, by the EXIF definition of each orientation:
// upright (x, y) is stored at (y, x) when the sides are swapped (5 to 8), then mirrored.
Image Upright(const Image& stored, int orientation) {
  const bool swap = orientation >= 5, mirrorX = "01100011"[orientation - 1] == '1';
  const bool mirrorY = "00110110"[orientation - 1] == '1';
  Image upright = Image::Blank(swap ? stored.height : stored.width, swap ? stored.width : stored.height, stored.layout, 8);
  const int channels = stored.channels();
  for (int64_t y = 0; y < upright.height; ++y)
    for (int64_t x = 0; x < upright.width; ++x) {
      const int64_t sx = swap ? y : x, sy = swap ? x : y, from = mirrorX ? stored.width - 1 - sx : sx;
      std::copy_n(stored.row(mirrorY ? stored.height - 1 - sy : sy) + from * channels, channels, upright.row(y) + x * channels);
    }
  return upright;
}

// Each orientation, read from a JPEG and from a PNG, is turned upright into each output
// type, which keeps the metadata (but WebP has no IPTC). Interlace with its defaults
// changes no pixel, so its output is the upright input: exact but through JPEG.
TEST(ToolMetadata, IsKeptInEveryOutputTypeWithThePictureTurnedUpright) {
  ScratchDir scratch;
  const std::string kept = "1;A. Photographer;N;lang=\"x-default\" CC0;";
  for (int orientation = 1; orientation <= 8; ++orientation) {
    const std::string in = scratch / (orientation <= 4 ? "in.jpg" : "in.png");
    const std::string type = std::vector<std::string>{"jpg", "png", "tif", "webp"}[(orientation - 1) % 4];
    const std::string out = scratch / ("out." + type);
    MakePhoto(in, TestImage(30, 20, Layout::RGB, 8, true), orientation);
    ExpectRuns(scratch, {{{"interlace", type == "webp" ? "--lossless" : "-q", "-q", in, out}, 0, ""},
                         {{"info", out}, 0, "resolution: 300 x 300 dpi"}});
    const Image image = ReadImage(out).image, upright = Upright(ReadImage(in).image, orientation);
    ASSERT_EQ(std::pair(image.width, image.height), std::pair(upright.width, upright.height)) << orientation;
    EXPECT_LE(MeanAbsoluteDifference(image, upright), type == "jpg" ? 3.0 : 0.0) << orientation;
    EXPECT_EQ(Carried(out), kept + (type == "webp" ? "-;256" : "coffee;256")) << orientation;
  }
  // --strip writes none of it; a grey output cannot carry an RGB profile, and says so.
  const std::string in = scratch / "in.png";
  ExpectRuns(scratch, {
      {{"interlace", "--strip", in, scratch / "bare.png"}, 0, ""},
      {{"interlace", "--model", "gray", in, scratch / "grey.png"}, 0, "ICC profile is for RGB colour but the output holds grey"},
      {{"info", in}, 0, "orientation: 8 (rotate 90 CCW to view)\n  ICC profile: 256 bytes, RGB colour\n  EXIF: 7 tags\n  "
                        "XMP: 1 properties\n  IPTC: 1 datasets\n"},
  });
  EXPECT_EQ(Carried(scratch / "bare.png"), "-;-;-;-;-;0");
  EXPECT_TRUE(ReadImage(scratch / "bare.png").image == Upright(ReadImage(in).image, 8));
  EXPECT_EQ(RunTool({"info", scratch / "bare.png"}, scratch).out.find("resolution"), std::string::npos);
  EXPECT_EQ(Carried(scratch / "grey.png"), kept + "coffee;0");
}

// Each encoding option makes the file it applies to smaller.
TEST(ToolFormats, EncodingOptionsDoWhatTheySay) {
  ScratchDir scratch;
  Save(TestImage(64, 48, Layout::RGB, 8, true), scratch / "ramp.png");
  const auto size = [&](const std::string& option, const std::string& value, const std::string& name) {
    EXPECT_EQ(RunTool({"interlace", option, value, "-q", scratch / "ramp.png", scratch / name}, scratch).status, 0);
    return fs::file_size(scratch / name);
  };
  EXPECT_LT(size("--level", "9", "9.png"), size("--level", "0", "0.png"));
  EXPECT_LT(size("--compress", "lzw", "lzw.tif"), size("--compress", "none", "none.tif"));
  EXPECT_LT(size("--quality", "20", "20.jpg"), size("--quality", "95", "95.jpg"));
  EXPECT_LT(size("--quality", "20", "20.webp"), size("--quality", "95", "95.webp"));
}

// A PNG with nothing but its header (and an empty IDAT), declaring any size.
std::string PngHeader(uint32_t width, uint32_t height, char colourType) {
  const auto word = [](uint32_t n) { return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)}; };
  const auto chunk = [&](const std::string& body) {
    const auto crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size()));
    return word(uint32_t(body.size() - 4)) + body + word(uint32_t(crc));
  };
  const std::string header = "IHDR" + word(width) + word(height) + std::string{8, colourType, 0, 0, 0};
  return "\x89PNG\r\n\x1a\n" + chunk(header) + chunk("IDAT") + chunk("IEND");
}

// Peak memory is the source and the result plus 10 %: measured as the address space a
// large run needs beyond what a tiny run of the same command needs. With less, or with
// hostile headers in the tiny run's room, a run fails cleanly.
TEST(ToolMemory, ARunNeedsTheSourceAndTheResultAndFailsCleanlyWithLess) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory does not fit in a limited address space";
#endif
  ScratchDir scratch;
  const Image large = TestImage(3000, 2800, Layout::RGBA, 8, true);
  const double bytes = double(large.data.size());
  Save(large, scratch / "large.tif");
  Save(TestImage(8, 8, Layout::RGBA, 8, true), scratch / "tiny.tif");
  Save(Image::Blank(1, 1000001, Layout::Gray, 8), scratch / "tall.tif");
  WriteBytes(scratch / "wide.png", PngHeader(2147483647, 1, 6));
  WriteBytes(scratch / "side.png", PngHeader(1000001, 1, 0));
  WriteBytes(scratch / "huge.png", PngHeader(40000, 40000, 6));
  WriteBytes(scratch / "zeros.png", "");
  fs::resize_file(scratch / "zeros.png", 1 << 30);  // sparse: 1 GiB of zeros on no disk
  const auto polar = [&](const std::string& input, const std::string& output = "out.tif") {
    return Words{"polar", "-q", "--threads", "1", "--compress", "none", "--max-pixels", "2000000000", scratch / input,
                 scratch / output};
  };
  // One malloc arena, whose reservations would otherwise count as used.
  const auto room = [](double size) {
    return "ulimit -v " + std::to_string(uint64_t(size) >> 10) + "; MALLOC_ARENA_MAX=1 " + kTool;
  };
  double low = 4 << 20, tiny = double(uint64_t{4} << 30);  // tiny: the least room (to 4 MiB) a tiny run needs
  while (tiny - low > (4 << 20)) {
    const double middle = std::floor((low + tiny) / 2);
    (RunTool(polar("tiny.tif"), scratch, room(middle)).status == 0 ? tiny : low) = middle;
  }
  ExpectRuns(scratch, {
      {polar("large.tif"), 2, "memory", room(tiny + 0.5 * bytes)},  // too little for the source
      {polar("large.tif"), 2, "memory", room(tiny + 1.5 * bytes)},  // too little for the result
      {{"info", scratch / "wide.png"}, 2, "2147483647 x 1 pixels: a PNG side longer than 1000000 pixels is refused",
       room(tiny)},
      {polar("side.png"), 2, "a PNG side longer than 1000000", room(tiny)},
      {polar("huge.png"), 2, "the host cannot make", room(tiny)},
      {{"info", scratch / "zeros.png"}, 2, "not a PNG, JPEG, TIFF or WebP image", room(tiny)},
      {polar("tall.tif", "o.png"), 2, "PNG holds at most 1000000 pixels a side", room(tiny)},
      {polar("large.tif"), 0, "", room(tiny + 2.2 * bytes)},
  });
}

}  // namespace
}  // namespace rawfx::tool::test
