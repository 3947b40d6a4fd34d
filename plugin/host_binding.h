// Binding to the host: every host service is reached through a stub that asks
// the resolver for it on first use, keeps the address and calls through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "plugin/host_types.h"

// Host types that only the binding passes through; the plug-in never looks inside.
using CFStringRef = const void*;
using CGImageRef = const void*;
using RuntimeText = REALtextStruct*;
using RBColor = uint32_t;       // 0x00RRGGBB
using RBInteger = int64_t;      // the host language's Integer
using REALcurrency = int64_t;   // fixed point, four decimals
using REALgraphics = REALgraphicsStruct*;
using REALwindow = REALwindowStruct*;
using REALfolderItem = REALfolderItemStruct*;
using REALmemoryBlock = REALmemoryBlockStruct*;
using REALdbCursor = REALdbCursorStruct*;
using REALdbDatabase = REALdbDatabaseStruct*;
using REALsocket = REALsocketStruct*;
using REALcallback = void (*)();
using BackgroundTaskProc = void (*)(void* data);

struct FSRef;
struct HFSUniStr255;
struct REALstringData;
struct REALrect;
struct REALfontStyle;
struct REALinterfaceDefinition;
struct REALmoduleDefinition;
struct REALstructureDefinition;
struct REALenumDefinition;
struct REALmethodDefinition;
struct REALeventDefinition;
struct REALdbEngineDefinition;
struct REALdbTableDefinition;
struct REALdbCursorDefinition;
struct REALdbConnectionDialogStruct;
using REALdbConnectionDialog = REALdbConnectionDialogStruct*;

namespace rawfx {

// What REALGetSystemTextEncoding answers without the host: the platform's UTF-8.
inline constexpr uint32_t kEncodingUTF8 = 0x08000100;

// The three array element accessors; a Get stub takes an out pointer.
enum class ArrayAccess { Insert, Get, Set };
template <ArrayAccess Access, typename T>
using ArrayValueArg = std::conditional_t<Access == ArrayAccess::Get, T*, T>;

}  // namespace rawfx

// The resolver handed to REALPluginMain; set once before any stub runs.
extern REALResolver gResolver;

// The resolver itself, for entry points kept outside the stubs.
void* HCallResolver(const char* name);

namespace rawfx {

// Asks the resolver while cache is empty and keeps what it answers; a miss
// leaves the cache empty, so the next call asks again.
inline void* BindHost(void*& cache, const char* hostName) {
  if (!cache) cache = gResolver(hostName);
  return cache;
}

}  // namespace rawfx

#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing) Ret Stub Params;
#define HOST_ARRAY_FN(Stub, HostName, Access, T) \
  void Stub(REALarray array, int64_t index, rawfx::ArrayValueArg<rawfx::ArrayAccess::Access, T> value);
#include "plugin/host_stubs.def"

// ---- written by hand: shared caches, fixed arguments, fallbacks -------------

// Guarded: resolve "CreateInstance" (one cache for both), then answer nil for a nil class.
REALobject REALnewInstanceWithClass(REALclassRef classRef);
REALobject REALnewInstance(REALclassRef classRef);

// "PluginNewInstanceOfClass", else CreateInstance of the class named in the record.
REALobject REALnewInstanceOfClass(REALclassDefinition* definition);

// "REALGetStringCFString" with stripAmpersands false.
CFStringRef REALCopyStringCFString(REALstring string);

// "REALLoadGlobalMethod" with (nil, declaration).
void* REALLoadFrameworkMethod(const char* declaration);

// Byte length through the host method "LenB( s as string ) as integer"; 0 without it.
int64_t REALStringLength(REALstring string);

// The string's bytes ("StringGetCString"); its byte length into *length when
// both the pointer and the length method are there. Nil for a nil string.
const void* REALGetStringContents(REALstring string, size_t* length);

// REALBuildStringWithEncoding, sharing its cache.
REALstring REALBuildString(const char* contents, int length, unsigned int encoding);

// Resolves "lockPictureDescription" into a cache of its own.
bool REALLockPictureDescription(REALobject picture, REALpictureDescription* description);

REALfolderItem REALFolderItemFromParentFSRef(const FSRef& parent, const HFSUniStr255& name);

// Property access by C++ type: each resolves the host name of its typed stub.
bool REALGetPropValue(REALobject object, const char* name, short* value);
bool REALGetPropValue(REALobject object, const char* name, unsigned short* value);
bool REALGetPropValue(REALobject object, const char* name, double* value);
bool REALGetPropValue(REALobject object, const char* name, float* value);
bool REALGetPropValue(REALobject object, const char* name, REALstring* value);
bool REALGetPropValue(REALobject object, const char* name, REALobject* value);
bool REALGetPropValue(REALobject object, const char* name, CFStringRef* value);
bool REALSetPropValue(REALobject object, const char* name, REALstring value);
bool REALSetPropValue(REALobject object, const char* name, double value);
bool REALSetPropValue(REALobject object, const char* name, REALobject value);
bool REALSetPropValue(REALobject object, const char* name, unsigned short value);
bool REALSetPropValue(REALobject object, const char* name, short value);
bool REALSetPropValue(REALobject object, const char* name, float value);
bool REALSetPropValue(REALobject object, const char* name, const char* value);
bool REALSetPropValue(REALobject object, const char* name, const wchar_t* value);
bool REALSetPropValue(REALobject object, const char* name, CFStringRef value);

// Array elements by C++ type: each calls the typed stub of its element type.
void REALInsertArrayValue(REALarray array, long long index, short value);
void REALInsertArrayValue(REALarray array, long long index, unsigned short value);
void REALInsertArrayValue(REALarray array, long long index, double value);
void REALInsertArrayValue(REALarray array, long long index, float value);
void REALInsertArrayValue(REALarray array, long long index, REALstring value);
void REALInsertArrayValue(REALarray array, long long index, REALobject value);
void REALGetArrayValue(REALarray array, long long index, short* value);
void REALGetArrayValue(REALarray array, long long index, unsigned short* value);
void REALGetArrayValue(REALarray array, long long index, REALstring* value);
void REALGetArrayValue(REALarray array, long long index, RuntimeText* value);
void REALGetArrayValue(REALarray array, long long index, REALobject* value);
void REALGetArrayValue(REALarray array, long long index, double* value);
void REALGetArrayValue(REALarray array, long long index, float* value);
void REALSetArrayValue(REALarray array, long long index, short value);
void REALSetArrayValue(REALarray array, long long index, unsigned short value);
void REALSetArrayValue(REALarray array, long long index, double value);
void REALSetArrayValue(REALarray array, long long index, float value);
void REALSetArrayValue(REALarray array, long long index, REALstring value);
void REALSetArrayValue(REALarray array, long long index, RuntimeText value);
void REALSetArrayValue(REALarray array, long long index, REALobject value);

// Computed, not resolved: the class's instance data inside object.
inline void* REALGetClassData(REALobject object, REALclassDefinition* definition) {
  return reinterpret_cast<uint8_t*>(object) + definition->dataOffset;
}

// Computed: a control's data lies at the offset in word 13 of its definition record.
void* REALGetControlData(REALobject control, REALcontrol* definition);

namespace rawfx {

// One row per generated stub, for tests that walk the binding.
struct HostStubInfo {
  const char* stub;
  const char* hostName;
};
extern const HostStubInfo kHostStubs[];
extern const int kHostStubCount;

}  // namespace rawfx
