// The command line: rawfx interlace|polar|barrel|oilpaint|demo|info, parsed with CLI11.
#pragma once

#include <string>
#include <vector>

#include "tools/rawfx/command.h"

namespace rawfx::tool {

// Runs the tool; returns its exit status.
int RunCommandLine(int argc, char** argv);

// Parses the words of one effect command ("barrel", "--distortion", "0.5", INPUT,
// OUTPUT) exactly as the command line would; ToolError (status 2) when they are bad.
EffectCommand ParseEffectWords(const std::vector<std::string>& words);

}  // namespace rawfx::tool
