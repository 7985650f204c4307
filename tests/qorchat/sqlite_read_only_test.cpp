// Tests that SqliteDatabase runs a model's statements on a real file without ever writing, within
// the statement timeout, and reports each statement's rows or SQLite's own error text.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "sqlite_database.h"

namespace {

namespace fs = std::filesystem;
using qorchat::DatabaseSettings;
using qorchat::SqliteDatabase;
using qorchat::StatementResult;

class SqliteReadOnlyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "qorchat-readonly-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = (dir_ / "data.db").string();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "CREATE TABLE t (id INTEGER PRIMARY KEY, label TEXT, data BLOB);"
                           "INSERT INTO t VALUES (1, 'one', x'00FF10'), (2, NULL, NULL), "
                           "(3, 'three', NULL);",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string rowCount() {
    SqliteDatabase reader(path_);
    return *reader.runReadOnly("SELECT count(*) FROM t", 1).at(0).rows.at(0).at(0);
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(SqliteReadOnlyTest, RunsStatementsInOrderUntilOneFails) {
  SqliteDatabase database(path_);
  const std::vector<StatementResult> results = database.runReadOnly(
      "  SELECT id, label, data FROM t ORDER BY id; -- first\n"
      "SELECT count(*) AS n FROM t WHERE label IS NULL;\n"
      "SELECT nosuch FROM t;\n"
      "SELECT 'never run';",
      2);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0].statement, "SELECT id, label, data FROM t ORDER BY id;");
  EXPECT_EQ(results[0].columns, (std::vector<std::string>{"id", "label", "data"}));
  EXPECT_EQ(results[0].rowCount, 3u);  // every row is counted; two are kept
  ASSERT_EQ(results[0].rows.size(), 2u);
  EXPECT_EQ(results[0].rows[0][2], "X'00FF10'");
  EXPECT_EQ(results[0].rows[1][1], std::nullopt);
  EXPECT_EQ(results[1].rows, (std::vector<std::vector<std::optional<std::string>>>{{"1"}}));
  EXPECT_TRUE(results[1].error.empty());
  EXPECT_EQ(results[2].statement, "SELECT nosuch FROM t;\nSELECT 'never run';");
  EXPECT_EQ(results[2].error, "no such column: nosuch");

  // Only white space and comments: nothing to run.
  EXPECT_TRUE(database.runReadOnly(" -- nothing\n /* at all */ ", 10).empty());
}

// Whatever the statements try, the file and the folder stay as they were.
TEST_F(SqliteReadOnlyTest, NoStatementWritesAnything) {
  SqliteDatabase database(path_);
  const std::string copy = (dir_ / "copy.db").string();
  // Another database, which a read-only ATTACH could open: no statement reaches past the one
  // the user chose.
  const std::string other = (dir_ / "other.db").string();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE secret (x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const std::vector<std::string> attempts = {
      "INSERT INTO t (label) VALUES ('new')",
      "DELETE FROM t",
      "CREATE TABLE u (x)",
      // A read-only connection still runs VACUUM INTO, which writes a new file.
      "VACUUM INTO '" + copy + "'",
      "ATTACH '" + other + "' AS other",
      "PRAGMA query_only = OFF",
      "CREATE TEMP TABLE scratch (x)",
  };
  for (const std::string& attempt : attempts) {
    SCOPED_TRACE(attempt);
    const std::vector<StatementResult> results = database.runReadOnly(attempt, 10);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_FALSE(results[0].error.empty());
  }
  EXPECT_EQ(database.runReadOnly("INSERT INTO t (label) VALUES ('new')", 10)[0].error,
            "attempt to write a readonly database");
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_EQ(database.runReadOnly("ATTACH '" + other + "' AS other", 10)[0].error, "not authorized");
  EXPECT_EQ(rowCount(), "3");

  // A transaction a block leaves open is closed, so later runs see new data.
  ASSERT_TRUE(database.runReadOnly("BEGIN; SELECT count(*) FROM t;", 10).back().error.empty());
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &writer), SQLITE_OK);
  ASSERT_EQ(
      sqlite3_exec(writer, "INSERT INTO t (label) VALUES ('four')", nullptr, nullptr, nullptr),
      SQLITE_OK);
  sqlite3_close(writer);
  EXPECT_EQ(database.runReadOnly("SELECT count(*) FROM t", 1)[0].rows[0][0], "4");
}

TEST_F(SqliteReadOnlyTest, AStatementPastItsTimeoutIsStoppedWithAClearText) {
  DatabaseSettings settings;
  settings.statementTimeout = std::chrono::milliseconds(200);
  SqliteDatabase database(path_, settings);
  const std::vector<StatementResult> results = database.runReadOnly(
      "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c;"
      "SELECT 'not reached'",
      10);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_NE(results[0].error.find("statement timeout"), std::string::npos) << results[0].error;
  EXPECT_NE(results[0].error.find("200 ms"), std::string::npos) << results[0].error;

  // The limit is for each statement: the connection goes on as before.
  const std::vector<StatementResult> next = database.runReadOnly("SELECT 1", 10);
  ASSERT_EQ(next.size(), 1u);
  EXPECT_TRUE(next[0].error.empty()) << next[0].error;
}

}  // namespace
