// Tests SqliteDatabase on real files: opened read-only, described as the assistant reads them
// (the CREATE lines of the digest), and the model's statements run without ever writing, within
// the statement timeout, each with its rows or SQLite's own error text.

#include "sqlite_database.h"

#include <algorithm>

#include "helpers.h"

namespace {

namespace fs = std::filesystem;
using qorchat::DatabaseError;
using qorchat::SqliteDatabase;
using qorchat::StatementResult;
using qortest::createLines;
using Lines = std::vector<std::string>;
using Rows = std::vector<std::vector<std::optional<std::string>>>;

class SqliteDatabaseTest : public ::testing::Test {
 protected:
  // A database file holding what the statements make.
  std::string make(const std::string& name, const std::string& sql) {
    std::string path = (dir_.path / name).string();
    qortest::sqlite(path, sql);
    return path;
  }

  qortest::TempDir dir_;
};

TEST_F(SqliteDatabaseTest, KeysInKeyOrderAndForeignKeysInDeclarationOrder) {
  const std::string path = make("keys.db", R"(
    CREATE TABLE parent (a INTEGER, b TEXT, c DECIMAL(10, 2), PRIMARY KEY (b, a));
    CREATE TABLE implicit (id INTEGER PRIMARY KEY, label);
    CREATE TABLE child (
      x INT, y TEXT, z INTEGER,
      total INTEGER GENERATED ALWAYS AS (x * 2) STORED, note varchar(3) AS (y) VIRTUAL,
      FOREIGN KEY (y, x) REFERENCES parent (b, a),
      FOREIGN KEY (z) REFERENCES implicit,
      FOREIGN KEY (x, y) REFERENCES parent);
    CREATE TABLE pairs (k1 TEXT, k2 INT, PRIMARY KEY (k2, k1)) WITHOUT ROWID;
    CREATE VIEW doubled AS SELECT x, total, y || '!' AS shout FROM child;)");
  // The digest shows what the model is told: a stray schema name or ref_schema would show too.
  EXPECT_EQ(createLines(SqliteDatabase(path).describeStructure()),
            (Lines{
                "USE CATALOG `main`",
                // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): long lines are split
                "CREATE TABLE `parent` (`a` INTEGER, `b` TEXT, `c` DECIMAL(10, 2), "
                "PRIMARY KEY(`b`, `a`))",
                "CREATE TABLE `implicit` (`id` INTEGER, `label` , PRIMARY KEY(`id`))",
                "CREATE TABLE `child` (`x` INT, `y` TEXT, `z` INTEGER, `total` INTEGER, "
                "`note` varchar(3), FOREIGN KEY(`y`, `x`) REFERENCES `parent`(`b`, `a`), "
                "FOREIGN KEY(`z`) REFERENCES `implicit`(`id`), "
                "FOREIGN KEY(`x`, `y`) REFERENCES `parent`(`b`, `a`))",
                "CREATE TABLE `pairs` (`k1` TEXT, `k2` INT, PRIMARY KEY(`k2`, `k1`))",
                "CREATE VIEW `doubled` (`x` INT, `total` INTEGER, `shout` )",
            }));
}

TEST_F(SqliteDatabaseTest, UnusualNamesAttachedDatabasesAndHiddenColumns) {
  const std::string path = make("names.db", R"(
    CREATE TABLE "order lines" ("line no" INTEGER PRIMARY KEY, "say ""hi""" TEXT, `back``tick`);
    CREATE TABLE "clés" ("prénom" TEXT, "größe" REAL, "line" INTEGER
                         REFERENCES "order lines" ("line no"));
    CREATE VIRTUAL TABLE notes USING fts5(body);)");
  const std::string other = make("other ü.db", R"(
    CREATE TABLE warehouse (id INTEGER PRIMARY KEY, city TEXT);
    CREATE TABLE stock (warehouse_id INTEGER REFERENCES warehouse, qty INT);)");
  SqliteDatabase database(path);
  ASSERT_EQ(sqlite3_exec(database.handle(), ("ATTACH '" + other + "' AS \"dépôt\"").c_str(),
                         nullptr, nullptr, nullptr),
            SQLITE_OK);

  const Lines lines = createLines(database.describeStructure());
  // The full-text index's own tables come along; only its hidden columns must not.
  for (const char* line :
       {"CREATE TABLE `order lines` (`line no` INTEGER, `say \"hi\"` TEXT, `back`tick` , "
        "PRIMARY KEY(`line no`))",
        "CREATE TABLE `clés` (`prénom` TEXT, `größe` REAL, `line` INTEGER, "
        "FOREIGN KEY(`line`) REFERENCES `order lines`(`line no`))",
        "CREATE TABLE `notes` (`body` )"}) {
    EXPECT_NE(std::find(lines.begin(), lines.end(), std::string(line)), lines.end()) << line;
  }
  // The attached database's tables follow its own catalog line, keys resolved within it.
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines.front(), "USE CATALOG `main`");
  EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
            (Lines{"USE CATALOG `dépôt`",
                   "CREATE TABLE `warehouse` (`id` INTEGER, `city` TEXT, PRIMARY KEY(`id`))",
                   "CREATE TABLE `stock` (`warehouse_id` INTEGER, `qty` INT, "
                   "FOREIGN KEY(`warehouse_id`) REFERENCES `warehouse`(`id`))"}));
}

TEST_F(SqliteDatabaseTest, EmptyDatabaseUriAndNames) {
  const std::string path = make("empty.db", "");
  SqliteDatabase database(path);
  EXPECT_EQ(database.describeStructure(),
            R"([{"catalog_name":"main","schemas":[{"tables":[],"views":[]}]}])");
  EXPECT_EQ(database.displayName(), "empty.db");
  EXPECT_EQ(database.identity(), fs::canonical(path).string());
  // A relative path names the same file: the conversation is kept under the same identity.
  const fs::path previous = fs::current_path();
  fs::current_path(dir_.path);
  EXPECT_EQ(SqliteDatabase("./empty.db").identity(), database.identity());
  fs::current_path(previous);

  const std::string uri = "file:" + make("uri.db", "CREATE TABLE t (a INTEGER);") + "?mode=ro";
  SqliteDatabase viaUri(uri);
  EXPECT_EQ(viaUri.identity(), uri);
  EXPECT_EQ(viaUri.displayName(), uri);
  EXPECT_EQ(createLines(viaUri.describeStructure()),
            (Lines{"USE CATALOG `main`", "CREATE TABLE `t` (`a` INTEGER)"}));
}

TEST_F(SqliteDatabaseTest, RefusesWhatIsNotADatabaseAndCreatesNothing) {
  const auto refusal = [](const std::string& target) {
    try {
      SqliteDatabase database(target);
    } catch (const DatabaseError& error) {
      return std::string(error.what());
    }
    return std::string("opened");
  };
  const std::string missing = (dir_.path / "missing.db").string();
  EXPECT_EQ(refusal(missing), "cannot open database '" + missing + "': no such file");
  EXPECT_NE(refusal("file:" + missing), "opened");
  EXPECT_NE(refusal("file:" + missing + "?mode=rwc"), "opened");
  EXPECT_FALSE(fs::exists(missing));

  const std::string text = (dir_.path / "notes.txt").string();
  std::ofstream(text) << "These are notes, not a database; long enough to fill a header page.\n"
                      << std::string(200, 'x') << '\n';
  EXPECT_EQ(refusal(text), "'" + text + "' is not an SQLite database");
}

TEST_F(SqliteDatabaseTest, RunsStatementsInOrderUntilOneFailsOrTimesOut) {
  const std::string path = make("data.db",
                                "CREATE TABLE t (id INTEGER PRIMARY KEY, label TEXT, data BLOB);"
                                "INSERT INTO t VALUES (1, 'one', x'00FF10'), (2, NULL, NULL), "
                                "(3, 'three', NULL);");
  SqliteDatabase database(path);
  const std::vector<StatementResult> results = database.runReadOnly(
      "  SELECT id, label, data FROM t ORDER BY id; -- first\n"
      "SELECT count(*) AS n FROM t WHERE label IS NULL;\n"
      "SELECT nosuch FROM t;\n"
      "SELECT 'never run';",
      2);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0].statement, "SELECT id, label, data FROM t ORDER BY id;");
  EXPECT_EQ(results[0].columns, (Lines{"id", "label", "data"}));
  EXPECT_EQ(results[0].rowCount, 3u);  // every row is counted; two are kept
  ASSERT_EQ(results[0].rows.size(), 2u);
  EXPECT_EQ(results[0].rows[0][2], "X'00FF10'");
  EXPECT_EQ(results[0].rows[1][1], std::nullopt);
  EXPECT_EQ(results[1].rows, Rows{{"1"}});
  EXPECT_TRUE(results[1].error.empty());
  EXPECT_EQ(results[2].statement, "SELECT nosuch FROM t;\nSELECT 'never run';");
  EXPECT_EQ(results[2].error, "no such column: nosuch");
  // Only white space and comments: nothing to run.
  EXPECT_TRUE(database.runReadOnly(" -- nothing\n /* at all */ ", 10).empty());

  // The limit is for each statement: the connection goes on as before.
  SqliteDatabase hurried(path, qorchat::DatabaseSettings{std::chrono::milliseconds(200)});
  const std::vector<StatementResult> stopped = hurried.runReadOnly(
      "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c;"
      "SELECT 'not reached'",
      10);
  ASSERT_EQ(stopped.size(), 1u);
  EXPECT_NE(stopped[0].error.find("statement timeout"), std::string::npos) << stopped[0].error;
  EXPECT_NE(stopped[0].error.find("200 ms"), std::string::npos) << stopped[0].error;
  EXPECT_EQ(hurried.runReadOnly("SELECT 1", 10).at(0).rows, Rows{{"1"}});
}

// Whatever the statements try, the file and the folder stay as they were.
TEST_F(SqliteDatabaseTest, NoStatementWritesAnything) {
  const std::string path =
      make("data.db", "CREATE TABLE t (label TEXT); INSERT INTO t VALUES (1);");
  // Another database, which a read-only ATTACH could open: no statement reaches past the one
  // the user chose.
  const std::string other = make("other.db", "CREATE TABLE secret (x)");
  const std::string copy = (dir_.path / "copy.db").string();
  SqliteDatabase database(path);
  const std::pair<std::string, std::string> attempts[] = {
      {"INSERT INTO t (label) VALUES ('new')", "attempt to write a readonly database"},
      {"DELETE FROM t", ""},
      {"CREATE TABLE u (x)", ""},
      // A read-only connection still runs VACUUM INTO, which writes a new file.
      {"VACUUM INTO '" + copy + "'", ""},
      {"ATTACH '" + other + "' AS other", "not authorized"},
      {"PRAGMA query_only = OFF", ""},
      {"CREATE TEMP TABLE scratch (x)", ""},
  };
  for (const auto& [attempt, error] : attempts) {
    const std::vector<StatementResult> results = database.runReadOnly(attempt, 10);
    ASSERT_EQ(results.size(), 1u) << attempt;
    EXPECT_TRUE(error.empty() ? !results[0].error.empty() : results[0].error == error)
        << attempt << ": " << results[0].error;
  }
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_EQ(qortest::sqlite(path, "SELECT count(*) FROM t"), "1");

  // A transaction a block leaves open is closed, so later runs see new data.
  ASSERT_TRUE(database.runReadOnly("BEGIN; SELECT count(*) FROM t;", 10).back().error.empty());
  qortest::sqlite(path, "INSERT INTO t (label) VALUES ('four')");
  EXPECT_EQ(database.runReadOnly("SELECT count(*) FROM t", 1)[0].rows, Rows{{"2"}});
}

}  // namespace
