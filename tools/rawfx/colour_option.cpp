#include "tools/rawfx/colour_option.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <vector>

namespace rawfx::tool {
namespace {

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

std::optional<ColourOption> ParseHex(std::string_view digits, std::string* why) {
  if (digits.size() != 6 && digits.size() != 8) {
    *why = "a hexadecimal colour has 6 or 8 digits (#RRGGBB or #RRGGBBAA)";
    return std::nullopt;
  }
  ColourOption colour;
  for (size_t i = 0; i < digits.size() / 2; ++i) {
    const std::optional<uint8_t> byte = HexByte(digits.substr(2 * i, 2));
    if (!byte) {
      *why = "'" + std::string(digits) + "' is not hexadecimal";
      return std::nullopt;
    }
    (i < 3 ? colour.parts[i] : colour.alpha) = *byte;
  }
  return colour;
}

// 0..255, or a percentage of 255 rounded to the nearest step.
std::optional<uint8_t> Component(std::string_view text) {
  text = Trim(text);
  const bool percent = !text.empty() && text.back() == '%';
  if (percent) text.remove_suffix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  const double scaled = percent ? value * 255.0 / 100.0 : value;
  if (!(scaled >= 0.0 && scaled <= 255.0) || (!percent && value != std::floor(value))) return std::nullopt;
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
    const std::optional<uint8_t> value = Component(pieces[i]);
    if (!value) {
      *why = "'" + std::string(Trim(pieces[i])) + "' is not a whole number 0..255 or a percentage 0%..100%";
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
    const std::string_view name = Trim(text.substr(0, open));
    if (name == "rgb" || name == "cmyk") return ParseFunction(name, text.substr(open + 1, text.size() - open - 2), why);
  }
  *why = "'" + std::string(text) + "' is not a colour: use #RRGGBB[AA], rgb(r,g,b[,a]) or cmyk(c,m,y,k[,a])";
  return std::nullopt;
}

}  // namespace rawfx::tool
