// Helpers for the command-line tool's tests: scratch directories, test images,
// and running the built tool as a child process.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool::test {

// A fresh directory under the system's temporary directory, removed at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "rawfx-tool-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) found.insert(entry.path().filename());
    return found;
  }

 private:
  std::filesystem::path path_;
};

// Noise with the extreme values 0 and max in the first samples. The generator is
// defined to the bit by the standard, so the data is the same on every machine.
inline Image NoiseImage(int64_t width, int64_t height, Layout layout, int depth, uint32_t seed = 1) {
  Image image = Image::Blank(width, height, layout, depth);
  std::minstd_rand random(seed);
  for (size_t i = 0; i < image.sampleCount(); ++i) image.setSample(i, random() % (image.maxSample() + 1));
  image.setSample(0, 0);
  image.setSample(1, image.maxSample());
  return image;
}

// Smooth ramps, which survive JPEG compression with small errors.
inline Image RampImage(int64_t width, int64_t height, Layout layout) {
  Image image = Image::Blank(width, height, layout, 8);
  const int channels = image.channels();
  for (size_t i = 0; i < image.sampleCount(); ++i) {
    const int64_t pixel = static_cast<int64_t>(i) / channels, x = pixel % width, y = pixel / width;
    image.setSample(i, static_cast<uint32_t>((x * 3 + y * 2 + static_cast<int64_t>(i % channels) * 40) % 256));
  }
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

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

struct ToolResult {
  int status = -1;  // exit status; 128 + signal number when killed by a signal
  std::string out, err;
};

// The built tool started as a child process, its output going to files in scratch.
class ToolProcess {
 public:
  ToolProcess(std::vector<std::string> arguments, const ScratchDir& scratch)
      : out_(scratch / ".tool-stdout"), err_(scratch / ".tool-stderr") {
    if ((pid_ = fork()) != 0) return;
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    std::vector<char*> argv = {const_cast<char*>(RAWFX_TOOL_PATH)};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(RAWFX_TOOL_PATH, argv.data());
    _exit(127);
  }
  pid_t pid() const { return pid_; }
  std::string errSoFar() const { return ReadText(err_); }

  ToolResult wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadText(out_), ReadText(err_)};
    std::filesystem::remove(out_);
    std::filesystem::remove(err_);
    return result;
  }

 private:
  pid_t pid_ = -1;
  std::string out_, err_;
};

inline ToolResult RunTool(const std::vector<std::string>& arguments, const ScratchDir& scratch) {
  return ToolProcess(arguments, scratch).wait();
}

}  // namespace rawfx::tool::test
