// The tool run as a process on small PNG, JPEG and TIFF files of every layout it
// reads, each output checked against the same effect run through the host here:
// a bitmap filled by this test, properties set by name, the method called by its
// declaration.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
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

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";

// The host run the tool's output must match, built without the tool's bridge:
// each layout goes into the host format that holds it in file order.
class Reference {
 public:
  using Configure = std::function<void(host::Host&, REALobject effect)>;

  Image Run(const char* className, const Configure& configure, const Image& input) {
    REALobject source = Upload(input);
    REALobject effect = host_.New(className);
    configure(host_, effect);
    REALobject result = host_.Call<REALobject, REALobject>(effect, kApply, source);
    EXPECT_NE(result, nullptr) << className << " error " << host_.LastError(effect);
    Image output = result ? Download(result) : Image{};
    if (result) host_.Unlock(result);
    host_.Unlock(effect);
    host_.Unlock(source);
    return output;
  }

  REALobject Upload(const Image& image) {
    // Grey+alpha has no format of its own: RGBA with the grey in all three colours.
    const Image held = image.layout == Layout::GrayAlpha ? ConvertLayout(image, Layout::RGBA) : image;
    REALobject bitmap = host_.NewBitmap(held.width, held.height, FormatCode(held.layout), held.depth);
    const host::BitmapView view = host_.Bitmap(bitmap);
    for (int64_t y = 0; y < held.height; ++y) std::memcpy(view.row(y), held.row(y), held.rowBytes());
    return bitmap;
  }

  Image Download(REALobject bitmap) {
    const host::BitmapView view = host_.Bitmap(bitmap);
    Image image = Image::Blank(view.width, view.height, LayoutOf(view.format), view.bitsPerChannel);
    for (int64_t y = 0; y < image.height; ++y) std::memcpy(image.row(y), view.row(y), image.rowBytes());
    return image;
  }

  host::Host& host() { return host_; }

 private:
  static int64_t FormatCode(Layout layout) {
    switch (layout) {
      case Layout::Gray: return 0;
      case Layout::RGB: return 3;
      case Layout::CMYK: return 13;
      default: return 5;
    }
  }
  static Layout LayoutOf(int64_t format) {
    switch (format) {
      case 0: return Layout::Gray;
      case 3: return Layout::RGB;
      case 13: return Layout::CMYK;
      default: return Layout::RGBA;
    }
  }

  host::Host host_;
};

void SetColour(host::Host& host, REALobject effect, REALobject colour) {
  host.Set(effect, "BackColor", colour);
  host.Unlock(colour);
}

struct EffectCase {
  const char* name;
  std::vector<std::string> words;  // the command and its options
  const char* className;
  Reference::Configure configure;
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

// Every layout and depth each file type holds.
std::vector<FileCase> FileCases() {
  std::vector<FileCase> cases;
  for (const int depth : {8, 16}) {
    for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA}) {
      cases.push_back({FileType::PNG, layout, depth});
    }
    for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}) {
      cases.push_back({FileType::TIFF, layout, depth});
    }
  }
  for (const Layout layout : {Layout::Gray, Layout::RGB, Layout::CMYK}) cases.push_back({FileType::JPEG, layout, 8});
  return cases;
}

std::string Extension(FileType type) {
  return type == FileType::PNG ? ".png" : type == FileType::JPEG ? ".jpg" : ".tif";
}

using RunCase = std::tuple<size_t, FileCase>;
class ToolEffectOnFile : public testing::TestWithParam<RunCase> {};

TEST_P(ToolEffectOnFile, MatchesTheSameEffectRunThroughTheHost) {
  const EffectCase& effect = EffectCases()[std::get<0>(GetParam())];
  const FileCase file = std::get<1>(GetParam());
  ScratchDir scratch;
  const std::string input = scratch / ("in" + Extension(file.type));
  // PNG has no CMYK: CMYK results go to TIFF so that the comparison is exact.
  const std::string output = scratch / (file.layout == Layout::CMYK ? "out.tif" : "out.png");
  SaveImage(test::NoiseImage(23, 17, file.layout, file.depth), input);

  std::vector<std::string> words = effect.words;
  words.insert(words.end(), {"--quiet", input, output});
  const ToolResult run = RunTool(words, scratch);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");

  Reference reference;
  const Image expected = reference.Run(effect.className, effect.configure, ReadImage(input).image);
  EXPECT_TRUE(ReadImage(output).image == expected) << effect.name << " on " << input;
}

std::vector<RunCase> AllRunCases() {
  std::vector<RunCase> runs;
  for (size_t e = 0; e < EffectCases().size(); ++e) {
    for (const FileCase& file : FileCases()) {
      if (file.depth == 16 && !EffectCases()[e].sixteenBit) continue;
      runs.emplace_back(e, file);
    }
  }
  return runs;
}

std::string RunCaseName(const testing::TestParamInfo<RunCase>& info) {
  const FileCase& file = std::get<1>(info.param);
  std::string layout = LayoutName(file.layout);
  layout.erase(std::remove_if(layout.begin(), layout.end(), [](char c) { return !std::isalnum(c); }), layout.end());
  return std::string(EffectCases()[std::get<0>(info.param)].name) + "_" + FileTypeName(file.type) + "_" + layout +
         std::to_string(file.depth);
}

INSTANTIATE_TEST_SUITE_P(ToolEveryFile, ToolEffectOnFile, testing::ValuesIn(AllRunCases()), RunCaseName);

// ---- options that choose how the class is driven ----

class ToolOptions : public testing::Test {
 protected:
  Image RunToPng(std::vector<std::string> words, const Image& input) {
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

TEST_F(ToolOptions, KeepAlphaLeavesTheAlphaChannelAlone) {
  const Image input = test::NoiseImage(16, 10, Layout::RGBA, 8);
  const Image kept = RunToPng({"interlace", "--horizontal", "odd", "--keep-alpha"}, input);
  const Image expected = reference_.Run("InterlaceEffectRaw",
                                        [](host::Host& host, REALobject effect) {
                                          host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
                                          host.Set(effect, "InterlaceAlphaChannel", false);
                                        },
                                        input);
  EXPECT_TRUE(kept == expected);
  for (size_t p = 0; p < 160; ++p) ASSERT_EQ(kept.sample(p * 4 + 3), input.sample(p * 4 + 3));
}

TEST_F(ToolOptions, InPlaceGivesWhatApplyGives) {
  const Image input = test::NoiseImage(16, 10, Layout::RGB, 16);
  const Image applied = RunToPng({"interlace", "--horizontal", "even", "--vertical", "odd"}, input);
  const Image inPlace = RunToPng({"interlace", "--horizontal", "even", "--vertical", "odd", "--in-place"}, input);
  EXPECT_TRUE(inPlace == applied);
  EXPECT_FALSE(applied == input);
}

TEST_F(ToolOptions, AsyncGivesWhatApplyGives) {
  const Image input = test::NoiseImage(40, 30, Layout::RGBA, 8);
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"polar", "--to-rect"}, {"barrel", "--distortion", "0.3", "--nearest"}}) {
    std::vector<std::string> async = words;
    async.push_back("--async");
    const Image synchronous = RunToPng(words, input);
    EXPECT_TRUE(RunToPng(async, input) == synchronous) << words[0];
  }
}

TEST_F(ToolOptions, ResultsDoNotDependOnTheThreadCount) {
  const Image input = test::NoiseImage(31, 47, Layout::RGB, 8);
  const Image one = RunToPng({"oilpaint", "--threads", "1"}, input);
  EXPECT_TRUE(RunToPng({"oilpaint", "--threads", "3"}, input) == one);
}

TEST_F(ToolOptions, AMaskIsHandedToTheClass) {
  const Image input = test::NoiseImage(20, 12, Layout::RGB, 8, 4);
  const Image mask = test::NoiseImage(20, 12, Layout::Gray, 8, 5);
  const std::string maskPath = scratch_ / "mask.png";
  SaveImage(mask, maskPath);
  const auto withMask = [&](const Reference::Configure& settings) {
    return [&, settings](host::Host& host, REALobject effect) {
      REALobject maskBitmap = reference_.Upload(mask);
      REALobject maskObject = host.NewMask(maskBitmap);
      host.Set(effect, "Mask", maskObject);
      host.Unlock(maskObject);
      host.Unlock(maskBitmap);
      settings(host, effect);
    };
  };
  EXPECT_TRUE(RunToPng({"oilpaint", "--mask", maskPath}, input) ==
              reference_.Run("OilPaintEffectRaw", withMask([](host::Host&, REALobject) {}), input));
  EXPECT_TRUE(RunToPng({"interlace", "--mask", maskPath, "--horizontal", "odd"}, input) ==
              reference_.Run("InterlaceEffectRaw", withMask([](host::Host& host, REALobject effect) {
                               host.Set<int64_t>(effect, "HorizontalInterlaceType", 1);
                             }),
                             input));
}

TEST_F(ToolOptions, DepthAndModelConvertTheWorkingBitmap) {
  const Image input = test::NoiseImage(12, 8, Layout::RGB, 8);
  const Image deep = RunToPng({"barrel", "--depth", "16", "--distortion", "0.2"}, input);
  EXPECT_EQ(deep.depth, 16);
  EXPECT_EQ(deep.layout, Layout::RGB);
  const Image grey = RunToPng({"polar", "--model", "gray"}, input);
  EXPECT_EQ(grey.layout, Layout::Gray);
  const Image expected = reference_.Run("PolarCoordinatesEffectRaw", [](host::Host&, REALobject) {},
                                        ConvertLayout(input, Layout::Gray));
  EXPECT_TRUE(grey == expected);
}

TEST_F(ToolOptions, CmykWorkToPngIsWrittenAsRgbWithANote) {
  const std::string in = scratch_ / "in.png", out = scratch_ / "out.png";
  SaveImage(test::NoiseImage(12, 8, Layout::RGB, 8), in);
  const ToolResult run = RunTool({"barrel", "--model", "cmyk", in, out}, scratch_);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("note: " + out + ": PNG cannot hold 8-bit CMYK: written as 8-bit RGB"), std::string::npos)
      << run.err;
  EXPECT_EQ(ReadImage(out).image.layout, Layout::RGB);
}

TEST_F(ToolOptions, JpegOutputIsCloseToTheExactResult) {
  const Image input = test::RampImage(40, 30, Layout::RGB);
  const Image exact = RunToPng({"barrel", "--distortion", "0.2"}, input);
  const ToolResult run = RunTool({"barrel", "--distortion", "0.2", "--quality", "98", scratch_ / "in.png",
                                  scratch_ / "out.jpg"},
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
  EXPECT_NE(run.err.find("30 x 20 RGBA, 16 bits, bitmap format RGBA, 2 threads"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("ApplyAsync took"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("megapixels/s; wrote " + out), std::string::npos) << run.err;
}

}  // namespace
}  // namespace rawfx::tool
