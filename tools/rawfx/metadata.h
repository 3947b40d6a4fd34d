// What an image file carries besides its pixels: EXIF (with the orientation), XMP,
// IPTC and the ICC colour profile, read and written through Exiv2. The tool turns
// a picture upright before the effect, so what it writes says orientation 1 and
// carries no thumbnail (which would show the old pixels).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {

// How a picture is stored relative to upright, as the EXIF orientation 1..8 says:
// the stored pixel behind upright pixel (x, y) is found by swapping x and y when
// `transposed`, then mirroring across the width and/or the height of the stored picture.
struct Orientation {
  int code = 1;
  bool transposed = false;
  bool mirrorX = false;
  bool mirrorY = false;
  const char* name = "normal";
};
Orientation OrientationOf(int code);  // an unknown code is taken as 1

class Metadata {
 public:
  Metadata();
  ~Metadata();
  Metadata(Metadata&&) noexcept;
  Metadata& operator=(Metadata&&) noexcept;

  // What the file holds; a file whose metadata cannot be parsed gives none, and
  // *problem says why (so that the caller can note it).
  static Metadata Read(const std::string& path, std::string* problem);

  bool empty() const;
  int orientation() const;
  size_t iccBytes() const;
  std::string iccColourSpace() const;  // "RGB", "GRAY", "CMYK", ... from the profile's header; empty if none
  void dropIcc();
  Resolution resolution() const;  // from EXIF's XResolution, YResolution and ResolutionUnit

  // One entry per kind the file carries ({"EXIF", "23 tags"}), for rawfx info.
  std::vector<std::pair<std::string, std::string>> describe() const;

  // What is kept for an output of this shape: EXIF without orientation (written as 1)
  // and thumbnails, with the pixel size updated; XMP; IPTC; the ICC profile. PNG, JPEG
  // and WebP writers embed the blocks (WriteOptions::metadata); a TIFF gets them with
  // addToTiff once it is written (ImageError on failure). WebP has no place for IPTC.
  MetadataBlocks blocks(const ImageShape& shape) const;
  void addToTiff(const std::string& path, const ImageShape& shape, const std::string& name) const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace rawfx::tool
