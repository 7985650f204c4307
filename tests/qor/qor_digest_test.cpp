// The database digest and the combined instructions, byte for byte.

#include <sstream>

#include "qor_assistant_properties.h"
#include "qor_database_digest.h"
#include "qor_default_assistant_memory.h"
#include "qor_test_util.h"

namespace {

using namespace qortest;

const char* const kShop = R"~([{
  "catalog_id": "c1", "catalog_name": "shop",
  "schemas": [{
    "schema_id": "s1", "schema_name": "sales",
    "tables": [
      {"name": "customers",
       "fields": [{"name": "id", "type": "int"}, {"name": "email", "type": "varchar(255)"}],
       "pkeys": ["id"]},
      {"name": "orders",
       "fields": [{"name": "id", "type": "int"}, {"name": "customer_id", "type": "int"},
                  {"name": "total", "type": "decimal(10,2)"}],
       "pkeys": ["id"],
       "fkeys": [{"fields": ["customer_id"], "ref_schema": "sales", "ref_table": "customers",
                  "ref_fields": ["id"]}]}],
    "views": [{"name": "big_orders",
               "fields": [{"name": "id", "type": "int"}, {"name": "total", "type": "decimal(10,2)"}]}]
  }]
}])~";

const char* const kShopDigest =
    "USE CATALOG `shop`\n"
    "CREATE TABLE `sales`.`customers` (`id` int, `email` varchar(255), PRIMARY KEY(`id`))\n"
    "CREATE TABLE `sales`.`orders` (`id` int, `customer_id` int, `total` decimal(10,2), PRIMARY "
    "KEY(`id`), FOREIGN KEY(`customer_id`) REFERENCES `sales`.`customers`(`id`))\n"
    "CREATE VIEW `sales`.`big_orders` (`id` int, `total` decimal(10,2))\n";

class Digest : public ::testing::Test {
 protected:
  std::string digestOf(const std::string& structure) {
    memory.setDatabaseStructure(structure);
    return record.obtainDatabaseInstructions();
  }
  std::string textFromTree() {
    std::string text;
    const auto append = [&text](const YLVariant& lines) {
      for (const YLVariant& line : lines.listValue())
        text += line.stringValue() + "\n";
    };
    for (const YLVariant& catalog : record.obtainDatabaseTree()) {
      const YLVariantMap map = catalog.mapValue();
      append(map.at("instructions"));
      for (const YLVariant& schema : map.at("schemas").listValue())
        append(schema.mapValue().at("instructions"));
    }
    return text;
  }

  QORDefaultAssistantMemory memory;
  QORAssistantProperties record{&memory};
};

TEST_F(Digest, WorkedExampleGivesTheTextAndTheTree) {
  EXPECT_EQ(digestOf(kShop), kShopDigest);
  YLVariantList lines;
  std::istringstream text(kShopDigest);
  for (std::string line; std::getline(text, line);)
    lines.emplace_back(line);
  const YLVariantMap schema{{"schema_id", "s1"},
                            {"schema_name", "sales"},
                            {"instructions", YLVariantList(lines.begin() + 1, lines.end())}};
  const YLVariantList tree{YLVariantMap{{"catalog_id", "c1"},
                                        {"catalog_name", "shop"},
                                        {"instructions", YLVariantList{lines[0]}},
                                        {"schemas", YLVariantList{schema}}}};
  EXPECT_EQ(record.obtainDatabaseTree(), tree);
  EXPECT_EQ(record.obtainValue("db_structure"), YLVariant(tree));
}

TEST_F(Digest, StructuresGiveTheirTextAndTreeAndReportWhatIsPassedOver) {
  struct Case {
    std::string structure;
    std::string digest;
    std::size_t reports;
    std::size_t catalogs;
  };
  std::vector<Case> cases = {
      {kShop, kShopDigest, 0, 1},
      // Unnamed catalogs first, the latest first; then the named ones; rejected ones nowhere.
      {R"~([{"catalog_id": "A", "schemas": [{"tables": [{"name": "a", "fields": []}]}]},
           {"catalog_name": "B", "schemas": []}, {"catalog_name": 5, "schemas": []},
           {"catalog_name": "", "schemas": [{"tables": [{"name": "c", "fields": []}]}]},
           {"catalog_name": "D", "schemas": []}, {"schemas": []}])~",
       "USE CATALOG ``\nCREATE TABLE `c` ()\nCREATE TABLE `a` ()\nUSE CATALOG `B`\n"
       "USE CATALOG `D`\n",
       1, 5},
      // Kinds in their order whatever the key order; an empty schema name gives no qualifier.
      {R"~([{"schemas": [{"schema_name": "",
           "mviews": [{"name": "mv", "fields": [{"name": "a", "type": "int"}]}],
           "views": [{"name": "v", "fields": [{"name": "a", "type": "int"}], "pkeys": [],
             "fkeys": []}],
           "tables": [{"name": "t", "fields": []}, {"name": "t", "fields": []}]}]}])~",
       "CREATE TABLE `t` ()\nCREATE TABLE `t` ()\nCREATE VIEW `v` (`a` int)\n"
       "CREATE MATERIALIZED VIEW `mv` (`a` int)\n",
       0, 1},
      // Empty fields stop before the keys; a foreign key without columns on a side is left out;
      // an empty ref_schema qualifies; bytes pass unchanged; keys compare decoded.
      {R"~([{"schemas": [{"schema_name": "s", "tables": [
           {"name": "t", "fields": [], "pkeys": [1], "fkeys": [7]},
           {"name": "t", "fields": [{"name": "a", "type": "int"}, {"name": "b", "type": "text"}],
            "pkeys": ["a", "b"], "fkeys": [
            {"fields": ["a", "b"], "ref_schema": "", "ref_table": "r", "ref_fields": ["x", "y"]},
            {"fields": [], "ref_table": "skipped", "ref_fields": [1]},
            {"fields": ["a"], "ref_table": "skipped", "ref_fields": []},
            {"fields": ["a"], "ref_table": "q", "ref_fields": ["z"]}]},
           {"name": "a`b\nc", "fields": [{"name": "\u00e9", "type": "x"}]},
           {"n\u0061me": "t", "fields": []}]}]}])~",
       "CREATE TABLE `s`.`t` ()\nCREATE TABLE `s`.`t` (`a` int, `b` text, PRIMARY KEY(`a`, `b`), "
       "FOREIGN KEY(`a`, `b`) REFERENCES ``.`r`(`x`, `y`), FOREIGN KEY(`a`) REFERENCES `q`(`z`))\n"
       "CREATE TABLE `s`.`a`b\nc` (`\xC3\xA9` x)\nCREATE TABLE `s`.`t` ()\n",
       0, 1},
      // A catalog without a name and without schemas is in the tree but writes nothing.
      {R"~([{"schemas": []}, {"catalog_name": "x", "schemas": [{}]}])~", "USE CATALOG `x`\n", 0, 2},
      {R"~([null, 3, {"catalog_id": 1, "schemas": []}, {"catalog_name": null, "schemas": []},
           {"catalog_name": "x"}, {"catalog_name": "y", "schemas": {}}, {"catalog_name": "ok",
           "schemas": []}])~",
       "USE CATALOG `ok`\n", 6, 1},
      // Schemas passed over, their catalog stands.
      {R"~([{"catalog_name": "c", "schemas": [null, [], {"schema_id": 2}, {"schema_name": []},
           {"tables": {}}, {"views": null}, {"mviews": "x"},
           {"tables": [{"name": "kept", "fields": []}]}]}])~",
       "USE CATALOG `c`\nCREATE TABLE `kept` ()\n", 7, 1},
      // Rejected descriptions leave empty lines between the statements around them.
      {R"~([{"schemas": [{"tables": [
           {"name": "a", "fields": []},
           null,
           {"fields": []},
           {"name": "b"},
           {"name": "b", "fields": [], "pkeys": {}},
           {"name": "b", "fields": [], "fkeys": null},
           {"name": "b", "fields": [{"name": "x"}]},
           {"name": "b", "fields": [3]},
           {"name": "b", "fields": [{"name": "x", "type": "int"}], "pkeys": ["x", 1]},
           {"name": "b", "fields": [{"name": "x", "type": "int"}], "fkeys": [3]},
           {"name": "b", "fields": [{"name": "x", "type": "int"}],
            "fkeys": [{"fields": [], "ref_table": "r", "ref_fields": [], "ref_schema": 1}]},
           {"name": "b", "fields": [{"name": "x", "type": "int"}],
            "fkeys": [{"fields": [], "ref_fields": []}]},
           {"name": "b", "fields": [{"name": "x", "type": "int"}],
            "fkeys": [{"fields": ["x"], "ref_table": "r", "ref_fields": [null]}]},
           {"name": "z", "fields": []}]}]}])~",
       "CREATE TABLE `a` ()\n\n\n\n\n\n\n\n\n\n\n\n\nCREATE TABLE `z` ()\n", 12, 1},
      // Every key twice, the first value wrong or stale: only the second shows, as in a lookup.
      {R"~([{"catalog_name": 1, "schemas": {}, "catalog_name": "c",
           "schemas": [{"schema_name": "old", "tables": [{"name": "gone", "fields": []}],
             "schema_name": "s", "tables": [{"name": 2, "fields": [], "pkeys": {},
               "fields": [{"name": "a", "type": null, "type": "int", "name": "b"}],
               "pkeys": ["b"], "name": "t",
               "fkeys": [{"fields": [], "ref_table": "r", "ref_fields": ["x"], "fields": ["b"],
                          "ref_table": "q", "ref_schema": 3, "ref_schema": "p"}]}]}]}])~",
       "USE CATALOG `c`\nCREATE TABLE `s`.`t` (`b` int, PRIMARY KEY(`b`), FOREIGN KEY(`b`) "
       "REFERENCES `p`.`q`(`x`))\n",
       0, 1},
  };
  for (const char* foreign : {"", "[]", "{}", "\"text\"", "[1", "null"})
    cases.push_back({foreign, "", 0, 0});  // empty or foreign shapes give nothing, silently
  // Identifiers of every length past the widest copy piece, of distinct bytes.
  Case lengths{"", "", 0, 1};
  for (std::string id = "a"; id.size() <= 21; id += static_cast<char>('a' + id.size())) {
    const std::string column = "{\"name\": \"" + id + "\", \"type\": \"" + id + "\"}";
    lengths.structure += ",{\"name\": \"" + id + "\", \"fields\": [" + column + "," + column +
                         "], \"pkeys\": [\"" + id + "\"]}";
    lengths.digest += "CREATE TABLE `" + id + "` (`" + id + "` " + id + ", `" + id + "` " + id +
                      ", PRIMARY KEY(`" + id + "`))\n";
  }
  lengths.structure = R"~([{"schemas": [{"tables": [)~" + lengths.structure.substr(1) + "]}]}]";
  cases.push_back(lengths);
  // A right value overwritten by a wrong one rejects, as a lookup would.
  const std::string objects = R"~("schemas": [{"tables": [{"name": "t", "fields": [], "name": null},
      {"name": "u", "fields": [{"name": "a", "type": "int", "type": 5}]},
      {"name": "v", "fields": []}]}])~";
  cases.push_back({"[{" + objects + R"~(, "catalog_name": "c", "catalog_name": []}])~", "", 1, 0});
  cases.push_back({"[{" + objects + "}]", "\n\nCREATE TABLE `v` ()\n", 2, 1});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.structure.substr(0, 160));
    AssertionRecorder assertions;
    EXPECT_EQ(digestOf(c.structure), c.digest);
    const auto reports = assertions.take();
    EXPECT_EQ(reports.size(), kAssertionsReported ? c.reports : 0u);
    for (const auto& report : reports)
      EXPECT_EQ(report, AssertionRecorder::Report("false", "qor_assistant_properties"));
    EXPECT_EQ(textFromTree(), c.digest);
    EXPECT_EQ(record.obtainDatabaseTree().size(), c.catalogs);
  }
}

TEST_F(Digest, CombinedInstructionsJoinTheThreeSources) {
  EXPECT_EQ(record.obtainCombinedInstructions(), "");

  record.setValue("user_instructions", YLVariant("Answer in French."));
  EXPECT_EQ(record.obtainCombinedInstructions(), "Answer in French.\n\n");

  // Merged entry by entry: an empty text removes one, a non-string is reported and passed over.
  record.setValue("user_instructions", YLVariant(""));
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"b", "Prefer joins."}}));
  EXPECT_EQ(record.obtainCombinedInstructions(), "Prefer joins.\n");
  AssertionRecorder assertions;
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"c", YLVariant(3)}}));
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{}));
  EXPECT_EQ(record.obtainValue("system_instructions"),
            YLVariant(YLVariantMap{{"b", "Prefer joins."}}));
  EXPECT_EQ(assertions.take(), std::vector<AssertionRecorder::Report>(
                                   kAssertionsReported ? 1 : 0,
                                   {"kv.second.getValueType() == YLVariant::ValueType::String",
                                    "qor_assistant_properties"}));

  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"b", ""}}));
  memory.setDatabaseStructure(kShop);
  EXPECT_EQ(record.obtainCombinedInstructions(), std::string(kShopDigest) + "\n");

  record.setValue("user_instructions", YLVariant("Answer in French."));
  ASSERT_TRUE(record.setValue("system_instructions",
                              YLVariantMap{{"b", "Prefer joins."}, {"a", "Be brief."}}));
  const std::string expected =
      "Answer in French.\n\nBe brief.\nPrefer joins.\n" + std::string(kShopDigest) + "\n";
  EXPECT_EQ(record.obtainCombinedInstructions(), expected);
  EXPECT_EQ(record.obtainValue("combined_instructions"), YLVariant(expected));

  // Blanks count as instructions; upper-case keys sort first.
  record.setValue("user_instructions", YLVariant("  "));
  memory.setDatabaseStructure("");
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"Z", "upper"}}));
  EXPECT_EQ(record.obtainCombinedInstructions(), "  \n\nupper\nBe brief.\nPrefer joins.\n");
}

}  // namespace
