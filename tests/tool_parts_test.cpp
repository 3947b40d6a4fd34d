// The tool's parts that need no process: image files read and written, the depth and
// colour model conversions, colours as written on the command line, the progress
// bar's text, and the settings' defaults against a new object of each class.
#include "tool_test_support.h"

namespace rawfx::tool::test {
namespace {

using Bytes = std::vector<uint8_t>;

// The message of the ImageError an action throws, or "no error".
std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
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
        const bool jpeg = type == FileType::JPEG, holds[] = {layout != Layout::CMYK, depth == 8 && !HasAlpha(layout), true,
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
        EXPECT_NE(ErrorOf([&] { ReadImage(path, {pixels - 1}); }).find("is more than the limit of " + std::to_string(pixels - 1)),
                  std::string::npos);
        EXPECT_EQ(ErrorOf([&] { ReadImage(path, {pixels}); }), "no error");
        const std::string bytes = ReadText(path);
        // (A TIFF's last 4 bytes, the offset of a next page, are not needed to read it.)
        for (size_t length = 0; length < bytes.size() - (type == FileType::TIFF ? 4 : 0); length += 7) {
          WriteBytes(cut, bytes.substr(0, length));
          const std::string message = ErrorOf([&] { ReadImage(cut); });
          const bool twoThirds = length > bytes.size() * 2 / 3 && length <= bytes.size() * 2 / 3 + 7;
          const std::string reason = length == 0 ? "the file is empty" : twoThirds ? cutReason[int(type)] : "";
          EXPECT_TRUE(message.starts_with("cannot read " + cut + ": ") && message.find(reason) != std::string::npos &&
                      message.find('\n') == std::string::npos)
              << length << ": " << message;
        }
        const int photometric[] = {PHOTOMETRIC_MINISBLACK, PHOTOMETRIC_MINISBLACK, PHOTOMETRIC_RGB, PHOTOMETRIC_RGB,
                                   PHOTOMETRIC_SEPARATED};  // by layout
        for (const auto& [planes, tiles] : {std::pair{true, false}, {false, true}, {true, true}}) {
          if (type != FileType::TIFF) break;
          const Image larger = TestImage(21, 19, layout, depth);  // more than one tile
          WriteTiff(path, {larger}, photometric[int(layout)], planes, tiles);
          EXPECT_TRUE(ReadImage(path).image == larger) << "planes " << planes << ", tiles " << tiles;
        }
      }
  // Grey with white as 0.
  Image grey = TestImage(9, 5, Layout::Gray, 8), white = grey;
  for (size_t i = 0; i < grey.sampleCount(); ++i) white.setSample(i, 255 - grey.sample(i));
  WriteTiff(scratch / "white.tif", {white}, PHOTOMETRIC_MINISWHITE);
  EXPECT_TRUE(ReadImage(scratch / "white.tif").image == grey);
}

// Depth goes up exactly and comes back rounded; colour models map the primaries and
// keep alpha where they have room for it.
TEST(ToolConversions, ChangeDepthAndColourModelKeepingAlphaWhereItFits) {
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
  EXPECT_EQ(std::tuple(LayoutForModel(Layout::RGBA, ColourModel::Gray), LayoutForModel(Layout::Gray, ColourModel::RGB),
                       LayoutForModel(Layout::RGBA, ColourModel::CMYK)),
            std::tuple(Layout::GrayAlpha, Layout::RGB, Layout::CMYK));
}

// Each colour as read ("rgb R G B A" or "cmyk C M Y K A"), or the reason it is refused.
TEST(ToolColours, AreReadInEveryNotationAndMistakesAreRefusedWithTheReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"#1A2b3C", "rgb 26 43 60 255"}, {"#00000080", "rgb 0 0 0 128"}, {"#f0a", "rgb 255 0 170 255"},
      {"#f0a8", "rgb 255 0 170 136"}, {" rgb(255, 0 ,10%, 50%) ", "rgb 255 0 26 128"}, {"Red", "rgb 255 0 0 255"},
      {"rgba(1,2,3,0.5)", "rgb 1 2 3 128"}, {"RGBA(1,2,3,1)", "rgb 1 2 3 255"}, {"transparent", "rgb 0 0 0 0"},
      {"cmyk(0,100%,255,12)", "cmyk 0 255 255 12 255"}, {"aliceblue", "rgb 240 248 255 255"},  // the first name
      {"yellowgreen", "rgb 154 205 50 255"}, {"#12345", "3, 4, 6 or 8 digits"}, {"#12345g", "not hexadecimal"},
      {"rgb(1,2)", "3 or 4 components"}, {"cmyk(1,2,3)", "4 or 5 components"}, {"rgb(256,0,0)", "'256'"},
      {"rgb(1.5,0,0)", "'1.5'"}, {"rgb(101%,0,0)", "'101%'"}, {"rgb(-1,0,0)", "'-1'"}, {"hsl(1,2,3)", "is not a colour"},
      {"rgba(1,2,3,2)", "'2' is not an alpha"}, {"reddish", "is not a colour: use a name"}};
  for (const auto& [text, expected] : cases) {
    std::string got;
    if (const std::optional<ColourOption> c = ParseColour(text, &got)) {
      got = c->cmyk ? "cmyk" : "rgb";
      for (int i = 0; i < (c->cmyk ? 4 : 3); ++i) got += " " + std::to_string(c->parts[i]);
      got += " " + std::to_string(c->alpha);
    }
    const bool read = got.starts_with("rgb ") || got.starts_with("cmyk ");
    EXPECT_TRUE(read ? got == expected : got.find(expected) != std::string::npos) << text << " gave " << got;
  }
}

// A narrow terminal: the bar shrinks, then goes, then a long label loses its middle, a
// short one its start. A bar draws only when enabled (the tool's runs, to files, have none).
TEST(ToolProgressText, ShowsBarPercentRowsAndTimeOnlyWhenEnabled) {
  const std::tuple<const char*, int64_t, int64_t, double, int, const char*> cases[] = {
      {"oil paint", 60, 240, 1.25, 80, "oil paint [######..................]  25%  60/240 rows  1.2 s"},
      {"x", 240, 240, 0, 80, "x [########################] 100%  240/240 rows  0.0 s"},
      {"reading", 5, 0, 0, 80, "reading  0.0 s"},  // rows not known yet
      {"[2/3] b.png  polar", 1, 4, 0, 60, "[2/3] b.png  polar [####.............]  25%  1/4 rows  0.0 s"},
      {"[2/3] b.png  polar", 1, 4, 0, 40, "[2/3] b.png  polar  25%  1/4 rows  0.0 s"},
      {"[2/3] b.png  polar", 1, 4, 0, 30, "g  polar  25%  1/4 rows  0.0 s"},
      {"[12/20] holiday-photo-0042.png  oil paint", 1, 4, 0, 50, "[12/20] holi...ng  oil paint  25%  1/4 rows  0.0 s"}};
  for (const auto& [label, done, total, seconds, width, text] : cases)
    EXPECT_EQ(ProgressBar::Render(label, done, total, seconds, width), text);
  std::FILE* sink = std::tmpfile();
  ProgressBar(true, "x", sink).update(1, 2);
  EXPECT_GT(std::ftell(sink), 0);
  std::fclose(sink);
}

// The tool offers one command per registered class and states each class's defaults
// for --help; they must be what a new object has.
TEST(ToolEffectTable, NamesEveryRegisteredClassWithItsDefaults) {
  host::Host host;
  EXPECT_EQ(host.registeredClassNames().size(), Effects().size());
  for (const auto& [name, settings] : {std::pair{"InterlaceEffectRaw", PropertiesOf(InterlaceSettings{})},
                                       {"PolarCoordinatesEffectRaw", PropertiesOf(PolarSettings{})},
                                       {"BarrelDistortEffectRaw", PropertiesOf(BarrelSettings{})},
                                       {"OilPaintEffectRaw", PropertiesOf(OilPaintSettings{})}}) {
    const HostRef object(host, host.New(name));
    for (const PropertySetting& setting : settings)
      std::visit([&](auto value) { EXPECT_EQ(host.Get<decltype(value)>(object.get(), setting.name), value) << setting.name; },
                 setting.value);
  }
}

}  // namespace
}  // namespace rawfx::tool::test
