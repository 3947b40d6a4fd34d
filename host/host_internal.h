// The host's private side: how objects and classes are laid out, and the state
// behind a Host (Host::Impl), shared by the runtime, object, companion and
// engine files.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "host/host.h"
#include "host/thread_pool.h"

namespace rawfx::host {

// A class as the host knows it: one of its own companions, a class the
// plug-in registered (record set) or a program's class (methods only). A
// class's own data follows its superclass's data inside every object;
// dataOffset is where it starts.
struct ClassInfo {
  std::string name;
  const ClassInfo* super = nullptr;
  REALclassDefinition* record = nullptr;  // plug-in classes: the record the plug-in registered
  int64_t dataOffset = 0;
  int64_t dataSize = 0;
  int64_t objectSize = 0;  // header plus the data of the whole chain
  ClassConstructor constructor = nullptr;
  ClassConstructor destructor = nullptr;
  std::vector<ProgramMethod> methods;  // companion and program classes
  bool instantiable = true;
};

// Every object starts with this header; its class data follow.
struct ObjectHeader {
  uint64_t magic;
  Host::Impl* host;
  const ClassInfo* cls;
  std::atomic<int64_t> refs;
  uint64_t serial;  // creation order, for tearing down leftovers oldest first
  uint64_t padding[2];  // to 56 bytes: after the 72-byte engine object, effect data is 16-aligned
};
inline constexpr int64_t kHeaderBytes = 56;
static_assert(sizeof(ObjectHeader) == kHeaderBytes);
inline constexpr uint64_t kObjectMagic = 0x524157464F424A31;  // "RAWFOBJ1"

inline ObjectHeader* HeaderOf(REALobject object) { return reinterpret_cast<ObjectHeader*>(object); }
inline uint8_t* BytesOf(REALobject object) { return reinterpret_cast<uint8_t*>(object); }
inline Host::Impl* HostOf(REALobject object) { return HeaderOf(object)->host; }

// A class's data inside an object of that class (or of a subclass).
inline void* DataOf(REALobject object, const ClassInfo* cls) { return BytesOf(object) + cls->dataOffset; }

// What a property row's type string stands for.
// Who zero-fills a new bitmap's pixels: the constructor, or the caller, which
// clears every row before anyone reads it (the engine, part by part, on the
// workers that then fill those rows).
enum class PixelClearing { Now, ByCaller };

enum class ValueKind { Boolean, UInt8, Single, Double, Integer, Object, Unknown };

// A property row and the class whose record holds it.
struct PropertyRef {
  const ClassPropertyEntry* row = nullptr;
  const ClassInfo* owner = nullptr;
};

struct EngineState;

struct Host::Impl {
  Impl(Host& owner, HostOptions hostOptions);
  ~Impl();

  // ---- start-up (runtime.cpp) ----
  void ClaimSlot();
  void LoadModule();
  void Shutdown();
  void* Resolve(const char* hostName);

  // ---- host services the plug-in resolves by name (runtime.cpp, objects.cpp) ----
  void RegisterPluginVersion(int version);
  double GetRBVersion();
  void RegisterClass(REALclassDefinition* record);
  REALclassRef ClassRefByName(const char* name);
  REALobject CreateInstance(REALclassRef classRef);
  REALobject NewInstanceOfClass(REALclassDefinition* record);
  void* GetPluginData(REALobject object, REALclassRef classRef);
  bool ObjectIsA(REALobject object, REALclassRef classRef);
  void* LoadObjectMethod(REALobject object, const char* declaration);
  void* LoadGlobalMethod(REALobject unused, const char* declaration);
  void LockObject(REALobject object);
  void UnlockObject(REALobject object);
  bool GetPropInt32(REALobject object, const char* name, int32_t* value);
  bool GetPropInt64(REALobject object, const char* name, int64_t* value);
  bool GetPropDouble(REALobject object, const char* name, double* value);
  bool GetPropSingle(REALobject object, const char* name, float* value);
  bool GetPropBool(REALobject object, const char* name, bool* value);
  bool GetPropObject(REALobject object, const char* name, REALobject* value);
  bool SetPropInt32(REALobject object, const char* name, int32_t value);
  bool SetPropInt64(REALobject object, const char* name, int64_t value);
  bool SetPropDouble(REALobject object, const char* name, double value);
  bool SetPropSingle(REALobject object, const char* name, float value);
  bool SetPropByte(REALobject object, const char* name, uint8_t value);
  bool SetPropObject(REALobject object, const char* name, REALobject value);

  // ---- classes and objects (objects.cpp) ----
  ClassInfo* AddClass(std::string name, const ClassInfo* super, int64_t dataSize);
  const ClassInfo* FindClass(std::string_view name) const;
  const ClassInfo* KnownClass(REALclassRef classRef) const;  // nil unless one of ours
  REALobject NewObject(const ClassInfo* cls);
  bool IsLive(REALobject object) const;
  const ClassInfo* LiveClass(REALobject object) const;  // nil for nil or dead objects
  void Lock(REALobject object);
  void Unlock(REALobject object);
  void Destroy(REALobject object);
  void DrainDeferredDestruction();
  void DestroyLeftovers();
  PropertyRef FindPropertyRow(REALobject object, std::string_view name) const;
  ValueKind KindOfType(const char* type) const;
  void* FindMethod(REALobject object, std::string_view declaration) const;
  template <class T>
  bool ReadProperty(REALobject object, std::string_view name, ValueKind wanted, T* value);
  template <class T>
  bool WriteProperty(REALobject object, std::string_view name, ValueKind wanted, T value);

  // ---- companions (bitmap.cpp, colors.cpp, engine.cpp) ----
  void AddBitmapClasses();
  void AddColourClasses();
  void AddFilterClass();
  REALobject MakeBitmap(int64_t width, int64_t height, int64_t format, int bitsPerChannel, int64_t rowBytes,
                        PixelClearing clearing = PixelClearing::Now);
  REALobject MakeColour(const ClassInfo* cls, const void* data, size_t bytes);
  void RequestCancel(REALobject effect);
  void EndCall(REALobject object);  // drops a cancel armed for the effect's next run
  void WaitForAsync();
  // Parameter blocks held by runs: a block is claimed as its run is asked for
  // and released when the engine has done with it (disposed of it, for an
  // asynchronous run). False when a run already holds it.
  bool ClaimBlock(const void* params);
  void ReleaseBlock(const void* params);

  Host& owner;
  HostOptions options;
  int slot = -1;
  void* module = nullptr;
  bool shutDown = false;
  std::thread::id hostThread;

  mutable std::mutex mutex;  // classes, objects, start-up records and counters
  std::vector<std::unique_ptr<ClassInfo>> classes;
  std::unordered_map<std::string, ClassInfo*> classesByName;
  std::unordered_map<REALobject, uint64_t> live;  // object -> serial
  std::vector<REALobject> deferredDestruction;    // reached zero off the host thread
  uint64_t nextSerial = 1;
  int64_t strayUnlocks = 0;
  std::map<std::string, int64_t, std::less<>> lookupCounts;
  int pluginVersion = -1;
  std::vector<const REALclassDefinition*> registered;

  const ClassInfo* bitmapClass = nullptr;
  const ClassInfo* maskClass = nullptr;
  const ClassInfo* genericColourClass = nullptr;
  const ClassInfo* rgbColourClass = nullptr;
  const ClassInfo* cmykColourClass = nullptr;
  const ClassInfo* filterClass = nullptr;

  // ---- the engine (engine.cpp) ----
  std::unique_ptr<ThreadPool> pool;
  SplitPolicy split = SplitPolicy::Balanced;
  std::function<bool(int64_t, int64_t)> observer;
  EngineCall lastCall;
  std::set<const void*> blocksInFlight;  // guarded by mutex
  std::mutex asyncMutex;
  std::condition_variable asyncFinished;
  int asyncRuns = 0;

  // ---- fault injection and inspection (engine.cpp) ----
  std::atomic<int> resultFailures{0};  // result bitmaps still to refuse
  Host::RunInspector inspector;        // guarded by mutex
  std::atomic<int64_t> asyncStarted{0}, completionCalls{0}, blocksDeleted{0}, deleteCallbacks{0};
  bool TakeResultFailure();
};

// The RawBitmap companion fields this host keeps in the record's own gaps.
uint8_t* BitmapPixels(const RawBitmap* record);
int64_t BitmapRowBytes(const RawBitmap* record);

// True when mask is a valid RawBitmapMask with values for every pixel of source.
bool MaskCovers(const Host::Impl& host, REALobject mask, const RawBitmap* source);
RawBitmapMaskData* MaskDataOf(REALobject mask);

// The machine's cores, at least 1.
int DefaultThreads();

}  // namespace rawfx::host
