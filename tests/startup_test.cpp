// Start-up of the module as a host application loads it: the host-version
// gate, the interface version, the order and contents of the registered class
// records, and the module's one exported symbol. Each start-up runs in a fresh
// child process.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>

#include "host/host.h"
#include "support/child_process.h"

namespace {

// host version, whether the host lacks the version service, whether the classes register
using GateCase = std::tuple<double, bool, bool>;
class VersionGate : public ::testing::TestWithParam<GateCase> {};

// Starts a host in a child and reports the interface version, each registered
// record and the services the plug-in asked for.
TEST_P(VersionGate, RegistersAllFourRecordsInOrderOrNothing) {
  const auto [version, withoutVersionService, registers] = GetParam();
  rawfx::host::HostOptions options;
  options.hostVersion = version;
  if (withoutVersionService) options.missingServices = {"REALGetRBVersion"};
  const auto child = rawfx::test::RunInChild([&] {
    rawfx::host::Host host(options);
    std::ostringstream out;
    out << "version " << host.pluginVersion() << " asked " << host.lookups("RegisterPluginVersion") << "\n";
    for (const REALclassDefinition* record : host.registeredRecords())
      out << record->name << " v" << record->version << " super " << record->superName << " flags " << record->flags
          << "\n";
    out << "lock " << host.lookups("REALLockObject") << " classRef " << host.lookups("pluginObjectType");
    return out.str();
  });
  ASSERT_TRUE(child.exitedNormally && child.exitCode == 0) << "start-up crashed";
  // Flags exactly 4: the console-safe bit and nothing else.
  const std::string tail = " v13 super MPImageFilterRaw flags 4\n";
  const std::string registered = "InterlaceEffectRaw" + tail + "BarrelDistortEffectRaw" + tail + "OilPaintEffectRaw" +
                                 tail + "PolarCoordinatesEffectRaw" + tail + "lock 1 classRef 1";
  // A refused host gets nothing: no classes, no entry points loaded, no class look-ups.
  EXPECT_EQ(child.output, "version 13 asked 1\n" + (registers ? registered : "lock 0 classRef 0"))
      << "host version " << version;
}

INSTANTIATE_TEST_SUITE_P(HostVersions, VersionGate,
                         ::testing::Values(GateCase{2011.0, false, true}, GateCase{2010.999, false, false},
                                           GateCase{100.0, false, true}, GateCase{100.5, false, false},
                                           GateCase{99.0, false, false}, GateCase{NAN, false, true},
                                           GateCase{2024.0, false, true}, GateCase{2024.0, true, false}));

TEST(StartUp, ModuleExportsOnlyItsEntryPoint) {
  FILE* pipe = popen("nm -D --defined-only '" RAWFX_MODULE_PATH "'", "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> symbols;
  char line[512];
  for (std::string address, kind, name; fgets(line, sizeof line, pipe);)
    if (std::istringstream(line) >> address >> kind >> name) symbols.insert(name);
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(symbols, std::set<std::string>{"REALPluginMain"});
}

}  // namespace
