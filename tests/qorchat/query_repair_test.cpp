// The answer's SQL checked before it is offered, and the tables round: a scripted model on a
// loopback port reads the database's error or the structure from the requests it receives; the
// real program in between, on SQLite and PostgreSQL.
#include "helpers.h"
#include "postgres_cluster.h"

namespace qortest {
namespace {

constexpr const char* kCustomers =
    "CREATE TABLE customers (id integer PRIMARY KEY, name text);"
    "INSERT INTO customers VALUES (1, 'Ada');";

// Each request body in order; each reply is what the script makes of the body.
struct Model {
  explicit Model(std::function<std::string(const std::string&)> script)
      : server([this, script](RawConnection& connection, const RawRequest& request) {
          {
            const std::lock_guard lock(mutex);
            bodies.push_back(request.body);
          }
          ollamaStream({script(request.body)}, std::chrono::milliseconds(1))(connection, request);
        }) {}
  std::vector<std::string> all() {
    const std::lock_guard lock(mutex);
    return bodies;
  }
  std::mutex mutex;
  std::vector<std::string> bodies;
  RawServer server;
};

Outcome converse(Model& model, const std::string& db, const std::vector<std::string>& more,
                 const std::string& input) {
  std::vector<std::string> args{"--db",    db,       "--service",
                                "ollama",  "--host", model.server.baseUrl(),
                                "--model", "m",      "--no-history"};
  args.insert(args.end(), more.begin(), more.end());
  return runQorchat(args, {}, input);
}

std::string sqlBlock(const std::string& sql) {
  return "Here it is:\n```sql\n" + sql + "\n```\n";
}

// An invented column, corrected once the error comes back (under never: planning errors hold no
// rows); a model that repeats it is asked only once, and its block offered with the error.
TEST(QueryRepair, AFailedBlockIsCorrectedOnceOrOfferedWithItsError) {
  TempDir dir;
  const std::filesystem::path file = dir.path / "shop.db";
  sqlite(file, kCustomers);
  PostgresCluster& cluster = PostgresCluster::shared();
  const std::string database = cluster.createDatabase();
  cluster.execute(kCustomers, database);
  struct Case {
    std::string db;
    std::string error;
    bool learns;
  };
  const std::string postgres = cluster.readerConninfo(database);
  for (const Case& c : {Case{file.string(), "no such column: c.nme", true},
                        Case{file.string(), "no such column: c.nme", false},
                        Case{postgres, "column c.nme does not exist", true},
                        Case{postgres, "column c.nme does not exist", false}}) {
    SCOPED_TRACE(c.db + (c.learns ? " learns" : " repeats"));
    Model model([&c](const std::string& body) {
      const bool told = has(body, "The database's error: " + c.error);
      return sqlBlock(told && c.learns ? "SELECT c.name FROM customers c"
                                       : "SELECT c.nme FROM customers c");
    });
    const Outcome run = converse(model, c.db, {"--share-results", "never"}, "Names?\n/run 1\n");
    EXPECT_TRUE(
        has(run.err, "block 1 failed the check (" + c.error + "); asking the model to correct it"))
        << run.err;
    ASSERT_EQ(model.all().size(), 2U);
    EXPECT_EQ(has(run.out, "Ada"), c.learns) << run.out;
    EXPECT_EQ(has(run.err, "    (fails: " + c.error + ")"), !c.learns) << run.err;
  }
}

// 300 tables of a few columns, cut to a budget that holds a fraction of them: the model sees
// every name, asks for three (one the database does not have), and the next request's structure
// holds the two it has. Then a hundred tables, those asked for among them, are dropped elsewhere:
// /schema reads the structure again, forgetting what was asked for.
TEST(QueryRepair, TheModelAsksForTheTablesItNeeds) {
  TempDir dir;
  const std::filesystem::path file = dir.path / "wide.db";
  std::string sql = "BEGIN;";
  for (int i = 100; i < 400; ++i) {
    sql += "CREATE TABLE t" + std::to_string(i) +
           " (id INTEGER PRIMARY KEY, label TEXT, created_at TEXT, amount REAL, note TEXT);";
  }
  sqlite(file, sql + "COMMIT;");
  Model model([&file](const std::string& body) -> std::string {
    if (!has(body, "CREATE TABLE `t350`")) return "```tables\nt350\n- \"T351\";\nnope\n```";
    std::string drop = "BEGIN;";
    for (int i = 300; i < 400; ++i)
      drop += "DROP TABLE t" + std::to_string(i) + ";";
    sqlite(file, drop + "COMMIT;");
    return "Done.";
  });
  const Outcome run =
      converse(model, file.string(), {"--schema-budget", "8000", "--share-results", "never"},
               "How many rows are there?\n/schema\n");
  EXPECT_TRUE(has(run.err,
                  "the model asked for: t350, \"T351\", nope (not in the database: nope); asking "
                  "again with them"))
      << run.err;
  const std::vector<std::string> bodies = model.all();
  ASSERT_EQ(bodies.size(), 2U) << run.err;
  EXPECT_TRUE(has(bodies[0], "labelled tables") && has(bodies[0], "more not listed"));
  EXPECT_FALSE(has(bodies[0], "CREATE TABLE `t350`") || has(bodies[0], "CREATE TABLE `t351`"));
  EXPECT_TRUE(has(bodies[1], "CREATE TABLE `t350`") && has(bodies[1], "CREATE TABLE `t351`"));
  EXPECT_TRUE(has(bodies[1], "it now lists t350, t351") &&
              has(bodies[1], "no table or view named nope"))
      << bodies[1];
  EXPECT_TRUE(has(run.out, "Done."));
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(has(run.err, "the structure of wide.db changed")) << run.err;
  EXPECT_TRUE(has(run.out, "the structure lists") && !has(run.out, "CREATE TABLE `t350`"))
      << run.out;
}

}  // namespace
}  // namespace qortest
