// The failures the tool reports, each with the exit status it ends with.
#pragma once

#include <stdexcept>
#include <string>

namespace rawfx::tool {

inline constexpr int kExitEffectRefused = 1;  // the effect refused the bitmap or its settings
inline constexpr int kExitBadInput = 2;       // bad usage, or a file that cannot be read or written
inline constexpr int kExitInstallation = 3;   // the effects module cannot be found or loaded
// A run ended by SIGINT, SIGTERM or SIGHUP exits with 128 + the signal (see interrupt.h).

// what() is the one-line message, without the program name.
class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

}  // namespace rawfx::tool
