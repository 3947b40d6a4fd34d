// Objects: layout, reference counts and the account of live objects; classes
// a program defines; properties by name and methods by declaration.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "host/host_internal.h"

namespace rawfx::host {

namespace {

// Objects are 16-byte aligned like the host application's. posix_memalign
// rather than aligned operator new, which older macOS C++ libraries lack.
constexpr size_t kObjectAlignment = 16;

// The classes of an object's chain, root first.
std::vector<const ClassInfo*> ChainOf(const ClassInfo* cls) {
  std::vector<const ClassInfo*> chain;
  for (; cls; cls = cls->super) chain.push_back(cls);
  std::reverse(chain.begin(), chain.end());
  return chain;
}

bool Inherits(const ClassInfo* cls, const ClassInfo* ancestor) {
  for (; cls; cls = cls->super)
    if (cls == ancestor) return true;
  return false;
}

// Bytes a direct field of that kind occupies in the instance data.
int64_t FieldBytes(ValueKind kind) {
  switch (kind) {
    case ValueKind::Boolean:
    case ValueKind::UInt8: return 1;
    case ValueKind::Single: return 4;
    default: return 8;
  }
}

bool IsDirect(const void* accessor) { return reinterpret_cast<intptr_t>(accessor) == kDirectAccess; }

const char* KindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::Boolean: return "Boolean";
    case ValueKind::UInt8: return "UInt8";
    case ValueKind::Single: return "Single";
    case ValueKind::Double: return "Double";
    case ValueKind::Integer: return "Integer";
    case ValueKind::Object: return "an object";
    default: return "an unknown type";
  }
}

template <class T>
constexpr ValueKind KindFor() {
  if constexpr (std::is_same_v<T, bool>) return ValueKind::Boolean;
  else if constexpr (std::is_same_v<T, uint8_t>) return ValueKind::UInt8;
  else if constexpr (std::is_same_v<T, float>) return ValueKind::Single;
  else if constexpr (std::is_same_v<T, double>) return ValueKind::Double;
  else if constexpr (std::is_same_v<T, REALobject>) return ValueKind::Object;
  else return ValueKind::Integer;  // int64_t, int32_t
}

// The representation a row of that kind is read and written in.
template <class T>
using StoredAs = std::conditional_t<std::is_same_v<T, int32_t>, int64_t, T>;

}  // namespace

// ---- classes ------------------------------------------------------------------------

const ClassInfo* Host::Impl::FindClass(std::string_view name) const {
  std::lock_guard lock(mutex);
  auto found = classesByName.find(std::string(name));
  return found == classesByName.end() ? nullptr : found->second;
}

const ClassInfo* Host::Impl::KnownClass(REALclassRef classRef) const {
  if (!classRef) return nullptr;
  std::lock_guard lock(mutex);
  for (const auto& cls : classes)
    if (reinterpret_cast<REALclassRef>(cls.get()) == classRef) return cls.get();
  return nullptr;
}

// ---- objects --------------------------------------------------------------------------

REALobject Host::Impl::NewObject(const ClassInfo* cls) {
  if (!cls || !cls->instantiable) return nullptr;
  const auto bytes = static_cast<size_t>(cls->objectSize);
  void* memory = nullptr;
  if (posix_memalign(&memory, kObjectAlignment, bytes) != 0) return nullptr;
  std::memset(memory, 0, bytes);
  auto* header = new (memory) ObjectHeader{kObjectMagic, this, cls, {1}, 0, {}};
  auto object = reinterpret_cast<REALobject>(memory);
  {
    std::lock_guard lock(mutex);
    header->serial = nextSerial++;
    live.emplace(object, header->serial);
  }
  for (const ClassInfo* c : ChainOf(cls))
    if (c->constructor) c->constructor(object);
  return object;
}

bool Host::Impl::IsLive(REALobject object) const {
  std::lock_guard lock(mutex);
  return object && live.count(object) != 0;
}

const ClassInfo* Host::Impl::LiveClass(REALobject object) const {
  return IsLive(object) ? HeaderOf(object)->cls : nullptr;
}

void Host::Impl::Lock(REALobject object) {
  if (!object) return;
  std::lock_guard lock(mutex);
  if (!live.count(object)) {
    ++strayUnlocks;
    return;
  }
  HeaderOf(object)->refs.fetch_add(1, std::memory_order_relaxed);
}

// At zero the object is destroyed; plug-in destructors run only on the host's
// thread, so an object released elsewhere (by an asynchronous run) waits there.
void Host::Impl::Unlock(REALobject object) {
  if (!object) return;
  {
    std::lock_guard lock(mutex);
    if (!live.count(object) || HeaderOf(object)->refs.load(std::memory_order_relaxed) <= 0) {
      ++strayUnlocks;
      return;
    }
    if (HeaderOf(object)->refs.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
    if (std::this_thread::get_id() != hostThread) {
      deferredDestruction.push_back(object);
      return;
    }
  }
  Destroy(object);
}

// Destructors run subclass first; the object stays known while they run, since
// they may still ask the host about it.
void Host::Impl::Destroy(REALobject object) {
  std::vector<const ClassInfo*> chain = ChainOf(HeaderOf(object)->cls);
  for (auto c = chain.rbegin(); c != chain.rend(); ++c)
    if ((*c)->destructor) (*c)->destructor(object);
  {
    std::lock_guard lock(mutex);
    live.erase(object);
  }
  HeaderOf(object)->~ObjectHeader();
  std::free(object);
}

void Host::Impl::DrainDeferredDestruction() {
  if (std::this_thread::get_id() != hostThread) return;
  for (;;) {
    std::vector<REALobject> due;
    {
      std::lock_guard lock(mutex);
      due.swap(deferredDestruction);
    }
    if (due.empty()) return;
    for (REALobject object : due) Destroy(object);
  }
}

// Objects a program leaked are destroyed oldest first, so that an owner goes
// before what it holds and releases it the ordinary way.
void Host::Impl::DestroyLeftovers() {
  DrainDeferredDestruction();
  for (;;) {
    REALobject oldest = nullptr;
    {
      std::lock_guard lock(mutex);
      uint64_t oldestSerial = UINT64_MAX;
      for (const auto& [object, serial] : live)
        if (serial < oldestSerial && HeaderOf(object)->refs.load() > 0) {
          oldest = object;
          oldestSerial = serial;
        }
      if (!oldest) return;
      HeaderOf(oldest)->refs.store(0);
    }
    Destroy(oldest);
    DrainDeferredDestruction();
  }
}

// ---- host services on objects ---------------------------------------------------------

REALclassRef Host::Impl::ClassRefByName(const char* name) {
  return name ? reinterpret_cast<REALclassRef>(const_cast<ClassInfo*>(FindClass(name))) : nullptr;
}

REALobject Host::Impl::CreateInstance(REALclassRef classRef) { return NewObject(KnownClass(classRef)); }

REALobject Host::Impl::NewInstanceOfClass(REALclassDefinition* record) {
  if (!record) return nullptr;
  const ClassInfo* cls = record->name ? FindClass(record->name) : nullptr;
  return cls && cls->record == record ? NewObject(cls) : nullptr;
}

void* Host::Impl::GetPluginData(REALobject object, REALclassRef classRef) {
  const ClassInfo* cls = KnownClass(classRef);
  const ClassInfo* objectClass = LiveClass(object);
  if (!cls || !objectClass || !Inherits(objectClass, cls)) return nullptr;
  return DataOf(object, cls);
}

bool Host::Impl::ObjectIsA(REALobject object, REALclassRef classRef) {
  const ClassInfo* cls = KnownClass(classRef);
  return cls && Inherits(LiveClass(object), cls);
}

void* Host::Impl::LoadObjectMethod(REALobject object, const char* declaration) {
  return declaration && IsLive(object) ? FindMethod(object, declaration) : nullptr;
}

// This host defines no global methods; it answers like a runtime without them.
void* Host::Impl::LoadGlobalMethod(REALobject, const char*) { return nullptr; }

void Host::Impl::LockObject(REALobject object) { Lock(object); }
void Host::Impl::UnlockObject(REALobject object) { Unlock(object); }

// ---- methods -----------------------------------------------------------------------------

void* Host::Impl::FindMethod(REALobject object, std::string_view declaration) const {
  const ClassInfo* cls = LiveClass(object);
  for (; cls; cls = cls->super) {
    for (const ProgramMethod& method : cls->methods)
      if (method.declaration == declaration) return method.function;
    if (!cls->record) continue;
    for (int64_t i = 0; i < cls->record->methodCount; ++i) {
      const ClassMethodEntry& row = cls->record->methods[i];
      if (row.declaration && row.declaration == declaration) return const_cast<void*>(row.function);
    }
  }
  return nullptr;
}

// ---- properties ------------------------------------------------------------------------

PropertyRef Host::Impl::FindPropertyRow(REALobject object, std::string_view name) const {
  for (const ClassInfo* cls = LiveClass(object); cls; cls = cls->super) {
    if (!cls->record) continue;
    for (int64_t i = 0; i < cls->record->propertyCount; ++i) {
      const ClassPropertyEntry& row = cls->record->properties[i];
      if (row.name && row.name == name) return {&row, cls};
    }
  }
  return {};
}

// Object types name a class; "Class.Enum" names an enum of a registered class.
ValueKind Host::Impl::KindOfType(const char* type) const {
  if (!type) return ValueKind::Unknown;
  const std::string_view t(type);
  if (t == "Boolean") return ValueKind::Boolean;
  if (t == "UInt8") return ValueKind::UInt8;
  if (t == "Single") return ValueKind::Single;
  if (t == "Double") return ValueKind::Double;
  if (t == "Integer" || t == "Int64") return ValueKind::Integer;
  if (FindClass(t)) return ValueKind::Object;
  const size_t dot = t.rfind('.');
  if (dot == std::string_view::npos) return ValueKind::Unknown;
  const ClassInfo* enumOwner = FindClass(t.substr(0, dot));
  if (!enumOwner || !enumOwner->record) return ValueKind::Unknown;
  for (int64_t i = 0; i < enumOwner->record->enumCount; ++i) {
    const char* enumName = enumOwner->record->enums[i].name;
    if (enumName && t.substr(dot + 1) == enumName) return ValueKind::Integer;
  }
  return ValueKind::Unknown;
}

template <class T>
bool Host::Impl::ReadProperty(REALobject object, std::string_view name, ValueKind wanted, T* value) {
  using Stored = StoredAs<T>;
  using Raw = std::conditional_t<std::is_same_v<Stored, bool>, uint8_t, Stored>;  // bytes as they lie
  const PropertyRef ref = FindPropertyRow(object, name);
  if (!ref.row) throw HostError("no property " + std::string(name) + " on " + owner.ClassName(object));
  const ValueKind kind = KindOfType(ref.row->type);
  if (kind != wanted)
    throw HostError("property " + std::string(name) + " is " + (ref.row->type ? ref.row->type : "untyped") +
                    ", not " + KindName(wanted));
  Raw stored{};
  if (IsDirect(ref.row->getter)) {
    if (ref.row->parameter < 0 || ref.row->parameter + FieldBytes(kind) > ref.owner->dataSize)
      throw HostError("property " + std::string(name) + " lies outside its instance data");
    std::memcpy(&stored, static_cast<uint8_t*>(DataOf(object, ref.owner)) + ref.row->parameter, sizeof(Raw));
    if constexpr (std::is_same_v<Raw, REALobject>) Lock(stored);  // the caller gets its own reference
  } else if (ref.row->getter) {
    const auto getter = reinterpret_cast<Raw (*)(REALobject, int64_t)>(const_cast<void*>(ref.row->getter));
    stored = getter(object, ref.row->parameter);
  } else {
    throw HostError("property " + std::string(name) + " cannot be read");
  }
  if constexpr (std::is_same_v<Stored, bool>)
    *value = stored != 0;
  else
    *value = static_cast<T>(stored);
  return true;
}

template <class T>
bool Host::Impl::WriteProperty(REALobject object, std::string_view name, ValueKind wanted, T value) {
  using Stored = StoredAs<T>;
  const PropertyRef ref = FindPropertyRow(object, name);
  if (!ref.row) throw HostError("no property " + std::string(name) + " on " + owner.ClassName(object));
  const ValueKind kind = KindOfType(ref.row->type);
  // One byte serves both one-byte types, as the host's own byte setter does.
  const bool byteForByte = wanted == ValueKind::UInt8 && kind == ValueKind::Boolean;
  if (kind != wanted && !byteForByte)
    throw HostError("property " + std::string(name) + " is " + (ref.row->type ? ref.row->type : "untyped") +
                    ", not " + KindName(wanted));
  if constexpr (std::is_same_v<Stored, REALobject>) {
    const ClassInfo* type = FindClass(ref.row->type);
    if (value && !Inherits(LiveClass(value), type))
      throw HostError("property " + std::string(name) + " takes a " + ref.row->type + ", not " +
                      owner.ClassName(value));
  }
  Stored stored = static_cast<Stored>(value);
  if constexpr (std::is_same_v<Stored, uint8_t>)
    if (byteForByte) stored = stored != 0;
  if (IsDirect(ref.row->setter)) {
    if (ref.row->parameter < 0 || ref.row->parameter + FieldBytes(kind) > ref.owner->dataSize)
      throw HostError("property " + std::string(name) + " lies outside its instance data");
    uint8_t* field = static_cast<uint8_t*>(DataOf(object, ref.owner)) + ref.row->parameter;
    if constexpr (std::is_same_v<Stored, REALobject>) {
      REALobject previous;
      std::memcpy(&previous, field, sizeof previous);
      Lock(stored);
      std::memcpy(field, &stored, sizeof stored);
      Unlock(previous);
    } else {
      std::memcpy(field, &stored, sizeof stored);
    }
  } else if (ref.row->setter) {
    const auto setter = reinterpret_cast<void (*)(REALobject, int64_t, Stored)>(const_cast<void*>(ref.row->setter));
    setter(object, ref.row->parameter, stored);
  } else {
    throw HostError("property " + std::string(name) + " cannot be written");
  }
  return true;
}

namespace {

// The services report failure by result, never by exception.
template <class F>
bool Guarded(F&& access) {
  try {
    return access();
  } catch (const HostError&) {
    return false;
  }
}

}  // namespace

bool Host::Impl::GetPropInt32(REALobject o, const char* n, int32_t* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Integer, v); });
}
bool Host::Impl::GetPropInt64(REALobject o, const char* n, int64_t* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Integer, v); });
}
bool Host::Impl::GetPropDouble(REALobject o, const char* n, double* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Double, v); });
}
bool Host::Impl::GetPropSingle(REALobject o, const char* n, float* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Single, v); });
}
bool Host::Impl::GetPropBool(REALobject o, const char* n, bool* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Boolean, v); });
}
bool Host::Impl::GetPropObject(REALobject o, const char* n, REALobject* v) {
  return n && v && Guarded([&] { return ReadProperty(o, n, ValueKind::Object, v); });
}
bool Host::Impl::SetPropInt32(REALobject o, const char* n, int32_t v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::Integer, v); });
}
bool Host::Impl::SetPropInt64(REALobject o, const char* n, int64_t v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::Integer, v); });
}
bool Host::Impl::SetPropDouble(REALobject o, const char* n, double v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::Double, v); });
}
bool Host::Impl::SetPropSingle(REALobject o, const char* n, float v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::Single, v); });
}
bool Host::Impl::SetPropByte(REALobject o, const char* n, uint8_t v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::UInt8, v); });
}
bool Host::Impl::SetPropObject(REALobject o, const char* n, REALobject v) {
  return n && Guarded([&] { return WriteProperty(o, n, ValueKind::Object, v); });
}

// ---- Host: objects, properties and methods ----------------------------------------------

REALobject Host::New(std::string_view className) {
  impl_->DrainDeferredDestruction();
  return impl_->NewObject(impl_->FindClass(className));
}

void Host::DefineClass(ProgramClass program) {
  const ClassInfo* super = impl_->FindClass(program.superName);
  if (!super) throw HostError("class " + program.name + " has an unknown superclass " + program.superName);
  if (impl_->FindClass(program.name)) throw HostError("class " + program.name + " exists already");
  ClassInfo* cls = impl_->AddClass(program.name, super, 0);
  cls->methods = std::move(program.methods);
  cls->instantiable = super->instantiable;
}

void Host::Lock(REALobject object) { impl_->Lock(object); }

void Host::Unlock(REALobject object) {
  impl_->Unlock(object);
  impl_->DrainDeferredDestruction();
}

int64_t Host::RefCount(REALobject object) const {
  std::lock_guard lock(impl_->mutex);
  return impl_->live.count(object) ? HeaderOf(object)->refs.load() : 0;
}

std::string Host::ClassName(REALobject object) const {
  if (!object) return "nil";
  const ClassInfo* cls = impl_->LiveClass(object);
  return cls ? cls->name : "a dead object";
}

bool Host::IsA(REALobject object, std::string_view className) const {
  const ClassInfo* cls = impl_->FindClass(className);
  return cls && Inherits(impl_->LiveClass(object), cls);
}

size_t Host::LiveObjectCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->live.size();
}

std::vector<std::string> Host::LiveObjectClasses() const {
  std::vector<std::pair<uint64_t, std::string>> objects;
  {
    std::lock_guard lock(impl_->mutex);
    for (const auto& [object, serial] : impl_->live) objects.emplace_back(serial, HeaderOf(object)->cls->name);
  }
  std::sort(objects.begin(), objects.end());
  std::vector<std::string> names;
  for (auto& entry : objects) names.push_back(std::move(entry.second));
  return names;
}

int64_t Host::StrayLockCalls() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->strayUnlocks;
}

void* Host::ClassData(REALobject object, std::string_view className) const {
  const ClassInfo* cls = impl_->FindClass(className);
  return cls && Inherits(impl_->LiveClass(object), cls) ? DataOf(object, cls) : nullptr;
}

template <class T>
T Host::Get(REALobject object, std::string_view property) {
  T value{};
  impl_->ReadProperty(object, property, KindFor<T>(), &value);
  return value;
}

template <class T>
void Host::Set(REALobject object, std::string_view property, T value) {
  impl_->WriteProperty(object, property, KindFor<T>(), value);
}

#define RAWFX_PROPERTY_TYPE(T)                              \
  template T Host::Get<T>(REALobject, std::string_view); \
  template void Host::Set<T>(REALobject, std::string_view, T);
RAWFX_PROPERTY_TYPE(bool)
RAWFX_PROPERTY_TYPE(uint8_t)
RAWFX_PROPERTY_TYPE(float)
RAWFX_PROPERTY_TYPE(double)
RAWFX_PROPERTY_TYPE(int64_t)
RAWFX_PROPERTY_TYPE(int32_t)
RAWFX_PROPERTY_TYPE(REALobject)
#undef RAWFX_PROPERTY_TYPE

const ClassPropertyEntry* Host::FindProperty(REALobject object, std::string_view property) const {
  return impl_->FindPropertyRow(object, property).row;
}

void* Host::FindMethod(REALobject object, std::string_view declaration) const {
  return impl_->FindMethod(object, declaration);
}

}  // namespace rawfx::host
