// Tests what is known of the model's SQL before it runs: checks and plans on both engines, the
// comments PostgreSQL keeps given to the model, and the user's notes read, cut and edited.
#include <thread>

#include "db/postgres.h"
#include "db/sqlite.h"
#include "helpers.h"
#include "instructions.h"
#include "notes.h"
#include "postgres_cluster.h"

namespace {

using qorchat::Status;
using qortest::has;

constexpr const char* kItems =
    "CREATE TABLE items (id integer PRIMARY KEY, name text, price numeric);"
    "INSERT INTO items VALUES (1, 'pen', 1.5), (2, 'ink', 4);";

// Each case with the engines' own words; a refusal is the runner's.
struct CheckCase {
  const char* sql;
  Status::Kind kind;
  const char* sqliteMessage;
  const char* postgresMessage;
};
const CheckCase kCheckCases[] = {
    {"SELECT name FROM items WHERE price > 2", Status::Kind::kOk, "", ""},
    // Stepped even once, it would never end.
    {"WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c",
     Status::Kind::kOk, "", ""},
    {"SELECT nonsense FROM items", Status::Kind::kDatabase, "no such column: nonsense",
     "column \"nonsense\" does not exist"},
    {"SELEC name FROM items", Status::Kind::kDatabase, "near \"SELEC\": syntax error",
     "syntax error at or near \"SELEC\""},
    {"DELETE FROM items", Status::Kind::kRefused, nullptr, nullptr},
    {"SELECT 1; SELECT missing FROM items;", Status::Kind::kDatabase, "no such column: missing",
     "column \"missing\" does not exist"},
    {"SELECT 1; UPDATE items SET price = 0", Status::Kind::kRefused, nullptr, nullptr},
};

void expectChecks(qorchat::Database& database, bool postgres) {
  for (const CheckCase& c : kCheckCases) {
    const qorchat::Result<std::string> checked = database.check(c.sql);
    EXPECT_EQ(checked.status().kind(), c.kind) << c.sql << ": " << checked.status().message();
    const char* message = postgres ? c.postgresMessage : c.sqliteMessage;
    const std::string expected =
        message != nullptr ? message : qortest::ran(database, c.sql).back().status.message();
    EXPECT_EQ(checked.status().message(), expected) << c.sql;
    EXPECT_EQ(checked ? *checked : "", "") << c.sql;
  }
  EXPECT_EQ(qortest::ran(database, "SELECT count(*) FROM items").at(0).rows.at(0).at(0), "2");
}

TEST(SqlCheck, SqliteCompilesUnderTheRunnersGuard) {
  const qortest::TempDir dir;
  qortest::sqlite(dir.path / "shop.db", kItems);
  const auto database = qortest::opened(qorchat::SqliteDatabase::open(dir.path / "shop.db"));
  expectChecks(*database, false);

  const auto plan = database->explain("SELECT name FROM items WHERE id = 1; SELECT * FROM items");
  ASSERT_TRUE(plan) << plan.status().message();
  EXPECT_EQ(*plan, "SEARCH items USING INTEGER PRIMARY KEY (rowid=?)\n\nSCAN items");
  EXPECT_EQ(database->explain("DROP TABLE items").status().kind(), Status::Kind::kRefused);
}

TEST(SqlCheck, PostgresExplainsInARunsSession) {
  qortest::PostgresCluster& cluster = qortest::PostgresCluster::shared();
  const std::string name = cluster.createDatabase();
  cluster.execute(std::string(kItems) +
                      "CREATE FUNCTION slow() RETURNS integer IMMUTABLE LANGUAGE plpgsql AS "
                      "'BEGIN PERFORM pg_sleep(20); RETURN 1; END';",
                  name);
  const auto database =
      qortest::opened(qorchat::PostgresDatabase::connect(cluster.readerConninfo(name)));
  expectChecks(*database, true);

  EXPECT_EQ(database->check("SHOW work_mem; SELECT 1").value(),
            "not checked without running it: SHOW work_mem;");
  const auto plan = database->explain("SELECT name FROM items; SHOW work_mem");
  ASSERT_TRUE(plan) << plan.status().message();
  EXPECT_TRUE(has(*plan, "Seq Scan on items") &&
              has(*plan, "\n\n(not planned without running it: SHOW work_mem)"))
      << *plan;

  // Planning folds the immutable call, which sleeps: Ctrl-C stops the check.
  std::thread ctrlC([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    database->interrupt();
  });
  const auto started = std::chrono::steady_clock::now();
  const auto stopped = database->check("SELECT slow()");
  ctrlC.join();
  EXPECT_EQ(stopped.status().kind(), Status::Kind::kCancelled) << stopped.status().message();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

TEST(SqlCheck, PostgresCommentsReachTheInstructionWithinItsBound) {
  qortest::PostgresCluster& cluster = qortest::PostgresCluster::shared();
  const std::string name = cluster.createDatabase();
  cluster.execute(std::string(kItems) + R"(CREATE SCHEMA sales;
    CREATE TABLE sales.orders (id integer, "Total" integer, note text);
    CREATE VIEW cheap AS SELECT name FROM items WHERE price < 2;
    COMMENT ON TABLE items IS 'What the shop sells';
    COMMENT ON COLUMN items.price IS E'In euros,\n   tax included';
    COMMENT ON COLUMN sales.orders."Total" IS 'In cents';
    COMMENT ON VIEW cheap IS 'Items under two euros';)",
                  name);
  const auto database =
      qortest::opened(qorchat::PostgresDatabase::connect(cluster.readerConninfo(name)));
  const auto structure = database->describe();
  ASSERT_TRUE(structure) << structure.status().message();
  const std::string all =
      "Comments the database keeps on its objects:\npublic.items: What the shop sells\n"
      "public.items.price: In euros, tax included\npublic.cheap: Items under two euros\n"
      "sales.orders.\"Total\": In cents";
  const std::vector<bool> noView = {true, false, true};  // public.items, public.cheap, orders
  const struct {
    const std::vector<bool>* chosen;
    std::size_t maxBytes;
    std::string expected;
  } cases[] = {
      {nullptr, 1000, all},
      {&noView, 1000,
       "Comments the database keeps on its objects:\npublic.items: What the shop sells\n"
       "public.items.price: In euros, tax included\nsales.orders.\"Total\": In cents"},
      {nullptr, 120,
       "Comments the database keeps on its objects:\npublic.items: What the shop sells\n(3 more "
       "left out)"},
      {nullptr, 40, ""},
  };
  for (const auto& c : cases) {
    const std::string text = qorchat::commentsInstruction(*structure, c.chosen, c.maxBytes);
    EXPECT_EQ(text, c.expected) << c.maxBytes;
    EXPECT_LE(text.size(), c.maxBytes);
  }
}

TEST(SqlCheck, NotesAreReadCutAndEdited) {
  const qortest::TempDir dir;
  const std::string path = qorchat::notesPath(dir.path.string(), "/home/ann/shop.db");
  EXPECT_EQ(path, (dir.path / "notes/home_ann_shop.db-").string() +
                      path.substr(path.size() - 19));  // 16 hex digits and .md
  EXPECT_NE(path, qorchat::notesPath(dir.path.string(), "/home/ann/shop_db"));

  // A missing file is no notes unless it was named.
  EXPECT_EQ(qorchat::readNotes(path, false)->text, "");
  EXPECT_EQ(qorchat::readNotes(path, true).status().kind(), Status::Kind::kIoError);

  setenv("VISUAL", "printf 'Amounts are in cents.\\n' >>", 1);
  ASSERT_TRUE(qorchat::editNotes(path, "shop.db"));
  unsetenv("VISUAL");
  const auto edited = qorchat::readNotes(path, false);
  EXPECT_EQ(edited->text, "Amounts are in cents.");  // the template's comment is not sent
  EXPECT_EQ(qorchat::notesInstruction(*edited).substr(0, 29), "The user's notes about this d");

  std::ofstream(path) << "<!-- mine -->" << std::string(9000, 'x') << "\xC3\xA9";
  const auto cut = qorchat::readNotes(path, false);
  EXPECT_EQ(cut->text, std::string(qorchat::kNotesBytes, 'x'));
  EXPECT_TRUE(has(cut->notice, "longer than 8 KB")) << cut->notice;
  EXPECT_TRUE(has(qorchat::notesInstruction(*cut), "only their start is given"));
}

}  // namespace
