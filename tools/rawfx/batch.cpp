// rawfx EFFECT [OPTIONS] INPUT... --out-dir DIR: one host, one module load, every
// input in turn; a file that fails is reported and the run goes on.
#include <filesystem>
#include <algorithm>
#include <map>
#include <sstream>

#include "host/host.h"
#include "tools/rawfx/command.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

namespace fs = std::filesystem;

// DIR/<stem><suffix>.<extension>, the extension being --format's when given.
std::string OutputFor(const std::string& input, const EffectCommand& command) {
  const fs::path name = fs::path(input).filename();
  const std::string extension =
      command.common.format.empty() ? name.extension().string() : "." + command.common.format;
  return (fs::path(command.batch.outDir) / (name.stem().string() + command.batch.suffix + extension)).string();
}

// Refused before any work: two inputs that would write one output, and an output
// that is one of the inputs (it would be overwritten before it is read).
void CheckOutputs(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
  std::map<std::string, std::string> firstInputOf;
  for (size_t i = 0; i < outputs.size(); ++i) {
    const auto [found, added] = firstInputOf.emplace(fs::path(outputs[i]).lexically_normal().string(), inputs[i]);
    if (!added) {
      throw ToolError(kExitBadInput, inputs[i] + " and " + found->second + " would both be written to " + outputs[i] +
                                         "; use --suffix, or run them separately");
    }
    for (const std::string& input : inputs) {
      std::error_code ignored;
      if (fs::equivalent(input, outputs[i], ignored)) {
        throw ToolError(kExitBadInput, outputs[i] + " is the input file " + input + "; rawfx never overwrites what it reads");
      }
    }
  }
}

void EnsureDirectory(const std::string& directory) {
  std::error_code error;
  fs::create_directories(directory, error);
  if (error) throw ToolError(kExitBadInput, "cannot create " + directory + ": " + error.message());
}

}  // namespace

int RunBatchCommand(host::Host& host, const EffectCommand& command, std::ostream& log) {
  const std::vector<std::string>& inputs = command.files;
  std::vector<std::string> outputs;
  for (const std::string& input : inputs) outputs.push_back(OutputFor(input, command));
  CheckOutputs(inputs, outputs);
  EnsureDirectory(command.batch.outDir);

  const size_t count = inputs.size();
  std::vector<std::string> failed;
  int status = 0;
  for (size_t i = 0; i < count; ++i) {
    EffectCommand one = command;
    one.input = inputs[i];
    one.output = outputs[i];
    const std::string label = "[" + std::to_string(i + 1) + "/" + std::to_string(count) + "] " +
                              fs::path(inputs[i]).filename().string();
    try {
      RunEffectCommand(host, one, log, label);
    } catch (const ToolError& error) {
      log << "rawfx: " << error.what() << '\n';
      if (Interrupted()) return error.status();
      failed.push_back(inputs[i]);
      status = std::max(status, error.status());
    } catch (const host::HostError& error) {
      log << "rawfx: " << inputs[i] << ": " << error.what() << '\n';
      failed.push_back(inputs[i]);
      status = std::max(status, kExitEffectRefused);
    }
  }
  if (!command.common.quiet || !failed.empty()) {
    std::ostringstream summary;
    summary << "rawfx: " << command.effect->title << ": " << count - failed.size() << " of " << count
            << (count == 1 ? " file" : " files") << " written to " << command.batch.outDir;
    if (!failed.empty()) {
      summary << "; " << failed.size() << " failed:";
      for (const std::string& input : failed) summary << ' ' << input;
    }
    log << summary.str() << '\n';
  }
  return status;
}

}  // namespace rawfx::tool
