// Helpers for the command-line tool's tests: scratch directories, test images, TIFF
// files as other writers make them, and the built tool run through the shell against
// a table of what each run must give.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tiffio.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>

#include "host/host.h"
#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/host_bitmap.h"
#include "tools/rawfx/image_convert.h"
#include "tools/rawfx/progress.h"
#include "tools/rawfx/sample_image.h"

namespace rawfx::tool::test {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

// A fresh directory under the system's temporary directory, removed at the end.
struct ScratchDir {
  const fs::path path{mkdtemp((fs::temp_directory_path() / "rawfx-tool-XXXXXX").string().data())};
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
  // Everything below it, each file with its size and the time it was last written.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
      std::string& state = found[fs::relative(entry.path(), path)];
      if (entry.is_regular_file())
        state = std::to_string(entry.file_size()) + "@" + std::to_string(entry.last_write_time().time_since_epoch().count());
    }
    return found;
  }
};

// Noise with the extreme values 0 and max in the first samples, or (smooth) ramps,
// which survive JPEG compression with small errors. The generator is defined to the
// bit by the standard, so the data is the same on every machine.
inline Image TestImage(int64_t width, int64_t height, Layout layout, int depth, bool smooth = false, uint32_t seed = 1) {
  Image image = Image::Blank(width, height, layout, depth);
  std::minstd_rand random(seed);
  const auto channels = static_cast<size_t>(image.channels());
  for (size_t i = 0; i < image.sampleCount(); ++i) {
    const auto x = int64_t(i / channels) % width, y = int64_t(i / channels) / width, c = int64_t(i % channels);
    image.setSample(i, smooth ? uint32_t(x * 3 + y * 2 + c * 40) % 256 : random() % (image.maxSample() + 1));
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
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
// A new file each time: ext4 flushes a file truncated and written again when it is closed.
inline void WriteBytes(const std::string& path, const std::string& bytes) { fs::remove(path), std::ofstream(path) << bytes; }

// A test's input written straight to its file, the type told by its name (the safe
// replacement of SaveImage would wait for the disk).
inline void Save(const Image& image, const std::string& path, const WriteOptions& options = {}) {
  WriteImage(image, path, *FileTypeFromExtension(path), options);
}

// A TIFF of the images as its pages, each in separate planes and/or 16 x 16 tiles, as
// other writers make them, else interleaved in one-row strips.
inline void WriteTiff(const std::string& path, const std::vector<Image>& pages, int photometric, bool planes = false,
                      bool tiles = false) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const Image& image : pages) {
    const int64_t channels = image.channels(), bytes = image.depth / 8, samples = planes ? 1 : channels;
    const int64_t high = tiles ? 16 : 1, wide = tiles ? 16 : image.width, blockBytes = wide * high * samples * bytes;
    for (const auto& [tag, value] : std::initializer_list<std::pair<uint32_t, int64_t>>{
             {TIFFTAG_IMAGEWIDTH, image.width}, {TIFFTAG_IMAGELENGTH, image.height}, {TIFFTAG_BITSPERSAMPLE, image.depth},
             {TIFFTAG_SAMPLESPERPIXEL, channels}, {TIFFTAG_PHOTOMETRIC, photometric}, {TIFFTAG_PLANARCONFIG, planes ? 2 : 1},
             {tiles ? TIFFTAG_TILEWIDTH : TIFFTAG_ROWSPERSTRIP, high}, {tiles ? TIFFTAG_TILELENGTH : TIFFTAG_ROWSPERSTRIP, high}})
      TIFFSetField(tiff, tag, uint32_t(value));
    const uint16_t associatedAlpha = EXTRASAMPLE_ASSOCALPHA;
    if (HasAlpha(image.layout)) TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &associatedAlpha);
    // Each sample to its place in its block, the blocks plane by plane in libtiff's
    // numbering, zero past the image's edge.
    const int64_t across = (image.width + wide - 1) / wide, down = (image.height + high - 1) / high;
    std::vector<uint8_t> blocks(size_t(channels / samples * down * across * blockBytes));
    for (int64_t y = 0; y < image.height; ++y)
      for (int64_t x = 0; x < image.width; ++x)
        for (int64_t c = 0; c < channels; ++c) {
          const int64_t block = (c / samples * down + y / high) * across + x / wide;
          std::memcpy(&blocks[size_t(block * blockBytes + ((y % high * wide + x % wide) * samples + c % samples) * bytes)],
                      &image.data[size_t(((y * image.width + x) * channels + c) * bytes)], size_t(bytes));
        }
    for (uint32_t block = 0; block * blockBytes < int64_t(blocks.size()); ++block)
      (tiles ? TIFFWriteEncodedTile : TIFFWriteEncodedStrip)(tiff, block, &blocks[block * blockBytes], blockBytes);
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
}

struct ToolResult {
  int status;  // exit status; 128 + signal number when killed by a signal
  std::string out, err;
};

// The tool run by the shell in the scratch directory. `how` ends in the executable,
// after what the run needs first (a directory, the environment, limits); redirections
// may follow it. Standard output and error go to .out and .err, removed when read.
inline const std::string kTool = "exec " RAWFX_TOOL_PATH;
inline ToolResult RunTool(const Words& words, const ScratchDir& scratch, const std::string& how = kTool) {
  std::string line = "cd " + scratch.path.string() + " && exec < /dev/null > .out 2> .err && " + how;
  for (const std::string& word : words) line += " '" + word + "'";
  const int status = std::system(line.c_str());
  const ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadText(scratch / ".out"),
                          ReadText(scratch / ".err")};
  fs::remove(scratch / ".out"), fs::remove(scratch / ".err");
  return result;
}

// A run of the tool: its words, its exit status, a fragment of what it says, and how it
// starts when not as the table's runs do.
struct Expected {
  Words words;
  int status;
  std::string says;
  std::string how = "";
};

// Runs each in turn. A failed run says why on one line "rawfx: ...", writes nothing
// to standard output, and leaves every file in scratch as it was and no new one.
inline void ExpectRuns(const ScratchDir& scratch, const std::vector<Expected>& runs, const std::string& tool = kTool) {
  for (const auto& [words, status, says, how] : runs) {
    SCOPED_TRACE(testing::PrintToString(words));
    const auto before = scratch.snapshot();
    const ToolResult run = RunTool(words, scratch, how.empty() ? tool : how);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_NE((run.out + run.err).find(says), std::string::npos) << run.out << run.err;
    if (status == 0) continue;
    EXPECT_TRUE(std::regex_match(run.err, std::regex("rawfx: [^\n]+\n"))) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(scratch.snapshot(), before) << "a failed run changed or left a file";
  }
}

}  // namespace rawfx::tool::test
