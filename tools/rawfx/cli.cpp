#include "tools/rawfx/cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <new>
#include <system_error>
#include <sstream>

#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/demo.h"
#include "tools/rawfx/interrupt.h"
#include "tools/rawfx/module_path.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

constexpr const char* kVersion = "rawfx 1.0";
constexpr const char* kExitStatusFooter =
    "Exit status: 0 done; 1 the effect refused the image or its settings; 2 bad usage, or a file that cannot be\n"
    "read or written; 3 installation error (the effects module cannot be found or loaded); 128 + the signal when\n"
    "SIGINT, SIGTERM or SIGHUP ended the run (130 for Ctrl-C). With --out-dir, the highest status of any file.\n"
    "Nothing is written unless the run completes; an existing output keeps its mode, and a link is written through.";

const CLI::Validator kColourCheck(
    [](std::string& text) {
      std::string why;
      return ParseColour(text, &why) ? std::string() : why;
    },
    "COLOUR");

// A number in [min, max], a whole one for whole options; the message says which
// rule the text broke. A NaN is refused (every comparison with it is false).
CLI::Validator NumberIn(double min, double max, bool whole) {
  std::ostringstream range;
  range << "[" << min << " - " << max << "]";
  return CLI::Validator(
      [min, max, whole, bounds = range.str()](std::string& text) -> std::string {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0') return "'" + text + "' is not " + (whole ? "a whole number" : "a number");
        if (whole && value != std::floor(value)) return text + " is not a whole number";
        if (!(value >= min && value <= max)) return text + " is outside " + bounds;
        return {};
      },
      (whole ? "INT in " : "FLOAT in ") + range.str());
}
CLI::Validator FiniteRange(double min, double max) { return NumberIn(min, max, false); }
CLI::Validator WholeRange(double min, double max) { return NumberIn(min, max, true); }

void AddEffectOptions(CLI::App& app, InterlaceSettings& s) {
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

// A setting with an option for each value, each saying what it does, the default marked.
void AddSwitch(CLI::App& app, bool& setting, const char* on, const char* onHelp, const char* off, const char* offHelp) {
  app.add_flag_function(on, [&setting](int64_t) { setting = true; }, onHelp);
  app.add_flag_function(off, [&setting](int64_t) { setting = false; }, offHelp);
}

void AddEffectOptions(CLI::App& app, PolarSettings& s) {
  AddSwitch(app, s.toPolar, "--to-polar", "Rectangular to polar (RectangularToPolar true; the default)", "--to-rect",
            "Polar to rectangular (RectangularToPolar false)");
  AddSwitch(app, s.flip, "--flip", "Angles run the other way round (FlipMapping true; the default)", "--no-flip",
            "Angles run the usual way round (FlipMapping false)");
}

void AddEffectOptions(CLI::App& app, BarrelSettings& s) {
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

void AddEffectOptions(CLI::App& app, OilPaintSettings& s) {
  app.add_option("--brush", s.brush, "Brush size: the square brush reaches this many pixels out")
      ->check(WholeRange(kBrushMin, kBrushMax))
      ->capture_default_str();
  app.add_option("--smoothness", s.smoothness, "Smoothness: fewer intensity levels at lower values")
      ->check(FiniteRange(kSmoothnessMin, kSmoothnessMax))
      ->capture_default_str();
}

// How files are read and written: output type and encoding, metadata, pages.
void AddFileOptions(CLI::App& app, CommonOptions& c) {
  const std::string group = "File options";
  app.add_option("--format", c.format, "Output type: png, jpeg, tiff or webp (needed when OUTPUT is -)")
      ->check(CLI::Validator(
          [](std::string& name) {
            return FileTypeNamed(name) ? std::string()
                                       : "'" + name + "' is not a type rawfx writes (png, jpeg, tiff or webp)";
          },
          "TYPE"))
      ->group(group);
  app.add_option("--quality", c.quality, "JPEG and lossy WebP quality (default: JPEG 92, WebP 90)")
      ->check(WholeRange(1, 100))
      ->group(group);
  app.add_flag("--lossless", c.lossless, "Lossless WebP")->group(group);
  app.add_option("--level", c.level, "PNG and deflate TIFF compression level, 0 (none) to 9 (smallest)")
      ->check(WholeRange(0, 9))
      ->group(group);
  app.add_option("--compress", c.compress, "TIFF compression (default: deflate)")
      ->check(CLI::IsMember(TiffCompressionNames()))
      ->group(group);
  app.add_flag("--strip", c.strip, "Write no metadata (EXIF, XMP, IPTC, ICC profile)")->group(group);
  app.add_option("--page", c.page, "The page of a multi-page TIFF to read, from 1 (default: the first)")
      ->check(WholeRange(1, 1e9))
      ->group(group);
}

void AddCommonOptions(CLI::App& app, const EffectInfo& effect, CommonOptions& c) {
  const std::string group = "Common options";
  if (effect.backColour) {
    app.add_option("--color,--colour", c.colour,
                   "Background colour: a CSS name (red, transparent), #RGB[A], #RRGGBB[AA], rgb[a](r,g,b[,a]) or "
                   "cmyk(c,m,y,k[,a]); parts 0..255 or 0%..100%, alpha 0..1 or 0%..100% (default: opaque black)")
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
      ->check(WholeRange(0, 256))
      ->capture_default_str()
      ->group(group);
  app.add_option("--depth", c.depth, "Convert the working bitmap to 8 or 16 bits per channel")
      ->check(CLI::IsMember({8, 16}))
      ->group(group);
  app.add_option("--model", c.model, "Convert the working bitmap to rgb, cmyk or gray")
      ->check(CLI::IsMember({"rgb", "cmyk", "gray", "grey"}))
      ->group(group);
  app.add_flag("-f,--force", c.force, "Replace an output file even when it is write-protected")->group(group);
  app.add_option("--max-pixels", c.maxPixels, "Refuse images with more pixels than this")
      ->check(WholeRange(1, 1e15))
      ->capture_default_str()
      ->group(group);
  app.add_flag("-q,--quiet", c.quiet, "No progress bar and no notes")->group(group);
  app.add_flag("-v,--verbose", c.verbose,
               "Report size, threads, megapixels per second and the time of each phase (reading, effect, writing)")
      ->group(group);
  AddFileOptions(app, c);
}

void AddBatchOptions(CLI::App& app, BatchOptions& b) {
  const std::string group = "Many files";
  app.add_option("--out-dir", b.outDir, "Write each result as DIR/<input's name>; then every FILE is an input")
      ->group(group);
  app.add_option("--suffix", b.suffix, "With --out-dir: add this to each name's stem (a.png -> a-polar.png for -polar)")
      ->group(group);
}

// Where the effects module is; every command that runs effects takes it.
void AddModuleOption(CLI::App& app, std::string& modulePath) {
  app.add_option("--module", modulePath,
                 "The effects module to load (default: $RAWFX_MODULE, else the one installed with this rawfx)")
      ->group("Installation");
}

CLI::App* AddEffectCommand(CLI::App& root, const EffectInfo& effect, EffectCommand& command, std::string& modulePath) {
  command.effect = &effect;
  CLI::App* app = root.add_subcommand(std::string(effect.command), std::string(effect.summary));
  command.settings = effect.newSettings();  // before the options bind to its fields
  std::visit([app](auto& settings) { AddEffectOptions(*app, settings); }, command.settings);
  AddCommonOptions(*app, effect, command.common);
  AddBatchOptions(*app, command.batch);
  AddModuleOption(*app, modulePath);
  app->add_option("FILES", command.files,
                  "INPUT OUTPUT: the image to read (PNG, JPEG, TIFF or WebP; - reads standard input) and the one to "
                  "write (.png, .jpg, .tif or .webp names its type; - writes standard output, with --format); or, "
                  "with --out-dir, every image to read")
      ->required();
  app->footer(kExitStatusFooter);
  return app;
}

// One INPUT OUTPUT pair, or inputs only with --out-dir.
void AssignFiles(EffectCommand& command) {
  if (!command.batch.outDir.empty()) return;
  if (!command.batch.suffix.empty()) throw ToolError(kExitBadInput, "--suffix needs --out-dir");
  if (command.files.size() != 2) {
    throw ToolError(kExitBadInput, "give one INPUT and one OUTPUT, or INPUT... with --out-dir DIR (got " +
                                       std::to_string(command.files.size()) +
                                       (command.files.size() == 1 ? " file)" : " files)"));
  }
  command.input = command.files[0];
  command.output = command.files[1];
}

// A word on the command line that looks like an option the command does not
// have; CLI11 reports it only among "arguments not expected".
std::string UnknownOption(const CLI::App& app, const std::vector<std::string>& words) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") break;
    char* end = nullptr;
    std::strtod(word.c_str(), &end);
    if (word.size() < 2 || word[0] != '-' || *end == '\0') continue;  // a file, "-" or a negative number
    const std::string name = word.substr(0, word.find('='));
    const CLI::Option* option = app.get_option_no_throw(name);
    if (!option) return name;
    if (name == word && option->get_type_size_min() > 0) ++i;  // its value
  }
  return {};
}

// One line naming the command whose help explains the mistake; an unknown option
// is named as such, whatever else CLI11 found wrong first.
int ReportParseError(const CLI::App& root, const CLI::ParseError& error, const std::vector<std::string>& words) {
  std::string help = "rawfx --help", message = error.what();
  for (const CLI::App* sub : root.get_subcommands()) {
    help = "rawfx " + sub->get_name() + " --help";
    if (const std::string unknown = UnknownOption(*sub, words); !unknown.empty()) {
      message = "unknown option " + unknown + " for rawfx " + sub->get_name();
    }
  }
  std::replace(message.begin(), message.end(), '\n', ' ');
  std::cerr << "rawfx: " << message << " (see " << help << ")\n";
  return kExitBadInput;
}

CLI::App* AddDemoCommand(CLI::App& root, DemoOptions& demo, std::string& modulePath) {
  CLI::App* app = root.add_subcommand(
      "demo", "Run every effect on a built-in test chart and a photograph; write PNGs, a contact sheet and index.html");
  app->add_option("--out", demo.directory, "Directory to write into (created if missing)")->capture_default_str();
  app->add_option("--size", demo.width, "Width of the test chart (the height is 3/4 of it)")
      ->check(WholeRange(64, 2048))
      ->capture_default_str();
  app->add_option("--threads", demo.threads, "Engine workers; 0: one per core")
      ->check(WholeRange(0, 256))
      ->capture_default_str();
  app->add_option("--input", demo.input,
                  "Your picture (PNG, JPEG or TIFF) to run the gallery on, beside the chart (default: a packaged "
                  "photograph when python3-skimage is installed)");
  app->add_flag("-q,--quiet", demo.quiet, "Print nothing but errors");
  AddModuleOption(*app, modulePath);
  return app;
}

// The module is loaded once, whatever the number of files.
int RunParsedEffectCommand(EffectCommand& command, const std::string& modulePath) {
  AssignFiles(command);
  const std::string module = FindModule(modulePath);
  if (command.common.verbose) std::cerr << "rawfx: module " << module << '\n';
  const std::unique_ptr<host::Host> host = LoadHost(module, command.common.threads);
  if (!command.batch.outDir.empty()) return RunBatchCommand(*host, command, std::cerr);
  RunEffectCommand(*host, command, std::cerr);
  return 0;
}

}  // namespace

EffectCommand ParseEffectWords(const std::vector<std::string>& words) {
  if (words.empty() || !FindEffect(words.front())) throw ToolError(kExitBadInput, "not an effect command");
  CLI::App root{"rawfx", "rawfx"};
  EffectCommand command;
  std::string modulePath;
  AddEffectCommand(root, *FindEffect(words.front()), command, modulePath);
  std::vector<std::string> reversed(words.rbegin(), words.rend());  // CLI11 takes the words last first
  try {
    root.parse(reversed);
  } catch (const CLI::ParseError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  AssignFiles(command);
  return command;
}

int RunCommandLine(int argc, char** argv) {
  InstallInterruptHandler();
  CLI::App root{"Image effects from the rawfx plug-in, run on PNG, JPEG, TIFF and WebP files.", "rawfx"};
  root.set_version_flag("--version", kVersion);
  root.set_help_all_flag("--help-all", "Print this help and every command's options, then exit");
  root.footer(kExitStatusFooter);
  root.require_subcommand(1);

  std::string modulePath;
  std::vector<EffectCommand> commands(Effects().size());
  std::vector<CLI::App*> effectApps;
  for (size_t i = 0; i < Effects().size(); ++i) {
    effectApps.push_back(AddEffectCommand(root, Effects()[i], commands[i], modulePath));
  }

  DemoOptions demo;
  CLI::App* demoApp = AddDemoCommand(root, demo, modulePath);
  std::string infoPath;
  uint64_t infoMaxPixels = kDefaultMaxPixels;
  CLI::App* infoApp = root.add_subcommand("info", "Size, channels, depth, alpha, pages, resolution, metadata and the bitmap format a file loads as");
  infoApp->add_option("INPUT", infoPath, "Image to describe; - reads standard input")->required();
  infoApp->add_option("--max-pixels", infoMaxPixels, "Refuse images with more pixels than this")
      ->check(WholeRange(1, 1e15));

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
    if (error.get_exit_code() == 0) return root.exit(error);  // --help, --help-all and --version
    return ReportParseError(root, error, std::vector<std::string>(argv + 2, argv + argc));
  }

  try {
    if (infoApp->parsed()) {
      RunInfoCommand(infoPath, infoMaxPixels, std::cout);
    } else if (demoApp->parsed()) {
      RunDemo(*LoadHost(FindModule(modulePath), demo.threads), demo, std::cout);
    } else {
      for (size_t i = 0; i < effectApps.size(); ++i) {
        if (effectApps[i]->parsed()) return RunParsedEffectCommand(commands[i], modulePath);
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
