// What the differential tests share. Each runs the fast kernels of one effect
// and its plain reference kernels on the same random cases (bitmaps, layouts,
// settings, part splits, cancels, masks, failed allocations) and demands the
// same outcome on the AVX2 path and on the portable one: every byte of memory
// around the pixels, the progress count, every part's done flag, the mask
// queries, the scratch given back and a parameter block left as it was.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "imaging/mp_filter.h"

namespace rawfx::test {

using Rng = std::mt19937_64;

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kInf = std::numeric_limits<double>::infinity();
inline constexpr double kTiny = std::numeric_limits<double>::denorm_min();

// The number of cases a random loop runs: RAWFX_DIFF_CASES when that is set to
// a positive integer (the sanitizer builds run fewer), otherwise usual.
int RandomCases(int usual);

int64_t Uniform(Rng& rng, int64_t lo, int64_t hi);
double UniformReal(Rng& rng, double lo, double hi);
bool Chance(Rng& rng, double p);

template <class T, size_t N>
T PickFrom(Rng& rng, const T (&values)[N]) {
  return values[Uniform(rng, 0, static_cast<int64_t>(N) - 1)];
}

// With chance p one of the values where double arithmetic and conversions
// have their corner cases (signed zeros, the smallest and largest magnitudes,
// infinities, NaN) or of extras; otherwise uniform in [lo, hi).
double RandomDouble(Rng& rng, double p, double lo, double hi, std::initializer_list<double> extras = {});

std::vector<uint8_t> RandomBytes(Rng& rng, size_t count);
// Random bytes; in some cases mostly all 0 or all 0xFF, for blends at the range's ends.
std::vector<uint8_t> RandomSamples(Rng& rng, size_t count);

// How pixels lie in memory: channels samples of sampleBytes each, pixel and
// row steps that may be longer (padding the kernels must leave alone).
struct Layout {
  int32_t width, height, sampleBytes, channels;
  int32_t srcPixelBytes, dstPixelBytes, srcRowBytes, dstRowBytes;
};

// A side of a random bitmap: often 0 .. 5, otherwise up to largest.
int32_t RandomSide(Rng& rng, int32_t largest);
// Sides up to 64, now and then a negative width, one row, one column, or
// rows of up to longRows pixels.
void RandomSize(Rng& rng, Layout& l, int32_t longRows);
// A random size, 8- or 16-bit, 1 .. 8 channels, padded pixels and rows. With
// oddSteps a 16-bit step may be an odd number of bytes; otherwise every step
// is a whole number of samples.
Layout RandomLayout(Rng& rng, int32_t longRows, bool oddSteps);
Layout PackedLayout(int32_t width, int32_t height, int32_t sampleBytes, int32_t channels);

// Random bytes in all of value (the fields the kernels never read among them).
template <class T>
void Scramble(Rng& rng, T& value) {
  for (size_t i = 0; i < sizeof value; ++i) reinterpret_cast<uint8_t*>(&value)[i] = static_cast<uint8_t>(rng());
}

// Row ranges [first, end) and when cancel comes: as the engine cuts a bitmap
// and worse (an odd first row, single rows, empty and reversed parts, one
// part for all, any order), cancel set before part cancelBefore (-1: never).
struct PartPlan {
  std::vector<std::pair<int32_t, int32_t>> ranges;
  int cancelBefore = -1;
};
PartPlan RandomParts(Rng& rng, int32_t height);

// A mask that answers from a seeded hash and records every query. Asking for
// the row handle of cancelAtRow sets cancel.
enum class MaskValues { Zero, Full, Extremes, Anything };
struct MaskPlan {
  MaskValues values = MaskValues::Anything;
  uint64_t seed = 0;
  int64_t cancelAtRow = -1;
};
MaskPlan RandomMask(Rng& rng, int32_t height);
// The mask's value: random high bits over the low 8 (16) that count.
uint32_t MaskValue(const MaskPlan& mask, bool sixteenBit, int64_t row, int32_t x);
using MaskQuery = std::array<int64_t, 3>;  // row, handle, x (-1 for a row handle request)

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
struct KernelCaseBase {
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

  std::string Describe() const;
  // Fills the head of params, runs the parts over copies of the memory and
  // returns what they leave.
  Outcome RunWith(void* params, size_t paramBytes, PartFunction part) const;
};

// Params starts with its head, which each run fills.
template <class Params>
struct KernelCase : KernelCaseBase {
  Params params{};
  PartFunction reference = nullptr, fast = nullptr;
  Outcome Run(bool fastKernels) const {
    Params block = params;
    return RunWith(&block, sizeof block, fastKernels ? fast : reference);
  }
};

// One case: run(false) with the reference kernels, run(true) with the fast
// ones on the AVX2 path and then the portable one. Reports what differs with
// describe() and returns false when anything does.
bool MatchesReference(const std::function<Outcome(bool fast)>& run, const std::function<std::string()>& describe);

template <class Case>
bool MatchesReference(const Case& c) {
  return MatchesReference([&](bool fast) { return c.Run(fast); }, [&] { return c.Describe(); });
}

// RandomCases(usual) cases made by draw(rng, index); stops after 5 failures.
template <class Draw>
void CheckRandomCases(uint64_t seed, int usual, Draw draw) {
  Rng rng(seed);
  const int count = RandomCases(usual);
  for (int i = 0, failures = 0; i < count && failures < 5; ++i) {
    const auto c = draw(rng, i);
    failures += !MatchesReference([&](bool fast) { return c.Run(fast); },
                                  [&] { return "case " + std::to_string(i) + ": " + c.Describe(); });
  }
}

}  // namespace rawfx::test
