// The host binding against a scripted resolver. Stub caches bind once per
// process, so every case that needs fresh caches runs in a forked child.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/host_binding.h"
#include "support/child_process.h"

namespace {

// The host as the binding sees it: the names it knows and every name it was asked.
struct ScriptedHost {
  std::map<std::string, void*, std::less<>> known;
  std::vector<std::string> asked;

  template <typename Fn>
  void Learn(const char* name, Fn* routine) {
    known[name] = reinterpret_cast<void*>(routine);
  }
  int Asks(std::string_view name) const { return static_cast<int>(std::count(asked.begin(), asked.end(), name)); }
};

ScriptedHost* gHost = nullptr;

void* ScriptedResolve(const char* name) {
  gHost->asked.emplace_back(name);
  auto found = gHost->known.find(name);
  return found == gHost->known.end() ? nullptr : found->second;
}

// Runs body in a fresh process with the scripted host installed; expectations
// that fail in the child print there and fail the case here.
void InFreshProcess(const std::function<void(ScriptedHost&)>& body) {
  std::fflush(nullptr);
  const auto result = rawfx::test::RunInChild([&] {
    ScriptedHost host;
    gHost = &host;
    gResolver = ScriptedResolve;
    body(host);
    std::fflush(nullptr);
    return std::string(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  EXPECT_TRUE(result.exitedNormally);
  EXPECT_EQ(result.output, "passed");
}

template <typename T = REALobjectStruct>
T* Handle(uintptr_t n) {
  return reinterpret_cast<T*>(n * 16);
}

// What the fake host routines saw, in call order.
std::vector<std::string> gCalls;
void Record(std::string call) { gCalls.push_back(std::move(call)); }

// ---- a host that knows nothing ------------------------------------------------

TEST(BindingWithoutHost, StubsAnswerTheirMissingValuesAndAskAgain) {
  InFreshProcess([](ScriptedHost& host) {
    for (int call = 0; call < 2; ++call) {
      EXPECT_EQ(REALGetRBVersion(), 0.0);
      EXPECT_EQ(REALGetClassRef("RawBitmap"), nullptr);
      EXPECT_FALSE(REALObjectIsA(Handle(1), Handle<REALclassRefStruct>(2)));
      EXPECT_EQ(REALGetSystemTextEncoding(), 0x08000100u);
      EXPECT_EQ(REALRegisterBackgroundTask(nullptr, 10, nullptr), -1);
      EXPECT_EQ(REALGetPluginData(Handle(1), Handle<REALclassRefStruct>(2)), nullptr);
      EXPECT_EQ(REALStringLength(Handle<REALstringStruct>(3)), 0);
      int32_t untouched = 7;
      EXPECT_FALSE(REALGetPropValueInt32(Handle(1), "Width", &untouched));
      EXPECT_EQ(untouched, 7);
      REALUnlockObject(Handle(1));
    }
    for (const char* name : {"REALGetRBVersion", "pluginObjectType", "RuntimeObjectIsa", "REALGetSystemTextEncoding",
                             "PluginRegisterBackgroundTask", "PluginGetPluginData", "REALLoadGlobalMethod",
                             "REALGetPropValueInt", "REALUnlockObject"})
      EXPECT_EQ(host.Asks(name), 2) << name;
  });
}

TEST(BindingWithoutHost, ArrayAccessorsAndOverloadsDoNothing) {
  InFreshProcess([](ScriptedHost& host) {
    short element = 5;
    REALGetArrayValue(Handle<REALarrayStruct>(1), 0, &element);
    REALSetArrayValue(Handle<REALarrayStruct>(1), 0, 2.5);
    EXPECT_FALSE(REALSetPropValue(Handle(1), "Name", "text"));
    EXPECT_EQ(element, 5);
    EXPECT_EQ(host.Asks("PluginInt16ArrayGetProc"), 1);
    EXPECT_EQ(host.Asks("PluginDoubleArraySetProc"), 1);
    EXPECT_EQ(host.Asks("REALSetPropValueCString"), 1);
  });
}

// ---- a host that learns a name later -----------------------------------------------

TEST(BindingLateHost, StubBindsOnTheFirstCallAfterTheNameAppears) {
  InFreshProcess([](ScriptedHost& host) {
    EXPECT_EQ(REALGetRBVersion(), 0.0);
    host.Learn("REALGetRBVersion", +[] { return 2024.5; });
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    host.known.clear();  // a bound stub keeps its address
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    EXPECT_EQ(host.Asks("REALGetRBVersion"), 2);
  });
}

TEST(BindingLateHost, PlainStubPassesItsArgumentsInOrder) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("PluginGetPluginData", +[](REALobject object, REALclassRef classRef) -> void* {
      return reinterpret_cast<uint8_t*>(object) + reinterpret_cast<uintptr_t>(classRef);
    });
    EXPECT_EQ(REALGetPluginData(Handle(100), Handle<REALclassRefStruct>(1)),
              reinterpret_cast<uint8_t*>(Handle(101)));
    host.Learn("PluginRegisterClass", +[](REALclassDefinition* definition) { Record(definition->name); });
    REALclassDefinition record{};
    record.name = "Widget";
    REALRegisterClass(&record);
    EXPECT_EQ(gCalls, std::vector<std::string>{"Widget"});
  });
}

// ---- guarded stubs -------------------------------------------------------------

REALobject FakeCreateInstance(REALclassRef classRef) {
  Record("CreateInstance " + std::to_string(reinterpret_cast<uintptr_t>(classRef)));
  return Handle(50);
}

TEST(BindingGuarded, NilClassResolvesCreateInstanceButDoesNotCallIt) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("CreateInstance", FakeCreateInstance);
    EXPECT_EQ(REALnewInstanceWithClass(nullptr), nullptr);
    EXPECT_EQ(host.Asks("CreateInstance"), 1);
    EXPECT_TRUE(gCalls.empty());

    EXPECT_EQ(REALnewInstance(static_cast<REALclassRef>(nullptr)), nullptr);
    EXPECT_EQ(REALnewInstance(Handle<REALclassRefStruct>(2)), Handle(50));
    EXPECT_EQ(gCalls, std::vector<std::string>{"CreateInstance 32"});
    EXPECT_EQ(host.Asks("CreateInstance"), 1);  // the overload shares the cache
  });
}

TEST(BindingGuarded, NilClassStillAsksWhileTheHostLacksCreateInstance) {
  InFreshProcess([](ScriptedHost& host) {
    EXPECT_EQ(REALnewInstanceWithClass(nullptr), nullptr);
    EXPECT_EQ(REALnewInstance(static_cast<REALclassRef>(nullptr)), nullptr);
    EXPECT_EQ(host.Asks("CreateInstance"), 2);
  });
}

// ---- methods loaded by declaration ---------------------------------------------------

int64_t FakeLenB(REALstring) { return 11; }
void* FakeLoadGlobalMethod(const char* module, const char* declaration) {
  Record(std::string(module ? module : "nil") + " | " + declaration);
  return reinterpret_cast<void*>(FakeLenB);
}
const char* FakeCString(REALstring) { return "hello world"; }

TEST(BindingStringContents, NilStringAnswersNilAndLeavesTheLengthAlone) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("StringGetCString", FakeCString);
    host.Learn("REALLoadGlobalMethod", FakeLoadGlobalMethod);
    size_t length = 12345;
    EXPECT_EQ(REALGetStringContents(nullptr, &length), nullptr);
    EXPECT_EQ(length, 12345u);
    EXPECT_TRUE(host.asked.empty());
  });
}

TEST(BindingStringContents, ContentsAndLengthThroughLenB) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("StringGetCString", FakeCString);
    host.Learn("REALLoadGlobalMethod", FakeLoadGlobalMethod);
    size_t length = 0;
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(Handle<REALstringStruct>(1), &length)), "hello world");
    EXPECT_EQ(length, 11u);
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(Handle<REALstringStruct>(1), nullptr)), "hello world");
    EXPECT_EQ(REALStringLength(Handle<REALstringStruct>(1)), 11);
    EXPECT_EQ(gCalls, std::vector<std::string>{"nil | LenB( s as string ) as integer"});
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 1);
  });
}

TEST(BindingStringContents, WithoutTheLoaderTheLengthStaysAndContentsStillCome) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("StringGetCString", FakeCString);
    size_t length = 99;
    EXPECT_STREQ(static_cast<const char*>(REALGetStringContents(Handle<REALstringStruct>(1), &length)), "hello world");
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(REALStringLength(Handle<REALstringStruct>(1)), 0);
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 2);
  });
}

// ---- two-stage array accessors ------------------------------------------------------

int32_t FakeInt32Element(REALarray array, int64_t index) {
  Record("get " + std::to_string(reinterpret_cast<uintptr_t>(array)) + " " + std::to_string(index));
  return 4242;
}
void FakeDoubleElement(REALarray array, int64_t index, double value) {
  Record("put " + std::to_string(reinterpret_cast<uintptr_t>(array)) + " " + std::to_string(index) + " " +
         std::to_string(value));
}
bool gArrayHasElements = true;
void* Int32RoutineOf(REALarray) {
  Record("routineOf");
  return gArrayHasElements ? reinterpret_cast<void*>(FakeInt32Element) : nullptr;
}
void* DoubleRoutineOf(REALarray) { return reinterpret_cast<void*>(FakeDoubleElement); }

TEST(BindingArrays, GetWithoutOutPointerCallsNoElementRoutine) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("PluginInt32ArrayGetProc", Int32RoutineOf);
    REALGetArrayValueInt32(Handle<REALarrayStruct>(1), 3, nullptr);
    EXPECT_EQ(std::count(gCalls.begin(), gCalls.end(), "get 16 3"), 0);

    int32_t value = 0;
    REALGetArrayValueInt32(Handle<REALarrayStruct>(1), 3, &value);
    EXPECT_EQ(value, 4242);
    EXPECT_EQ(std::count(gCalls.begin(), gCalls.end(), "get 16 3"), 1);

    gArrayHasElements = false;  // an array without an element routine
    value = 1;
    REALGetArrayValueInt32(Handle<REALarrayStruct>(1), 3, &value);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(host.Asks("PluginInt32ArrayGetProc"), 1);
  });
}

TEST(BindingArrays, InsertAndSetPassArrayIndexAndValue) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("PluginDoubleArrayInsertProc", DoubleRoutineOf);
    host.Learn("PluginDoubleArraySetProc", DoubleRoutineOf);
    REALInsertArrayValueDouble(Handle<REALarrayStruct>(2), 0, 1.5);
    REALSetArrayValue(Handle<REALarrayStruct>(2), 7, 2.25);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"put 32 0 1.500000", "put 32 7 2.250000"}));
    REALSetArrayValueDouble(Handle<REALarrayStruct>(2), 1, 3.0);  // the overload bound the typed stub
    EXPECT_EQ(host.Asks("PluginDoubleArraySetProc"), 1);
  });
}

TEST(BindingArrays, OverloadsReachTheTypedStubOfTheirElementType) {
  InFreshProcess([](ScriptedHost& host) {
    const auto array = Handle<REALarrayStruct>(1);
    short i16 = 0;
    unsigned short u16 = 0;
    REALstring string = nullptr;
    RuntimeText text = nullptr;
    REALobject object = nullptr;
    double d = 0;
    float f = 0;
    REALGetArrayValue(array, 0, &i16);
    REALGetArrayValue(array, 0, &u16);
    REALGetArrayValue(array, 0, &string);
    REALGetArrayValue(array, 0, &text);
    REALGetArrayValue(array, 0, &object);
    REALGetArrayValue(array, 0, &d);
    REALGetArrayValue(array, 0, &f);
    REALInsertArrayValue(array, 0, Handle(1));
    REALSetArrayValue(array, 0, static_cast<unsigned short>(1));
    REALSetArrayValue(array, 0, text);
    EXPECT_EQ(host.asked, (std::vector<std::string>{
                              "PluginInt16ArrayGetProc", "PluginUInt16ArrayGetProc", "PluginStringArrayGetProc",
                              "PluginTextArrayGetProc", "PluginObjectArrayGetProc", "PluginDoubleArrayGetProc",
                              "PluginSingleArrayGetProc", "PluginObjectArrayInsertProc", "PluginUInt16ArraySetProc",
                              "PluginTextArraySetProc"}));
  });
}

// ---- the fallback chain of REALnewInstanceOfClass -------------------------------------

REALclassRef FakeObjectType(const char* name) {
  Record(std::string("type ") + name);
  return std::string_view(name) == "Widget" ? Handle<REALclassRefStruct>(7) : nullptr;
}

TEST(BindingNewInstanceOfClass, UsesTheHostRoutineWhenThereIsOne) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("PluginNewInstanceOfClass", +[](REALclassDefinition* definition) {
      Record(std::string("of class ") + definition->name);
      return Handle(60);
    });
    host.Learn("pluginObjectType", FakeObjectType);
    host.Learn("CreateInstance", FakeCreateInstance);
    REALclassDefinition record{};
    record.name = "Widget";
    EXPECT_EQ(REALnewInstanceOfClass(&record), Handle(60));
    EXPECT_EQ(gCalls, std::vector<std::string>{"of class Widget"});
    EXPECT_EQ(host.asked, std::vector<std::string>{"PluginNewInstanceOfClass"});
  });
}

TEST(BindingNewInstanceOfClass, FallsBackToTheClassNamedInTheRecord) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("pluginObjectType", FakeObjectType);
    host.Learn("CreateInstance", FakeCreateInstance);
    REALclassDefinition record{};
    record.name = "Widget";
    EXPECT_EQ(REALnewInstanceOfClass(&record), Handle(50));
    EXPECT_EQ(gCalls, (std::vector<std::string>{"type Widget", "CreateInstance 112"}));

    // Both lookups went through the caches of the stubs they stand for.
    EXPECT_EQ(REALGetClassRef("Widget"), Handle<REALclassRefStruct>(7));
    EXPECT_EQ(REALnewInstanceWithClass(Handle<REALclassRefStruct>(7)), Handle(50));
    EXPECT_EQ(host.Asks("pluginObjectType"), 1);
    EXPECT_EQ(host.Asks("CreateInstance"), 1);

    record.name = "Unknown";
    EXPECT_EQ(REALnewInstanceOfClass(&record), nullptr);
    EXPECT_EQ(gCalls.back(), "type Unknown");
    EXPECT_EQ(host.Asks("PluginNewInstanceOfClass"), 2);
  });
}

TEST(BindingNewInstanceOfClass, UnknownClassCreatesNothing) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("pluginObjectType", FakeObjectType);
    REALclassDefinition record{};
    record.name = "Gadget";
    EXPECT_EQ(REALnewInstanceOfClass(&record), nullptr);
    EXPECT_EQ(host.Asks("CreateInstance"), 0);
  });
}

// ---- fixed arguments, shared and separate caches ---------------------------------------

CFStringRef FakeGetStringCFString(REALstring string, bool stripAmpersands) {
  Record("cf " + std::to_string(reinterpret_cast<uintptr_t>(string)) + " " + std::to_string(stripAmpersands));
  return "cf";
}

TEST(BindingFixedArguments, FixedArgumentsReachTheHost) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("REALGetStringCFString", FakeGetStringCFString);
    host.Learn("REALLoadGlobalMethod", FakeLoadGlobalMethod);
    EXPECT_STREQ(static_cast<const char*>(REALCopyStringCFString(Handle<REALstringStruct>(1))), "cf");
    REALGetStringCFString(Handle<REALstringStruct>(1), true);
    EXPECT_EQ(REALLoadFrameworkMethod("Beep()"), reinterpret_cast<void*>(FakeLenB));
    REALLoadGlobalMethod("Module", "Beep()");
    EXPECT_EQ(gCalls, (std::vector<std::string>{"cf 16 0", "cf 16 1", "nil | Beep()", "nil | Beep()"}));
    EXPECT_EQ(host.Asks("REALGetStringCFString"), 2);  // each stub keeps its own cache
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 2);
  });
}

REALstring FakeBuildStringWithEncoding(const char*, int length, uint32_t encoding) {
  Record("build " + std::to_string(length) + " " + std::to_string(encoding));
  return Handle<REALstringStruct>(9);
}

TEST(BindingSharedCaches, OneAskServesBothStubs) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("REALBuildStringWithEncoding", FakeBuildStringWithEncoding);
    host.Learn("REALLoadGlobalMethod", FakeLoadGlobalMethod);
    EXPECT_EQ(REALBuildString("abc", 3, 0x600u), Handle<REALstringStruct>(9));
    EXPECT_EQ(REALBuildStringWithEncoding("abcd", 4, 0x100u), Handle<REALstringStruct>(9));
    EXPECT_EQ(REALStringLength(Handle<REALstringStruct>(1)), 11);
    REALLoadFrameworkMethod("Beep()");
    EXPECT_EQ(host.Asks("REALBuildStringWithEncoding"), 1);
    EXPECT_EQ(host.Asks("REALLoadGlobalMethod"), 1);
    EXPECT_EQ(gCalls.front(), "build 3 1536");
  });
}

TEST(BindingSeparateCaches, StubsOfOneHostNameEachAsk) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("StringGetCString", FakeCString);
    host.Learn("REALSetPropValueBoolean", +[](REALobject, const char*, bool) { return true; });
    host.Learn("REALSetPropValuePtr", +[](REALobject, const char*, void*) { return true; });
    host.Learn("lockPictureDescription", +[](REALobject, REALpictureDescription*) { return true; });
    REALCString(Handle<REALstringStruct>(1));
    REALGetStringContents(Handle<REALstringStruct>(1), nullptr);
    EXPECT_TRUE(REALSetPropValueUInt8(Handle(1), "Flag", 1));
    EXPECT_TRUE(REALSetPropValueBoolean(Handle(1), "Flag", true));
    EXPECT_TRUE(REALSetPropValue(Handle(1), "Owner", Handle(2)));
    EXPECT_TRUE(REALSetPropValuePtr(Handle(1), "Owner", Handle(2)));
    EXPECT_TRUE(REALLockPictureDescription(Handle(1), nullptr));
    EXPECT_TRUE(REALLockPictureDescriptionWithNativeType(Handle(1), nullptr));
    for (const char* name : {"StringGetCString", "REALSetPropValueBoolean", "REALSetPropValuePtr",
                             "lockPictureDescription"})
      EXPECT_EQ(host.Asks(name), 2) << name;
  });
}

// ---- property overloads --------------------------------------------------------------

TEST(BindingPropertyOverloads, ResolveTheTypedStubsHostNameAndPassThrough) {
  InFreshProcess([](ScriptedHost& host) {
    host.Learn("REALGetPropValueInt16", +[](REALobject object, const char* name, int16_t* value) {
      *value = static_cast<int16_t>(reinterpret_cast<uintptr_t>(object) + std::string_view(name).size());
      return true;
    });
    short value = 0;
    EXPECT_TRUE(REALGetPropValue(Handle(1), "Depth", &value));
    EXPECT_EQ(value, 21);
    float single = 0;
    double real = 0;
    EXPECT_FALSE(REALGetPropValue(Handle(1), "Scale", &single));
    EXPECT_FALSE(REALSetPropValue(Handle(1), "Scale", 2.0));
    EXPECT_FALSE(REALGetPropValue(Handle(1), "Scale", &real));
    EXPECT_FALSE(REALSetPropValue(Handle(1), "Label", L"wide"));
    EXPECT_EQ(host.asked, (std::vector<std::string>{"REALGetPropValueInt16", "REALGetPropValueSingle",
                                                    "REALSetPropValueDouble", "REALGetPropValueDouble",
                                                    "REALSetPropValueWString"}));
    EXPECT_TRUE(REALGetPropValueInt16(Handle(1), "Depth", &value));  // its own cache asks again
    EXPECT_EQ(host.Asks("REALGetPropValueInt16"), 2);
  });
}

// ---- computed accessors ----------------------------------------------------------------

TEST(BindingComputed, ClassAndControlDataAddTheRecordsOffsetWord) {
  REALclassDefinition record{};
  record.dataOffset = 24;
  uint8_t object[64];
  EXPECT_EQ(REALGetClassData(reinterpret_cast<REALobject>(object), &record), object + 24);

  int64_t controlRecord[20] = {};
  controlRecord[13] = 40;
  controlRecord[12] = 8;  // neighbouring words must not count
  controlRecord[14] = 16;
  EXPECT_EQ(REALGetControlData(reinterpret_cast<REALobject>(object), reinterpret_cast<REALcontrol*>(controlRecord)),
            object + 40);
}

// ---- the name table ----------------------------------------------------------------------

// Host names that differ from the family rule, by group, for the generated stubs.
const char* const kPluginPlusNameWithoutREAL[] = {
    "REALGetStringData", "REALDisposeStringData", "REALGetPluginData", "REALCallFunctionWithExceptionHandler",
    "REALGetDelegateInvoker", "REALRegisterBackgroundTask", "REALUnregisterBackgroundTask", "REALRegisterControl",
    "REALRegisterDBEngine", "REALRegisterDBTable", "REALRegisterDBCursor", "REALRegisterClass",
    "REALDefaultControlFont", "REALDefaultControlFontSize", "REALDefaultControlCaption", "REALBuildText",
    "REALCompareText", "REALConcatenateText", "REALNewVariantText", "REALGetPropValueText", "REALSetPropValueText",
    "REALGetTextData", "REALDisposeTextData", "REALCopyTextCFString", "REALRegisterInterface", "REALRegisterModule",
    "REALRegisterStructure", "REALRegisterEnum", "REALRegisterMethod", "REALRegisterClassExtension",
    "REALMarkSocketUsage", "REALGetCocoaViewCallbacks"};
const char* const kNameWithoutREAL[] = {
    "REALRegisterDataSourceInterface", "REALRegisterDataSource", "REALRegisterDatabaseConnection",
    "REALDesignAddDataSource", "REALGetControlBounds", "REALGetControlVisible", "REALSetControlVisible",
    "REALGetTabPanelVisible"};
const char* const kRuntimePlusNameWithoutREAL[] = {
    "GraphicsDrawLine", "REALGraphicsDrawString", "REALGraphicsStringWidth", "REALGraphicsStringHeight",
    "REALGraphicsTextHeight", "REALGraphicsTextAscent"};
const char* const kSocketPlusRest[] = {"REALSocketClose", "REALSocketLastErrorCode", "REALSocketLocalAddressGetter",
                                       "REALSocketPoll", "REALSocketGetEvents"};
const char* const kPluginSocketPlusRest[] = {"REALSocketReadAll", "REALSocketRead", "REALSocketLookahead",
                                             "REALSocketListen"};
const std::map<std::string, std::string, std::less<>> kSingleExceptions = {
    {"REALObjectIsA", "RuntimeObjectIsa"},
    {"REALCompareStrings", "RuntimeStringCompare"},
    {"REALAddStrings", "RuntimeAddString"},
    {"REALLoadSharedMethod", "PluginLoadSharedMethod"},
    {"REALLockPictureDescriptionWithNativeType", "lockPictureDescription"},
    {"REALUnlockPictureDescription", "unlockPictureDescription"},
    {"REALGetEventInstance", "GetEventInstance"},
    {"REALRaiseException", "RuntimeRaiseException"},
    {"REALGetArrayUBound", "RuntimeUBound"},
    {"REALGetArrayStructure", "RuntimeDirectReadStructureArray"},
    {"REALGetArrayInt", "RuntimeDirectReadIntArray"},
    {"REALGetArrayString", "RuntimeDirectReadStringArray"},
    {"REALGetArrayObject", "RuntimeDirectReadObjectArray"},
    {"REALGetVariantStructure", "PluginStructureFromVariant"},
    {"REALNewVariantStructure", "PluginStructureToVariant"},
    {"REALGetClassRef", "pluginObjectType"},
    {"REALnewInstance", "PluginNewInstance"},
    {"REALNewVariantInteger", "Int32ToVariant"},
    {"REALNewVariantRBInteger", "IntegerToVariant"},
    {"REALGetPropValueInt32", "REALGetPropValueInt"},
    {"REALSetPropValueInt32", "REALSetPropValueInt"},
    {"REALGetPropValueBoolean", "REALGetPropValueBool"},
    {"REALSetPropValueUInt8", "REALSetPropValueBoolean"},
    {"REALCreateArray", "RuntimeArrayCreateSingleDimBoundedArray"},
    {"REALstringToOSType", "StringToOSType"},
    {"REALCString", "StringGetCString"},
    {"REALPString", "StringGetPString"},
    {"REALInterfaceRoutine", "GetInterfaceRoutine"},
    {"REALDrawPicturePrimitive", "drawPicturePrimitive"},
    {"REALGetControlWindow", "getControlWindow"},
    {"REALSetControlEnabled", "controlEnabledSetter"},
    {"REALGetControlPosition", "ctlPosGetter"},
    {"REALSetControlPosition", "ctlPosSetter"},
    {"REALSocketConnect", "socketDirectConnect"},
    {"REALSocketWrite", "SocketWrite"},
    {"REALMessageBox", "RuntimeMsgBox"},
    {"REALGetPictureGraphics", "pluginPictureGraphicsGetter"},
    {"REALNewPicture", "newPicture"},
    {"REALNewMemoryBlock", "newMemoryBlock"},
    {"REALMemoryBlockGetPtr", "memoryBlockGetPtr"},
    {"REALMemoryBlockGetSize", "memoryBlockGetSize"},
    {"REALPtrToMemoryBlock", "PtrToMemoryBlock"},
};

std::string_view WithoutREAL(std::string_view name) {
  return name.starts_with("REAL") ? name.substr(4) : name;
}

std::map<std::string, std::string, std::less<>> ExpectedExceptions() {
  std::map<std::string, std::string, std::less<>> expected = kSingleExceptions;
  for (std::string_view stub : kPluginPlusNameWithoutREAL) expected.emplace(stub, "Plugin" + std::string(WithoutREAL(stub)));
  for (std::string_view stub : kNameWithoutREAL) expected.emplace(stub, WithoutREAL(stub));
  for (std::string_view stub : kRuntimePlusNameWithoutREAL)
    expected.emplace(stub, "Runtime" + std::string(WithoutREAL(stub)));
  for (std::string_view stub : kSocketPlusRest) expected.emplace(stub, "socket" + std::string(stub.substr(10)));
  for (std::string_view stub : kPluginSocketPlusRest)
    expected.emplace(stub, "pluginSocket" + std::string(stub.substr(10)));
  return expected;
}

// The family rule: variants "<type>ToVariant", array elements
// "Plugin<type>Array<access>Proc", everything else the stub's own name.
std::string FamilyHostName(std::string_view stub) {
  if (stub.starts_with("REALNewVariant")) return std::string(stub.substr(14)) + "ToVariant";
  for (std::string_view access : {"Insert", "Get", "Set"}) {
    const std::string prefix = "REAL" + std::string(access) + "ArrayValue";
    if (stub.starts_with(prefix))
      return "Plugin" + std::string(stub.substr(prefix.size())) + "Array" + std::string(access) + "Proc";
  }
  return std::string(stub);
}

TEST(BindingStubTable, NamesAreUniqueAndFollowTheirFamilyOrException) {
  const auto exceptions = ExpectedExceptions();
  std::set<std::string_view> stubs;
  for (int i = 0; i < rawfx::kHostStubCount; ++i) {
    const auto& row = rawfx::kHostStubs[i];
    EXPECT_TRUE(stubs.insert(row.stub).second) << "duplicate " << row.stub;
    const auto exception = exceptions.find(row.stub);
    const std::string expected = exception != exceptions.end() ? exception->second : FamilyHostName(row.stub);
    EXPECT_EQ(row.hostName, expected) << row.stub;
  }
  for (const auto& [stub, hostName] : exceptions) EXPECT_TRUE(stubs.contains(stub)) << stub << " is not bound";
}

TEST(BindingStubTable, EveryFamilyIsComplete) {
  std::map<std::string, int> families;
  for (int i = 0; i < rawfx::kHostStubCount; ++i) {
    const std::string_view stub = rawfx::kHostStubs[i].stub;
    for (const char* family : {"REALGetPropValue", "REALSetPropValue", "REALInsertArrayValue", "REALGetArrayValue",
                               "REALSetArrayValue", "REALNewVariant", "REALSocket", "REALRegister", "REALGetDB",
                               "REALDBConnectionDialog", "REALGraphics"})
      if (stub.starts_with(family)) ++families[family];
  }
  EXPECT_EQ(families, (std::map<std::string, int>{
                          {"REALGetPropValue", 20}, {"REALSetPropValue", 22}, {"REALInsertArrayValue", 17},
                          {"REALGetArrayValue", 17}, {"REALSetArrayValue", 17}, {"REALNewVariant", 19},
                          {"REALSocket", 11}, {"REALRegister", 15}, {"REALGetDB", 5},
                          {"REALDBConnectionDialog", 4}, {"REALGraphics", 6}}));
  // Generated rows by group, without the hand-written and computed stubs:
  // the plug-in's own, properties, array elements, variants, strings and text,
  // registration and runtime, arrays/memory/files, controls, graphics, databases, sockets.
  EXPECT_EQ(rawfx::kHostStubCount, 8 + 42 + 51 + 19 + 25 + 24 + 14 + 19 + 23 + 21 + 12);
}

}  // namespace
