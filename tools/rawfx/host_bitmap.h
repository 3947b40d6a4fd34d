// Images in and out of the host's RawBitmap objects. A file layout loads as the
// host format of the same family with the samples in file order: grey as a
// single-channel format, RGB, RGBA and CMYK as themselves; grey+alpha, which no
// host format holds, loads as RGBA.
#pragma once

#include <utility>

#include "host/host.h"
#include "tools/rawfx/image_io.h"
#include "tools/rawfx/metadata.h"

namespace rawfx::tool {

// One reference to a host object, released when it goes out of scope.
class HostRef {
 public:
  HostRef(host::Host& host, REALobject object) : host_(host), object_(object) {}
  ~HostRef() {
    if (object_) host_.Unlock(object_);
  }
  HostRef(const HostRef&) = delete;
  HostRef& operator=(const HostRef&) = delete;
  REALobject get() const { return object_; }
  REALobject release() { return std::exchange(object_, nullptr); }
  // Holds another object instead, releasing the one held unless it is the same.
  void reset(REALobject object) {
    if (object_ && object_ != object) host_.Unlock(object_);
    object_ = object;
  }

 private:
  host::Host& host_;
  REALobject object_;
};

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

// A new bitmap (the caller's reference) that a picture of this shape loads into,
// made before anything is decoded. ToolError when the host cannot hold it.
REALobject NewBitmapForShape(host::Host& host, const ImageShape& shape);

// Copies an image into a bitmap made by NewBitmapForShape for its shape.
void FillBitmap(const host::Host& host, REALobject bitmap, const Image& image);

// Decodes the reader's rows into a bitmap made by NewBitmapForShape: straight into
// its pixel memory, with no copy of the picture on the side.
void DecodeIntoBitmap(const host::Host& host, REALobject bitmap, ImageReader& reader, const RowProgress& progress);

// The bitmap turned upright from the stored orientation: the same bitmap changed in
// place (mirrors), or a new one with the caller's reference (quarter turns).
// ToolError when the host cannot make the new one.
REALobject Orient(host::Host& host, REALobject bitmap, const Orientation& orientation);

// The bitmap's rows as a file of the type stores them: straight from its memory
// where the layouts agree, else converted one row at a time. The bitmap must
// outlive the rows.
RowSource BitmapRows(const host::Host& host, REALobject bitmap, FileType type);
ImageShape BitmapShape(const host::Host& host, REALobject bitmap);

// Whether the host can make another bitmap like this one now: a run that gave no
// result and stored no error may have been refused the memory for its result.
bool HostCanMake(host::Host& host, const host::BitmapView& like);  // in the layout of its format's family

}  // namespace rawfx::tool
