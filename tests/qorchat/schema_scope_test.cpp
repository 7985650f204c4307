// Tests what SchemaScope chooses for a question, and that the sizes it works with are those of the
// text the library really makes of the chosen structure.
#include "schema_scope.h"

#include <algorithm>

#include "helpers.h"

namespace {

using namespace qorchat;
using qortest::digestOf;
using Names = std::vector<std::string>;

Relation table(std::string name, std::vector<Column> columns, std::vector<ForeignKey> keys = {}) {
  return Relation{std::move(name), std::move(columns), {}, std::move(keys)};
}

// What the library writes in its own way: a named catalog and an empty-named one, schema names
// and none, qualified and unqualified references, a key without columns, an empty table, views
// of both kinds, names with quotes and non-ASCII letters.
Structure varied() {
  Structure structure;
  Catalog& shop = structure.catalogs.emplace_back(Catalog{"shop", {}});
  auto& sales = shop.schemas.emplace_back();
  sales.name = "sales";
  auto& tables = sales.relations[static_cast<int>(RelationKind::kTable)];
  tables.push_back(table("customers", {{"id", "INTEGER"}, {"näme", "TEXT"}}));
  tables.back().primaryKey = {"id"};
  tables.push_back(table("orders", {{"id", "INTEGER"}, {"customer_id", "INTEGER"}},
                         {{{"customer_id"}, std::nullopt, "customers", {"id"}},
                          {{}, std::nullopt, "customers", {"id"}}}));
  tables.push_back(table("empty", {}));
  sales.relations[static_cast<int>(RelationKind::kView)].push_back(
      table("big \"spenders\"", {{"id", ""}}));
  sales.relations[static_cast<int>(RelationKind::kMaterializedView)].push_back(
      table("totals", {{"n", "BIGINT"}}));
  auto& unnamed = shop.schemas.emplace_back();
  unnamed.relations[0].push_back(
      table("audit", {{"order_id", "INTEGER"}}, {{{"order_id"}, "sales", "orders", {"id"}}}));
  structure.catalogs.push_back(Catalog{"", {}});
  structure.catalogs.back().schemas.emplace_back().relations[0].push_back(
      table("loose", {{"x", "TEXT"}}));
  return structure;
}

TEST(SchemaScope, ItsSizesAreThoseOfTheRealText) {
  const Structure structure = varied();
  const std::size_t real = digestOf(structureJson(structure)).size();
  EXPECT_EQ(qorchat::measureDigest(structure).total, real);

  // Every budget, up to the whole: the size reported is the real one, within the budget.
  for (std::size_t budget = 1; budget < real; budget += 7) {
    SCOPED_TRACE(budget);
    const SchemaScope scope(structure, budget);
    EXPECT_FALSE(scope.fitsWhole());
    const SchemaScope::Choice choice = scope.choose({"orders"});
    EXPECT_EQ(digestOf(structureJson(structure, &choice.chosen)).size(), choice.digestBytes);
    EXPECT_LE(choice.digestBytes, budget);
    EXPECT_EQ(choice.total, 7u);
  }
  EXPECT_TRUE(SchemaScope(structure, real).fitsWhole() && SchemaScope(structure, 0).fitsWhole());
}

// A chain a0 <- a1 <- ... <- a9 (each references the one before) and loose tables z0..z9.
Structure chains() {
  Structure structure;
  auto& tables = structure.catalogs.emplace_back(Catalog{"main", {}})
                     .schemas.emplace_back()
                     .relations[static_cast<int>(RelationKind::kTable)];
  for (int i = 0; i < 10; ++i) {
    std::vector<ForeignKey> keys;
    if (i > 0) keys.push_back({{"id"}, std::nullopt, "a" + std::to_string(i - 1), {"id"}});
    tables.push_back(table("a" + std::to_string(i), {{"id", "INTEGER"}}, std::move(keys)));
  }
  for (int i = 0; i < 10; ++i)
    tables.push_back(table("z" + std::to_string(i), {{"id", "TEXT"}}));
  return structure;
}

Names listedIn(const Structure& structure, const SchemaScope::Choice& choice) {
  const std::string digest = digestOf(structureJson(structure, &choice.chosen));
  Names names;
  for (std::size_t at = digest.find("CREATE TABLE `"); at != std::string::npos;
       at = digest.find("CREATE TABLE `", at + 1)) {
    const std::size_t start = at + 14;
    names.push_back(digest.substr(start, digest.find('`', start) - start));
  }
  return names;
}

TEST(SchemaScope, NamedTablesComeFirstThenTheirNeighboursThenTheRest) {
  const Structure structure = chains();
  EXPECT_EQ(SchemaScope(structure, 1).choose({}).listed, 0u);

  // Room for the catalog line and exactly three of the z tables, or fewer a tables.
  const std::size_t zLine = std::string("CREATE TABLE `z0` (`id` TEXT)\n").size();
  const std::size_t catalogLine = std::string("USE CATALOG `main`\n").size();
  const SchemaScope scope(structure, catalogLine + 3 * zLine);

  // Case does not matter, whole identifiers only ("z77" and "xz1" name nothing), and a quoted
  // name counts. What is left goes to the rest in their order: a0 no longer fits, z0 does. The
  // text keeps the structure's order.
  EXPECT_EQ(listedIn(structure, scope.choose({"What is in Z7, z77, xz1 and \"z2\"?"})),
            (Names{"z0", "z2", "z7"}));
  // Neighbours in both directions, nearest first: a5 references a4 and is referenced by a6.
  const SchemaScope roomy(structure, catalogLine + 4 * std::size_t{60});
  const Names around = listedIn(structure, roomy.choose({"Tell me about a5"}));
  ASSERT_GE(around.size(), 3u);
  EXPECT_EQ(Names(around.begin(), around.begin() + 3), (Names{"a4", "a5", "a6"}));
  // The question comes before the history; qualified names match the catalog or schema.
  const SchemaScope::Choice both = scope.choose({"main.z9 please", "earlier: z4, z5, z6"});
  EXPECT_EQ(listedIn(structure, both), (Names{"z4", "z5", "z9"}));
  EXPECT_EQ(both.listed, 3u);
  EXPECT_EQ(both.total, 20u);
  // What the model asks for comes before what the question names; its names as it writes them.
  EXPECT_EQ(listedIn(structure, scope.choose({"z4, z5, z6"}, scope.relationsNamed("`main`.Z8"))),
            (Names{"z4", "z5", "z8"}));
  EXPECT_TRUE(scope.relationsNamed("main.z99").empty() && scope.relationsNamed("q.z8").empty());
}

// Fillers first, so that creation order alone would choose them; then tables that only a rule of
// the ranking finds.
Structure applications() {
  Structure structure;
  auto& tables = structure.catalogs.emplace_back(Catalog{"main", {}})
                     .schemas.emplace_back()
                     .relations[static_cast<int>(RelationKind::kTable)];
  for (int i = 0; i < 6; ++i)
    tables.push_back(table("filler" + std::to_string(i), {{"id", "TEXT"}}));
  tables.push_back(table("page", {{"page_id", "INTEGER"}, {"page_title", "TEXT"}}));
  tables.push_back(table("category", {{"cat_title", "TEXT"}}));
  tables.push_back(table("statuses", {{"code", "INTEGER"}}));
  tables.push_back(table("app_alerts", {{"raised", "TEXT"}}));
  tables.push_back(table("OrderItems", {{"sku", "TEXT"}}));
  tables.push_back(table("radacct", {{"username", "TEXT"}, {"acctstarttime", "TEXT"}}));
  tables.push_back(table("hosts", {{"id", "INTEGER"}}));
  tables.push_back(table("checks", {{"hostid", "INTEGER"}, {"result", "TEXT"}}));
  tables.push_back(table("revision", {{"rev_page", "INTEGER"}, {"rev_note", "TEXT"}}));
  tables.push_back(table("mon_a", {{"x", "TEXT"}}));
  tables.push_back(table("mon_b", {{"x", "TEXT"}}));
  return structure;
}

TEST(SchemaScope, RanksByTheWordsOfNamesAndColumnsThenNeighboursThenWhatIsNear) {
  const Structure structure = applications();
  const DigestSizes sizes = measureDigest(structure);
  const std::vector<RelationPlace> places = relationPlaces(structure);
  const auto lineOf = [&](const std::string& name) {
    for (std::size_t i = 0; i < places.size(); ++i)
      if (relationAt(structure, places[i]).name == name) return sizes.relationLines[i];
    return std::size_t{0};
  };
  struct Case {
    const char* question;
    Names expected;  // exactly what fits a budget of their lines
  };
  const Case cases[] = {
      {"How many pages are there?", {"page"}},
      {"list all categories", {"category"}},
      {"which status codes exist", {"statuses"}},
      {"show the alerts raised today", {"app_alerts"}},
      {"the order items of last week", {"OrderItems"}},
      {"acctstarttime of username joe", {"radacct"}},
      // Neighbours by column name: hostid and rev_page point to hosts and page.
      {"failed checks", {"checks", "hosts"}},
      {"the latest revision", {"page", "revision"}},
      // What is near comes before the rest: the same name prefix.
      {"mon_a", {"mon_a", "mon_b"}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.question);
    std::size_t budget = sizes.catalogLines[0];
    for (const std::string& name : each.expected)
      budget += lineOf(name);
    const SchemaScope scope(structure, budget);
    Names listed = listedIn(structure, scope.choose({each.question}));
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, each.expected);
  }
}

TEST(SchemaScope, TheInstructionGivesBothCounts) {
  EXPECT_EQ(SchemaScope::instruction(999, 1234567),
            "The database has 1,234,567 tables and views; the structure lists 999 of them. Ask "
            "for others by name.");
}

}  // namespace
