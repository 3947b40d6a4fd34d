#include <unistd.h>

#include <filesystem>
#include <iomanip>
#include <sstream>

#include "tools/rawfx/command.h"
#include "tools/rawfx/effect_runner.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/pending_file.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

std::string Threads(int count) { return std::to_string(count) + (count == 1 ? " thread" : " threads"); }

std::string Describe(const Image& image) {
  return std::to_string(image.width) + " x " + std::to_string(image.height) + " " + LayoutName(image.layout) + ", " +
         std::to_string(image.depth) + " bits";
}

// Image files that cannot be read are bad input (status 2).
Image Load(const std::string& path, uint64_t maxPixels) {
  try {
    return ReadImage(path, ReadOptions{maxPixels}).image;
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
}

// The output may be none of the files the run reads: writing it would destroy
// an input before, or while, it is read.
void CheckNotAnInput(const EffectCommand& command) {
  const std::pair<const std::string*, const char*> inputs[] = {{&command.input, "the input file"},
                                                               {&command.common.mask, "the mask file"}};
  for (const auto& [input, role] : inputs) {
    std::error_code ignored;
    if (!input->empty() && std::filesystem::equivalent(*input, command.output, ignored)) {
      throw ToolError(kExitBadInput, command.output + " is " + role + "; rawfx never overwrites what it reads");
    }
  }
}

std::optional<Image> LoadMask(const EffectCommand& command, const Image& input) {
  if (command.common.mask.empty() || !command.effect->mask) return std::nullopt;
  Image mask = Load(command.common.mask, command.common.maxPixels);
  if (mask.width != input.width || mask.height != input.height) {
    throw ToolError(kExitBadInput, "the mask " + command.common.mask + " is " + std::to_string(mask.width) + " x " +
                                       std::to_string(mask.height) + " but the input is " +
                                       std::to_string(input.width) + " x " + std::to_string(input.height));
  }
  return ConvertLayout(mask, Layout::Gray);
}

ColourModel ModelNamed(const std::string& name) {
  if (name == "cmyk") return ColourModel::CMYK;
  if (name == "gray" || name == "grey") return ColourModel::Gray;
  return ColourModel::RGB;
}

Image WorkingImage(const Image& input, const CommonOptions& common) {
  Image working = input;
  if (!common.model.empty()) working = ConvertLayout(working, LayoutForModel(working.layout, ModelNamed(common.model)));
  if (common.depth != 0) working = ConvertDepth(working, common.depth);
  return working;
}

std::optional<ColourOption> BackColour(const EffectCommand& command) {
  if (command.common.colour.empty()) return std::nullopt;
  std::string why;
  std::optional<ColourOption> colour = ParseColour(command.common.colour, &why);
  if (!colour) throw ToolError(kExitBadInput, "--color: " + why);
  return colour;
}

// A line for the user, on a line of its own even while the progress bar shows.
void Say(std::ostream& log, ProgressBar& progress, const std::string& line) {
  progress.clearLine();
  log << "rawfx: " << line << '\n' << std::flush;
}

void Note(std::ostream& log, ProgressBar& progress, const CommonOptions& common, const std::string& text) {
  if (!common.quiet) Say(log, progress, "note: " + text);
}

EffectJob MakeJob(const EffectCommand& command, const std::optional<Image>& mask) {
  EffectJob job;
  job.effect = command.effect;
  job.properties = command.properties();
  job.backColour = BackColour(command);
  job.mask = mask ? &*mask : nullptr;
  job.inPlace = command.interlace.inPlace;
  job.async = command.common.async;
  return job;
}

std::string StartLine(const EffectCommand& command, const Image& working, const host::Host& host) {
  const BitmapPlan plan = PlanBitmap(working.layout);
  return std::string(command.effect->title) + ": " + command.input + ", " + Describe(working) + ", bitmap format " +
         plan.format->name + ", " + Threads(host.threads());
}

void ReportEnd(std::ostream& log, const EffectCommand& command, const Image& working, const RunReport& report,
               const ProgressBar& progress) {
  const double megapixels = static_cast<double>(working.width * working.height) / 1e6;
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << "rawfx: " << command.effect->title << ": "
       << (report.ranAsync ? "ApplyAsync" : report.ranInPlace ? "ApplyInPlace" : "Apply") << " took "
       << report.seconds << " s on " << Threads(report.threads) << ", " << std::setprecision(2)
       << (report.seconds > 0 ? megapixels / report.seconds : 0.0) << " megapixels/s; wrote " << command.output
       << std::setprecision(3);
  const char* separator = "\nrawfx: phases: ";
  for (const auto& [phase, seconds] : progress.timings()) {
    line << separator << phase << " " << seconds << " s";
    separator = ", ";
  }
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

FileType OutputType(const CommonOptions& common, const std::string& output) {
  if (!common.format.empty()) {
    if (const std::optional<FileType> type = FileTypeFromExtension("output." + common.format)) return *type;
    throw ToolError(kExitBadInput, "--format: '" + common.format + "' is not a type rawfx writes (png, jpeg, tiff)");
  }
  if (const std::optional<FileType> type = FileTypeFromExtension(output)) return *type;
  throw ToolError(kExitBadInput, "cannot write " + output +
                                     ": the name must end in .png, .jpg, .jpeg, .tif or .tiff, or give --format");
}

// Every check that needs no pixels comes first, so that a mistake costs no work;
// the temporary output file is created only when writing starts.
void RunEffectCommand(host::Host& host, const EffectCommand& command, std::ostream& log,
                      const std::string& progressLabel) {
  const CommonOptions& common = command.common;
  try {
    const FileType outputType = OutputType(common, command.output);
    CheckNotAnInput(command);
    PendingFile output(command.output, common.force);
    ProgressBar progress(!common.quiet && isatty(STDERR_FILENO), progressLabel);

    if (common.verbose) Say(log, progress, "reading " + command.input);
    progress.phase("reading", 0);
    const Image input = Load(command.input, common.maxPixels);
    const std::optional<Image> mask = LoadMask(command, input);
    const Image working = WorkingImage(input, common);
    host.SetThreads(common.threads);
    if (common.async && !command.effect->async) {
      Note(log, progress, common,
           std::string(command.effect->title) + " has no asynchronous apply; it runs synchronously");
    }

    if (common.verbose) Say(log, progress, StartLine(command, working, host));
    progress.phase(std::string(command.effect->title), working.height);
    RunReport report;
    const Image result = RunEffect(host, MakeJob(command, mask), working, progress, &report);

    if (common.verbose) Say(log, progress, "writing " + command.output);
    progress.phase("writing", 0);
    const Fitted fitted = FitForFileType(result, outputType);
    if (!fitted.note.empty()) Note(log, progress, common, command.output + ": " + fitted.note);
    WriteImage(fitted.image, output.temporaryPath(), outputType, WriteOptions{common.jpegQuality}, command.output);
    output.commit();
    progress.finish();
    if (common.verbose) ReportEnd(log, command, working, report, progress);
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
}

void RunInfoCommand(const std::string& path, uint64_t maxPixels, std::ostream& out) {
  ImageFile file;
  try {
    file = ReadImage(path, ReadOptions{maxPixels});
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  const Image& image = file.image;
  const BitmapPlan plan = PlanBitmap(image.layout);
  std::ostringstream text;
  text << path << ": " << FileTypeName(file.type) << '\n'
       << "  size:      " << image.width << " x " << image.height << " (" << std::fixed << std::setprecision(2)
       << static_cast<double>(image.width * image.height) / 1e6 << " megapixels)\n"
       << "  channels:  " << image.channels() << " (" << LayoutName(image.layout) << ")\n"
       << "  depth:     " << image.depth << " bits per channel\n"
       << "  alpha:     " << (HasAlpha(image.layout) ? "yes" : "no") << '\n'
       << "  loads as:  " << plan.format->name << " bitmap (format " << plan.format->code << "), " << image.depth
       << " bits per channel";
  if (plan.layout != image.layout) text << ", " << LayoutName(image.layout) << " widened to " << LayoutName(plan.layout);
  out << text.str() << '\n';
}

}  // namespace rawfx::tool
