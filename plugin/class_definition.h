// Builders for the rows and records of the class-definition tables, so that
// each effect's tables read like rows of a table.
#pragma once

#include <cstdint>

#include "plugin/host_types.h"

namespace rawfx {

template <class F>
const void* Fn(F function) {
  return reinterpret_cast<const void*>(function);
}

inline const void* const kDirect = reinterpret_cast<const void*>(kDirectAccess);

// A property reached through a getter and a setter.
inline ClassPropertyEntry Property(const char* name, const char* type, const void* getter, const void* setter) {
  return {0, name, type, kRowFlags, getter, setter, 0, {}};
}

// A property the host reads and writes itself at a byte position of the instance data.
inline ClassPropertyEntry DirectProperty(const char* name, const char* type, int64_t bytePosition) {
  return {0, name, type, kRowFlags, kDirect, kDirect, bytePosition, {}};
}

inline ClassMethodEntry Method(const void* function, const char* declaration) {
  return {function, nullptr, declaration, kRowFlags, {}};
}

template <int N>
ClassEnumEntry Enum(const char* name, const char* const (&values)[N]) {
  return {name, "Integer", kEnumFlags, values, N, {}};
}

inline constexpr const char* kFilterSuperclass = "MPImageFilterRaw";
inline constexpr const char* kSyncInterfaces = "IRawBitmapProcessor";
inline constexpr const char* kAsyncInterfaces = "IRawBitmapProcessor, IRawBitmapProcessorAsync";

struct ClassTables {
  const ClassPropertyEntry* properties = nullptr;
  int64_t propertyCount = 0;
  const ClassMethodEntry* methods = nullptr;
  int64_t methodCount = 0;
  const ClassEnumEntry* enums = nullptr;
  int64_t enumCount = 0;
};

template <class T, int N>
constexpr int64_t RowCount(const T (&)[N]) {
  return N;
}

// A class record of an MPImageFilterRaw subclass; word 4 and the flags start at 0.
inline REALclassDefinition FilterClassRecord(const char* name, int64_t dataSize, ClassConstructor constructor,
                                             ClassConstructor destructor, const char* interfaces,
                                             const ClassTables& tables) {
  REALclassDefinition record{};
  record.version = kRecordVersion;
  record.name = name;
  record.superName = kFilterSuperclass;
  record.dataSize = dataSize;
  record.constructor = constructor;
  record.destructor = destructor;
  record.properties = tables.properties;
  record.propertyCount = tables.propertyCount;
  record.methods = tables.methods;
  record.methodCount = tables.methodCount;
  record.interfaces = interfaces;
  record.enums = tables.enums;
  record.enumCount = tables.enumCount;
  return record;
}

}  // namespace rawfx
