// Fuzz target: the rawfx tool's image readers on arbitrary bytes. The bytes are
// handed to ReadImage as a file (an in-memory one), which tells PNG, JPEG, TIFF
// and WebP apart by their content as it does for any input file. A file is either
// refused with an ImageError or read into an image whose size, depth and pixel
// buffer agree; anything else (a crash, a sanitizer report, another exception)
// is a finding.
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tools/rawfx/image_io.h"

namespace {

// Small enough that every input decodes in milliseconds under the sanitizers,
// large enough for every layout, strip and tile arrangement.
constexpr uint64_t kMaxPixels = uint64_t{1} << 20;

void Check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "image_loaders_fuzzer: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The one in-memory file every input is written to, reopened (and so emptied) for each.
  static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("rawfx-fuzz-image", 0));
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  Check(file.write(reinterpret_cast<const char*>(data), std::streamsize(size)).flush().good(),
        "cannot write the in-memory file");
  rawfx::tool::ReadOptions options;
  options.maxPixels = kMaxPixels;
  try {
    const rawfx::tool::Image image = rawfx::tool::ReadImage(path, options).image;
    Check(image.width > 0 && image.height > 0, "an image without pixels was accepted");
    Check(uint64_t(image.width) * uint64_t(image.height) <= kMaxPixels, "an image over the pixel limit was accepted");
    Check(image.depth == 8 || image.depth == 16, "an image of another depth than 8 or 16");
    Check(image.data.size() == image.rowBytes() * size_t(image.height),
          "the pixel buffer does not match the image's size");
  } catch (const rawfx::tool::ImageError&) {
    // A refused file is the expected answer to most inputs.
  }
  return 0;
}
