// The host's object runtime: class registration and object layout, reference
// counts and the account of live objects, properties by name, methods by
// declaration, program classes, and the services the plug-in resolves.
//
// The tests register a probe class of their own, so they depend on no effect.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/host.h"
#include "plugin/class_definition.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;
using rawfx::host::HostError;
using rawfx::host::HostOptions;

// ---- the probe class ------------------------------------------------------------------

struct ProbeData {
  uint8_t flag;      // 0
  uint8_t level;     // 1
  uint8_t pad[6];
  double gain;       // 8
  int64_t mode;      // 16
  REALobject mask;   // 24
  float scale;       // 32
};

Host* gProbeHost = nullptr;
std::vector<std::string> gEvents;
REALclassDefinition ProbeRecord{};

ProbeData* Probe(REALobject self) { return static_cast<ProbeData*>(REALGetClassData(self, &ProbeRecord)); }

MPImageFilterData* ProbeEngine(REALobject self) { return rawfx::EngineOf(Probe(self)); }

void ProbeConstructor(REALobject self) {
  gEvents.push_back(ProbeEngine(self)->ops ? "construct, engine ready" : "construct, no engine");
}

void ProbeDestructor(REALobject self) {
  gProbeHost->Unlock(Probe(self)->mask);
  gEvents.push_back(ProbeEngine(self)->engineState ? "destroy, engine alive" : "destroy, engine gone");
}

REALobject GetMask(REALobject self, int64_t) {
  gProbeHost->Lock(Probe(self)->mask);
  return Probe(self)->mask;
}

void SetMask(REALobject self, int64_t, REALobject mask) {
  gProbeHost->Lock(mask);
  gProbeHost->Unlock(Probe(self)->mask);
  Probe(self)->mask = mask;
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
    rawfx::Property("Mask", "RawBitmapMask", rawfx::Fn(&GetMask), rawfx::Fn(&SetMask)),
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
  ProbeRecord = rawfx::FilterClassRecord(
      "ProbeEffect", sizeof(ProbeData), &ProbeConstructor, &ProbeDestructor, rawfx::kSyncInterfaces,
      {kProbeProperties, rawfx::RowCount(kProbeProperties), kProbeMethods, rawfx::RowCount(kProbeMethods),
       kProbeEnums, rawfx::RowCount(kProbeEnums)});
  Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass")(&ProbeRecord);
}

class ObjectsTest : public rawfx::test::HostTest {
 protected:
  void SetUp() override {
    gProbeHost = &host;
    gEvents.clear();
    RegisterProbe(host);
  }
};

// ---- registration and layout ------------------------------------------------------------

TEST_F(ObjectsTest, ClassDataFollowsTheEngineObject) {
  REALobject probe = host.New("ProbeEffect");
  ASSERT_NE(probe, nullptr);
  auto* data = static_cast<uint8_t*>(REALGetClassData(probe, &ProbeRecord));
  EXPECT_EQ(data, host.ClassData(probe, "ProbeEffect"));
  EXPECT_EQ(data - 72, host.ClassData(probe, "MPImageFilterRaw"));
  EXPECT_EQ(host.registeredClassNames().back(), "ProbeEffect");
  for (size_t i = 0; i < sizeof(ProbeData); ++i) ASSERT_EQ(data[i], 0) << "instance data byte " << i;

  auto classRef = Service<REALclassRef (*)(const char*)>(host, "pluginObjectType");
  auto pluginData = Service<void* (*)(REALobject, REALclassRef)>(host, "PluginGetPluginData");
  auto isA = Service<bool (*)(REALobject, REALclassRef)>(host, "RuntimeObjectIsa");
  EXPECT_EQ(pluginData(probe, classRef("ProbeEffect")), data);
  EXPECT_TRUE(isA(probe, classRef("MPImageFilterRaw")));
  EXPECT_FALSE(isA(probe, classRef("RawBitmap")));
  EXPECT_EQ(pluginData(probe, classRef("RawBitmap")), nullptr);
  host.Unlock(probe);
}

TEST_F(ObjectsTest, RegistrationRefusesUnknownSuperclassAndDuplicates) {
  REALclassDefinition orphan = rawfx::FilterClassRecord("Orphan", 8, nullptr, nullptr, rawfx::kSyncInterfaces, {});
  orphan.superName = "NoSuchClass";
  auto registerClass = Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass");
  registerClass(&orphan);
  registerClass(&ProbeRecord);
  EXPECT_EQ(host.New("Orphan"), nullptr);
  EXPECT_EQ(orphan.dataOffset, 0);
  EXPECT_EQ(host.registeredRecords().size(), 5u);  // the four effects and the probe, once
}

// ---- reference counts and the live account ------------------------------------------------

TEST_F(ObjectsTest, DestroysAtZeroSubclassFirst) {
  REALobject probe = host.New("ProbeEffect");
  host.Lock(probe);
  EXPECT_EQ(host.RefCount(probe), 2);
  host.Unlock(probe);
  EXPECT_EQ(gEvents, std::vector<std::string>{"construct, engine ready"});
  host.Unlock(probe);
  EXPECT_EQ(gEvents, (std::vector<std::string>{"construct, engine ready", "destroy, engine alive"}));
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

TEST_F(ObjectsTest, LiveAccountListsClassesOldestFirst) {
  REALobject bitmap = host.NewBitmap(2, 2, 3);
  REALobject colour = host.NewRGBColor(1, 2, 3);
  EXPECT_EQ(host.LiveObjectClasses(), (std::vector<std::string>{"RawBitmap", "ZandoriaColors.RGBColor"}));
  host.Unlock(bitmap);
  EXPECT_EQ(host.LiveObjectClasses(), std::vector<std::string>{"ZandoriaColors.RGBColor"});
  host.Unlock(colour);
}

TEST_F(ObjectsTest, LockingNilDoesNothing) {
  host.Lock(nullptr);
  host.Unlock(nullptr);
  Service<void (*)(REALobject)>(host, "REALLockObject")(nullptr);
  Service<void (*)(REALobject)>(host, "REALUnlockObject")(nullptr);
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

TEST(HostObjects, OverReleaseIsCountedAndIgnored) {
  Host host;
  REALobject colour = host.NewRGBColor(0, 0, 0);
  host.Unlock(colour);
  host.Unlock(colour);
  EXPECT_EQ(host.StrayLockCalls(), 1);
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

TEST(HostObjects, DestroyingTheHostDestroysLeakedObjects) {
  gEvents.clear();
  {
    Host host;
    gProbeHost = &host;
    RegisterProbe(host);
    REALobject probe = host.New("ProbeEffect");
    host.Set(probe, "Mask", host.NewMask(host.NewBitmap(1, 1, 0)));  // a leaked chain of objects
  }
  EXPECT_EQ(gEvents, (std::vector<std::string>{"construct, engine ready", "destroy, engine alive"}));
}

TEST(HostObjects, HostsAliveTogetherKeepTheirObjectsApart) {
  Host first;
  Host second;
  REALobject colour = first.NewRGBColor(9, 8, 7);
  EXPECT_TRUE(first.IsA(colour, "ZandoriaColors.GenericColor"));
  EXPECT_FALSE(second.IsA(colour, "ZandoriaColors.GenericColor"));
  EXPECT_EQ(second.RefCount(colour), 0);
  first.Unlock(colour);
  EXPECT_NE(first.registeredRecords().at(0), second.registeredRecords().at(0));
}

// ---- properties -------------------------------------------------------------------------------

TEST_F(ObjectsTest, DirectPropertiesUseTheirFieldsAndTypes) {
  REALobject probe = host.New("ProbeEffect");
  host.Set(probe, "Flag", true);
  host.Set(probe, "Level", uint8_t{200});
  host.Set(probe, "Gain", 2.5);
  host.Set(probe, "Mode", int64_t{1});
  const ProbeData* data = Probe(probe);
  EXPECT_EQ(data->flag, 1);
  EXPECT_EQ(data->level, 200);
  EXPECT_EQ(data->gain, 2.5);
  EXPECT_EQ(data->mode, 1);
  EXPECT_TRUE(host.Get<bool>(probe, "Flag"));
  EXPECT_EQ(host.Get<uint8_t>(probe, "Level"), 200);
  EXPECT_EQ(host.Get<double>(probe, "Gain"), 2.5);
  EXPECT_EQ(host.Get<int32_t>(probe, "Mode"), 1);
  host.Unlock(probe);
}

TEST_F(ObjectsTest, AccessorsPassSingleValues) {
  REALobject probe = host.New("ProbeEffect");
  host.Set(probe, "Scale", 1.5f);
  EXPECT_EQ(Probe(probe)->scale, 1.5f);
  EXPECT_EQ(host.Get<float>(probe, "Scale"), 1.5f);
  host.Unlock(probe);
}

TEST_F(ObjectsTest, MismatchesAreRejected) {
  REALobject probe = host.New("ProbeEffect");
  REALobject bitmap = host.NewBitmap(1, 1, 0);
  EXPECT_THROW(host.Get<double>(probe, "Flag"), HostError);
  EXPECT_THROW(host.Set(probe, "Gain", true), HostError);
  EXPECT_THROW(host.Set(probe, "Mode", 1.0), HostError);
  EXPECT_THROW(host.Get<double>(probe, "NoSuchProperty"), HostError);
  EXPECT_THROW(host.Get<double>(probe, "Beyond"), HostError);  // field outside the instance data
  EXPECT_THROW(host.Get<double>(probe, "Strange"), HostError);
  EXPECT_THROW(host.Set(probe, "Mask", bitmap), HostError);  // a bitmap is no RawBitmapMask
  EXPECT_EQ(Probe(probe)->gain, 0.0);
  host.Unlock(bitmap);
  host.Unlock(probe);
}

TEST_F(ObjectsTest, ObjectPropertiesHandOutReferences) {
  REALobject probe = host.New("ProbeEffect");
  REALobject bitmap = host.NewBitmap(1, 1, 0);
  REALobject mask = host.NewMask(bitmap);
  host.Set(probe, "Mask", mask);
  EXPECT_EQ(host.RefCount(mask), 2);
  REALobject got = host.Get<REALobject>(probe, "Mask");
  EXPECT_EQ(got, mask);
  EXPECT_EQ(host.RefCount(mask), 3);  // the caller's own
  host.Unlock(got);
  host.Set(probe, "Mask", REALobject{nullptr});
  EXPECT_EQ(host.RefCount(mask), 1);
  host.Unlock(mask);
  host.Unlock(bitmap);
  host.Unlock(probe);
}

TEST_F(ObjectsTest, PropertyServicesAnswerByResult) {
  REALobject probe = host.New("ProbeEffect");
  auto setDouble = Service<bool (*)(REALobject, const char*, double)>(host, "REALSetPropValueDouble");
  auto getDouble = Service<bool (*)(REALobject, const char*, double*)>(host, "REALGetPropValueDouble");
  auto getBool = Service<bool (*)(REALobject, const char*, bool*)>(host, "REALGetPropValueBool");
  auto setByte = Service<bool (*)(REALobject, const char*, uint8_t)>(host, "REALSetPropValueBoolean");
  auto getInt = Service<bool (*)(REALobject, const char*, int32_t*)>(host, "REALGetPropValueInt");
  double gain = 0;
  bool flag = true;
  int32_t mode = -1;
  EXPECT_TRUE(setDouble(probe, "Gain", 0.25));
  EXPECT_TRUE(getDouble(probe, "Gain", &gain));
  EXPECT_EQ(gain, 0.25);
  EXPECT_FALSE(getBool(probe, "Gain", &flag));
  EXPECT_TRUE(flag);  // untouched by the failed read
  EXPECT_TRUE(setByte(probe, "Level", 77));
  EXPECT_TRUE(setByte(probe, "Flag", 77));
  EXPECT_EQ(Probe(probe)->level, 77);
  EXPECT_EQ(Probe(probe)->flag, 1);
  EXPECT_TRUE(getInt(probe, "Mode", &mode));
  EXPECT_EQ(mode, 0);
  EXPECT_FALSE(setDouble(probe, "NoSuchProperty", 1.0));
  host.Unlock(probe);
}

// ---- methods and program classes --------------------------------------------------------------

void ProgramOnProgress(REALobject, uint64_t, uint64_t, uint64_t, bool*) {}

TEST_F(ObjectsTest, MethodsAreFoundByExactDeclarationAlongTheChain) {
  host.DefineClass({"ProgramProbe", "ProbeEffect", {{kOnProgressDecl, reinterpret_cast<void*>(&ProgramOnProgress)}}});
  REALobject program = host.New("ProgramProbe");
  ASSERT_NE(program, nullptr);
  EXPECT_TRUE(host.IsA(program, "ProbeEffect"));
  EXPECT_EQ(host.ClassName(program), "ProgramProbe");
  EXPECT_EQ(gEvents, std::vector<std::string>{"construct, engine ready"});  // the superclass chain is built
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

TEST_F(ObjectsTest, ProgramClassesNeedAKnownSuperclassAndANewName) {
  EXPECT_THROW(host.DefineClass({"Lost", "NoSuchClass", {}}), HostError);
  EXPECT_THROW(host.DefineClass({"ProbeEffect", "MPImageFilterRaw", {}}), HostError);
}

// ---- services by name -----------------------------------------------------------------------

TEST_F(ObjectsTest, InstanceServices) {
  auto classRef = Service<REALclassRef (*)(const char*)>(host, "pluginObjectType");
  auto create = Service<REALobject (*)(REALclassRef)>(host, "CreateInstance");
  auto createOf = Service<REALobject (*)(REALclassDefinition*)>(host, "PluginNewInstanceOfClass");
  EXPECT_EQ(classRef("NoSuchClass"), nullptr);
  EXPECT_EQ(create(nullptr), nullptr);
  EXPECT_EQ(create(classRef("ZandoriaColors.GenericColor")), nullptr);  // only its subclasses are made
  REALobject fromRecord = createOf(&ProbeRecord);
  REALobject fromRef = create(classRef("ProbeEffect"));
  EXPECT_EQ(host.ClassName(fromRecord), "ProbeEffect");
  EXPECT_EQ(host.ClassName(fromRef), "ProbeEffect");
  EXPECT_EQ(host.RefCount(fromRef), 1);
  host.Unlock(fromRecord);
  host.Unlock(fromRef);
}

TEST(HostObjects, MissingServicesAnswerNullAndAreCounted) {
  HostOptions options;
  options.missingServices = {"CreateInstance"};
  Host host(options);
  EXPECT_EQ(host.resolve("CreateInstance"), nullptr);
  EXPECT_EQ(host.resolve("NoSuchService"), nullptr);
  EXPECT_NE(host.resolve("REALLockObject"), nullptr);
  EXPECT_EQ(host.lookups("CreateInstance"), 1);
  EXPECT_EQ(host.lookups("NoSuchService"), 1);
}

}  // namespace
