// docs/classes.md against the module: the classes, properties (type and the
// default a new object reads back), method declarations and enum values that
// the reference's tables list must be exactly what the module registers, so a
// renamed property, a changed declaration or a changed default fails here.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/host.h"
#include "support/host_fixture.h"

namespace {

using rawfx::host::Host;
using Row = std::vector<std::string>;  // the first code span of each cell ("" if none)
using Texts = std::set<std::string>;

std::string CodeIn(const std::string& cell) {
  const size_t open = cell.find('`');
  const size_t close = open == std::string::npos ? open : cell.find('`', open + 1);
  return close == std::string::npos ? "" : cell.substr(open + 1, close - open - 1);
}

std::vector<std::string> CellsOf(const std::string& line) {
  std::vector<std::string> cells;
  for (size_t start = 1, bar; (bar = line.find('|', start)) != std::string::npos; start = bar + 1)
    cells.push_back(line.substr(start, bar - start));
  return cells;
}

// The page's tables: by the heading of their first column, then by the class
// whose section ("## `Class`") they are in ("" outside those sections).
using Tables = std::map<std::string, std::map<std::string, std::vector<Row>>>;

Tables ReadTables(const char* path) {
  std::ifstream in(path);
  Tables tables;
  std::string line, section, heading;
  while (std::getline(in, line)) {
    if (line.rfind("## ", 0) == 0) section = CodeIn(line);
    if (line.rfind("|", 0) != 0) {
      heading.clear();
      continue;
    }
    const std::vector<std::string> cells = CellsOf(line);
    if (heading.empty()) {
      heading = cells.empty() ? "?" : cells[0].substr(1, cells[0].size() - 2);
    } else if (line.find("---") == std::string::npos) {
      Row row;
      for (const std::string& cell : cells) row.push_back(CodeIn(cell));
      tables[heading][section].push_back(row);
    }
  }
  return tables;
}

Texts Column(const std::vector<Row>& rows, size_t column) {
  Texts texts;
  for (const Row& row : rows) texts.insert(row.at(column));
  return texts;
}

// How a default written in the reference reads back, by property type.
using DefaultCheck = std::function<bool(Host&, REALobject, const std::string& property, const std::string& text)>;
const std::map<std::string, DefaultCheck> kScalarDefaults = {
    {"Boolean", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<bool>(o, p) == (t == "True"); }},
    {"UInt8", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<uint8_t>(o, p) == std::stoi(t); }},
    {"Single", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<float>(o, p) == std::stof(t); }},
    {"Double", [](Host& h, REALobject o, auto& p, auto& t) { return h.Get<double>(o, p) == std::stod(t); }},
};

// An object property's default is nil or an object of the named class.
bool ObjectDefault(Host& host, REALobject object, const std::string& property, const std::string& text) {
  REALobject value = host.Get<REALobject>(object, property);
  const bool matches = text == "nil" ? value == nullptr : value && host.IsA(value, text);
  if (value) host.Unlock(value);
  return matches;
}

class ClassReferenceTest : public rawfx::test::HostTest {
 protected:
  Tables doc = ReadTables(RAWFX_CLASSES_DOC);
};

TEST_F(ClassReferenceTest, ListsEveryRegisteredClassWithItsSuperclassAndInterfaces) {
  std::set<Row> registered;
  for (const REALclassDefinition* record : host.registeredRecords())
    registered.insert({record->name, record->superName, record->interfaces});
  std::set<Row> documented;
  for (const Row& row : doc["Class"][""]) documented.insert({row.at(0), row.at(1), row.at(2)});
  EXPECT_EQ(documented, registered);
}

TEST_F(ClassReferenceTest, TablesMatchWhatEachClassRegistersAndANewObjectReads) {
  ASSERT_EQ(host.registeredRecords().size(), 4u);
  for (const REALclassDefinition* record : host.registeredRecords()) {
    const std::string name = record->name;
    SCOPED_TRACE(name);
    std::map<std::string, std::string> registeredTypes, documentedTypes;
    for (int64_t i = 0; i < record->propertyCount; ++i)
      registeredTypes[record->properties[i].name] = record->properties[i].type;
    for (const Row& row : doc["Property"][name]) documentedTypes[row.at(0)] = row.at(1);
    EXPECT_EQ(documentedTypes, registeredTypes);

    Texts declarations, enumValues;
    std::map<std::string, int64_t> enumByName;  // "INTERLACE_ODD" -> 1
    for (int64_t i = 0; i < record->methodCount; ++i) declarations.insert(record->methods[i].declaration);
    for (int64_t e = 0; e < record->enumCount; ++e)
      for (int64_t v = 0; v < record->enums[e].valueCount; ++v) {
        const std::string value = record->enums[e].values[v];
        enumValues.insert(value);
        enumByName[value.substr(0, value.find(" = "))] = std::stoll(value.substr(value.find(" = ") + 3));
      }
    EXPECT_EQ(Column(doc["Method"][name], 0), declarations);
    EXPECT_EQ(Column(doc["Enum value"][name], 0), enumValues);

    REALobject object = host.New(name);
    ASSERT_NE(object, nullptr);
    for (const Row& row : doc["Property"][name]) {
      const std::string &property = row.at(0), &type = row.at(1), &text = row.at(2);
      if (!registeredTypes.count(property)) continue;  // already reported above
      bool matches;
      if (enumByName.count(text))
        matches = host.Get<int64_t>(object, property) == enumByName[text];
      else if (kScalarDefaults.count(type))
        matches = kScalarDefaults.at(type)(host, object, property, text);
      else
        matches = ObjectDefault(host, object, property, text);
      EXPECT_TRUE(matches) << property << " of a new object does not read as the documented default `" << text << "`";
    }
    host.Unlock(object);
  }
}

}  // namespace
