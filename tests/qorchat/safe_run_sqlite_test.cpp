// Tries on real SQLite files what a model's statements could do, and what must still work.
#include <chrono>

#include "db/sqlite.h"
#include "helpers.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qorchat::SqliteDatabase;
using qorchat::Status;
using qortest::opened;
using qortest::ran;
using qortest::Rows;

constexpr const char* kShop = R"(
  CREATE TABLE customers (id INTEGER PRIMARY KEY, name TEXT NOT NULL, country TEXT);
  CREATE TABLE orders (id INTEGER PRIMARY KEY, customer_id INTEGER, ordered_at TEXT, details TEXT);
  CREATE TABLE employees (id INTEGER PRIMARY KEY, name TEXT, manager_id INTEGER, salary REAL);
  CREATE TABLE notes (n);
  INSERT INTO customers VALUES (1, 'Ada', 'UK'), (2, 'Linus', 'FI'), (3, 'Grace', 'US'),
    (4, 'Alan', 'UK');
  INSERT INTO orders VALUES (1, 1, '2024-01-02', '{"items": [{"sku": "K1"}, {"sku": "M2"}]}'),
    (2, 1, '2024-01-20', '{"items": [{"sku": "L3"}]}'), (3, 2, '2024-01-05', '{"items": []}'),
    (4, 3, '2024-02-11', '{"items": [{"sku": "M2"}]}');
  INSERT INTO employees VALUES (1, 'Eve', NULL, 9000), (2, 'Bob', 1, 5000), (3, 'Carol', 1, 5500),
    (4, 'Dan', 2, 4000);
)";

std::string refusal(const std::string& what) {
  return "refused: " + what + "; qorchat runs only statements that read";
}

// What a run must leave as it found: the file's bytes and time, and the names in its folder.
std::string snapshot(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string taken(std::istreambuf_iterator<char>(in), {});
  taken += std::to_string(fs::last_write_time(file).time_since_epoch().count());
  for (const auto& entry : fs::directory_iterator(file.parent_path()))
    taken += "/" + entry.path().filename().string();
  return taken;
}

class SafeRunSqliteTest : public ::testing::Test {
 protected:
  SafeRunSqliteTest() { qortest::sqlite(shop_, kShop); }
  std::unique_ptr<SqliteDatabase> open(std::chrono::milliseconds limit = 30s) {
    return opened(SqliteDatabase::open(shop_.string(), {limit}));
  }

  qortest::TempDir dir_;
  fs::path shop_ = dir_.path / "shop.db";
};

TEST_F(SafeRunSqliteTest, NoStatementWritesEscapesOrOutlivesItsRun) {
  const std::string tooBig =
      "string or blob too big: a value a statement makes may hold at most 16 MiB";
  const std::pair<std::string, std::string> attacks[] = {
      {"INSERT INTO customers VALUES (9, 'Mallory', NULL, NULL)", refusal("INSERT changes data")},
      {"UPDATE customers SET name = 'x'", refusal("UPDATE changes data")},
      {"DELETE FROM orders", refusal("DELETE changes data")},
      {"CREATE TABLE t (x)", refusal("CREATE TABLE changes the schema")},
      {"-- scratch\nCREATE TEMP TABLE t (x)", refusal("CREATE TEMP TABLE changes the schema")},
      {"DROP TABLE orders", refusal("DROP TABLE changes the schema")},
      {"ATTACH '{dir}/other.db' AS other", refusal("ATTACH opens another database file")},
      {"VACUUM INTO '{dir}/copy.db'", refusal("VACUUM writes a database file")},
      {"BEGIN; SELECT count(*) FROM orders; COMMIT", refusal("BEGIN is transaction control")},
      {"SAVEPOINT s", refusal("SAVEPOINT is transaction control")},
      {"PRAGMA locking_mode = EXCLUSIVE; SELECT count(*) FROM orders",
       refusal("PRAGMA locking_mode changes the connection")},
      {"PRAGMA hard_heap_limit = 1", refusal("PRAGMA hard_heap_limit changes the connection")},
      {"PRAGMA writable_schema = 1", refusal("PRAGMA writable_schema changes the connection")},
      {"PRAGMA integrity_check",
       refusal("PRAGMA integrity_check is not one of the pragmas that only read")},
      {"SELECT load_extension('x')", refusal("load_extension() loads code into qorchat")},
      {"SELECT json_patch('{}', '{}')", refusal("json_patch() can run for hours without stopping")},
      {"ANALYZE", refusal("ANALYZE changes the schema")},
      // One call over a huge value: refused by size at once, or finished in linear time.
      {"SELECT length(replace(zeroblob(1000000000), x'00', 'ab'))", tooBig},
      {"SELECT randomblob(1000000000)", tooBig},
      {"SELECT printf('%.*c', 2147483647, 'x') IS NULL", ""},
      {"SELECT instr(printf('%.*c', 8000000, 'a'), printf('%.*c', 4000000, 'a') || 'b')", ""},
      {"SELECT length(trim(printf('%.*c', 4000000, 'a'), printf('%.*c', 4000000, 'b') || 'a'))",
       ""},
      // Minutes of SQLite's own LIKE; this one stops at the time limit.
      {"SELECT printf('%.*c', 8000000, 'a') LIKE '%' || printf('%.*c', 9000, 'a') || 'b'",
       "statement timeout: stopped after 1 s (--statement-timeout SECONDS changes the limit)"},
  };
  const auto database = open(1s);
  for (auto [block, outcome] : attacks) {
    qorchat::text::replaceAll(block, "{dir}", dir_.path.string());
    SCOPED_TRACE(block);
    const std::string before = snapshot(shop_);
    const auto started = std::chrono::steady_clock::now();
    const auto results = ran(*database, block);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    ASSERT_FALSE(results.empty());
    EXPECT_EQ(results.back().status.message(), outcome);
    EXPECT_EQ(results.back().status.kind() == Status::Kind::kRefused,
              qortest::has(outcome, "refused: "));
    EXPECT_TRUE(snapshot(shop_) == before);
    // Another connection of this process can still write the file, and the run after works.
    EXPECT_EQ(qortest::sqlite(shop_,
                              "PRAGMA busy_timeout = 100; "
                              "INSERT INTO notes VALUES (randomblob(100000)); SELECT changes()"),
              "1");
    EXPECT_EQ(ran(*database, "SELECT count(*) FROM orders").at(0).rows, Rows{{"4"}});
  }
}

TEST_F(SafeRunSqliteTest, HonestQuestionsRun) {
  const std::pair<const char*, Rows> questions[] = {
      {"WITH spent AS (SELECT customer_id, count(*) AS n FROM orders GROUP BY customer_id) SELECT "
       "c.name, s.n FROM spent s JOIN customers c ON c.id = s.customer_id ORDER BY s.n DESC LIMIT "
       "1",
       {{"Ada", "2"}}},
      {"WITH RECURSIVE chain(id, name, depth) AS (SELECT id, name, 1 FROM employees WHERE "
       "manager_id IS NULL UNION ALL SELECT e.id, e.name, c.depth + 1 FROM employees e JOIN chain "
       "c ON e.manager_id = c.id) SELECT group_concat(name || ':' || depth, ',') FROM chain",
       {{"Eve:1,Bob:2,Carol:2,Dan:3"}}},
      {"SELECT name, rank() OVER (ORDER BY salary DESC) FROM employees LIMIT 2",
       {{"Eve", "1"}, {"Carol", "2"}}},
      {"SELECT o.id, json_extract(item.value, '$.sku') FROM orders o, json_each(o.details, "
       "'$.items') AS item ORDER BY o.id, item.id LIMIT 2",
       {{"1", "K1"}, {"1", "M2"}}},
      {"SELECT strftime('%Y-%m', ordered_at) AS m, count(*) FROM orders GROUP BY m ORDER BY m",
       {{"2024-01", "3"}, {"2024-02", "1"}}},
      {"SELECT name, CASE WHEN salary > 5000 THEN 'high' ELSE 'low' END FROM employees WHERE id "
       "IN (SELECT manager_id FROM employees) ORDER BY id",
       {{"Eve", "high"}, {"Bob", "low"}}},
      {"SELECT country FROM customers c WHERE NOT EXISTS (SELECT 1 FROM orders o WHERE "
       "o.customer_id = c.id) UNION SELECT 'none' EXCEPT SELECT 'FI' ORDER BY 1",
       {{"UK"}, {"none"}}},
      {"PRAGMA table_info(orders)", {{"0", "id", "INTEGER", "0", std::nullopt, "1"}}},
      {"SELECT group_concat(name) FROM pragma_table_info('customers')", {{"id,name,country"}}},
      {"PRAGMA main.index_list('orders'); PRAGMA user_version", {{"0"}}},
      {"SELECT name, instr(name, 'a'), replace(name, 'a', '4'), trim(name, 'A'), name LIKE 'a%', "
       "name GLOB 'A*' FROM customers WHERE name LIKE '%a%' ESCAPE '\\' ORDER BY id LIMIT 1",
       {{"Ada", "3", "Ad4", "da", "1", "1"}}},
      {"-- customers by country; DROP TABLE customers\nSELECT /* ; DELETE FROM orders; */ "
       "country, 'INSERT INTO x' FROM customers GROUP BY country ORDER BY country LIMIT 1",
       {{"FI", "INSERT INTO x"}}},
  };
  const auto database = open();
  for (const auto& [question, rows] : questions) {
    SCOPED_TRACE(question);
    const auto results = ran(*database, question);
    ASSERT_FALSE(results.empty());
    EXPECT_TRUE(results.back().status.isOk()) << results.back().status.message();
    const Rows& got = results.back().rows;
    EXPECT_EQ(Rows(got.begin(), got.begin() + std::min(got.size(), rows.size())), rows);
  }
}

TEST_F(SafeRunSqliteTest, WalFilesAreLeftAlone) {
  const fs::path folder = dir_.path / "wal", wal = folder / "wal.db";
  fs::create_directory(folder);
  qortest::sqlite(wal, "PRAGMA journal_mode = WAL; CREATE TABLE t (x); INSERT INTO t VALUES (1);");
  const std::string before = snapshot(wal);
  ASSERT_EQ(std::distance(fs::directory_iterator(folder), {}), 1);  // the writer closed cleanly
  // In a folder no one may write, and leaving nothing in it.
  fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
  const auto database = opened(SqliteDatabase::open(wal.string()));
  EXPECT_FALSE(qortest::describedLines(*database).empty());
  EXPECT_EQ(ran(*database, "SELECT count(*) FROM t").at(0).rows, Rows{{"1"}});
  EXPECT_TRUE(snapshot(wal) == before);
  fs::permissions(folder, fs::perms::owner_all);
  // A writer comes: what it commits is read, from its -wal file.
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(wal.c_str(), &writer), SQLITE_OK);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> writerCloser(writer, &sqlite3_close);
  ASSERT_EQ(sqlite3_exec(writer, "INSERT INTO t VALUES (2)", nullptr, nullptr, nullptr), SQLITE_OK);
  ASSERT_TRUE(fs::exists(folder / "wal.db-wal"));
  EXPECT_EQ(ran(*database, "SELECT count(*) FROM t").at(0).rows, Rows{{"2"}});
}

TEST_F(SafeRunSqliteTest, ValuesHugeOrNotAreCutAsTheyAreRead) {
  // 50 MB of two-byte characters and of bytes: readable though longer than any computed value.
  qortest::sqlite(shop_,
                  "CREATE TABLE big (t, b); INSERT INTO big VALUES "
                  "(replace(printf('%.*c', 25000000, 'x'), 'x', 'é'), zeroblob(50000000))");
  const auto database = open();
  const auto results =
      database->runReadOnly("SELECT t, b, length(t), x'00FF10', 1.5, NULL FROM big", {10, 1001});
  ASSERT_TRUE(results && results->at(0).status.isOk()) << results->at(0).status.message();
  EXPECT_EQ(results->at(0).rows,
            (Rows{{qortest::repeated("é", 500), "X'" + std::string(512, '0') + "\u2026'",
                   "25000000", "X'00FF10'", "1.5", std::nullopt}}));
  // Three bytes a character: a cut inside one ends before it.
  const auto cut = database->runReadOnly("SELECT '\u20ac\u20ac', x'0102030405'", {1, 5});
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->at(0).rows, (Rows{{"\u20ac", "X'0102\u2026'"}}));
}

}  // namespace
