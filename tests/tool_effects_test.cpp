// The tool run on files of every layout and depth it reads, each result checked
// against the same effect run through the host here: a bitmap filled by this test,
// properties set by name, the method called by its declaration.
#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

// A property value as the class's row types it; colours and masks are host objects made by the function.
using MakeObject = REALobject (*)(host::Host&);
using Settings = std::vector<std::pair<const char*, std::variant<bool, uint8_t, float, double, int64_t, MakeObject>>>;

// Each layout is held in the host format that holds it in file order. Grey+alpha has
// no format of its own: RGBA with the grey in all three colours.
Layout HeldAs(Layout layout) { return layout == Layout::GrayAlpha ? Layout::RGBA : layout; }

REALobject Upload(host::Host& host, const Image& image) {
  const Image held = ConvertLayout(image, HeldAs(image.layout));
  const int64_t formats[] = {0, -1, 3, 5, 13};  // by Layout
  REALobject bitmap = host.NewBitmap(held.width, held.height, formats[int(held.layout)], held.depth);
  for (int64_t y = 0; y < held.height; ++y) std::memcpy(host.Bitmap(bitmap).row(y), held.row(y), held.rowBytes());
  return bitmap;
}

const Image kMask = TestImage(23, 17, Layout::Gray, 8, false, 5);
REALobject NewMask(host::Host& host) { return host.NewMask(HostRef(host, Upload(host, kMask)).get()); }

// The effect run through the host without the tool's bridge; the result held as the source was.
Image Reference(const char* className, const Settings& settings, const Image& input) {
  host::Host host;
  const HostRef effect(host, host.New(className)), source(host, Upload(host, input));
  for (const auto& [name, value] : settings) {
    std::visit([&, &name = name](auto plain) {
      if constexpr (std::is_same_v<decltype(plain), MakeObject>) host.Set(effect.get(), name, HostRef(host, plain(host)).get());
      else host.Set(effect.get(), name, plain);
    }, value);
  }
  const HostRef result(host, host.Call<REALobject, REALobject>(effect.get(), "Apply(source as RawBitmap) as RawBitmap", source.get()));
  EXPECT_NE(result.get(), nullptr) << className << " error " << host.LastError(effect.get());
  if (!result.get()) return {};
  const host::BitmapView view = host.Bitmap(result.get());
  Image output = Image::Blank(view.width, view.height, HeldAs(input.layout), view.bitsPerChannel);
  for (int64_t y = 0; y < output.height; ++y) std::memcpy(output.row(y), view.row(y), output.rowBytes());
  return output;
}

struct EffectCase {
  const char* name;           // as the test's name shows it
  Words words;                // the command and its options; "MASK" stands for kMask's file
  std::vector<Words> sameAs;  // further options that must not change the result
  const char* className;
  Settings settings;
  Image (*source)(const Image&) = [](const Image& image) { return image; };  // what the effect gets of the file's picture
  friend void PrintTo(const EffectCase& effect, std::ostream* os) { *os << effect.name; }
};

const EffectCase kEffects[] = {
    {"interlace_odd_even_colour", {"interlace", "--horizontal", "odd", "--vertical", "even", "--color", "#336699"},
     {{"--in-place"}}, "InterlaceEffectRaw",
     {{"HorizontalInterlaceType", int64_t{1}}, {"VerticalInterlaceType", int64_t{2}},
      {"BackColor", +[](host::Host& host) { return host.NewRGBColor(51, 102, 153); }}}},
    {"interlace_keep_alpha_mask", {"interlace", "--horizontal", "even", "--keep-alpha", "--mask", "MASK"}, {{"--in-place"}},
     "InterlaceEffectRaw", {{"HorizontalInterlaceType", int64_t{2}}, {"InterlaceAlphaChannel", false}, {"Mask", &NewMask}}},
    {"polar_no_flip_colour", {"polar", "--no-flip", "--color", "rgb(10,200,30,50%)"}, {{"--async"}},
     "PolarCoordinatesEffectRaw",
     {{"FlipMapping", false}, {"BackColor", +[](host::Host& host) { return host.NewRGBColor(10, 200, 30, 128); }}}},
    {"polar_to_rect", {"polar", "--to-rect"}, {{"--async"}}, "PolarCoordinatesEffectRaw", {{"RectangularToPolar", false}}},
    {"barrel_keystones_cmyk_colour",
     {"barrel", "--distortion", "0.4", "--hkeystone", "0.1", "--vkeystone", "-0.05", "--color", "cmyk(0,255,0,0)"},
     {{"--async"}}, "BarrelDistortEffectRaw",
     {{"Distortion", 0.4}, {"HorizontalKeystone", 0.1}, {"VerticalKeystone", -0.05},
      {"BackColor", +[](host::Host& host) { return host.NewCMYKColor(0, 255, 0, 0); }}}},
    {"barrel_nearest", {"barrel", "--distortion", "-0.3", "--nearest"}, {{"--async"}}, "BarrelDistortEffectRaw",
     {{"Distortion", -0.3}, {"Interpolate", false}}},
    {"oilpaint_brush_smoothness", {"oilpaint", "--brush", "3", "--smoothness", "0.5"}, {{"--threads", "1"}, {"--threads", "3"}},
     "OilPaintEffectRaw", {{"BrushSize", uint8_t{3}}, {"Smoothness", 0.5f}}},
    {"oilpaint_mask", {"oilpaint", "--mask", "MASK"}, {}, "OilPaintEffectRaw", {{"Mask", &NewMask}}},
    {"barrel_depth_16", {"barrel", "--depth", "16", "--distortion", "0.2"}, {}, "BarrelDistortEffectRaw", {{"Distortion", 0.2}},
     [](const Image& image) { return ConvertDepth(image, 16); }},
    {"polar_model_gray", {"polar", "--model", "gray"}, {}, "PolarCoordinatesEffectRaw", {},
     [](const Image& image) { return ConvertLayout(image, LayoutForModel(image.layout, ColourModel::Gray)); }},
};

class ToolEffectOnEveryFile : public testing::TestWithParam<EffectCase> {};

// One batch run takes a PNG, TIFF and JPEG file of every layout and depth each holds
// (oil paint: 8 bits only) to TIFF, which holds every result exactly. Each option that
// must not change the result (in place, asynchronously, any number of threads) runs
// on the PNG files, to PNG.
TEST_P(ToolEffectOnEveryFile, MatchesTheSameEffectRunThroughTheHost) {
  const EffectCase& effect = GetParam();
  ScratchDir scratch;
  SaveImage(kMask, scratch / "mask.png");
  std::map<std::string, Image> expected;  // by input file
  for (const std::string type : {"png", "tif", "jpg"})
    for (const int depth : {8, 16})
      for (const Layout layout : {Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA, Layout::CMYK}) {
        if (!FitsFileType(ImageShape{23, 17, layout, depth}, *FileTypeNamed(type)) || (depth == 16 && effect.words[0] == "oilpaint"))
          continue;
        const std::string in = scratch / (type + "-" + LayoutName(layout) + "-" + std::to_string(depth) + "." + type);
        SaveImage(TestImage(23, 17, layout, depth), in);
        expected[in] = Reference(effect.className, effect.settings, effect.source(ReadImage(in).image));
      }
  for (size_t run = 0; run <= effect.sameAs.size(); ++run) {
    const std::string format = run == 0 ? "tiff" : "png", out = scratch / ("out" + std::to_string(run));
    Words words = effect.words;
    if (run > 0) words.insert(words.end(), effect.sameAs[run - 1].begin(), effect.sameAs[run - 1].end());
    std::replace(words.begin(), words.end(), std::string("MASK"), scratch / "mask.png");
    words.insert(words.end(), {"-q", "--format", format, "--out-dir", out});
    Words inputs;
    for (const auto& [in, image] : expected)
      if (run == 0 || in.ends_with(".png")) inputs.push_back(in);
    words.insert(words.end(), inputs.begin(), inputs.end());
    const ToolResult result = RunTool(words, scratch);
    ASSERT_EQ(result.status, 0) << result.err;
    for (const std::string& in : inputs)
      EXPECT_TRUE(ReadImage(out + "/" + fs::path(in).stem().string() + "." + format).image == expected[in])
          << testing::PrintToString(words) << " on " << in;
  }
}

INSTANTIATE_TEST_SUITE_P(Tool, ToolEffectOnEveryFile, testing::ValuesIn(kEffects), testing::PrintToStringParamName());

}  // namespace
}  // namespace rawfx::tool::test
