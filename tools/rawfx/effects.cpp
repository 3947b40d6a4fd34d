#include "tools/rawfx/effects.h"

#include <algorithm>

namespace rawfx::tool {
namespace {

template <class Settings>
EffectSettings New() {
  return Settings{};
}

// clang-format off
constexpr EffectInfo kEffects[] = {
  // command      class                         title               summary                                                                          colour mask   async  inPlace 16-bit settings
  {"interlace",  "InterlaceEffectRaw",         "interlace",        "Fill every other row and/or column with the background colour",                 true,  true,  false, true,  true, &New<InterlaceSettings>},
  {"polar",      "PolarCoordinatesEffectRaw",  "polar coordinates", "Wrap the image around its centre (rectangular to polar) or unroll it",          true,  false, true,  false, true, &New<PolarSettings>},
  {"barrel",     "BarrelDistortEffectRaw",     "barrel distortion", "Barrel or pincushion distortion with horizontal and vertical keystone",         true,  false, true,  false, true, &New<BarrelSettings>},
  {"oilpaint",   "OilPaintEffectRaw",          "oil paint",        "Oil-paint filter: the commonest intensity under a square brush (8-bit images)", false, true,  false, false, false, &New<OilPaintSettings>},
};
// clang-format on

constexpr int64_t kErrorInvalidArgument = 4;
constexpr int64_t kErrorOutOfMemory = 5;
constexpr int64_t kErrorUnsupportedDepth = 6;

int64_t InterlaceTypeCode(const std::string& name) {
  const auto* found = std::find(std::begin(kInterlaceTypes), std::end(kInterlaceTypes), name);
  return found - std::begin(kInterlaceTypes);  // a name outside the list becomes 3, which the class refuses
}

}  // namespace

std::span<const EffectInfo> Effects() { return kEffects; }

const EffectInfo* FindEffect(std::string_view command) {
  for (const EffectInfo& effect : kEffects) {
    if (effect.command == command) return &effect;
  }
  return nullptr;
}

std::vector<PropertySetting> PropertiesOf(const InterlaceSettings& settings) {
  return {
      {"HorizontalInterlaceType", InterlaceTypeCode(settings.horizontal)},
      {"VerticalInterlaceType", InterlaceTypeCode(settings.vertical)},
      {"InterlaceAlphaChannel", !settings.keepAlpha},
  };
}

std::vector<PropertySetting> PropertiesOf(const PolarSettings& settings) {
  return {
      {"RectangularToPolar", settings.toPolar},
      {"FlipMapping", settings.flip},
  };
}

std::vector<PropertySetting> PropertiesOf(const BarrelSettings& settings) {
  return {
      {"Distortion", settings.distortion},
      {"HorizontalKeystone", settings.horizontalKeystone},
      {"VerticalKeystone", settings.verticalKeystone},
      {"Interpolate", !settings.nearest},
  };
}

std::vector<PropertySetting> PropertiesOf(const OilPaintSettings& settings) {
  return {
      {"BrushSize", static_cast<uint8_t>(std::clamp(settings.brush, 0, 255))},
      {"Smoothness", static_cast<float>(settings.smoothness)},
  };
}

std::vector<PropertySetting> PropertiesOf(const EffectSettings& settings) {
  return std::visit([](const auto& s) { return PropertiesOf(s); }, settings);
}

std::string ExplainEffectError(const EffectInfo& effect, int64_t code, int bitsPerChannel) {
  const std::string title(effect.title);
  if (code == kErrorUnsupportedDepth) {
    if (!effect.sixteenBit) return title + " works on 8-bit images; use --depth 8";
    return title + " cannot work on " + std::to_string(bitsPerChannel) + "-bit images; use --depth 8 or --depth 16";
  }
  if (code == kErrorInvalidArgument) return title + " refused the image or its settings (invalid argument, error 4)";
  if (code == kErrorOutOfMemory) return title + " could not get the memory for its run (error 5)";
  if (code == 0) return title + " gave no result";
  return title + " failed with error " + std::to_string(code);
}

}  // namespace rawfx::tool
