#include <unistd.h>

#include <filesystem>
#include <iomanip>
#include <memory>
#include <sstream>

#include "tools/rawfx/command.h"
#include "tools/rawfx/effect_runner.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/metadata.h"
#include "tools/rawfx/pending_file.h"
#include "tools/rawfx/standard_streams.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

std::string Threads(int count) { return std::to_string(count) + (count == 1 ? " thread" : " threads"); }

std::string Describe(const ImageShape& shape) {
  return std::to_string(shape.width) + " x " + std::to_string(shape.height) + " " + LayoutName(shape.layout) + ", " +
         std::to_string(shape.depth) + " bits";
}

// Image files that cannot be read are bad input (status 2).
Image Load(const std::string& path, uint64_t maxPixels) {
  try {
    return ReadImage(path, ReadOptions{maxPixels}).image;
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
}

void Note(std::ostream& log, const CommonOptions& common, const std::string& text) {
  if (!common.quiet) log << "rawfx: note: " << text << '\n';
}

[[noreturn]] void ThrowCancelled() { throw ToolError(kExitCancelled, "interrupted; nothing was written"); }

// Reading and writing report their rows to a bar of their own and stop on Ctrl-C.
struct RowBar {
  ProgressBar bar;
  RowBar(const CommonOptions& common, const std::string& label)
      : bar(!common.quiet && isatty(STDERR_FILENO), label) {}
  RowProgress progress() {
    return [this](int64_t done, int64_t total) {
      bar.update(done, total);
      return !Interrupted();
    };
  }
};

// The output's type and how messages name it.
struct OutputPlan {
  FileType type;
  bool toStandardOutput;
  std::string name;
};

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
  std::error_code ignored;
  if (command.input != kStandardStream && std::filesystem::equivalent(command.input, command.output, ignored)) {
    throw ToolError(kExitBadInput, command.output + " is the input file; rawfx never overwrites its input");
  }
  return {named.value_or(asked.value_or(FileType::PNG)), false, command.output};
}

// How the output is encoded; options that do not apply to its type are noted or refused.
WriteOptions EncodingFor(FileType type, const CommonOptions& common, std::ostream& log) {
  const bool lossy = type == FileType::JPEG || (type == FileType::WebP && !common.lossless);
  if (common.lossless && type == FileType::JPEG) {
    throw ToolError(kExitBadInput, "--lossless: JPEG is always lossy; write PNG, TIFF or WebP instead");
  }
  const std::string output = std::string(FileTypeName(type)) + " output";
  if (common.quality != 0 && !lossy) Note(log, common, "--quality does not apply to lossless " + output);
  if (!common.compress.empty() && type != FileType::TIFF) Note(log, common, "--compress applies to TIFF output only");
  WriteOptions options;
  options.quality = common.quality;
  options.lossless = common.lossless;
  options.level = common.level;
  if (!common.compress.empty()) options.compression = *TiffCompressionNamed(common.compress);
  const bool leveled = type == FileType::PNG || (type == FileType::TIFF && options.compression == TiffCompression::Deflate);
  if (common.level >= 0 && !leveled) Note(log, common, "--level applies to PNG and deflate TIFF output only");
  return options;
}

// The input file opened: header read and checked, metadata read, no pixel decoded.
struct InputFile {
  std::unique_ptr<StandardInput> standardInput;
  std::string name;
  std::unique_ptr<ImageReader> reader;
  Metadata metadata;
  std::string metadataProblem;  // why the metadata could not be read; empty when it could
};

InputFile OpenInput(const std::string& argument, const ReadOptions& options) {
  InputFile input;
  const bool piped = argument == kStandardStream;
  input.name = piped ? "standard input" : argument;
  try {
    if (piped) input.standardInput = std::make_unique<StandardInput>();
    const std::string& path = piped ? input.standardInput->path() : argument;
    input.reader = OpenImage(path, options, input.name);
    input.metadata = Metadata::Read(path, &input.metadataProblem);
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  return input;
}

ColourModel ModelNamed(const std::string& name) {
  if (name == "cmyk") return ColourModel::CMYK;
  if (name == "gray" || name == "grey") return ColourModel::Gray;
  return ColourModel::RGB;
}

ImageShape WorkingShape(const ImageShape& file, const CommonOptions& common) {
  ImageShape working = file;
  if (!common.model.empty()) working.layout = LayoutForModel(file.layout, ModelNamed(common.model));
  if (common.depth != 0) working.depth = common.depth;
  return working;
}

// The source bitmap, upright: decoded straight into it, or through a converted
// copy only when --model or --depth asks for a conversion. The bitmap is made
// before decoding, so a picture the host cannot hold is refused at once.
REALobject LoadSource(host::Host& host, InputFile& input, const CommonOptions& common) {
  ImageReader& reader = *input.reader;
  const ImageShape working = WorkingShape(reader.shape, common);
  HostRef bitmap(host, NewBitmapForShape(host, working));
  RowBar reading(common, "reading");
  try {
    if (working.layout == reader.shape.layout && working.depth == reader.shape.depth) {
      DecodeIntoBitmap(host, bitmap.get(), reader, reading.progress());
    } else {
      Image decoded = Image::Blank(reader.shape);
      reader.read(decoded.data.data(), decoded.rowBytes(), reading.progress());
      FillBitmap(host, bitmap.get(), ConvertTo(decoded, working));
    }
  } catch (const ImageError& error) {
    if (Interrupted()) ThrowCancelled();
    throw ToolError(kExitBadInput, error.what());
  }
  reading.bar.finish();
  bitmap.reset(Orient(host, bitmap.get(), OrientationOf(input.metadata.orientation())));
  return bitmap.release();
}

std::optional<Image> LoadMask(const EffectCommand& command, const ImageShape& input) {
  if (command.common.mask.empty() || !command.effect->mask) return std::nullopt;
  Image mask = Load(command.common.mask, command.common.maxPixels);
  if (mask.width != input.width || mask.height != input.height) {
    throw ToolError(kExitBadInput, "the mask " + command.common.mask + " is " + std::to_string(mask.width) + " x " +
                                       std::to_string(mask.height) + " but the input is " +
                                       std::to_string(input.width) + " x " + std::to_string(input.height));
  }
  return ConvertLayout(mask, Layout::Gray);
}

std::optional<ColourOption> BackColour(const EffectCommand& command) {
  if (command.common.colour.empty()) return std::nullopt;
  std::string why;
  std::optional<ColourOption> colour = ParseColour(command.common.colour, &why);
  if (!colour) throw ToolError(kExitBadInput, "--color: " + why);
  return colour;
}

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
                         const CommonOptions& common, std::ostream& log) {
  const std::string space = metadata.iccColourSpace();
  if (space.empty() || space == ProfileSpaceOf(stored.layout)) return;
  metadata.dropIcc();
  Note(log, common, output.name + ": the input's ICC profile is for " + space + " colour but the output holds " +
                        LayoutName(stored.layout) + " pixels (--model, or what " + FileTypeName(output.type) +
                        " can hold): the profile is not written");
}

// The file's own resolution field, else EXIF's, along the upright picture's axes.
Resolution UprightResolution(const ImageReader& reader, const Metadata& metadata) {
  Resolution resolution = reader.resolution.known() ? reader.resolution : metadata.resolution();
  if (OrientationOf(metadata.orientation()).transposed) std::swap(resolution.x, resolution.y);
  return resolution;
}

void ReportStart(std::ostream& log, const EffectCommand& command, const ImageShape& working, const host::Host& host) {
  const BitmapPlan plan = PlanBitmap(working.layout);
  log << "rawfx: " << command.effect->title << ": " << command.input << ", " << Describe(working)
      << ", bitmap format " << plan.format->name << ", " << Threads(host.threads()) << '\n'
      << std::flush;
}

void ReportEnd(std::ostream& log, const EffectCommand& command, const ImageShape& working, const RunReport& report) {
  const double megapixels = static_cast<double>(working.width * working.height) / 1e6;
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << "rawfx: " << command.effect->title << ": "
       << (report.ranAsync ? "ApplyAsync" : report.ranInPlace ? "ApplyInPlace" : "Apply") << " took "
       << report.seconds << " s on " << Threads(report.threads) << ", " << std::setprecision(2)
       << (report.seconds > 0 ? megapixels / report.seconds : 0.0) << " megapixels/s; wrote " << command.output;
  log << line.str() << '\n';
}

}  // namespace

std::vector<PropertySetting> EffectCommand::properties() const {
  const std::string_view name = effect->command;
  if (name == "interlace") return PropertiesOf(interlace);
  if (name == "polar") return PropertiesOf(polar);
  if (name == "barrel") return PropertiesOf(barrel);
  return PropertiesOf(oilPaint);
}

void RunEffectCommand(host::Host& host, const EffectCommand& command, std::ostream& log) {
  const CommonOptions& common = command.common;
  const OutputPlan output = PlanOutput(command);
  WriteOptions encoding = EncodingFor(output.type, common, log);
  InputFile input = OpenInput(command.input, ReadOptions{common.maxPixels, common.page});
  if (!input.metadataProblem.empty() && !common.strip) {
    Note(log, common, input.name + ": its metadata cannot be read (" + input.metadataProblem + "); none is kept");
  }
  if (input.reader->pages > 1) {
    Note(log, common, input.name + " has " + std::to_string(input.reader->pages) + " pages; page " +
                          std::to_string(std::max(common.page, 1)) + " was used (choose one with --page)");
  }
  const ImageShape working = WorkingShape(input.reader->shape, common);
  if (const std::string refused = SizeRefusedBy(working, output.type); !refused.empty()) {
    throw ToolError(kExitBadInput, "cannot write " + output.name + ": " + refused);
  }
  host.SetThreads(common.threads);
  if (common.async && !command.effect->async) {
    Note(log, common, std::string(command.effect->title) + " has no asynchronous apply; it runs synchronously");
  }

  try {
    // Created before the run, so an unwritable destination fails before any work.
    std::optional<PendingFile> file;
    std::unique_ptr<MemoryFile> piped;
    if (output.toStandardOutput) {
      piped = std::make_unique<MemoryFile>("standard output");
    } else {
      file.emplace(command.output);
    }
    HostRef source(host, LoadSource(host, input, common));
    const ImageShape upright = BitmapShape(host, source.get());
    const std::optional<Image> mask = LoadMask(command, upright);

    EffectJob job;
    job.effect = command.effect;
    job.properties = command.properties();
    job.backColour = BackColour(command);
    job.mask = mask ? &*mask : nullptr;
    job.inPlace = command.interlace.inPlace;
    job.async = common.async;

    if (common.verbose) ReportStart(log, command, upright, host);
    RunReport report;
    HostRef result(host, nullptr);
    {
      ProgressBar progress(!common.quiet && isatty(STDERR_FILENO), std::string(command.effect->title));
      result.reset(RunEffect(host, job, source.get(), progress, &report));
    }
    source.reset(nullptr);  // the result alone is needed from here on

    const RowSource rows = BitmapRows(host, result.get(), output.type);
    const std::string fitNote = FitNote(BitmapShape(host, result.get()), output.type);
    if (!fitNote.empty()) Note(log, common, output.name + ": " + fitNote);
    MetadataBlocks blocks;
    if (!common.strip) {
      encoding.resolution = UprightResolution(*input.reader, input.metadata);
      KeepMatchingProfile(input.metadata, rows.shape, output, common, log);
      blocks = input.metadata.blocks(rows.shape);
      encoding.metadata = &blocks;
    }
    const std::string& temporary = piped ? piped->path() : file->temporaryPath();
    RowBar writing(common, "writing");
    WriteRows(rows, temporary, output.type, encoding, output.name, writing.progress());
    writing.bar.finish();
    result.reset(nullptr);
    if (!common.strip && output.type == FileType::TIFF) input.metadata.addToTiff(temporary, rows.shape, output.name);
    if (Interrupted()) ThrowCancelled();
    if (piped) {
      CopyToStandardOutput(*piped);
    } else {
      file->commit();
    }
    if (common.verbose) ReportEnd(log, command, upright, report);
  } catch (const ImageError& error) {
    if (Interrupted()) ThrowCancelled();
    throw ToolError(kExitBadInput, error.what());
  }
}

void RunInfoCommand(const std::string& path, uint64_t maxPixels, std::ostream& out) {
  const InputFile input = OpenInput(path, ReadOptions{maxPixels});
  const ImageShape& shape = input.reader->shape;
  const BitmapPlan plan = PlanBitmap(shape.layout);
  std::ostringstream text;
  text << input.name << ": " << FileTypeName(input.reader->type) << '\n'
       << "  size:      " << shape.width << " x " << shape.height << " (" << std::fixed << std::setprecision(2)
       << static_cast<double>(shape.width * shape.height) / 1e6 << " megapixels)\n"
       << "  channels:  " << shape.channels() << " (" << LayoutName(shape.layout) << ")\n"
       << "  depth:     " << shape.depth << " bits per channel\n"
       << "  alpha:     " << (HasAlpha(shape.layout) ? "yes" : "no") << '\n'
       << "  loads as:  " << plan.format->name << " bitmap (format " << plan.format->code << "), " << shape.depth
       << " bits per channel";
  if (plan.layout != shape.layout) text << ", " << LayoutName(shape.layout) << " widened to " << LayoutName(plan.layout);
  text << '\n';
  if (input.reader->pages > 1) text << "  pages:     " << input.reader->pages << '\n';
  const Resolution resolution =
      input.reader->resolution.known() ? input.reader->resolution : input.metadata.resolution();
  if (resolution.known()) {
    text << std::setprecision(0) << "  resolution: " << resolution.x << " x " << resolution.y
         << (resolution.perCentimetre ? " pixels per cm\n" : " dpi\n");
  }
  for (const auto& [label, value] : input.metadata.describe()) text << "  " << label << ": " << value << '\n';
  if (!input.metadataProblem.empty()) text << "  metadata:  unreadable: " << input.metadataProblem << '\n';
  out << text.str();
}

}  // namespace rawfx::tool
