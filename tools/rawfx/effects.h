// The four effect classes as the tool knows them: what each is called, which
// optional parts it has, its settings with the class's defaults and the ranges
// the tool accepts, and the properties those settings become.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace rawfx::tool {

inline constexpr std::string_view kApply = "Apply(source as RawBitmap) as RawBitmap";
inline constexpr std::string_view kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
inline constexpr std::string_view kApplyAsync =
    "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";

// One property assignment, typed as the class's row declares it: "Boolean" bool,
// "UInt8" uint8_t, "Single" float, "Double" double, enums int64_t.
using PropertyValue = std::variant<bool, uint8_t, float, double, int64_t>;
struct PropertySetting {
  std::string_view name;
  PropertyValue value;
};

// ---- settings, with the defaults a new object of the class has ----

inline constexpr std::string_view kInterlaceTypes[] = {"none", "odd", "even"};  // INTERLACE_NONE/ODD/EVEN

struct InterlaceSettings {
  std::string horizontal = "none";
  std::string vertical = "none";
  bool keepAlpha = false;  // InterlaceAlphaChannel false: alpha is left as it was
  bool inPlace = false;    // ApplyInPlace on the working bitmap instead of Apply
};

struct PolarSettings {
  bool toPolar = true;  // RectangularToPolar
  bool flip = true;     // FlipMapping
};

inline constexpr double kDistortionMin = -1.0, kDistortionMax = 10.0;
inline constexpr double kKeystoneMin = -1.0, kKeystoneMax = 1.0;

struct BarrelSettings {
  double distortion = 0.0;
  double horizontalKeystone = 0.0;
  double verticalKeystone = 0.0;
  bool nearest = false;  // Interpolate false
};

inline constexpr int kBrushMin = 1, kBrushMax = 5;
inline constexpr double kSmoothnessMin = 0.04, kSmoothnessMax = 1.0;

struct OilPaintSettings {
  int brush = 2;
  double smoothness = 0.4;
};

// The tool's settings of one effect: which alternative names the effect.
using EffectSettings = std::variant<InterlaceSettings, PolarSettings, BarrelSettings, OilPaintSettings>;

struct EffectInfo {
  std::string_view command;    // the subcommand, "oilpaint"
  std::string_view className;  // the registered class, "OilPaintEffectRaw"
  std::string_view title;      // for messages, "oil paint"
  std::string_view summary;    // one line for --help
  bool backColour;             // has BackColor
  bool mask;                   // has Mask
  bool async;                  // has ApplyAsync
  bool inPlace;                // has ApplyInPlace
  bool sixteenBit;             // works on 16-bit bitmaps as well as 8-bit ones
  EffectSettings (*newSettings)();  // the settings of a new object of the class
};

std::span<const EffectInfo> Effects();
const EffectInfo* FindEffect(std::string_view command);

std::vector<PropertySetting> PropertiesOf(const InterlaceSettings& settings);
std::vector<PropertySetting> PropertiesOf(const PolarSettings& settings);
std::vector<PropertySetting> PropertiesOf(const BarrelSettings& settings);
std::vector<PropertySetting> PropertiesOf(const OilPaintSettings& settings);
std::vector<PropertySetting> PropertiesOf(const EffectSettings& settings);

// The one-line reason for an effect's error code (read with Host::LastError).
std::string ExplainEffectError(const EffectInfo& effect, int64_t code, int bitsPerChannel);

}  // namespace rawfx::tool
