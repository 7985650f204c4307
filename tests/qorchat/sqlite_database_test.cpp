// Tests that SqliteDatabase opens real files read-only and describes them as the assistant reads
// them: the CREATE lines of the digest built from the structure.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qor.h"
#include "sqlite_database.h"

namespace {

namespace fs = std::filesystem;
using qorchat::DatabaseError;
using qorchat::SqliteDatabase;

class SqliteDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "qorchat-sqlite-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Creates a database file holding the result of the statements, and gives its path.
  std::string createDatabase(const std::string& name, const std::string& sql) {
    const std::string path = (dir_ / name).string();
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
        << (error != nullptr ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
    return path;
  }

  // The instructions the model is given for the structure. An object the library rejects leaves an
  // empty line and a catalog it rejects leaves none, so comparing whole lines catches both.
  static std::string digestOf(const std::string& structure) {
    IQORAssistant* assistant =
        QORCreateAssistant(QORAssistantType::OLLAMA, new YLHTTPPoolCenter, "", "", nullptr);
    assistant->updateProperties([&](IQORProperties* properties) {
      EXPECT_TRUE(properties->setValue("db_structure", YLVariant(structure)));
    });
    IQORProperties* properties = assistant->obtainProperties();
    const YLVariant combined = properties->obtainValue("combined_instructions");
    QORFreeObject(properties);
    QORFreeObject(assistant);
    return combined.stringPtr() != nullptr ? *combined.stringPtr() : std::string();
  }

  fs::path dir_;
};

// The catalog and CREATE lines of a digest, in order; the instructions around them are not ours.
std::vector<std::string> createLines(const std::string& digest) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < digest.size()) {
    std::size_t end = digest.find('\n', start);
    if (end == std::string::npos) end = digest.size();
    const std::string line = digest.substr(start, end - start);
    if (line.rfind("USE CATALOG ", 0) == 0 || line.rfind("CREATE ", 0) == 0) lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

TEST_F(SqliteDatabaseTest, KeysInKeyOrderAndForeignKeysInDeclarationOrder) {
  const std::string path = createDatabase("keys.db", R"(
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
  EXPECT_EQ(createLines(digestOf(SqliteDatabase(path).describeStructure())),
            (std::vector<std::string>{
                "USE CATALOG `main`",
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
  const std::string path = createDatabase("names.db", R"(
    CREATE TABLE "order lines" ("line no" INTEGER PRIMARY KEY, "say ""hi""" TEXT, `back``tick`);
    CREATE TABLE "clés" ("prénom" TEXT, "größe" REAL, "line" INTEGER
                         REFERENCES "order lines" ("line no"));
    CREATE VIRTUAL TABLE notes USING fts5(body);)");
  const std::string other = createDatabase("other ü.db", R"(
    CREATE TABLE warehouse (id INTEGER PRIMARY KEY, city TEXT);
    CREATE TABLE stock (warehouse_id INTEGER REFERENCES warehouse, qty INT);)");
  SqliteDatabase database(path);
  sqlite3_stmt* attach = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(database.handle(), "ATTACH ?1 AS \"dépôt\"", -1, &attach, nullptr),
            SQLITE_OK);
  sqlite3_bind_text(attach, 1, other.c_str(), -1, SQLITE_TRANSIENT);
  ASSERT_EQ(sqlite3_step(attach), SQLITE_DONE);
  sqlite3_finalize(attach);

  const std::vector<std::string> lines = createLines(digestOf(database.describeStructure()));
  // The full-text index's own tables come along; only its hidden columns must not.
  const std::vector<std::string> expected{
      "CREATE TABLE `order lines` (`line no` INTEGER, `say \"hi\"` TEXT, `back`tick` , "
      "PRIMARY KEY(`line no`))",
      "CREATE TABLE `clés` (`prénom` TEXT, `größe` REAL, `line` INTEGER, "
      "FOREIGN KEY(`line`) REFERENCES `order lines`(`line no`))",
      "CREATE TABLE `notes` (`body` )",
  };
  for (const std::string& line : expected) {
    EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end()) << line;
  }
  // The attached database's tables follow its own catalog line, keys resolved within it.
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines.front(), "USE CATALOG `main`");
  const std::vector<std::string> tail(lines.end() - 3, lines.end());
  EXPECT_EQ(tail, (std::vector<std::string>{
                      "USE CATALOG `dépôt`",
                      "CREATE TABLE `warehouse` (`id` INTEGER, `city` TEXT, PRIMARY KEY(`id`))",
                      "CREATE TABLE `stock` (`warehouse_id` INTEGER, `qty` INT, "
                      "FOREIGN KEY(`warehouse_id`) REFERENCES `warehouse`(`id`))"}));
}

TEST_F(SqliteDatabaseTest, EmptyDatabaseUriAndNames) {
  const std::string path = createDatabase("empty.db", "");
  SqliteDatabase database(path);
  EXPECT_EQ(database.describeStructure(),
            R"([{"catalog_name":"main","schemas":[{"tables":[],"views":[]}]}])");
  EXPECT_EQ(database.displayName(), "empty.db");
  EXPECT_EQ(database.identity(), fs::canonical(path).string());

  // A relative path names the same file: the conversation is kept under the same identity.
  const fs::path previous = fs::current_path();
  fs::current_path(dir_);
  EXPECT_EQ(SqliteDatabase("./empty.db").identity(), database.identity());
  fs::current_path(previous);

  const std::string withTable = createDatabase("uri.db", "CREATE TABLE t (a INTEGER);");
  const std::string uri = "file:" + withTable + "?mode=ro";
  SqliteDatabase viaUri(uri);
  EXPECT_EQ(viaUri.identity(), uri);
  EXPECT_EQ(viaUri.displayName(), uri);
  EXPECT_EQ(createLines(digestOf(viaUri.describeStructure())),
            (std::vector<std::string>{"USE CATALOG `main`", "CREATE TABLE `t` (`a` INTEGER)"}));
}

TEST_F(SqliteDatabaseTest, RefusesWhatIsNotADatabaseAndCreatesNothing) {
  const std::string missing = (dir_ / "missing.db").string();
  try {
    SqliteDatabase database(missing);
    ADD_FAILURE() << "a missing file was opened";
  } catch (const DatabaseError& error) {
    EXPECT_EQ(std::string(error.what()), "cannot open database '" + missing + "': no such file");
  }
  EXPECT_FALSE(fs::exists(missing));

  const std::string missingUri = "file:" + missing;
  EXPECT_THROW(SqliteDatabase database(missingUri), DatabaseError);
  EXPECT_THROW(SqliteDatabase database(missingUri + "?mode=rwc"), DatabaseError);
  EXPECT_FALSE(fs::exists(missing));

  const std::string text = (dir_ / "notes.txt").string();
  std::ofstream(text) << "These are notes, not a database; long enough to fill a header page.\n"
                      << std::string(200, 'x') << '\n';
  try {
    SqliteDatabase database(text);
    ADD_FAILURE() << "a text file was opened";
  } catch (const DatabaseError& error) {
    EXPECT_EQ(std::string(error.what()), "'" + text + "' is not an SQLite database");
  }
}

}  // namespace
