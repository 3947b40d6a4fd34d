// The failures the tool reports, each with the exit status it ends with.
#pragma once

#include <stdexcept>
#include <string>

namespace rawfx::tool {

inline constexpr int kExitEffectRefused = 1;  // the effect refused the bitmap or its settings
inline constexpr int kExitBadInput = 2;       // bad usage, or a file that cannot be read or written
inline constexpr int kExitCancelled = 130;    // interrupted with Ctrl-C (128 + SIGINT)

// what() is the one-line message, without the program name.
class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

}  // namespace rawfx::tool
