// A host that lacks one service at a time. Start-up and every property and
// method of every class must still work or give the documented missing value
// (no classes, nil colours, or code 4 when the bitmap's data cannot be had),
// and never crash. The services are those the plug-in resolves in a full tour,
// so a new dependency shows up here as an unexpected service.

#include <set>

#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using namespace rawfx::test;
using namespace rawfx::test::fault;
using rawfx::host::Host;
using rawfx::host::HostOptions;

// What a host without the service loses, if anything: the classes (start-up
// stops before registering any), the effects' default colours (polar, which
// needs one, refuses with 4), the RawBitmap records (every apply refuses with 4;
// interlace and polar once crashed here), the effects' own locks and unlocks,
// or the plug-in's version (the host learns none).
enum Lost { kNothing = 0, kClasses = 1, kColours = 2, kBitmapData = 4, kLocks = 8, kVersionReport = 16 };

const std::map<std::string, int> kExpected = {
    {"REALGetRBVersion", kClasses},            {"PluginRegisterClass", kClasses},
    {"RegisterPluginVersion", kVersionReport}, {"CreateInstance", kColours},
    {"PluginGetPluginData", kBitmapData},      {"pluginObjectType", kBitmapData | kColours},
    {"RuntimeObjectIsa", kNothing},            {"REALLockObject", kLocks},
    {"REALUnlockObject", kLocks},              {"REALLoadObjectMethod", kNothing}};

const std::map<std::string, Method> kMethods = {
    {kApply, Method::Apply}, {kApplyInPlace, Method::InPlace}, {kApplyAsync, Method::Async}};

// Numbers and booleans live in the instance data and need no service, so the tour leaves them as they are.
const std::set<std::string> kPlainTypes = {"Boolean", "UInt8", "Single", "Double"};

// What a tour of one host saw.
struct TourReport {
  std::map<std::string, bool> hasColour;           // by class: the new effect's BackColor is not nil
  std::map<std::string, int> results;              // by "Class.method": runs that went through
  std::map<std::string, std::set<int64_t>> codes;  // by class: the codes its runs left (0: went through)
};

// Creates every registered class, reads and writes every property, runs every
// method on a valid source, a 16-bit CMYK one and nil, then releases everything.
TourReport Tour(Host& host, bool locksWork) {
  TourReport report;
  CompletionLog log(host);
  for (const REALclassDefinition* record : host.registeredRecords()) {
    const std::string name = record->name;
    SCOPED_TRACE(name);
    REALobject effect = host.New(name);
    std::vector<REALobject> held;  // released after the effect
    const auto keep = [&](REALobject object) { return held.emplace_back(object); };
    for (int64_t i = 0; i < record->propertyCount; ++i) {
      const char* property = record->properties[i].name;
      const std::string type = record->properties[i].type;
      if (kPlainTypes.count(type)) continue;
      if (type == "ZandoriaColors.GenericColor") {
        REALobject colour = host.Get<REALobject>(effect, property);
        report.hasColour[name] = colour != nullptr;
        if (locksWork) host.Unlock(colour);
        host.Set(effect, property, nullptr);  // ignored
        host.Set<REALobject>(effect, property, keep(host.NewCMYKColor(10, 20, 30, 40)));
      } else if (type == "RawBitmapMask") {
        host.Set<REALobject>(effect, property, keep(host.NewMask(keep(host.NewBitmap(6, 5, kGray)))));
        REALobject mask = host.Get<REALobject>(effect, property);
        if (locksWork) host.Unlock(mask);
      } else if (type.find('.') != std::string::npos) {
        host.Set<int64_t>(effect, property, 1);  // an enum: the first type that changes pixels
        EXPECT_EQ(host.Get<int64_t>(effect, property), 1) << property;
      } else {
        ADD_FAILURE() << "a property type the tour does not know: " << type;
      }
    }
    REALobject rgba = keep(NewPattern(host, 6, 5, kRGBA, 8, 1, 2)), cmyk = keep(NewPattern(host, 3, 4, kCMYK, 16, 2));
    for (int64_t i = 0; i < record->methodCount; ++i)
      for (REALobject source : {rgba, cmyk, REALobject{nullptr}}) {
        const std::string declaration = record->methods[i].declaration;
        SCOPED_TRACE(declaration);
        const std::vector<uint8_t> before = source ? Pixels(host, source) : std::vector<uint8_t>{};
        int64_t& lastError = LastErrorField(host, effect) = 0;  // cleared, so that this run's code shows
        const bool inPlace = declaration == kApplyInPlace;
        REALobject result =  // a method the tour does not know throws from the lookup
            declaration == kPolarApply4
                ? host.Call<REALobject>(effect, kPolarApply4, source, static_cast<signed char>(0),
                                        static_cast<signed char>(1), keep(host.NewRGBColor(200, 100, 50)))
                : RunEffect(host, effect, kMethods.at(declaration), source, log);
        report.codes[name].insert(lastError);
        EXPECT_TRUE(lastError == 0 || !result) << "a refused run has no result";
        if (source && (!inPlace || lastError != 0)) {
          EXPECT_EQ(Pixels(host, source), before) << "the source is never written, and a refused run changes nothing";
        }
        if (result || (inPlace && lastError == 0))
          ++report.results[name + "." + declaration.substr(0, declaration.find('('))];
        host.Unlock(result);
      }
    host.Unlock(effect);
    for (REALobject object : held) host.Unlock(object);
  }
  return report;
}

class FaultWithout : public ::testing::TestWithParam<std::pair<const std::string, int>> {};

TEST_P(FaultWithout, StartUpAndEveryMethodGiveTheDocumentedValue) {
  const auto& [service, lost] = GetParam();
  HostOptions options;
  options.missingServices = {service};
  Host host(options);
  const TourReport report = Tour(host, !(lost & kLocks));
  // Every service the tour asked for (named by the binding's stubs or bound by
  // hand) has an outcome here, so a new dependency shows up as a failure.
  std::set<std::string> services = {"RegisterPluginVersion", "CreateInstance", "PluginNewInstanceOfClass"};
  for (int i = 0; i < rawfx::kHostStubCount; ++i) services.insert(rawfx::kHostStubs[i].hostName);
  for (const std::string& asked : services)
    EXPECT_TRUE(host.lookups(asked) == 0 || kExpected.count(asked)) << asked << " has no expected outcome";
  const std::vector<std::string> classes(std::begin(kEffectClasses), std::end(kEffectClasses));
  EXPECT_EQ(host.registeredClassNames(), lost & kClasses ? std::vector<std::string>{} : classes);
  if (lost & kClasses) return;
  EXPECT_EQ(host.pluginVersion(), lost & kVersionReport ? -1 : 13);
  for (const char* className : {kInterlace, kBarrel, kPolar})
    EXPECT_EQ(report.hasColour.at(className), !(lost & kColours)) << className;
  if (lost == kColours) {  // with the nil default colour, polar refuses with 4; the others fill zeros
    REALobject source = NewPattern(host, 5, 4, kRGBA, 8, 8);
    for (const std::string className : {kInterlace, kBarrel, kPolar}) {
      SCOPED_TRACE(className);
      REALobject effect = NewEffect(host, className.c_str());
      if (className == kBarrel) host.Set<double>(effect, "Distortion", 3.0);  // pulls the rim from outside
      REALobject result = host.Call<REALobject>(effect, kApply, source);
      const std::vector<uint8_t> pixels = result ? Pixels(host, result) : std::vector<uint8_t>{};
      bool zeroBackground = false;  // some pixel was filled with the all-zero colour
      for (size_t x = 0; x < pixels.size(); x += 4) zeroBackground |= (pixels[x] | pixels[x + 1] | pixels[x + 2]) == 0;
      EXPECT_EQ(std::make_tuple(host.LastError(effect), zeroBackground, result == nullptr),
                std::make_tuple(className == kPolar ? 4 : 0, className != kPolar, className == kPolar));
      for (REALobject object : {result, effect}) host.Unlock(object);
    }
    host.Unlock(source);
  }
  // The tour sets a colour before the runs, so even a host without CreateInstance
  // lets every valid run through; oil paint refuses the 16-bit source with 6.
  const std::map<std::string, int> allValidRuns = {
      {"InterlaceEffectRaw.Apply", 2},        {"InterlaceEffectRaw.ApplyInPlace", 2},
      {"BarrelDistortEffectRaw.Apply", 2},    {"BarrelDistortEffectRaw.ApplyAsync", 2},
      {"PolarCoordinatesEffectRaw.Apply", 4}, {"PolarCoordinatesEffectRaw.ApplyAsync", 2},
      {"OilPaintEffectRaw.Apply", 1}};
  EXPECT_EQ(report.results, (lost & kBitmapData ? std::map<std::string, int>{} : allValidRuns));
  for (const std::string className : kEffectClasses)  // nil sources give 4; without data every run does
    EXPECT_EQ(report.codes.at(className),
              (lost & kBitmapData ? std::set<int64_t>{4} : std::set<int64_t>{0, 4, className == kOilPaint ? 6 : 4}));
  if (!(lost & kLocks)) {
    EXPECT_EQ(std::make_tuple(host.LiveObjectCount(), host.StrayLockCalls()), std::make_tuple(0u, 0));
  }
}

INSTANTIATE_TEST_SUITE_P(Services, FaultWithout, ::testing::ValuesIn(kExpected),
                         [](const auto& param) { return param.param.first; });

}  // namespace
