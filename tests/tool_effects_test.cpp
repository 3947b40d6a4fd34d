// The tool run as a process on small PNG, JPEG and TIFF files of every layout it
// reads, each output checked against the same effect run through the host here:
// a bitmap filled by this test, properties set by name, the method called by its
// declaration.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "host/host.h"
#include "tool_test_support.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/image_io.h"

namespace rawfx::tool {
namespace {

using test::RunTool;
using test::ScratchDir;
using test::ToolResult;
using Words = std::vector<std::string>;
using Configure = std::function<void(host::Host&, REALobject effect)>;

// The host run the tool's output must match, built without the tool's bridge.
class Reference {
 public:
  Image Run(const char* className, const Configure& configure, const Image& input) {
    REALobject source = Upload(input);
    REALobject effect = host_.New(className);
    configure(host_, effect);
    REALobject result =
        host_.Call<REALobject, REALobject>(effect, "Apply(source as RawBitmap) as RawBitmap", source);
    EXPECT_NE(result, nullptr) << className << " error " << host_.LastError(effect);
    Image output;
    if (result) {
      const host::BitmapView view = host_.Bitmap(result);  // in the source's format
      output = Image::Blank(view.width, view.height, HeldAs(input.layout), view.bitsPerChannel);
      for (int64_t y = 0; y < output.height; ++y) std::memcpy(output.row(y), view.row(y), output.rowBytes());
      host_.Unlock(result);
    }
    host_.Unlock(effect);
    host_.Unlock(source);
    return output;
  }

  // Each layout goes into the host format that holds it in file order. Grey+alpha
  // has no format of its own: RGBA with the grey in all three colours.
  static Layout HeldAs(Layout layout) { return layout == Layout::GrayAlpha ? Layout::RGBA : layout; }

  REALobject Upload(const Image& image) {
    const Image held = ConvertLayout(image, HeldAs(image.layout));
    const int64_t format = held.layout == Layout::Gray ? 0 : held.layout == Layout::RGB ? 3
                           : held.layout == Layout::CMYK ? 13 : 5;
    REALobject bitmap = host_.NewBitmap(held.width, held.height, format, held.depth);
    const host::BitmapView view = host_.Bitmap(bitmap);
    for (int64_t y = 0; y < held.height; ++y) std::memcpy(view.row(y), held.row(y), held.rowBytes());
    return bitmap;
  }

 private:
  host::Host host_;
};

void SetColour(host::Host& host, REALobject effect, REALobject colour) {
  host.Set(effect, "BackColor", colour);
  host.Unlock(colour);
}

struct EffectCase {
  const char* name;
  Words words;  // the command and its options
  const char* className;
  Configure configure;
  bool sixteenBit;
};

const std::vector<EffectCase>& EffectCases() {
  static const std::vector<EffectCase> cases = {
      {"interlace",
       {"interlace", "--horizontal", "odd", "--vertical", "even", "--color", "#336699"},
       "InterlaceEffectRaw",
       [](host::Host& host, REALobject effect) {
         host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
         host.Set<int64_t>(effect, "VerticalInterlaceType", 2);
         SetColour(host, effect, host.NewRGBColor(0x33, 0x66, 0x99));
       },
       true},
      {"interlace_keep_alpha",
       {"interlace", "--horizontal", "odd", "--keep-alpha"},
       "InterlaceEffectRaw",
       [](host::Host& host, REALobject effect) {
         host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
         host.Set(effect, "InterlaceAlphaChannel", false);
       },
       true},
      {"polar",
       {"polar", "--no-flip", "--color", "rgb(10,200,30,50%)"},
       "PolarCoordinatesEffectRaw",
       [](host::Host& host, REALobject effect) {
         host.Set(effect, "FlipMapping", false);
         SetColour(host, effect, host.NewRGBColor(10, 200, 30, 128));
       },
       true},
      {"barrel",
       {"barrel", "--distortion", "0.4", "--hkeystone", "0.1", "--vkeystone", "-0.05", "--color", "cmyk(0,255,0,0)"},
       "BarrelDistortEffectRaw",
       [](host::Host& host, REALobject effect) {
         host.Set(effect, "Distortion", 0.4);
         host.Set(effect, "HorizontalKeystone", 0.1);
         host.Set(effect, "VerticalKeystone", -0.05);
         SetColour(host, effect, host.NewCMYKColor(0, 255, 0, 0));
       },
       true},
      {"oilpaint",
       {"oilpaint", "--brush", "3", "--smoothness", "0.5"},
       "OilPaintEffectRaw",
       [](host::Host& host, REALobject effect) {
         host.Set<uint8_t>(effect, "BrushSize", 3);
         host.Set(effect, "Smoothness", 0.5f);
       },
       false},
  };
  return cases;
}

struct FileCase {
  FileType type;
  Layout layout;
  int depth;
};

using RunCase = std::tuple<size_t, FileCase>;

// Every effect on every layout and depth each file type holds (oil paint: 8 bits only).
std::vector<RunCase> AllRunCases() {
  std::vector<RunCase> runs;
  const auto add = [&](FileType type, std::initializer_list<Layout> layouts, std::initializer_list<int> depths) {
    for (size_t e = 0; e < EffectCases().size(); ++e)
      for (const int depth : depths)
        for (const Layout layout : layouts)
          if (depth == 8 || EffectCases()[e].sixteenBit) runs.emplace_back(e, FileCase{type, layout, depth});
  };
  add(FileType::PNG, {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA}, {8, 16});
  add(FileType::TIFF, {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}, {8, 16});
  add(FileType::JPEG, {Layout::Gray, Layout::RGB, Layout::CMYK}, {8});
  return runs;
}

class ToolEffectOnFile : public testing::TestWithParam<RunCase> {};

TEST_P(ToolEffectOnFile, MatchesTheSameEffectRunThroughTheHost) {
  const EffectCase& effect = EffectCases()[std::get<0>(GetParam())];
  const FileCase file = std::get<1>(GetParam());
  ScratchDir scratch;
  const char* extension = file.type == FileType::PNG ? ".png" : file.type == FileType::JPEG ? ".jpg" : ".tif";
  const std::string input = scratch / (std::string("in") + extension);
  // PNG has no CMYK: CMYK results go to TIFF so that the comparison is exact.
  const std::string output = scratch / (file.layout == Layout::CMYK ? "out.tif" : "out.png");
  SaveImage(test::NoiseImage(23, 17, file.layout, file.depth), input);

  Words words = effect.words;
  words.insert(words.end(), {"--quiet", input, output});
  const ToolResult run = RunTool(words, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const Image expected = Reference().Run(effect.className, effect.configure, ReadImage(input).image);
  EXPECT_TRUE(ReadImage(output).image == expected)
      << effect.name << " on " << file.depth << "-bit " << LayoutName(file.layout) << " " << FileTypeName(file.type);
}

INSTANTIATE_TEST_SUITE_P(ToolEveryFile, ToolEffectOnFile, testing::ValuesIn(AllRunCases()));

// ---- options that choose how the class is driven ----

class ToolOptions : public testing::Test {
 protected:
  Image RunToPng(Words words, const Image& input) {
    const std::string in = scratch_ / "in.png", out = scratch_ / "out.png";
    SaveImage(input, in);
    words.insert(words.end(), {"-q", in, out});
    const ToolResult run = RunTool(words, scratch_);
    EXPECT_EQ(run.status, 0) << run.err;
    return run.status == 0 ? ReadImage(out).image : Image{};
  }
  ScratchDir scratch_;
  Reference reference_;
};

// In place, asynchronously or on any number of threads, the result is Apply's.
TEST_F(ToolOptions, DrivingOptionsGiveWhatApplyGives) {
  struct Case {
    Words plain, driven;
    Layout layout;
    int depth;
  };
  const Case cases[] = {
      {{"interlace", "--horizontal", "even", "--vertical", "odd"},
       {"interlace", "--horizontal", "even", "--vertical", "odd", "--in-place"}, Layout::RGB, 16},
      {{"polar", "--to-rect"}, {"polar", "--to-rect", "--async"}, Layout::RGBA, 8},
      {{"barrel", "--distortion", "0.3", "--nearest"}, {"barrel", "--distortion", "0.3", "--nearest", "--async"},
       Layout::RGBA, 8},
      {{"oilpaint", "--threads", "1"}, {"oilpaint", "--threads", "3"}, Layout::RGB, 8},
  };
  for (const Case& c : cases) {
    const Image input = test::NoiseImage(31, 23, c.layout, c.depth);
    const Image plain = RunToPng(c.plain, input);
    EXPECT_FALSE(plain == input) << c.plain[0];
    EXPECT_TRUE(RunToPng(c.driven, input) == plain) << c.driven.back();
  }
}

TEST_F(ToolOptions, AMaskIsHandedToTheClass) {
  const Image input = test::NoiseImage(20, 12, Layout::RGB, 8, 4);
  const Image mask = test::NoiseImage(20, 12, Layout::Gray, 8, 5);
  const std::string maskPath = scratch_ / "mask.png";
  SaveImage(mask, maskPath);
  const auto withMask = [&](int64_t horizontal) {
    return [&, horizontal](host::Host& host, REALobject effect) {
      REALobject maskBitmap = reference_.Upload(mask);
      REALobject maskObject = host.NewMask(maskBitmap);
      host.Set(effect, "Mask", maskObject);
      host.Unlock(maskObject);
      host.Unlock(maskBitmap);
      if (horizontal) host.Set<int64_t>(effect, "HorizontalInterlaceType", horizontal);
    };
  };
  EXPECT_TRUE(RunToPng({"oilpaint", "--mask", maskPath}, input) ==
              reference_.Run("OilPaintEffectRaw", withMask(0), input));
  EXPECT_TRUE(RunToPng({"interlace", "--mask", maskPath, "--horizontal", "odd"}, input) ==
              reference_.Run("InterlaceEffectRaw", withMask(1), input));
}

TEST_F(ToolOptions, DepthAndModelConvertTheWorkingBitmap) {
  const Image input = test::NoiseImage(12, 8, Layout::RGB, 8);
  const Image deep = RunToPng({"barrel", "--depth", "16", "--distortion", "0.2"}, input);
  EXPECT_EQ(deep.depth, 16);
  EXPECT_EQ(deep.layout, Layout::RGB);
  const Image grey = RunToPng({"polar", "--model", "gray"}, input);
  EXPECT_EQ(grey.layout, Layout::Gray);
  EXPECT_TRUE(grey == reference_.Run("PolarCoordinatesEffectRaw", [](host::Host&, REALobject) {},
                                     ConvertLayout(input, Layout::Gray)));
  // CMYK work cannot go into a PNG: it is written as RGB, with a note.
  const std::string in = scratch_ / "in.png", out = scratch_ / "out.png";
  const ToolResult run = RunTool({"barrel", "--model", "cmyk", in, out}, scratch_);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("note: " + out + ": PNG cannot hold 8-bit CMYK: written as 8-bit RGB"), std::string::npos)
      << run.err;
  EXPECT_EQ(ReadImage(out).image.layout, Layout::RGB);
}

TEST_F(ToolOptions, JpegOutputIsCloseToTheExactResult) {
  const Image exact = RunToPng({"barrel", "--distortion", "0.2"}, test::RampImage(40, 30, Layout::RGB));
  const ToolResult run =
      RunTool({"barrel", "--distortion", "0.2", "--quality", "98", scratch_ / "in.png", scratch_ / "out.jpg"},
              scratch_);
  ASSERT_EQ(run.status, 0) << run.err;
  const ImageFile jpeg = ReadImage(scratch_ / "out.jpg");
  EXPECT_EQ(jpeg.type, FileType::JPEG);
  EXPECT_LT(test::MeanAbsoluteDifference(jpeg.image, exact), 3.0);
}

TEST_F(ToolOptions, VerboseReportsSizeThreadsTimeAndSpeed) {
  const std::string in = scratch_ / "in.png", out = scratch_ / "out.png";
  SaveImage(test::NoiseImage(30, 20, Layout::RGBA, 16), in);
  const ToolResult run = RunTool({"polar", "--verbose", "--threads", "2", "--async", in, out}, scratch_);
  ASSERT_EQ(run.status, 0) << run.err;
  for (const std::string& part : {std::string("30 x 20 RGBA, 16 bits, bitmap format RGBA, 2 threads"),
                                  std::string("ApplyAsync took"), "megapixels/s; wrote " + out})
    EXPECT_NE(run.err.find(part), std::string::npos) << run.err;
}

}  // namespace
}  // namespace rawfx::tool
