#include <unistd.h>

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
  const NoteSink note = [&](const std::string& text) { Note(log, common, text); };
  const OutputPlan output = PlanOutput(command);
  const WriteOptions encoding = EncodingFor(output.type, common, note);
  InputFile input = OpenInput(command.input, ReadOptions{common.maxPixels, common.page});
  CheckInput(input, output, common, note);
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
    RowBar reading(common, "reading");
    HostRef source(host, LoadSource(host, input, common, reading.progress()));
    reading.bar.finish();
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

    RowBar writing(common, "writing");
    WriteResult(host, result, input, output, encoding, common, piped ? piped->path() : file->temporaryPath(),
                writing.progress(), note);
    writing.bar.finish();
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
