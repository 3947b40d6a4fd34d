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

struct GateCase {
  const char* name;
  double hostVersion;
  bool withoutVersionService, registers;
};
void PrintTo(const GateCase& c, std::ostream* out) { *out << c.name; }
class VersionGate : public ::testing::TestWithParam<GateCase> {};

// Starts a host in a child and reports the interface version, each registered
// record and the services the plug-in asked for. A refused host gets nothing:
// no classes, no entry points loaded, no class look-ups.
TEST_P(VersionGate, RegistersAllFourRecordsInOrderOrNothing) {
  rawfx::host::HostOptions options;
  options.hostVersion = GetParam().hostVersion;
  if (GetParam().withoutVersionService) options.missingServices = {"REALGetRBVersion"};
  const std::string output = rawfx::test::RunInChild([&] {
    Host host(options);
    std::ostringstream out;
    out << "version " << host.pluginVersion() << " asked " << host.lookups("RegisterPluginVersion") << "\n";
    for (const REALclassDefinition* record : host.registeredRecords())
      out << record->name << " v" << record->version << " super " << record->superName << " flags " << record->flags
          << "\n";
    out << "lock " << host.lookups("REALLockObject") << " classRef " << host.lookups("pluginObjectType");
    return out.str();
  });
  const std::string tail = " v13 super MPImageFilterRaw flags 4\n";  // flags: the console-safe bit alone
  const std::string registered = "InterlaceEffectRaw" + tail + "BarrelDistortEffectRaw" + tail + "OilPaintEffectRaw" +
                                 tail + "PolarCoordinatesEffectRaw" + tail + "lock 1 classRef 1";
  EXPECT_EQ(output, "version 13 asked 1\n" + (GetParam().registers ? registered : "lock 0 classRef 0"));
}

const GateCase kGates[] = {
    {"v2011", 2011.0, false, true}, {"v2010_999", 2010.999, false, false}, {"v100", 100.0, false, true},
    {"v100_5", 100.5, false, false}, {"v99", 99.0, false, false},          {"NaN", NAN, false, true},
    {"v2024", 2024.0, false, true},  {"v2024_without_version_service", 2024.0, true, false}};
INSTANTIATE_TEST_SUITE_P(HostVersions, VersionGate, ::testing::ValuesIn(kGates),
                         [](const auto& test) { return std::string(test.param.name); });

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

// Whether a default written on the page is what a new object reads back, by property type.
using DefaultCheck = std::function<bool(Host&, REALobject, const std::string& property, const std::string& text)>;
const std::map<std::string, DefaultCheck> kDefaults = {
    {"Boolean", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<bool>(o, p) == (t == "True"); }},
    {"UInt8", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<uint8_t>(o, p) == std::stoi(t); }},
    {"Single", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<float>(o, p) == std::stof(t); }},
    {"Double", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<double>(o, p) == std::stod(t); }},
};

// An object property's default is nil or an object of the named class.
bool ObjectDefault(Host& host, REALobject object, const std::string& property, const std::string& text) {
  REALobject value = host.Get<REALobject>(object, property);
  const bool matches = text == "nil" ? value == nullptr : value && host.IsA(value, text);
  host.Unlock(value);
  return matches;
}

class ClassReference : public rawfx::test::HostTest {};

TEST_F(ClassReference, TablesMatchWhatEachClassRegistersAndANewObjectReads) {
  auto doc = ReadTables(RAWFX_CLASSES_DOC);
  std::set<Row> classes;
  for (const Row& row : doc["Class"][""]) classes.insert({row.at(0), row.at(1), row.at(2)});
  EXPECT_EQ(classes.size(), 4u) << "class table rows";
  ASSERT_EQ(host.registeredRecords().size(), 4u);
  for (const REALclassDefinition* record : host.registeredRecords()) {
    const std::string name = record->name;
    SCOPED_TRACE(name);
    EXPECT_TRUE(classes.count({name, record->superName, record->interfaces})) << "class table";
    std::map<std::string, std::string> types, documentedTypes;
    std::set<std::string> declarations, documentedDeclarations, enumValues, documentedEnumValues;
    std::map<std::string, int64_t> enumByName;  // "INTERLACE_ODD" -> 1
    for (int64_t i = 0; i < record->propertyCount; ++i) types[record->properties[i].name] = record->properties[i].type;
    for (int64_t i = 0; i < record->methodCount; ++i) declarations.insert(record->methods[i].declaration);
    for (int64_t e = 0; e < record->enumCount; ++e)
      for (int64_t v = 0; v < record->enums[e].valueCount; ++v) {
        const std::string value = record->enums[e].values[v];
        enumValues.insert(value);
        enumByName[value.substr(0, value.find(" = "))] = std::stoll(value.substr(value.find(" = ") + 3));
      }
    for (const Row& row : doc["Property"][name]) documentedTypes[row.at(0)] = row.at(1);
    for (const Row& row : doc["Method"][name]) documentedDeclarations.insert(row.at(0));
    for (const Row& row : doc["Enum value"][name]) documentedEnumValues.insert(row.at(0));
    EXPECT_EQ(documentedTypes, types);
    EXPECT_EQ(documentedDeclarations, declarations);
    EXPECT_EQ(documentedEnumValues, enumValues);

    REALobject object = host.New(name);
    for (const Row& row : doc["Property"][name]) {
      const std::string &property = row.at(0), &type = row.at(1), &text = row.at(2);
      if (types[property] != type) continue;  // reported above
      const bool matches = enumByName.count(text) ? host.Get<int64_t>(object, property) == enumByName[text]
                           : kDefaults.count(type) ? kDefaults.at(type)(host, object, property, text)
                                                   : ObjectDefault(host, object, property, text);
      EXPECT_TRUE(matches) << property << " of a new object does not read as the documented default `" << text << "`";
    }
    host.Unlock(object);
  }
}

}  // namespace
