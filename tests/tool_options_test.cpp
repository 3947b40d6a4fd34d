// The tool's pieces that need no process: colours as written on the command line,
// the progress bar's text, the settings' defaults against a new object of each
// class, the bitmaps the host gets, the command parser and the demo's pictures.
#include <gtest/gtest.h>

#include "host/host.h"
#include "tool_test_support.h"
#include "tools/rawfx/cli.h"
#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/progress.h"
#include "tools/rawfx/sample_image.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

ColourOption Parsed(const std::string& text) {
  std::string why;
  const std::optional<ColourOption> colour = ParseColour(text, &why);
  EXPECT_TRUE(colour.has_value()) << text << ": " << why;
  return colour.value_or(ColourOption{});
}

std::string Refusal(const std::string& text) {
  std::string why;
  return ParseColour(text, &why) ? "accepted" : why;
}

TEST(ToolColours, AreReadInAllThreeNotations) {
  const ColourOption hex = Parsed("#1A2b3C");
  EXPECT_FALSE(hex.cmyk);
  EXPECT_EQ(hex.parts[0], 0x1A);
  EXPECT_EQ(hex.parts[1], 0x2B);
  EXPECT_EQ(hex.parts[2], 0x3C);
  EXPECT_EQ(hex.alpha, 255);
  EXPECT_EQ(Parsed("#00000080").alpha, 0x80);

  const ColourOption rgb = Parsed(" rgb(255, 0 ,10%, 50%) ");
  EXPECT_EQ(rgb.parts[0], 255);
  EXPECT_EQ(rgb.parts[2], 26);  // 25.5 rounds up
  EXPECT_EQ(rgb.alpha, 128);

  const ColourOption cmyk = Parsed("cmyk(0,100%,255,12)");
  EXPECT_TRUE(cmyk.cmyk);
  EXPECT_EQ(cmyk.parts[1], 255);
  EXPECT_EQ(cmyk.parts[2], 255);
  EXPECT_EQ(cmyk.parts[3], 12);
  EXPECT_EQ(cmyk.alpha, 255);
}

TEST(ToolColours, MistakesAreRefusedWithTheReason) {
  EXPECT_NE(Refusal("#12345").find("6 or 8 digits"), std::string::npos);
  EXPECT_NE(Refusal("#12345g").find("not hexadecimal"), std::string::npos);
  EXPECT_NE(Refusal("rgb(1,2)").find("3 or 4 components"), std::string::npos);
  EXPECT_NE(Refusal("cmyk(1,2,3)").find("4 or 5 components"), std::string::npos);
  EXPECT_NE(Refusal("rgb(256,0,0)").find("'256'"), std::string::npos);
  EXPECT_NE(Refusal("rgb(1.5,0,0)").find("'1.5'"), std::string::npos);
  EXPECT_NE(Refusal("rgb(101%,0,0)").find("'101%'"), std::string::npos);
  EXPECT_NE(Refusal("rgb(-1,0,0)").find("'-1'"), std::string::npos);
  EXPECT_NE(Refusal("red").find("is not a colour"), std::string::npos);
  EXPECT_NE(Refusal("hsl(1,2,3)").find("is not a colour"), std::string::npos);
}

TEST(ToolProgressText, ShowsBarPercentRowsAndTime) {
  EXPECT_EQ(ProgressBar::Render("oil paint", 60, 240, 1.25),
            "oil paint [######..................]  25%  60/240 rows  1.2 s");
  EXPECT_EQ(ProgressBar::Render("x", 240, 240, 0), "x [########################] 100%  240/240 rows  0.0 s");
  EXPECT_EQ(ProgressBar::Render("x", 5, 0, 0), "x [........................]   0%  0/0 rows  0.0 s");
}

TEST(ToolProgressText, ADisabledBarWritesNothing) {
  std::FILE* sink = std::tmpfile();
  {
    ProgressBar bar(false, "x", sink);
    bar.update(1, 2);
  }
  EXPECT_EQ(std::ftell(sink), 0);
  {
    ProgressBar bar(true, "x", sink);
    bar.update(1, 2);
  }
  EXPECT_GT(std::ftell(sink), 0);
  std::fclose(sink);
}

// The tool states each class's defaults for --help; they must be what a new object has.
class ToolClassDefaults : public testing::Test {
 protected:
  void ExpectDefaults(std::string_view className, const std::vector<PropertySetting>& settings) {
    REALobject object = host_.New(className);
    ASSERT_NE(object, nullptr) << className;
    for (const PropertySetting& setting : settings) {
      std::visit(
          [&](auto value) {
            EXPECT_EQ(host_.Get<decltype(value)>(object, setting.name), value) << className << "." << setting.name;
          },
          setting.value);
    }
    host_.Unlock(object);
  }
  host::Host host_;
};

TEST_F(ToolClassDefaults, MatchANewObjectOfEachClass) {
  ExpectDefaults("InterlaceEffectRaw", PropertiesOf(InterlaceSettings{}));
  ExpectDefaults("PolarCoordinatesEffectRaw", PropertiesOf(PolarSettings{}));
  ExpectDefaults("BarrelDistortEffectRaw", PropertiesOf(BarrelSettings{}));
  ExpectDefaults("OilPaintEffectRaw", PropertiesOf(OilPaintSettings{}));
}

TEST(ToolEffectTable, NamesEveryRegisteredClassOnce) {
  host::Host host;
  const std::vector<std::string> registered = host.registeredClassNames();
  EXPECT_EQ(registered.size(), Effects().size());
  for (const EffectInfo& effect : Effects()) {
    EXPECT_EQ(std::count(registered.begin(), registered.end(), effect.className), 1) << effect.className;
    EXPECT_EQ(FindEffect(effect.command), &effect);
  }
  EXPECT_EQ(FindEffect("blur"), nullptr);
}

// ---- bitmaps: every layout goes into the host format of its family and back ----

using BitmapCase = std::tuple<Layout, int>;
class ToolHostBitmaps : public testing::TestWithParam<BitmapCase> {
 protected:
  host::Host host_;
};

TEST_P(ToolHostBitmaps, HoldTheImageInTheFormatOfItsFamily) {
  const auto [layout, depth] = GetParam();
  const Image image = test::NoiseImage(11, 6, layout, depth);
  REALobject bitmap = NewBitmapFromImage(host_, image);
  ASSERT_NE(bitmap, nullptr);
  const host::BitmapView view = host_.Bitmap(bitmap);
  const host::FormatInfo* format = host::FindFormat(view.format);
  ASSERT_NE(format, nullptr);
  EXPECT_EQ(view.bitsPerChannel, depth);
  EXPECT_EQ(format->cmyk, layout == Layout::CMYK);
  EXPECT_EQ(format->hasAlpha, HasAlpha(layout));

  const Image back = ImageFromBitmap(host_, bitmap);
  host_.Unlock(bitmap);
  if (layout != Layout::GrayAlpha) {
    EXPECT_TRUE(back == image);
    return;
  }
  // No host format holds grey+alpha: it goes in as RGBA with the grey in all three.
  ASSERT_EQ(back.layout, Layout::RGBA);
  for (size_t p = 0; p < static_cast<size_t>(image.width * image.height); ++p) {
    for (size_t c = 0; c < 3; ++c) ASSERT_EQ(back.sample(p * 4 + c), image.sample(p * 2));
    ASSERT_EQ(back.sample(p * 4 + 3), image.sample(p * 2 + 1));
  }
}

INSTANTIATE_TEST_SUITE_P(ToolEveryLayout, ToolHostBitmaps,
                         testing::Combine(testing::Values(Layout::Gray, Layout::GrayAlpha, Layout::RGB, Layout::RGBA,
                                                          Layout::CMYK),
                                          testing::Values(8, 16)));

TEST(ToolHostBitmapsFromOtherFormats, ComeOutInFileOrder) {
  host::Host host;
  // BGRA: blue first in memory; the image must still read red, green, blue, alpha.
  REALobject bitmap = host.NewBitmap(1, 1, 7, 8);
  ASSERT_NE(bitmap, nullptr);
  const host::BitmapView view = host.Bitmap(bitmap);
  const uint8_t bgra[] = {30, 20, 10, 40};
  std::copy(bgra, bgra + 4, view.row(0));
  const Image image = ImageFromBitmap(host, bitmap);
  host.Unlock(bitmap);
  ASSERT_EQ(image.layout, Layout::RGBA);
  EXPECT_EQ(image.data, (std::vector<uint8_t>{10, 20, 30, 40}));
}

// ---- the parser the command line and the demo share ----

TEST(ToolEffectWords, BecomeSettingsAndFiles) {
  const EffectCommand barrel =
      ParseEffectWords({"barrel", "--distortion", "-0.5", "--nearest", "--color", "cmyk(0,0,0,255)", "in.tif", "o.png"});
  EXPECT_EQ(barrel.effect, FindEffect("barrel"));
  EXPECT_EQ(barrel.barrel.distortion, -0.5);
  EXPECT_TRUE(barrel.barrel.nearest);
  EXPECT_EQ(barrel.common.colour, "cmyk(0,0,0,255)");
  EXPECT_EQ(barrel.input, "in.tif");
  EXPECT_EQ(barrel.output, "o.png");

  const EffectCommand polar = ParseEffectWords({"polar", "--to-rect", "--no-flip", "a.png", "b.png"});
  EXPECT_FALSE(polar.polar.toPolar);
  EXPECT_FALSE(polar.polar.flip);
  const std::vector<PropertySetting> properties = polar.properties();
  ASSERT_EQ(properties.size(), 2u);
  EXPECT_EQ(properties[0].name, "RectangularToPolar");
  EXPECT_EQ(std::get<bool>(properties[0].value), false);

  const EffectCommand interlace =
      ParseEffectWords({"interlace", "--horizontal", "even", "--keep-alpha", "a.png", "b.png"});
  const std::vector<PropertySetting> interlaceProperties = interlace.properties();
  EXPECT_EQ(std::get<int64_t>(interlaceProperties[0].value), 2);
  EXPECT_EQ(std::get<int64_t>(interlaceProperties[1].value), 0);
  EXPECT_EQ(std::get<bool>(interlaceProperties[2].value), false) << "--keep-alpha: InterlaceAlphaChannel false";
}

TEST(ToolEffectWords, OutOfRangeValuesAreBadUsage) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"oilpaint", "--brush", "6", "a.png", "b.png"},
           {"oilpaint", "--smoothness", "0.03", "a.png", "b.png"},
           {"barrel", "--distortion", "10.5", "a.png", "b.png"},
           {"barrel", "--vkeystone", "-1.01", "a.png", "b.png"},
           {"interlace", "--vertical", "every", "a.png", "b.png"},
           {"polar", "--color", "#12", "a.png", "b.png"},
           {"polar", "--depth", "32", "a.png", "b.png"},
           {"polar", "a.png"},
           {"oilpaint", "--color", "#ffffff", "a.png", "b.png"},
       }) {
    try {
      ParseEffectWords(words);
      ADD_FAILURE() << "accepted " << words[1];
    } catch (const ToolError& error) {
      EXPECT_EQ(error.status(), kExitBadInput) << error.what();
    }
  }
}

TEST(ToolDemoPictures, AreTheSameEveryTimeAndShowTheirFeatures) {
  const Image sample = SampleImage(160, 120);
  EXPECT_TRUE(sample == SampleImage(160, 120));
  EXPECT_EQ(sample.layout, Layout::RGB);
  // The grey ramp along the bottom runs from black to white.
  const size_t bottom = static_cast<size_t>(119 * 160 * 3);
  EXPECT_EQ(sample.sample(bottom), 0u);
  EXPECT_EQ(sample.sample(bottom + 159 * 3), 255u);
  // The red disc.
  const size_t red = static_cast<size_t>((38 * 160 + 43) * 3);
  EXPECT_GT(sample.sample(red), 150u);
  EXPECT_LT(sample.sample(red + 1), 100u);

  const Image mask = SampleMask(160, 120);
  EXPECT_EQ(mask.layout, Layout::Gray);
  EXPECT_EQ(mask.sample(60 * 160 + 80), 0u) << "the centre lets the effect through";
  EXPECT_EQ(mask.sample(0), 255u) << "the corners keep the source";
}

}  // namespace
}  // namespace rawfx::tool
