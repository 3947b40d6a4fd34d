// The tool's file layer run as a process: a phone photo's metadata kept through
// every output type with the picture turned upright, standard input and output,
// hostile headers refused before memory is taken, and a run's memory measured
// under a limited address space.
#include <gtest/gtest.h>
#include <tiffio.h>
#include <zlib.h>

#include <exiv2/exiv2.hpp>

#include <functional>

#include "tool_test_support.h"

namespace rawfx::tool {
namespace {

using test::RunTool;
using test::ScratchDir;
using test::ToolResult;

// A well-formed header of an RGB colour profile, padded to its declared size.
std::string RgbProfile() {
  std::string profile(256, '\0');
  profile[2] = 1;  // 256 bytes, big-endian
  profile.replace(16, 4, "RGB ");
  profile.replace(20, 4, "XYZ ");
  profile.replace(36, 4, "acsp");
  return profile;
}

// A camera picture stored on its side (orientation 6: turn 90 degrees clockwise to view).
void MakePhonePhoto(const std::string& path, const Image& stored) {
  SaveImage(stored, path);
  Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  Exiv2::ExifData exif;
  exif["Exif.Image.Orientation"] = uint16_t{6};
  exif["Exif.Image.Artist"] = "A. Photographer";
  exif["Exif.Image.XResolution"] = Exiv2::URational(300, 1);
  exif["Exif.Image.YResolution"] = Exiv2::URational(300, 1);
  exif["Exif.Image.ResolutionUnit"] = uint16_t{2};
  exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
  Exiv2::XmpData xmp;
  xmp["Xmp.dc.rights"] = "CC0";
  Exiv2::IptcData iptc;
  iptc["Iptc.Application2.Keywords"] = "coffee";
  const std::string icc = RgbProfile();
  Exiv2::DataBuf profile(reinterpret_cast<const Exiv2::byte*>(icc.data()), static_cast<long>(icc.size()));
  image->setExifData(exif);
  image->setXmpData(xmp);
  image->setIptcData(iptc);
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
  add(image->exifData(), Exiv2::ExifKey("Exif.Image.Orientation"));
  add(image->exifData(), Exiv2::ExifKey("Exif.Image.Artist"));
  add(image->exifData(), Exiv2::ExifKey("Exif.GPSInfo.GPSLatitudeRef"));
  add(image->xmpData(), Exiv2::XmpKey("Xmp.dc.rights"));
  add(image->iptcData(), Exiv2::IptcKey("Iptc.Application2.Keywords"));
  return carried + std::to_string(image->iccProfileDefined() ? image->iccProfile()->size_ : 0);
}

// The stored picture as it is viewed, by the EXIF definition of each orientation:
// where upright pixel (x, y) is stored, in a stored picture w x h.
Image Upright(const Image& stored, int orientation) {
  const int64_t w = stored.width, h = stored.height;
  const std::function<std::pair<int64_t, int64_t>(int64_t, int64_t)> where[] = {
      [](int64_t x, int64_t y) { return std::pair{x, y}; },
      [&](int64_t x, int64_t y) { return std::pair{w - 1 - x, y}; },
      [&](int64_t x, int64_t y) { return std::pair{w - 1 - x, h - 1 - y}; },
      [&](int64_t x, int64_t y) { return std::pair{x, h - 1 - y}; },
      [](int64_t x, int64_t y) { return std::pair{y, x}; },
      [&](int64_t x, int64_t y) { return std::pair{y, h - 1 - x}; },
      [&](int64_t x, int64_t y) { return std::pair{w - 1 - y, h - 1 - x}; },
      [&](int64_t x, int64_t y) { return std::pair{w - 1 - y, x}; },
  };
  const bool turned = orientation >= 5;
  Image upright = Image::Blank(turned ? h : w, turned ? w : h, stored.layout, stored.depth);
  const int channels = stored.channels();
  for (int64_t y = 0; y < upright.height; ++y)
    for (int64_t x = 0; x < upright.width; ++x) {
      const auto [sx, sy] = where[orientation - 1](x, y);
      std::copy_n(stored.row(sy) + sx * channels, channels, upright.row(y) + x * channels);
    }
  return upright;
}

// Every orientation is undone exactly (interlace with its defaults changes no pixel).
TEST(ToolMetadata, EveryOrientationIsTurnedUpright) {
  ScratchDir scratch;
  const Image stored = test::NoiseImage(7, 4, Layout::RGB, 8);
  for (int orientation = 1; orientation <= 8; ++orientation) {
    SaveImage(stored, scratch / "in.png");
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(scratch / "in.png");
    Exiv2::ExifData exif;
    exif["Exif.Image.Orientation"] = uint16_t(orientation);
    image->setExifData(exif);
    image->writeMetadata();
    ASSERT_EQ(RunTool({"interlace", scratch / "in.png", scratch / "out.png"}, scratch).status, 0);
    EXPECT_TRUE(ReadImage(scratch / "out.png").image == Upright(stored, orientation)) << orientation;
  }
}

TEST(ToolMetadata, IsKeptInEveryOutputTypeWithThePictureTurnedUpright) {
  ScratchDir scratch;
  const std::string in = scratch / "phone.jpg";
  MakePhonePhoto(in, test::RampImage(30, 20, Layout::RGB));
  const Image upright = Upright(ReadImage(in).image, 6);
  const std::string all = "1;A. Photographer;N;lang=\"x-default\" CC0;coffee;256", noIptc = "1;A. Photographer;N;lang=\"x-default\" CC0;-;256";
  // Interlace with its defaults changes no pixel, so the output is the upright input.
  for (const auto& [name, carried, error] : {std::tuple{"out.jpg", all, 3.0}, {"out.png", all, 0.0},
                                             {"out.tif", all, 0.0}, {"out.webp", noIptc, 0.0}}) {
    SCOPED_TRACE(name);
    const bool webp = std::string(name) == "out.webp";
    const ToolResult run = RunTool({"interlace", webp ? "--lossless" : "-q", "-q", in, scratch / name}, scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    const Image out = ReadImage(scratch / name).image;
    ASSERT_EQ(std::make_pair(out.width, out.height), std::make_pair(int64_t{20}, int64_t{30}));
    EXPECT_LE(test::MeanAbsoluteDifference(out, upright), error);
    EXPECT_EQ(Carried(scratch / name), carried);
    EXPECT_NE(RunTool({"info", scratch / name}, scratch).out.find("resolution: 300 x 300 dpi"), std::string::npos);
  }
  // --strip writes none of it; a grey output cannot carry an RGB profile, and says so.
  ASSERT_EQ(RunTool({"interlace", "--strip", in, scratch / "bare.png"}, scratch).status, 0);
  EXPECT_EQ(Carried(scratch / "bare.png"), "-;-;-;-;-;0");
  EXPECT_EQ(RunTool({"info", scratch / "bare.png"}, scratch).out.find("resolution"), std::string::npos);
  EXPECT_TRUE(ReadImage(scratch / "bare.png").image == ReadImage(scratch / "out.png").image);
  const ToolResult grey = RunTool({"interlace", "--model", "gray", in, scratch / "grey.png"}, scratch);
  EXPECT_NE(grey.err.find("ICC profile is for RGB colour but the output holds grey pixels"), std::string::npos)
      << grey.err;
  EXPECT_EQ(Carried(scratch / "grey.png"), "1;A. Photographer;N;lang=\"x-default\" CC0;coffee;0");
  const ToolResult info = RunTool({"info", in}, scratch);
  for (const char* line : {"orientation: 6 (rotate 90 CW to view)", "ICC profile: 256 bytes, RGB colour", "XMP: 1",
                           "IPTC: 1"})
    EXPECT_NE(info.out.find(line), std::string::npos) << info.out;
}

TEST(ToolPipes, StandardInputAndOutputGiveWhatFilesGive) {
  ScratchDir scratch;
  const std::string a = scratch / "a.png";
  SaveImage(test::NoiseImage(31, 17, Layout::RGBA, 8), a);
  ASSERT_EQ(RunTool({"polar", a, scratch / "c.png"}, scratch).status, 0);
  const std::string tool = RAWFX_TOOL_PATH;
  for (const std::string& line : {"cat " + a + " | " + tool + " polar - - --format png > " + scratch / "b.png",
                                  tool + " polar -q - - --format png < " + a + " > " + scratch / "b.png"}) {
    ASSERT_EQ(std::system(line.c_str()), 0) << line;
    EXPECT_EQ(test::ReadText(scratch / "b.png"), test::ReadText(scratch / "c.png")) << line;
  }
  // A full disk gives the system's reason, and a stream that is no image is refused from its first bytes.
  EXPECT_EQ(WEXITSTATUS(std::system((tool + " polar -q " + a + " - --format tiff > /dev/full 2> " + scratch / "err")
                                        .c_str())),
            2);
  EXPECT_EQ(test::ReadText(scratch / "err"), "rawfx: cannot write standard output: No space left on device\n");
  EXPECT_EQ(WEXITSTATUS(std::system((tool + " info - < /dev/zero 2> " + scratch / "err").c_str())), 2);
  EXPECT_EQ(test::ReadText(scratch / "err"), "rawfx: cannot read standard input: not a PNG, JPEG, TIFF or WebP image\n");
}

TEST(ToolFormats, PagesAndEncodingOptionsDoWhatTheySay) {
  ScratchDir scratch;
  const std::string pages = scratch / "pages.tif";
  TIFF* tiff = TIFFOpen(pages.c_str(), "w");
  for (const Image& page : {test::NoiseImage(10, 5, Layout::Gray, 8), test::NoiseImage(6, 4, Layout::Gray, 8)}) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(page.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(page.height));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    for (int64_t y = 0; y < page.height; ++y) TIFFWriteScanline(tiff, const_cast<uint8_t*>(page.row(y)), uint32_t(y));
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
  const ToolResult first = RunTool({"interlace", pages, scratch / "first.png"}, scratch);
  EXPECT_EQ(first.err, "rawfx: note: " + pages + " has 2 pages; page 1 was used (choose one with --page)\n");
  EXPECT_EQ(ReadImage(scratch / "first.png").image.width, 10);
  ASSERT_EQ(RunTool({"interlace", "-q", "--page", "2", pages, scratch / "second.png"}, scratch).status, 0);
  EXPECT_EQ(ReadImage(scratch / "second.png").image.width, 6);
  EXPECT_NE(RunTool({"interlace", "--page", "3", pages, scratch / "third.png"}, scratch).err.find("the file has 2 pages"),
            std::string::npos);
  EXPECT_NE(RunTool({"info", pages}, scratch).out.find("  pages:     2\n"), std::string::npos);

  // Each encoding option changes the file it applies to (smaller, or lossless and larger).
  const std::string in = scratch / "ramp.png";
  SaveImage(test::RampImage(64, 48, Layout::RGB), in);
  const auto size = [&](std::vector<std::string> words, const std::string& name) {
    words.insert(words.begin(), "interlace");
    words.insert(words.end(), {"-q", in, scratch / name});
    EXPECT_EQ(RunTool(words, scratch).status, 0) << name;
    return std::filesystem::file_size(scratch / name);
  };
  EXPECT_LT(size({"--level", "9"}, "9.png"), size({"--level", "0"}, "0.png"));
  EXPECT_LT(size({"--compress", "lzw"}, "lzw.tif"), size({"--compress", "none"}, "none.tif"));
  EXPECT_LT(size({"--quality", "20"}, "20.jpg"), size({"--quality", "95"}, "95.jpg"));
  EXPECT_LT(size({"--quality", "20"}, "20.webp"), size({"--quality", "95"}, "95.webp"));
  size({"--lossless"}, "lossless.webp");
  EXPECT_TRUE(ReadImage(scratch / "lossless.webp").image == ReadImage(in).image);
}

// A PNG with nothing but its header (and an empty IDAT), declaring any size.
std::string PngHeader(uint32_t width, uint32_t height, uint8_t colourType) {
  const auto chunk = [](const std::string& type, const std::string& data) {
    std::string bytes;
    for (const uint32_t word : {uint32_t(data.size())})
      for (int shift = 24; shift >= 0; shift -= 8) bytes += char(word >> shift);
    const std::string body = type + data;
    bytes += body;
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size()));
    for (int shift = 24; shift >= 0; shift -= 8) bytes += char(crc >> shift);
    return bytes;
  };
  std::string header;
  for (const uint32_t word : {width, height})
    for (int shift = 24; shift >= 0; shift -= 8) header += char(word >> shift);
  header += std::string{8, char(colourType), 0, 0, 0};
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR", header) + chunk("IDAT", "") + chunk("IEND", "");
}

// The tool run by the shell with its address space limited to `bytes` (ulimit -v) and
// one malloc arena, whose reservations would otherwise count as used.
ToolResult RunLimited(const std::vector<std::string>& words, const ScratchDir& scratch, uint64_t bytes) {
  const std::string err = scratch / ".limited-stderr";
  std::string line = "ulimit -v " + std::to_string(bytes >> 10) + "; MALLOC_ARENA_MAX=1 exec " RAWFX_TOOL_PATH;
  for (const std::string& word : words) line += " '" + word + "'";
  const int status = std::system((line + " < /dev/null > /dev/null 2> " + err).c_str());
  ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), "", test::ReadText(err)};
  std::filesystem::remove(err);
  return result;
}

// The smallest address space (to 4 MiB) in which the run succeeds.
uint64_t SmallestAddressSpace(const std::vector<std::string>& words, const ScratchDir& scratch) {
  uint64_t low = 4 << 20, high = uint64_t{4} << 30;
  while (high - low > (4 << 20)) {
    const uint64_t middle = (low + high) / 2;
    (RunLimited(words, scratch, middle).status == 0 ? high : low) = middle;
  }
  return high;
}

// Peak memory is the source and the result plus 10 %: measured as the address space a
// large run needs beyond what a tiny run of the same command needs.
TEST(ToolMemory, ARunNeedsTheSourceAndTheResultAndFailsCleanlyWithLess) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory does not fit in a limited address space";
#endif
  ScratchDir scratch;
  const Image large = test::RampImage(3000, 2800, Layout::RGBA);
  const size_t bytes = large.data.size();
  SaveImage(test::RampImage(8, 8, Layout::RGBA), scratch / "tiny.tif");
  WriteOptions uncompressed;
  uncompressed.compression = TiffCompression::None;
  WriteImage(large, scratch / "large.tif", FileType::TIFF, uncompressed);
  const auto polar = [&](const char* input) {
    return std::vector<std::string>{"polar", "-q", "--threads", "1", "--compress", "none", scratch / input,
                                    scratch / "out.tif"};
  };
  const uint64_t base = SmallestAddressSpace(polar("tiny.tif"), scratch);
  const ToolResult fits = RunLimited(polar("large.tif"), scratch, base + uint64_t(2.2 * double(bytes)));
  EXPECT_EQ(fits.status, 0) << fits.err;
  std::filesystem::remove(scratch / "out.tif");
  // Too little for the source, then too little for the result: one line, status 2, no file.
  for (const double share : {0.5, 1.5}) {
    const ToolResult starved = RunLimited(polar("large.tif"), scratch, base + uint64_t(share * double(bytes)));
    EXPECT_EQ(starved.status, 2) << share;
    EXPECT_TRUE(starved.err.find("memory") != std::string::npos && starved.err.find('\n') == starved.err.size() - 1)
        << starved.err;
    EXPECT_EQ(scratch.names(), (std::set<std::string>{"large.tif", "tiny.tif"}));
  }

  // Hostile headers are refused before anything is allocated for them, in the tiny run's room.
  test::WriteBytes(scratch / "wide.png", PngHeader(2147483647, 1, 6));
  test::WriteBytes(scratch / "side.png", PngHeader(1000001, 1, 0));
  test::WriteBytes(scratch / "huge.png", PngHeader(40000, 40000, 6));
  SaveImage(Image::Blank(1, 1000001, Layout::Gray, 8), scratch / "tall.tif");
  test::WriteBytes(scratch / "zeros.png", "");
  std::filesystem::resize_file(scratch / "zeros.png", 1 << 30);  // sparse: 1 GiB of zeros on no disk
  for (const auto& [words, message] : std::initializer_list<std::pair<std::vector<std::string>, std::string>>{
           {{"info", scratch / "wide.png"}, "2147483647 x 1 pixels: a PNG side longer than 1000000 pixels is refused"},
           {{"polar", "--threads", "1", scratch / "side.png", scratch / "o.png"}, "a PNG side longer than 1000000"},
           {{"polar", "--threads", "1", "--max-pixels", "2000000000", scratch / "huge.png", scratch / "o.png"}, "the host cannot make"},
           {{"info", scratch / "zeros.png"}, "not a PNG, JPEG, TIFF or WebP image"},
           {{"polar", "--threads", "1", scratch / "tall.tif", scratch / "o.png"}, "PNG holds at most 1000000 pixels a side"}}) {
    const ToolResult refused = RunLimited(words, scratch, base);
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find(message), std::string::npos) << refused.err;
  }
}

}  // namespace
}  // namespace rawfx::tool
