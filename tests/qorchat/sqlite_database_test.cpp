// Tests what only SQLite does: its kinds of key, column and name as the model is told them,
// attached databases, what it refuses to open, the names a file goes by, how cells show, and the
// writes that a read-only file alone would let through.
#include "db/sqlite.h"

#include <sqlite3.h>

#include "helpers.h"

namespace {

namespace fs = std::filesystem;
using qorchat::SqliteDatabase;
using qorchat::Status;
using qortest::opened;
using qortest::ran;
using Lines = std::vector<std::string>;

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

struct Described {
  const char* sql;
  const char* attached;  // another database's statements, attached as "dépôt"; or nothing
  Lines expected;        // after the line of the main catalog
};

// NOLINTBEGIN(bugprone-suspicious-missing-comma): long lines are split on purpose
const Described kDescribed[] = {
    // Foreign keys in the order written, to the parent's key in key order when it is left out;
    // generated columns; a view's expression without a type.
    {R"(CREATE TABLE parent (a INTEGER, b TEXT, PRIMARY KEY (b, a));
        CREATE TABLE implicit (id INTEGER PRIMARY KEY, label);
        CREATE TABLE child (x INT, y TEXT, z INTEGER, total INTEGER AS (x * 2) STORED,
          note varchar(3) AS (y) VIRTUAL, FOREIGN KEY (y, x) REFERENCES parent (b, a),
          FOREIGN KEY (z) REFERENCES implicit, FOREIGN KEY (x, y) REFERENCES parent);
        CREATE TABLE pairs (k1 TEXT, k2 INT, PRIMARY KEY (k2, k1)) WITHOUT ROWID;
        CREATE VIEW doubled AS SELECT total, y || '!' AS shout FROM child;)",
     nullptr,
     {"CREATE TABLE `parent` (`a` INTEGER, `b` TEXT, PRIMARY KEY(`b`, `a`))",
      "CREATE TABLE `implicit` (`id` INTEGER, `label` , PRIMARY KEY(`id`))",
      "CREATE TABLE `child` (`x` INT, `y` TEXT, `z` INTEGER, `total` INTEGER, `note` varchar(3), "
      "FOREIGN KEY(`y`, `x`) REFERENCES `parent`(`b`, `a`), "
      "FOREIGN KEY(`z`) REFERENCES `implicit`(`id`), "
      "FOREIGN KEY(`x`, `y`) REFERENCES `parent`(`b`, `a`))",
      "CREATE TABLE `pairs` (`k1` TEXT, `k2` INT, PRIMARY KEY(`k2`, `k1`))",
      "CREATE VIEW `doubled` (`total` INTEGER, `shout` )"}},
    // Quoted and non-ASCII names; an attached database with keys within it.
    {R"(CREATE TABLE "order lines" ("line no" INTEGER PRIMARY KEY, "say ""hi""" TEXT, `back``tick`);
        CREATE TABLE "clés" ("prénom" TEXT, "line" INTEGER REFERENCES "order lines" ("line no"));)",
     R"(CREATE TABLE warehouse (id INTEGER PRIMARY KEY);
        CREATE TABLE stock (warehouse_id INTEGER REFERENCES warehouse, qty INT);)",
     {"CREATE TABLE `order lines` (`line no` INTEGER, `say \"hi\"` TEXT, `back`tick` , "
      "PRIMARY KEY(`line no`))",
      "CREATE TABLE `clés` (`prénom` TEXT, `line` INTEGER, "
      "FOREIGN KEY(`line`) REFERENCES `order lines`(`line no`))",
      "USE CATALOG `dépôt`", "CREATE TABLE `warehouse` (`id` INTEGER, PRIMARY KEY(`id`))",
      "CREATE TABLE `stock` (`warehouse_id` INTEGER, `qty` INT, "
      "FOREIGN KEY(`warehouse_id`) REFERENCES `warehouse`(`id`))"}},
    // A virtual table without its hidden columns (its own tables, which SQLite's version decides,
    // are not compared), and a view that can no longer be read, left out.
    {"CREATE VIRTUAL TABLE notes USING fts5(body); CREATE TABLE t (a); "
     "CREATE VIEW v AS SELECT a FROM t; DROP TABLE t;",
     nullptr,
     {"CREATE TABLE `notes` (`body` )"}},
    {"", nullptr, {}},
};
// NOLINTEND(bugprone-suspicious-missing-comma)

TEST_F(SqliteDatabaseTest, DescribesWhatSqliteAlone) {
  int made = 0;
  for (const Described& described : kDescribed) {
    SCOPED_TRACE(described.sql);
    const std::string name = "described" + std::to_string(++made) + ".db";
    const auto database = opened(SqliteDatabase::open(make(name, described.sql)));
    if (described.attached != nullptr) {
      // The connection's own temporary database is no part of the structure.
      const std::string attach = "ATTACH '" + make("other ü.db", described.attached) +
                                 "' AS dépôt; CREATE TEMP TABLE scratch (x);";
      ASSERT_EQ(sqlite3_exec(database->handle(), attach.c_str(), nullptr, nullptr, nullptr),
                SQLITE_OK);
    }
    Lines expected = described.expected;
    expected.insert(expected.begin(), "USE CATALOG `main`");
    Lines lines = qortest::describedLines(*database);
    std::erase_if(lines, [](const std::string& line) { return qortest::has(line, "`notes_"); });
    EXPECT_EQ(lines, expected);
  }
}

TEST_F(SqliteDatabaseTest, OpensOnlyADatabaseAndNamesItAlwaysTheSame) {
  const std::string path = make("named.db", "");
  const std::string uri = "file:" + path + "?mode=ro";
  const fs::path previous = fs::current_path();
  fs::current_path(dir_.path);
  // A relative path names the same file: the conversation is kept under the same identity.
  EXPECT_EQ(opened(SqliteDatabase::open("./named.db"))->identity(), fs::canonical(path).string());
  fs::current_path(previous);
  EXPECT_EQ(opened(SqliteDatabase::open(path))->displayName(), "named.db");
  EXPECT_EQ(opened(SqliteDatabase::open(uri))->identity(), uri);
  EXPECT_EQ(opened(SqliteDatabase::open(uri))->displayName(), uri);

  const std::string missing = (dir_.path / "missing.db").string();
  const std::string text = (dir_.path / "notes.txt").string();
  std::ofstream(text) << "Notes, not a database; long enough to fill a header page."
                      << std::string(200, 'x');
  const std::tuple<std::string, Status::Kind, std::string> refusals[] = {
      {missing, Status::Kind::kIoError, "cannot open database '" + missing + "': no such file"},
      {dir_.path.string(), Status::Kind::kIoError,
       "cannot open database '" + dir_.path.string() + "': it is a folder"},
      {text, Status::Kind::kInvalidInput, "'" + text + "' is not an SQLite database"},
      // Whatever the URI asks, nothing is created.
      {"file:" + missing + "?mode=rwc", Status::Kind::kDatabase, "cannot open database 'file:"},
  };
  for (const auto& [target, kind, message] : refusals) {
    const Status refused = SqliteDatabase::open(target).status();
    EXPECT_EQ(refused.kind(), kind) << target;
    EXPECT_EQ(refused.message().substr(0, message.size()), message);
  }
  EXPECT_FALSE(fs::exists(missing));
}

TEST_F(SqliteDatabaseTest, ShowsCellsAndRefusesWhatAReadOnlyFileAllows) {
  const auto database = opened(SqliteDatabase::open(make("data.db", "")));
  EXPECT_EQ(ran(*database, "SELECT x'00FF10', zeroblob(300), 1.5, NULL").at(0).rows,
            (qortest::Rows{
                {"X'00FF10'", "X'" + std::string(512, '0') + "\u2026'", "1.5", std::nullopt}}));
  // A read-only connection still runs VACUUM INTO, which writes a new file, and ATTACH reaches
  // databases the user never chose; without query_only the temporary database takes writes.
  const std::string copy = (dir_.path / "copy.db").string();
  const std::pair<std::string, const char*> attempts[] = {
      {"VACUUM INTO '" + copy + "'", "authorization denied"},
      {"ATTACH '" + make("other.db", "") + "' AS other", "not authorized"},
      {"PRAGMA query_only = OFF", "not authorized"},
  };
  for (const auto& [attempt, refusal] : attempts) {
    const auto results = ran(*database, attempt);
    EXPECT_TRUE(results.size() == 1 && results[0].status.message() == refusal) << attempt;
  }
  EXPECT_FALSE(fs::exists(copy));
}

}  // namespace
