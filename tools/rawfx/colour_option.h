// Background colours as written on the command line, as in CSS where CSS has them:
//   red, rebeccapurple, transparent      the CSS colour names, any case
//   #RGB, #RGBA, #RRGGBB, #RRGGBBAA      hexadecimal RGB, optional alpha
//   rgb(r,g,b[,a]), rgba(r,g,b[,a])      components 0..255 or percentages ("50%")
//   cmyk(c,m,y,k[,a])                    ink amounts 0..255 or percentages
// An alpha given in a function is 0..1 or a percentage; 0 is fully transparent.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace rawfx::tool {

struct ColourOption {
  bool cmyk = false;
  std::array<uint8_t, 4> parts{};  // r, g, b (last unused) or c, m, y, k
  uint8_t alpha = 255;
};

// The colour, or nothing with *why set to the reason it was refused.
std::optional<ColourOption> ParseColour(std::string_view text, std::string* why);

}  // namespace rawfx::tool
