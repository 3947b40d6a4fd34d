// A host that lacks one service at a time. Start-up and every property and
// method of every class must still work or give the documented missing value
// (no classes, nil colours, or code 4 when the bitmap's data cannot be had),
// and never crash. The services are those the plug-in resolves in a full tour,
// so a new dependency shows up here as an unexpected service.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"
#include "plugin/host_binding.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;
using rawfx::host::HostOptions;

constexpr int64_t kRGBA = 5, kCMYK = 13;
constexpr const char* kApply = "Apply(source as RawBitmap) as RawBitmap";
constexpr const char* kApplyInPlace = "ApplyInPlace(source as RawBitmap)";
constexpr const char* kApplyAsync = "ApplyAsync(source as RawBitmap, completeTarget as Object, completeMethod as Ptr)";
constexpr const char* kPolarApply4 =
    "Apply(source as RawBitmap,rectangularToPolar as Boolean,flipMapping as Boolean,"
    "backColor as ZandoriaColors.GenericColor) as RawBitmap";

// What a host without the service gives.
enum class Without {
  NoClasses,          // start-up stops before registering anything
  NilColours,         // effects get no default colour; polar, which needs one, refuses with 4
  NoBitmapData,       // no RawBitmap record: every apply refuses with 4
  NoBitmapDataOrColours,
  NoLocks,            // works; the effects' own locks and unlocks are not made
  NoVersionReport,    // works; the host learns no plug-in version
  Works,              // the service is not needed by the effects
};

const std::vector<std::pair<std::string, Without>> kExpected = {
    {"REALGetRBVersion", Without::NoClasses},
    {"PluginRegisterClass", Without::NoClasses},
    {"RegisterPluginVersion", Without::NoVersionReport},
    {"CreateInstance", Without::NilColours},
    {"PluginGetPluginData", Without::NoBitmapData},
    {"pluginObjectType", Without::NoBitmapDataOrColours},
    {"RuntimeObjectIsa", Without::Works},
    {"REALLockObject", Without::NoLocks},
    {"REALUnlockObject", Without::NoLocks},
    {"REALLoadObjectMethod", Without::Works},
};

// The one completion a tour's asynchronous run may make, by its result.
Host* gHost = nullptr;
int gCompletions = 0;
REALobject gAsyncResult = nullptr;
void KeepResult(REALobject, REALobject result) {
  if (result) gHost->Lock(result);
  gAsyncResult = result;
  ++gCompletions;
}

// What a tour of one host saw.
struct TourReport {
  std::vector<std::string> classes;
  std::map<std::string, bool> hasColour;       // by class: the new effect's BackColor is not nil
  std::map<std::string, int> results;            // by "Class.method": runs that went through
  std::map<std::string, std::set<int64_t>> codes;  // by class: the error codes its runs stored
};

// Creates every registered class, reads and writes every property, runs every
// method on a valid source, a CMYK one and nil, then releases everything.
class Tour {
 public:
  Tour(Host& host, bool locksWork) : host_(host), locksWork_(locksWork) {}

  TourReport Run() {
    gHost = &host_;
    report_.classes = host_.registeredClassNames();
    for (const std::string& name : report_.classes) VisitClass(name);
    host_.WaitForAsync();
    return report_;
  }

 private:
  Host& host_;
  bool locksWork_;
  TourReport report_;
  std::vector<REALobject> held_;  // released after every effect is gone

  REALobject Keep(REALobject object) {
    if (object) held_.push_back(object);
    return object;
  }

  void VisitClass(const std::string& name) {
    SCOPED_TRACE(name);
    REALobject effect = host_.New(name);
    ASSERT_NE(effect, nullptr);
    const REALclassDefinition* record = nullptr;
    for (const REALclassDefinition* r : host_.registeredRecords())
      if (name == r->name) record = r;
    ASSERT_NE(record, nullptr);
    for (int64_t i = 0; i < record->propertyCount; ++i) VisitProperty(effect, name, record->properties[i]);
    REALobject rgba = Keep(host_.NewBitmap(6, 5, kRGBA, 8, 2));
    REALobject cmyk = Keep(host_.NewBitmap(3, 4, kCMYK, 16));
    rawfx::test::FillPattern(host_, rgba, 1);
    rawfx::test::FillPattern(host_, cmyk, 2);
    for (int64_t i = 0; i < record->methodCount; ++i)
      for (REALobject source : {rgba, cmyk, REALobject{nullptr}})
        RunMethod(effect, name, record->methods[i].declaration, source);
    host_.WaitForAsync();
    host_.Unlock(effect);
    for (REALobject object : held_) host_.Unlock(object);
    held_.clear();
  }

  void VisitProperty(REALobject effect, const std::string& className, const ClassPropertyEntry& row) {
    const std::string type = row.type;
    const char* property = row.name;
    SCOPED_TRACE(property);
    if (type == "Boolean") {
      host_.Set<bool>(effect, property, !host_.Get<bool>(effect, property));
    } else if (type == "UInt8") {
      host_.Set<uint8_t>(effect, property, static_cast<uint8_t>(host_.Get<uint8_t>(effect, property) + 1));
    } else if (type == "Single") {
      host_.Set<float>(effect, property, host_.Get<float>(effect, property));
    } else if (type == "Double") {
      host_.Set<double>(effect, property, host_.Get<double>(effect, property) + 0.25);
    } else if (type.find('.') != std::string::npos && type.find("Colors.") == std::string::npos) {
      host_.Set<int64_t>(effect, property, 1);  // an enum: the first type that changes pixels
      EXPECT_EQ(host_.Get<int64_t>(effect, property), 1);
    } else if (type == "ZandoriaColors.GenericColor") {
      REALobject colour = host_.Get<REALobject>(effect, property);
      report_.hasColour[className] = colour != nullptr;
      if (locksWork_) host_.Unlock(colour);
      host_.Set(effect, property, nullptr);  // ignored
      host_.Set<REALobject>(effect, property, Keep(host_.NewCMYKColor(10, 20, 30, 40)));
    } else if (type == "RawBitmapMask") {
      REALobject maskSource = Keep(host_.NewBitmap(6, 5, 0, 8));
      host_.Set<REALobject>(effect, property, Keep(host_.NewMask(maskSource)));
      REALobject mask = host_.Get<REALobject>(effect, property);
      if (locksWork_) host_.Unlock(mask);
    } else {
      ADD_FAILURE() << "a property type the tour does not know: " << type;
    }
  }

  void RunMethod(REALobject effect, const std::string& className, const std::string& declaration,
                 REALobject source) {
    SCOPED_TRACE(declaration);
    const std::vector<uint8_t> before = source ? Pixels(source) : std::vector<uint8_t>{};
    int64_t& lastError = static_cast<MPImageFilterData*>(host_.ClassData(effect, "MPImageFilterRaw"))->lastError;
    lastError = 0;  // so that this run's code shows
    REALobject result = nullptr;
    bool inPlace = false;
    if (declaration == kApply) {
      result = host_.Call<REALobject>(effect, kApply, source);
    } else if (declaration == kPolarApply4) {
      REALobject colour = Keep(host_.NewRGBColor(200, 100, 50));
      result = host_.Call<REALobject>(effect, kPolarApply4, source, static_cast<signed char>(0),
                                      static_cast<signed char>(1), colour);
    } else if (declaration == kApplyInPlace) {
      inPlace = true;
      host_.Call<void>(effect, kApplyInPlace, source);
    } else if (declaration == kApplyAsync) {
      const int completions = gCompletions;
      host_.Call<void>(effect, kApplyAsync, source, effect, reinterpret_cast<void*>(&KeepResult));
      host_.WaitForAsync();
      EXPECT_EQ(gCompletions - completions, lastError == 0 ? 1 : 0) << "a run that started completes once";
      result = std::exchange(gAsyncResult, nullptr);
    } else {
      ADD_FAILURE() << "a method the tour does not know";
      return;
    }
    const std::string key = className + "." + declaration.substr(0, declaration.find('('));
    if (lastError != 0) {
      report_.codes[className].insert(lastError);
      EXPECT_EQ(result, nullptr) << "a refused run has no result";
    }
    if (source && (!inPlace || lastError != 0)) {
      EXPECT_EQ(Pixels(source), before) << "the source is never written, and a refused run changes nothing";
    }
    if (result) {
      EXPECT_TRUE(host_.IsA(result, "RawBitmap"));
      EXPECT_EQ(host_.Bitmap(result).width, host_.Bitmap(source).width);
    }
    if (result || (inPlace && lastError == 0)) ++report_.results[key];
    host_.Unlock(result);
  }

  std::vector<uint8_t> Pixels(REALobject bitmap) {
    const rawfx::host::BitmapView view = host_.Bitmap(bitmap);
    return {view.pixels, view.pixels + view.rowBytes * view.height};
  }
};

HostOptions HostWithout(const std::string& service) {
  HostOptions options;
  options.missingServices = {service};
  return options;
}

// The host services named by the binding's stubs, and those bound by hand.
std::set<std::string> CandidateServices() {
  std::set<std::string> names = {"RegisterPluginVersion", "CreateInstance", "PluginNewInstanceOfClass"};
  for (int i = 0; i < rawfx::kHostStubCount; ++i) names.insert(rawfx::kHostStubs[i].hostName);
  return names;
}

TEST(FaultServices, EveryServiceTheEffectsUseHasAnExpectedOutcome) {
  Host host;
  const TourReport report = Tour(host, true).Run();
  EXPECT_EQ(report.classes.size(), 4u);
  for (const std::string& service : CandidateServices())
    if (host.lookups(service) > 0) {
      EXPECT_TRUE(std::any_of(kExpected.begin(), kExpected.end(), [&](const auto& row) { return row.first == service; }))
          << service << " has no expected outcome";
    }
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

class FaultWithout : public ::testing::TestWithParam<std::pair<std::string, Without>> {};

TEST_P(FaultWithout, StartUpAndEveryMethodGiveTheDocumentedValue) {
  const auto& [service, outcome] = GetParam();
  Host host(HostWithout(service));
  const bool locksWork = outcome != Without::NoLocks;
  const TourReport report = Tour(host, locksWork).Run();
  const std::vector<std::string> allClasses = {"InterlaceEffectRaw", "BarrelDistortEffectRaw", "OilPaintEffectRaw",
                                               "PolarCoordinatesEffectRaw"};
  if (outcome == Without::NoClasses) {
    EXPECT_TRUE(report.classes.empty());
    EXPECT_EQ(host.New("InterlaceEffectRaw"), nullptr);
    return;
  }
  EXPECT_EQ(report.classes, allClasses);
  EXPECT_EQ(host.pluginVersion(), outcome == Without::NoVersionReport ? -1 : 13);

  const bool noData = outcome == Without::NoBitmapData || outcome == Without::NoBitmapDataOrColours;
  const bool noColours = outcome == Without::NilColours || outcome == Without::NoBitmapDataOrColours;
  for (const char* cls : {"InterlaceEffectRaw", "BarrelDistortEffectRaw", "PolarCoordinatesEffectRaw"})
    EXPECT_EQ(report.hasColour.at(cls), !noColours) << cls;
  if (noData) {
    EXPECT_TRUE(report.results.empty()) << "every run refuses without the bitmap's data";
    for (const std::string& cls : allClasses) EXPECT_EQ(report.codes.at(cls), std::set<int64_t>{4}) << cls;
  } else {
    // The tour sets a colour before the runs, so even a host without CreateInstance
    // lets every valid run through; oil paint refuses the 16-bit source with 6.
    EXPECT_EQ(report.results.at("InterlaceEffectRaw.Apply"), 2);
    EXPECT_EQ(report.results.at("InterlaceEffectRaw.ApplyInPlace"), 2);
    EXPECT_EQ(report.results.at("BarrelDistortEffectRaw.Apply"), 2);
    EXPECT_EQ(report.results.at("BarrelDistortEffectRaw.ApplyAsync"), 2);
    EXPECT_EQ(report.results.at("PolarCoordinatesEffectRaw.Apply"), 4);
    EXPECT_EQ(report.results.at("PolarCoordinatesEffectRaw.ApplyAsync"), 2);
    EXPECT_EQ(report.results.at("OilPaintEffectRaw.Apply"), 1);
    for (const std::string& cls : allClasses)
      EXPECT_EQ(report.codes.at(cls), (std::set<int64_t>{4, cls == "OilPaintEffectRaw" ? 6 : 4})) << "nil sources";
  }
  if (locksWork) {
    EXPECT_EQ(host.LiveObjectCount(), 0u) << "nothing leaked";
    EXPECT_EQ(host.StrayLockCalls(), 0);
  }
}

std::string ServiceName(const ::testing::TestParamInfo<std::pair<std::string, Without>>& param) {
  return param.param.first;
}

INSTANTIATE_TEST_SUITE_P(Services, FaultWithout, ::testing::ValuesIn(kExpected), ServiceName);

// Without a default colour, the effects that have one to fill with must still
// run: polar refuses with 4, interlace and barrel fill with zeros.
TEST(FaultServices, NilDefaultColourIsRefusedOrFilledWithZeros) {
  Host host(HostWithout("CreateInstance"));
  REALobject source = host.NewBitmap(5, 4, kRGBA, 8);
  rawfx::test::FillPattern(host, source, 8);
  for (const char* cls : {"InterlaceEffectRaw", "BarrelDistortEffectRaw", "PolarCoordinatesEffectRaw"}) {
    SCOPED_TRACE(cls);
    REALobject effect = host.New(cls);
    EXPECT_EQ(host.Get<REALobject>(effect, "BackColor"), nullptr);
    if (std::string(cls) == "InterlaceEffectRaw") host.Set<int64_t>(effect, "VerticalInterlaceType", 1);
    if (std::string(cls) == "BarrelDistortEffectRaw") host.Set<double>(effect, "Distortion", 3.0);
    REALobject result = host.Call<REALobject>(effect, kApply, source);
    if (std::string(cls) == "PolarCoordinatesEffectRaw") {
      EXPECT_EQ(result, nullptr);
      EXPECT_EQ(host.LastError(effect), 4);
    } else {
      ASSERT_NE(result, nullptr);
      EXPECT_EQ(host.LastError(effect), 0);
      const rawfx::host::BitmapView view = host.Bitmap(result);
      bool zeroBackground = false;  // some pixel was filled with the all-zero colour
      for (int64_t y = 0; y < view.height; ++y)
        for (int64_t x = 0; x < view.width; ++x)
          zeroBackground |= view.row(y)[x * 4] == 0 && view.row(y)[x * 4 + 1] == 0 && view.row(y)[x * 4 + 2] == 0;
      EXPECT_TRUE(zeroBackground);
    }
    host.Unlock(result);
    host.Unlock(effect);
  }
  host.Unlock(source);
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

// Regression: interlace and polar read the bitmap record before checking it
// and crashed when the host could not give it.
TEST(FaultServices, NoBitmapDataIsRefusedWithCodeFour) {
  Host host(HostWithout("PluginGetPluginData"));
  REALobject source = host.NewBitmap(5, 4, kRGBA, 8);
  const std::vector<uint8_t> before(host.Bitmap(source).pixels, host.Bitmap(source).pixels + 5 * 4 * 4);
  for (const char* cls :
       {"InterlaceEffectRaw", "PolarCoordinatesEffectRaw", "BarrelDistortEffectRaw", "OilPaintEffectRaw"}) {
    SCOPED_TRACE(cls);
    REALobject effect = host.New(cls);
    if (std::string(cls) == "InterlaceEffectRaw") {
      host.Set<int64_t>(effect, "HorizontalInterlaceType", 2);
      host.Call<void>(effect, kApplyInPlace, source);
      EXPECT_EQ(host.LastError(effect), 4);
    }
    EXPECT_EQ(host.Call<REALobject>(effect, kApply, source), nullptr);
    EXPECT_EQ(host.LastError(effect), 4);
    host.Unlock(effect);
  }
  EXPECT_TRUE(std::equal(before.begin(), before.end(), host.Bitmap(source).pixels));
  host.Unlock(source);
  EXPECT_EQ(host.LiveObjectCount(), 0u);
}

}  // namespace
