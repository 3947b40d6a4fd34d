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
  bool force = false;  // replace an output file even when it is write-protected

  // Files: output type and encoding, metadata, pages.
  std::string format;    // png, jpeg, tiff or webp: the output's type (needed when the output is "-")
  int quality = 0;       // JPEG and lossy WebP, 1..100; 0: the type's default
  bool lossless = false; // WebP
  int level = -1;        // PNG and deflate TIFF compression level 0..9; -1: the library's default
  std::string compress;  // TIFF: none, deflate, lzw or zstd; empty: deflate
  bool strip = false;    // write no metadata
  int page = 0;          // the TIFF page to read, from 1; 0: the first
};

// Many inputs in one run: each result is written as outDir/<input's name>, with
// suffix added to the name's stem and the extension of format when one is given.
struct BatchOptions {
  std::string outDir;  // empty: one INPUT OUTPUT pair
  std::string suffix;
};

struct EffectCommand {
  const EffectInfo* effect = nullptr;
  EffectSettings settings;  // the effect's own
  CommonOptions common;
  std::string input;
  std::string output;
  std::vector<std::string> files;  // as given: INPUT OUTPUT, or the inputs with --out-dir
  BatchOptions batch;
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

// Size, channels, depth, alpha, pages, resolution, metadata and the host format the
// file loads as, from its header and metadata alone (no pixel is decoded).
void RunInfoCommand(const std::string& path, uint64_t maxPixels, std::ostream& out);

}  // namespace rawfx::tool
