#include "support/kernel_blocks.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace rawfx::test {

PixelBuffer::PixelBuffer(int w, int h, int pixelBytesIn, int padding, uint8_t fill, int sampleBytesIn)
    : width(w),
      height(h),
      pixelBytes(pixelBytesIn),
      rowBytes(std::max(w, 0) * pixelBytesIn + padding),
      sampleBytes(sampleBytesIn),
      bytes(static_cast<size_t>(rowBytes) * static_cast<size_t>(h), fill) {}

// 16-bit samples in the machine's byte order, as the kernels read and write them.
uint32_t PixelBuffer::Sample(int x, int y, int channel) const {
  const uint8_t* p = bytes.data() + y * rowBytes + x * pixelBytes + channel * sampleBytes;
  uint16_t s = *p;
  if (sampleBytes == 2) std::memcpy(&s, p, sizeof s);
  return s;
}

void PixelBuffer::SetSample(int x, int y, int channel, uint32_t value) {
  uint8_t* p = At(x, y) + channel * sampleBytes;
  const auto s = static_cast<uint16_t>(value);
  *p = static_cast<uint8_t>(value);
  if (sampleBytes == 2) std::memcpy(p, &s, sizeof s);
}

namespace {

RecordingMask& OwnerOf(RawBitmapMaskData* data) { return *reinterpret_cast<RecordingMask::Holder*>(data)->owner; }

// Handles encode their row, so a value query shows which handle it was given.
MaskRowHandle Encode(int64_t row) { return static_cast<MaskRowHandle>(row * 1000 + 7); }
int64_t Decode(MaskRowHandle handle) { return (static_cast<int64_t>(handle) - 7) / 1000; }

template <int Bits>
MaskRowHandle Row(RawBitmapMaskData* data, int64_t row) {
  RecordingMask& m = OwnerOf(data);
  m.bits |= Bits;
  m.rows.push_back(row);
  return Encode(row);
}
template <int Bits>
uint32_t Value(RawBitmapMaskData* data, MaskRowHandle handle, int32_t x) {
  RecordingMask& m = OwnerOf(data);
  m.bits |= Bits;
  m.values.emplace_back(Decode(handle), x);
  return m.value(Decode(handle), x);
}
constexpr RawBitmapMaskOps kRecordingOps{nullptr, Row<8>, Value<8>, nullptr, Row<16>, Value<16>};

RawBitmap RecordOf(const PixelBuffer& b) {
  RawBitmap r{};
  r.width = b.width;
  r.height = b.height;
  r.channelCount = b.pixelBytes / b.sampleBytes;
  r.bytesPerPixel = b.pixelBytes;
  r.alphaOffset = 0xFE;  // no alpha channel unless a test sets one
  r.isValid = 1;
  r.bitsPerChannel = static_cast<uint8_t>(8 * b.sampleBytes);
  return r;
}

}  // namespace

RecordingMask::RecordingMask() : holder_{{&kRecordingOps}, this} {}

PartFrame::PartFrame(PixelBuffer source, PixelBuffer destination)
    : src(std::move(source)), dst(std::move(destination)), srcRecord(RecordOf(src)), dstRecord(RecordOf(dst)) {}

void PartFrame::Attach(GenericMPParams& h, void* block, PartFunction partFunction, bool masked) {
  head = &h;
  params = block;
  part = partFunction;
  h.width = src.width;
  h.height = src.height;
  h.srcPixels = src.bytes.data();
  h.dstPixels = dst.bytes.data();
  h.srcRowBytes = src.rowBytes;
  h.dstRowBytes = dst.rowBytes;
  h.srcPixelBytes = src.pixelBytes;
  h.dstPixelBytes = dst.pixelBytes;
  h.srcBitmap = &srcRecord;
  h.dstBitmap = &dstRecord;
  h.maskData = masked ? mask.data() : nullptr;
}

MPParamBlock PartFrame::Run(int firstRow, int endRow) {
  MPParamBlock block{};
  block.firstRow = firstRow;
  block.endRow = endRow;
  block.params = params;
  EXPECT_EQ(part(&block), nullptr);
  return block;
}

}  // namespace rawfx::test
