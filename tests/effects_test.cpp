// The four effect classes through the embedding host: the objects they hold,
// their properties, refused runs (the order of the checks, the codes stored,
// the blocks freed), the no-op case, and every form of Apply against the
// reference kernels for settings, depths, colour families, masks and every
// row split, with the blocks and tables the runs take and give back.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "effects/barrel/barrel_class.h"
#include "effects/interlace/interlace_kernels.h"
#include "effects/oilpaint/oilpaint_class.h"
#include "effects/polar/polar_kernels.h"
#include "support/references.h"
#include "support/host_fixture.h"

// ---- allocations of one watched size ----------------------------------------------
// The module takes an asynchronous block (followed by its run's table) and a
// synchronous run's table with the nothrow global operator new. These
// replacements count the nothrow allocations of one watched size and keep
// those still live, so that a test can tell that what a run took was given
// back; on request they refuse that size and larger ones, as an exhausted heap
// would.
namespace {

std::mutex gWatchMutex;
struct Watcher {
  size_t size = 0;
  bool fails = false;
  int made = 0;
  std::array<void*, 64> live{};
} gWatch;

void* Allocate(size_t size, bool nothrow) noexcept {
  std::lock_guard lock(gWatchMutex);
  if (nothrow && gWatch.fails && size >= gWatch.size) return nullptr;
  void* p = std::malloc(size ? size : 1);
  auto slot = std::find(gWatch.live.begin(), gWatch.live.end(), nullptr);
  if (p && nothrow && size == gWatch.size && ++gWatch.made && slot != gWatch.live.end()) *slot = p;
  return p;
}

void Release(void* p) noexcept {
  std::lock_guard lock(gWatchMutex);
  std::replace(gWatch.live.begin(), gWatch.live.end(), p, static_cast<void*>(nullptr));
  std::free(p);
}

// Starts counting allocations of size afresh (fails: the nothrow form refuses them and larger ones).
void Watch(size_t size, bool fails = false) {
  std::lock_guard lock(gWatchMutex);
  gWatch = {size, fails};
}

// Allocations of the watched size since Watch, and how many are still live.
std::pair<int, int> Watched() {
  std::lock_guard lock(gWatchMutex);
  return {gWatch.made, int(gWatch.live.size() - std::count(gWatch.live.begin(), gWatch.live.end(), nullptr))};
}

}  // namespace

void* operator new(size_t size) {
  if (void* p = Allocate(size, false)) return p;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size, true); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
// The array forms too: the sanitizer runtimes give them their own allocator
// instead of passing them on to the forms above.
void* operator new[](size_t size) { return operator new(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size, true); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using namespace BarrelKeystone;
using rawfx::host::BitmapView;
using rawfx::host::EngineCall;
using rawfx::host::SplitPolicy;
namespace ref = rawfx::reference;

// RawBitmap format codes besides the shared ones.
constexpr int64_t kRGB = 3, kARGB = 6, kBGRA = 7, kXRGB = 9, kCMYKA = 14;
constexpr size_t kBlockSize = sizeof(PolarCoordinatesParams);
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// How an effect must hand a run to the engine, besides the operation: mode
// code, format flags, mask, and whether one function is passed as both the
// plain and the masked part.
using ExpectedCall = std::tuple<int32_t, int32_t, REALobject, bool>;

// The pixel bytes of a bitmap, rows packed (padding excluded).
std::vector<uint8_t> PixelBytes(rawfx::host::Host& host, REALobject bitmap) {
  std::vector<uint8_t> bytes;
  for (const std::vector<uint8_t>& row : Rows(host, bitmap)) bytes.insert(bytes.end(), row.begin(), row.end());
  return bytes;
}

// The value a colour gives each channel of a bitmap of that format and depth,
// in the bitmap's order: the colour converted to the bitmap's family, alpha
// only when includeAlpha, -1 for a channel that carries no component.
std::vector<int32_t> BackgroundValues(rawfx::host::Host& host, REALobject colour, int64_t format, int bits,
                                      bool includeAlpha) {
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

// Keeps the objects a test makes and sees every run the engine accepts; two
// colours of each family that the runs use, which no run may change.
class Effects : public AsyncHostTest {
 protected:
  void SetUp() override {
    target = Keep(host.NewCMYKColor(0, 0, 0, 0));
    rgb = Keep(host.NewRGBColor(200, 100, 50, 40));
    cmyk = Keep(host.NewCMYKColor(10, 60, 120, 30, 20));
    colourStates = ColourState(rgb) + ColourState(cmyk);
    host.SetRunInspector([this](const EngineCall& call, const GenericMPParams& head,
                                const std::vector<MPParamBlock>& parts, REALobject) {
      std::lock_guard lock(mutex_);
      seen_ = {seen_.count + 1, call, parts};
      if (peek) peek(head);
    });
  }
  void TearDown() override {
    host.WaitForAsync();
    host.SetRunInspector(nullptr);
    EXPECT_EQ(ColourState(rgb) + ColourState(cmyk), colourStates);
    for (REALobject object : kept_) host.Unlock(object);
    AsyncHostTest::TearDown();
  }

  // Released at the end of the test, before the leak check.
  REALobject Keep(REALobject object) {
    if (object) kept_.push_back(object);
    return object;
  }
  // A kept bitmap of pattern pixels with padded rows.
  REALobject NewSource(int64_t width, int64_t height, int64_t format, int bits = 8, uint32_t seed = 1) {
    REALobject bitmap = Keep(NewPattern(host, width, height, format, bits, seed, 6));
    EXPECT_NE(bitmap, nullptr);
    return bitmap;
  }
  // Runs the method on source to its end: the result with a reference for the
  // caller, or nil; the source itself after ApplyInPlace. ApplyAsync completes on `target`.
  REALobject Run(Method method, REALobject effect, REALobject source) {
    if (method == Method::Apply) return host.Call<REALobject>(effect, kApply, source);
    if (method == Method::InPlace) {
      host.Call<void>(effect, kApplyInPlace, source);
      return source;
    }
    host.Call<void>(effect, kApplyAsync, source, target, log.method());
    host.WaitForAsync();
    return log.Take(target);
  }
  REALobject Apply4(REALobject effect, REALobject source, bool toPolar, bool flip, REALobject colour) {
    return host.Call<REALobject>(effect, kPolarApply4, source, static_cast<signed char>(toPolar),
                                 static_cast<signed char>(flip), colour);
  }
  REALobject SetTypes(REALobject effect, int64_t horizontal, int64_t vertical) {
    host.Set<int64_t>(effect, "HorizontalInterlaceType", horizontal);
    host.Set<int64_t>(effect, "VerticalInterlaceType", vertical);
    return effect;
  }
  // The background samples of polar's and barrel's blocks: colour in the source's channel order.
  template <class Params>
  void SetBackground(Params& params, REALobject colour, int64_t format, int bits, bool includeAlpha) {
    const std::vector<int32_t> background = BackgroundValues(host, colour, format, bits, includeAlpha);
    std::copy(background.begin(), background.end(), params.backColor8);
    std::copy(background.begin(), background.end(), params.backColor16);
  }
  // The last run the engine accepted, as its run inspector saw it.
  struct SeenRun {
    int count = 0;  // runs accepted so far
    EngineCall call;
    std::vector<MPParamBlock> parts;
  };
  SeenRun Seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  // Both views of a colour, to show that a run left it as it was.
  std::string ColourState(REALobject colour) {
    const RGBColorData asRGB = host.RGBColor(colour);
    const CMYKColorData asCMYK = host.CMYKColor(colour);
    return std::string(reinterpret_cast<const char*>(&asRGB), sizeof asRGB) +
           std::string(reinterpret_cast<const char*>(&asCMYK), sizeof asCMYK);
  }

  void ExpectMatchesReference(REALobject effect, REALobject source, void* params, PartFunction referencePart,
                              Method method, const ExpectedCall& expected, std::function<REALobject()> run = {});
  void ExpectRefused(REALobject effect, REALobject source, int64_t code, Method method,
                     std::function<REALobject()> run = {});
  void ExpectHoldsOneLock(REALobject effect, const char* property, REALobject first, REALobject second,
                          bool nilRemoves);

  REALobject target = nullptr;                       // where ApplyAsync completes
  std::function<void(const GenericMPParams&)> peek;  // shown each accepted run's block while it is alive
  REALobject rgb = nullptr, cmyk = nullptr;
  std::string colourStates;

 private:
  std::mutex mutex_;  // the inspector runs on engine workers
  SeenRun seen_;
  std::vector<REALobject> kept_;
};

// Runs `run` (by default the method) with 1 and 4 workers under every split
// policy. Each run must be handed to the engine as `method` and `expected`
// say, leave lastError as it was, leave the source unchanged and the result's
// row padding zero, and give what referencePart makes of the source over the
// engine's own parts with params (its head filled here, the effect's fields
// by the caller). `run` returns the destination: a result with a reference for
// the caller, or the source itself after an in-place run (restored here afterwards).
void Effects::ExpectMatchesReference(REALobject effect, REALobject source, void* params, PartFunction referencePart,
                                     Method method, const ExpectedCall& expected, std::function<REALobject()> run) {
  if (!run) run = [&] { return Run(method, effect, source); };
  const EngineCall::Operation operation = method == Method::Apply     ? EngineCall::Parts
                                          : method == Method::InPlace ? EngineCall::PartsInPlace
                                                                      : EngineCall::PartsAsync;
  const std::vector<uint8_t> original = PixelBytes(host, source), memory = Pixels(host, source);
  const std::pair<int, SplitPolicy> setups[] = {{1, SplitPolicy::Balanced},   {4, SplitPolicy::Balanced},
                                                {4, SplitPolicy::SinglePart}, {4, SplitPolicy::SmallParts},
                                                {1, SplitPolicy::OddStarts},  {4, SplitPolicy::WithEmptyParts}};
  for (auto [threads, policy] : setups) {
    SCOPED_TRACE(testing::Message() << threads << " threads, split policy " << static_cast<int>(policy));
    host.SetThreads(threads);
    host.SetSplitPolicy(policy);
    LastErrorField(host, effect) = 4;  // a success leaves an earlier code as it was
    const int runsBefore = Seen().count, completionsBefore = log.TotalCalls();
    const REALobject destination = run();
    const auto [count, call, parts] = Seen();
    ASSERT_NE(destination, nullptr);
    EXPECT_EQ(log.TotalCalls(), log.Calls(target)) << "completed on another target";
    // One run, one completion for ApplyAsync only, lastError kept, and the call as expected.
    EXPECT_EQ(std::tuple(count - runsBefore, log.TotalCalls() - completionsBefore, host.LastError(effect),
                         call.operation, call.resultFlag, call.modeCode, call.formatFlags, call.mask,
                         call.partFunction == call.maskPartFunction),
              std::tuple_cat(std::tuple(1, method == Method::Async ? 1 : 0, int64_t{4}, operation,
                                        method == Method::InPlace ? 0 : 1),
                             expected));
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
    const REALobject mask = std::get<REALobject>(expected);
    head.maskData = mask ? static_cast<RawBitmapMaskData*>(host.ClassData(mask, "RawBitmapMask")) : nullptr;
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
    EXPECT_EQ(Pixels(host, source), memory) << "the source is never written";
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

// `run` (by default the method; nil in place) must give nil, store `code` (over
// another code stored before), start no run and no completion, and leave the
// source's memory as it was.
void Effects::ExpectRefused(REALobject effect, REALobject source, int64_t code, Method method,
                            std::function<REALobject()> run) {
  SCOPED_TRACE(testing::Message() << "method " << static_cast<int>(method));
  if (!run)
    run = [&] {
      const REALobject result = Run(method, effect, source);
      return method == Method::InPlace ? nullptr : result;
    };
  const std::vector<uint8_t> before = source ? Pixels(host, source) : std::vector<uint8_t>{};
  LastErrorField(host, effect) = code == 4 ? 6 : 4;  // so that the code shows this run stored it
  const int runs = Seen().count;
  const rawfx::host::Host::AsyncCounts counts = host.asyncCounts();
  EXPECT_EQ(run(), nullptr);
  host.WaitForAsync();
  EXPECT_EQ(host.LastError(effect), code);
  EXPECT_EQ(Seen().count, runs) << "no run reached the engine";
  EXPECT_EQ(std::pair(host.asyncCounts().started, host.asyncCounts().completionCalls),
            std::pair(counts.started, counts.completionCalls));
  EXPECT_EQ(source ? Pixels(host, source) : before, before);
}

// The effect holds exactly one lock on the object in property: setting it
// twice takes one, the getter hands out its own, nil is ignored (colours)
// or removes the object (masks), and a replaced object is released.
void Effects::ExpectHoldsOneLock(REALobject effect, const char* property, REALobject first, REALobject second,
                                 bool nilRemoves) {
  SCOPED_TRACE(property);
  const int64_t firstRefs = host.RefCount(first), secondRefs = host.RefCount(second);
  host.Set<REALobject>(effect, property, first);
  host.Set<REALobject>(effect, property, first);  // the object it already holds
  REALobject got = host.Get<REALobject>(effect, property);
  EXPECT_EQ(got, first);
  EXPECT_EQ(host.RefCount(first), firstRefs + 2) << "the effect's one reference and the getter's own";
  host.Unlock(got);
  host.Set(effect, property, nullptr);
  got = host.Get<REALobject>(effect, property);
  EXPECT_EQ(got, nilRemoves ? nullptr : first);
  host.Unlock(got);
  EXPECT_EQ(host.RefCount(first), firstRefs + (nilRemoves ? 0 : 1));
  host.Set<REALobject>(effect, property, second);
  EXPECT_EQ(std::pair(host.RefCount(first), host.RefCount(second)), std::pair(firstRefs, secondRefs + 1));
}

// The objects a class holds: one lock each, whichever way they are set; a
// default colour is the effect's own, handed out with a reference of the getter's.
// Interlace types and barrel settings are stored as given, extremes included
// (Apply refuses what it cannot run); oil paint clamps its brush and smoothness.
// The defaults are those of docs/classes.md, which startup_test checks.
TEST_F(Effects, PropertiesHoldOneLockAndReadBackAsStoredOrClamped) {
  REALobject bitmap = NewSource(2, 2, kRGB);
  for (const char* className : {kInterlace, kPolar, kBarrel, kOilPaint}) {
    SCOPED_TRACE(className);
    REALobject effect = Keep(host.New(className));
    if (className != kOilPaint) {
      REALobject colour = Keep(host.Get<REALobject>(effect, "BackColor"));
      EXPECT_EQ(host.RefCount(colour), 2) << "the effect's reference and the getter's";
      ExpectHoldsOneLock(effect, "BackColor", Keep(host.NewRGBColor(1, 2, 3)), Keep(host.NewCMYKColor(1, 2, 3, 4)),
                         false);
    }
    if (className == kInterlace || className == kOilPaint)
      ExpectHoldsOneLock(effect, "Mask", Keep(host.NewMask(bitmap)), Keep(host.NewMask(bitmap, true)), true);
  }

  REALobject interlace = SetTypes(Keep(host.New(kInterlace)), 7, -5);
  EXPECT_EQ(host.Get<int64_t>(interlace, "HorizontalInterlaceType"), 7);
  EXPECT_EQ(host.Get<int64_t>(interlace, "VerticalInterlaceType"), -5);

  REALobject barrel = Keep(host.New(kBarrel));
  for (auto [name, value] :
       {std::pair{"Distortion", -kInf}, {"HorizontalKeystone", kNaN}, {"VerticalKeystone", 1e300}}) {
    host.Set<double>(barrel, name, value);
    EXPECT_EQ(std::bit_cast<uint64_t>(host.Get<double>(barrel, name)), std::bit_cast<uint64_t>(value)) << name;
  }
  host.Set<bool>(barrel, "Interpolate", false);
  EXPECT_FALSE(host.Get<bool>(barrel, "Interpolate"));

  REALobject oil = Keep(host.New(kOilPaint));
  for (auto [set, read] : {std::pair<uint8_t, uint8_t>{0, 1}, {1, 1}, {3, 3}, {5, 5}, {6, 5}, {255, 5}}) {
    host.Set<uint8_t>(oil, "BrushSize", set);
    EXPECT_EQ(host.Get<uint8_t>(oil, "BrushSize"), read) << int{set};
  }
  for (auto [set, read] : {std::pair{0.0f, 0.04f}, {0.039f, 0.04f}, {-3.0f, 0.04f}, {0.04f, 0.04f}, {0.041f, 0.041f},
                           {1.0f, 1.0f}, {7.5f, 1.0f}, {std::numeric_limits<float>::quiet_NaN(), 1.0f}}) {
    host.Set<float>(oil, "Smoothness", set);
    EXPECT_EQ(host.Get<float>(oil, "Smoothness"), read) << set;
  }
}

// Each class refuses in its order: interlace tests its horizontal type before
// it looks at the source, then the no-op case, then the vertical type, the
// source and the depth; polar and barrel the source, then (polar) a bitmap too
// large for 32-bit offsets, then the depth; oil paint the source, then brush and
// smoothness as stored in the instance data (past the setters' clamps), then
// the depth. A refused ApplyAsync of polar frees its block (and run table)
// itself; one without memory for its block stores 5; a nil colour argument is refused.
TEST_F(Effects, RefusedRunsStoreTheirCodeAndRunNothing) {
  constexpr float kNoSmoothness = std::numeric_limits<float>::quiet_NaN();
  struct Row {
    const char* className;
    int64_t first, second;  // interlace: the two types; polar: wrapping; oil paint: the brush and
    float smoothness;       // the smoothness written into its instance data
    bool nilSource;
    int bits;                       // of the source's memory
    uint8_t claimedBits, channels;  // patched into the record; channels 0: as made
    int64_t height;                 // patched into the record: from 59652325 rows of 9 x 4 bytes, the
                                    // last row starts past 2^31 - 1
    int64_t code;
  };
  const Row rows[] = {
      {kInterlace, -1, 0, 0, false, 8, 32, 0, 6, 4},    {kInterlace, 3, 5, 0, false, 8, 32, 0, 6, 4},
      {kInterlace, 3, 0, 0, true, 8, 8, 0, 6, 4},       {kInterlace, 0, -1, 0, false, 8, 8, 0, 6, 4},
      {kInterlace, 1, 3, 0, false, 16, 16, 0, 6, 4},    {kInterlace, 2, int64_t{1} << 40, 0, false, 8, 8, 0, 6, 4},
      {kInterlace, 0, 0, 0, true, 8, 8, 0, 6, 4},       {kInterlace, 2, 1, 0, true, 8, 8, 0, 6, 4},
      {kInterlace, 1, 2, 0, false, 8, 32, 0, 6, 6},     {kInterlace, 0, 1, 0, false, 8, 0, 0, 6, 6},
      {kInterlace, 2, 0, 0, false, 16, 15, 0, 6, 6},    {kInterlace, 1, 1, 0, false, 8, 255, 0, 6, 6},
      {kInterlace, 1, 0, 0, false, 8, 8, 9, 6, 6},      {kInterlace, 0, 2, 0, false, 16, 16, 9, 6, 6},
      {kPolar, 1, 0, 0, true, 8, 8, 0, 6, 4},           {kPolar, 0, 0, 0, true, 8, 8, 0, 6, 4},
      {kPolar, 1, 0, 0, false, 8, 32, 0, 6, 6},         {kPolar, 0, 0, 0, false, 8, 12, 0, 6, 6},
      {kPolar, 1, 0, 0, false, 8, 8, 0, 59652325, 4},   {kPolar, 0, 0, 0, false, 8, 16, 0, 59652325, 4},
      {kBarrel, 0, 0, 0, false, 8, 0, 0, 6, 6},         {kBarrel, 0, 0, 0, true, 8, 8, 0, 6, 4},
      {kBarrel, 0, 0, 0, false, 8, 12, 0, 6, 6},        {kBarrel, 0, 0, 0, false, 8, 32, 0, 6, 6},
      {kOilPaint, 2, 0, 0.4f, true, 8, 8, 0, 6, 4},     {kOilPaint, 0, 0, 7.0f, true, 8, 8, 0, 6, 4},
      {kOilPaint, 2, 0, 0.4f, false, 16, 16, 0, 6, 6},  {kOilPaint, 0, 0, 0.4f, false, 8, 8, 0, 6, 4},
      {kOilPaint, 6, 0, 0.4f, false, 8, 8, 0, 6, 4},    {kOilPaint, 2, 0, 1.0001f, false, 8, 8, 0, 6, 4},
      {kOilPaint, 2, 0, 0.0399f, false, 8, 8, 0, 6, 4}, {kOilPaint, 2, 0, kNoSmoothness, false, 8, 8, 0, 6, 4},
      {kOilPaint, 6, 0, 0.4f, false, 16, 16, 0, 6, 4},
  };
  REALobject colour = Keep(host.NewRGBColor(1, 2, 3));
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.className << ", row " << &row - rows);
    REALobject effect = Keep(host.New(row.className));
    REALobject source = row.nilSource ? nullptr : NewSource(9, 6, kRGBA, row.bits);
    if (row.className == kInterlace) SetTypes(effect, row.first, row.second);
    if (row.className == kPolar) host.Set<bool>(effect, "RectangularToPolar", row.first != 0);
    if (row.className == kOilPaint) {
      auto& data = *static_cast<OilPaintData*>(host.ClassData(effect, kOilPaint));
      std::tie(data.brushSize, data.smoothness) = std::pair(static_cast<uint8_t>(row.first), row.smoothness);
    }
    RawBitmap saved{};
    if (source) {
      RawBitmap& record = *host.Bitmap(source).record;
      saved = record;
      record.bitsPerChannel = row.claimedBits;
      record.height = row.height;
      if (row.channels) (row.bits == 8 ? record.bytesPerPixel : record.channelCount) = row.channels;
    }
    REALobject compared = row.height == 6 ? source : nullptr;  // a patched height's pixels are not all there
    ExpectRefused(effect, compared, row.code, Method::Apply);
    if (row.className == kInterlace) ExpectRefused(effect, compared, row.code, Method::InPlace);
    if (row.className == kBarrel) ExpectRefused(effect, compared, row.code, Method::Async);
    if (row.className == kPolar) {
      ExpectRefused(effect, compared, row.code, Method::Apply,
                    [&] { return Apply4(effect, source, row.first, true, colour); });
      Watch(kBlockSize + (row.nilSource || row.first ? 0 : PolarColumnTableBytes(9, row.height)));
      ExpectRefused(effect, compared, row.code, Method::Async, [&] { return Run(Method::Async, effect, source); });
      EXPECT_EQ(Watched(), std::pair(1, 0)) << "the block was taken and freed";
    }
    if (source) *host.Bitmap(source).record = saved;
  }
  REALobject polar = Keep(host.New(kPolar)), source = NewSource(9, 6, kRGB);
  ExpectRefused(polar, source, 4, Method::Apply, [&] { return Apply4(polar, source, true, true, nullptr); });
  Watch(kBlockSize, true);  // wrapping takes no table here: the block is the one allocation
  ExpectRefused(polar, source, 5, Method::Async);
  Watch(0);
}

// ---- interlace ------------------------------------------------------------------------------

// Every pair of types, at both depths, with and then without a mask, on
// sources of both families with colours of the other family, alpha filled or
// kept: Apply and ApplyInPlace leave what the reference kernels make. Both
// types NONE run nothing, whatever depth the record claims: Apply returns the
// very source with one more reference, ApplyInPlace leaves it as it was.
// First, eight channels, the most a colour fills: a 16-bit RGBA bitmap's
// memory seen in place as eight 8-bit channels, with the default colour.
TEST_F(Effects, InterlaceRunsMatchTheReferenceKernels) {
  REALobject effect = SetTypes(Keep(host.New(kInterlace)), 1, 1);
  {
    REALobject source = NewSource(5, 4, kRGBA, 16);
    RawBitmap& record = *host.Bitmap(source).record;
    record.bitsPerChannel = 8;
    InterlaceParams params{};
    params.horizontalType = params.verticalType = 1;
    params.interlaceAlpha = 1;
    // The default opaque black at the record's byte offsets, now channel numbers.
    std::fill_n(params.channelValues, kMaxChannels, -1);
    for (const uint8_t colour : {record.redOffset, record.greenOffset, record.blueOffset})
      params.channelValues[colour] = 0;
    params.channelValues[record.alphaOffset] = 255;
    ExpectMatchesReference(effect, source, &params, ref::kInterlaceParts[0][0], Method::InPlace,
                           {2, 13, nullptr, false});
    record.bitsPerChannel = 16;
  }
  REALobject mask = Keep(host.NewMask(NewSource(7, 9, kRGBA, 8, 99), false, 1));
  struct Look {
    int64_t format;
    REALobject colour;
    bool interlaceAlpha;
  };
  for (const Look& look :
       {Look{kRGBA, cmyk, true}, Look{kCMYKA, rgb, true}, Look{kARGB, rgb, false}, Look{kCMYK, cmyk, false}}) {
    host.Set<REALobject>(effect, "BackColor", look.colour);
    host.Set<bool>(effect, "InterlaceAlphaChannel", look.interlaceAlpha);
    for (int bits : {8, 16}) {
      REALobject source = NewSource(7, 9, look.format, bits, static_cast<uint32_t>(look.format + bits));
      InterlaceParams params{};
      params.interlaceAlpha = look.interlaceAlpha;
      const std::vector<int32_t> background =
          BackgroundValues(host, look.colour, look.format, bits, look.interlaceAlpha);
      std::copy(background.begin(), background.end(), params.channelValues);
      for (bool masked : {true, false}) {
        host.Set<REALobject>(effect, "Mask", masked ? mask : nullptr);
        const PartFunction reference = ref::kInterlaceParts[bits == 16][masked];
        for (int64_t types = 0; types < 9; ++types) {
          SCOPED_TRACE(testing::Message() << "format " << look.format << ", " << bits << " bits, types " << types / 3
                                          << "/" << types % 3 << ", masked " << masked);
          SetTypes(effect, types / 3, types % 3);
          if (types == 0) {
            const std::vector<uint8_t> before = Pixels(host, source);
            const int runs = Seen().count;
            LastErrorField(host, effect) = 0;
            host.Bitmap(source).record->bitsPerChannel = static_cast<uint8_t>(masked ? 32 : bits);
            EXPECT_EQ(Run(Method::Apply, effect, source), source);
            EXPECT_EQ(host.RefCount(source), 2);
            host.Unlock(source);
            Run(Method::InPlace, effect, source);
            EXPECT_EQ(std::tuple(host.RefCount(source), Pixels(host, source), host.LastError(effect), Seen().count),
                      std::tuple(1, before, 0, runs));
            host.Bitmap(source).record->bitsPerChannel = static_cast<uint8_t>(bits);
            continue;
          }
          params.horizontalType = types / 3;
          params.verticalType = types % 3;
          for (Method via : {Method::Apply, Method::InPlace})
            ExpectMatchesReference(effect, source, &params, reference, via,
                                   {2, bits == 8 ? 13 : 14, masked ? mask : nullptr, false});
        }
      }
    }
  }
}

// ---- polar coordinates --------------------------------------------------------------------

// One effect runs every row (the first with its default colour): the
// one-argument Apply and ApplyAsync with the row's settings in the properties,
// the four-argument Apply with them as arguments and the opposite settings in
// the properties, which it leaves as they were. Unrolling (polar to
// rectangular) takes a column table made for the bitmap and the run's options:
// right after the block, in the same allocation, for ApplyAsync; in one of its
// own, freed before Apply returns, for Apply. Wrapping takes a ray table made
// for the bitmap in Apply only.
TEST_F(Effects, PolarRunsMatchTheReferenceKernels) {
  constexpr int64_t kWidth = 23, kHeight = 17;
  REALobject effect = Keep(host.New(kPolar));
  PolarColumnTable columns{};
  std::pair<int32_t, int32_t> raysMadeFor;
  bool tableAfterBlock = false;
  peek = [&](const GenericMPParams& head) {
    const auto& params = reinterpret_cast<const PolarCoordinatesParams&>(head);
    columns = params.columnTable ? *params.columnTable : PolarColumnTable{};
    raysMadeFor = params.rayTable ? std::pair(params.rayTable->width, params.rayTable->height) : std::pair(0, 0);
    tableAfterBlock = params.columnTable == static_cast<const void*>(&params + 1);
  };
  struct Row {
    bool toPolar, flip;
    int64_t format;
    int bits;
    REALobject colour;  // nil: the default colour
    Method via;
    bool arguments;  // the four-argument Apply
  };
  const Row rows[] = {
      {true, true, kRGBA, 8, nullptr, Method::Apply, false}, {false, true, kRGBA, 16, rgb, Method::Apply, false},
      {true, false, kXRGB, 8, rgb, Method::Apply, true},     {false, false, kARGB, 16, rgb, Method::Async, false},
      {true, true, kCMYKA, 8, rgb, Method::Apply, true},     {false, true, kRGB, 16, cmyk, Method::Async, false},
      {true, false, kCMYK, 16, cmyk, Method::Apply, false},  {false, false, kXRGB, 16, cmyk, Method::Apply, true},
      {true, true, kARGB, 8, cmyk, Method::Async, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "wrapping " << row.toPolar << ", flip " << row.flip << ", format " << row.format
                                    << ", " << row.bits << " bits, method " << static_cast<int>(row.via)
                                    << ", arguments " << row.arguments);
    host.Set<bool>(effect, "RectangularToPolar", row.toPolar != row.arguments);
    host.Set<bool>(effect, "FlipMapping", row.flip != row.arguments);
    if (row.colour)
      host.Set<REALobject>(effect, "BackColor", !row.arguments ? row.colour : rgb == row.colour ? cmyk : rgb);
    REALobject colour = row.colour ? row.colour : Keep(host.Get<REALobject>(effect, "BackColor"));
    REALobject source = NewSource(kWidth, kHeight, row.format, row.bits, static_cast<uint32_t>(row.format));

    PolarCoordinatesParams params{};
    params.settings = {100.0, row.flip, 1, row.toPolar, 0.0, 0, 0, 0.0, 0.0};
    SetBackground(params, colour, row.format, row.bits, rawfx::host::FindFormat(row.format)->hasAlpha);
    const bool tabled = !row.toPolar || row.via != Method::Async;
    const size_t tableBytes =
        tabled ? PolarRunTableBytes(kWidth, kHeight, host.Bitmap(source).record->bytesPerPixel, row.toPolar) : 0;
    Watch(row.via == Method::Async ? kBlockSize + tableBytes : tableBytes);
    ExpectMatchesReference(
        effect, source, &params, ref::kPolarParts[row.bits == 16][0], row.via,
        {2, row.bits == 8 ? 13 : 14, nullptr, true}, [&] {
          return row.arguments ? Apply4(effect, source, row.toPolar, row.flip, colour) : Run(row.via, effect, source);
        });
    EXPECT_EQ(Watched(), std::pair(6, 0)) << "each of the six runs gave back what it took";
    EXPECT_EQ(tableAfterBlock, !row.toPolar && row.via == Method::Async);
    EXPECT_EQ(raysMadeFor, row.toPolar && tabled ? std::pair(int32_t{kWidth}, int32_t{kHeight}) : std::pair(0, 0));
    EXPECT_EQ(std::tie(columns.width, columns.height, columns.roundness, columns.flipMapping, columns.angleOffset),
              std::tuple(row.toPolar ? 0 : kWidth, row.toPolar ? 0 : kHeight, row.toPolar ? 0.0 : 100.0,
                         uint8_t{!row.toPolar && row.flip}, 0.0));
    EXPECT_EQ(Seen().call.deleteCallback, nullptr);
    EXPECT_EQ(std::pair(host.Get<bool>(effect, "RectangularToPolar"), host.Get<bool>(effect, "FlipMapping")),
              std::pair(row.toPolar != row.arguments, row.flip != row.arguments));
  }
}

// ---- barrel distortion --------------------------------------------------------------------

// One effect applies each row's settings (the first row its defaults) with
// Apply and with ApplyAsync; distortion -1 and non-finite settings map every
// pixel outside, so those results are all background. The block lives in the
// instance data: an asynchronous run hands it back through its delete callback.
TEST_F(Effects, BarrelRunsMatchTheReferenceKernels) {
  REALobject effect = Keep(host.New(kBarrel));
  BarrelDistortionParams& block = static_cast<BarrelDistortionData*>(host.ClassData(effect, kBarrel))->params;
  struct Row {
    double distortion, horizontal, vertical;
    bool interpolate;
    int64_t format, width, height;
    int bits;
    REALobject colour;  // nil: the default colour
  };
  const Row rows[] = {
      {0.0, 0.0, 0.0, true, kRGBA, 12, 8, 8, nullptr},  {0.35, 0.1, -0.05, true, kRGBA, 37, 29, 16, rgb},
      {0.35, 0.1, -0.05, false, kRGBA, 37, 29, 8, rgb}, {0.5, -0.2, 0.25, false, kCMYK, 10, 6, 16, rgb},
      {-0.25, 0.0, 0.1, true, kBGRA, 7, 3, 8, cmyk},    {-1.0, 0.0, 0.0, false, kCMYKA, 5, 4, 8, rgb},
      {-1.0, 0.0, 0.0, true, kRGBA, 6, 3, 16, cmyk},    {kNaN, 0.0, 0.0, true, kRGB, 9, 6, 8, rgb},
      {kInf, 0.0, 0.0, false, kXRGB, 9, 6, 16, cmyk},   {0.0, kInf, 0.0, true, kRGB, 9, 6, 8, cmyk},
      {0.0, 0.0, -kInf, false, kRGB, 9, 6, 16, rgb},    {0.0, 0.0, kNaN, true, kCMYK, 9, 6, 8, cmyk},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "distortion " << row.distortion << ", keystones " << row.horizontal << "/"
                                    << row.vertical << ", format " << row.format << ", " << row.bits
                                    << " bits, bilinear " << row.interpolate);
    if (row.colour) host.Set<REALobject>(effect, "BackColor", row.colour);
    host.Set<bool>(effect, "Interpolate", row.interpolate);
    host.Set<double>(effect, "Distortion", row.distortion);
    host.Set<double>(effect, "HorizontalKeystone", row.horizontal);
    host.Set<double>(effect, "VerticalKeystone", row.vertical);
    REALobject source = NewSource(row.width, row.height, row.format, row.bits, static_cast<uint32_t>(row.width));

    BarrelDistortionParams params{};
    const double keystone[9] = {1, 0, row.horizontal, 0, 1, row.vertical, row.horizontal, row.vertical, 1};
    std::copy(keystone, keystone + 9, params.keystone);
    params.distortion = row.distortion;
    params.centerX = static_cast<double>(row.width) * 0.5;
    params.centerY = static_cast<double>(row.height) * 0.5;
    params.distortionPlusOne = row.distortion + 1.0;
    SetBackground(params, Keep(host.Get<REALobject>(effect, "BackColor")), row.format, row.bits, true);
    const PartFunction reference = ref::kBarrelParts[row.bits == 16][row.interpolate];
    for (Method via : {Method::Apply, Method::Async}) {
      const rawfx::host::Host::AsyncCounts before = host.asyncCounts();
      ExpectMatchesReference(effect, source, &params, reference, via, {3, row.bits == 8 ? 13 : 14, nullptr, true});
      const EngineCall call = Seen().call;
      EXPECT_EQ(call.params, &block);
      EXPECT_EQ(host.asyncCounts().blocksDeleted, before.blocksDeleted) << "the block is never deleted";
      EXPECT_EQ(host.asyncCounts().deleteCallbacks > before.deleteCallbacks, via == Method::Async);
      EXPECT_EQ(call.deleteCallback != nullptr, via == Method::Async);
      EXPECT_EQ(call.deleteCallback ? call.deleteCallback(effect, &block.head) : 0, 0);
    }
  }
}

// ---- oil paint ----------------------------------------------------------------------------

// One effect with its defaults (brush 2, 103 bins), then every 8-bit format
// with brush sizes 1 to 5 and smoothness clamped or not; a third of them
// masked (mask values 0 and 255 included), half with two bits per byte for
// crowded bins.
TEST_F(Effects, OilPaintRunsMatchTheReferenceKernels) {
  const int64_t formats[] = {kRGBA, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13, 14, 15, 16, 22, 23};
  const float smoothnesses[] = {0.0f, 0.4f, 7.5f, 0.5f, 0.1f};
  REALobject maskBitmap = NewSource(17, 13, kGray, 8, 99);
  host.Bitmap(maskBitmap).row(0)[0] = 0;
  host.Bitmap(maskBitmap).row(0)[1] = 255;
  REALobject mask = Keep(host.NewMask(maskBitmap));
  REALobject effect = Keep(host.New(kOilPaint));
  for (size_t i = 0; i < std::size(formats); ++i) {
    const bool fresh = i == 0, masked = i % 3 == 1, coarse = i % 2 == 1;
    SCOPED_TRACE(testing::Message() << "format " << formats[i] << ", fresh " << fresh << ", masked " << masked);
    if (!fresh) {
      host.Set<uint8_t>(effect, "BrushSize", static_cast<uint8_t>(1 + i % 5));
      host.Set<float>(effect, "Smoothness", smoothnesses[i % 5]);
    }
    host.Set<REALobject>(effect, "Mask", masked ? mask : nullptr);
    REALobject source = NewSource(17, 13, formats[i], 8, static_cast<uint32_t>(i));
    const rawfx::host::BitmapView view = host.Bitmap(source);
    for (int64_t y = 0; coarse && y < view.height; ++y)
      for (int64_t b = 0; b < view.width * view.pixelBytes; ++b) view.row(y)[b] &= 0xC0;

    const rawfx::host::FormatInfo& info = *rawfx::host::FindFormat(formats[i]);
    OilPaintParams params{};
    params.brushSize = host.Get<uint8_t>(effect, "BrushSize");
    params.smoothness = host.Get<float>(effect, "Smoothness");
    params.maxLevel = static_cast<int16_t>(params.smoothness * 255.0f);
    params.redOffset = info.red;
    params.greenOffset = info.green;
    params.blueOffset = info.blue;
    ExpectMatchesReference(effect, source, &params, ref::kOilPaintParts[0][masked], Method::Apply,
                           {3, 5, masked ? mask : nullptr, false});
  }
}

}  // namespace
