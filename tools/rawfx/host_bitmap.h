// Images in and out of the host's RawBitmap objects. A file layout loads as the
// host format of the same family with the samples in file order: grey as a
// single-channel format, RGB, RGBA and CMYK as themselves; grey+alpha, which no
// host format holds, loads as RGBA.
#pragma once

#include "host/host.h"
#include "tools/rawfx/image_io.h"

namespace rawfx::tool {

struct BitmapPlan {
  Layout layout;                     // the layout the pixels take in the bitmap
  const host::FormatInfo* format;    // the host format they load as
};

// The plan for a layout; ToolError when the host has no format for it.
BitmapPlan PlanBitmap(Layout layout);

// A new bitmap (one reference, the caller's) holding the image's pixels.
// ToolError when the host refuses the size.
REALobject NewBitmapFromImage(host::Host& host, const Image& image);

// The pixels of a bitmap of any host format, in the layout of its family.
Image ImageFromBitmap(const host::Host& host, REALobject bitmap);

}  // namespace rawfx::tool
