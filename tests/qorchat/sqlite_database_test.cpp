// Tests what only SQLite does: its structure, what it opens, and the functions qorchat replaces.
#include "db/sqlite.h"

#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <sstream>

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

TEST_F(SqliteDatabaseTest, DescribesWhatSqliteAlone) {
  // Foreign keys in the order written, to the parent's key in key order when it is left out;
  // generated columns; untyped columns; odd names; unique keys of every kind; virtual tables
  // without their shadow tables; SQLite's own tables; a broken view, left out.
  const auto database = opened(SqliteDatabase::open(make("described.db", R"(
    CREATE TABLE parent (a INTEGER NOT NULL, b TEXT, PRIMARY KEY (b, a));
    CREATE TABLE implicit (id INTEGER PRIMARY KEY AUTOINCREMENT, label);
    CREATE TABLE child (x INT, y TEXT, z INTEGER, total INTEGER AS (x * 2) STORED,
      note varchar(3) AS (y) VIRTUAL, FOREIGN KEY (y, x) REFERENCES parent (b, a),
      FOREIGN KEY (z) REFERENCES implicit, FOREIGN KEY (x, y) REFERENCES parent);
    CREATE TABLE pairs (k1 TEXT, k2 INT, PRIMARY KEY (k2, k1)) WITHOUT ROWID;
    CREATE VIEW doubled AS SELECT total, y || '!' AS shout FROM child;
    CREATE TABLE "order` lines" ("line no" INTEGER PRIMARY KEY, "say ""hi""" TEXT, `back``tick`);
    CREATE TABLE "clés" ("prénom" TEXT NOT NULL, "line" INTEGER REFERENCES "order` lines");
    CREATE TABLE accounts (email TEXT UNIQUE, shop INT, number INT, nick, UNIQUE (shop, number));
    CREATE UNIQUE INDEX again ON accounts (email);
    CREATE UNIQUE INDEX lowered ON accounts (lower(nick)); CREATE INDEX plain ON accounts (nick);
    CREATE UNIQUE INDEX some ON accounts (nick) WHERE shop > 0;
    CREATE VIRTUAL TABLE notes USING fts5(body); CREATE VIRTUAL TABLE old USING fts4(body);
    CREATE VIRTUAL TABLE boxes USING rtree(id, x0, x1); INSERT INTO implicit (label) VALUES (1);
    ANALYZE; CREATE TABLE t (a); CREATE VIEW v AS SELECT a FROM t; DROP TABLE t;)")));
  // An attached database is described; the connection's own temporary one is not.
  const std::string attach = "ATTACH '" + make("other ü.db", R"(
    CREATE TABLE warehouse (id INTEGER PRIMARY KEY, pk INTEGER UNIQUE);
    CREATE UNIQUE INDEX same ON warehouse (id);
    CREATE TABLE stock (warehouse_id INTEGER REFERENCES warehouse, "Bin" INT UNIQUE);)") +
                             "' AS \"dé`pôt\"; CREATE TEMP TABLE scratch (x);";
  ASSERT_EQ(sqlite3_exec(database->handle(), attach.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(
      qortest::describedLines(*database),
      (Lines{"USE CATALOG `main`",
             "CREATE TABLE `parent` (`a` INTEGER, `b` TEXT, PRIMARY KEY(`b`, `a`))",
             "CREATE TABLE `implicit` (`id` INTEGER, `label` ANY, PRIMARY KEY(`id`))",
             "CREATE TABLE `child` (`x` INT, `y` TEXT, `z` INTEGER, `total` INTEGER, `note` "
             "varchar(3), FOREIGN KEY(`y`, `x`) REFERENCES `parent`(`b`, `a`), "
             "FOREIGN KEY(`z`) REFERENCES `implicit`(`id`), "
             "FOREIGN KEY(`x`, `y`) REFERENCES `parent`(`b`, `a`))",
             "CREATE TABLE `pairs` (`k1` TEXT, `k2` INT, PRIMARY KEY(`k2`, `k1`))",
             "CREATE TABLE `order`` lines` (`line no` INTEGER, `say \"hi\"` TEXT, `back``tick` "
             "ANY, PRIMARY KEY(`line no`))",
             "CREATE TABLE `clés` (`prénom` TEXT NOT NULL, `line` INTEGER, "
             "FOREIGN KEY(`line`) REFERENCES `order`` lines`(`line no`))",
             "CREATE TABLE `accounts` (`email` TEXT, `shop` INT, `number` INT, `nick` ANY)",
             "CREATE TABLE `notes` (`body` ANY)", "CREATE TABLE `old` (`body` ANY)",
             "CREATE TABLE `boxes` (`id` INT, `x0` REAL, `x1` REAL)",
             "CREATE VIEW `doubled` (`total` INTEGER, `shout` ANY)", "USE CATALOG `dé``pôt`",
             "CREATE TABLE `warehouse` (`id` INTEGER, `pk` INTEGER, PRIMARY KEY(`id`))",
             "CREATE TABLE `stock` (`warehouse_id` INTEGER, `Bin` INT, "
             "FOREIGN KEY(`warehouse_id`) REFERENCES `warehouse`(`id`))"}));
  const auto structure = database->describe();
  EXPECT_EQ(qorchat::uniqueKeysInstruction(*structure),
            "Unique keys: main.accounts(email); main.accounts(shop, number); "
            "\"dé`pôt\".warehouse(pk); \"dé`pôt\".stock(\"Bin\").");
  const std::vector<bool> onlyStock{false, false, false, false, false, false, false,
                                    false, false, false, false, false, true};
  EXPECT_EQ(qorchat::uniqueKeysInstruction(*structure, &onlyStock),
            "Unique keys: \"dé`pôt\".stock(\"Bin\").");
  // ANALYZE's counts are the estimates of the tables it saw; the attached database has none.
  const auto& tables = structure->catalogs[0].schemas[0].relations[0];
  std::vector<std::optional<std::int64_t>> estimates;
  for (const auto& table : tables)
    estimates.push_back(table.rowEstimate);
  EXPECT_EQ(estimates[1], 1);
  EXPECT_EQ(estimates[0], std::nullopt);
  EXPECT_EQ(structure->catalogs[1].schemas[0].relations[0][0].rowEstimate, std::nullopt);
  EXPECT_EQ(qortest::describedLines(*opened(SqliteDatabase::open(make("empty.db", "")))),
            Lines{"USE CATALOG `main`"});
}

TEST_F(SqliteDatabaseTest, OpensOnlyADatabaseAndNamesItAlwaysTheSame) {
  const std::string path = make("named.db", ""), uri = "file:" + path + "?mode=ro";
  // A relative path names the same file: the conversation is kept under the same identity.
  EXPECT_EQ(opened(SqliteDatabase::open(fs::relative(path).string()))->identity(),
            fs::canonical(path).string());
  EXPECT_EQ(opened(SqliteDatabase::open(path))->displayName(), "named.db");
  EXPECT_EQ(opened(SqliteDatabase::open(uri))->identity(), uri);
  EXPECT_EQ(opened(SqliteDatabase::open(uri))->displayName(), uri);

  const std::string missing = (dir_.path / "missing.db").string(), folder = dir_.path.string(),
                    text = (dir_.path / "notes.txt").string(), fifo = (dir_.path / "fifo").string(),
                    socketPath = (dir_.path / "socket").string();
  std::ofstream(text) << "Notes, not a database; long enough to fill a header page."
                      << std::string(200, 'x');
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, {}};
  socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::tuple<std::string, Status::Kind, std::string> refusals[] = {
      {missing, Status::Kind::kIoError, "no such file"},
      {folder, Status::Kind::kIoError, "it is a folder"},
      {fifo, Status::Kind::kIoError, "it is a FIFO, not a database file"},
      {"/dev/zero", Status::Kind::kIoError, "it is a character device, not a database file"},
      {socketPath, Status::Kind::kIoError, "it is a socket, not a database file"},
      {text, Status::Kind::kInvalidInput, "'" + text + "' is not an SQLite database"},
      // Whatever the URI asks, nothing is created.
      {"file:" + missing + "?mode=rwc", Status::Kind::kDatabase, "cannot open database 'file:"},
  };
  for (const auto& [target, kind, says] : refusals) {
    const std::string message =
        kind == Status::Kind::kIoError ? "cannot open database '" + target + "': " + says : says;
    const Status refused = SqliteDatabase::open(target).status();
    EXPECT_EQ(refused.kind(), kind) << target;
    EXPECT_EQ(refused.message().substr(0, message.size()), message);
  }
  close(listener);
  fs::create_symlink(path, dir_.path / "link.db");
  EXPECT_TRUE(SqliteDatabase::open((dir_.path / "link.db").string()));
  EXPECT_FALSE(fs::exists(missing));
}

TEST_F(SqliteDatabaseTest, ReplacedFunctionsAnswerAsSqlitesOwn) {
  const std::string expressions =
      "instr('héllo wörld', 'ö')\ninstr(x'00FF00FF', x'FF')\ninstr('abc', '')\ninstr(12345, 34)\n"
      "instr(x'C3A9', 'é')\ninstr('ab', NULL)\ninstr('é', x'A9')\nreplace('aaaa', 'aa', 'b')\n"
      "replace(5, '', 'x')\nreplace('abc', 'b', NULL)\nreplace(x'610062', x'00', 'Z')\n"
      "replace('héllo', 'l', 'LL')\nltrim('ééaé', 'é')\nrtrim('abcé', 'aé')\ntrim('  a  ', '')\n"
      "trim(NULL, 'a')\ntrim(12321, '1')\ntrim(x'C3A9C3', x'C3')\n'Straße' LIKE 'STRA%'\n"
      "'ä' LIKE 'Ä'\n'Ł' LIKE 'a'\n'a_c' LIKE 'a\\_c' ESCAPE '\\'\n'abc' LIKE 'a%%c'\n"
      "x'616263' LIKE 'abc'\n'abc' LIKE 'ab' ESCAPE 'xy'\n'a%' LIKE 'a%%' ESCAPE '%'\n"
      "'a]c' GLOB 'a[]]c'\n'abc' GLOB 'a[^x-z]c'\n'é' GLOB '[à-ê]'\nformat('%s %s', 1)\n"
      "printf('%5.2f|%-4d|%q|%.3c', 3.14159, 7, 'it''s', 'é')\nprintf('%.*c', 5, 'ab')\n"
      "printf('%,d %!.3g %X', 1234567, 0.1, 255)\nprintf(NULL)";
  const auto database = opened(SqliteDatabase::open(make("functions.db", "")));
  sqlite3* plain = nullptr;  // SQLite's own functions
  ASSERT_EQ(sqlite3_open(":memory:", &plain), SQLITE_OK);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> plainCloser(plain, &sqlite3_close);
  std::istringstream lines(expressions);
  for (std::string expression; std::getline(lines, expression);) {
    const std::string sql = "SELECT quote(" + expression + ")";
    const auto results = ran(*database, sql);
    ASSERT_EQ(results.size(), 1u);
    const std::string ours = results[0].status.isOk() ? results[0].rows.at(0).at(0).value_or("NULL")
                                                      : results[0].status.message();
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(plain, sql.c_str(), -1, &statement, nullptr);  // an error leaves it null
    EXPECT_EQ(ours, sqlite3_step(statement) == SQLITE_ROW
                        ? reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))
                        : sqlite3_errmsg(plain))
        << expression;
    sqlite3_finalize(statement);
  }
}

}  // namespace
