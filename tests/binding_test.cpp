// The host binding, through the services the plug-in itself uses, against a
// scripted resolver. Stub caches bind once per process, so the case runs in a
// forked child with fresh caches.

#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using rawfx::test::ScriptedHost;

template <typename T = REALobjectStruct>
T* Handle(uintptr_t n) {
  return reinterpret_cast<T*>(n * 16);
}

// While the host lacks a service, its stub answers the missing value and asks
// again on the next call; once the host has it, the stub binds it for good
// and passes its arguments unchanged and in order. Guarded creation resolves
// "CreateInstance" (one cache for both names) but never calls it for a nil class.
TEST(Binding, StubsAnswerTheirMissingValueAskAgainAndThenBindOnce) {
  rawfx::test::InFreshProcess([](ScriptedHost& host) {
    for (int call = 0; call < 2; ++call) {
      EXPECT_EQ(REALGetRBVersion(), 0.0);
      EXPECT_EQ(REALGetClassRef("RawBitmap"), nullptr);
      EXPECT_FALSE(REALObjectIsA(Handle(1), Handle<REALclassRefStruct>(2)));
      EXPECT_EQ(REALGetPluginData(Handle(1), Handle<REALclassRefStruct>(2)), nullptr);
      EXPECT_EQ(REALLoadObjectMethod(Handle(1), "Run()"), nullptr);
      EXPECT_EQ(REALnewInstanceWithClass(Handle<REALclassRefStruct>(2)), nullptr);
      REALLockObject(Handle(1));
      REALUnlockObject(Handle(1));
    }
    for (const char* name : {"REALGetRBVersion", "pluginObjectType", "RuntimeObjectIsa", "PluginGetPluginData",
                             "REALLoadObjectMethod", "CreateInstance", "REALLockObject", "REALUnlockObject"})
      EXPECT_EQ(host.Asks(name), 2) << name;

    host.Learn("REALGetRBVersion", +[] { return 2024.5; });
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    host.known.clear();
    EXPECT_EQ(REALGetRBVersion(), 2024.5);
    EXPECT_EQ(host.Asks("REALGetRBVersion"), 3);
    host.Learn("PluginGetPluginData", +[](REALobject object, REALclassRef classRef) -> void* {
      return reinterpret_cast<uint8_t*>(object) + reinterpret_cast<uintptr_t>(classRef);
    });
    EXPECT_EQ(REALGetPluginData(Handle(100), Handle<REALclassRefStruct>(1)), reinterpret_cast<uint8_t*>(Handle(101)));

    host.Learn("CreateInstance", +[](REALclassRef classRef) {  // the handle after the class's: a call for nil gives 1
      return Handle(reinterpret_cast<uintptr_t>(classRef) / 16 + 1);
    });
    EXPECT_EQ(REALnewInstance(static_cast<REALclassRef>(nullptr)), nullptr);
    EXPECT_EQ(REALnewInstanceWithClass(nullptr), nullptr);
    EXPECT_EQ(REALnewInstanceWithClass(Handle<REALclassRefStruct>(7)), Handle(8));
    EXPECT_EQ(REALnewInstance(Handle<REALclassRefStruct>(2)), Handle(3));
    EXPECT_EQ(host.Asks("CreateInstance"), 3);
  });
}

}  // namespace
