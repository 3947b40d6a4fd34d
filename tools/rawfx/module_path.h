// Where the tool finds its effects module: --module PATH, else $RAWFX_MODULE,
// else beside its own executable, where `make install` puts it
// (<prefix>/bin/rawfx and <prefix>/lib/rawfx/rawfx.so) or where the build leaves
// it (build/tools/rawfx/rawfx and build/rawfx.so); and its data files likewise.
#pragma once

#include <filesystem>
#include <string>

#include "host/host.h"

namespace rawfx::tool {

// The directory of the running executable; empty when the system cannot tell.
std::filesystem::path ExecutableDirectory();

// The directories where the tool's data files are: installed, <prefix>/share/rawfx
// beside <prefix>/bin; in the build tree, build/share/rawfx.
std::vector<std::filesystem::path> DataDirectories();

// The module to load; ToolError with status kExitInstallation when none is found.
std::string FindModule(const std::string& option);

// A host with the module (FindModule's answer) loaded once, from its own file, with
// no copy anywhere; ToolError with status kExitInstallation when it cannot be loaded.
std::unique_ptr<host::Host> LoadHost(const std::string& modulePath, int threads);

}  // namespace rawfx::tool
