// The command-line tool: its parts that need no process (image files, conversions, colours, the progress bar),
// then the built tool run through the shell: every effect against the same effect run through the host, what each
// run says and its status with no file changed by a failure, a signal at any phase, the demo, metadata through
// every output type, the encoding options, and the memory a run needs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <zlib.h>

#include <cstring>
#include <exiv2/exiv2.hpp>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/progress.h"
#include "tools/rawfx/sample_image.h"

namespace rawfx::tool::test {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// A fresh directory under the system's temporary directory, removed at the end.
struct ScratchDir {
  const fs::path path{mkdtemp((fs::temp_directory_path() / "rawfx-tool-XXXXXX").string().data())};
  std::error_code ignored;  // a failure to remove it
  ~ScratchDir() { fs::remove_all(path, ignored); }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

// Noise with the extreme values 0 and max in the first samples, or (smooth) ramps,
// which survive JPEG compression with small errors. The generator is defined to the
// bit by the standard, so the data is the same on every machine.
Image TestImage(int64_t width, int64_t height, Layout layout, int depth, bool smooth = false, uint32_t seed = 1) {
  Image image = Image::Blank(width, height, layout, depth);
  std::minstd_rand random(seed);
  // Sample i is channel i % n of pixel i / n: a ramp of 3 a column, 2 a row and 40 a channel.
  for (size_t i = 0, n = size_t(image.channels()), w = size_t(width); i < image.sampleCount(); ++i)
    image.setSample(
        i, smooth ? uint32_t(i / n % w * 3 + i / n / w * 2 + i % n * 40) % 256 : random() % (image.maxSample() + 1));
  if (!smooth) image.setSample(0, 0), image.setSample(1, image.maxSample());
  return image;
}

double MeanAbsoluteDifference(const Image& a, const Image& b) {
  double sum = 0;
  for (size_t i = 0; i < a.sampleCount(); ++i) sum += std::abs(double(a.sample(i)) - double(b.sample(i)));
  return sum / static_cast<double>(a.sampleCount());
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
// A new file each time: ext4 flushes a file truncated and written again when it is closed.
void WriteBytes(const std::string& path, const std::string& bytes) { fs::remove(path), std::ofstream(path) << bytes; }

// A test's input written straight to its file, the type told by its name (the safe
// replacement of SaveImage would wait for the disk).
void Save(const Image& image, const std::string& path, const WriteOptions& options = {}) {
  WriteImage(image, path, *FileTypeFromExtension(path), options);
}

// A TIFF of the images as its pages, each in separate planes and/or 16 x 16 tiles, as
// other writers make them, else interleaved in one-row strips. Grey is stored with white as 0.
void WriteTiff(const std::string& path, const std::vector<Image>& pages, bool planes = false, bool tiles = false) {
  const int photometric[] = {PHOTOMETRIC_MINISWHITE, PHOTOMETRIC_MINISBLACK, PHOTOMETRIC_RGB, PHOTOMETRIC_RGB,
                             PHOTOMETRIC_SEPARATED};  // by layout
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const Image& image : pages) {
    const int64_t channels = image.channels(), bytes = image.depth / 8, samples = planes ? 1 : channels;
    const int64_t high = tiles ? 16 : 1, wide = tiles ? 16 : image.width, blockBytes = wide * high * samples * bytes;
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, image.depth);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, int(channels));
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric[int(image.layout)]);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, tiles ? TIFFTAG_TILEWIDTH : TIFFTAG_ROWSPERSTRIP, uint32_t(high));
    TIFFSetField(tiff, tiles ? TIFFTAG_TILELENGTH : TIFFTAG_ROWSPERSTRIP, uint32_t(high));
    const uint16_t associatedAlpha = EXTRASAMPLE_ASSOCALPHA;
    if (HasAlpha(image.layout)) TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &associatedAlpha);
    // Each sample to its place in its block, the blocks plane by plane in libtiff's
    // numbering, zero past the image's edge.
    const int64_t across = (image.width + wide - 1) / wide, down = (image.height + high - 1) / high;
    std::vector<uint8_t> blocks(size_t(channels / samples * down * across * blockBytes));
    for (int64_t y = 0; y < image.height; ++y)
      for (int64_t x = 0; x < image.width; ++x)
        for (int64_t c = 0; c < channels; ++c) {
          const int64_t block = (c / samples * down + y / high) * across + x / wide;
          std::memcpy(
              &blocks[size_t(block * blockBytes + ((y % high * wide + x % wide) * samples + c % samples) * bytes)],
              &image.data[size_t(((y * image.width + x) * channels + c) * bytes)], size_t(bytes));
        }
    for (uint8_t& byte : blocks) byte = image.layout == Layout::Gray ? uint8_t(~byte) : byte;  // max - sample
    for (uint32_t block = 0; block * blockBytes < int64_t(blocks.size()); ++block)
      (tiles ? TIFFWriteEncodedTile : TIFFWriteEncodedStrip)(tiff, block, &blocks[block * blockBytes], blockBytes);
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
}

// The exit status (128 + the signal's number when killed by one) and what the run wrote.
struct ToolResult {
  int status;
  std::string out, err;
};

// The tool run by the shell in the scratch directory with the words (split at spaces,
// each quoted for the shell). `how` ends in the executable, after what the run needs
// first (a directory, the environment, limits); redirections may follow it. Standard
// output and error go to .out and .err, removed when read.
const std::string kTool = "exec " RAWFX_TOOL_PATH;
ToolResult RunTool(const std::string& words, const ScratchDir& scratch, const std::string& how = kTool) {
  std::string line = "cd " + scratch.path.string() + " && exec < /dev/null > .out 2> .err && " + how;
  std::istringstream split(words);
  for (std::string word; split >> word;) line += " '" + word + "'";
  const int status = std::system(line.c_str());
  const ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadText(scratch / ".out"),
                          ReadText(scratch / ".err")};
  fs::remove(scratch / ".out"), fs::remove(scratch / ".err");
  return result;
}

// Everything in the scratch directory but a run's own output, each file with its size and
// the time it was last written.
std::string Snapshot(const ScratchDir& scratch) {
  return RunTool("", scratch,
                 "find . ! -name .out ! -name .err \\( -type f -printf '%p %s %T@\\n' -o -print \\) | sort")
      .out;
}

// A run of the tool: its words, its exit status, a fragment of what it says, and how it
// starts when not as the table's runs do.
struct Expected {
  std::string words;
  int status;
  std::string says, how = "";
};

// Runs each in turn. A failed run says why on one line "rawfx: ...", writes nothing
// to standard output, and leaves every file in scratch as it was and no new one.
void ExpectRuns(const ScratchDir& scratch, const std::vector<Expected>& runs, const std::string& tool = kTool) {
  for (const auto& [words, status, says, how] : runs) {
    SCOPED_TRACE(words);
    const auto before = Snapshot(scratch);
    const ToolResult run = RunTool(words, scratch, how.empty() ? tool : how);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_NE((run.out + run.err).find(says), std::string::npos) << run.out << run.err;
    if (status == 0) continue;
    EXPECT_TRUE(std::regex_match(run.err, std::regex("rawfx: [^\n]+\n"))) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(Snapshot(scratch), before) << "a failed run changed or left a file";
  }
}

// Why reading the file with a pixel limit fails (the ImageError's message), or "no error".
std::string ReadError(const std::string& path, uint64_t maxPixels = kDefaultMaxPixels) {
  try {
    ReadImage(path, {maxPixels});
  } catch (const ImageError& error) {
    return error.what();
  }
  return "no error";
}

// Every layout and depth each type holds (PNG no CMYK, JPEG 8 bits without alpha, TIFF
// everything, WebP 8-bit RGB and RGBA) comes back in the same layout: exactly but
// through lossy JPEG (smooth ramps come back close; CMYK ink amounts not inverted), and
// TIFF also as other writers make it, in planes, in tiles or both. One pixel more than
// the limit is refused before decoding, and so is every truncation, on one line naming
// the file.
TEST(ToolImageFiles, GiveThePixelsBackAndRefuseEveryTruncation) {
  ScratchDir scratch;
  const std::string cut = scratch / "cut";
  const char* cutReason[] = {"corrupt PNG: the file is truncated", "corrupt JPEG: Premature end of JPEG file",
                             "corrupt TIFF", "corrupt WebP: the file is truncated"};
  for (const FileType type : {FileType::PNG, FileType::JPEG, FileType::TIFF, FileType::WebP})
    for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK})
      for (const int depth : {8, 16}) {
        const bool jpeg = type == FileType::JPEG,
                   holds[] = {layout != Layout::CMYK, depth == 8 && !HasAlpha(layout), true,
                              depth == 8 && (layout == Layout::RGB || layout == Layout::RGBA)};
        if (!holds[int(type)]) continue;
        SCOPED_TRACE(std::string(FileTypeOption(type)) + " " + LayoutName(layout) + " " + std::to_string(depth));
        const Image original = TestImage(jpeg ? 32 : 13, jpeg ? 24 : 7, layout, depth, jpeg);
        const std::string path = scratch / (std::string("image.") + FileTypeOption(type));
        WriteOptions options;
        options.quality = 95, options.lossless = true;  // WebP lossless
        Save(original, path, options);
        const ImageFile read = ReadImage(path);
        ASSERT_EQ(std::tuple(read.type, read.image.layout, read.image.depth, read.image.width, read.image.height),
                  std::tuple(type, layout, depth, original.width, original.height));
        EXPECT_LE(MeanAbsoluteDifference(read.image, original), jpeg ? 3.0 : 0.0);
        const uint64_t pixels = uint64_t(original.width * original.height);
        EXPECT_NE(ReadError(path, pixels - 1).find("is more than the limit of " + std::to_string(pixels - 1)),
                  std::string::npos);
        EXPECT_EQ(ReadError(path, pixels), "no error");
        const std::string bytes = ReadText(path);
        // (A TIFF's last 4 bytes, the offset of a next page, are not needed to read it.)
        for (size_t length = 0; length < bytes.size() - (type == FileType::TIFF ? 4 : 0); length += 7) {
          WriteBytes(cut, bytes.substr(0, length));
          const std::string message = ReadError(cut);
          const bool twoThirds = length > bytes.size() * 2 / 3 && length <= bytes.size() * 2 / 3 + 7;
          const std::string reason = length == 0 ? "the file is empty" : twoThirds ? cutReason[int(type)] : "";
          EXPECT_TRUE(std::regex_match(message, std::regex("cannot read " + cut + ": [^\n]*" + reason + "[^\n]*")))
              << length << ": " << message;
        }
        for (const auto& [planes, tiles] : {std::pair{true, false}, {false, true}, {true, true}}) {
          if (type != FileType::TIFF) break;
          const Image larger = TestImage(21, 19, layout, depth);  // more than one tile
          WriteTiff(path, {larger}, planes, tiles);
          EXPECT_TRUE(ReadImage(path).image == larger) << "planes " << planes << ", tiles " << tiles;
        }
      }
}

// Depth goes up exactly and comes back rounded; colour models map the primaries and
// keep alpha where they have room for it. Each colour option as read ("rgb R G B A" or
// "cmyk C M Y K A"), or the reason it is refused. Then the progress bar's text.
TEST(ToolColoursAndProgress, ConvertBetweenModelsAndDepthsReadEveryNotationAndShowProgressToFit) {
  const Image eight = TestImage(17, 3, Layout::RGBA, 8), sixteen = ConvertDepth(eight, 16);
  Image odd = Image::Blank(1, 2, Layout::Gray, 16), rgba = Image::Blank(3, 1, Layout::RGBA, 8);
  odd.setSample(0, 257 * 10 + 128), odd.setSample(1, 257 * 10 + 129);  // 10.498 down, 10.502 up
  rgba.data = {255, 0, 0, 10, 255, 255, 255, 20, 0, 0, 0, 30};
  const Image cmyk = ConvertLayout(rgba, Layout::CMYK);
  EXPECT_EQ(std::pair(sixteen.sample(1), sixteen.sample(5)), std::pair(65535u, eight.sample(5) * 257));
  EXPECT_TRUE(ConvertDepth(sixteen, 8) == eight);
  EXPECT_EQ(ConvertDepth(odd, 8).data, (Bytes{10, 11}));
  EXPECT_EQ(ConvertLayout(rgba, Layout::GrayAlpha).data, (Bytes{76, 10, 255, 20, 0, 30}));  // red: 0.299 * 255
  EXPECT_EQ(cmyk.data, (Bytes{0, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0, 255}));
  EXPECT_EQ(ConvertLayout(cmyk, Layout::RGBA).data, (Bytes{255, 0, 0, 255, 255, 255, 255, 255, 0, 0, 0, 255}));
  EXPECT_EQ(LayoutForModel(Layout::Gray, ColourModel::RGB), Layout::RGB);
  const std::pair<const char*, const char*> cases[] = {{"#00000080", "rgb 0 0 0 128"},
                                                       {"#f0a8", "rgb 255 0 170 136"},
                                                       {" rgb(255, 0 ,10%, 50%) ", "rgb 255 0 26 128"},
                                                       {"Red", "rgb 255 0 0 255"},
                                                       {"RGBA(1,2,3,0.5)", "rgb 1 2 3 128"},
                                                       {"transparent", "rgb 0 0 0 0"},
                                                       {"cmyk(0,100%,255,12)", "cmyk 0 255 255 12 255"},
                                                       {"aliceblue", "rgb 240 248 255 255"},  // the first name
                                                       {"yellowgreen", "rgb 154 205 50 255"},
                                                       {"#12345g", "not hexadecimal"},
                                                       {"rgb(1,2)", "3 or 4 components"},
                                                       {"rgb(256,0,0)", "'256'"},
                                                       {"rgb(1.5,0,0)", "'1.5'"},
                                                       {"rgb(-1,0,0)", "'-1'"},
                                                       {"hsl(1,2,3)", "is not a colour"},
                                                       {"rgba(1,2,3,2)", "'2' is not an alpha"},
                                                       {"reddish", "is not a colour: use a name"}};
  for (const auto& [text, expected] : cases) {
    std::string got;
    if (const std::optional<ColourOption> c = ParseColour(text, &got)) {
      got = c->cmyk ? "cmyk" : "rgb";
      for (int i = 0; i < (c->cmyk ? 4 : 3); ++i) got += " " + std::to_string(c->parts[i]);
      got += " " + std::to_string(c->alpha);
    }
    EXPECT_NE(got.find(expected), std::string::npos) << text << " gave " << got;
  }
  // The progress text in a narrow terminal: the bar shrinks, then goes, then a long label loses its middle, a short
  // one its start. A bar draws only when enabled (the tool's runs, to files, have none).
  const std::tuple<const char*, int64_t, int64_t, double, int, const char*> bars[] = {
      {"oil paint", 60, 240, 1.25, 80, "oil paint [######..................]  25%  60/240 rows  1.2 s"},
      {"x", 240, 240, 0, 80, "x [########################] 100%  240/240 rows  0.0 s"},
      {"reading", 5, 0, 0, 80, "reading  0.0 s"},  // rows not known yet
      {"[2/3] b.png  polar", 1, 4, 0, 60, "[2/3] b.png  polar [####.............]  25%  1/4 rows  0.0 s"},
      {"[2/3] b.png  polar", 1, 4, 0, 40, "[2/3] b.png  polar  25%  1/4 rows  0.0 s"},
      {"[2/3] b.png  polar", 1, 4, 0, 30, "g  polar  25%  1/4 rows  0.0 s"},
      {"[12/20] holiday-photo-0042.png  oil paint", 1, 4, 0, 50, "[12/20] holi...ng  oil paint  25%  1/4 rows  0.0 s"}};
  for (const auto& [label, done, total, seconds, width, text] : bars)
    EXPECT_EQ(ProgressBar::Render(label, done, total, seconds, width), text);
  std::FILE* sink = std::tmpfile();
  ProgressBar(true, "x", sink).update(1, 2);
  EXPECT_GT(std::ftell(sink), 0);
  std::fclose(sink);
}

// A property value as the class's row types it; colours and masks are host objects made by the function.
using MakeObject = REALobject (*)(host::Host&);
using Settings = std::vector<std::pair<const char*, std::variant<bool, uint8_t, float, double, int64_t, MakeObject>>>;

const Image kMask = TestImage(23, 17, Layout::Gray, 8, false, 5);
REALobject NewMask(host::Host& host) { return host.NewMask(HostRef(host, NewBitmapFromImage(host, kMask)).get()); }

struct EffectCase {
  const char* name;   // as the test's name shows it
  std::string words;  // the command and its options; mask.png is kMask
  const char* className;
  Settings settings;                   // what the options set; every other property keeps a new object's value
  std::string sameAs = "--threads 1";  // a further option that must not change the result
  Image (*source)(const Image&) = [](const Image& file) { return file; };  // what the effect gets of the file
  friend void PrintTo(const EffectCase& effect, std::ostream* os) { *os << effect.name; }
};

// A property set to a plain value, or to the host object the function makes (released once set).
void Set(host::Host& host, REALobject object, const char* name, auto value) { host.Set(object, name, value); }
void Set(host::Host& host, REALobject object, const char* name, MakeObject make) {
  host.Set(object, name, HostRef(host, make(host)).get());
}

// The effect run through the host on the picture put in a bitmap here, away from the
// tool's files and their decoding straight into bitmaps.
Image Reference(const EffectCase& effect, const Image& file) {
  host::Host host;
  const HostRef object(host, host.New(effect.className)), source(host, NewBitmapFromImage(host, effect.source(file)));
  for (const auto& [name, value] : effect.settings)
    std::visit([&, &name = name](auto plain) { Set(host, object.get(), name, plain); }, value);
  const HostRef result(host, host.Call<REALobject, REALobject>(object.get(), kApply, source.get()));
  return result.get() ? ImageFromBitmap(host, result.get()) : Image{};
}

// Each effect with all its options, and a conversion of the source before it; then each
// with the tool's defaults, which must be a new object's (interlace and barrel with the one
// option that makes the others show), and on one thread.
const EffectCase kEffects[] = {
    {"interlace_odd_even_colour_mask",
     "interlace --horizontal odd --vertical even --keep-alpha --color #336699 --mask mask.png",
     "InterlaceEffectRaw",
     {{"HorizontalInterlaceType", int64_t{1}},
      {"VerticalInterlaceType", int64_t{2}},
      {"InterlaceAlphaChannel", false},
      {"BackColor", +[](host::Host& host) { return host.NewRGBColor(51, 102, 153); }},
      {"Mask", &NewMask}},
     "--in-place"},
    {"polar_to_rect_no_flip_colour_grey",
     "polar --to-rect --no-flip --color rgb(10,200,30,50%) --model gray",
     "PolarCoordinatesEffectRaw",
     {{"RectangularToPolar", false},
      {"FlipMapping", false},
      {"BackColor", +[](host::Host& host) { return host.NewRGBColor(10, 200, 30, 128); }}},
     "--async",
     [](const Image& file) { return ConvertLayout(file, HasAlpha(file.layout) ? Layout::GrayAlpha : Layout::Gray); }},
    {"barrel_keystones_nearest_cmyk_colour_16_bits",
     "barrel --distortion 0.4 --hkeystone 0.1 --vkeystone -0.05 --nearest --color cmyk(0,255,0,0) --depth 16",
     "BarrelDistortEffectRaw",
     {{"Distortion", 0.4},
      {"HorizontalKeystone", 0.1},
      {"VerticalKeystone", -0.05},
      {"Interpolate", false},
      {"BackColor", +[](host::Host& host) { return host.NewCMYKColor(0, 255, 0, 0); }}},
     "--async",
     [](const Image& file) { return ConvertDepth(file, 16); }},
    {"oilpaint_brush_smoothness_mask",
     "oilpaint --brush 3 --smoothness 0.5 --mask mask.png",
     "OilPaintEffectRaw",
     {{"BrushSize", uint8_t{3}}, {"Smoothness", 0.5f}, {"Mask", &NewMask}},
     "--threads 3"},
    {"interlace_defaults", "interlace --vertical odd", "InterlaceEffectRaw", {{"VerticalInterlaceType", int64_t{1}}}},
    {"polar_defaults", "polar", "PolarCoordinatesEffectRaw", {}},
    {"barrel_defaults", "barrel --distortion 0.4", "BarrelDistortEffectRaw", {{"Distortion", 0.4}}},
    {"oilpaint_defaults", "oilpaint", "OilPaintEffectRaw", {}},
};

class ToolEffectOnEveryFile : public testing::TestWithParam<EffectCase> {};

// One batch run takes a PNG, TIFF and JPEG file of every layout and depth each holds
// (oil paint: 8 bits only) to TIFF, which holds every result exactly; so does a run with
// the option that must not change the result (in place, asynchronously, any number of
// threads).
TEST_P(ToolEffectOnEveryFile, MatchesTheSameEffectRunThroughTheHost) {
  const EffectCase& effect = GetParam();
  ScratchDir scratch;
  Save(kMask, scratch / "mask.png");
  std::map<std::string, Image> expected;  // by input's name
  for (const std::string type : {"png", "tif", "jpg"})
    for (const int depth : {8, 16})
      for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}) {
        const bool refused = depth == 16 && effect.words.starts_with("oilpaint");
        if (refused || !FitsFileType(ImageShape{23, 17, layout, depth}, *FileTypeNamed(type))) continue;
        const std::string in = type + "-" + LayoutName(layout) + "-" + std::to_string(depth) + "." + type;
        Save(TestImage(23, 17, layout, depth), scratch / in);
        expected[in] = Reference(effect, ReadImage(scratch / in).image);
      }
  for (const std::string out : {"plain", "same"}) {
    std::string words =
        effect.words + (out == "same" ? " " + effect.sameAs : "") + " -q --format tiff --out-dir " + out;
    for (const auto& [in, image] : expected) words += " " + in;
    ASSERT_EQ(RunTool(words, scratch).status, 0) << words;
    for (const auto& [in, image] : expected)
      EXPECT_TRUE(ReadImage(scratch / (out + "/" + fs::path(in).stem().string() + ".tiff")).image == image)
          << in << out;
  }
}

INSTANTIATE_TEST_SUITE_P(Tool, ToolEffectOnEveryFile, testing::ValuesIn(kEffects), testing::PrintToStringParamName());

// The tool as installed: `cmake --install` into a prefix, the tree moved elsewhere
// (nothing may point back into the prefix or the build tree), with no usable temporary
// directory (TMPDIR names a file); the module is found beside the executable and loaded
// from its own file.
// Every run is in the scratch directory, which holds an RGB picture at 8 and 16 bits,
// a 10 x 10 mask, grey+alpha, CMYK, two pages, a wide picture for the demo, a text file,
// and outputs to replace: one only its owner may write, one nobody may, and a link
// dangling until written through.
TEST(ToolRuns, GiveTheirStatusAndMessageAndAFailureChangesNoFile) {
  ScratchDir scratch;
  const std::string install = "cmake --install " RAWFX_BINARY_DIR " --prefix " + scratch / "prefix" + " > /dev/null";
  ASSERT_EQ(std::system(install.c_str()), 0) << install;
  fs::rename(scratch / "prefix", scratch / "moved");
  const std::string module = scratch / "moved/lib/rawfx/rawfx.so", installed = scratch / "moved/bin/rawfx";
  const std::string tool = "exec env -u RAWFX_MODULE TMPDIR=notes.png " + installed;
  Save(TestImage(24, 16, Layout::RGB, 8), scratch / "rgb.png");
  Save(TestImage(24, 16, Layout::RGB, 16), scratch / "rgb16.png");
  Save(TestImage(10, 10, Layout::Gray, 8), scratch / "mask.png");
  Save(TestImage(300, 200, Layout::GrayAlpha, 16), scratch / "ga.png");
  Save(TestImage(5, 4, Layout::CMYK, 8), scratch / "ink.tif");
  Save(TestImage(500, 100, Layout::RGBA, 16), scratch / "mine.png");
  WriteTiff(scratch / "pages.tif", {TestImage(10, 5, Layout::Gray, 8), TestImage(6, 4, Layout::Gray, 8)});
  WriteBytes(scratch / "notes.png", "shopping list\n");
  const std::pair<const char*, fs::perms> modes[] = {{"private.png", fs::perms(0600)}, {"locked.png", fs::perms(0444)}};
  for (const auto& [name, mode] : modes) WriteBytes(scratch / name, "old"), fs::permissions(scratch / name, mode);
  fs::create_directory(scratch / "real");
  fs::create_symlink("real/target.png", scratch / "link.png");
  const std::string broken = "rawfx: installation error: cannot load module rgb.png";
  std::vector<Expected> runs = {
      // Runs that succeed; the first writes the output that no failure below may touch.
      {"oilpaint --depth 8 rgb16.png out.png", 0, ""},
      {"info ga.png", 0,
       "ga.png: PNG\n  size:      300 x 200 (0.06 megapixels)\n  channels:  2 (grey+alpha)\n  depth:   "
       "  16 bits per channel\n  alpha:     yes\n  loads as:  RGBA bitmap (format 5), 16 bits per "
       "channel, grey+alpha widened to RGBA\n"},
      {"info pages.tif", 0, "  pages:     2\n"},
      {"interlace pages.tif first.png", 0, "note: pages.tif has 2 pages; page 1 was used (choose one with --page)\n"},
      {"interlace -q --page 2 pages.tif second.png", 0, ""},
      {"barrel --model cmyk rgb.png cmyk.png", 0, "note: cmyk.png: PNG cannot hold 8-bit CMYK: written as 8-bit RGB"},
      {"polar rgb16.png fit.Jpeg", 0, "note: fit.Jpeg: JPEG cannot hold 16-bit RGB: written as 8-bit RGB"},
      {"polar --verbose --async --threads 2 ga.png v.png", 0,
       "rawfx: module " + module +
           "\nrawfx: reading ga.png\nrawfx: polar coordinates: ga.png, 300 x 200 RGBA, 16 bits, "
           "bitmap format RGBA, 2 threads\nrawfx: writing v.png\nrawfx: polar coordinates: ApplyAsync took "},
      {"polar --verbose ga.png v.png", 0, "megapixels/s; wrote v.png\nrawfx: phases: reading "},
      {"--help-all", 0, "--hkeystone"},
      {"demo --out demo --size 96 --input mine.png", 0, "wrote 24 results"},
      {"polar -q - - --format png", 0, "", tool + " < rgb.png > from-file.png"},
      {"polar - - --format png", 0, "", "cat rgb.png | " + tool + " > from-pipe.png"},
      {"polar rgb.png ink.tif --out-dir same", 0, "2 of 2 files written"},
      {"oilpaint -q rgb.png alone.TIFF", 0, ""},
      {"polar rgb.png private.png", 0, ""},
      {"polar rgb.png link.png", 0, ""},
      // Files that cannot be read or written: status 2, the file named.
      {"polar missing.png out.png", 2, "cannot read missing.png: No such file or directory"},
      {"info -", 2, "rawfx: cannot read standard input: not a PNG, JPEG, TIFF or WebP image\n", tool + " < /dev/zero"},
      {"info - --max-pixels 1000", 2, "standard input: more than 67128864 bytes, too many for an image within the pixel",
       "(cat rgb.png; head -c 80000000 /dev/zero) | " + tool},
      {"polar rgb.png /sys/out.png", 2, "cannot write /sys/out.png: cannot create a file in /sys"},  // even for root
      {"polar rgb.png no/such/dir/out.png", 2, "No such file or directory"},
      {"polar rgb.png locked.png", 2,
       "cannot write locked.png: the file is write-protected (mode 444); --force replaces it"},
      {"polar rgb.png out.bmp", 2, "the name must end in .png"},
      {"polar rgb.png dir.png/out", 2, "the name must end in .png"},
      {"polar rgb.png rgb.png", 2, "rgb.png is the input file; rawfx never overwrites what it reads"},
      {"oilpaint --mask mask.png rgb.png mask.png", 2, "is the mask file"},
      {"polar rgb.png out.png --suffix -x", 2, "--suffix needs --out-dir"},
      {"polar rgb.png rgb16.png out.png", 2, "give one INPUT and one OUTPUT, or INPUT... with --out-dir DIR (got 3"},
      {"polar rgb.png x/rgb.png --out-dir o", 2, "would both be written to o/rgb.png"},
      {"polar rgb.png rgb16.png --out-dir . --format png", 2, "is the input file rgb.png"},
      {"oilpaint --mask mask.png rgb.png out.png", 2, "is 10 x 10 but the input is 24 x 16"},
      // Output types and encodings that do not fit.
      {"polar rgb.png -", 2, "the output - is standard output: give its type with --format"},
      {"polar --format bmp rgb.png out.png", 2, "--format: 'bmp' is not a type rawfx writes"},
      {"polar --format webp rgb.png out.png", 2, "does not match the output name"},
      {"polar --lossless rgb.png out.jpg", 2, "JPEG is always lossy"},
      {"polar --page 2 rgb.png out.png", 2, "a PNG file has one page"},
      {"interlace --page 3 pages.tif out.png", 2, "the file has 2 pages"},
      {"polar --compress jpeg rgb.png out.tif", 2, "--compress: jpeg not in {none,deflate,lzw,zstd}"},
      // The effect refusing the bitmap: status 1.
      {"oilpaint rgb16.png out.png", 1, "oil paint works on 8-bit images; use --depth 8"},
      // Options out of range, malformed or unknown: status 2.
      {"oilpaint --brush 6 rgb.png out.png", 2, "--brush: 6 is outside [1 - 5] (see rawfx oilpaint --help)"},
      {"oilpaint --smoothness 0.02 rgb.png out.png", 2, "--smoothness: 0.02 is outside [0.04 - 1]"},
      {"barrel --distortion abc rgb.png out.png", 2, "--distortion: 'abc' is not a number"},
      {"barrel --hkeystone nan rgb.png out.png", 2, "--hkeystone: nan is outside [-1 - 1]"},
      {"interlace --horizontal sideways rgb.png out.png", 2, "--horizontal: sideways not in {none,odd,even}"},
      {"polar --colour #12345 rgb.png out.png", 2, "3, 4, 6 or 8 digits"},
      {"oilpaint --color red rgb.png out.png", 2, "unknown option --color for rawfx oilpaint"},  // no background
      {"blur rgb.png out.png", 2, "unknown command 'blur'"},
      // A module that does not load: status 3. One named explicitly wins over the installed one.
      {"polar --module rgb.png rgb.png b.png", 3, broken},
      {"demo --module rgb.png", 3, broken},
      {"polar rgb.png b.png", 3, broken, "exec env TMPDIR=notes.png RAWFX_MODULE=rgb.png " + installed},
      {"polar --force rgb.png locked.png", 0, ""},
  };
  for (const char* type : {"png", "jpeg", "tiff", "webp"})  // a full disk, found by each type's writer
    runs.push_back({"polar -q rgb.png - --format " + std::string(type), 2,
                    "rawfx: cannot write standard output: No space left on device\n", tool + " > /dev/full"});
  ExpectRuns(scratch, runs, tool);
  EXPECT_EQ(std::tuple(ReadImage(scratch / "first.png").image.width, ReadImage(scratch / "second.png").image.width,
                       ReadImage(scratch / "fit.Jpeg").type, ReadImage(scratch / "same/ink.tif").type),
            std::tuple(10, 6, FileType::JPEG, FileType::TIFF));
  // Standard input, a file or a pipe, standard output, a replaced output and a link written
  // through all give the same file; a replaced output keeps its mode, nothing is left beside
  // the link's target.
  for (const char* name : {"from-file.png", "from-pipe.png", "locked.png", "real/target.png"})
    EXPECT_EQ(ReadText(scratch / name), ReadText(scratch / "private.png")) << name;
  for (const auto& [name, mode] : modes)
    EXPECT_EQ(fs::status(scratch / name).permissions() & fs::perms::mask, mode) << name;
  EXPECT_TRUE(fs::is_symlink(scratch / "link.png"));
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch / "real"), {}), 1);
  // Many inputs into one folder: each result as if run alone, the run goes on after a
  // failed file, and one summary line ends it; the status is the worst file's.
  const ToolResult run = RunTool(
      "oilpaint --out-dir batch --suffix -oil --format tiff -q rgb.png rgb16.png notes.png ink.tif", scratch, tool);
  EXPECT_EQ(run.status, 2);
  const std::regex failuresAndSummary(
      "(rawfx: [^\n]+\n){2}rawfx: oil paint: 2 of 4 files written to batch; 2 failed: rgb16.png notes.png\n");
  EXPECT_TRUE(std::regex_match(run.err, failuresAndSummary)) << run.err;
  EXPECT_EQ(ReadText(scratch / "batch/rgb-oil.tiff"), ReadText(scratch / "alone.TIFF"));
  EXPECT_EQ(ReadImage(scratch / "batch/ink-oil.tiff").image.layout, Layout::CMYK);
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch / "batch"), {}), 2);
  // The demo: every result on the chart and on the given picture (halved to fit twice
  // --size), each shown on the page full size with the command that made it; a contact
  // sheet of the chart and its 12 results, four to a row; a mask that lets the effect
  // through in the centre only; and the same bytes on every run.
  EXPECT_EQ(RunTool("demo --out again --size 96 -q", scratch, tool).out, "");
  const std::string directory = scratch / "demo", page = ReadText(directory + "/index.html");
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name == "index.html" || name == "contact-sheet.png") continue;
    const Image image = ReadImage(entry.path()).image;
    const bool photo = name.starts_with("photo");
    EXPECT_EQ(std::pair(image.width, image.height), std::pair(photo ? int64_t{166} : 96, photo ? int64_t{33} : 72))
        << name;
    EXPECT_NE(page.find("<a href=\"" + name + "\"><img src=\"" + name + "\""), std::string::npos) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 30);  // pictures, page, sheet
  EXPECT_NE(page.find("rawfx oilpaint --brush 4 --mask mask.png sample.png oilpaint-masked.png"), std::string::npos);
  const Image sheet = ReadImage(directory + "/contact-sheet.png").image,
              mask = ReadImage(directory + "/mask.png").image;
  EXPECT_EQ(std::pair(sheet.width, sheet.height), std::pair(int64_t{8 + 4 * (96 + 8)}, int64_t{8 + 4 * (72 + 8)}));
  EXPECT_TRUE(mask.layout == Layout::Gray && mask.sample(36 * 96 + 48) == 0 && mask.sample(0) == 255);
  for (const char* name : {"/sample.png", "/oilpaint.png"})
    EXPECT_EQ(ReadText(scratch / "again" + name), ReadText(directory + name)) << name;
  const ToolResult bare = RunTool("", scratch, tool);
  EXPECT_TRUE(bare.status == 2 && bare.err.find("Subcommands:") != std::string::npos) << bare.err;
  fs::remove(module);
  ExpectRuns(scratch,
             {{"polar rgb.png b.png", 3, "installation error: the effects module is missing (looked for " + module}},
             tool);
}

// A signal at each phase of a run: the tool exits within a second with 128 + the
// signal, leaves no temporary file, and the output keeps its old content.
TEST(ToolSignals, EndARunAtAnyPhaseLeavingTheOldOutput) {
  ScratchDir scratch;
  Save(TestImage(1200, 900, Layout::RGBA, 16), scratch / "big.png");  // slow to read and to write
  Save(SampleImage(1200, 900), scratch / "paint.png");                // slow to oil-paint on one thread
  WriteBytes(scratch / "out.png", "old");
  const auto before = Snapshot(scratch);
  // The moment to signal: a --verbose line, or the temporary file's appearing.
  const std::tuple<int, const char*, const char*, std::string> cases[] = {
      {SIGINT, "SIGINT", "oilpaint --brush 5 --threads 1 -v paint.png out.png", "1 thread"},  // through the engine
      {SIGTERM, "SIGTERM", "interlace -v big.png out.png", "rawfx: reading"},
      {SIGHUP, "SIGHUP", "interlace -v big.png out.png", "\n.out.png.rawfx-"},
  };
  for (const auto& [signal, name, words, moment] : cases) {
    SCOPED_TRACE(std::string(name) + " at " + moment);
    const std::string pid = scratch / ".pid", starting = "echo $$ > " + pid + "; " + kTool;
    auto run = std::async(std::launch::async, [&, &words = words] { return RunTool(words, scratch, starting); });
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      std::string seen = ReadText(scratch / ".err");
      for (const fs::directory_entry& entry : fs::directory_iterator(scratch.path))
        seen += "\n" + entry.path().filename().string();
      if (seen.find(moment) != std::string::npos) break;
    }
    const auto sent = std::chrono::steady_clock::now();
    if (run.wait_for(std::chrono::seconds(0)) == std::future_status::timeout) kill(std::stoi(ReadText(pid)), signal);
    const ToolResult result = run.get();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
    EXPECT_EQ(result.status, 128 + signal) << result.err;
    EXPECT_TRUE(result.err.ends_with(std::string("interrupted by ") + name + "; nothing was written\n")) << result.err;
    fs::remove(pid);
    EXPECT_EQ(Snapshot(scratch), before);
  }
}

// What a file carries of the photo's metadata, as one line (a missing item is empty).
std::string Carried(const std::string& path) {
  const Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  Exiv2::ExifData& exif = image->exifData();
  return exif["Exif.Image.Orientation"].toString() + ";" + exif["Exif.Image.Artist"].toString() + ";" +
         exif["Exif.GPSInfo.GPSLatitudeRef"].toString() + ";" + image->xmpData()["Xmp.dc.rights"].toString() + ";" +
         image->iptcData()["Iptc.Application2.Keywords"].toString() + ";" +
         std::to_string(image->iccProfileDefined() ? image->iccProfile()->size_ : 0);
}

// The stored 8-bit RGB picture as it is viewed, by the EXIF definition of each orientation:
// upright (x, y) is stored at (y, x) when the sides are swapped (5 to 8), then mirrored.
Image Upright(const Image& stored, int orientation) {
  const bool swap = orientation >= 5, mirrorX = "01100011"[orientation - 1] == '1';
  const bool mirrorY = "00110110"[orientation - 1] == '1';
  auto upright = Image::Blank(swap ? stored.height : stored.width, swap ? stored.width : stored.height, Layout::RGB, 8);
  for (size_t i = 0; i < upright.sampleCount(); ++i) {
    const int64_t x = int64_t(i / 3) % upright.width, y = int64_t(i / 3) / upright.width;
    const int64_t sx = mirrorX ? stored.width - 1 - (swap ? y : x) : swap ? y : x;
    const int64_t sy = mirrorY ? stored.height - 1 - (swap ? x : y) : swap ? x : y;
    upright.setSample(i, stored.sample(size_t(sy * stored.width + sx) * 3 + i % 3));
  }
  return upright;
}

// Each orientation, read from a JPEG and from a PNG, is turned upright into each output
// type, which keeps the metadata (but WebP has no IPTC). Interlace with its defaults
// changes no pixel, so its output is the upright input: exact but through JPEG. Each
// type's encoding option makes it smaller.
TEST(ToolOutputs, KeepTheMetadataWithThePictureTurnedUprightAndFollowTheEncodingOptions) {
  ScratchDir scratch;
  const std::string kept = "1;A. Photographer;N;lang=\"x-default\" CC0;";
  for (int orientation = 1; orientation <= 8; ++orientation) {
    const std::string in = orientation <= 4 ? "in.jpg" : "in.png";
    const std::string type = std::vector<std::string>{"jpg", "png", "tif", "webp"}[(orientation - 1) % 4];
    // A camera picture with its orientation, a photographer's EXIF (300 dpi), XMP, IPTC and the header of an RGB
    // colour profile padded to its declared size (256 bytes, big-endian).
    Save(TestImage(30, 20, Layout::RGB, 8, true), scratch / in);
    const Exiv2::Image::AutoPtr photo = Exiv2::ImageFactory::open(scratch / in);
    Exiv2::ExifData& exif = photo->exifData();
    exif["Exif.Image.Orientation"] = std::to_string(orientation);
    exif["Exif.Image.Artist"] = "A. Photographer";
    exif["Exif.Image.XResolution"] = "300/1";
    exif["Exif.Image.YResolution"] = "300/1";
    exif["Exif.Image.ResolutionUnit"] = "2";
    exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
    photo->xmpData()["Xmp.dc.rights"] = "CC0";
    photo->iptcData()["Iptc.Application2.Keywords"] = "coffee";
    std::string icc(256, '\0');
    icc[2] = 1, icc.replace(16, 8, "RGB XYZ "), icc.replace(36, 4, "acsp");
    Exiv2::DataBuf profile(reinterpret_cast<const Exiv2::byte*>(icc.data()), long(icc.size()));
    photo->setIccProfile(profile);
    photo->writeMetadata();
    ExpectRuns(scratch, {{"interlace -q " + in + " out." + type + (type == "webp" ? " --lossless" : ""), 0, ""},
                         {"info out." + type, 0, "resolution: 300 x 300 dpi"}});
    const Image image = ReadImage(scratch / ("out." + type)).image,
                upright = Upright(ReadImage(scratch / in).image, orientation);
    ASSERT_EQ(std::pair(image.width, image.height), std::pair(upright.width, upright.height)) << orientation;
    EXPECT_LE(MeanAbsoluteDifference(image, upright), type == "jpg" ? 3.0 : 0.0) << orientation;
    EXPECT_EQ(Carried(scratch / ("out." + type)), kept + (type == "webp" ? ";256" : "coffee;256")) << orientation;
  }
  // --strip writes none of it; a grey output cannot carry an RGB profile, and says so.
  ExpectRuns(scratch,
             {{"interlace --strip in.png bare.png", 0, ""},
              {"interlace --model gray in.png grey.png", 0, "ICC profile is for RGB colour but the output holds grey"},
              {"info in.png", 0,
               "orientation: 8 (rotate 90 CCW to view)\n  ICC profile: 256 bytes, RGB colour\n  EXIF: 7 tags\n  "
               "XMP: 1 properties\n  IPTC: 1 datasets\n"}});
  EXPECT_EQ(Carried(scratch / "bare.png"), ";;;;;0");
  EXPECT_TRUE(ReadImage(scratch / "bare.png").image == Upright(ReadImage(scratch / "in.png").image, 8));
  EXPECT_EQ(RunTool("info bare.png", scratch).out.find("resolution"), std::string::npos);
  EXPECT_EQ(Carried(scratch / "grey.png"), kept + "coffee;0");
  // Each encoding option makes the file it applies to smaller.
  Save(TestImage(64, 48, Layout::RGB, 8, true), scratch / "ramp.png");
  const auto size = [&](const std::string& options) {
    EXPECT_EQ(RunTool("interlace -q ramp.png " + options, scratch).status, 0) << options;
    return fs::file_size(scratch / options.substr(options.rfind(' ') + 1));
  };
  EXPECT_LT(size("--level 9 9.png"), size("--level 0 0.png"));
  EXPECT_LT(size("--compress lzw lzw.tif"), size("--compress none none.tif"));
  EXPECT_LT(size("--quality 20 20.jpg"), size("--quality 95 95.jpg"));
  EXPECT_LT(size("--quality 20 20.webp"), size("--quality 95 95.webp"));
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
  const double bytes = 3000 * 2800 * 4;  // the large picture's pixels
  Save(TestImage(3000, 2800, Layout::RGBA, 8, true), scratch / "large.tif");
  Save(TestImage(8, 8, Layout::RGBA, 8, true), scratch / "tiny.tif");
  Save(Image::Blank(1, 1000001, Layout::Gray, 8), scratch / "tall.tif");
  for (const auto& [name, width, height, colourType] :
       {std::tuple{"wide.png", 2147483647u, 1u, 6}, {"side.png", 1000001u, 1u, 0}, {"huge.png", 40000u, 40000u, 6}})
    WriteBytes(scratch / name, PngHeader(width, height, char(colourType)));
  WriteBytes(scratch / "zeros.png", "");
  fs::resize_file(scratch / "zeros.png", 1 << 30);  // sparse: 1 GiB of zeros on no disk
  const std::string polar = "polar -q --threads 1 --compress none --max-pixels 2000000000 ";
  // One malloc arena, whose reservations would otherwise count as used.
  const auto room = [](double size) {
    return "ulimit -v " + std::to_string(uint64_t(size) >> 10) + "; MALLOC_ARENA_MAX=1 " + kTool;
  };
  double low = 4 << 20, tiny = double(uint64_t{4} << 30);  // tiny: the least room (to 4 MiB) a tiny run needs
  while (tiny - low > (4 << 20)) {
    const double middle = std::floor((low + tiny) / 2);
    (RunTool(polar + "tiny.tif out.tif", scratch, room(middle)).status == 0 ? tiny : low) = middle;
  }
  ExpectRuns(
      scratch,
      {{polar + "large.tif out.tif", 2, "memory", room(tiny + 0.5 * bytes)},  // too little for the source
       {polar + "large.tif out.tif", 2, "memory", room(tiny + 1.5 * bytes)},  // too little for the result
       {"info wide.png", 2, "2147483647 x 1 pixels: a PNG side longer than 1000000 pixels is refused", room(tiny)},
       {polar + "side.png out.tif", 2, "a PNG side longer than 1000000", room(tiny)},
       {polar + "huge.png out.tif", 2, "the host cannot make", room(tiny)},
       {"info zeros.png", 2, "not a PNG, JPEG, TIFF or WebP image", room(tiny)},
       {polar + "tall.tif o.png", 2, "PNG holds at most 1000000 pixels a side", room(tiny)},
       {polar + "large.tif out.tif", 0, "", room(tiny + 2.2 * bytes)}});
}

}  // namespace
}  // namespace rawfx::tool::test
