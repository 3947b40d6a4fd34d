// The host's object runtime and its companion classes: class registration and
// object layout, reference counts and the account of live objects, properties
// by name, methods by declaration, program classes and the services the
// plug-in resolves (on a probe class of the test's own, so that they depend on
// no effect); then RawBitmap records by format, RawBitmapMask values, and the
// colour classes with their conversion tables.

#include <cstring>
#include <tuple>

#include "plugin/class_definition.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;
using rawfx::host::HostError;
using Events = std::vector<std::string>;
using V = std::vector<int>;

struct ProbeData {
  uint8_t flag, level, pad[6];  // 0, 1
  double gain;                  // 8
  int64_t mode;                 // 16
  REALobject mask;              // 24
  float scale;                  // 32
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
void ProgramOnProgress(REALobject, uint64_t, uint64_t, uint64_t, bool*) {}

const char* const kModeValues[] = {"MODE_A = 0", "MODE_B = 1"};
const ClassEnumEntry kProbeEnums[] = {rawfx::Enum("Modes", kModeValues)};
const ClassPropertyEntry kProbeProperties[] = {
    rawfx::DirectProperty("Flag", "Boolean", 0),      rawfx::DirectProperty("Level", "UInt8", 1),
    rawfx::DirectProperty("Gain", "Double", 8),       rawfx::DirectProperty("Mode", "ProbeEffect.Modes", 16),
    rawfx::DirectProperty("Mask", "RawBitmapMask", 24),
    rawfx::Property("Scale", "Single", rawfx::Fn(&GetScale), rawfx::Fn(&SetScale)),
    rawfx::DirectProperty("Beyond", "Double", 36),    // outside the instance data
    rawfx::DirectProperty("Strange", "Currency", 8),  // a type the host does not know
};
const ClassMethodEntry kProbeMethods[] = {rawfx::Method(rawfx::Fn(&Twice), "Twice(x as Integer) as Integer")};

template <class F>
F Service(Host& host, const char* name) { return reinterpret_cast<F>(host.resolve(name)); }

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
  void SetUp() override { RegisterProbe(host); }
  // An object's plug-in data through the services the plug-in uses.
  void* PluginData(REALobject object, const char* className) {
    return Service<void* (*)(REALobject, REALclassRef)>(host, "PluginGetPluginData")(
        object, Service<REALclassRef (*)(const char*)>(host, "pluginObjectType")(className));
  }
};

// Registration refuses an unknown superclass and a second registration of a
// class; the class data lies after the engine object, zeroed. (The services
// that find class data, test types and make instances serve every effect run.)
// A new object has one reference; the subclass goes first, while the engine is
// alive, at zero references. Leaked objects go with the host, and hosts alive
// together keep their objects and modules apart; an over-release is counted,
// not acted on. (Nil is no object to lock: the fixture's stray-lock check on
// every run that sets or reads a nil object property.)
TEST_F(ObjectsTest, RegistrationLayoutAndLifetime) {
  REALclassDefinition orphan = rawfx::FilterClassRecord("Orphan", 8, nullptr, nullptr, rawfx::kSyncInterfaces, {});
  orphan.superName = "NoSuchClass";
  const auto registerClass = Service<void (*)(REALclassDefinition*)>(host, "PluginRegisterClass");
  registerClass(&orphan);
  registerClass(&ProbeRecord);
  EXPECT_EQ(std::make_tuple(host.New("Orphan"), orphan.dataOffset, host.registeredRecords().size()),
            std::make_tuple(nullptr, 0, 5u));  // the four effects and the probe, once
  REALobject probe = host.New("ProbeEffect");
  auto* data = static_cast<uint8_t*>(REALGetClassData(probe, &ProbeRecord));
  EXPECT_EQ(std::make_tuple(host.ClassData(probe, "ProbeEffect"), host.ClassData(probe, "MPImageFilterRaw"),
                            PluginData(probe, "ProbeEffect"), PluginData(probe, "RawBitmap")),
            std::make_tuple(data, data - 72, data, nullptr));
  EXPECT_EQ(std::vector<uint8_t>(data, data + sizeof(ProbeData)), std::vector<uint8_t>(sizeof(ProbeData), 0));
  EXPECT_EQ(std::make_tuple(host.RefCount(probe), gEvents), std::make_tuple(1, Events{"construct, engine ready"}));
  host.Unlock(probe);
  EXPECT_EQ(std::make_tuple(host.LiveObjectCount(), gEvents),
            std::make_tuple(0u, Events{"construct, engine ready", "destroy, engine alive"}));
  {
    Host leaky;
    RegisterProbe(leaky);
    leaky.Set(leaky.New("ProbeEffect"), "Mask", leaky.NewMask(leaky.NewBitmap(1, 1, 0)));  // a leaked chain
    REALobject colour = leaky.NewRGBColor(9, 8, 7);
    EXPECT_EQ(std::make_tuple(leaky.IsA(colour, "ZandoriaColors.GenericColor"),
                              host.IsA(colour, "ZandoriaColors.GenericColor"), host.RefCount(colour)),
              std::make_tuple(true, false, 0));
    leaky.Unlock(colour);
    leaky.Unlock(colour);
    EXPECT_EQ(leaky.StrayLockCalls(), 1);
    EXPECT_NE(leaky.registeredRecords().at(0), host.registeredRecords().at(0)) << "each loads its own module copy";
  }
  EXPECT_EQ(gEvents, (Events{"construct, engine ready", "destroy, engine alive"})) << "the leaked probe went too";
}

// A program class finds methods by exact declaration along the chain, and the
// plug-in class's properties, which use their fields, accessors and types; a
// wrong type, an unknown name or a field outside the data is an error that
// stores nothing. An object property holds its own reference. A mask reads
// its bitmap's active channel (inverted if asked) through its 8- or 16-bit
// operations, holds the bitmap, and outside it lets the effect through.
TEST_F(ObjectsTest, PropertiesMethodsAndMasks) {
  host.DefineClass({"ProgramProbe", "ProbeEffect", {{kOnProgressDecl, reinterpret_cast<void*>(&ProgramOnProgress)}}});
  REALobject program = host.New("ProgramProbe");
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(std::make_tuple(host.IsA(program, "ProbeEffect"), host.ClassName(program)),
            std::make_tuple(true, "ProgramProbe"));
  auto loadMethod = Service<void* (*)(REALobject, const char*)>(host, "REALLoadObjectMethod");
  EXPECT_EQ(std::make_tuple(loadMethod(program, kOnProgressDecl), loadMethod(program, "Twice(x as Integer) as Integer"),
                            loadMethod(program, "Twice(x as Integer)  as Integer")),
            std::make_tuple(rawfx::Fn(&ProgramOnProgress), rawfx::Fn(&Twice), nullptr));
  EXPECT_EQ((host.Call<int64_t, int64_t>(program, "Twice(x as Integer) as Integer", 21)), 42);
  EXPECT_THROW(host.Call<void>(program, "Missing()"), HostError);

  host.Set(program, "Flag", true);
  host.Set(program, "Level", uint8_t{200});
  host.Set(program, "Gain", 2.5);
  host.Set(program, "Mode", int64_t{1});
  host.Set(program, "Scale", 1.5f);
  const ProbeData& data = *Probe(program);
  EXPECT_EQ(std::tie(data.flag, data.level, data.gain, data.mode, data.scale), std::make_tuple(1, 200, 2.5, 1, 1.5f));
  EXPECT_EQ(std::make_pair(host.Get<int32_t>(program, "Mode"), host.Get<float>(program, "Scale")), std::pair(1, 1.5f));
  REALobject bitmap = host.NewBitmap(3, 2, 3);  // RGB, 8 bits
  host.Bitmap(bitmap).row(1)[2 * 3 + 1] = 200;  // green of pixel (2, 1)
  for (const std::function<void()>& wrong : std::vector<std::function<void()>>{
           [&] { host.Get<double>(program, "Flag"); }, [&] { host.Set(program, "Gain", true); },
           [&] { host.Set(program, "Mode", 1.0); }, [&] { host.Get<double>(program, "NoSuchProperty"); },
           [&] { host.Get<double>(program, "Beyond"); }, [&] { host.Get<double>(program, "Strange"); },
           [&] { host.Set(program, "Mask", bitmap); }})  // a bitmap is no RawBitmapMask
    EXPECT_THROW(wrong(), HostError);
  EXPECT_EQ(data.gain, 2.5);
  REALobject mask = host.NewMask(bitmap, false, 1), inverted = host.NewMask(bitmap, true, 1);
  host.Set(program, "Mask", mask);
  REALobject got = host.Get<REALobject>(program, "Mask");
  EXPECT_EQ(std::make_tuple(got, host.RefCount(mask)), std::make_tuple(mask, 3));  // the field's and the caller's own
  host.Set(program, "Mask", nullptr);
  EXPECT_EQ(host.RefCount(mask), 2);
  const auto maskAt = [&](REALobject of, int64_t y, int32_t x, bool wide = false) {
    auto* ops = static_cast<RawBitmapMaskData*>(PluginData(of, "RawBitmapMask"));
    return int(wide ? MaskAt16(ops, MaskRow16(ops, y), x) : MaskAt8(ops, MaskRow8(ops, y), x));
  };
  EXPECT_EQ((V{maskAt(mask, 1, 2), maskAt(mask, 1, 1), maskAt(mask, 1, 2, true), maskAt(inverted, 1, 2),
               maskAt(inverted, 0, 0, true), maskAt(inverted, 2, 0), maskAt(inverted, -1, 0), maskAt(inverted, 0, 3)}),
            (V{200, 0, 200 * 257, 55, 65535, 0, 0, 0}));
  EXPECT_EQ(host.RefCount(bitmap), 3);  // each mask holds the bitmap
  EXPECT_THROW(host.RGBColor(bitmap), HostError) << "a bitmap is no colour";
  EXPECT_EQ(std::make_tuple(host.NewMask(bitmap, false, 3), host.NewMask(nullptr)), std::make_tuple(nullptr, nullptr))
      << "RGB has no fourth channel";
  REALobject grey = host.NewBitmap(2, 1, 0, 16);
  const uint16_t value = 0xABCD;
  std::memcpy(host.Bitmap(grey).row(0) + 2, &value, sizeof value);
  REALobject deep = host.NewMask(grey);
  EXPECT_EQ((V{maskAt(deep, 0, 1, true), maskAt(deep, 0, 1)}), (V{0xABCD, 0xAB}));
  for (REALobject object : {got, mask, inverted, deep, grey, bitmap, program}) host.Unlock(object);
}

// ---- companions ------------------------------------------------------------------------------

// Every format at both depths: the record's byte positions are the format's
// sample indices scaled by the depth, and rows are padded as asked. Sizes,
// formats and depths the companion refuses give nil.
TEST_F(ObjectsTest, BitmapRecordsFollowTheirFormatOrAreRefused) {
  for (const rawfx::host::FormatInfo& f : rawfx::host::Formats())
    for (int bits : {8, 16}) {
      SCOPED_TRACE(::testing::Message() << f.name << " at " << bits << " bits");
      REALobject bitmap = host.NewBitmap(5, 3, f.code, bits, 6);
      ASSERT_NE(bitmap, nullptr);
      const rawfx::host::BitmapView view = host.Bitmap(bitmap);
      const RawBitmap& r = *view.record;
      const auto at = [&](uint8_t index) { return index == 0xFF ? 0xFF : index * bits / 8; };
      EXPECT_EQ((V{int(r.channelCount), r.redOffset, r.greenOffset, r.blueOffset, r.alphaOffset, r.blackOffset,
                   int(r.bytesPerPixel), int(view.rowBytes), int(r.width), int(r.height), r.bitsPerChannel,
                   int(r.format), r.isValid, r.hasAlpha}),
                (V{f.channels, at(f.red), at(f.green), at(f.blue), at(f.alpha), at(f.black), f.channels * bits / 8,
                   5 * f.channels * bits / 8 + 6, 5, 3, bits, int(f.code), 1, f.hasAlpha}));
      host.Unlock(bitmap);
    }
  for (const auto& [width, height, format, bits, padding] :
       {std::tuple{0, 4, 3, 8, 0}, {4, -1, 3, 8, 0}, {4, 4, 11, 8, 0}, {4, 4, 3, 12, 0}, {4, 4, 3, 16, 3},
        {1 << 20, 1 << 20, 5, 8, 0}})  // odd padding: 16-bit rows must stay aligned
    EXPECT_EQ(host.NewBitmap(width, height, format, bits, padding), nullptr) << width << "x" << height;
  EXPECT_THROW(host.Bitmap(nullptr), HostError);
}

// New colours are opaque black; the generic colour itself is not made (which
// class a colour is: the effects' backgrounds of every family). Conversions
// are the naive ones, through the table before the colour: K = 255 - max;
// C = (max - R) * 255 / max, rounded; back R = (255 - C) * (255 - K) / 255.
// Each colour keeps its own values.
TEST_F(ObjectsTest, ColoursAreOpaqueBlackAndConvertThroughTheirTable) {
  REALobject rgb = host.New(kRGBColorClass), cmyk = host.New(kCMYKColorClass);
  const RGBColorData r = host.RGBColor(rgb);
  const CMYKColorData c = host.CMYKColor(cmyk);
  EXPECT_EQ((V{r.red, r.green, r.blue, r.alpha, r.red16, r.alpha16, c.cyan, c.magenta, c.yellow, c.black, c.alpha,
               c.black16, c.alpha16}),
            (V{0, 0, 0, 255, 0, 65535, 0, 0, 0, 255, 255, 65535, 65535}));
  EXPECT_EQ(host.New("ZandoriaColors.GenericColor"), nullptr);
  for (REALobject object : {rgb, cmyk}) host.Unlock(object);

  for (const auto& [r8, g8, b8, c8, m8, y8, k8] :
       {std::tuple{0, 0, 0, 0, 0, 0, 255}, {255, 255, 255, 0, 0, 0, 0}, {255, 0, 0, 0, 255, 255, 0},
        {0, 128, 255, 255, 127, 0, 0}, {100, 50, 0, 0, 128, 255, 155}}) {
    SCOPED_TRACE(::testing::Message() << "RGB " << r8 << " " << g8 << " " << b8);
    rgb = host.NewRGBColor(uint8_t(r8), uint8_t(g8), uint8_t(b8), 128);
    cmyk = host.NewCMYKColor(uint8_t(c8), uint8_t(m8), uint8_t(y8), uint8_t(k8));
    void *rgbData = PluginData(rgb, kRGBColorClass), *cmykData = PluginData(cmyk, kCMYKColorClass);
    CMYKColorData ink{};
    ConversionTableOf(rgbData)->ToCMYK(rgbData, &ink);
    EXPECT_EQ((V{ink.cyan, ink.magenta, ink.yellow, ink.black, ink.alpha, ink.black16, ink.alpha16}),
              (V{c8, m8, y8, k8, 128, k8 * 257, 128 * 257}));
    RGBColorData back{};
    ConversionTableOf(cmykData)->ToRGB(cmykData, &back);
    EXPECT_LE(std::max({std::abs(back.red - r8), std::abs(back.green - g8), std::abs(back.blue - b8)}), 1);
    for (REALobject object : {rgb, cmyk}) host.Unlock(object);
  }
  REALobject deep = host.NewRGBColor16(0, 0x8000, 0xFFFF, 0x1234);
  const CMYKColorData c16 = host.CMYKColor(deep);
  EXPECT_EQ((V{c16.cyan16, c16.magenta16, c16.yellow16, c16.black16, c16.alpha16, c16.alpha}),
            (V{65535, 0x7FFF, 0, 0, 0x1234, 0x12}));
  host.Unlock(deep);
}

}  // namespace
