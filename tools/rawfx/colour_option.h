// Background colours as written on the command line:
//   #RRGGBB, #RRGGBBAA              hexadecimal RGB, optional alpha
//   rgb(r,g,b) rgb(r,g,b,a)         components 0..255 or percentages ("50%")
//   cmyk(c,m,y,k) cmyk(c,m,y,k,a)   ink amounts 0..255 or percentages
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
