#include "tools/rawfx/demo.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>
#include <tuple>
#include <vector>

#include "tools/rawfx/cli.h"
#include "tools/rawfx/effect_runner.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/module_path.h"
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
      {"pincushion.png", "Pincushion: distortion -0.1, the corners pulled out", {"barrel", "--distortion", "-0.1"}},
      {"keystone.png", "Keystone 0.25 across, -0.15 down, nearest sample",
       {"barrel", "--hkeystone", "0.25", "--vkeystone", "-0.15", "--nearest"}},
      {"oilpaint.png", "Oil paint, brush 3 and smoothness 0.3", {"oilpaint", "--brush", "3", "--smoothness", "0.3"}},
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

// One picture the gallery runs on. The built-in chart keeps the plain names
// (sample.png, polar.png); a photograph's files start with "photo".
struct DemoSource {
  std::string heading;      // for index.html
  std::string description;  // HTML
  Image picture;
  bool photo = false;

  std::string name(const std::string& base) const {
    if (!photo) return base;
    return base == kSampleName ? "photo.png" : "photo-" + base;
  }
};

// CC0 photographs from scikit-image's sample data, in the Debian package
// python3-skimage: installed with it, or the one `make demo` takes from it
// (scripts/fetch-demo-photo) into the tool's data directory.
struct PackagedPhoto {
  const char* file;
  const char* credit;
};
constexpr PackagedPhoto kPackagedPhotos[] = {
    {"chelsea.png", "Chelsea the cat, CC0 by Stefan van der Walt"},
    {"coffee.png", "A cup of coffee, CC0 by Rachel Michetti"},
};
constexpr const char* kSkimageData = "/usr/lib/python3/dist-packages/skimage/data";

// The first packaged photograph found, with its credit line for the page.
std::optional<std::pair<std::string, std::string>> FindPackagedPhoto() {
  std::vector<std::filesystem::path> directories = DataDirectories();
  directories.emplace_back(kSkimageData);
  for (const std::filesystem::path& directory : directories) {
    for (const PackagedPhoto& photo : kPackagedPhotos) {
      const std::filesystem::path path = directory / photo.file;
      std::error_code ignored;
      if (std::filesystem::exists(path, ignored)) {
        return std::pair{path.string(), std::string(photo.credit) +
                                            ", from scikit-image's sample data (Debian package python3-skimage)."};
      }
    }
  }
  return std::nullopt;
}

// 8-bit RGB, made smaller by whole factors until it is at most maxWidth wide
// (each pixel the mean of the block it stands for), so every effect runs in moments.
Image PreparePhoto(const Image& picture, int64_t maxWidth) {
  const Image rgb = ConvertLayout(ConvertDepth(picture, 8), Layout::RGB);
  const int64_t factor = (rgb.width + maxWidth - 1) / maxWidth;
  if (factor <= 1) return rgb;
  Image small = Image::Blank(std::max<int64_t>(1, rgb.width / factor), std::max<int64_t>(1, rgb.height / factor),
                             Layout::RGB, 8);
  for (int64_t y = 0; y < small.height; ++y) {
    for (int64_t x = 0; x < small.width; ++x) {
      for (int c = 0; c < 3; ++c) {
        uint32_t sum = 0;
        for (int64_t dy = 0; dy < factor; ++dy)
          for (int64_t dx = 0; dx < factor; ++dx) sum += rgb.row(y * factor + dy)[(x * factor + dx) * 3 + c];
        small.row(y)[x * 3 + c] = static_cast<uint8_t>(sum / static_cast<uint32_t>(factor * factor));
      }
    }
  }
  return small;
}

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

// The user's picture when given, else a packaged photograph if one is found.
std::optional<DemoSource> PhotoSource(const DemoOptions& options) {
  std::string path = options.input, credit;
  if (path.empty()) {
    const auto packaged = FindPackagedPhoto();
    if (!packaged) return std::nullopt;
    std::tie(path, credit) = *packaged;
  }
  Image picture;
  try {
    picture = ReadImage(path).image;
  } catch (const ImageError& error) {
    throw ToolError(kExitBadInput, error.what());
  }
  const std::string name = std::filesystem::path(path).filename().string();
  return DemoSource{options.input.empty() ? "A photograph: " + name : "Your picture: " + name, Escape(credit),
                    PreparePhoto(picture, 2 * int64_t{options.width}), true};
}

// The command as a person would type it in the demo directory.
std::string CommandLine(const DemoSource& source, const DemoRun& run) {
  std::string line = "rawfx";
  for (const std::string& word : run.words) {
    const bool quote = word.find_first_of("#() ") != std::string::npos;
    line += " " + (quote ? "'" + word + "'" : word == kMaskName ? source.name(word) : word);
  }
  return line + " " + source.name(run.input) + " " + source.name(run.output);
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

void RunOne(host::Host& host, const DemoOptions& options, const DemoSource& source, const DemoRun& run,
            std::ostream& log) {
  std::vector<std::string> words = run.words;
  for (std::string& word : words) {
    if (word == kMaskName) word = PathIn(options, source.name(kMaskName));
  }
  words.push_back(PathIn(options, source.name(run.input)));
  words.push_back(PathIn(options, source.name(run.output)));
  EffectCommand command = ParseEffectWords(words);
  command.common.quiet = true;
  command.common.threads = options.threads;
  const auto start = std::chrono::steady_clock::now();
  RunEffectCommand(host, command, log);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!options.quiet) {
    log << "  " << std::fixed << std::setprecision(3) << seconds << " s  " << CommandLine(source, run) << '\n';
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

// One source's pictures: the input, its mask, then every result, each opening
// full size when clicked.
void WriteGallery(std::ostream& html, const DemoSource& source, const std::vector<DemoResult>& results) {
  const auto figure = [&](const std::string& file, const std::string& caption, const std::string& command) {
    html << "<figure><a href=\"" << file << "\"><img src=\"" << file << "\" alt=\"" << Escape(caption)
         << "\"></a><figcaption>" << Escape(caption);
    if (!command.empty()) html << "<br><code>" << Escape(command) << "</code>";
    html << "</figcaption></figure>\n";
  };
  html << "<h2>" << Escape(source.heading) << " (" << source.picture.width << " &times; " << source.picture.height
       << ")</h2>\n";
  if (!source.description.empty()) html << "<p>" << source.description << "</p>\n";
  html << "<main>\n";
  figure(source.name(kSampleName), "The picture", "");
  figure(source.name(kMaskName), "The mask used by the masked runs: black lets the effect through, white keeps the source",
         "");
  for (const DemoResult& result : results) {
    const DemoRun& run = *result.run;
    if (result.available) {
      figure(source.name(run.output), run.caption, CommandLine(source, run));
    } else {
      html << "<figure class=\"missing\"><figcaption>" << Escape(run.caption)
           << ": not available, this build of the plug-in lacks the effect<br><code>"
           << Escape(CommandLine(source, run)) << "</code></figcaption></figure>\n";
    }
  }
  html << "</main>\n";
}

// Readable on a phone: the page never scrolls sideways (pictures and commands
// shrink or wrap to the screen), and links stand out on the dark background.
void WriteIndex(const DemoOptions& options, const std::vector<DemoSource>& sources,
                const std::vector<DemoResult>& results, bool photoFound) {
  std::ostringstream html;
  html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
       << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>rawfx demo</title>\n"
       << "<style>\n"
       << "body{font-family:sans-serif;background:#1c1c1f;color:#e8e8e8;margin:1em;line-height:1.4}\n"
       << "main{display:grid;grid-template-columns:repeat(auto-fill,minmax(min(100%,300px),1fr));gap:1.5em}\n"
       << "figure{margin:0;min-width:0}img{display:block;max-width:100%;height:auto}\n"
       << "a{color:#8fd0ff;text-decoration:underline}a:visited{color:#d0b0ff}\n"
       << "figcaption{margin-top:.4em;font-size:.9em}code{color:#ffe08a;font-size:.85em;overflow-wrap:anywhere}\n"
       << ".missing{opacity:.5}\n</style>\n</head>\n<body>\n"
       << "<h1>rawfx demo</h1>\n<p>Every effect run on a test chart made in code and on a photograph. Each picture "
       << "shows the command that made it, run in this directory; tap a picture to see it full size. "
       << "The chart's results side by side: <a href=\"" << kSheetName << "\">" << kSheetName << "</a>.</p>\n";
  if (!photoFound) {
    html << "<p>No photograph was found: install the Debian package python3-skimage, or run "
         << "<code>rawfx demo --input YOUR-PICTURE.jpg</code> to see the effects on a picture of yours.</p>\n";
  }
  for (const DemoSource& source : sources) WriteGallery(html, source, results);
  html << "</body>\n</html>\n";

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
  std::vector<DemoSource> sources = {{"The test chart", "Made in code: gradients, a grid, rings, three discs and a "
                                      "grey ramp, the same on every machine.", SampleImage(width, height)}};
  std::optional<DemoSource> photo = PhotoSource(options);
  const bool photoFound = photo.has_value();
  if (photo) sources.push_back(std::move(*photo));
  std::error_code error;
  std::filesystem::create_directories(options.directory, error);
  if (error) throw ToolError(kExitBadInput, "cannot create " + options.directory + ": " + error.message());

  std::vector<DemoResult> results;
  for (const DemoRun& run : DemoRuns()) results.push_back({&run, IsRegistered(host, *FindEffect(run.words.front()))});
  size_t written = 0;
  for (const DemoSource& source : sources) {
    Save(source.picture, PathIn(options, source.name(kSampleName)));
    Save(SampleMask(source.picture.width, source.picture.height), PathIn(options, source.name(kMaskName)));
    for (const DemoResult& result : results) {
      if (!result.available) {
        if (!options.quiet) {
          log << "  skipped " << source.name(result.run->output) << ": the plug-in has no "
              << result.run->words.front() << " effect\n";
        }
        continue;
      }
      RunOne(host, options, source, *result.run, log);
      ++written;
    }
  }
  std::vector<std::string> sheet = {PathIn(options, kSampleName)};
  for (const DemoResult& result : results)
    if (result.available) sheet.push_back(PathIn(options, result.run->output));
  Save(ContactSheet(sheet, width, height), PathIn(options, kSheetName));
  WriteIndex(options, sources, results, photoFound);
  if (!options.quiet) {
    log << "rawfx demo: wrote " << written << " results, " << kSheetName << " and index.html; open "
        << PathIn(options, "index.html") << '\n';
  }
}

}  // namespace rawfx::tool
