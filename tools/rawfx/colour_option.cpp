#include "tools/rawfx/colour_option.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <vector>

namespace rawfx::tool {
namespace {

struct NamedColour {
  std::string_view name;
  uint32_t rgb;  // 0xRRGGBB
};

// The CSS colour keywords, in alphabetical order.
constexpr NamedColour kNamedColours[] = {
    {"aliceblue", 0xf0f8ff}, {"antiquewhite", 0xfaebd7}, {"aqua", 0x00ffff}, {"aquamarine", 0x7fffd4},
    {"azure", 0xf0ffff}, {"beige", 0xf5f5dc}, {"bisque", 0xffe4c4}, {"black", 0x000000}, {"blanchedalmond", 0xffebcd},
    {"blue", 0x0000ff}, {"blueviolet", 0x8a2be2}, {"brown", 0xa52a2a}, {"burlywood", 0xdeb887},
    {"cadetblue", 0x5f9ea0}, {"chartreuse", 0x7fff00}, {"chocolate", 0xd2691e}, {"coral", 0xff7f50},
    {"cornflowerblue", 0x6495ed}, {"cornsilk", 0xfff8dc}, {"crimson", 0xdc143c}, {"cyan", 0x00ffff},
    {"darkblue", 0x00008b}, {"darkcyan", 0x008b8b}, {"darkgoldenrod", 0xb8860b}, {"darkgray", 0xa9a9a9},
    {"darkgreen", 0x006400}, {"darkgrey", 0xa9a9a9}, {"darkkhaki", 0xbdb76b}, {"darkmagenta", 0x8b008b},
    {"darkolivegreen", 0x556b2f}, {"darkorange", 0xff8c00}, {"darkorchid", 0x9932cc}, {"darkred", 0x8b0000},
    {"darksalmon", 0xe9967a}, {"darkseagreen", 0x8fbc8f}, {"darkslateblue", 0x483d8b}, {"darkslategray", 0x2f4f4f},
    {"darkslategrey", 0x2f4f4f}, {"darkturquoise", 0x00ced1}, {"darkviolet", 0x9400d3}, {"deeppink", 0xff1493},
    {"deepskyblue", 0x00bfff}, {"dimgray", 0x696969}, {"dimgrey", 0x696969}, {"dodgerblue", 0x1e90ff},
    {"firebrick", 0xb22222}, {"floralwhite", 0xfffaf0}, {"forestgreen", 0x228b22}, {"fuchsia", 0xff00ff},
    {"gainsboro", 0xdcdcdc}, {"ghostwhite", 0xf8f8ff}, {"gold", 0xffd700}, {"goldenrod", 0xdaa520},
    {"gray", 0x808080}, {"green", 0x008000}, {"greenyellow", 0xadff2f}, {"grey", 0x808080}, {"honeydew", 0xf0fff0},
    {"hotpink", 0xff69b4}, {"indianred", 0xcd5c5c}, {"indigo", 0x4b0082}, {"ivory", 0xfffff0}, {"khaki", 0xf0e68c},
    {"lavender", 0xe6e6fa}, {"lavenderblush", 0xfff0f5}, {"lawngreen", 0x7cfc00}, {"lemonchiffon", 0xfffacd},
    {"lightblue", 0xadd8e6}, {"lightcoral", 0xf08080}, {"lightcyan", 0xe0ffff}, {"lightgoldenrodyellow", 0xfafad2},
    {"lightgray", 0xd3d3d3}, {"lightgreen", 0x90ee90}, {"lightgrey", 0xd3d3d3}, {"lightpink", 0xffb6c1},
    {"lightsalmon", 0xffa07a}, {"lightseagreen", 0x20b2aa}, {"lightskyblue", 0x87cefa}, {"lightslategray", 0x778899},
    {"lightslategrey", 0x778899}, {"lightsteelblue", 0xb0c4de}, {"lightyellow", 0xffffe0}, {"lime", 0x00ff00},
    {"limegreen", 0x32cd32}, {"linen", 0xfaf0e6}, {"magenta", 0xff00ff}, {"maroon", 0x800000},
    {"mediumaquamarine", 0x66cdaa}, {"mediumblue", 0x0000cd}, {"mediumorchid", 0xba55d3}, {"mediumpurple", 0x9370db},
    {"mediumseagreen", 0x3cb371}, {"mediumslateblue", 0x7b68ee}, {"mediumspringgreen", 0x00fa9a},
    {"mediumturquoise", 0x48d1cc}, {"mediumvioletred", 0xc71585}, {"midnightblue", 0x191970}, {"mintcream", 0xf5fffa},
    {"mistyrose", 0xffe4e1}, {"moccasin", 0xffe4b5}, {"navajowhite", 0xffdead}, {"navy", 0x000080},
    {"oldlace", 0xfdf5e6}, {"olive", 0x808000}, {"olivedrab", 0x6b8e23}, {"orange", 0xffa500},
    {"orangered", 0xff4500}, {"orchid", 0xda70d6}, {"palegoldenrod", 0xeee8aa}, {"palegreen", 0x98fb98},
    {"paleturquoise", 0xafeeee}, {"palevioletred", 0xdb7093}, {"papayawhip", 0xffefd5}, {"peachpuff", 0xffdab9},
    {"peru", 0xcd853f}, {"pink", 0xffc0cb}, {"plum", 0xdda0dd}, {"powderblue", 0xb0e0e6}, {"purple", 0x800080},
    {"rebeccapurple", 0x663399}, {"red", 0xff0000}, {"rosybrown", 0xbc8f8f}, {"royalblue", 0x4169e1},
    {"saddlebrown", 0x8b4513}, {"salmon", 0xfa8072}, {"sandybrown", 0xf4a460}, {"seagreen", 0x2e8b57},
    {"seashell", 0xfff5ee}, {"sienna", 0xa0522d}, {"silver", 0xc0c0c0}, {"skyblue", 0x87ceeb},
    {"slateblue", 0x6a5acd}, {"slategray", 0x708090}, {"slategrey", 0x708090}, {"snow", 0xfffafa},
    {"springgreen", 0x00ff7f}, {"steelblue", 0x4682b4}, {"tan", 0xd2b48c}, {"teal", 0x008080}, {"thistle", 0xd8bfd8},
    {"tomato", 0xff6347}, {"turquoise", 0x40e0d0}, {"violet", 0xee82ee}, {"wheat", 0xf5deb3}, {"white", 0xffffff},
    {"whitesmoke", 0xf5f5f5}, {"yellow", 0xffff00}, {"yellowgreen", 0x9acd32},
};

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::optional<ColourOption> ParseName(std::string_view text) {
  const std::string name = Lower(text);
  if (name == "transparent") return ColourOption{false, {0, 0, 0, 0}, 0};
  const auto* found = std::lower_bound(std::begin(kNamedColours), std::end(kNamedColours), name,
                                       [](const NamedColour& c, const std::string& n) { return c.name < n; });
  if (found == std::end(kNamedColours) || found->name != name) return std::nullopt;
  return ColourOption{false, {uint8_t(found->rgb >> 16), uint8_t(found->rgb >> 8), uint8_t(found->rgb), 0}, 255};
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

std::optional<uint8_t> HexByte(std::string_view two) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(two.data(), two.data() + two.size(), value, 16);
  if (error != std::errc() || end != two.data() + two.size()) return std::nullopt;
  return static_cast<uint8_t>(value);
}

// #RGB, #RGBA, #RRGGBB or #RRGGBBAA; a short form's digit stands for itself twice.
std::optional<ColourOption> ParseHex(std::string_view digits, std::string* why) {
  const size_t size = digits.size();
  if (size != 3 && size != 4 && size != 6 && size != 8) {
    *why = "a hexadecimal colour has 3, 4, 6 or 8 digits (#RGB, #RGBA, #RRGGBB or #RRGGBBAA)";
    return std::nullopt;
  }
  const size_t width = size <= 4 ? 1 : 2;
  ColourOption colour;
  for (size_t i = 0; i < size / width; ++i) {
    const std::string_view piece = digits.substr(i * width, width);
    const std::optional<uint8_t> byte = HexByte(width == 1 ? std::string(2, piece[0]) : std::string(piece));
    if (!byte) {
      *why = "'" + std::string(digits) + "' is not hexadecimal";
      return std::nullopt;
    }
    (i < 3 ? colour.parts[i] : colour.alpha) = *byte;
  }
  return colour;
}

// A number of the whole text, or nothing.
std::optional<double> Number(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// A colour component is 0..255 or a percentage; an alpha, as in CSS, is 0..1 or a
// percentage. Either is rounded to the nearest step of 255.
std::optional<uint8_t> Component(std::string_view text, bool alpha) {
  text = Trim(text);
  const bool percent = !text.empty() && text.back() == '%';
  if (percent) text.remove_suffix(1);
  const std::optional<double> value = Number(text);
  if (!value) return std::nullopt;
  const double scaled = percent ? *value * 255.0 / 100.0 : alpha ? *value * 255.0 : *value;
  if (!(scaled >= 0.0 && scaled <= 255.0) || (!percent && !alpha && *value != std::floor(*value))) return std::nullopt;
  return static_cast<uint8_t>(std::lround(scaled));
}

std::vector<std::string_view> SplitCommas(std::string_view text) {
  std::vector<std::string_view> pieces;
  for (size_t comma; (comma = text.find(',')) != std::string_view::npos; text.remove_prefix(comma + 1)) {
    pieces.push_back(text.substr(0, comma));
  }
  pieces.push_back(text);
  return pieces;
}

std::optional<ColourOption> ParseFunction(std::string_view name, std::string_view inside, std::string* why) {
  const bool cmyk = name == "cmyk";
  const size_t colourParts = cmyk ? 4 : 3;
  const std::vector<std::string_view> pieces = SplitCommas(inside);
  if (pieces.size() != colourParts && pieces.size() != colourParts + 1) {
    *why = std::string(name) + "() takes " + std::to_string(colourParts) + " or " + std::to_string(colourParts + 1) +
           " components";
    return std::nullopt;
  }
  ColourOption colour;
  colour.cmyk = cmyk;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const bool alpha = i == colourParts;
    const std::optional<uint8_t> value = Component(pieces[i], alpha);
    if (!value) {
      *why = "'" + std::string(Trim(pieces[i])) + "' is not " +
             (alpha ? "an alpha 0..1 or 0%..100%" : "a whole number 0..255 or a percentage 0%..100%");
      return std::nullopt;
    }
    (i < colourParts ? colour.parts[i] : colour.alpha) = *value;
  }
  return colour;
}

}  // namespace

std::optional<ColourOption> ParseColour(std::string_view text, std::string* why) {
  text = Trim(text);
  if (!text.empty() && text.front() == '#') return ParseHex(text.substr(1), why);
  const size_t open = text.find('(');
  if (open != std::string_view::npos && text.back() == ')') {
    const std::string name = Lower(Trim(text.substr(0, open)));
    if (name == "rgb" || name == "rgba" || name == "cmyk") {
      return ParseFunction(name, text.substr(open + 1, text.size() - open - 2), why);
    }
  }
  if (std::optional<ColourOption> named = ParseName(text)) return named;
  *why = "'" + std::string(text) +
         "' is not a colour: use a name (red, transparent), #RGB[A], #RRGGBB[AA], rgb(r,g,b[,a]) or cmyk(c,m,y,k[,a])";
  return std::nullopt;
}

}  // namespace rawfx::tool
