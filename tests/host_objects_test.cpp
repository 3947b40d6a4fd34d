// The host's object runtime: class registration and object layout, reference
// counts and the account of live objects, properties by name, methods by
// declaration, program classes, and the services the plug-in resolves.
//
// The tests register a probe class of their own, so they depend on no effect.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "host/host.h"
#include "plugin/class_definition.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;
using rawfx::host::HostError;
using Events = std::vector<std::string>;

struct ProbeData {
  uint8_t flag;      // 0
  uint8_t level;     // 1
  uint8_t pad[6];
  double gain;       // 8
  int64_t mode;      // 16
  REALobject mask;   // 24
  float scale;       // 32
};

Events gEvents;
REALclassDefinition ProbeRecord{};

ProbeData* Probe(REALobject self) { return static_cast<ProbeData*>(REALGetClassData(self, &ProbeRecord)); }

// The engine must exist while the subclass is built and still exist while it is torn down.
void ProbeConstructor(REALobject self) {
  gEvents.push_back(rawfx::EngineOf(Probe(self))->ops ? "construct, engine ready" : "construct, no engine");
}
void ProbeDestructor(REALobject self) {
  gEvents.push_back(rawfx::EngineOf(Probe(self))->engineState ? "destroy, engine alive" : "destroy, engine gone");
}
float GetScale(REALobject self, int64_t) { return Probe(self)->scale; }
void SetScale(REALobject self, int64_t, float scale) { Probe(self)->scale = scale; }
int64_t Twice(REALobject, int64_t x) { return 2 * x; }

const char* const kModeValues[] = {"MODE_A = 0", "MODE_B = 1"};
const ClassEnumEntry kProbeEnums[] = {rawfx::Enum("Modes", kModeValues)};
const ClassPropertyEntry kProbeProperties[] = {
    rawfx::DirectProperty("Flag", "Boolean", 0),
    rawfx::DirectProperty("Level", "UInt8", 1),
    rawfx::DirectProperty("Gain", "Double", 8),
    rawfx::DirectProperty("Mode", "ProbeEffect.Modes", 16),
    rawfx::DirectProperty("Mask", "RawBitmapMask", 24),
    rawfx::Property("Scale", "Single", rawfx::Fn(&GetScale), rawfx::Fn(&SetScale)),
    rawfx::DirectProperty("Beyond", "Double", 36),
    rawfx::DirectProperty("Strange", "Currency", 8),
};
const ClassMethodEntry kProbeMethods[] = {rawfx::Method(rawfx::Fn(&Twice), "Twice(x as Integer) as Integer")};

template <class F>
F Service(Host& host, const char* name) {
  return reinterpret_cast<F>(host.resolve(name));
}

void RegisterProbe(Host& host) {
  gEvents.clear();
  ProbeRecord = rawfx::FilterClassRecord(
      "ProbeEffect", sizeof(ProbeData), &ProbeConstructor, &ProbeDestructor, rawfx::kSyncInterfaces,
      {kProbeProperties, rawfx::RowCount(kProbeProperties), kProbeMethods, rawfx::RowCount(kProbeMethods),
       kProbeEnums, rawfx::RowCount(kProbeEnums)});
  Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass")(&ProbeRecord);
}

class ObjectsTest : public rawfx::test::HostTest {
 protected:
  void SetUp() override {
    RegisterProbe(host);
    probe = host.New("ProbeEffect");
  }
  void TearDown() override {
    host.Unlock(probe);
    HostTest::TearDown();
  }
  REALobject probe = nullptr;
};

// Registration refuses an unknown superclass and a second registration of a
// class; the class data lies after the engine object, zeroed, and the services
// find it, test types and make instances.
TEST_F(ObjectsTest, RegistrationLayoutAndTheServicesThatFindClassData) {
  REALclassDefinition orphan = rawfx::FilterClassRecord("Orphan", 8, nullptr, nullptr, rawfx::kSyncInterfaces, {});
  orphan.superName = "NoSuchClass";
  Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass")(&orphan);
  Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass")(&ProbeRecord);
  EXPECT_EQ(std::make_tuple(host.New("Orphan"), orphan.dataOffset), std::make_tuple(nullptr, 0));
  EXPECT_EQ(host.registeredRecords().size(), 5u);  // the four effects and the probe, once

  auto* data = static_cast<uint8_t*>(REALGetClassData(probe, &ProbeRecord));
  EXPECT_EQ(std::make_tuple(host.ClassData(probe, "ProbeEffect"), host.ClassData(probe, "MPImageFilterRaw")),
            std::make_tuple(data, data - 72));
  for (size_t i = 0; i < sizeof(ProbeData); ++i) ASSERT_EQ(data[i], 0) << "instance data byte " << i;
  auto classRef = Service<REALclassRef (*)(const char*)>(host, "pluginObjectType");
  auto pluginData = Service<void* (*)(REALobject, REALclassRef)>(host, "PluginGetPluginData");
  auto isA = Service<bool (*)(REALobject, REALclassRef)>(host, "RuntimeObjectIsa");
  auto create = Service<REALobject (*)(REALclassRef)>(host, "CreateInstance");
  EXPECT_EQ(std::make_tuple(pluginData(probe, classRef("ProbeEffect")), pluginData(probe, classRef("RawBitmap"))),
            std::make_tuple(data, nullptr));
  EXPECT_EQ(std::make_tuple(isA(probe, classRef("MPImageFilterRaw")), isA(probe, classRef("RawBitmap"))),
            std::make_tuple(true, false));
  EXPECT_EQ(std::make_tuple(classRef("NoSuchClass"), create(nullptr)), std::make_tuple(nullptr, nullptr));
  EXPECT_EQ(create(classRef("ZandoriaColors.GenericColor")), nullptr);  // only its subclasses are made
  for (REALobject made : {Service<REALobject (*)(REALclassDefinition*)>(host, "PluginNewInstanceOfClass")(&ProbeRecord),
                          create(classRef("ProbeEffect"))}) {
    EXPECT_EQ(std::make_tuple(host.ClassName(made), host.RefCount(made)), std::make_tuple("ProbeEffect", 1));
    host.Unlock(made);
  }
  EXPECT_EQ(host.resolve("NoSuchService"), nullptr);
  EXPECT_EQ(host.lookups("NoSuchService"), 1);
}

// The subclass goes first, while the engine is alive, at zero references; nil is
// no object to lock (and no stray lock for the fixture). Leaked objects go with the host.
TEST_F(ObjectsTest, DestroysAtZeroSubclassFirstIgnoresNilAndTheHostTakesLeftovers) {
  host.Lock(probe);
  EXPECT_EQ(host.RefCount(probe), 2);
  host.Unlock(probe);
  EXPECT_EQ(gEvents, Events{"construct, engine ready"});
  host.Unlock(probe);
  EXPECT_EQ(gEvents, (Events{"construct, engine ready", "destroy, engine alive"}));
  EXPECT_EQ(host.LiveObjectCount(), 0u);
  probe = nullptr;
  Service<void (*)(REALobject)>(host, "REALLockObject")(nullptr);
  Service<void (*)(REALobject)>(host, "REALUnlockObject")(nullptr);
  {
    Host leaky;
    RegisterProbe(leaky);
    leaky.Set(leaky.New("ProbeEffect"), "Mask", leaky.NewMask(leaky.NewBitmap(1, 1, 0)));  // a leaked chain
  }
  EXPECT_EQ(gEvents, (Events{"construct, engine ready", "destroy, engine alive"}));
}

TEST(HostObjects, HostsAliveTogetherKeepTheirObjectsApart) {
  Host first;
  Host second;
  REALobject colour = first.NewRGBColor(9, 8, 7);
  EXPECT_EQ(std::make_tuple(first.IsA(colour, "ZandoriaColors.GenericColor"),
                            second.IsA(colour, "ZandoriaColors.GenericColor"), second.RefCount(colour)),
            std::make_tuple(true, false, 0));
  first.Unlock(colour);
  first.Unlock(colour);  // the fixture's leak check relies on over-releases being counted, not acted on
  EXPECT_EQ(std::make_tuple(first.StrayLockCalls(), first.LiveObjectCount()), std::make_tuple(1, 0u));
  EXPECT_NE(first.registeredRecords().at(0), second.registeredRecords().at(0)) << "each loads its own module copy";
}

TEST_F(ObjectsTest, PropertiesUseTheirFieldsAccessorsAndTypes) {
  host.Set(probe, "Flag", true);
  host.Set(probe, "Level", uint8_t{200});
  host.Set(probe, "Gain", 2.5);
  host.Set(probe, "Mode", int64_t{1});
  host.Set(probe, "Scale", 1.5f);
  const ProbeData& data = *Probe(probe);
  EXPECT_EQ(std::tie(data.flag, data.level, data.gain, data.mode, data.scale), std::make_tuple(1, 200, 2.5, 1, 1.5f));
  EXPECT_EQ(std::make_tuple(host.Get<bool>(probe, "Flag"), host.Get<uint8_t>(probe, "Level"),
                            host.Get<double>(probe, "Gain"), host.Get<int32_t>(probe, "Mode"),
                            host.Get<float>(probe, "Scale")),
            std::make_tuple(true, 200, 2.5, 1, 1.5f));

  REALobject bitmap = host.NewBitmap(1, 1, 0);
  EXPECT_THROW(host.Get<double>(probe, "Flag"), HostError);
  EXPECT_THROW(host.Set(probe, "Gain", true), HostError);
  EXPECT_THROW(host.Set(probe, "Mode", 1.0), HostError);
  EXPECT_THROW(host.Get<double>(probe, "NoSuchProperty"), HostError);
  EXPECT_THROW(host.Get<double>(probe, "Beyond"), HostError);  // field outside the instance data
  EXPECT_THROW(host.Get<double>(probe, "Strange"), HostError);
  EXPECT_THROW(host.Set(probe, "Mask", bitmap), HostError);  // a bitmap is no RawBitmapMask
  EXPECT_EQ(Probe(probe)->gain, 2.5);
  REALobject mask = host.NewMask(bitmap);
  host.Set(probe, "Mask", mask);
  REALobject got = host.Get<REALobject>(probe, "Mask");
  EXPECT_EQ(std::make_tuple(got, host.RefCount(mask)), std::make_tuple(mask, 3));  // the field's and the caller's own
  host.Set(probe, "Mask", nullptr);
  EXPECT_EQ(host.RefCount(mask), 2);
  for (REALobject object : {got, mask, bitmap}) host.Unlock(object);
}

void ProgramOnProgress(REALobject, uint64_t, uint64_t, uint64_t, bool*) {}

TEST_F(ObjectsTest, ProgramClassMethodsAreFoundByExactDeclarationAlongTheChain) {
  host.DefineClass({"ProgramProbe", "ProbeEffect", {{kOnProgressDecl, reinterpret_cast<void*>(&ProgramOnProgress)}}});
  EXPECT_THROW(host.DefineClass({"Lost", "NoSuchClass", {}}), HostError);
  EXPECT_THROW(host.DefineClass({"ProbeEffect", "MPImageFilterRaw", {}}), HostError);
  REALobject program = host.New("ProgramProbe");
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(std::make_tuple(host.IsA(program, "ProbeEffect"), host.ClassName(program)),
            std::make_tuple(true, "ProgramProbe"));
  auto loadMethod = Service<void* (*)(REALobject, const char*)>(host, "REALLoadObjectMethod");
  EXPECT_EQ(loadMethod(program, kOnProgressDecl), rawfx::Fn(&ProgramOnProgress));
  EXPECT_EQ(loadMethod(program, "Twice(x as Integer) as Integer"), rawfx::Fn(&Twice));
  EXPECT_EQ(loadMethod(program, "Twice(x as Integer)  as Integer"), nullptr);
  EXPECT_EQ((host.Call<int64_t, int64_t>(program, "Twice(x as Integer) as Integer", 21)), 42);
  EXPECT_THROW(host.Call<void>(program, "Missing()"), HostError);
  host.Set(program, "Gain", 3.0);  // properties of the plug-in class too
  EXPECT_EQ(host.Get<double>(program, "Gain"), 3.0);
  host.Unlock(program);
}

}  // namespace
