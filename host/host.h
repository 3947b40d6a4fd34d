// The embedding host: a small runtime that loads the plug-in module with dlopen
// exactly as a host application would, serves its resolver, lays out objects,
// provides the companion classes (RawBitmap, RawBitmapMask, the colour classes
// and MPImageFilterRaw with its multi-threaded engine) and lets programs create
// objects, set properties and call methods by their declarations.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "imaging/color_order.h"
#include "imaging/mp_filter.h"
#include "imaging/raw_bitmap.h"
#include "plugin/host_types.h"

namespace rawfx::host {

// How the engine cuts a run's rows into parts. Every policy puts every row in
// exactly one part; only Balanced is meant for production use.
enum class SplitPolicy {
  Balanced,        // parts start at multiples of 4 rows, sized to keep all workers busy
  SinglePart,      // one part holding every row
  SmallParts,      // parts of 1 to 3 rows
  OddStarts,       // parts that start at odd rows (1, then 2 rows each)
  WithEmptyParts,  // Balanced parts with empty parts between them
};

// The companion's cap on a bitmap's pixel memory, rows with their padding: a
// wild size is refused instead of attempted. Every source within it has a
// run result within it too (the engine pads result rows only as far as the
// cap allows).
inline constexpr int64_t kMaxBitmapBytes = int64_t{1} << 30;

struct HostOptions {
  std::string modulePath;                 // empty: the module built with this project
  // By default each Host loads a private copy of the module from the temporary
  // directory, so that every Host starts with fresh module globals (the tests make
  // many). A program with one Host per process loads the file itself instead: no
  // copy, and no need for a temporary directory it may execute from.
  bool loadInPlace = false;
  double hostVersion = 2024.0;            // what "REALGetRBVersion" reports (NaN allowed)
  std::set<std::string> missingServices;  // host names the resolver answers null for
  int threads = 0;                        // engine workers; 0: the machine's cores
  SplitPolicy split = SplitPolicy::Balanced;
  int64_t maxBitmapBytes = kMaxBitmapBytes;  // the companion's cap; tests lower it
};

// One RawBitmap format the companion knows. Codes 0, 1, 2, 22 and 23 are grey
// (one channel, read as red, green and blue); 3..10 the RGB family (RGB, BGR,
// RGBA, ARGB, BGRA, ABGR, XRGB, BGRX); 13..16 the CMYK family (CMYK, CMYKA,
// ACMYK, KCMY). The X formats have a fourth byte that carries no colour: it
// sits at the alpha position, but hasAlpha is false. Every format exists at 8
// and 16 bits per channel; byte positions in the RawBitmap record are the
// sample indices below times the bytes per sample (16-bit RGBA: alpha at 6).
struct FormatInfo {
  int64_t code;
  const char* name;
  int channels;          // samples per pixel
  bool cmyk;             // the CMYK family (codes 13..16)
  bool hasAlpha;
  uint8_t red, green, blue, alpha, black;  // sample indices (scaled to bytes by depth); 0xFF: none
};
const std::vector<FormatInfo>& Formats();
const FormatInfo* FindFormat(int64_t code);

// Where a bitmap's pixels are, for programs that read or fill them.
struct BitmapView {
  uint8_t* pixels = nullptr;
  int64_t rowBytes = 0;
  int64_t width = 0, height = 0;
  int64_t format = 0;
  int bitsPerChannel = 8;
  int64_t pixelBytes = 0;
  RawBitmap* record = nullptr;  // the plug-in data the effects read
  uint8_t* row(int64_t y) const { return pixels + y * rowBytes; }
};

// A class a program defines in the host language: its methods by declaration.
struct ProgramMethod {
  std::string declaration;
  void* function;
};
struct ProgramClass {
  std::string name;
  std::string superName;  // may be a registered plug-in class, e.g. "OilPaintEffectRaw"
  std::vector<ProgramMethod> methods;
};

// A completion method handed to ApplyAsync as its Ptr: called once per run with
// the completion target and the result bitmap (nil when the run failed or was
// cancelled). The result is lent for the call; lock it to keep it. It is called
// on an engine worker thread; objects that reach zero references there are
// destroyed on the host's thread, at the latest by WaitForAsync.
using CompletionMethod = void (*)(REALobject completeTarget, REALobject result);

// A program's progress handler, "OnProgress(value as UInt64,total as UInt64,...)".
using OnProgressMethod = void (*)(REALobject self, uint64_t value, uint64_t total, uint64_t extraInfo,
                                  bool* cancel);

// What the engine was last asked to do, for tests of the effects' calls.
struct EngineCall {
  enum Operation { None, Parts, PartsInPlace, PartsAsync } operation = None;
  int32_t modeCode = 0, formatFlags = 0, resultFlag = 0;
  PartFunction partFunction = nullptr, maskPartFunction = nullptr;
  REALobject mask = nullptr;
  void* params = nullptr;
  ParamBlockDeleter deleteCallback = nullptr;
  int parts = 0;  // parts the rows were cut into
};

class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Host {
 public:
  explicit Host(HostOptions options = {});
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // ---- start-up -------------------------------------------------------------
  int pluginVersion() const;  // what "RegisterPluginVersion" received; -1: never called
  std::vector<const REALclassDefinition*> registeredRecords() const;  // in registration order
  std::vector<std::string> registeredClassNames() const;
  int64_t lookups(std::string_view hostName) const;  // resolver look-ups of that name
  void* resolve(const char* hostName);               // the resolver as the plug-in sees it

  // ---- objects ----------------------------------------------------------------
  REALobject New(std::string_view className);  // constructed, with one reference; nil if unknown
  void DefineClass(ProgramClass program);
  void Lock(REALobject object);
  void Unlock(REALobject object);  // destroys the object at zero references
  int64_t RefCount(REALobject object) const;
  std::string ClassName(REALobject object) const;
  bool IsA(REALobject object, std::string_view className) const;
  size_t LiveObjectCount() const;
  std::vector<std::string> LiveObjectClasses() const;  // oldest first
  // Locks and unlocks of objects that were not alive (over-releases, stale handles);
  // they are ignored, and counted so that tests can catch them.
  int64_t StrayLockCalls() const;
  void* ClassData(REALobject object, std::string_view className) const;  // nil if not that class

  // ---- properties and methods ---------------------------------------------------
  // T is bool ("Boolean"), uint8_t ("UInt8"), float ("Single"), double ("Double"),
  // int64_t or int32_t (enums and "Integer") or REALobject (object types). Getters of object
  // properties hand the caller its own reference. Throws HostError on an unknown
  // property or a type that does not match the row.
  template <class T>
  T Get(REALobject object, std::string_view property);
  template <class T>
  void Set(REALobject object, std::string_view property, T value);
  void Set(REALobject object, std::string_view property, std::nullptr_t) {
    Set<REALobject>(object, property, nullptr);
  }
  const ClassPropertyEntry* FindProperty(REALobject object, std::string_view property) const;

  void* FindMethod(REALobject object, std::string_view declaration) const;  // exact declaration
  template <class R, class... A>
  R Call(REALobject self, std::string_view declaration, A... args) {
    void* fn = FindMethod(self, declaration);
    if (!fn) throw HostError("no method " + std::string(declaration) + " on " + ClassName(self));
    const CallScope scope{*this, self};
    return reinterpret_cast<R (*)(REALobject, A...)>(fn)(self, args...);
  }

  // ---- companions ------------------------------------------------------------
  // A new bitmap with zeroed pixels, rows padded by rowPadding bytes; nil if the
  // companion refuses the size, format or depth (8 and 16 bits are supported;
  // 16-bit rows must stay 2-byte aligned, so their padding must be even).
  REALobject NewBitmap(int64_t width, int64_t height, int64_t format, int bitsPerChannel = 8,
                       int64_t rowPadding = 0);
  BitmapView Bitmap(REALobject bitmap) const;
  // New("ZandoriaColors.RGBColor") / ("...CMYKColor") give opaque black;
  // "ZandoriaColors.GenericColor" itself cannot be instantiated.
  REALobject NewRGBColor(uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255);  // 16-bit parts: value * 257
  REALobject NewRGBColor16(uint16_t r, uint16_t g, uint16_t b, uint16_t a = 65535);  // 8-bit parts: value >> 8
  REALobject NewCMYKColor(uint8_t c, uint8_t m, uint8_t y, uint8_t k, uint8_t a = 255);
  // A colour's components, converted as the colour's ToRGB / ToCMYK would;
  // HostError for anything that is not a colour.
  RGBColorData RGBColor(REALobject colour) const;
  CMYKColorData CMYKColor(REALobject colour) const;
  // A mask over a bitmap's channel (grey bitmaps: channel 0), as the companion builds it.
  REALobject NewMask(REALobject bitmap, bool inverted = false, uint8_t activeChannel = 0);

  // ---- the engine ----------------------------------------------------------------
  // Engine runs give nil when an argument is wrong (nil block or source, a
  // formatFlags depth bit that does not match the source, a mask smaller than
  // the source) and when a cancel stops them before every row is done. An
  // in-place run that succeeds returns the source, without a new reference.
  // A run whose parameter block another run still holds is refused before
  // anything starts, with lastError 4: nil, and for ApplyAsync no completion
  // and no disposal (the block belongs to the run that holds it). An
  // asynchronous run disposes of its block before it calls its completion.
  // LastError and RequestCancel throw HostError for an object without an engine.
  int64_t LastError(REALobject effect) const;
  // 0: the machine's cores. Work already queued finishes on the old workers;
  // call it from the host's thread, not from a completion method.
  void SetThreads(int threads);
  int threads() const;
  void SetSplitPolicy(SplitPolicy policy);
  // Called on the thread that started a synchronous run while it goes, and once at
  // its end, with rows done of total; return false to request a cancel.
  void SetProgressObserver(std::function<bool(int64_t done, int64_t total)> observer);
  // Stops the effect's current run between rows; with no run going, its next run
  // starts with cancel already set (each part then does exactly its first row).
  // Such a cancel is dropped by a run the engine refuses and by the end of a
  // Call that started no run, so it never stops a later, unrelated run.
  void RequestCancel(REALobject effect);
  void WaitForAsync();                    // until every asynchronous run has completed
  EngineCall lastEngineCall() const;

  // ---- fault injection and inspection, for tests and fuzz targets -------------------
  // The next `count` result bitmaps the engine would make are refused, as by a
  // companion out of memory: those runs give nil (asynchronous ones complete with nil).
  void FailResultCreation(int count = 1);
  // Cuts the effect's next run into the parts [0, row) and [row, height), run one
  // after the other on one worker, and sets cancel between them: the cancel arrives
  // while row `row` is processed, so that row is the last one done. A row at or
  // past the height leaves the run as it would have been.
  void CancelAtRow(REALobject effect, int32_t row);
  // Called once for every run the engine accepted, after its parts have returned and
  // before its result is handed out, on the thread that ends the run, with the
  // parameter block while it is still alive (its cancel and progress tell whether
  // the run was stopped), the parts the rows were cut into, and the destination:
  // the new bitmap, or the source for an in-place run.
  using RunInspector = std::function<void(const EngineCall& call, const GenericMPParams& params,
                                          const std::vector<MPParamBlock>& parts, REALobject destination)>;
  void SetRunInspector(RunInspector inspector);
  // What became of the asynchronous runs so far.
  struct AsyncCounts {
    int64_t started = 0;          // ProcessPartsAsync calls
    int64_t completionCalls = 0;  // completion methods called
    int64_t blocksDeleted = 0;    // parameter blocks released with the global operator delete
    int64_t deleteCallbacks = 0;  // parameter blocks handed to the effect's delete callback
  };
  AsyncCounts asyncCounts() const;

  struct Impl;

 private:
  // Ends a Call: a cancel armed for the effect's next run that no run of the
  // call took is dropped.
  struct CallScope {
    Host& host;
    REALobject self;
    ~CallScope() { host.EndCall(self); }
  };
  void EndCall(REALobject self) noexcept;

  std::unique_ptr<Impl> impl_;
};

}  // namespace rawfx::host
