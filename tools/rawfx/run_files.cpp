#include "tools/rawfx/run_files.h"

#include <filesystem>

#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

// The most bytes piped input may take: an image within maxPixels stored plainly
// (at most five 16-bit samples a pixel) twice over, for a second page or a
// preview, and 64 MiB of metadata and container.
uint64_t LargestImageFile(uint64_t maxPixels) { return maxPixels * 10 * 2 + (uint64_t{64} << 20); }

ColourModel ModelNamed(const std::string& name) {
  if (name == "cmyk") return ColourModel::CMYK;
  if (name == "gray" || name == "grey") return ColourModel::Gray;
  return ColourModel::RGB;
}

[[noreturn]] void ThrowCancelled() { throw ToolError(InterruptedStatus(), InterruptedMessage()); }

const char* ProfileSpaceOf(Layout layout) {
  switch (layout) {
    case Layout::Gray:
    case Layout::GrayAlpha: return "GRAY";
    case Layout::CMYK: return "CMYK";
    default: return "RGB";
  }
}

// A profile describes one colour model; written with pixels of another it would be
// wrong, so it is dropped and the run says why.
void KeepMatchingProfile(Metadata& metadata, const ImageShape& stored, const OutputPlan& output,
                         const NoteSink& note) {
  const std::string space = metadata.iccColourSpace();
  if (space.empty() || space == ProfileSpaceOf(stored.layout)) return;
  metadata.dropIcc();
  note(output.name + ": the input's ICC profile is for " + space + " colour but the output holds " +
                        LayoutName(stored.layout) + " pixels (--model, or what " + FileTypeName(output.type) +
                        " can hold): the profile is not written");
}

// The file's own resolution field, else EXIF's, along the upright picture's axes.
Resolution UprightResolution(const ImageReader& reader, const Metadata& metadata) {
  Resolution resolution = reader.resolution.known() ? reader.resolution : metadata.resolution();
  if (OrientationOf(metadata.orientation()).transposed) std::swap(resolution.x, resolution.y);
  return resolution;
}

}  // namespace

OutputPlan PlanOutput(const EffectCommand& command) {
  const std::string& format = command.common.format;
  const std::optional<FileType> asked = FileTypeNamed(format);  // nothing when --format is not given
  if (command.output == kStandardStream) {
    if (!asked) {
      throw ToolError(kExitBadInput,
                      "the output - is standard output: give its type with --format png, jpeg, tiff or webp");
    }
    return {*asked, true, "standard output"};
  }
  const std::optional<FileType> named = FileTypeFromExtension(command.output);
  if (!named && !asked) {
    throw ToolError(kExitBadInput, "cannot write " + command.output +
                                       ": the name must end in .png, .jpg, .jpeg, .tif, .tiff or .webp, or "
                                       "--format must give the type");
  }
  if (named && asked && *named != *asked) {
    throw ToolError(kExitBadInput, "--format " + format + " does not match the output name " + command.output +
                                       ", which names a " + FileTypeName(*named) + " file");
  }
  return {named.value_or(asked.value_or(FileType::PNG)), false, command.output};
}

WriteOptions EncodingFor(FileType type, const CommonOptions& common, const NoteSink& note) {
  const bool lossy = type == FileType::JPEG || (type == FileType::WebP && !common.lossless);
  if (common.lossless && type == FileType::JPEG) {
    throw ToolError(kExitBadInput, "--lossless: JPEG is always lossy; write PNG, TIFF or WebP instead");
  }
  const std::string output = std::string(FileTypeName(type)) + " output";
  if (common.quality != 0 && !lossy) note("--quality does not apply to lossless " + output);
  if (!common.compress.empty() && type != FileType::TIFF) note("--compress applies to TIFF output only");
  WriteOptions options;
  options.quality = common.quality;
  options.lossless = common.lossless;
  options.level = common.level;
  if (!common.compress.empty()) options.compression = *TiffCompressionNamed(common.compress);
  const bool leveled = type == FileType::PNG || (type == FileType::TIFF && options.compression == TiffCompression::Deflate);
  if (common.level >= 0 && !leveled) note("--level applies to PNG and deflate TIFF output only");
  return options;
}

InputFile OpenInput(const std::string& argument, const ReadOptions& options) {
  InputFile input;
  const bool piped = argument == kStandardStream;
  input.name = piped ? "standard input" : argument;
  try {
    if (piped) input.standardInput = std::make_unique<StandardInput>(LargestImageFile(options.maxPixels));
    const std::string& path = piped ? input.standardInput->path() : argument;
    input.reader = OpenImage(path, options, input.name);
    input.metadata = Metadata::Read(path, &input.metadataProblem);
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  return input;
}

ImageShape WorkingShape(const ImageShape& file, const CommonOptions& common) {
  ImageShape working = file;
  if (!common.model.empty()) working.layout = LayoutForModel(file.layout, ModelNamed(common.model));
  if (common.depth != 0) working.depth = common.depth;
  return working;
}

REALobject LoadSource(host::Host& host, InputFile& input, const CommonOptions& common, const RowProgress& rows) {
  ImageReader& reader = *input.reader;
  const ImageShape working = WorkingShape(reader.shape, common);
  HostRef bitmap(host, NewBitmapForShape(host, working));
  try {
    if (working.layout == reader.shape.layout && working.depth == reader.shape.depth) {
      DecodeIntoBitmap(host, bitmap.get(), reader, rows);
    } else {
      Image decoded = Image::Blank(reader.shape);
      reader.read(decoded.data.data(), decoded.rowBytes(), rows);
      FillBitmap(host, bitmap.get(), ConvertTo(decoded, working));
    }
  } catch (const ImageError& error) {
    if (Interrupted()) ThrowCancelled();
    throw ToolError(kExitBadInput, error.what());
  }
  bitmap.reset(Orient(host, bitmap.get(), OrientationOf(input.metadata.orientation())));
  return bitmap.release();
}

void CheckInput(const InputFile& input, const OutputPlan& output, const CommonOptions& common, const NoteSink& note) {
  if (!input.metadataProblem.empty() && !common.strip) {
    note(input.name + ": its metadata cannot be read (" + input.metadataProblem + "); none is kept");
  }
  if (input.reader->pages > 1) {
    note(input.name + " has " + std::to_string(input.reader->pages) + " pages; page " +
         std::to_string(std::max(common.page, 1)) + " was used (choose one with --page)");
  }
  const ImageShape working = WorkingShape(input.reader->shape, common);
  if (const std::string refused = SizeRefusedBy(working, output.type); !refused.empty()) {
    throw ToolError(kExitBadInput, "cannot write " + output.name + ": " + refused);
  }
}

void WriteResult(host::Host& host, HostRef& result, InputFile& input, const OutputPlan& output,
                 WriteOptions encoding, const CommonOptions& common, const std::string& path,
                 const RowProgress& rows, const NoteSink& note) {
  const RowSource source = BitmapRows(host, result.get(), output.type);
  const std::string fitNote = FitNote(BitmapShape(host, result.get()), output.type);
  if (!fitNote.empty()) note(output.name + ": " + fitNote);
  MetadataBlocks blocks;
  if (!common.strip) {
    encoding.resolution = UprightResolution(*input.reader, input.metadata);
    KeepMatchingProfile(input.metadata, source.shape, output, note);
    blocks = input.metadata.blocks(source.shape);
    encoding.metadata = &blocks;
  }
  try {
    WriteRows(source, path, output.type, encoding, output.name, rows);
    result.reset(nullptr);
    if (!common.strip && output.type == FileType::TIFF) input.metadata.addToTiff(path, source.shape, output.name);
  } catch (const ImageError& error) {
    if (Interrupted()) ThrowCancelled();
    throw ToolError(kExitBadInput, error.what());
  }
}

}  // namespace rawfx::tool
