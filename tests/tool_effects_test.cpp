// The tool run as a process on small PNG, JPEG and TIFF files of every layout it
// reads, each output checked against the same effect run through the host here:
// a bitmap filled by this test, properties set by name, the method called by its
// declaration. Also the options that choose how the class is driven.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <variant>

#include "host/host.h"
#include "tool_test_support.h"
#include "tools/rawfx/image_convert.h"

namespace rawfx::tool {
namespace {

using test::RunTool;
using test::ScratchDir;
using test::ToolResult;
using Words = std::vector<std::string>;

struct Rgb { uint8_t r, g, b, a = 255; };
struct Cmyk { uint8_t c, m, y, k; };
// A property value as the class's row types it; colours and masks (given as the
// mask's image) are made as host objects.
using Value = std::variant<bool, uint8_t, float, double, int64_t, Rgb, Cmyk, const Image*>;
using Settings = std::vector<std::pair<const char*, Value>>;
template <class... F> struct Overloaded : F... { using F::operator()...; };

// Each layout goes into the host format that holds it in file order. Grey+alpha
// has no format of its own: RGBA with the grey in all three colours.
Layout HeldAs(Layout layout) { return layout == Layout::GrayAlpha ? Layout::RGBA : layout; }

REALobject Upload(host::Host& host, const Image& image) {
  const Image held = ConvertLayout(image, HeldAs(image.layout));
  const std::map<Layout, int64_t> formats = {
      {Layout::Gray, 0}, {Layout::RGB, 3}, {Layout::RGBA, 5}, {Layout::CMYK, 13}};
  REALobject bitmap = host.NewBitmap(held.width, held.height, formats.at(held.layout), held.depth);
  for (int64_t y = 0; y < held.height; ++y) std::memcpy(host.Bitmap(bitmap).row(y), held.row(y), held.rowBytes());
  return bitmap;
}

// The effect run through the host without the tool's bridge; the result comes in the source's format.
Image Reference(const char* className, const Settings& settings, const Image& input) {
  host::Host host;
  REALobject effect = host.New(className);
  for (const auto& [name, value] : settings) {
    REALobject object = std::visit(
        Overloaded{[&](Rgb c) { return host.NewRGBColor(c.r, c.g, c.b, c.a); },
                   [&](Cmyk c) { return host.NewCMYKColor(c.c, c.m, c.y, c.k); },
                   [&](const Image* mask) {
                     REALobject bitmap = Upload(host, *mask), maskObject = host.NewMask(bitmap);
                     host.Unlock(bitmap);
                     return maskObject;
                   },
                   [&](auto plain) {
                     host.Set(effect, name, plain);
                     return REALobject{};
                   }},
        value);
    if (!object) continue;
    host.Set(effect, name, object);
    host.Unlock(object);
  }
  REALobject source = Upload(host, input);
  REALobject result = host.Call<REALobject, REALobject>(effect, "Apply(source as RawBitmap) as RawBitmap", source);
  EXPECT_NE(result, nullptr) << className << " error " << host.LastError(effect);
  Image output;
  if (result) {
    const host::BitmapView view = host.Bitmap(result);
    output = Image::Blank(view.width, view.height, HeldAs(input.layout), view.bitsPerChannel);
    for (int64_t y = 0; y < output.height; ++y) std::memcpy(output.row(y), view.row(y), output.rowBytes());
    host.Unlock(result);
  }
  host.Unlock(effect);
  host.Unlock(source);
  return output;
}

// Runs the tool on the file in; its output as read back, or an empty image when it fails.
Image RunOn(const ScratchDir& scratch, Words words, const std::string& in, const std::string& out) {
  words.insert(words.end(), {"--quiet", in, out});
  const ToolResult run = RunTool(words, scratch);
  EXPECT_EQ(run.status, 0) << testing::PrintToString(words) << run.err;
  EXPECT_EQ(run.err, "");
  return run.status == 0 ? ReadImage(out).image : Image{};
}

const Image kMask = test::NoiseImage(23, 17, Layout::Gray, 8, 5);

struct EffectCase {
  Words words;                // the command and its options; "MASK" stands for kMask's file
  std::vector<Words> sameAs;  // further options that must not change the result
  const char* className;
  Settings settings;
};

const EffectCase kEffects[] = {
    {{"interlace", "--horizontal", "odd", "--vertical", "even", "--color", "#336699"}, {{"--in-place"}},
     "InterlaceEffectRaw",
     {{"HorizontalInterlaceType", int64_t{1}}, {"VerticalInterlaceType", int64_t{2}},
      {"BackColor", Rgb{51, 102, 153}}}},
    {{"interlace", "--horizontal", "even", "--keep-alpha", "--mask", "MASK"}, {{"--in-place"}}, "InterlaceEffectRaw",
     {{"HorizontalInterlaceType", int64_t{2}}, {"InterlaceAlphaChannel", false}, {"Mask", &kMask}}},
    {{"polar", "--no-flip", "--color", "rgb(10,200,30,50%)"}, {{"--async"}}, "PolarCoordinatesEffectRaw",
     {{"FlipMapping", false}, {"BackColor", Rgb{10, 200, 30, 128}}}},
    {{"polar", "--to-rect"}, {{"--async"}}, "PolarCoordinatesEffectRaw", {{"RectangularToPolar", false}}},
    {{"barrel", "--distortion", "0.4", "--hkeystone", "0.1", "--vkeystone", "-0.05", "--color", "cmyk(0,255,0,0)"},
     {{"--async"}}, "BarrelDistortEffectRaw",
     {{"Distortion", 0.4}, {"HorizontalKeystone", 0.1}, {"VerticalKeystone", -0.05},
      {"BackColor", Cmyk{0, 255, 0, 0}}}},
    {{"barrel", "--distortion", "-0.3", "--nearest"}, {{"--async"}}, "BarrelDistortEffectRaw",
     {{"Distortion", -0.3}, {"Interpolate", false}}},
    {{"oilpaint", "--brush", "3", "--smoothness", "0.5"}, {{"--threads", "1"}, {"--threads", "3"}},
     "OilPaintEffectRaw", {{"BrushSize", uint8_t{3}}, {"Smoothness", 0.5f}}},
    {{"oilpaint", "--mask", "MASK"}, {}, "OilPaintEffectRaw", {{"Mask", &kMask}}},
};

using RunCase = std::tuple<const EffectCase*, FileType, Layout, int>;

// Every effect on every layout and depth each file type holds (oil paint: 8 bits only).
std::vector<RunCase> AllRunCases() {
  const std::vector<Layout> png = {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA};
  const std::vector<Layout> tiff = {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK};
  const std::vector<Layout> jpeg = {Layout::Gray, Layout::RGB, Layout::CMYK};
  std::vector<RunCase> runs;
  for (const EffectCase& effect : kEffects)
    for (const auto& [type, layouts, deepest] :
         {std::tuple{FileType::PNG, png, 16}, {FileType::TIFF, tiff, 16}, {FileType::JPEG, jpeg, 8}})
      for (int depth = 8; depth <= (effect.words[0] == "oilpaint" ? 8 : deepest); depth += 8)
        for (const Layout layout : layouts) runs.emplace_back(&effect, type, layout, depth);
  return runs;
}

class ToolEffectOnFile : public testing::TestWithParam<RunCase> {};

// The result is the host's; on RGBA PNGs also in place, asynchronously or on any number of threads.
TEST_P(ToolEffectOnFile, MatchesTheSameEffectRunThroughTheHost) {
  const auto [effect, type, layout, depth] = GetParam();
  ScratchDir scratch;
  const std::string in = scratch / (type == FileType::PNG ? "in.png" : type == FileType::JPEG ? "in.jpg" : "in.tif");
  SaveImage(test::NoiseImage(23, 17, layout, depth), in);
  SaveImage(kMask, scratch / "mask.png");
  const Image expected = Reference(effect->className, effect->settings, ReadImage(in).image);
  std::vector<Words> runs = {effect->words};
  for (const Words& extra : type == FileType::PNG && layout == Layout::RGBA ? effect->sameAs : std::vector<Words>{}) {
    runs.push_back(effect->words);
    runs.back().insert(runs.back().end(), extra.begin(), extra.end());
  }
  for (Words words : runs) {
    std::replace(words.begin(), words.end(), std::string("MASK"), scratch / "mask.png");
    // PNG has no CMYK: CMYK results go to TIFF so that the comparison is exact.
    EXPECT_TRUE(RunOn(scratch, words, in, scratch / (layout == Layout::CMYK ? "out.tif" : "out.png")) == expected)
        << testing::PrintToString(words) << " on " << depth << "-bit " << LayoutName(layout) << " " << in;
  }
}

INSTANTIATE_TEST_SUITE_P(ToolEveryFile, ToolEffectOnFile, testing::ValuesIn(AllRunCases()));

TEST(ToolOptions, DepthModelAndOutputTypeConvertTheResultAndVerboseReportsIt) {
  ScratchDir scratch;
  const std::string in = scratch / "in.png", out = scratch / "out.png", jpeg = scratch / "out.jpg";
  const Image input = test::NoiseImage(12, 8, Layout::RGB, 8);
  SaveImage(input, in);
  EXPECT_TRUE(RunOn(scratch, {"barrel", "--depth", "16", "--distortion", "0.2"}, in, out) ==
              Reference("BarrelDistortEffectRaw", {{"Distortion", 0.2}}, ConvertDepth(input, 16)));
  EXPECT_TRUE(RunOn(scratch, {"polar", "--model", "gray"}, in, out) ==
              Reference("PolarCoordinatesEffectRaw", {}, ConvertLayout(input, Layout::Gray)));
  // CMYK work cannot go into a PNG: it is written as RGB, with a note.
  const ToolResult run = RunTool({"barrel", "--model", "cmyk", in, out}, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("note: " + out + ": PNG cannot hold 8-bit CMYK: written as 8-bit RGB"), std::string::npos)
      << run.err;
  EXPECT_EQ(ReadImage(out).image.layout, Layout::RGB);
  // A JPEG result is close to the exact one.
  SaveImage(test::RampImage(40, 30, Layout::RGB), in);
  const Image exact = RunOn(scratch, {"barrel", "--distortion", "0.2"}, in, out);
  ASSERT_EQ(RunTool({"barrel", "--distortion", "0.2", "--quality", "98", in, jpeg}, scratch).status, 0);
  EXPECT_EQ(ReadImage(jpeg).type, FileType::JPEG);
  EXPECT_LT(test::MeanAbsoluteDifference(ReadImage(jpeg).image, exact), 3.0);
  // --verbose reports size, threads, time and speed.
  SaveImage(test::NoiseImage(30, 20, Layout::RGBA, 16), in);
  const ToolResult verbose = RunTool({"polar", "--verbose", "--threads", "2", "--async", in, out}, scratch);
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  for (const std::string& part : {std::string("30 x 20 RGBA, 16 bits, bitmap format RGBA, 2 threads"),
                                  std::string("ApplyAsync took"), "megapixels/s; wrote " + out})
    EXPECT_NE(verbose.err.find(part), std::string::npos) << verbose.err;
}

}  // namespace
}  // namespace rawfx::tool
