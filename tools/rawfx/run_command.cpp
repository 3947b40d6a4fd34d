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
#include "tools/rawfx/pending_file.h"
#include "tools/rawfx/run_files.h"
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

[[noreturn]] void ThrowCancelled() { throw ToolError(InterruptedStatus(), InterruptedMessage()); }

// The output may be none of the files the run reads: writing it would destroy
// an input before, or while, it is read.
void CheckNotAnInput(const EffectCommand& command) {
  const std::pair<const std::string*, const char*> inputs[] = {{&command.input, "the input file"},
                                                               {&command.common.mask, "the mask file"}};
  for (const auto& [input, role] : inputs) {
    std::error_code ignored;
    if (!input->empty() && *input != kStandardStream && command.output != kStandardStream &&
        std::filesystem::equivalent(*input, command.output, ignored)) {
      throw ToolError(kExitBadInput, command.output + " is " + role + "; rawfx never overwrites what it reads");
    }
  }
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
  job.properties = PropertiesOf(command.settings);
  job.backColour = BackColour(command);
  job.mask = mask ? &*mask : nullptr;
  const auto* interlace = std::get_if<InterlaceSettings>(&command.settings);
  job.inPlace = interlace && interlace->inPlace;
  job.async = command.common.async;
  return job;
}

std::string StartLine(const EffectCommand& command, const ImageShape& working, const host::Host& host) {
  const BitmapPlan plan = PlanBitmap(working.layout);
  return std::string(command.effect->title) + ": " + command.input + ", " + Describe(working) + ", bitmap format " +
         plan.format->name + ", " + Threads(host.threads());
}

void ReportEnd(std::ostream& log, const EffectCommand& command, const ImageShape& working, const RunReport& report,
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

// Every check that needs no pixels comes first, so that a mistake costs no work;
// the temporary output file is created only when writing starts.
void RunEffectCommand(host::Host& host, const EffectCommand& command, std::ostream& log,
                      const std::string& progressLabel) {
  const CommonOptions& common = command.common;
  ProgressBar progress(!common.quiet && isatty(STDERR_FILENO), progressLabel);
  const NoteSink note = [&](const std::string& text) { Note(log, progress, common, text); };
  const RowProgress rows = [&](int64_t done, int64_t total) {
    progress.update(done, total);
    return !Interrupted();
  };
  const OutputPlan output = PlanOutput(command);
  CheckNotAnInput(command);
  const WriteOptions encoding = EncodingFor(output.type, common, note);
  try {
    std::optional<PendingFile> file;
    std::unique_ptr<MemoryFile> piped;
    if (output.toStandardOutput) {
      piped = std::make_unique<MemoryFile>("standard output");
    } else {
      file.emplace(command.output, common.force);
    }

    if (common.verbose) Say(log, progress, "reading " + command.input);
    progress.phase("reading", 0);
    InputFile input = OpenInput(command.input, ReadOptions{common.maxPixels, common.page});
    CheckInput(input, output, common, note);
    host.SetThreads(common.threads);
    if (common.async && !command.effect->async) {
      note(std::string(command.effect->title) + " has no asynchronous apply; it runs synchronously");
    }
    HostRef source(host, LoadSource(host, input, common, rows));
    const ImageShape upright = BitmapShape(host, source.get());
    const std::optional<Image> mask = LoadMask(command, upright);

    if (common.verbose) Say(log, progress, StartLine(command, upright, host));
    progress.phase(std::string(command.effect->title), upright.height);
    RunReport report;
    HostRef result(host, RunEffect(host, MakeJob(command, mask), source.get(), progress, &report));
    source.reset(nullptr);  // the result alone is needed from here on

    if (common.verbose) Say(log, progress, "writing " + output.name);
    progress.phase("writing", 0);
    WriteResult(host, result, input, output, encoding, common, piped ? piped->path() : file->temporaryPath(), rows,
                note);
    if (Interrupted()) ThrowCancelled();
    if (piped) {
      CopyToStandardOutput(*piped);
    } else {
      file->commit();
    }
    progress.finish();
    if (common.verbose) ReportEnd(log, command, upright, report, progress);
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
