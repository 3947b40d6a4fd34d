// The tool's pieces that need no process: colours as written on the command line,
// the progress bar's text, the settings' defaults against a new object of each
// class, and a bitmap in a format the tool never makes read back from the host.
// How options reach the classes is checked end to end in tool_effects_test.
#include <gtest/gtest.h>

#include "host/host.h"
#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/progress.h"

namespace rawfx::tool {
namespace {

using V = std::vector<int>;

TEST(ToolColours, AreReadInEveryNotation) {
  const std::pair<const char*, V> cases[] = {
      // cmyk flag, the parts, alpha
      {"#1A2b3C", {0, 0x1A, 0x2B, 0x3C, 0, 255}},
      {"#00000080", {0, 0, 0, 0, 0, 0x80}},
      {"#f0a", {0, 0xFF, 0, 0xAA, 0, 255}},
      {"#f0a8", {0, 0xFF, 0, 0xAA, 0, 0x88}},
      {" rgb(255, 0 ,10%, 50%) ", {0, 255, 0, 26, 0, 128}},  // 25.5 rounds up
      {"rgba(1,2,3,0.5)", {0, 1, 2, 3, 0, 128}},
      {"RGBA(1,2,3,1)", {0, 1, 2, 3, 0, 255}},
      {"cmyk(0,100%,255,12)", {1, 0, 255, 255, 12, 255}},
      {"Red", {0, 255, 0, 0, 0, 255}},
      {"aliceblue", {0, 0xF0, 0xF8, 0xFF, 0, 255}},      // the first name and the last
      {"yellowgreen", {0, 0x9A, 0xCD, 0x32, 0, 255}},
      {"transparent", {0, 0, 0, 0, 0, 0}},
  };
  for (const auto& [text, expected] : cases) {
    std::string why;
    const std::optional<ColourOption> c = ParseColour(text, &why);
    ASSERT_TRUE(c.has_value()) << text << ": " << why;
    EXPECT_EQ((V{c->cmyk, c->parts[0], c->parts[1], c->parts[2], c->cmyk ? c->parts[3] : 0, c->alpha}), expected)
        << text;
  }
}

TEST(ToolColours, MistakesAreRefusedWithTheReason) {
  for (const auto& [text, reason] : std::initializer_list<std::pair<const char*, const char*>>{
           {"#12345", "3, 4, 6 or 8 digits"},
           {"#12345g", "not hexadecimal"},
           {"rgb(1,2)", "3 or 4 components"},
           {"cmyk(1,2,3)", "4 or 5 components"},
           {"rgb(256,0,0)", "'256'"},
           {"rgb(1.5,0,0)", "'1.5'"},
           {"rgb(101%,0,0)", "'101%'"},
           {"rgb(-1,0,0)", "'-1'"},
           {"rgba(1,2,3,2)", "'2' is not an alpha"},
           {"reddish", "is not a colour: use a name"},
           {"hsl(1,2,3)", "is not a colour"}}) {
    std::string why = "accepted";
    EXPECT_FALSE(ParseColour(text, &why).has_value()) << text;
    EXPECT_NE(why.find(reason), std::string::npos) << text << ": " << why;
  }
}

TEST(ToolProgressText, ShowsBarPercentRowsAndTimeOnlyWhenEnabled) {
  EXPECT_EQ(ProgressBar::Render("oil paint", 60, 240, 1.25),
            "oil paint [######..................]  25%  60/240 rows  1.2 s");
  EXPECT_EQ(ProgressBar::Render("x", 240, 240, 0), "x [########################] 100%  240/240 rows  0.0 s");
  EXPECT_EQ(ProgressBar::Render("reading", 5, 0, 0), "reading  0.0 s");  // rows not known yet
  // A narrow terminal: the bar shrinks, then goes, then a long label loses its middle, a short one its start.
  EXPECT_EQ(ProgressBar::Render("[2/3] b.png  polar", 1, 4, 0, 60),
            "[2/3] b.png  polar [####.............]  25%  1/4 rows  0.0 s");
  EXPECT_EQ(ProgressBar::Render("[2/3] b.png  polar", 1, 4, 0, 40), "[2/3] b.png  polar  25%  1/4 rows  0.0 s");
  EXPECT_EQ(ProgressBar::Render("[2/3] b.png  polar", 1, 4, 0, 30), "g  polar  25%  1/4 rows  0.0 s");
  EXPECT_EQ(ProgressBar::Render("[12/20] holiday-photo-0042.png  oil paint", 1, 4, 0, 50),
            "[12/20] holi...ng  oil paint  25%  1/4 rows  0.0 s");
  std::FILE* sink = std::tmpfile();
  ProgressBar(false, "x", sink).update(1, 2);
  EXPECT_EQ(std::ftell(sink), 0);
  ProgressBar(true, "x", sink).update(1, 2);
  EXPECT_GT(std::ftell(sink), 0);
  std::fclose(sink);
  ProgressBar phases(false, "");  // times its phases for --verbose even when it draws nothing
  for (const char* name : {"reading", "polar", "writing"}) phases.phase(name, 10);
  phases.finish();
  std::vector<std::string> names;
  for (const auto& [name, seconds] : phases.timings()) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"reading", "polar", "writing"}));
}

// The tool offers one command per registered class (each is run in tool_effects_test) and
// states each class's defaults for --help; they must be what a new object has.
TEST(ToolEffectTable, NamesEveryRegisteredClassWithItsDefaults) {
  host::Host host;
  EXPECT_EQ(host.registeredClassNames().size(), Effects().size());
  for (const auto& [className, settings] : std::initializer_list<std::pair<const char*, std::vector<PropertySetting>>>{
           {"InterlaceEffectRaw", PropertiesOf(InterlaceSettings{})},
           {"PolarCoordinatesEffectRaw", PropertiesOf(PolarSettings{})},
           {"BarrelDistortEffectRaw", PropertiesOf(BarrelSettings{})},
           {"OilPaintEffectRaw", PropertiesOf(OilPaintSettings{})}}) {
    REALobject object = host.New(className);
    ASSERT_NE(object, nullptr) << className;
    for (const PropertySetting& setting : settings)
      std::visit([&](auto value) { EXPECT_EQ(host.Get<decltype(value)>(object, setting.name), value) << setting.name; },
                 setting.value);
    host.Unlock(object);
  }
}

// Every layout's way into the host and back is checked end to end by tool_effects_test;
// a bitmap in a format the tool never makes must still come out in file order.
TEST(ToolHostBitmapsFromOtherFormats, ComeOutInFileOrder) {
  host::Host host;
  REALobject bitmap = host.NewBitmap(1, 1, 7, 8);  // BGRA: blue first in memory
  ASSERT_NE(bitmap, nullptr);
  const uint8_t bgra[] = {30, 20, 10, 40};
  std::copy(bgra, bgra + 4, host.Bitmap(bitmap).row(0));
  const Image image = ImageFromBitmap(host, bitmap);
  host.Unlock(bitmap);
  ASSERT_EQ(image.layout, Layout::RGBA);
  EXPECT_EQ(image.data, (std::vector<uint8_t>{10, 20, 30, 40}));
}

}  // namespace
}  // namespace rawfx::tool
