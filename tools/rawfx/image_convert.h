// Conversions of whole images: bit depth, colour model, and what a file type can hold.
#pragma once

#include <string>

#include "tools/rawfx/image_io.h"

namespace rawfx::tool {

enum class ColourModel { Gray, RGB, CMYK };

// 8 -> 16 bits multiplies by 257 (exact); 16 -> 8 bits divides by 257 with rounding.
Image ConvertDepth(const Image& image, int depth);

// Any layout into any other, in the image's depth. Grey is Rec. 601 luma; RGB and
// CMYK convert through the plain complement formulas (no colour profile); a missing
// alpha becomes opaque and an alpha the target has no room for is dropped.
Image ConvertLayout(const Image& image, Layout layout);

// The layout of the model that keeps the image's alpha where the model has room for it.
Layout LayoutForModel(Layout current, ColourModel model);

// Both conversions: the image in the shape's layout and depth.
Image ConvertTo(const Image& image, const ImageShape& shape);

// The layout and depth a file of the type stores a picture in (PNG: CMYK made RGB;
// JPEG: 8 bits, no alpha; WebP: 8-bit RGB or RGBA), and a note of what changes,
// empty when nothing does.
ImageShape ShapeForFileType(const ImageShape& shape, FileType type);
std::string FitNote(const ImageShape& from, FileType type);

// What the image becomes to fit a file type, and the note.
struct Fitted {
  Image image;
  std::string note;
};
Fitted FitForFileType(const Image& image, FileType type);

}  // namespace rawfx::tool
