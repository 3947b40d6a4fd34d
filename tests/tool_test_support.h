// Helpers for the command-line tool's tests: scratch directories, test images,
// and running the built tool as a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
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
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) found.push_back(entry.path().filename());
    return found;
  }

 private:
  std::filesystem::path path_;
};

// A directory this process cannot create files in: a read-only one in scratch, or
// /sys when running as root, for whom permissions do not stop writes.
inline std::string UnwritableDirectory(const ScratchDir& scratch) {
  if (geteuid() == 0) return "/sys";
  const std::string locked = scratch / "locked";
  std::filesystem::create_directory(locked);
  std::filesystem::permissions(locked, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  return locked;
}

// Noise with the extreme values 0 and max in the first pixels. The generator is
// defined to the bit by the standard, so the data is the same on every machine.
inline Image NoiseImage(int64_t width, int64_t height, Layout layout, int depth, uint32_t seed = 1) {
  Image image = Image::Blank(width, height, layout, depth);
  std::minstd_rand random(seed);
  for (size_t i = 0; i < image.sampleCount(); ++i) image.setSample(i, random() % (image.maxSample() + 1));
  image.setSample(0, 0);
  if (image.sampleCount() > 1) image.setSample(1, image.maxSample());
  return image;
}

// Smooth ramps, which survive JPEG compression with small errors.
inline Image RampImage(int64_t width, int64_t height, Layout layout, int depth = 8) {
  Image image = Image::Blank(width, height, layout, depth);
  const int channels = image.channels();
  for (size_t i = 0; i < image.sampleCount(); ++i) {
    const int64_t pixel = static_cast<int64_t>(i) / channels, x = pixel % width, y = pixel / width;
    const uint32_t value = static_cast<uint32_t>((x * 3 + y * 2 + static_cast<int64_t>(i % channels) * 40) % 256);
    image.setSample(i, depth == 16 ? value * 257 : value);
  }
  return image;
}

inline double MeanAbsoluteDifference(const Image& a, const Image& b) {
  double sum = 0;
  for (size_t i = 0; i < a.sampleCount(); ++i) sum += std::abs(double(a.sample(i)) - double(b.sample(i)));
  return a.sampleCount() ? sum / static_cast<double>(a.sampleCount()) : 0;
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

// A started tool process with its output going to files.
class ToolProcess {
 public:
  ToolProcess(std::vector<std::string> arguments, const std::string& scratch)
      : outPath_(scratch + "/.tool-stdout"), errPath_(scratch + "/.tool-stderr") {
    pid_ = fork();
    if (pid_ != 0) return;
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    std::string tool = RAWFX_TOOL_PATH;
    std::vector<char*> argv = {tool.data()};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(tool.c_str(), argv.data());
    _exit(127);
  }
  pid_t pid() const { return pid_; }
  std::string errSoFar() const { return ReadText(errPath_); }

  ToolResult wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadText(outPath_),
                      ReadText(errPath_)};
    std::filesystem::remove(outPath_);
    std::filesystem::remove(errPath_);
    return result;
  }

 private:
  pid_t pid_ = -1;
  std::string outPath_, errPath_;
};

inline ToolResult RunTool(const std::vector<std::string>& arguments, const ScratchDir& scratch) {
  return ToolProcess(arguments, scratch.path().string()).wait();
}

}  // namespace rawfx::tool::test
