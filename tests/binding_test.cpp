// The host binding against a scripted resolver. Stub caches bind once per
// process, so every case runs in a forked child with fresh caches.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "plugin/host_binding.h"
#include "support/child_process.h"

namespace {

using S = std::vector<std::string>;
using rawfx::test::InFreshProcess;
using rawfx::test::ScriptedHost;

template <typename T = REALobjectStruct>
T* Handle(uintptr_t n) {
  return reinterpret_cast<T*>(n * 16);
}
const auto kString = Handle<REALstringStruct>(1);
const auto kArray = Handle<REALarrayStruct>(1);

// What the fake host routines saw, in call order: each call's words joined by spaces.
S gCalls;
template <class... Words>
void Record(const Words&... words) {
  std::ostringstream call;
  ((call << words << ' '), ...);
  gCalls.push_back(call.str().substr(0, call.str().size() - 1));
}

REALobject FakeCreateInstance(REALclassRef classRef) {
  Record("CreateInstance", uintptr_t(classRef));
  return Handle(50);
}
int64_t FakeLenB(REALstring) { return 11; }
void* FakeLoadGlobalMethod(const char* module, const char* declaration) {
  Record(module ? module : "nil", "|", declaration);
  return reinterpret_cast<void*>(FakeLenB);
}

TEST(Binding, StubsAnswerTheirMissingValuesAndAskAgain) {
  InFreshProcess([](ScriptedHost& host) {
    for (int call = 0; call < 2; ++call) {
      EXPECT_EQ(REALGetRBVersion(), 0.0);
      EXPECT_EQ(REALGetClassRef("RawBitmap"), nullptr);
      EXPECT_FALSE(REALObjectIsA(Handle(1), Handle<REALclassRefStruct>(2)));
      EXPECT_EQ(REALGetSystemTextEncoding(), 0x08000100u);
      EXPECT_EQ(REALRegisterBackgroundTask(nullptr, 10, nullptr), -1);
      EXPECT_EQ(REALGetPluginData(Handle(1), Handle<REALclassRefStruct>(2)), nullptr);
      int32_t untouched = 7;
      EXPECT_FALSE(REALGetPropValueInt32(Handle(1), "Width", &untouched));
      EXPECT_EQ(untouched, 7);
      short element = 5;
      REALGetArrayValue(kArray, 0, &element);
      EXPECT_EQ(element, 5);
      REALSetArrayValue(kArray, 0, 2.5);
      EXPECT_FALSE(REALSetPropValue(Handle(1), "Name", "text"));
      REALUnlockObject(Handle(1));
    }
    for (const char* name : {"REALGetRBVersion", "pluginObjectType", "RuntimeObjectIsa", "REALGetSystemTextEncoding",
                             "PluginRegisterBackgroundTask", "PluginGetPluginData", "REALGetPropValueInt",
                             "PluginInt16ArrayGetProc", "PluginDoubleArraySetProc", "REALSetPropValueCString",
                             "REALUnlockObject"})
      EXPECT_EQ(host.Asks(name), 2) << name;
    // A name the host learns later binds on the next call, and is never asked for again.
    host.Learn("REALGetRBVersion", +[] { return 2024.5; });
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    host.known.clear();
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    EXPECT_EQ(host.Asks("REALGetRBVersion"), 3);
    // Plain stubs pass their arguments unchanged and in order.
    host.Learn("PluginGetPluginData", +[](REALobject object, REALclassRef classRef) -> void* {
      return reinterpret_cast<uint8_t*>(object) + reinterpret_cast<uintptr_t>(classRef);
    });
    EXPECT_EQ(REALGetPluginData(Handle(100), Handle<REALclassRefStruct>(1)), reinterpret_cast<uint8_t*>(Handle(101)));
    host.Learn("PluginRegisterClass", +[](REALclassDefinition* definition) { Record(definition->name); });
    REALclassDefinition record{};
    record.name = "Widget";
    REALRegisterClass(&record);
    EXPECT_EQ(gCalls, S{"Widget"});
  });
}

// Guarded creation resolves "CreateInstance" but never calls it for a nil class;
// REALnewInstanceOfClass takes the host's routine when it has one, else creates the
// class named in the record, through the caches of the stubs it stands for.
TEST(Binding, InstanceCreationGuardsNilAndFallsBackToTheRecordsClass) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("pluginObjectType", +[](const char* name) {
      Record("type", name);
      return std::string_view(name) == "Widget" ? Handle<REALclassRefStruct>(7) : nullptr;
    });
    REALclassDefinition record{};
    record.name = "Gadget";  // an unknown class creates nothing
    EXPECT_EQ(REALnewInstanceOfClass(&record), nullptr);
    EXPECT_EQ(host.Asks("CreateInstance"), 0);
    EXPECT_EQ(REALnewInstanceWithClass(nullptr), nullptr);  // while the host lacks the name, each call asks
    EXPECT_EQ(REALnewInstance(static_cast<REALclassRef>(nullptr)), nullptr);
    EXPECT_EQ(host.Asks("CreateInstance"), 2);
    host.Learn("CreateInstance", FakeCreateInstance);
    EXPECT_EQ(REALnewInstanceWithClass(nullptr), nullptr);
    EXPECT_EQ(REALnewInstance(static_cast<REALclassRef>(nullptr)), nullptr);
    EXPECT_EQ(REALnewInstance(Handle<REALclassRefStruct>(2)), Handle(50));
    record.name = "Widget";
    EXPECT_EQ(REALnewInstanceOfClass(&record), Handle(50));
    EXPECT_EQ(REALGetClassRef("Widget"), Handle<REALclassRefStruct>(7));
    EXPECT_EQ(REALnewInstanceWithClass(Handle<REALclassRefStruct>(7)), Handle(50));
    EXPECT_EQ(gCalls, (S{"type Gadget", "CreateInstance 32", "type Widget", "CreateInstance 112", "type Widget",
                         "CreateInstance 112"}));
    // The nil calls resolved, the overload and the fallback used the one cache.
    EXPECT_EQ(host.Asks("CreateInstance"), 3);
    EXPECT_EQ(host.Asks("pluginObjectType"), 1);
    EXPECT_EQ(host.Asks("PluginNewInstanceOfClass"), 2);

    host.Learn("PluginNewInstanceOfClass", +[](REALclassDefinition* definition) {
      Record("of class", definition->name);
      return Handle(60);
    });
    gCalls.clear();
    EXPECT_EQ(REALnewInstanceOfClass(&record), Handle(60));
    EXPECT_EQ(gCalls, S{"of class Widget"});
  });
}

// String contents and length through the host's "LenB" method, stubs that add a
// fixed argument, and which stubs share a cache.
TEST(Binding, StringsAndLoadersShareCachesAsDocumented) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("StringGetCString", +[](REALstring) { return "hello world"; });
    size_t length = 12345;
    EXPECT_EQ(REALGetStringContents(nullptr, &length), nullptr);
    EXPECT_EQ(length, 12345u);
    EXPECT_TRUE(host.asked.empty());
    // Without the method loader the length stays and the contents still come.
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(kString, &length)), "hello world");
    EXPECT_EQ(length, 12345u);
    EXPECT_EQ(REALStringLength(kString), 0);
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 2);

    host.Learn("REALLoadGlobalMethod", FakeLoadGlobalMethod);
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(kString, &length)), "hello world");
    EXPECT_EQ(length, 11u);
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(kString, nullptr)), "hello world");
    EXPECT_EQ(REALStringLength(kString), 11);
    EXPECT_EQ(REALLoadFrameworkMethod("Beep()"), reinterpret_cast<void*>(FakeLenB));
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 3);  // contents, length and the framework stub share one cache
    REALLoadGlobalMethod("Module", "Beep()");
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 4);  // a stub of the same host name keeps a cache of its own
    REALCString(kString);
    EXPECT_EQ(host.Asks("StringGetCString"), 2);

    host.Learn("REALGetStringCFString", +[](REALstring string, bool strip) -> CFStringRef {
      Record("cf", uintptr_t(string), strip);
      return "cf";
    });
    host.Learn("REALBuildStringWithEncoding", +[](const char*, int size, uint32_t encoding) {
      Record("build", size, encoding);
      return Handle<REALstringStruct>(9);
    });
    EXPECT_STREQ(static_cast<const char*>(REALCopyStringCFString(kString)), "cf");
    REALGetStringCFString(kString, true);
    EXPECT_EQ(host.Asks("REALGetStringCFString"), 2);
    EXPECT_EQ(REALBuildString("abc", 3, 0x600u), Handle<REALstringStruct>(9));
    EXPECT_EQ(REALBuildStringWithEncoding("abcd", 4, 0x100u), Handle<REALstringStruct>(9));
    EXPECT_EQ(host.Asks("REALBuildStringWithEncoding"), 1);
    EXPECT_EQ(gCalls, (S{"nil | LenB( s as string ) as integer", "nil | Beep()", "nil | Beep()", "cf 16 0", "cf 16 1",
                         "build 3 1536", "build 4 256"}));
  });
}

bool gArrayHasElements = true;
int32_t FakeInt32Element(REALarray array, int64_t index) {
  Record("get", uintptr_t(array), index);
  return 4242;
}
void FakeDoubleElement(REALarray array, int64_t index, double value) { Record("put", uintptr_t(array), index, value); }

// Array elements go through the routine the array names; the C++ overloads reach
// the typed stub of their type, each overload with a cache of its own.
TEST(Binding, ArrayElementsAndOverloadsReachTheirTypedRoutines) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("PluginInt32ArrayGetProc", +[](REALarray) {
      return gArrayHasElements ? reinterpret_cast<void*>(FakeInt32Element) : nullptr;
    });
    REALGetArrayValueInt32(kArray, 3, nullptr);  // no out pointer: no element routine
    EXPECT_TRUE(gCalls.empty());
    int32_t value = 0;
    REALGetArrayValueInt32(kArray, 3, &value);
    EXPECT_EQ(value, 4242);
    gArrayHasElements = false;  // an array without an element routine
    value = 1;
    REALGetArrayValueInt32(kArray, 3, &value);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(host.Asks("PluginInt32ArrayGetProc"), 1);

    const auto doubleRoutine = +[](REALarray) { return reinterpret_cast<void*>(FakeDoubleElement); };
    host.Learn("PluginDoubleArrayInsertProc", doubleRoutine);
    host.Learn("PluginDoubleArraySetProc", doubleRoutine);
    REALInsertArrayValueDouble(Handle<REALarrayStruct>(2), 0, 1.5);
    REALSetArrayValue(Handle<REALarrayStruct>(2), 7, 2.25);
    EXPECT_EQ(gCalls, (S{"get 16 3", "put 32 0 1.5", "put 32 7 2.25"}));
    REALSetArrayValueDouble(Handle<REALarrayStruct>(2), 1, 3.0);
    EXPECT_EQ(host.Asks("PluginDoubleArraySetProc"), 1);  // the overload bound the typed stub

    host.asked.clear();
    host.Learn("REALGetPropValueInt16", +[](REALobject object, const char* name, int16_t* out) {
      *out = static_cast<int16_t>(reinterpret_cast<uintptr_t>(object) + std::string_view(name).size());
      return true;
    });
    short depth = 0;
    EXPECT_TRUE(REALGetPropValue(Handle(1), "Depth", &depth));
    EXPECT_EQ(depth, 21);
    float single = 0;
    RuntimeText text = nullptr;
    EXPECT_FALSE(REALSetPropValue(Handle(1), "Label", L"wide"));
    EXPECT_FALSE(REALSetPropValue(Handle(1), "Owner", Handle(2)));
    REALGetArrayValue(kArray, 0, &single);
    REALInsertArrayValue(kArray, 0, Handle(1));
    REALSetArrayValue(kArray, 0, text);
    EXPECT_EQ(host.asked, (S{"REALGetPropValueInt16", "REALSetPropValueWString", "REALSetPropValuePtr",
                             "PluginSingleArrayGetProc", "PluginObjectArrayInsertProc", "PluginTextArraySetProc"}));
    EXPECT_TRUE(REALGetPropValueInt16(Handle(1), "Depth", &depth));  // its own cache asks again
    EXPECT_EQ(host.Asks("REALGetPropValueInt16"), 2);
  });
}

// A sample of the host-name rules: each family's rule and each kind of exception.
TEST(Binding, StubTableNamesAreUniqueAndFollowTheRules) {
  const std::map<std::string_view, std::string_view> sample = {
      {"REALGetPropValueDouble", "REALGetPropValueDouble"},  // the stub's own name
      {"REALSetArrayValueObject", "PluginObjectArraySetProc"},
      {"REALNewVariantDouble", "DoubleToVariant"},
      {"REALNewVariantText", "PluginNewVariantText"},  // "Plugin" + the name without "REAL"
      {"REALRegisterDataSource", "RegisterDataSource"},  // the name without "REAL"
      {"GraphicsDrawLine", "RuntimeGraphicsDrawLine"},
      {"REALSocketPoll", "socketPoll"},
      {"REALSocketRead", "pluginSocketRead"},
      {"REALNewVariantInteger", "Int32ToVariant"},
      {"REALnewInstance", "PluginNewInstance"},
      {"REALSetControlEnabled", "controlEnabledSetter"},
  };
  std::set<std::string_view> stubs;
  std::map<std::string_view, std::string_view> found;
  for (int i = 0; i < rawfx::kHostStubCount; ++i) {
    const auto& row = rawfx::kHostStubs[i];
    EXPECT_TRUE(stubs.insert(row.stub).second) << "duplicate " << row.stub;
    if (sample.contains(row.stub)) found.emplace(row.stub, row.hostName);
  }
  EXPECT_EQ(found, sample);
}

}  // namespace
