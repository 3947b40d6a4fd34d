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
  m.onRow(row);
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

void ExpectRowBookkeeping(const std::function<std::unique_ptr<PartFrame>()>& makeFrame, uint8_t doneAfterRun) {
  constexpr int kKeepWidth = 1000;
  struct Case {
    const char* what;
    int firstRow, endRow, width, cancelBefore, cancelInRow;  // cancelInRow -1: none
    std::vector<int> rowsProcessed, rowsWritten;
  };
  const Case cases[] = {
      {"empty range", 3, 3, kKeepWidth, 0, -1, {}, {}},
      {"reversed range", 4, 2, kKeepWidth, 0, -1, {}, {}},
      {"rows 2 to 4", 2, 5, kKeepWidth, 0, -1, {2, 3, 4}, {2, 3, 4}},
      {"width 0", 1, 5, 0, 0, -1, {1, 2, 3, 4}, {}},
      {"negative width", 1, 5, -3, 0, -1, {1, 2, 3, 4}, {}},
      {"cancel before the part", 1, 6, kKeepWidth, 1, -1, {1}, {1}},
      {"cancel during row 3", 0, 6, kKeepWidth, 0, 3, {0, 1, 2, 3}, {0, 1, 2, 3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::unique_ptr<PartFrame> f = makeFrame();
    const bool masked = f->head->maskData != nullptr;
    if (c.cancelInRow >= 0 && !masked) continue;  // only a mask query can cancel from inside a run
    if (c.width != kKeepWidth) f->head->width = c.width;
    f->head->cancel = static_cast<uint8_t>(c.cancelBefore);
    f->head->progress = 10;
    f->mask.onRow = [&f, &c](int64_t row) {
      if (row == c.cancelInRow) f->head->cancel = 1;
    };
    const std::vector<uint8_t> before = f->dst.bytes;
    EXPECT_EQ(f->Run(c.firstRow, c.endRow).done, doneAfterRun);
    EXPECT_EQ(f->head->progress, 10 + static_cast<int>(c.rowsProcessed.size()));
    std::vector<int> written;
    for (int y = 0; y < f->dst.height; ++y) {
      const auto row = static_cast<std::ptrdiff_t>(y) * f->dst.rowBytes;
      if (!std::equal(before.begin() + row, before.begin() + row + f->dst.rowBytes, f->dst.bytes.begin() + row))
        written.push_back(y);
    }
    EXPECT_EQ(written, c.rowsWritten);
    if (!masked) continue;
    EXPECT_EQ(f->mask.rows, std::vector<int64_t>(c.rowsProcessed.begin(), c.rowsProcessed.end()));
    if (c.rowsWritten.empty()) {
      EXPECT_TRUE(f->mask.values.empty());
    }
  }
}

}  // namespace rawfx::test
