// The tool run on files of every layout and depth it reads, each result checked against
// the same effect run through the host here: properties set by name, the method called
// by its declaration.
#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

// A property value as the class's row types it; colours and masks are host objects made by the function.
using MakeObject = REALobject (*)(host::Host&);
using Settings = std::vector<std::pair<const char*, std::variant<bool, uint8_t, float, double, int64_t, MakeObject>>>;

const Image kMask = TestImage(23, 17, Layout::Gray, 8, false, 5);
REALobject NewMask(host::Host& host) { return host.NewMask(HostRef(host, NewBitmapFromImage(host, kMask)).get()); }

struct EffectCase {
  const char* name;           // as the test's name shows it
  Words words;                // the command and its options; mask.png is kMask
  std::vector<Words> sameAs;  // further options that must not change the result
  const char* className;
  Settings settings;
  Image (*source)(const Image&) = [](const Image& file) { return file; };  // what the effect gets of the file
  friend void PrintTo(const EffectCase& effect, std::ostream* os) { *os << effect.name; }
};

// The effect run through the host on the picture put in a bitmap here, away from the
// tool's files and their decoding straight into bitmaps.
Image Reference(const EffectCase& effect, const Image& file) {
  host::Host host;
  const HostRef object(host, host.New(effect.className)), source(host, NewBitmapFromImage(host, effect.source(file)));
  for (const auto& [name, value] : effect.settings)
    std::visit([&, &name = name](auto plain) {
      if constexpr (std::is_same_v<decltype(plain), MakeObject>) host.Set(object.get(), name, HostRef(host, plain(host)).get());
      else host.Set(object.get(), name, plain);
    }, value);
  const HostRef result(host, host.Call<REALobject, REALobject>(object.get(), kApply, source.get()));
  return result.get() ? ImageFromBitmap(host, result.get()) : Image{};
}

// Each effect with all its options, and a conversion of the source before it.
const EffectCase kEffects[] = {
    {"interlace_odd_even_colour_mask",
     {"interlace", "--horizontal", "odd", "--vertical", "even", "--keep-alpha", "--color", "#336699", "--mask", "mask.png"},
     {{"--in-place"}}, "InterlaceEffectRaw",
     {{"HorizontalInterlaceType", int64_t{1}}, {"VerticalInterlaceType", int64_t{2}}, {"InterlaceAlphaChannel", false},
      {"BackColor", +[](host::Host& host) { return host.NewRGBColor(51, 102, 153); }}, {"Mask", &NewMask}}},
    {"polar_to_rect_no_flip_colour_grey", {"polar", "--to-rect", "--no-flip", "--color", "rgb(10,200,30,50%)", "--model", "gray"},
     {{"--async"}}, "PolarCoordinatesEffectRaw",
     {{"RectangularToPolar", false}, {"FlipMapping", false},
      {"BackColor", +[](host::Host& host) { return host.NewRGBColor(10, 200, 30, 128); }}},
     [](const Image& file) { return ConvertLayout(file, HasAlpha(file.layout) ? Layout::GrayAlpha : Layout::Gray); }},
    {"barrel_keystones_nearest_cmyk_colour_16_bits",
     {"barrel", "--distortion", "0.4", "--hkeystone", "0.1", "--vkeystone", "-0.05", "--nearest", "--color",
      "cmyk(0,255,0,0)", "--depth", "16"},
     {{"--async"}}, "BarrelDistortEffectRaw",
     {{"Distortion", 0.4}, {"HorizontalKeystone", 0.1}, {"VerticalKeystone", -0.05}, {"Interpolate", false},
      {"BackColor", +[](host::Host& host) { return host.NewCMYKColor(0, 255, 0, 0); }}},
     [](const Image& file) { return ConvertDepth(file, 16); }},
    {"oilpaint_brush_smoothness_mask", {"oilpaint", "--brush", "3", "--smoothness", "0.5", "--mask", "mask.png"},
     {{"--threads", "1"}, {"--threads", "3"}}, "OilPaintEffectRaw",
     {{"BrushSize", uint8_t{3}}, {"Smoothness", 0.5f}, {"Mask", &NewMask}}},
};

class ToolEffectOnEveryFile : public testing::TestWithParam<EffectCase> {};

// One batch run takes a PNG, TIFF and JPEG file of every layout and depth each holds
// (oil paint: 8 bits only) to TIFF, which holds every result exactly; so does a run with
// each option that must not change the result (in place, asynchronously, any number of
// threads).
TEST_P(ToolEffectOnEveryFile, MatchesTheSameEffectRunThroughTheHost) {
  const EffectCase& effect = GetParam();
  ScratchDir scratch;
  Save(kMask, scratch / "mask.png");
  std::map<std::string, Image> expected;  // by input's name
  for (const std::string type : {"png", "tif", "jpg"})
    for (const int depth : {8, 16})
      for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}) {
        const bool refused = depth == 16 && effect.words[0] == "oilpaint";
        if (refused || !FitsFileType(ImageShape{23, 17, layout, depth}, *FileTypeNamed(type))) continue;
        const std::string in = type + "-" + LayoutName(layout) + "-" + std::to_string(depth) + "." + type;
        Save(TestImage(23, 17, layout, depth), scratch / in);
        expected[in] = Reference(effect, ReadImage(scratch / in).image);
      }
  for (size_t run = 0; run <= effect.sameAs.size(); ++run) {
    Words words = effect.words;
    if (run > 0) words.insert(words.end(), effect.sameAs[run - 1].begin(), effect.sameAs[run - 1].end());
    words.insert(words.end(), {"-q", "--format", "tiff", "--out-dir", "out" + std::to_string(run)});
    for (const auto& [in, image] : expected) words.push_back(in);
    ASSERT_EQ(RunTool(words, scratch).status, 0) << testing::PrintToString(words);
    for (const auto& [in, image] : expected)
      EXPECT_TRUE(ReadImage(scratch / ("out" + std::to_string(run) + "/" + fs::path(in).stem().string() + ".tiff")).image ==
                  image) << in << run;
  }
}

INSTANTIATE_TEST_SUITE_P(Tool, ToolEffectOnEveryFile, testing::ValuesIn(kEffects), testing::PrintToStringParamName());

}  // namespace
}  // namespace rawfx::tool::test
