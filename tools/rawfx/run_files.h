// The files of one effect run: the input opened (header, pages and metadata, no
// pixel yet) and decoded straight into a host bitmap turned upright, and the
// result encoded straight from the effect's bitmap, with the input's metadata, to
// a file or standard output. Decoding and encoding report rows to a RowProgress.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/host.h"
#include "tools/rawfx/command.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/image_io.h"
#include "tools/rawfx/metadata.h"
#include "tools/rawfx/standard_streams.h"

namespace rawfx::tool {

// A note for the user ("rawfx: note: ..."), unless --quiet.
using NoteSink = std::function<void(const std::string& text)>;

// The output's type (its name's extension or --format) and how messages name it.
struct OutputPlan {
  FileType type;
  bool toStandardOutput;  // the output is "-"
  std::string name;
};
OutputPlan PlanOutput(const EffectCommand& command);

// How the output is encoded; options that do not apply to its type are noted, or refused.
WriteOptions EncodingFor(FileType type, const CommonOptions& common, const NoteSink& note);

struct InputFile {
  std::unique_ptr<StandardInput> standardInput;  // when the input is "-"
  std::string name;
  std::unique_ptr<ImageReader> reader;
  Metadata metadata;
  std::string metadataProblem;  // why the metadata could not be read; empty when it could
};

// Opens the input ("-": standard input): its header read and checked against the
// limits, its metadata read. ToolError (status 2) when it cannot be read.
InputFile OpenInput(const std::string& argument, const ReadOptions& options);

// The shape the effect works on: the file's, converted when --model or --depth asks.
ImageShape WorkingShape(const ImageShape& file, const CommonOptions& common);

// Notes what the user should know about the input before the run (pages not used,
// metadata that cannot be kept), and refuses an output type that cannot hold its size.
void CheckInput(const InputFile& input, const OutputPlan& output, const CommonOptions& common, const NoteSink& note);

// The source bitmap (the caller's reference), upright: decoded straight into it, or
// through a converted copy only when --model or --depth asks for a conversion. The
// bitmap is made before decoding, so a picture the host cannot hold is refused at once.
REALobject LoadSource(host::Host& host, InputFile& input, const CommonOptions& common, const RowProgress& rows);

// Encodes the result to the path in the output's type, with the input's metadata
// unless --strip, releasing the result as soon as its pixels are written.
void WriteResult(host::Host& host, HostRef& result, InputFile& input, const OutputPlan& output,
                 WriteOptions encoding, const CommonOptions& common, const std::string& path,
                 const RowProgress& rows, const NoteSink& note);

}  // namespace rawfx::tool
