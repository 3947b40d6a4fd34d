// What the kernels tests share: pixel memory laid out as a RawBitmap's, a
// parameter block's head and records pointing at it, a mask that records its
// queries.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "imaging/mp_filter.h"

namespace rawfx::test {

// Rows of `width` pixels of `pixelBytes` bytes, then `padding` bytes; samples
// are `sampleBytes` (1 or 2) wide.
struct PixelBuffer {
  PixelBuffer(int width, int height, int pixelBytes, int padding, uint8_t fill, int sampleBytes = 1);
  uint8_t* At(int x, int y) { return bytes.data() + y * rowBytes + x * pixelBytes; }
  uint32_t Sample(int x, int y, int channel) const;
  void SetSample(int x, int y, int channel, uint32_t value);

  int width, height, pixelBytes, rowBytes, sampleBytes;
  std::vector<uint8_t> bytes;
};

// A mask whose values come from `value`, the same for its 8- and 16-bit
// operations, that records every row handle asked for, for every value the
// row of the handle it was given and x, and in `bits` which depths were asked (8 | 16).
class RecordingMask {
 public:
  using Query = std::pair<int64_t, int32_t>;
  RecordingMask();
  RecordingMask(const RecordingMask&) = delete;
  RecordingMask& operator=(const RecordingMask&) = delete;
  RawBitmapMaskData* data() { return &holder_.data; }

  std::function<uint32_t(int64_t row, int32_t x)> value = [](int64_t, int32_t) { return 0u; };
  std::vector<int64_t> rows;
  std::vector<Query> values;
  int bits = 0;

  // What the mask operations are handed: the data, and beside it the way back.
  struct Holder {
    RawBitmapMaskData data;
    RecordingMask* owner;
  };

 private:
  Holder holder_;
};

// A source and a destination with their records, and the part function and
// parameter block that run over them. An effect's frame derives from it, owns
// its block and calls Attach once the block is made.
struct PartFrame {
  PartFrame(PixelBuffer source, PixelBuffer destination);
  virtual ~PartFrame() = default;

  // Points the block's head at the buffers and records, as the engine does;
  // a masked part also gets the mask.
  void Attach(GenericMPParams& blockHead, void* block, PartFunction partFunction, bool masked);
  // Runs the part over rows firstRow .. endRow - 1; the record shows its done flag (0 before).
  MPParamBlock Run(int firstRow, int endRow);
  MPParamBlock RunAll() { return Run(0, head->height); }

  PixelBuffer src, dst;
  RawBitmap srcRecord{}, dstRecord{};
  RecordingMask mask;
  GenericMPParams* head = nullptr;
  void* params = nullptr;
  PartFunction part = nullptr;
};

// The pieces streamed into one string, for SCOPED_TRACE.
template <class... Pieces>
std::string Describe(const Pieces&... pieces) {
  std::ostringstream s;
  (s << ... << pieces);
  return s.str();
}

// Names a value-parameterised case by its parameter's `name`.
template <class Param>
std::string NameOf(const ::testing::TestParamInfo<Param>& info) {
  return info.param.name;
}

}  // namespace rawfx::test
