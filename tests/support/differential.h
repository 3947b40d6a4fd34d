// What the differential tests share. Each runs the fast kernels of one effect
// and its plain reference kernels on the same random cases (bitmaps, layouts,
// settings, part splits, cancels, masks, failed allocations) and demands the
// same outcome on every path (AVX-512, AVX2, portable): every byte of memory
// around the pixels, the progress count, every part's done flag, the mask
// queries, the scratch given back and a parameter block left as it was.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "imaging/mp_filter.h"

namespace rawfx::test {

using Rng = std::mt19937_64;

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kInf = std::numeric_limits<double>::infinity();
inline constexpr double kTiny = std::numeric_limits<double>::denorm_min();
inline constexpr double kOutside = kNaN;  // an expected source position off the bitmap: the background

inline int64_t Uniform(Rng& rng, int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); }
double UniformReal(Rng& rng, double lo, double hi);
inline bool Chance(Rng& rng, double p) { return std::bernoulli_distribution(p)(rng); }

template <class T, size_t N>
T PickFrom(Rng& rng, const T (&values)[N]) {
  return values[Uniform(rng, 0, static_cast<int64_t>(N) - 1)];
}

// With chance p one of the values where double arithmetic and conversions
// have their corner cases (signed zeros, the smallest and largest magnitudes,
// infinities, NaN) or of extras; otherwise uniform in [lo, hi).
double RandomDouble(Rng& rng, double p, double lo, double hi, std::initializer_list<double> extras = {});

// Random bytes; as samples, in some cases mostly all 0 or all 0xFF, for
// blends at the range's ends.
std::vector<uint8_t> RandomBytes(Rng& rng, size_t count, bool samples = false);

// How pixels lie in memory: channels samples of sampleBytes each, pixel and
// row steps that may be longer (padding the kernels must leave alone).
struct Layout {
  int32_t width, height, sampleBytes, channels;
  int32_t srcPixelBytes, dstPixelBytes, srcRowBytes, dstRowBytes;
};

// Sides up to 64 (often 0 .. 5), now and then a negative width, one row, one
// column, or rows of up to longRows pixels.
void RandomSize(Rng& rng, Layout& l, int32_t longRows);
// A random size, 8- or 16-bit, 1 .. 8 channels, padded pixels and rows. With
// oddSteps a 16-bit step may be an odd number of bytes; otherwise every step
// is a whole number of samples.
Layout RandomLayout(Rng& rng, int32_t longRows, bool oddSteps);
Layout PackedLayout(int32_t width, int32_t height, int32_t sampleBytes, int32_t channels);
// A bitmap's record as the engine describes it: channelCount from the pixel
// step, bytesPerPixel from the channels.
RawBitmap RecordOf(const Layout& l, int32_t pixelBytes, uint8_t alphaOffset);

// Random bytes in all of value (the fields the kernels never read among them).
template <class T>
void Scramble(Rng& rng, T& value) {
  for (size_t i = 0; i < sizeof value; ++i) reinterpret_cast<uint8_t*>(&value)[i] = static_cast<uint8_t>(rng());
}

// Row ranges [first, end) and when cancel comes: cancel set before part
// cancelBefore (-1: never).
struct PartPlan {
  std::vector<std::pair<int32_t, int32_t>> ranges;
  int cancelBefore = -1;
};

// A mask that answers from a seeded hash (or, given columns, the value of
// column x) and records every query. Asking for the row handle of cancelAtRow
// sets cancel.
enum class MaskValues { Zero, Full, Extremes, Anything };
struct MaskPlan {
  MaskValues values = MaskValues::Anything;
  uint64_t seed = 0;
  int64_t cancelAtRow = -1;
  std::vector<uint32_t> columns;
};
// Row, handle, x (-1 for a row handle request), depth of the operation (8, 16).
using MaskQuery = std::array<int64_t, 4>;
// The handle of a row: each value query shows which handle it was given.
inline int64_t MaskHandle(int64_t row) { return row * 7919 + 13; }

// What a run leaves behind.
struct Outcome {
  std::vector<uint8_t> memory;  // the destination's and the source's, with what lies around the pixels
  int32_t progress = 0;
  std::vector<uint8_t> done;
  std::vector<MaskQuery> queries;
  int64_t blocksLeft = 0;  // allocations not given back
  bool blockUntouched = true;
  bool operator==(const Outcome&) const = default;
};

// A case but for its parameter block.
// Cases move but never copy: a block may point into their storage.
struct KernelCaseBase {
  KernelCaseBase() = default;
  KernelCaseBase(KernelCaseBase&&) = default;  // and so no copies
  // With the fast kernels or the reference ones.
  virtual Outcome Run(bool fast) const = 0;

  Layout l{};
  std::vector<uint8_t> source, destination;  // whole allocations; no destination: it lies in the source's
  int64_t srcAt = 0, dstAt = 0;              // where the first pixel lies in them
  RawBitmap srcRecord{}, dstRecord{};
  bool masked = false;
  MaskPlan mask;
  int64_t grantedBlocks = -1;  // allocations that succeed; -1: all
  PartPlan parts;
  std::string settings;         // the effect's own, for failure messages
  std::vector<double> storage;  // double-aligned memory the block may point into
  std::function<void()> prepare;  // readies that memory before each run (none: nothing to do)

  std::string Describe() const;
  // A hand-built case: width x height packed pixels, source rows padded by
  // padSamples; source samples sample(x, y, channel) (padding and none given:
  // 0), a destination of 0xA5 bytes, records without alpha, one part for all
  // rows, a mask whose values are all 0.
  void Block(int32_t width, int32_t height, int32_t sampleBytes, int32_t channels, int32_t padSamples = 0,
             const std::function<uint32_t(int32_t x, int32_t y, int channel)>& sample = {});
  // A sample of the source, set before a run, and of the destination after one.
  void SetSource(int32_t x, int32_t y, int channel, uint32_t value);
  uint32_t Result(const Outcome& out, int32_t x, int32_t y, int channel) const;
  // Fills the head of params, runs the parts over copies of the memory and
  // returns what they leave.
  Outcome RunWith(void* params, size_t paramBytes, PartFunction part) const;
};

// Params starts with its head, which each run fills.
template <class Params>
struct KernelCase : KernelCaseBase {
  Params params{};
  PartFunction reference = nullptr, fast = nullptr;
  // The part functions of the reference and the fast table, both by depth (8, 16 bits) and variant.
  void Use(const PartFunction (&references)[2][2], const PartFunction (&fastParts)[2][2], size_t variant = 0) {
    const size_t depth = static_cast<size_t>(this->l.sampleBytes - 1);
    reference = references[depth][variant];
    fast = fastParts[depth][variant];
  }
  Outcome Run(bool fastKernels) const override {
    Params block = params;
    return RunWith(&block, sizeof block, fastKernels ? fast : reference);
  }
};

// Random mask values, a mask that may set cancel, and parts: as the engine
// cuts a bitmap and worse (an odd first row, single rows, empty and reversed
// parts, one part for all, any order), cancel now and then set before one.
void RandomRun(Rng& rng, KernelCaseBase& c);

// One case with the reference kernels, then with the fast ones on every path
// (AVX-512 and AVX2 where the machine has them, portable). Reports what differs, after label and the case,
// counts a case where anything does in failures (if given) and returns what
// the reference kernels left.
Outcome CheckedRun(const KernelCaseBase& c, const std::string& label = "", int* failures = nullptr);

// The pieces streamed into one string, doubles in full, for messages.
template <class... Pieces>
std::string Describe(const Pieces&... pieces) {
  std::ostringstream s;
  s.precision(17);
  (s << ... << pieces);
  return s.str();
}

// Cases made by draw(rng, index), each then given a random mask (asked when
// the case is masked) and random parts, stopping after 5 failures: as many as
// RAWFX_DIFF_CASES says when that is a positive integer (the sanitizer builds
// run fewer), otherwise usual.
template <class Draw>
void CheckRandomCases(uint64_t seed, int usual, Draw draw) {
  const char* setting = std::getenv("RAWFX_DIFF_CASES");
  const int count = setting && std::atoi(setting) > 0 ? std::atoi(setting) : usual;
  Rng rng(seed);
  for (int i = 0, failures = 0; i < count && failures < 5; ++i) {
    auto c = draw(rng, i);
    RandomRun(rng, c);
    CheckedRun(c, "case " + std::to_string(i) + ": ", &failures);
  }
}

}  // namespace rawfx::test
