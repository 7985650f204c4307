// Tests what SchemaScope chooses for a question and that its sizes are those of the digest the
// library really makes of the chosen structure.
#include "schema_scope.h"

#include "helpers.h"

namespace {

using qorchat::SchemaScope;
using qortest::digestOf;
using Names = std::vector<std::string>;

// Everything the digest treats in its own way: a named and an unnamed catalog, schema names,
// qualified and unqualified references, keys without columns, an empty table, views of both
// kinds, names with quotes and non-ASCII letters, and a description the library rejects.
const std::string kVaried = R"([
  {"catalog_name": "shop", "catalog_id": "c1", "schemas": [
    {"schema_name": "sales", "schema_id": "s1",
     "tables": [
       {"name": "customers", "fields": [{"name": "id", "type": "INTEGER"},
                                        {"name": "näme", "type": "TEXT"}], "pkeys": ["id"]},
       {"name": "orders", "fields": [{"name": "id", "type": "INTEGER"},
                                     {"name": "customer_id", "type": "INTEGER"}],
        "pkeys": ["id"],
        "fkeys": [{"fields": ["customer_id"], "ref_table": "customers", "ref_fields": ["id"]},
                  {"fields": [], "ref_table": "customers", "ref_fields": ["id"]}]},
       {"name": "empty", "fields": []},
       {"name": "broken"}],
     "views": [{"name": "big \"spenders\"", "fields": [{"name": "id", "type": ""}]}],
     "mviews": [{"name": "totals", "fields": [{"name": "n", "type": "BIGINT"}]}]},
    {"tables": [
       {"name": "audit", "fields": [{"name": "order_id", "type": "INTEGER"}],
        "fkeys": [{"fields": ["order_id"], "ref_schema": "sales", "ref_table": "orders",
                   "ref_fields": ["id"]}]}]}]},
  {"schemas": [{"schema_name": "", "tables": [
       {"name": "loose", "fields": [{"name": "x", "type": "TEXT"}]}]}]}
])";

TEST(SchemaScope, ItsSizesAreThoseOfTheRealDigest) {
  const std::size_t real = digestOf(kVaried).size();
  ASSERT_GT(real, 0u);
  const SchemaScope measured(kVaried, 1);
  EXPECT_FALSE(measured.fitsWhole());
  EXPECT_EQ(measured.wholeDigestBytes(), real);
  EXPECT_EQ(measured.objectCount(), 7u);  // the rejected description cannot be listed

  // Every budget, up to the whole: the size reported is the real one, within the budget.
  for (std::size_t budget = 1; budget < real; budget += 7) {
    SCOPED_TRACE(budget);
    const SchemaScope scope(kVaried, budget);
    const SchemaScope::Choice choice = scope.choose({"orders"});
    const std::string digest = digestOf(choice.structure);
    EXPECT_EQ(digest.size(), choice.digestBytes);
    EXPECT_LE(choice.digestBytes, budget);
    EXPECT_EQ(choice.total, 7u);
  }

  const SchemaScope whole(kVaried, real);
  EXPECT_TRUE(whole.fitsWhole());
  EXPECT_EQ(whole.wholeStructure(), kVaried);
  EXPECT_TRUE(SchemaScope(kVaried, 0).fitsWhole());
}

// A chain a0 <- a1 <- ... <- a9 (each references the one before) and loose tables z0..z9, all
// of one size, with a budget for five tables.
std::string chains() {
  std::string text = R"([{"catalog_name":"main","schemas":[{"tables":[)";
  for (int i = 0; i < 10; ++i) {
    if (i > 0) text += ',';
    text += R"({"name":"a)" + std::to_string(i) + R"(","fields":[{"name":"id","type":"INTEGER"}])";
    if (i > 0) {
      text += R"(,"fkeys":[{"fields":["id"],"ref_table":"a)" + std::to_string(i - 1) +
              R"(","ref_fields":["id"]}])";
    }
    text += '}';
  }
  for (int i = 0; i < 10; ++i)
    text += R"(,{"name":"z)" + std::to_string(i) + R"(","fields":[{"name":"id","type":"TEXT"}]})";
  text += "]}]}]";
  return text;
}

Names listedIn(const std::string& structure) {
  const std::string digest = digestOf(structure);
  Names names;
  for (std::size_t at = digest.find("CREATE TABLE `"); at != std::string::npos;
       at = digest.find("CREATE TABLE `", at + 1)) {
    const std::size_t start = at + 14;
    names.push_back(digest.substr(start, digest.find('`', start) - start));
  }
  return names;
}

TEST(SchemaScope, NamedTablesComeFirstThenTheirNeighboursThenTheRest) {
  // "USE CATALOG `main`\n" and five lines of "CREATE TABLE `a1` (`id` INTEGER, FOREIGN ...)".
  const std::string structure = chains();
  const SchemaScope probe(structure, 1);
  const SchemaScope::Choice none = probe.choose({});
  EXPECT_EQ(none.listed, 0u);
  EXPECT_EQ(none.structure, "[]");

  // Room for the catalog line and exactly three of the z tables, or fewer a tables.
  const std::size_t zLine = std::string("CREATE TABLE `z0` (`id` TEXT)\n").size();
  const std::size_t catalogLine = std::string("USE CATALOG `main`\n").size();
  const SchemaScope scope(structure, catalogLine + 3 * zLine);

  // Case does not matter, whole identifiers only ("z77" and "xz1" name nothing), and a quoted
  // name counts. What is left goes to the rest in their order: a0 no longer fits, z0 does. The
  // digest keeps the structure's order.
  EXPECT_EQ(listedIn(scope.choose({"What is in Z7, z77, xz1 and \"z2\"?"}).structure),
            (Names{"z0", "z2", "z7"}));
  // Neighbours in both directions, nearest first: a5 references a4 and is referenced by a6.
  const SchemaScope roomy(structure, catalogLine + 4 * std::size_t{60});
  const Names around = listedIn(roomy.choose({"Tell me about a5"}).structure);
  ASSERT_GE(around.size(), 3u);
  EXPECT_EQ(Names(around.begin(), around.begin() + 3), (Names{"a4", "a5", "a6"}));
  // The question comes before the history; qualified names match the catalog or schema.
  const SchemaScope::Choice both = scope.choose({"main.z9 please", "earlier: z4, z5, z6"});
  EXPECT_EQ(listedIn(both.structure), (Names{"z4", "z5", "z9"}));
  EXPECT_EQ(both.listed, 3u);
  EXPECT_EQ(both.total, 20u);
}

TEST(SchemaScope, TheInstructionGivesBothCounts) {
  EXPECT_EQ(SchemaScope::instruction(999, 1234567),
            "The database has 1,234,567 tables and views; the structure lists 999 of them. Ask "
            "for others by name.");
}

}  // namespace
