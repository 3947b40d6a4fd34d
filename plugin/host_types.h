// Handles and class-definition records exchanged with the host runtime.
// The host reads the records word by word, so every size and offset is pinned.
#pragma once

#include <cstddef>
#include <cstdint>

struct REALobjectStruct;
struct REALclassRefStruct;
struct REALstringStruct;
struct REALarrayStruct;
struct REALtextStruct;
struct REALpictureDescription;
struct REALcontrol;
struct REALwindowStruct;
struct REALgraphicsStruct;
struct REALdbCursorStruct;
struct REALdbDatabaseStruct;
struct REALfolderItemStruct;
struct REALsocketStruct;
struct REALmemoryBlockStruct;

using REALobject = REALobjectStruct*;
using REALclassRef = REALclassRefStruct*;
using REALstring = REALstringStruct*;
using REALarray = REALarrayStruct*;

// The resolver: host service name -> entry point address, or null.
using REALResolver = void* (*)(const char* name);

// A property row (12 words).
struct ClassPropertyEntry {
  int64_t group;
  const char* name;
  const char* type;
  int64_t flags;
  const void* getter;  // kDirectAccess: the host reads the field itself
  const void* setter;  // kDirectAccess: the host writes the field itself
  int64_t parameter;   // byte position of a direct field, else 0
  int64_t reserved[5];
};
static_assert(sizeof(ClassPropertyEntry) == 12 * 8);
static_assert(offsetof(ClassPropertyEntry, getter) == 4 * 8);
static_assert(offsetof(ClassPropertyEntry, setter) == 5 * 8);
static_assert(offsetof(ClassPropertyEntry, parameter) == 6 * 8);

// A method row (6 words).
struct ClassMethodEntry {
  const void* function;
  const void* setter;
  const char* declaration;
  int64_t flags;
  int64_t reserved[2];
};
static_assert(sizeof(ClassMethodEntry) == 6 * 8);
static_assert(offsetof(ClassMethodEntry, declaration) == 2 * 8);
static_assert(offsetof(ClassMethodEntry, flags) == 3 * 8);

// An enum row (7 words).
struct ClassEnumEntry {
  const char* name;
  const char* type;
  int64_t flags;
  const char* const* values;
  int64_t valueCount;
  int64_t reserved[2];
};
static_assert(sizeof(ClassEnumEntry) == 7 * 8);
static_assert(offsetof(ClassEnumEntry, values) == 3 * 8);
static_assert(offsetof(ClassEnumEntry, valueCount) == 4 * 8);

using ClassConstructor = void (*)(REALobject self);

// The class-definition record (29 words).
struct REALclassDefinition {
  int64_t version;                       // 0
  const char* name;                      // 1
  const char* superName;                 // 2
  int64_t dataSize;                      // 3
  int64_t dataOffset;                    // 4: filled by the host at registration
  ClassConstructor constructor;          // 5
  ClassConstructor destructor;           // 6
  const ClassPropertyEntry* properties;  // 7
  int64_t propertyCount;                 // 8
  const ClassMethodEntry* methods;       // 9
  int64_t methodCount;                   // 10
  int64_t reserved11[4];                 // 11-14
  const char* interfaces;                // 15
  int64_t reserved16[4];                 // 16-19
  int64_t flags;                         // 20: a 32-bit field in the low half
  int64_t reserved21[6];                 // 21-26
  const ClassEnumEntry* enums;           // 27
  int64_t enumCount;                     // 28
};
static_assert(sizeof(REALclassDefinition) == 29 * 8);
static_assert(offsetof(REALclassDefinition, dataSize) == 3 * 8);
static_assert(offsetof(REALclassDefinition, dataOffset) == 4 * 8);
static_assert(offsetof(REALclassDefinition, constructor) == 5 * 8);
static_assert(offsetof(REALclassDefinition, properties) == 7 * 8);
static_assert(offsetof(REALclassDefinition, methods) == 9 * 8);
static_assert(offsetof(REALclassDefinition, interfaces) == 15 * 8);
static_assert(offsetof(REALclassDefinition, flags) == 20 * 8);
static_assert(offsetof(REALclassDefinition, enums) == 27 * 8);
static_assert(offsetof(REALclassDefinition, enumCount) == 28 * 8);

namespace rawfx {

inline constexpr int64_t kRecordVersion = 13;   // also the plug-in interface version
inline constexpr int64_t kRowFlags = 4;         // every property and method row
inline constexpr int64_t kEnumFlags = 32;
inline constexpr int64_t kConsoleSafeFlag = 4;  // class flag set at start-up
inline constexpr intptr_t kDirectAccess = -1;   // getter/setter word of a direct field

}  // namespace rawfx
