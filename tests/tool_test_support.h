// Helpers for the command-line tool's tests: scratch directories, test images,
// and the built tool run as a child process against a table of expected results.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool::test {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

// A fresh directory under the system's temporary directory, removed at the end.
class ScratchDir {
 public:
  ScratchDir() : path_(mkdtemp((fs::temp_directory_path() / "rawfx-tool-XXXXXX").string().data())) {}
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const fs::path& path() const { return path_; }
  // Everything below the directory, each file with its size and modification time.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(path_)) {
      found[fs::relative(entry.path(), path_)] =
          entry.is_regular_file() ? std::to_string(entry.file_size()) + " bytes at " +
                                        std::to_string(entry.last_write_time().time_since_epoch().count())
                                  : "";
    }
    return found;
  }

 private:
  fs::path path_;
};

// Noise with the extreme values 0 and max in the first samples, or (smooth) ramps,
// which survive JPEG compression with small errors. The generator is defined to the
// bit by the standard, so the data is the same on every machine.
inline Image TestImage(int64_t width, int64_t height, Layout layout, int depth, bool smooth = false, uint32_t seed = 1) {
  Image image = Image::Blank(width, height, layout, depth);
  std::minstd_rand random(seed);
  const auto channels = static_cast<size_t>(image.channels());
  for (size_t i = 0; i < image.sampleCount(); ++i) {
    const int64_t x = int64_t(i / channels) % width, y = int64_t(i / channels) / width;
    image.setSample(i, smooth ? uint32_t(x * 3 + y * 2 + int64_t(i % channels) * 40) % 256 : random() % (image.maxSample() + 1));
  }
  if (!smooth) image.setSample(0, 0), image.setSample(1, image.maxSample());
  return image;
}

inline double MeanAbsoluteDifference(const Image& a, const Image& b) {
  double sum = 0;
  for (size_t i = 0; i < a.sampleCount(); ++i) sum += std::abs(double(a.sample(i)) - double(b.sample(i)));
  return sum / static_cast<double>(a.sampleCount());
}

inline std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteBytes(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// A TIFF of the images as its pages, each in separate planes and/or 16 x 16 tiles, as
// other writers make them; else interleaved, in one-row strips.
inline void WriteTiff(const std::string& path, const std::vector<Image>& pages, uint16_t photometric, bool planes = false,
                      bool tiles = false) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const Image& image : pages) {
    const int channels = image.channels(), bytes = image.depth / 8, samples = planes ? 1 : channels;
    const int64_t blockWidth = tiles ? 16 : image.width, blockHeight = tiles ? 16 : 1;
    const uint16_t alphaKind = EXTRASAMPLE_ASSOCALPHA;
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, uint16_t(image.depth));
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, uint16_t(channels));
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    if (HasAlpha(image.layout)) TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &alphaKind);
    TIFFSetField(tiff, tiles ? TIFFTAG_TILEWIDTH : TIFFTAG_ROWSPERSTRIP, uint32_t(tiles ? 16 : 1));
    if (tiles) TIFFSetField(tiff, TIFFTAG_TILELENGTH, uint32_t(16));
    // Blocks plane by plane in libtiff's numbering, zero past the image's edge.
    uint32_t block = 0;
    for (int plane = 0; plane < channels / samples; ++plane)
      for (int64_t top = 0; top < image.height; top += blockHeight)
        for (int64_t left = 0; left < image.width; left += blockWidth, ++block) {
          std::vector<uint8_t> data(size_t(blockWidth * blockHeight * samples * bytes));
          for (int64_t y = top; y < std::min(top + blockHeight, image.height); ++y)
            for (int64_t x = left; x < std::min(left + blockWidth, image.width); ++x)
              std::memcpy(&data[size_t(((y - top) * blockWidth + x - left) * samples * bytes)],
                          &image.data[size_t(((y * image.width + x) * channels + plane) * bytes)], size_t(samples * bytes));
          (tiles ? TIFFWriteEncodedTile : TIFFWriteEncodedStrip)(tiff, block, data.data(), tmsize_t(data.size()));
        }
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
}

// The message of the ImageError an action throws, or "no error".
inline std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ImageError& error) {
    return error.what();
  }
  return "no error";
}

struct ToolResult {
  int status = -1;  // exit status; 128 + signal number when killed by a signal
  std::string out, err;
};

// How to start the tool.
struct Launch {
  std::string executable = RAWFX_TOOL_PATH;
  std::string directory;                 // empty: the test's own
  Words environment;                     // "NAME=value" sets, "NAME" unsets
  std::string input = "/dev/null";       // standard input
  std::string output;                    // standard output; empty: captured
  uint64_t addressSpace = RLIM_INFINITY;  // bytes the tool may map
};

// The built tool started as a child process, its output going to files in scratch.
class ToolProcess {
 public:
  ToolProcess(Words arguments, const ScratchDir& scratch, Launch launch = {})
      : out_(scratch / ".tool-stdout"), err_(scratch / ".tool-stderr") {
    if ((pid_ = fork()) != 0) return;
    dup2(open(launch.input.c_str(), O_RDONLY), 0);
    dup2(open((launch.output.empty() ? out_ : launch.output).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    const rlimit limit{launch.addressSpace, launch.addressSpace};
    setrlimit(RLIMIT_AS, &limit);
    for (std::string& variable : launch.environment)
      variable.find('=') == std::string::npos ? unsetenv(variable.c_str()) : putenv(variable.data());
    if (!launch.directory.empty() && chdir(launch.directory.c_str()) != 0) _exit(126);
    std::vector<char*> argv = {launch.executable.data()};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(launch.executable.c_str(), argv.data());
    _exit(127);
  }
  pid_t pid() const { return pid_; }
  std::string errSoFar() const { return ReadText(err_); }

  ToolResult wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadText(out_), ReadText(err_)};
    fs::remove(out_), fs::remove(err_);
    return result;
  }

 private:
  pid_t pid_ = -1;
  std::string out_, err_;
};

// Launches with standard input or standard output redirected to a file.
inline Launch StdIn(const std::string& path) {
  Launch launch;
  launch.input = path;
  return launch;
}
inline Launch StdOut(const std::string& path) {
  Launch launch;
  launch.output = path;
  return launch;
}

inline ToolResult RunTool(const Words& arguments, const ScratchDir& scratch, Launch launch = {}) {
  return ToolProcess(arguments, scratch, std::move(launch)).wait();
}

// A run of the tool, its exit status and a fragment of what it says.
struct Expected {
  Words words;
  int status;
  std::string says;
  Launch launch = {};
};

// Runs each in turn. A failed run says why on one line "rawfx: ...", writes nothing
// to standard output, and leaves every file in scratch as it was and no new one.
inline void ExpectRuns(const ScratchDir& scratch, const std::vector<Expected>& runs) {
  for (const auto& [words, status, says, launch] : runs) {
    SCOPED_TRACE(testing::PrintToString(words));
    const auto before = scratch.snapshot();
    const ToolResult run = RunTool(words, scratch, launch);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_NE((run.out + run.err).find(says), std::string::npos) << run.out << run.err;
    if (status == 0) continue;
    EXPECT_TRUE(std::regex_match(run.err, std::regex("rawfx: [^\n]+\n"))) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(scratch.snapshot(), before) << "a failed run changed or left a file";
  }
}

}  // namespace rawfx::tool::test
