#include "tools/rawfx/demo.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <vector>

#include "tools/rawfx/cli.h"
#include "tools/rawfx/effect_runner.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/sample_image.h"
#include "tools/rawfx/tool_error.h"

namespace rawfx::tool {
namespace {

constexpr const char* kSampleName = "sample.png";
constexpr const char* kMaskName = "mask.png";
constexpr const char* kSheetName = "contact-sheet.png";

struct DemoRun {
  const char* output;
  const char* caption;
  std::vector<std::string> words;  // the command and its options, without INPUT and OUTPUT
  const char* input = kSampleName;
};

// In order: a result can be the next run's input (the polar round trip).
const std::vector<DemoRun>& DemoRuns() {
  static const std::vector<DemoRun> runs = {
      {"interlace-rows.png", "Interlace: every odd row filled with the background colour",
       {"interlace", "--horizontal", "odd"}},
      {"interlace-columns.png", "Interlace: every odd column filled with yellow",
       {"interlace", "--vertical", "odd", "--color", "#ffd000"}},
      {"interlace-masked.png", "Interlace under a round mask: the effect only inside the circle",
       {"interlace", "--horizontal", "odd", "--vertical", "odd", "--color", "rgb(200,30,30)", "--mask", kMaskName}},
      {"polar.png", "Polar coordinates: the picture wrapped around its centre", {"polar"}},
      {"polar-no-flip.png", "Polar coordinates without the flip: angles run the other way", {"polar", "--no-flip"}},
      {"polar-round-trip.png", "Polar to rectangular, applied to polar.png: the picture comes back",
       {"polar", "--to-rect"}, "polar.png"},
      {"barrel.png", "Barrel distortion 0.6", {"barrel", "--distortion", "0.6"}},
      {"pincushion.png", "Pincushion: distortion -0.3 on a blue background",
       {"barrel", "--distortion", "-0.3", "--color", "#203c78"}},
      {"keystone.png", "Keystone 0.25 across, -0.15 down, nearest sample",
       {"barrel", "--hkeystone", "0.25", "--vkeystone", "-0.15", "--nearest"}},
      {"oilpaint.png", "Oil paint with the class's defaults (brush 2, smoothness 0.4)", {"oilpaint"}},
      {"oilpaint-broad.png", "Oil paint, broad brush 5 and smoothness 0.15",
       {"oilpaint", "--brush", "5", "--smoothness", "0.15"}},
      {"oilpaint-masked.png", "Oil paint brush 4 under the round mask", {"oilpaint", "--brush", "4", "--mask", kMaskName}},
  };
  return runs;
}

struct DemoResult {
  const DemoRun* run;
  bool available;
};

std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      default: escaped += c;
    }
  }
  return escaped;
}

// The command as a person would type it in the demo directory.
std::string CommandLine(const DemoRun& run) {
  std::string line = "rawfx";
  for (const std::string& word : run.words) {
    const bool quote = word.find_first_of("#() ") != std::string::npos;
    line += " " + (quote ? "'" + word + "'" : word);
  }
  return line + " " + run.input + " " + run.output;
}

std::string PathIn(const DemoOptions& options, const std::string& name) {
  return (std::filesystem::path(options.directory) / name).string();
}

void Save(const Image& image, const std::string& path) {
  try {
    SaveImage(image, path);
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
}

void RunOne(host::Host& host, const DemoOptions& options, const DemoRun& run, std::ostream& log) {
  std::vector<std::string> words = run.words;
  for (std::string& word : words) {
    if (word == kMaskName) word = PathIn(options, kMaskName);
  }
  words.push_back(PathIn(options, run.input));
  words.push_back(PathIn(options, run.output));
  EffectCommand command = ParseEffectWords(words);
  command.common.quiet = true;
  command.common.threads = options.threads;
  const auto start = std::chrono::steady_clock::now();
  RunEffectCommand(host, command, log);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!options.quiet) {
    log << "  " << std::fixed << std::setprecision(3) << seconds << " s  " << CommandLine(run) << '\n';
  }
}

// Every picture side by side, four to a row, in the order of index.html.
Image ContactSheet(const std::vector<std::string>& paths, int64_t cellWidth, int64_t cellHeight) {
  constexpr int64_t kColumns = 4, kGap = 8;
  const int64_t count = static_cast<int64_t>(paths.size());
  const int64_t columns = std::min(kColumns, count);
  const int64_t rows = (count + kColumns - 1) / kColumns;
  Image sheet = Image::Blank(kGap + columns * (cellWidth + kGap), kGap + rows * (cellHeight + kGap), Layout::RGB, 8);
  std::fill(sheet.data.begin(), sheet.data.end(), uint8_t{32});
  for (int64_t i = 0; i < count; ++i) {
    const Image cell = ConvertLayout(ConvertDepth(ReadImage(paths[static_cast<size_t>(i)]).image, 8), Layout::RGB);
    const int64_t left = kGap + (i % kColumns) * (cellWidth + kGap);
    const int64_t top = kGap + (i / kColumns) * (cellHeight + kGap);
    for (int64_t y = 0; y < std::min(cell.height, cellHeight); ++y) {
      std::copy_n(cell.row(y), std::min(cell.width, cellWidth) * 3, sheet.row(top + y) + left * 3);
    }
  }
  return sheet;
}

void WriteIndex(const DemoOptions& options, const std::vector<DemoResult>& results, int64_t width, int64_t height) {
  std::ostringstream html;
  html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>rawfx demo</title>\n"
       << "<style>\n"
       << "body{font-family:sans-serif;background:#1c1c1f;color:#e8e8e8;margin:2em}\n"
       << "main{display:grid;grid-template-columns:repeat(auto-fill,minmax(" << width << "px,1fr));gap:1.5em}\n"
       << "figure{margin:0}img{display:block;max-width:100%;image-rendering:pixelated}\n"
       << "figcaption{margin-top:.4em;font-size:.9em}code{color:#9fd3ff;font-size:.85em}\n"
       << ".missing{opacity:.5}\n</style>\n</head>\n<body>\n"
       << "<h1>rawfx demo</h1>\n<p>Every effect run on a sample image made in code (" << width << " &times; " << height
       << " pixels, 8-bit RGB). Each picture shows the command that made it, run in this directory. "
       << "All results side by side: <a href=\"" << kSheetName << "\">" << kSheetName << "</a>.</p>\n<main>\n"
       << "<figure><img src=\"" << kSampleName << "\" alt=\"sample\"><figcaption>The sample</figcaption></figure>\n"
       << "<figure><img src=\"" << kMaskName << "\" alt=\"mask\"><figcaption>The mask used by the masked runs: "
       << "black lets the effect through, white keeps the source</figcaption></figure>\n";
  for (const DemoResult& result : results) {
    const DemoRun& run = *result.run;
    if (!result.available) {
      html << "<figure class=\"missing\"><figcaption>" << Escape(run.caption)
           << ": not available, this build of the plug-in lacks the effect<br><code>" << Escape(CommandLine(run))
           << "</code></figcaption></figure>\n";
      continue;
    }
    html << "<figure><img src=\"" << run.output << "\" alt=\"" << Escape(run.caption) << "\"><figcaption>"
         << Escape(run.caption) << "<br><code>" << Escape(CommandLine(run)) << "</code></figcaption></figure>\n";
  }
  html << "</main>\n</body>\n</html>\n";

  const std::string path = PathIn(options, "index.html");
  const std::string temporary = path + ".tmp";
  std::ofstream file(temporary, std::ios::binary);
  file << html.str();
  file.close();
  if (!file || std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw ToolError(kExitBadInput, "cannot write " + path);
  }
}

}  // namespace

void RunDemo(host::Host& host, const DemoOptions& options, std::ostream& log) {
  const int64_t width = options.width, height = options.width * 3 / 4;
  std::error_code error;
  std::filesystem::create_directories(options.directory, error);
  if (error) throw ToolError(kExitBadInput, "cannot create " + options.directory + ": " + error.message());
  Save(SampleImage(width, height), PathIn(options, kSampleName));
  Save(SampleMask(width, height), PathIn(options, kMaskName));

  std::vector<DemoResult> results;
  std::vector<std::string> sheet = {PathIn(options, kSampleName)};
  for (const DemoRun& run : DemoRuns()) {
    const bool available = IsRegistered(host, *FindEffect(run.words.front()));
    results.push_back({&run, available});
    if (!available) {
      if (!options.quiet) log << "  skipped " << run.output << ": the plug-in has no " << run.words.front() << " effect\n";
      continue;
    }
    RunOne(host, options, run, log);
    sheet.push_back(PathIn(options, run.output));
  }
  Save(ContactSheet(sheet, width, height), PathIn(options, kSheetName));
  WriteIndex(options, results, width, height);
  if (!options.quiet) {
    log << "rawfx demo: wrote " << sheet.size() - 1 << " results, " << kSheetName << " and index.html; open "
        << PathIn(options, "index.html") << '\n';
  }
}

}  // namespace rawfx::tool
