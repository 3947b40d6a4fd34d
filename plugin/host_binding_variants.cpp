// The stubs that do not fit the plain pattern of host_stubs.def: guarded ones,
// ones that share another stub's cache, add fixed arguments, fall back from one
// host service to another, or are computed; and the C++ overloads.
#include <cstring>
#include <type_traits>

#include "plugin/host_binding.h"

namespace {

using rawfx::BindHost;

// The host name of every generated stub, so that an overload resolves exactly
// what its typed stub resolves.
namespace hostname {
#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing) constexpr char Stub[] = HostName;
#define HOST_ARRAY_FN(Stub, HostName, Access, T) constexpr char Stub[] = HostName;
#include "plugin/host_stubs.def"
}  // namespace hostname

// An overload bound on its own: one cache per instantiation, the host routine
// of the typed stub it stands for (signature Fn, HostName), nil or false while
// the host lacks it.
template <typename Fn, const char* HostName, typename... A>
auto CallAs(A... args) {
  using Ret = std::invoke_result_t<Fn*, A...>;
  static void* cache = nullptr;
  void* entry = BindHost(cache, HostName);
  return entry ? reinterpret_cast<Fn*>(entry)(args...) : Ret{};
}

constexpr const char kStringLengthDecl[] = "LenB( s as string ) as integer";
using StringLengthMethod = int64_t (*)(REALstring string);

// The host's LenB method, loaded by declaration once the loader and the method exist.
StringLengthMethod StringLength() {
  static void* method = nullptr;
  if (!method) method = REALLoadFrameworkMethod(kStringLengthDecl);
  return reinterpret_cast<StringLengthMethod>(method);
}

constexpr int kControlDataOffsetWord = 13;

}  // namespace

// ---- guarded ---------------------------------------------------------------

REALobject REALnewInstanceWithClass(REALclassRef classRef) {
  static void* cache = nullptr;
  void* entry = BindHost(cache, "CreateInstance");
  if (!entry || !classRef) return nullptr;
  return reinterpret_cast<REALobject (*)(REALclassRef)>(entry)(classRef);
}

// Shares REALnewInstanceWithClass's cache by going through it.
REALobject REALnewInstance(REALclassRef classRef) { return REALnewInstanceWithClass(classRef); }

// ---- fixed arguments ---------------------------------------------------------

CFStringRef REALCopyStringCFString(REALstring string) {
  static void* cache = nullptr;
  void* entry = BindHost(cache, hostname::REALGetStringCFString);
  return entry ? reinterpret_cast<decltype(&REALGetStringCFString)>(entry)(string, false) : nullptr;
}

void* REALLoadFrameworkMethod(const char* declaration) {
  static void* cache = nullptr;
  void* entry = BindHost(cache, hostname::REALLoadGlobalMethod);
  return entry ? reinterpret_cast<decltype(&REALLoadGlobalMethod)>(entry)(nullptr, declaration) : nullptr;
}

// ---- built on other stubs, sharing their caches by calling them ------------------

REALobject REALnewInstanceOfClass(REALclassDefinition* definition) {
  static void* cache = nullptr;
  if (void* entry = BindHost(cache, "PluginNewInstanceOfClass"))
    return reinterpret_cast<REALobject (*)(REALclassDefinition*)>(entry)(definition);
  REALclassRef classRef = REALGetClassRef(definition->name);
  return classRef ? REALnewInstanceWithClass(classRef) : nullptr;
}

int64_t REALStringLength(REALstring string) {
  StringLengthMethod method = StringLength();
  return method ? method(string) : 0;
}

const void* REALGetStringContents(REALstring string, size_t* length) {
  if (!string) return nullptr;
  static void* cache = nullptr;
  void* contents = BindHost(cache, hostname::REALCString);
  StringLengthMethod method = StringLength();
  if (length && method) *length = static_cast<size_t>(method(string));
  return contents ? reinterpret_cast<decltype(&REALCString)>(contents)(string) : nullptr;
}

REALstring REALBuildString(const char* contents, int length, unsigned int encoding) {
  return REALBuildStringWithEncoding(contents, length, encoding);
}

// ---- computed ------------------------------------------------------------------

void* REALGetControlData(REALobject control, REALcontrol* definition) {
  int64_t offset;
  std::memcpy(&offset, reinterpret_cast<const char*>(definition) + kControlDataOffsetWord * sizeof(int64_t),
              sizeof offset);
  return reinterpret_cast<uint8_t*>(control) + offset;
}

// ---- overloads with caches of their own ------------------------------------------

bool REALLockPictureDescription(REALobject picture, REALpictureDescription* description) {
  return CallAs<decltype(REALLockPictureDescriptionWithNativeType),
                hostname::REALLockPictureDescriptionWithNativeType>(picture, description);
}

bool REALGetPropValue(REALobject object, const char* name, short* value) {
  return CallAs<decltype(REALGetPropValueInt16), hostname::REALGetPropValueInt16>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, unsigned short* value) {
  return CallAs<decltype(REALGetPropValueUInt16), hostname::REALGetPropValueUInt16>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, double* value) {
  return CallAs<decltype(REALGetPropValueDouble), hostname::REALGetPropValueDouble>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, float* value) {
  return CallAs<decltype(REALGetPropValueSingle), hostname::REALGetPropValueSingle>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, REALstring* value) {
  return CallAs<decltype(REALGetPropValueString), hostname::REALGetPropValueString>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, REALobject* value) {
  return CallAs<decltype(REALGetPropValueObject), hostname::REALGetPropValueObject>(object, name, value);
}
bool REALGetPropValue(REALobject object, const char* name, CFStringRef* value) {
  return CallAs<decltype(REALGetPropValueCFStringRef), hostname::REALGetPropValueCFStringRef>(object, name, value);
}

bool REALSetPropValue(REALobject object, const char* name, REALstring value) {
  return CallAs<decltype(REALSetPropValueString), hostname::REALSetPropValueString>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, double value) {
  return CallAs<decltype(REALSetPropValueDouble), hostname::REALSetPropValueDouble>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, REALobject value) {
  return CallAs<decltype(REALSetPropValuePtr), hostname::REALSetPropValuePtr>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, unsigned short value) {
  return CallAs<decltype(REALSetPropValueUInt16), hostname::REALSetPropValueUInt16>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, short value) {
  return CallAs<decltype(REALSetPropValueInt16), hostname::REALSetPropValueInt16>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, float value) {
  return CallAs<decltype(REALSetPropValueSingle), hostname::REALSetPropValueSingle>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, const char* value) {
  return CallAs<decltype(REALSetPropValueCString), hostname::REALSetPropValueCString>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, const wchar_t* value) {
  return CallAs<decltype(REALSetPropValueWString), hostname::REALSetPropValueWString>(object, name, value);
}
bool REALSetPropValue(REALobject object, const char* name, CFStringRef value) {
  return CallAs<decltype(REALSetPropValueCFStringRef), hostname::REALSetPropValueCFStringRef>(object, name, value);
}

// ---- overloads that forward to the typed stub ------------------------------------

REALfolderItem REALFolderItemFromParentFSRef(const FSRef& parent, const HFSUniStr255& name) {
  return REALFolderItemFromParentFSRef(&parent, &name);
}

void REALInsertArrayValue(REALarray array, long long index, short value) {
  REALInsertArrayValueInt16(array, index, value);
}
void REALInsertArrayValue(REALarray array, long long index, unsigned short value) {
  REALInsertArrayValueUInt16(array, index, value);
}
void REALInsertArrayValue(REALarray array, long long index, double value) {
  REALInsertArrayValueDouble(array, index, value);
}
void REALInsertArrayValue(REALarray array, long long index, float value) {
  REALInsertArrayValueSingle(array, index, value);
}
void REALInsertArrayValue(REALarray array, long long index, REALstring value) {
  REALInsertArrayValueString(array, index, value);
}
void REALInsertArrayValue(REALarray array, long long index, REALobject value) {
  REALInsertArrayValueObject(array, index, value);
}

void REALGetArrayValue(REALarray array, long long index, short* value) { REALGetArrayValueInt16(array, index, value); }
void REALGetArrayValue(REALarray array, long long index, unsigned short* value) {
  REALGetArrayValueUInt16(array, index, value);
}
void REALGetArrayValue(REALarray array, long long index, REALstring* value) {
  REALGetArrayValueString(array, index, value);
}
void REALGetArrayValue(REALarray array, long long index, RuntimeText* value) {
  REALGetArrayValueText(array, index, value);
}
void REALGetArrayValue(REALarray array, long long index, REALobject* value) {
  REALGetArrayValueObject(array, index, value);
}
void REALGetArrayValue(REALarray array, long long index, double* value) {
  REALGetArrayValueDouble(array, index, value);
}
void REALGetArrayValue(REALarray array, long long index, float* value) { REALGetArrayValueSingle(array, index, value); }

void REALSetArrayValue(REALarray array, long long index, short value) { REALSetArrayValueInt16(array, index, value); }
void REALSetArrayValue(REALarray array, long long index, unsigned short value) {
  REALSetArrayValueUInt16(array, index, value);
}
void REALSetArrayValue(REALarray array, long long index, double value) { REALSetArrayValueDouble(array, index, value); }
void REALSetArrayValue(REALarray array, long long index, float value) { REALSetArrayValueSingle(array, index, value); }
void REALSetArrayValue(REALarray array, long long index, REALstring value) {
  REALSetArrayValueString(array, index, value);
}
void REALSetArrayValue(REALarray array, long long index, RuntimeText value) {
  REALSetArrayValueText(array, index, value);
}
void REALSetArrayValue(REALarray array, long long index, REALobject value) {
  REALSetArrayValueObject(array, index, value);
}
