#include "support/effect_checks.h"

#include <algorithm>
#include <string>
#include <utility>

namespace rawfx::test {

namespace {

using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::Host;
using rawfx::host::SplitPolicy;

constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";

EffectTest* gRunningTest = nullptr;  // the test whose completions RecordCompletion records

// Every byte of a bitmap's memory, padding included; unlike PixelBytes it does
// not depend on the pixel size in the record, which refusal tests patch.
std::vector<uint8_t> Memory(Host& host, REALobject bitmap) {
  const BitmapView view = host.Bitmap(bitmap);
  return {view.pixels, view.pixels + view.rowBytes * view.height};
}

}  // namespace

std::vector<uint8_t> PixelBytes(Host& host, REALobject bitmap) {
  const BitmapView view = host.Bitmap(bitmap);
  std::vector<uint8_t> bytes;
  for (int64_t y = 0; y < view.height; ++y)
    bytes.insert(bytes.end(), view.row(y), view.row(y) + view.width * view.pixelBytes);
  return bytes;
}

std::vector<int32_t> BackgroundValues(Host& host, REALobject colour, int64_t format, int bits, bool includeAlpha) {
  const rawfx::host::FormatInfo& info = *rawfx::host::FindFormat(format);
  const RGBColorData rgb = host.RGBColor(colour);
  const CMYKColorData cmyk = host.CMYKColor(colour);
  const auto pick = [bits](int32_t narrow, int32_t wide) { return bits == 16 ? wide : narrow; };
  // The components at the red, green, blue, black and alpha positions; the
  // first of them wins where positions coincide (grey formats).
  const int32_t parts[] = {info.cmyk ? pick(cmyk.cyan, cmyk.cyan16) : pick(rgb.red, rgb.red16),
                           info.cmyk ? pick(cmyk.magenta, cmyk.magenta16) : pick(rgb.green, rgb.green16),
                           info.cmyk ? pick(cmyk.yellow, cmyk.yellow16) : pick(rgb.blue, rgb.blue16),
                           pick(cmyk.black, cmyk.black16),
                           info.cmyk ? pick(cmyk.alpha, cmyk.alpha16) : pick(rgb.alpha, rgb.alpha16)};
  const uint8_t positions[] = {info.red, info.green, info.blue, info.black, includeAlpha ? info.alpha : uint8_t{0xFF}};
  std::vector<int32_t> values(kMaxChannels, -1);
  for (int i = 4; i >= 0; --i)
    if (positions[i] < kMaxChannels) values[positions[i]] = parts[i];
  return values;
}

void EffectTest::SetUp() {
  HostTest::SetUp();
  gRunningTest = this;
  completeTarget_ = host.NewCMYKColor(0, 0, 0, 0);
  host.SetRunInspector(
      [this](const EngineCall& call, const GenericMPParams&, const std::vector<MPParamBlock>& parts, REALobject) {
        std::lock_guard lock(mutex_);
        seen_.count++;
        seen_.call = call;
        seen_.parts = parts;
      });
}

void EffectTest::TearDown() {
  host.WaitForAsync();
  host.SetRunInspector(nullptr);
  host.Unlock(std::exchange(completionResult_, nullptr));  // a completion no test collected
  for (REALobject object : kept_) host.Unlock(object);
  host.Unlock(completeTarget_);
  gRunningTest = nullptr;
  HostTest::TearDown();
}

REALobject EffectTest::NewSource(int64_t width, int64_t height, int64_t format, int bits, uint32_t seed) {
  REALobject bitmap = Keep(host.NewBitmap(width, height, format, bits, 6));
  EXPECT_NE(bitmap, nullptr);
  if (bitmap) FillPattern(host, bitmap, seed);
  return bitmap;
}

void EffectTest::RecordCompletion(REALobject target, REALobject result) {
  EffectTest& test = *gRunningTest;
  test.host.Lock(result);
  std::lock_guard lock(test.mutex_);
  test.completions_++;
  test.completionTarget_ = target;
  test.host.Unlock(std::exchange(test.completionResult_, result));
}

REALobject EffectTest::Run(Via via, REALobject effect, REALobject source) {
  if (via == Via::Apply) return host.Call<REALobject>(effect, kApply, source);
  if (via == Via::InPlace) {
    host.Call<void>(effect, kApplyInPlace, source);
    return source;
  }
  host.Call<void>(effect, kApplyAsync, source, completeTarget_, reinterpret_cast<void*>(&RecordCompletion));
  host.WaitForAsync();
  return std::exchange(completionResult_, nullptr);
}

std::string EffectTest::ColourState(REALobject colour) {
  const RGBColorData rgb = host.RGBColor(colour);
  const CMYKColorData cmyk = host.CMYKColor(colour);
  return std::string(reinterpret_cast<const char*>(&rgb), sizeof rgb) +
         std::string(reinterpret_cast<const char*>(&cmyk), sizeof cmyk);
}

void EffectTest::ExpectMatchesReference(REALobject effect, REALobject source, void* params, PartFunction referencePart,
                                        Via via, const ExpectedCall& expected, std::function<REALobject()> run) {
  if (!run) run = [&] { return Run(via, effect, source); };
  const EngineCall::Operation operation = via == Via::Apply     ? EngineCall::Parts
                                          : via == Via::InPlace ? EngineCall::PartsInPlace
                                                                : EngineCall::PartsAsync;
  const std::vector<uint8_t> original = PixelBytes(host, source), memory = Memory(host, source);
  const std::pair<int, SplitPolicy> setups[] = {{1, SplitPolicy::Balanced},   {4, SplitPolicy::Balanced},
                                                {4, SplitPolicy::SinglePart}, {4, SplitPolicy::SmallParts},
                                                {1, SplitPolicy::OddStarts},  {4, SplitPolicy::WithEmptyParts}};
  for (auto [threads, policy] : setups) {
    SCOPED_TRACE(testing::Message() << threads << " threads, split policy " << static_cast<int>(policy));
    host.SetThreads(threads);
    host.SetSplitPolicy(policy);
    LastError(effect) = 4;  // a success leaves an earlier code as it was
    const int runsBefore = Seen().count, completionsBefore = completions_;
    const REALobject destination = run();
    const auto [count, call, parts] = Seen();
    ASSERT_NE(destination, nullptr);
    EXPECT_EQ(count, runsBefore + 1);
    EXPECT_EQ(completions_ - completionsBefore, via == Via::Async ? 1 : 0);
    EXPECT_TRUE(via != Via::Async || completionTarget_ == completeTarget_) << "completed on another target";
    EXPECT_EQ(LastError(effect), 4);
    EXPECT_EQ(call.operation, operation);
    EXPECT_EQ(call.modeCode, expected.modeCode);
    EXPECT_EQ(call.formatFlags, expected.formatFlags);
    EXPECT_EQ(call.resultFlag, via == Via::InPlace ? 0 : 1);
    EXPECT_EQ(call.mask, expected.mask);
    EXPECT_EQ(call.partFunction == call.maskPartFunction, expected.onePartFunction);
    // What referencePart makes of the packed pixels over the same parts, one
    // after the other, into a zeroed destination, the head filled as the engine fills it.
    std::vector<uint8_t> pixels = original, reference(original.size(), 0);
    const BitmapView view = host.Bitmap(source);
    GenericMPParams& head = *static_cast<GenericMPParams*>(params);
    head = {};
    head.width = static_cast<int32_t>(view.width);
    head.height = static_cast<int32_t>(view.height);
    head.srcPixels = pixels.data();
    head.dstPixels = reference.data();
    head.srcRowBytes = head.dstRowBytes = static_cast<int32_t>(view.width * view.pixelBytes);
    head.srcPixelBytes = head.dstPixelBytes = static_cast<int32_t>(view.pixelBytes);
    head.srcBitmap = head.dstBitmap = view.record;
    head.maskData =
        expected.mask ? static_cast<RawBitmapMaskData*>(host.ClassData(expected.mask, "RawBitmapMask")) : nullptr;
    for (MPParamBlock block : parts) {
      block.done = 0;
      block.params = params;
      referencePart(&block);
    }
    EXPECT_EQ(PixelBytes(host, destination), reference);
    if (destination == source) {
      std::copy(memory.begin(), memory.end(), host.Bitmap(source).pixels);
      continue;
    }
    EXPECT_EQ(Memory(host, source), memory) << "the source is never written";
    const BitmapView made = host.Bitmap(destination);
    for (int64_t y = 0; y < made.height; ++y)
      EXPECT_TRUE(std::all_of(made.row(y) + made.width * made.pixelBytes, made.row(y) + made.rowBytes,
                              [](uint8_t b) { return b == 0; }))
          << "row padding of row " << y;
    host.Unlock(destination);
  }
  host.SetThreads(0);
  host.SetSplitPolicy(SplitPolicy::Balanced);
}

void EffectTest::ExpectRefused(REALobject effect, REALobject source, int64_t code,
                               const std::function<REALobject()>& run) {
  const std::vector<uint8_t> before = source ? Memory(host, source) : std::vector<uint8_t>{};
  LastError(effect) = code == 4 ? 6 : 4;  // so that the code shows this run stored it
  const int runs = Seen().count;
  const Host::AsyncCounts counts = host.asyncCounts();
  EXPECT_EQ(run(), nullptr);
  host.WaitForAsync();
  EXPECT_EQ(LastError(effect), code);
  EXPECT_EQ(Seen().count, runs) << "no run reached the engine";
  EXPECT_EQ(host.asyncCounts().started, counts.started);
  EXPECT_EQ(host.asyncCounts().completionCalls, counts.completionCalls);
  EXPECT_EQ(source ? Memory(host, source) : before, before);
}

void EffectTest::ExpectHoldsOneLock(REALobject effect, const char* property, REALobject first, REALobject second,
                                    bool nilRemoves) {
  SCOPED_TRACE(property);
  const int64_t firstRefs = host.RefCount(first), secondRefs = host.RefCount(second);
  host.Set<REALobject>(effect, property, first);
  host.Set<REALobject>(effect, property, first);  // the object it already holds
  EXPECT_EQ(host.RefCount(first), firstRefs + 1);
  REALobject got = host.Get<REALobject>(effect, property);
  EXPECT_EQ(got, first);
  EXPECT_EQ(host.RefCount(first), firstRefs + 2) << "the getter hands out a reference of its own";
  host.Unlock(got);
  host.Set(effect, property, nullptr);
  got = host.Get<REALobject>(effect, property);
  EXPECT_EQ(got, nilRemoves ? nullptr : first);
  host.Unlock(got);
  EXPECT_EQ(host.RefCount(first), firstRefs + (nilRemoves ? 0 : 1));
  host.Set<REALobject>(effect, property, second);
  EXPECT_EQ(host.RefCount(first), firstRefs);
  EXPECT_EQ(host.RefCount(second), secondRefs + 1);
}

}  // namespace rawfx::test
