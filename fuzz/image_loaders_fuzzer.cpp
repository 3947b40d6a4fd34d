// Fuzz target: the rawfx tool's image readers on arbitrary bytes. The bytes are
// handed to ReadImage as a file (an in-memory one), which tells PNG, JPEG, TIFF
// and WebP apart by their content as it does for any input file. A file is either
// refused with an ImageError or read into an image whose size, depth and pixel
// buffer agree; anything else (a crash, a sanitizer report, another exception)
// is a finding.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/rawfx/image_io.h"

namespace {

using rawfx::tool::Image;
using rawfx::tool::ImageError;

// Small enough that every input decodes in milliseconds under the sanitizers,
// large enough for every layout, strip and tile arrangement.
constexpr uint64_t kMaxPixels = uint64_t{1} << 20;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "image_loaders_fuzzer: %s\n", what);
  std::abort();
}

void CheckImage(const Image& image) {
  if (image.width <= 0 || image.height <= 0) Fail("an image without pixels was accepted");
  if (static_cast<uint64_t>(image.width) * static_cast<uint64_t>(image.height) > kMaxPixels)
    Fail("an image over the pixel limit was accepted");
  if (image.depth != 8 && image.depth != 16) Fail("an image of another depth than 8 or 16");
  if (image.data.size() != image.rowBytes() * static_cast<size_t>(image.height))
    Fail("the pixel buffer does not match the image's size");
}

// The one in-memory file every input is written to, and its path.
struct MemoryFile {
  int fd = memfd_create("rawfx-fuzz-image", 0);
  std::string path = "/proc/self/fd/" + std::to_string(fd);

  void Fill(const uint8_t* data, size_t size) {
    if (fd < 0 || ftruncate(fd, 0) != 0) Fail("cannot reset the in-memory file");
    for (size_t written = 0; written < size;) {
      const ssize_t n = pwrite(fd, data + written, size - written, static_cast<off_t>(written));
      if (n <= 0) Fail("cannot write the in-memory file");
      written += static_cast<size_t>(n);
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  file.Fill(data, size);
  rawfx::tool::ReadOptions options;
  options.maxPixels = kMaxPixels;
  try {
    CheckImage(rawfx::tool::ReadImage(file.path, options).image);
  } catch (const ImageError&) {
    // A refused file is the expected answer to most inputs.
  }
  return 0;
}
