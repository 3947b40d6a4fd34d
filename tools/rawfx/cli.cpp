#include "tools/rawfx/cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <new>
#include <system_error>
#include <sstream>

#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/demo.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

constexpr const char* kVersion = "rawfx 1.0";
constexpr const char* kExitStatusFooter =
    "Exit status: 0 done; 1 the effect refused the image or its settings; 2 bad usage, or a file that cannot be\n"
    "read or written; 130 interrupted with Ctrl-C. Nothing is written unless the run completes.";

const CLI::Validator kColourCheck(
    [](std::string& text) {
      std::string why;
      return ParseColour(text, &why) ? std::string() : why;
    },
    "COLOUR");

// Like CLI::Range, but a NaN is refused too (every comparison with it is false).
CLI::Validator FiniteRange(double min, double max) {
  std::ostringstream range;
  range << "[" << min << " - " << max << "]";
  return CLI::Validator(
      [min, max, bounds = range.str()](std::string& text) -> std::string {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !(value >= min && value <= max)) {
          return "Value " + text + " not in range " + bounds;
        }
        return {};
      },
      "FLOAT in " + range.str());
}

void AddInterlaceOptions(CLI::App& app, InterlaceSettings& s) {
  const std::vector<std::string> types(std::begin(kInterlaceTypes), std::end(kInterlaceTypes));
  app.add_option("--horizontal", s.horizontal, "Rows to fill: none, odd (1st, 3rd, ...) or even (2nd, 4th, ...)")
      ->check(CLI::IsMember(types))
      ->capture_default_str();
  app.add_option("--vertical", s.vertical, "Columns to fill: none, odd or even")
      ->check(CLI::IsMember(types))
      ->capture_default_str();
  app.add_flag("--keep-alpha", s.keepAlpha,
               "Keep the alpha channel as it is (InterlaceAlphaChannel false); by default it is filled too");
  app.add_flag("--in-place", s.inPlace, "Change the working bitmap with ApplyInPlace instead of Apply");
}

void AddPolarOptions(CLI::App& app, PolarSettings& s) {
  app.add_flag("--to-polar,!--to-rect", s.toPolar,
               "Rectangular to polar (the default), or --to-rect: polar to rectangular");
  app.add_flag("--flip,!--no-flip", s.flip, "Angles run the other way round (FlipMapping, on by default)");
}

void AddBarrelOptions(CLI::App& app, BarrelSettings& s) {
  app.add_option("--distortion", s.distortion, "Barrel (> 0) or pincushion (< 0) distortion")
      ->check(FiniteRange(kDistortionMin, kDistortionMax))
      ->capture_default_str();
  app.add_option("--hkeystone", s.horizontalKeystone, "Horizontal keystone correction")
      ->check(FiniteRange(kKeystoneMin, kKeystoneMax))
      ->capture_default_str();
  app.add_option("--vkeystone", s.verticalKeystone, "Vertical keystone correction")
      ->check(FiniteRange(kKeystoneMin, kKeystoneMax))
      ->capture_default_str();
  app.add_flag("--nearest", s.nearest, "Nearest-sample instead of bilinear sampling (Interpolate false)");
}

void AddOilPaintOptions(CLI::App& app, OilPaintSettings& s) {
  app.add_option("--brush", s.brush, "Brush size: the square brush reaches this many pixels out")
      ->check(CLI::Range(kBrushMin, kBrushMax))
      ->capture_default_str();
  app.add_option("--smoothness", s.smoothness, "Smoothness: fewer intensity levels at lower values")
      ->check(FiniteRange(kSmoothnessMin, kSmoothnessMax))
      ->capture_default_str();
}

// How files are read and written: output type and encoding, metadata, pages.
void AddFileOptions(CLI::App& app, CommonOptions& c) {
  const std::string group = "File options";
  app.add_option("--format", c.format, "Output type: png, jpeg, tiff or webp (needed when OUTPUT is -)")
      ->check(CLI::IsMember({"png", "jpeg", "jpg", "tiff", "tif", "webp"}))
      ->group(group);
  app.add_option("--quality", c.quality, "JPEG and lossy WebP quality (default: JPEG 92, WebP 90)")
      ->check(CLI::Range(1, 100))
      ->group(group);
  app.add_flag("--lossless", c.lossless, "Lossless WebP")->group(group);
  app.add_option("--level", c.level, "PNG and deflate TIFF compression level, 0 (none) to 9 (smallest)")
      ->check(CLI::Range(0, 9))
      ->group(group);
  app.add_option("--compress", c.compress, "TIFF compression (default: deflate)")
      ->check(CLI::IsMember(TiffCompressionNames()))
      ->group(group);
  app.add_flag("--strip", c.strip, "Write no metadata (EXIF, XMP, IPTC, ICC profile)")->group(group);
  app.add_option("--page", c.page, "The page of a multi-page TIFF to read, from 1 (default: the first)")
      ->check(CLI::PositiveNumber)
      ->group(group);
}

void AddCommonOptions(CLI::App& app, const EffectInfo& effect, CommonOptions& c) {
  const std::string group = "Common options";
  if (effect.backColour) {
    app.add_option("--color", c.colour,
                   "Background colour: #RRGGBB[AA], rgb(r,g,b[,a]) or cmyk(c,m,y,k[,a]), parts 0..255 or 0%..100% "
                   "(default: the class's new colour object)")
        ->check(kColourCheck)
        ->group(group);
  }
  if (effect.mask) {
    app.add_option("--mask", c.mask,
                   "Grey mask image the size of the input: black lets the effect through, white keeps the source")
        ->group(group);
  }
  app.add_flag("--async", c.async, "Run with ApplyAsync and wait for its completion (polar and barrel)")->group(group);
  app.add_option("--threads", c.threads, "Engine workers; 0: one per core")
      ->check(CLI::Range(0, 256))
      ->capture_default_str()
      ->group(group);
  app.add_option("--depth", c.depth, "Convert the working bitmap to 8 or 16 bits per channel")
      ->check(CLI::IsMember({8, 16}))
      ->group(group);
  app.add_option("--model", c.model, "Convert the working bitmap to rgb, cmyk or gray")
      ->check(CLI::IsMember({"rgb", "cmyk", "gray", "grey"}))
      ->group(group);
  app.add_option("--max-pixels", c.maxPixels, "Refuse images with more pixels than this")
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(group);
  app.add_flag("-q,--quiet", c.quiet, "No progress bar and no notes")->group(group);
  app.add_flag("-v,--verbose", c.verbose, "Report size, threads, time and megapixels per second")->group(group);
  AddFileOptions(app, c);
}

CLI::App* AddEffectCommand(CLI::App& root, const EffectInfo& effect, EffectCommand& command) {
  command.effect = &effect;
  CLI::App* app = root.add_subcommand(std::string(effect.command), std::string(effect.summary));
  const std::string_view name = effect.command;
  if (name == "interlace") AddInterlaceOptions(*app, command.interlace);
  if (name == "polar") AddPolarOptions(*app, command.polar);
  if (name == "barrel") AddBarrelOptions(*app, command.barrel);
  if (name == "oilpaint") AddOilPaintOptions(*app, command.oilPaint);
  AddCommonOptions(*app, effect, command.common);
  app->add_option("INPUT", command.input, "Image to read (PNG, JPEG, TIFF or WebP); - reads standard input")
      ->required();
  app->add_option("OUTPUT", command.output,
                  "Image to write; .png, .jpg, .tif or .webp names the type; - writes standard output (with --format)")
      ->required();
  app->footer(kExitStatusFooter);
  return app;
}

// One line naming the command whose help explains the mistake.
int ReportParseError(const CLI::App& root, const CLI::ParseError& error) {
  std::string help = "rawfx --help";
  for (const CLI::App* sub : root.get_subcommands()) help = "rawfx " + sub->get_name() + " --help";
  std::string message = error.what();
  std::replace(message.begin(), message.end(), '\n', ' ');
  std::cerr << "rawfx: " << message << " (see " << help << ")\n";
  return kExitBadInput;
}

std::unique_ptr<host::Host> MakeHost(int threads) {
  try {
    host::HostOptions options;
    options.threads = threads;
    return std::make_unique<host::Host>(options);
  } catch (const std::exception& error) {
    throw ToolError(kExitEffectRefused, std::string("cannot load the effects plug-in: ") + error.what());
  }
}

}  // namespace

EffectCommand ParseEffectWords(const std::vector<std::string>& words) {
  if (words.empty() || !FindEffect(words.front())) throw ToolError(kExitBadInput, "not an effect command");
  CLI::App root{"rawfx", "rawfx"};
  EffectCommand command;
  AddEffectCommand(root, *FindEffect(words.front()), command);
  std::vector<std::string> reversed(words.rbegin(), words.rend());  // CLI11 takes the words last first
  try {
    root.parse(reversed);
  } catch (const CLI::ParseError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  return command;
}

int RunCommandLine(int argc, char** argv) {
  InstallInterruptHandler();
  CLI::App root{"Image effects from the rawfx plug-in, run on PNG, JPEG, TIFF and WebP files.", "rawfx"};
  root.set_version_flag("--version", kVersion);
  root.require_subcommand(1);

  std::vector<EffectCommand> commands(Effects().size());
  std::vector<CLI::App*> effectApps;
  for (size_t i = 0; i < Effects().size(); ++i) effectApps.push_back(AddEffectCommand(root, Effects()[i], commands[i]));

  DemoOptions demo;
  CLI::App* demoApp = root.add_subcommand(
      "demo", "Run every effect on a built-in sample image; write PNGs, a contact sheet and index.html");
  demoApp->add_option("--out", demo.directory, "Directory to write into (created if missing)")->capture_default_str();
  demoApp->add_option("--size", demo.width, "Width of the sample image (the height is 3/4 of it)")
      ->check(CLI::Range(64, 2048))
      ->capture_default_str();
  demoApp->add_option("--threads", demo.threads, "Engine workers; 0: one per core")->check(CLI::Range(0, 256));
  demoApp->add_flag("-q,--quiet", demo.quiet, "Print nothing but errors");

  std::string infoPath;
  uint64_t infoMaxPixels = kDefaultMaxPixels;
  CLI::App* infoApp = root.add_subcommand("info", "Size, channels, depth, alpha, pages, resolution, metadata and the bitmap format a file loads as");
  infoApp->add_option("INPUT", infoPath, "Image to describe; - reads standard input")->required();
  infoApp->add_option("--max-pixels", infoMaxPixels, "Refuse images with more pixels than this")
      ->check(CLI::PositiveNumber);

  if (argc <= 1) {
    std::cerr << root.help();
    return kExitBadInput;
  }
  const std::string first = argv[1];
  if (first[0] != '-' && !FindEffect(first) && first != "demo" && first != "info") {
    std::cerr << "rawfx: unknown command '" << argv[1]
              << "'; the commands are interlace, polar, barrel, oilpaint, demo and info (see rawfx --help)\n";
    return kExitBadInput;
  }
  try {
    root.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return root.exit(error);  // --help and --version
    return ReportParseError(root, error);
  }

  try {
    if (infoApp->parsed()) {
      RunInfoCommand(infoPath, infoMaxPixels, std::cout);
    } else if (demoApp->parsed()) {
      RunDemo(*MakeHost(demo.threads), demo, std::cout);
    } else {
      for (size_t i = 0; i < effectApps.size(); ++i) {
        if (effectApps[i]->parsed()) RunEffectCommand(*MakeHost(commands[i].common.threads), commands[i], std::cerr);
      }
    }
  } catch (const ToolError& error) {
    std::cerr << "rawfx: " << error.what() << '\n';
    return error.status();
  } catch (const host::HostError& error) {
    std::cerr << "rawfx: " << error.what() << '\n';
    return kExitEffectRefused;
  } catch (const std::bad_alloc&) {
    // Unwinding has removed any temporary file by now.
    std::cerr << "rawfx: out of memory; nothing was written\n";
    return kExitBadInput;
  } catch (const std::length_error&) {
    std::cerr << "rawfx: out of memory; nothing was written\n";
    return kExitBadInput;
  } catch (const std::system_error& error) {
    // The system refused a resource, such as a thread for the engine.
    std::cerr << "rawfx: " << error.what() << "; nothing was written\n";
    return kExitBadInput;
  }
  return 0;
}

}  // namespace rawfx::tool
