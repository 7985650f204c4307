// The database digest and the combined instructions, byte for byte, and the one verdict a
// structure text gets wherever it is parsed.

#include <gtest/gtest.h>

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
  // The statement of one object description in schema "s".
  std::string statementOf(const std::string& description, const char* kind = "TABLE") {
    const YLJson json(description);
    return QORAssistantProperties::composeCreateStatement("s", kind, &json);
  }
  // What the text must be by its definition: the tree's lines, catalog by catalog.
  std::string textFromTree() {
    std::string text;
    for (const YLVariant& catalog : record.obtainDatabaseTree()) {
      const YLVariantMap map = catalog.mapValue();
      QORAssistantProperties::appendInstructionLines(text, map.at("instructions"));
      for (const YLVariant& schema : map.at("schemas").listValue()) {
        QORAssistantProperties::appendInstructionLines(text, schema.mapValue().at("instructions"));
      }
    }
    return text;
  }

  QORDefaultAssistantMemory memory;
  QORAssistantProperties record{&memory};
};

TEST_F(Digest, WorkedExampleGivesTheTextAndTheTree) {
  EXPECT_EQ(digestOf(kShop), kShopDigest);

  const YLVariantList tree = record.obtainDatabaseTree();
  ASSERT_EQ(tree.size(), 1u);
  YLVariantMap catalog = tree[0].mapValue();
  const YLVariantList schemas = catalog.at("schemas").listValue();
  ASSERT_EQ(schemas.size(), 1u);
  YLVariantMap schema = schemas[0].mapValue();
  EXPECT_EQ(schema.at("instructions").listValue().size(), 3u);
  catalog.erase("schemas");
  schema.erase("instructions");
  EXPECT_EQ(catalog, (YLVariantMap{{"catalog_id", "c1"},
                                   {"catalog_name", "shop"},
                                   {"instructions", YLVariantList{"USE CATALOG `shop`"}}}));
  EXPECT_EQ(schema, (YLVariantMap{{"schema_id", "s1"}, {"schema_name", "sales"}}));
  EXPECT_EQ(textFromTree(), kShopDigest);

  // What the host reads back is the tree, not what it stored.
  EXPECT_EQ(record.obtainValue("db_structure"), YLVariant(tree));
}

TEST_F(Digest, UnnamedCatalogsComeFirstInReverseOrder) {
  const std::string structure = R"~([
    {"catalog_id": "A", "schemas": [{"tables": [{"name": "a", "fields": []}]}]},
    {"catalog_name": "B", "schemas": []},
    {"catalog_name": "", "schemas": [{"tables": [{"name": "c", "fields": []}]}]},
    {"catalog_name": "D", "schemas": []}])~";
  EXPECT_EQ(digestOf(structure),
            "USE CATALOG ``\nCREATE TABLE `c` ()\n"
            "CREATE TABLE `a` ()\n"
            "USE CATALOG `B`\n"
            "USE CATALOG `D`\n");
  EXPECT_EQ(textFromTree(), digestOf(structure));

  // Rejected catalogs take no place in the order; the rule holds for any number of catalogs.
  std::string many = "[";
  std::string expectedUnnamed;
  std::string expectedNamed;
  for (int i = 0; i < 40; ++i) {
    const std::string n = std::to_string(i);
    if (i > 0) many += ",";
    if (i % 3 == 0) {
      many += R"~({"schemas": [{"tables": [{"name": "t)~" + n + R"~(", "fields": []}]}]})~";
      expectedUnnamed.insert(0, "CREATE TABLE `t" + n + "` ()\n");
    } else if (i % 3 == 1) {
      many += R"~({"catalog_name": "n)~" + n + R"~(", "schemas": []})~";
      expectedNamed += "USE CATALOG `n" + n + "`\n";
    } else {
      many += R"~({"catalog_name": 5, "schemas": []})~";
    }
  }
  many += "]";
  AssertionRecorder assertions;
  EXPECT_EQ(digestOf(many), expectedUnnamed + expectedNamed);
  EXPECT_EQ(textFromTree(), expectedUnnamed + expectedNamed);
}

TEST_F(Digest, StatementsFollowTheirGrammar) {
  // Kinds in their order whatever the key order; an empty schema name gives no qualifier.
  EXPECT_EQ(digestOf(R"~([{"schemas": [{"schema_name": "",
      "mviews": [{"name": "mv", "fields": [{"name": "a", "type": "int"}]}],
      "views": [{"name": "v", "fields": []}],
      "tables": [{"name": "t", "fields": []}, {"name": "t", "fields": []}]}]}])~"),
            "CREATE TABLE `t` ()\nCREATE TABLE `t` ()\nCREATE VIEW `v` ()\n"
            "CREATE MATERIALIZED VIEW `mv` (`a` int)\n");

  // Empty fields stop the statement before the keys are even looked at.
  EXPECT_EQ(statementOf(R"~({"name": "t", "fields": [], "pkeys": [1], "fkeys": [7]})~"),
            "CREATE TABLE `s`.`t` ()");
  // Two-column keys; an empty ref_schema still qualifies; no ref_schema does not.
  EXPECT_EQ(statementOf(R"~({"name": "t", "fields": [{"name": "a", "type": "int"},
      {"name": "b", "type": "text"}], "pkeys": ["a", "b"], "fkeys": [
      {"fields": ["a", "b"], "ref_schema": "", "ref_table": "r", "ref_fields": ["x", "y"]},
      {"fields": [], "ref_table": "skipped", "ref_fields": [1]},
      {"fields": ["a"], "ref_table": "q", "ref_fields": ["z"]}]})~"),
            "CREATE TABLE `s`.`t` (`a` int, `b` text, PRIMARY KEY(`a`, `b`), FOREIGN KEY(`a`, "
            "`b`) REFERENCES ``.`r`(`x`, `y`), FOREIGN KEY(`a`) REFERENCES `q`(`z`))");
  EXPECT_EQ(statementOf(R"~({"name": "t", "fields": [{"name": "a", "type": "int"}], "pkeys": [],
      "fkeys": []})~",
                        "VIEW"),
            "CREATE VIEW `s`.`t` (`a` int)");
  // Bytes pass unchanged: backticks are not doubled, a line feed splits the line.
  EXPECT_EQ(statementOf("{\"name\": \"a`b\\nc\", \"fields\": [{\"name\": \"\\u00e9\", "
                        "\"type\": \"x\"}]}"),
            "CREATE TABLE `s`.`a`b\nc` (`\xC3\xA9` x)");
  // Keys compare after escapes are decoded.
  EXPECT_EQ(statementOf(R"~({"n\u0061me": "t", "fields": []})~"), "CREATE TABLE `s`.`t` ()");
}

TEST_F(Digest, EmptyOrForeignShapesGiveNothing) {
  for (const char* structure : {"", "[]", "{}", "\"text\"", "[1", "null"}) {
    AssertionRecorder assertions;
    EXPECT_EQ(digestOf(structure), "") << structure;
    EXPECT_TRUE(record.obtainDatabaseTree().empty()) << structure;
    EXPECT_TRUE(assertions.take().empty()) << "silent for " << structure;
  }
  // A catalog without a name and without schemas is an entry of the tree but writes nothing.
  EXPECT_EQ(digestOf(R"~([{"schemas": []}, {"catalog_name": "x", "schemas": [{}]}])~"),
            "USE CATALOG `x`\n");
  EXPECT_EQ(record.obtainDatabaseTree().size(), 2u);
}

TEST_F(Digest, EveryRejectionIsReportedAndLeavesItsTrace) {
  struct Case {
    const char* structure;
    const char* digest;
    std::size_t reports;
  };
  const Case cases[] = {
      // Catalogs passed over.
      {R"~([null, 3, {"catalog_id": 1, "schemas": []}, {"catalog_name": null, "schemas": []},
           {"catalog_name": "x"}, {"catalog_name": "y", "schemas": {}}, {"catalog_name": "ok",
           "schemas": []}])~",
       "USE CATALOG `ok`\n", 6},
      // Schemas passed over, their catalog stands.
      {R"~([{"catalog_name": "c", "schemas": [null, [], {"schema_id": 2}, {"schema_name": []},
           {"tables": {}}, {"views": null}, {"mviews": "x"},
           {"tables": [{"name": "kept", "fields": []}]}]}])~",
       "USE CATALOG `c`\nCREATE TABLE `kept` ()\n", 7},
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
       "CREATE TABLE `a` ()\n\n\n\n\n\n\n\n\n\n\n\n\nCREATE TABLE `z` ()\n", 12},
  };
  for (const Case& c : cases) {
    AssertionRecorder assertions;
    EXPECT_EQ(digestOf(c.structure), c.digest) << c.structure;
    const auto reports = assertions.take();
    if (kAssertionsReported) {
      ASSERT_EQ(reports.size(), c.reports) << c.structure;
      for (const auto& report : reports) {
        EXPECT_EQ(report, AssertionRecorder::Report("false", "qor_assistant_properties"));
      }
    }
    EXPECT_EQ(textFromTree(), c.digest);
  }
  // Rejecting needs no structure at all.
  AssertionRecorder assertions;
  EXPECT_EQ(QORAssistantProperties::composeCreateStatement("s", "TABLE", nullptr), "");
  if (kAssertionsReported) {
    EXPECT_EQ(assertions.take().size(), 1u);
  }
}

TEST_F(Digest, CombinedInstructionsJoinTheThreeSources) {
  EXPECT_EQ(record.obtainCombinedInstructions(), "");

  record.userInstructions = "Answer in French.";
  EXPECT_EQ(record.obtainCombinedInstructions(), "Answer in French.\n\n");

  record.userInstructions.clear();
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"b", "Prefer joins."}}));
  EXPECT_EQ(record.obtainCombinedInstructions(), "Prefer joins.\n");

  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"b", ""}}));
  memory.setDatabaseStructure(kShop);
  EXPECT_EQ(record.obtainCombinedInstructions(), std::string(kShopDigest) + "\n");

  record.userInstructions = "Answer in French.";
  ASSERT_TRUE(record.setValue("system_instructions",
                              YLVariantMap{{"b", "Prefer joins."}, {"a", "Be brief."}}));
  const std::string expected =
      "Answer in French.\n\nBe brief.\nPrefer joins.\n" + std::string(kShopDigest) + "\n";
  EXPECT_EQ(record.obtainCombinedInstructions(), expected);
  EXPECT_EQ(record.obtainValue("combined_instructions"), YLVariant(expected));

  // Blanks count as instructions; upper-case keys sort first.
  record.userInstructions = "  ";
  memory.setDatabaseStructure("");
  ASSERT_TRUE(record.setValue("system_instructions", YLVariantMap{{"Z", "upper"}}));
  EXPECT_EQ(record.obtainCombinedInstructions(), "  \n\nupper\nBe brief.\nPrefer joins.\n");
}

// A structure of one table whose name ends in `tail`, padded so that the text's length takes each
// of 16 values: where the wide scanners start inside the name differs between them.
std::string paddedStructure(std::size_t pad, const std::string& tail) {
  return R"~([{"schemas":[{"tables":[{"name":")~" + std::string(20 + pad, 't') + tail +
         R"~(","fields":[]}]}]}])~";
}

bool setStructure(IQORAssistant& assistant, const std::string& text) {
  bool stored = false;
  assistant.updateProperties(
      [&](IQORProperties* p) { stored = p->setValue("db_structure", YLVariant(text)); });
  return stored;
}

// The digest of the text parsed from a copy, and in place from buffers without and with room.
std::vector<std::string> digestsInEveryBuffer(const std::string& text) {
  std::string exact = text, roomy;
  roomy.reserve(text.size() + 64);
  roomy = text;
  return {QORDatabaseDigest::buildText(text), QORDatabaseDigest::buildText(std::move(exact)),
          QORDatabaseDigest::buildText(std::move(roomy))};
}

TEST(StructureText, OneVerdictWhereverTheTextIsParsed) {
  // A raw control byte is not JSON: setValue refuses the text, and the digest of a memory that
  // holds it anyway (a host's store may) is empty, for every length and every buffer. Escaped, the
  // same byte is accepted by both.
  AssistantPtr assistant = create(QORAssistantType::OPENAI_v1, offlineHost());
  AssertionRecorder assertions;
  for (std::size_t pad = 0; pad < 16; ++pad) {
    SCOPED_TRACE(pad);
    const std::string raw = paddedStructure(pad, "\x1f");
    EXPECT_FALSE(setStructure(*assistant, raw));
    EXPECT_EQ(assertions.take().size(), kAssertionsReported ? 1u : 0u) << "refused and reported";
    EXPECT_EQ(digestsInEveryBuffer(raw), std::vector<std::string>(3, ""));

    const std::string escaped = paddedStructure(pad, "\\u001f");
    EXPECT_TRUE(setStructure(*assistant, escaped));
    const std::string statement = "CREATE TABLE `" + std::string(20 + pad, 't') + "\x1f` ()\n";
    EXPECT_EQ(digestsInEveryBuffer(escaped), std::vector<std::string>(3, statement));
  }
}

}  // namespace
