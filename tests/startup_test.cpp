// Start-up of the module as a host application loads it: the host-version
// gate, the interface version, the order and contents of the registered class
// records, and the module's one exported symbol. Each start-up runs in a fresh
// child process.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include "host/host.h"
#include "support/child_process.h"

namespace {

using rawfx::host::Host;
using rawfx::host::HostOptions;
using rawfx::test::RunInChild;

// Starts a host in a child and reports what reached registration and which
// services the plug-in asked for.
std::string StartUpReport(HostOptions options) {
  const auto child = RunInChild([&] {
    Host host(options);
    std::ostringstream out;
    out << "version=" << host.pluginVersion() << " classes=";
    for (const std::string& name : host.registeredClassNames()) out << name << ',';
    out << " lock=" << host.lookups("REALLockObject") << " classRef=" << host.lookups("pluginObjectType")
        << " rbVersion=" << host.lookups("REALGetRBVersion");
    return out.str();
  });
  EXPECT_TRUE(child.exitedNormally && child.exitCode == 0) << "start-up crashed";
  return child.output;
}

HostOptions WithVersion(double version) {
  HostOptions options;
  options.hostVersion = version;
  return options;
}

constexpr const char* kAllFour =
    "classes=InterlaceEffectRaw,BarrelDistortEffectRaw,OilPaintEffectRaw,PolarCoordinatesEffectRaw,";

struct GateCase {
  double version;
  bool registers;
};

class VersionGate : public ::testing::TestWithParam<GateCase> {};

TEST_P(VersionGate, RegistersAllFourOrNothing) {
  const std::string report = StartUpReport(WithVersion(GetParam().version));
  EXPECT_NE(report.find("version=13 "), std::string::npos) << report;
  if (GetParam().registers) {
    EXPECT_NE(report.find(kAllFour), std::string::npos) << report;
    EXPECT_NE(report.find("lock=1 "), std::string::npos) << report;
  } else {
    // A refused host gets nothing: no classes, no entry points loaded, no class look-ups.
    EXPECT_NE(report.find("classes= lock=0 classRef=0 "), std::string::npos) << report;
  }
}

INSTANTIATE_TEST_SUITE_P(HostVersions, VersionGate,
                         ::testing::Values(GateCase{2011.0, true}, GateCase{2010.999, false}, GateCase{100.0, true},
                                           GateCase{100.5, false}, GateCase{99.0, false}, GateCase{NAN, true},
                                           GateCase{2024.0, true}, GateCase{0.0, false}));

TEST(StartUp, HostWithoutVersionServiceGetsNothing) {
  HostOptions options;
  options.missingServices = {"REALGetRBVersion"};
  const std::string report = StartUpReport(options);
  EXPECT_NE(report.find("classes= lock=0"), std::string::npos) << report;
  EXPECT_NE(report.find("rbVersion=1"), std::string::npos) << report;
}

TEST(StartUp, ReportsInterfaceVersionOnce) {
  const auto child = RunInChild([] {
    Host host;
    return std::to_string(host.pluginVersion()) + " " + std::to_string(host.lookups("RegisterPluginVersion"));
  });
  EXPECT_EQ(child.output, "13 1");
}

TEST(StartUp, RecordsReachRegistrationMarkedAndLaidOut) {
  const auto child = RunInChild([] {
    Host host;
    std::ostringstream out;
    for (const REALclassDefinition* record : host.registeredRecords())
      out << record->name << " v" << record->version << " super " << record->superName << " flags " << record->flags
          << " offset " << record->dataOffset << "\n";
    return out.str();
  });
  // Flags exactly 4; the class data sits right after the 72-byte engine object.
  const std::string tail = " v13 super MPImageFilterRaw flags 4 offset 128\n";
  EXPECT_EQ(child.output, "InterlaceEffectRaw" + tail + "BarrelDistortEffectRaw" + tail + "OilPaintEffectRaw" + tail +
                              "PolarCoordinatesEffectRaw" + tail);
}

TEST(StartUp, EachHostLoadsItsOwnCopyOfTheModule) {
  const auto child = RunInChild([] {
    Host first;
    Host second;
    const bool distinct = first.registeredRecords().at(0) != second.registeredRecords().at(0);
    // The second host's start-up must not have touched the first one's records.
    return std::string(distinct ? "distinct " : "shared ") + std::to_string(first.registeredRecords()[0]->flags);
  });
  EXPECT_EQ(child.output, "distinct 4");
}

TEST(StartUp, ModuleExportsOnlyItsEntryPoint) {
  FILE* pipe = popen("nm -D --defined-only '" RAWFX_MODULE_PATH "'", "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> symbols;
  char line[512];
  while (fgets(line, sizeof line, pipe)) {
    std::istringstream fields(line);
    std::string address, kind, name;
    if (fields >> address >> kind >> name) symbols.insert(name);
  }
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(symbols, std::set<std::string>{"REALPluginMain"});
}

}  // namespace
