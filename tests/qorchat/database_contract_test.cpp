// Tests what every engine promises through the Database interface, opened as qorchat opens it.
#include <array>
#include <chrono>
#include <thread>

#include "db/postgres.h"
#include "db/sqlite.h"
#include "helpers.h"
#include "postgres_cluster.h"

namespace {

using namespace std::chrono_literals;
using qorchat::Status;
using qortest::ran;
using qortest::Rows;
using Lines = std::vector<std::string>;

// Where the engines' words differ.
struct Words {
  const char* prefix;     // before a relation's name in the structure text
  const char* qualifier;  // before a relation's name in a query
  const char* unknownColumn;
  const char* interrupted;
  const char* endless;  // a statement that runs until it is stopped
};

struct SqliteEngine {
  using Class = qorchat::SqliteDatabase;
  static constexpr Words kWords{
      "", "", "no such column: nosuch", "interrupted",
      "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c"};
  // A statement that gives rows until it is stopped, and whether a block goes on past it.
  static constexpr const char* kRows =
      "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT x FROM c";
  static constexpr bool kGoesOnAfterATimeLimit = false;
  // Changes of what the structure holds that only this engine has.
  static constexpr std::array<const char*, 2> kOwnChanges = {
      "ANALYZE", "INSERT INTO kept (id) VALUES (7); ANALYZE"};
  SqliteEngine() { qortest::sqlite(path, ""); }
  std::string catalog() const { return "main"; }
  std::string target() const { return path.string(); }
  std::string scalar(const std::string& sql) const { return qortest::sqlite(path, sql); }
  std::string engine() const { return "SQLite " + scalar("SELECT sqlite_version()"); }

  qortest::TempDir dir;
  std::filesystem::path path = dir.path / "test.db";
};

struct PostgresEngine {
  using Class = qorchat::PostgresDatabase;
  static constexpr Words kWords{
      "`public`.", "public.", R"(column "nosuch" does not exist)",
      "canceling statement due to user request",
      "SELECT count(*) FROM generate_series(1, 100000) a, generate_series(1, 100000) b"};
  static constexpr const char* kRows =
      "SELECT a FROM generate_series(1, 100000) a, generate_series(1, 100000) b";
  static constexpr bool kGoesOnAfterATimeLimit = true;
  static constexpr std::array<const char*, 2> kOwnChanges = {
      "COMMENT ON COLUMN kept.id IS 'the truth'", "GRANT SELECT ON kept TO PUBLIC"};
  std::string catalog() const { return database; }
  // A superuser runs nothing: the role is one fit for qorchat.
  std::string target() { return cluster.readerConninfo(database); }
  std::string scalar(const std::string& sql) const {
    const auto rows = cluster.query(sql, database);
    return rows.empty() ? "" : rows[0].at(0);
  }
  std::string engine() const {
    return "PostgreSQL " + scalar("SELECT split_part(current_setting('server_version'), ' ', 1)");
  }

  qortest::PostgresCluster& cluster = qortest::PostgresCluster::shared();
  std::string database = cluster.createDatabase();
};

template <typename Engine>
class DatabaseContract : public ::testing::Test {
 protected:
  static constexpr const Words& kWords = Engine::kWords;

  // Made by the engine's own means, then opened as qorchat opens --db.
  std::unique_ptr<qorchat::Database> open(const std::string& sql,
                                          qorchat::DatabaseSettings settings = {}) {
    if (!sql.empty()) engine_.scalar(sql);
    auto database = qortest::opened(qorchat::openDatabase(engine_.target(), settings));
    EXPECT_NE(dynamic_cast<typename Engine::Class*>(database.get()), nullptr);
    return database;
  }

  Engine engine_;
};

using Engines = ::testing::Types<SqliteEngine, PostgresEngine>;
TYPED_TEST_SUITE(DatabaseContract, Engines);

TYPED_TEST(DatabaseContract, DescribesTablesViewsAndKeysInOrder) {
  const auto database = this->open(R"(
    CREATE TABLE owners (a bigint, b date, PRIMARY KEY (b, a));
    CREATE TABLE pets (id bigint PRIMARY KEY, oa bigint NOT NULL, ob date, code bigint UNIQUE,
                       FOREIGN KEY (ob, oa) REFERENCES owners (b, a), UNIQUE (oa, ob, id));
    CREATE VIEW tags AS SELECT b, id FROM pets JOIN owners ON oa = a;)");
  const std::string prefix = this->kWords.prefix, qualifier = this->kWords.qualifier;
  EXPECT_EQ(
      qortest::describedLines(*database),
      (Lines{"USE CATALOG `" + this->engine_.catalog() + "`",
             "CREATE TABLE " + prefix + "`owners` (`a` bigint, `b` date, PRIMARY KEY(`b`, `a`))",
             "CREATE TABLE " + prefix +
                 "`pets` (`id` bigint, `oa` bigint NOT NULL, `ob` date, `code` bigint, "
                 "PRIMARY KEY(`id`), FOREIGN KEY(`ob`, `oa`) REFERENCES " +
                 prefix + "`owners`(`b`, `a`))",
             "CREATE VIEW " + prefix + "`tags` (`b` date, `id` bigint)"}));
  EXPECT_EQ(qorchat::uniqueKeysInstruction(*database->describe()),
            "Unique keys: " + qualifier + "pets(code); " + qualifier + "pets(oa, ob, id).");
  EXPECT_EQ(database->engineDescription(), this->engine_.engine());
}

// Made by another connection, as a migration would be, while qorchat keeps its own open.
TYPED_TEST(DatabaseContract, TheStructureStampMovesWithTheStructureAlone) {
  const auto database = this->open("CREATE TABLE kept (id integer); INSERT INTO kept VALUES (1);");
  const auto stamp = [&database] {
    auto read = database->structureStamp();
    if (!read) throw std::runtime_error(read.status().message());
    return std::move(*read);
  };
  std::string last = stamp();
  for (const char* unchanged : {"INSERT INTO kept VALUES (2)", "UPDATE kept SET id = id + 1"}) {
    this->engine_.scalar(unchanged);
    EXPECT_EQ(stamp(), last) << unchanged;
  }
  std::vector<const char*> changes = {
      "CREATE TABLE added (x integer)",           "ALTER TABLE kept ADD COLUMN y integer",
      "CREATE VIEW seen AS SELECT id FROM kept",  "DROP VIEW seen",
      "CREATE UNIQUE INDEX kept_id ON kept (id)", "DROP TABLE added"};
  changes.insert(changes.end(), TypeParam::kOwnChanges.begin(), TypeParam::kOwnChanges.end());
  for (const char* change : changes) {
    this->engine_.scalar(change);
    const std::string now = stamp();
    EXPECT_NE(now, last) << change;
    last = now;
  }
}

TYPED_TEST(DatabaseContract, RunsStatementsInOrderUntilOneFails) {
  const auto database = this->open(
      "CREATE TABLE notes (id integer, body text); INSERT INTO notes VALUES (1, NULL), (2, 'two'), "
      "(3, 'three');");
  const auto results = ran(*database,
                           "  SELECT id, body FROM notes ORDER BY id; -- first\n"
                           "SELECT count(*) AS n FROM notes WHERE body IS NULL;\n"
                           "SELECT nosuch FROM notes;\nSELECT 'never run';",
                           2);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0].statement, "SELECT id, body FROM notes ORDER BY id;");
  EXPECT_EQ(results[0].columns, (Lines{"id", "body"}));
  EXPECT_EQ(results[0].rows, (Rows{{"1", std::nullopt}, {"2", "two"}}));
  EXPECT_EQ(results[0].rowCount, 3u);
  EXPECT_EQ(results[1].columns, Lines{"n"});
  EXPECT_EQ(results[1].rows, Rows{{"1"}});
  EXPECT_TRUE(results[0].status.isOk() && results[1].status.isOk());
  EXPECT_EQ(results[2].statement, "SELECT nosuch FROM notes;");
  EXPECT_EQ(results[2].status.kind(), Status::Kind::kDatabase);
  EXPECT_EQ(results[2].status.message(), this->kWords.unknownColumn);
  EXPECT_TRUE(ran(*database, "  -- nothing here ;\n ; /* ; */ ").empty());
}

TYPED_TEST(DatabaseContract, NoWriteGetsThroughAndNoSnapshotOutlivesTheRun) {
  const auto database =
      this->open("CREATE TABLE kept (id integer); INSERT INTO kept VALUES (1), (2);");
  for (const char* write :
       {"INSERT INTO kept VALUES (3)", "UPDATE kept SET id = id + 10", "DELETE FROM kept",
        "DROP TABLE kept", "CREATE TABLE other (x integer)",
        "CREATE TEMP TABLE scratch (x integer)", "CREATE INDEX kept_id ON kept (id)"}) {
    const auto results = ran(*database, write);
    EXPECT_TRUE(results.size() == 1 && results[0].status.kind() == Status::Kind::kRefused) << write;
  }
  EXPECT_EQ(ran(*database, "INSERT INTO kept VALUES (3)").at(0).status.message(),
            "refused: INSERT changes data; qorchat runs only statements that read");
  EXPECT_EQ(this->engine_.scalar("SELECT count(*) || ':' || sum(id) FROM kept"), "2:3");

  // A transaction a block begins is closed, or never begun: later runs see new data.
  ASSERT_EQ(ran(*database, "BEGIN; SELECT count(*) FROM kept;").back().status.message(),
            "refused: BEGIN is transaction control; qorchat runs only statements that read");
  this->engine_.scalar("INSERT INTO kept VALUES (3)");
  EXPECT_EQ(ran(*database, "SELECT count(*) FROM kept").at(0).rows, Rows{{"3"}});
}

TYPED_TEST(DatabaseContract, ATimeLimitOrAnInterruptStopsOnlyThatStatement) {
  const std::string endless = this->kWords.endless;
  const auto hurried = this->open("", {300ms});
  const auto stopped = ran(*hurried, "SELECT 1; " + endless + "; SELECT 3");
  ASSERT_EQ(stopped.size(), 2u);
  EXPECT_EQ(stopped[1].status.kind(), Status::Kind::kTimedOut);
  EXPECT_EQ(
      stopped[1].status.message(),
      "statement timeout: stopped after 300 ms (--statement-timeout SECONDS changes the limit)");
  EXPECT_EQ(ran(*hurried, "SELECT 1").at(0).rows, Rows{{"1"}});

  // Ctrl-C comes from another thread; while no statement runs it does nothing.
  const auto database = this->open("");
  database->interrupt();
  std::thread interrupter([&database] {
    std::this_thread::sleep_for(300ms);
    database->interrupt();
  });
  const auto interrupted = ran(*database, endless);
  interrupter.join();
  ASSERT_EQ(interrupted.size(), 1u);
  EXPECT_EQ(interrupted[0].status.kind(), Status::Kind::kCancelled);
  EXPECT_EQ(interrupted[0].status.message(), this->kWords.interrupted);
  EXPECT_EQ(ran(*database, "SELECT 7").at(0).rows, Rows{{"7"}});
}

// A statement stopped after its first rows is no failure: they stand. Ctrl-C ends the block; after
// the time limit PostgreSQL goes on with it in a new session.
TYPED_TEST(DatabaseContract, RowsThatCameBeforeAStopStand) {
  for (const bool byCtrlC : {false, true}) {
    const auto database = this->open("", {byCtrlC ? 30s : 600ms});
    ran(*database, "SELECT 1");  // a first statement warms a new database's caches
    std::thread interrupter([&] {
      std::this_thread::sleep_for(600ms);
      if (byCtrlC) database->interrupt();
    });
    const auto started = std::chrono::steady_clock::now();
    const auto results = ran(*database, std::string(TypeParam::kRows) + "; SELECT 2", 5);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    interrupter.join();
    ASSERT_EQ(results.size(), !byCtrlC && TypeParam::kGoesOnAfterATimeLimit ? 2u : 1u) << byCtrlC;
    EXPECT_TRUE(results[0].status.isOk()) << results[0].status.message();
    EXPECT_EQ(results[0].rows.size(), 5u);
    EXPECT_TRUE(results[0].rowCount >= 5 && !results[0].allCounted) << byCtrlC;
  }
}

}  // namespace
