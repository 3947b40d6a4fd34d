// Start-up of a Host: loading a private copy of the module, the resolver the
// plug-in is given, the table of host services, and class registration.
#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "host/host_internal.h"

#ifndef RAWFX_DEFAULT_MODULE
#define RAWFX_DEFAULT_MODULE ""
#endif

namespace rawfx::host {

namespace {

// The plug-in's resolver is a plain function without context, and every host
// service it returns is one too. Each live Host takes one slot; the slot's own
// instantiations of the resolver and of the services forward to that Host.
constexpr int kMaxHosts = 16;
std::array<std::atomic<Host::Impl*>, kMaxHosts> gHosts{};

Host::Impl* HostInSlot(int slot) { return gHosts[static_cast<size_t>(slot)].load(std::memory_order_acquire); }

template <int Slot, auto Member>
struct Trampoline;

template <int Slot, class R, class... A, R (Host::Impl::*Member)(A...)>
struct Trampoline<Slot, Member> {
  static R Call(A... args) { return (HostInSlot(Slot)->*Member)(args...); }
};

// Host name -> service, as the resolver hands them out.
#define RAWFX_HOST_SERVICES(X)                         \
  X("RegisterPluginVersion", RegisterPluginVersion)    \
  X("REALGetRBVersion", GetRBVersion)                  \
  X("PluginRegisterClass", RegisterClass)              \
  X("pluginObjectType", ClassRefByName)                \
  X("CreateInstance", CreateInstance)                  \
  X("PluginNewInstanceOfClass", NewInstanceOfClass)    \
  X("PluginGetPluginData", GetPluginData)              \
  X("RuntimeObjectIsa", ObjectIsA)                     \
  X("REALLoadObjectMethod", LoadObjectMethod)          \
  X("REALLoadGlobalMethod", LoadGlobalMethod)          \
  X("REALLockObject", LockObject)                      \
  X("REALUnlockObject", UnlockObject)                  \
  X("REALGetPropValueInt", GetPropInt32)               \
  X("REALGetPropValueInt64", GetPropInt64)             \
  X("REALGetPropValueInteger", GetPropInt64)           \
  X("REALGetPropValueDouble", GetPropDouble)           \
  X("REALGetPropValueSingle", GetPropSingle)           \
  X("REALGetPropValueBool", GetPropBool)               \
  X("REALGetPropValueObject", GetPropObject)           \
  X("REALSetPropValueInt", SetPropInt32)               \
  X("REALSetPropValueInt64", SetPropInt64)             \
  X("REALSetPropValueInteger", SetPropInt64)           \
  X("REALSetPropValueDouble", SetPropDouble)           \
  X("REALSetPropValueSingle", SetPropSingle)           \
  X("REALSetPropValueBoolean", SetPropByte)            \
  X("REALSetPropValueObject", SetPropObject)           \
  X("REALSetPropValuePtr", SetPropObject)

struct ServiceRow {
  std::string_view hostName;
  void* entry;
};

template <int Slot>
void* ServiceEntry(std::string_view hostName) {
  static const ServiceRow rows[] = {
#define RAWFX_SERVICE_ROW(HostName, Member) \
  {HostName, reinterpret_cast<void*>(&Trampoline<Slot, &Host::Impl::Member>::Call)},
      RAWFX_HOST_SERVICES(RAWFX_SERVICE_ROW)
#undef RAWFX_SERVICE_ROW
  };
  for (const ServiceRow& row : rows)
    if (row.hostName == hostName) return row.entry;
  return nullptr;
}

template <int Slot>
void* SlotResolver(const char* hostName) {
  return HostInSlot(Slot)->Resolve(hostName);
}

struct SlotEntries {
  REALResolver resolver;
  void* (*service)(std::string_view);
};

template <size_t... Slots>
constexpr std::array<SlotEntries, sizeof...(Slots)> MakeSlotEntries(std::index_sequence<Slots...>) {
  return {{{&SlotResolver<static_cast<int>(Slots)>, &ServiceEntry<static_cast<int>(Slots)>}...}};
}
constexpr auto kSlotEntries = MakeSlotEntries(std::make_index_sequence<kMaxHosts>{});

int64_t RoundUp8(int64_t n) { return (n + 7) & ~int64_t{7}; }

// Copies the module to a private file so that each load gets fresh globals.
void* LoadPrivateCopy(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw HostError("cannot read module " + path);
  const char* temporary = std::getenv("TMPDIR");
  std::string copyPath = std::string(temporary && *temporary ? temporary : "/tmp") + "/rawfx-module-XXXXXX.so";
  const int fd = mkstemps(copyPath.data(), 3);
  if (fd < 0) throw HostError("cannot create a copy of module " + path);
  std::ofstream out(copyPath, std::ios::binary);
  out << in.rdbuf();
  out.close();
  close(fd);
  void* handle = out ? dlopen(copyPath.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
  const char* error = handle ? nullptr : dlerror();
  unlink(copyPath.c_str());
  if (!handle) throw HostError("cannot load module " + path + ": " + (error ? error : "copy failed"));
  return handle;
}

void* LoadInPlace(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) throw HostError(std::string("cannot load module ") + path + ": " + dlerror());
  return handle;
}

}  // namespace

int DefaultThreads() {
  const unsigned cores = std::thread::hardware_concurrency();
  return cores == 0 ? 1 : static_cast<int>(cores);
}

// ---- Host::Impl life ------------------------------------------------------------

Host::Impl::Impl(Host& host, HostOptions hostOptions)
    : owner(host), options(std::move(hostOptions)), hostThread(std::this_thread::get_id()) {
  split = options.split;
}

Host::Impl::~Impl() { Shutdown(); }

// Runs once, while the Host is still whole: leftover objects' destructors may
// call back into it.
void Host::Impl::Shutdown() {
  if (shutDown) return;
  shutDown = true;
  hostThread = std::this_thread::get_id();
  if (pool) WaitForAsync();
  pool.reset();
  DestroyLeftovers();
  if (module) dlclose(module);
  module = nullptr;
  if (slot >= 0) gHosts[static_cast<size_t>(slot)].store(nullptr, std::memory_order_release);
}

void Host::Impl::ClaimSlot() {
  for (int i = 0; i < kMaxHosts; ++i) {
    Host::Impl* expected = nullptr;
    if (gHosts[static_cast<size_t>(i)].compare_exchange_strong(expected, this)) {
      slot = i;
      return;
    }
  }
  throw HostError("too many hosts alive at once");
}

void Host::Impl::LoadModule() {
  const std::string path = options.modulePath.empty() ? RAWFX_DEFAULT_MODULE : options.modulePath;
  module = options.loadInPlace ? LoadInPlace(path) : LoadPrivateCopy(path);
  using PluginMain = void (*)(REALResolver);
  auto pluginMain = reinterpret_cast<PluginMain>(dlsym(module, "REALPluginMain"));
  if (!pluginMain) throw HostError("module " + path + " has no REALPluginMain");
  pluginMain(kSlotEntries[static_cast<size_t>(slot)].resolver);
}

void* Host::Impl::Resolve(const char* hostName) {
  if (!hostName) return nullptr;
  {
    std::lock_guard lock(mutex);
    ++lookupCounts[hostName];
  }
  if (options.missingServices.count(hostName)) return nullptr;
  return kSlotEntries[static_cast<size_t>(slot)].service(hostName);
}

// ---- start-up services ------------------------------------------------------------

void Host::Impl::RegisterPluginVersion(int version) {
  std::lock_guard lock(mutex);
  pluginVersion = version;
}

double Host::Impl::GetRBVersion() { return options.hostVersion; }

// Reads the record as the plug-in laid it out and places the class's data
// after its superclass's; word 4 tells the plug-in where that is.
void Host::Impl::RegisterClass(REALclassDefinition* record) {
  if (!record || !record->name || !record->superName || record->dataSize < 0) return;
  const ClassInfo* super = FindClass(record->superName);
  if (!super || FindClass(record->name)) return;
  ClassInfo* cls = AddClass(record->name, super, record->dataSize);
  cls->record = record;
  cls->constructor = record->constructor;
  cls->destructor = record->destructor;
  record->dataOffset = cls->dataOffset;
  std::lock_guard lock(mutex);
  registered.push_back(record);
}

ClassInfo* Host::Impl::AddClass(std::string name, const ClassInfo* super, int64_t dataSize) {
  auto cls = std::make_unique<ClassInfo>();
  cls->name = std::move(name);
  cls->super = super;
  cls->dataSize = dataSize;
  cls->dataOffset = super ? super->objectSize : kHeaderBytes;
  cls->objectSize = cls->dataOffset + RoundUp8(dataSize);
  std::lock_guard lock(mutex);
  ClassInfo* raw = cls.get();
  classesByName[raw->name] = raw;
  classes.push_back(std::move(cls));
  return raw;
}

// ---- Host: start-up ------------------------------------------------------------------

Host::Host(HostOptions options) : impl_(std::make_unique<Impl>(*this, std::move(options))) {
  impl_->ClaimSlot();
  impl_->AddBitmapClasses();
  impl_->AddColourClasses();
  impl_->AddFilterClass();
  impl_->pool = std::make_unique<ThreadPool>(impl_->options.threads > 0 ? impl_->options.threads : DefaultThreads());
  impl_->LoadModule();
}

Host::~Host() { impl_->Shutdown(); }

int Host::pluginVersion() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->pluginVersion;
}

std::vector<const REALclassDefinition*> Host::registeredRecords() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->registered;
}

std::vector<std::string> Host::registeredClassNames() const {
  std::vector<std::string> names;
  for (const REALclassDefinition* record : registeredRecords()) names.emplace_back(record->name);
  return names;
}

int64_t Host::lookups(std::string_view hostName) const {
  std::lock_guard lock(impl_->mutex);
  auto found = impl_->lookupCounts.find(hostName);
  return found == impl_->lookupCounts.end() ? 0 : found->second;
}

void* Host::resolve(const char* hostName) { return impl_->Resolve(hostName); }

}  // namespace rawfx::host
