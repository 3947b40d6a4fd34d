// The effect and info commands, as parsed from the command line (or written by
// the demo) and run against one host.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "host/host.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/image_io.h"

namespace rawfx::tool {

// Options every effect command takes.
struct CommonOptions {
  std::string colour;  // background colour; empty keeps the class's own
  std::string mask;    // mask image; empty for none
  bool async = false;
  int threads = 0;     // engine workers; 0: one per core
  int depth = 0;       // 8 or 16 converts the working bitmap; 0 keeps the file's depth
  std::string model;   // rgb, cmyk or gray converts the working bitmap; empty keeps the file's
  bool quiet = false;
  bool verbose = false;
  uint64_t maxPixels = kDefaultMaxPixels;
  int jpegQuality = 92;
  bool force = false;  // replace an output file even when it is write-protected
  std::string format;  // png, jpeg or tiff: the output's type; empty: its extension
};

// Many inputs in one run: each result is written as outDir/<input's name>, with
// suffix added to the name's stem and the extension of format when one is given.
struct BatchOptions {
  std::string outDir;  // empty: one INPUT OUTPUT pair
  std::string suffix;
};

struct EffectCommand {
  const EffectInfo* effect = nullptr;
  InterlaceSettings interlace;
  PolarSettings polar;
  BarrelSettings barrel;
  OilPaintSettings oilPaint;
  CommonOptions common;
  std::string input;
  std::string output;
  std::vector<std::string> files;  // as given: INPUT OUTPUT, or the inputs with --out-dir
  BatchOptions batch;

  std::vector<PropertySetting> properties() const;
};

// Reads the input, runs the effect, writes the output through a temporary file.
// ToolError on any failure, after which no output file exists (an earlier file at
// the output path is left as it was). Notes and --verbose lines go to log; the
// progress bar starts with progressLabel.
void RunEffectCommand(host::Host& host, const EffectCommand& command, std::ostream& log,
                      const std::string& progressLabel = {});

// Runs the command on every input (command.files, command.batch): one failed file
// does not stop the others; each failure is reported on its own line and a
// one-line summary ends the run. Returns the exit status: 0 when every file was
// written, else the highest status of a failed file. A signal stops the batch.
int RunBatchCommand(host::Host& host, const EffectCommand& command, std::ostream& log);

// The output type a command asks for: --format, else the output name's extension.
FileType OutputType(const CommonOptions& common, const std::string& output);

// Size, channels, depth, alpha and the host format the file loads as.
void RunInfoCommand(const std::string& path, uint64_t maxPixels, std::ostream& out);

}  // namespace rawfx::tool
