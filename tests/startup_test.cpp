// Start-up of the module as a host application loads it: the host-version
// gate, the interface version, the order and contents of the registered class
// records, the module's one exported symbol, and docs/classes.md against what
// the module registers (classes, property types and the defaults a new object
// reads back, method declarations, enum values), so a renamed property, a
// changed declaration or a changed default fails here.

#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;

// A host of a version the module supports gets the interface version and the
// four records in order, each console-safe; any other host, and one without
// the version service, gets the interface version only: no classes, no entry
// points loaded, no class look-ups.
TEST(StartUp, HostVersionsRegisterAllFourRecordsInOrderOrNothing) {
  const std::string tail = " v13 super MPImageFilterRaw flags 4\n";  // flags: the console-safe bit alone
  const std::string registered = "InterlaceEffectRaw" + tail + "BarrelDistortEffectRaw" + tail + "OilPaintEffectRaw" +
                                 tail + "PolarCoordinatesEffectRaw" + tail + "lock 1 classRef 1";
  for (const auto& [version, withoutVersionService, registers] :
       {std::tuple{2011.0, false, true}, {2010.999, false, false}, {100.0, false, true}, {100.5, false, false},
        {99.0, false, false}, {double(NAN), false, true}, {2024.0, false, true}, {2024.0, true, false}}) {
    SCOPED_TRACE(::testing::Message() << "version " << version << (withoutVersionService ? ", no service" : ""));
    rawfx::host::HostOptions options;
    options.hostVersion = version;
    if (withoutVersionService) options.missingServices = {"REALGetRBVersion"};
    Host host(options);
    std::ostringstream out;
    out << "version " << host.pluginVersion() << " asked " << host.lookups("RegisterPluginVersion") << "\n";
    for (const REALclassDefinition* record : host.registeredRecords())
      out << record->name << " v" << record->version << " super " << record->superName << " flags " << record->flags
          << "\n";
    out << "lock " << host.lookups("REALLockObject") << " classRef " << host.lookups("pluginObjectType");
    EXPECT_EQ(out.str(), "version 13 asked 1\n" + (registers ? registered : "lock 0 classRef 0"));
  }
}

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

// ---- docs/classes.md --------------------------------------------------------------------

using Row = std::vector<std::string>;  // the first `code span` of each cell ("" if none)

std::string CodeIn(const std::string& text) {
  const size_t open = text.find('`');
  const size_t close = open == std::string::npos ? open : text.find('`', open + 1);
  return close == std::string::npos ? "" : text.substr(open + 1, close - open - 1);
}

// The page's table rows, by the heading of a table's first column and then by
// the class whose section ("## `Class`") holds it ("" outside those sections).
std::map<std::string, std::map<std::string, std::vector<Row>>> ReadTables(const char* path) {
  std::map<std::string, std::map<std::string, std::vector<Row>>> tables;
  std::ifstream in(path);
  std::string line, section, heading;
  while (std::getline(in, line)) {
    if (line.rfind("## ", 0) == 0) section = CodeIn(line);
    if (line.rfind('|', 0) != 0) heading.clear();
    if (line.rfind('|', 0) != 0 || line.rfind("|---", 0) == 0) continue;
    Row cells;
    for (size_t start = 1, bar; (bar = line.find('|', start)) != std::string::npos; start = bar + 1)
      cells.push_back(line.substr(start, bar - start));
    if (heading.empty())
      heading = cells.at(0).substr(1, cells.at(0).size() - 2);
    else
      for (std::string& cell : tables[heading][section].emplace_back(cells)) cell = CodeIn(cell);
  }
  return tables;
}

// Whether a new object reads a property as the default written on the page:
// an enum value's name, a literal of the property's type, or nil or the class
// of the object it holds.
bool ReadsAs(Host& host, REALobject object, const std::string& property, const std::string& type,
             const std::string& text, const std::map<std::string, int64_t>& enumByName) {
  if (enumByName.count(text)) return host.Get<int64_t>(object, property) == enumByName.at(text);
  if (type == "Boolean") return host.Get<bool>(object, property) == (text == "True");
  if (type == "UInt8") return host.Get<uint8_t>(object, property) == std::stoi(text);
  if (type == "Single") return host.Get<float>(object, property) == std::stof(text);
  if (type == "Double") return host.Get<double>(object, property) == std::stod(text);
  REALobject value = host.Get<REALobject>(object, property);
  const bool matches = text == "nil" ? value == nullptr : value && host.IsA(value, text);
  host.Unlock(value);
  return matches;
}

class ClassReference : public rawfx::test::HostTest {};

TEST_F(ClassReference, TablesMatchWhatEachClassRegistersAndANewObjectReads) {
  auto doc = ReadTables(RAWFX_CLASSES_DOC);
  std::set<Row> classes, registeredClasses;
  for (const Row& row : doc["Class"][""]) classes.insert({row.at(0), row.at(1), row.at(2)});
  for (const REALclassDefinition* record : host.registeredRecords())
    registeredClasses.insert({record->name, record->superName, record->interfaces});
  EXPECT_EQ(classes, registeredClasses) << "class table";
  for (const REALclassDefinition* record : host.registeredRecords()) {
    const std::string name = record->name;
    SCOPED_TRACE(name);
    std::set<Row> documented, registered;  // {"Property", name, type}, {"Method", declaration}, {"Enum value", value}
    std::map<std::string, int64_t> enumByName;  // "INTERLACE_ODD" -> 1
    for (int64_t i = 0; i < record->propertyCount; ++i)
      registered.insert({"Property", record->properties[i].name, record->properties[i].type});
    for (int64_t i = 0; i < record->methodCount; ++i) registered.insert({"Method", record->methods[i].declaration});
    for (int64_t e = 0; e < record->enumCount; ++e)
      for (int64_t v = 0; v < record->enums[e].valueCount; ++v) {
        const std::string value = record->enums[e].values[v];
        registered.insert({"Enum value", value});
        enumByName[value.substr(0, value.find(" = "))] = std::stoll(value.substr(value.find(" = ") + 3));
      }
    for (const Row& row : doc["Property"][name]) documented.insert({"Property", row.at(0), row.at(1)});
    for (const char* table : {"Method", "Enum value"})
      for (const Row& row : doc[table][name]) documented.insert({table, row.at(0)});
    EXPECT_EQ(documented, registered);

    REALobject object = host.New(name);
    for (const Row& row : doc["Property"][name]) {
      if (!registered.count({"Property", row.at(0), row.at(1)})) continue;  // a wrong type is reported above
      EXPECT_TRUE(ReadsAs(host, object, row.at(0), row.at(1), row.at(2), enumByName))
          << row.at(0) << " of a new object does not read as the documented default `" << row.at(2) << "`";
    }
    host.Unlock(object);
  }
}

}  // namespace
