#include "tools/rawfx/metadata.h"

#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace rawfx::tool {
namespace {

constexpr Orientation kOrientations[] = {
    {1, false, false, false, "normal"},
    {2, false, true, false, "mirrored left to right"},
    {3, false, true, true, "rotated 180"},
    {4, false, false, true, "mirrored top to bottom"},
    {5, true, false, false, "mirrored along the main diagonal"},
    {6, true, false, true, "rotate 90 CW to view"},
    {7, true, true, true, "mirrored along the other diagonal"},
    {8, true, true, false, "rotate 90 CCW to view"},
};

// Tags that describe how the source file stored its pixels, or that this code
// carries by other means (profile, XMP, IPTC): never copied as EXIF.
constexpr const char* kStorageTags[] = {
    "NewSubfileType", "SubfileType", "ImageWidth", "ImageLength", "BitsPerSample", "Compression",
    "PhotometricInterpretation", "FillOrder", "StripOffsets", "SamplesPerPixel", "RowsPerStrip", "StripByteCounts",
    "PlanarConfiguration", "Predictor", "TileWidth", "TileLength", "TileOffsets", "TileByteCounts", "InkSet",
    "ExtraSamples", "SampleFormat", "SubIFDs", "JPEGTables", "YCbCrSubSampling", "YCbCrPositioning",
    "YCbCrCoefficients", "ReferenceBlackWhite", "TransferFunction", "InterColorProfile", "XMLPacket", "IPTCNAA",
    "ImageResources", "JPEGInterchangeFormat", "JPEGInterchangeFormatLength", "ColorMap",
};

// Groups of other pages and of thumbnails, which describe pixels that are not written.
bool IsOtherPicture(const std::string& group) {
  for (const char* prefix : {"SubImage", "SubThumb", "Thumbnail", "Image2", "Image3", "Image4", "Image5",
                             "Image6", "Image7", "Image8", "Image9"}) {
    if (group.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

bool IsStorageTag(const Exiv2::Exifdatum& datum) {
  if (datum.groupName() != "Image") return false;
  const std::string tag = datum.tagName();
  return std::any_of(std::begin(kStorageTags), std::end(kStorageTags), [&](const char* name) { return tag == name; });
}

void QuietExiv2() {
  static const bool muted = [] {
    Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
    return true;
  }();
  (void)muted;
}

}  // namespace

Orientation OrientationOf(int code) {
  for (const Orientation& orientation : kOrientations) {
    if (orientation.code == code) return orientation;
  }
  return kOrientations[0];
}

struct Metadata::Data {
  Exiv2::ExifData exif;
  Exiv2::XmpData xmp;
  Exiv2::IptcData iptc;
  std::vector<uint8_t> icc;
  int orientation = 1;
};

Metadata::Metadata() : data_(std::make_unique<Data>()) {}
Metadata::~Metadata() = default;
Metadata::Metadata(Metadata&&) noexcept = default;
Metadata& Metadata::operator=(Metadata&&) noexcept = default;

Metadata Metadata::Read(const std::string& path, std::string* problem) {
  QuietExiv2();
  Metadata metadata;
  try {
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    Data& data = *metadata.data_;
    data.exif = image->exifData();
    data.xmp = image->xmpData();
    data.iptc = image->iptcData();
    if (image->iccProfileDefined()) {
      const Exiv2::DataBuf* profile = image->iccProfile();
      data.icc.assign(profile->pData_, profile->pData_ + profile->size_);
    }
    const auto orientation = data.exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
    if (orientation != data.exif.end() && orientation->count() > 0) {
      data.orientation = OrientationOf(static_cast<int>(orientation->toLong())).code;
    }
  } catch (const std::exception& error) {
    *problem = error.what();
    return Metadata();
  }
  return metadata;
}

bool Metadata::empty() const {
  return data_->exif.empty() && data_->xmp.empty() && data_->iptc.empty() && data_->icc.empty();
}

int Metadata::orientation() const { return data_->orientation; }
size_t Metadata::iccBytes() const { return data_->icc.size(); }
void Metadata::dropIcc() { data_->icc.clear(); }

Resolution Metadata::resolution() const {
  const Exiv2::ExifData& exif = data_->exif;
  const auto x = exif.findKey(Exiv2::ExifKey("Exif.Image.XResolution"));
  const auto y = exif.findKey(Exiv2::ExifKey("Exif.Image.YResolution"));
  const auto unit = exif.findKey(Exiv2::ExifKey("Exif.Image.ResolutionUnit"));
  if (x == exif.end() || y == exif.end() || x->count() == 0 || y->count() == 0) return {};
  const long unitCode = unit != exif.end() && unit->count() > 0 ? unit->toLong() : 2;
  if (unitCode != 2 && unitCode != 3) return {};
  const double horizontal = x->toFloat(), vertical = y->toFloat();
  if (!(horizontal > 0) || !(vertical > 0)) return {};
  return {horizontal, vertical, unitCode == 3};
}

std::string Metadata::iccColourSpace() const {
  const std::vector<uint8_t>& icc = data_->icc;
  if (icc.size() < 20) return {};
  std::string space(icc.begin() + 16, icc.begin() + 20);
  while (!space.empty() && std::isspace(static_cast<unsigned char>(space.back()))) space.pop_back();
  return space;
}

std::vector<std::pair<std::string, std::string>> Metadata::describe() const {
  const Data& data = *data_;
  std::vector<std::pair<std::string, std::string>> lines;
  if (data.orientation != 1 || data.exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation")) != data.exif.end()) {
    lines.emplace_back("orientation", std::to_string(data.orientation) + " (" + OrientationOf(data.orientation).name + ")");
  }
  if (!data.icc.empty()) {
    lines.emplace_back("ICC profile", std::to_string(data.icc.size()) + " bytes, " + iccColourSpace() + " colour");
  }
  if (!data.exif.empty()) {
    const bool thumbnail = *Exiv2::ExifThumbC(data.exif).mimeType() != '\0';
    lines.emplace_back("EXIF", std::to_string(data.exif.count()) + " tags" + (thumbnail ? ", with a thumbnail" : ""));
  }
  if (!data.xmp.empty()) lines.emplace_back("XMP", std::to_string(data.xmp.count()) + " properties");
  if (!data.iptc.empty()) lines.emplace_back("IPTC", std::to_string(data.iptc.count()) + " datasets");
  return lines;
}

namespace {

// The EXIF and XMP an output of this shape carries; empty when the input said
// nothing but how its pixels were stored.
struct Kept {
  Exiv2::ExifData exif;
  Exiv2::XmpData xmp;
};

Kept KeptFor(const Exiv2::ExifData& sourceExif, const Exiv2::XmpData& sourceXmp, const ImageShape& shape) {
  Kept kept{sourceExif, sourceXmp};
  Exiv2::ExifData& exif = kept.exif;
  Exiv2::ExifThumb(exif).erase();
  for (auto datum = exif.begin(); datum != exif.end();) {
    datum = IsOtherPicture(datum->groupName()) || IsStorageTag(*datum) ? exif.erase(datum) : std::next(datum);
  }
  const bool hasOrientation = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation")) != exif.end();
  if (exif.count() == (hasOrientation ? 1 : 0)) exif.clear();
  if (exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation")) != exif.end()) {
    exif["Exif.Image.Orientation"] = static_cast<uint16_t>(1);
  }
  for (const auto& [key, value] : {std::pair{"Exif.Photo.PixelXDimension", shape.width},
                                   std::pair{"Exif.Photo.PixelYDimension", shape.height}}) {
    if (exif.findKey(Exiv2::ExifKey(key)) != exif.end()) exif[key] = static_cast<uint32_t>(value);
  }
  if (kept.xmp.findKey(Exiv2::XmpKey("Xmp.tiff.Orientation")) != kept.xmp.end()) kept.xmp["Xmp.tiff.Orientation"] = "1";
  return kept;
}

std::vector<uint8_t> BytesOf(const Exiv2::DataBuf& buffer) {
  return {buffer.pData_, buffer.pData_ + std::max(buffer.size_, 0L)};
}

}  // namespace

MetadataBlocks Metadata::blocks(const ImageShape& shape) const {
  QuietExiv2();
  const Data& data = *data_;
  const Kept kept = KeptFor(data.exif, data.xmp, shape);
  MetadataBlocks blocks;
  blocks.icc = data.icc;
  if (!kept.exif.empty()) Exiv2::ExifParser::encode(blocks.exif, Exiv2::bigEndian, kept.exif);
  if (!kept.xmp.empty() && Exiv2::XmpParser::encode(blocks.xmp, kept.xmp) != 0) blocks.xmp.clear();
  if (!data.iptc.empty()) {
    blocks.iptc = BytesOf(Exiv2::IptcParser::encode(data.iptc));
    blocks.photoshopIptc = BytesOf(Exiv2::Photoshop::setIptcIrb(nullptr, 0, data.iptc));
  }
  return blocks;
}

void Metadata::addToTiff(const std::string& path, const ImageShape& shape, const std::string& name) const {
  QuietExiv2();
  const Data& data = *data_;
  const Kept kept = KeptFor(data.exif, data.xmp, shape);
  if (kept.exif.empty() && kept.xmp.empty() && data.iptc.empty() && data.icc.empty()) return;
  try {
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
    image->readMetadata();  // the structure the encoder wrote stays
    image->setExifData(kept.exif);
    image->setXmpData(kept.xmp);
    image->setIptcData(data.iptc);
    if (!data.icc.empty()) {
      Exiv2::DataBuf profile(data.icc.data(), static_cast<long>(data.icc.size()));
      image->setIccProfile(profile, false);
    }
    image->writeMetadata();
  } catch (const std::exception& error) {
    throw ImageError("cannot write " + name + ": its metadata: " + error.what());
  }
}

}  // namespace rawfx::tool
