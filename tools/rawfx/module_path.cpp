#include "tools/rawfx/module_path.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tools/rawfx/tool_error.h"

#ifndef RAWFX_MODULE_FROM_BIN
#error "RAWFX_MODULE_FROM_BIN: the installed module's path relative to the installed tool"
#endif
#if !defined(RAWFX_DATA_FROM_BIN) || !defined(RAWFX_DATA_FROM_BUILD)
#error "RAWFX_DATA_FROM_BIN, RAWFX_DATA_FROM_BUILD: the data directory relative to the installed and the built tool"
#endif
#ifndef RAWFX_MODULE_FROM_BUILD
#error "RAWFX_MODULE_FROM_BUILD: the built module's path relative to the built tool"
#endif

namespace rawfx::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kHowToFix =
    "reinstall rawfx, or name the module with --module PATH or the RAWFX_MODULE environment variable";

ToolError InstallationError(const std::string& reason) {
  return ToolError(kExitInstallation, "installation error: " + reason + "; " + kHowToFix);
}

}  // namespace

fs::path ExecutableDirectory() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? fs::path() : self.parent_path();
}

std::vector<fs::path> DataDirectories() {
  const fs::path directory = ExecutableDirectory();
  return {(directory / RAWFX_DATA_FROM_BIN).lexically_normal(), (directory / RAWFX_DATA_FROM_BUILD).lexically_normal()};
}

std::string FindModule(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* variable = std::getenv("RAWFX_MODULE"); variable && *variable) return variable;
  const fs::path directory = ExecutableDirectory();
  std::string looked;
  for (const char* relative : {RAWFX_MODULE_FROM_BIN, RAWFX_MODULE_FROM_BUILD}) {
    const fs::path candidate = (directory / relative).lexically_normal();
    if (access(candidate.c_str(), R_OK) == 0) return candidate.string();
    looked += (looked.empty() ? "" : " and ") + candidate.string();
  }
  throw InstallationError("the effects module is missing (looked for " + looked + ")");
}

std::unique_ptr<host::Host> LoadHost(const std::string& modulePath, int threads) {
  host::HostOptions options;
  options.modulePath = modulePath;
  options.loadInPlace = true;
  options.threads = threads;
  try {
    return std::make_unique<host::Host>(options);
  } catch (const host::HostError& error) {
    throw InstallationError(error.what());
  } catch (const std::system_error& error) {  // a thread or a file the host could not have
    throw InstallationError(error.what());
  }
}

}  // namespace rawfx::tool
