// Tries the model's SQL on a PostgreSQL server of the tests' own as an attacker would: hostile
// blocks, refused, leaving nothing behind; roles that may do more than read; the session without
// the parser; honest questions; the size limits on what is kept.
#include <libpq-fe.h>

#include <chrono>
#include <thread>

#include "analytic_queries.h"
#include "db/postgres.h"
#include "db/postgres_run.h"
#include "helpers.h"
#include "postgres_cluster.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qorchat::PostgresDatabase;
using qorchat::Status;
using qortest::opened;
using qortest::ran;
using Clock = std::chrono::steady_clock;

// A hostile block (FILE stands for a path on the server) and what its refusal names.
using Attack = std::pair<const char*, const char*>;

const Attack kAttacks[] = {
    {"COMMIT AND CHAIN; SET TRANSACTION READ WRITE; DELETE FROM orders", "COMMIT AND CHAIN"},
    {"ROLLBACK AND CHAIN; SET TRANSACTION READ WRITE; INSERT INTO orders VALUES (9)",
     "ROLLBACK AND CHAIN"},
    {"COMMIT; CREATE TEMP TABLE customers (id int); SET search_path = pg_temp, public", "COMMIT"},
    {"SET statement_timeout = 0", "SET statement_timeout"},
    {"SET ROLE pg_execute_server_program; COPY (SELECT 1) TO PROGRAM 'touch FILE'", "SET ROLE"},
    {"SET SESSION AUTHORIZATION postgres", "SET SESSION AUTHORIZATION"},
    {"set local search_path = pg_temp, public", "SET LOCAL search_path"},
    {"RESET ALL", "RESET ALL"},
    {"DO $$ BEGIN EXECUTE 'COPY (SELECT 1) TO PROGRAM ''touch FILE'''; END $$", "DO"},
    {"COPY (SELECT 1) TO PROGRAM 'touch FILE'", "COPY"},
    {"LOCK TABLE customers IN ACCESS EXCLUSIVE MODE", "LOCK"},
    {"LISTEN c", "LISTEN"},
    {"PREPARE p AS DELETE FROM orders; EXECUTE p", "PREPARE"},
    {"DISCARD ALL", "DISCARD"},
    {"DECLARE kept CURSOR WITH HOLD FOR SELECT * FROM customers", "DECLARE"},
    {"MERGE INTO customers c USING orders o ON c.id = o.id WHEN MATCHED THEN DELETE", "MERGE"},
    {"CREATE TABLE stolen AS TABLE customers", "CREATE TABLE AS"},
    {"CREATE FUNCTION public.f() RETURNS int LANGUAGE sql AS 'SELECT 1'", "CREATE FUNCTION"},
    {"VACUUM customers", "VACUUM"},
    {"SELECT * INTO stolen FROM customers", "SELECT INTO"},
    {"WITH gone AS (DELETE FROM orders RETURNING id) SELECT 1", "DELETE in WITH"},
    {"SELECT * FROM (SELECT * FROM customers FOR KEY SHARE) s", "SELECT ... FOR KEY SHARE"},
    {"SELECT * FROM customers FOR UPDATE", "SELECT ... FOR UPDATE"},
    {"CREATE TEMP TABLE t AS SELECT 1", "CREATE TABLE AS"},
    {"EXPLAIN ANALYZE UPDATE products SET price = 0", "UPDATE"},
    {"SELECT pg_catalog.SET_CONFIG('search_path', 'pg_temp', false)", "set_config()"},
    {"SELECT \"pg_advisory_lock\"(42)", "pg_advisory_lock()"},
    {"SELECT * FROM pg_catalog.pg_read_file('postgresql.conf')", "pg_read_file()"},
    {"SELECT query_to_xml('SELECT 1', true, true, '')", "query_to_xml()"},
    {"SELECT * FROM dblink('dbname=x', 'SELECT 1') AS r(a int)", "dblink()"},
    {"SELECT ts_stat('SELECT to_tsvector(name) FROM customers')", "ts_stat()"},
    {"SELECT pg_sleep(100)", "pg_sleep()"},
    {"SELECT pg_terminate_backend(pid) FROM pg_stat_activity", "pg_terminate_backend()"},
    {"SELECT pg_create_logical_replication_slot('s', 'test_decoding')",
     "pg_create_logical_replication_slot()"},
    {"SELECT name FROM customers ORDER BY nextval('tickets')", "nextval()"},
    {"SELECT count(*) FILTER (WHERE pg_notify('c', 'x') IS NULL) FROM orders", "pg_notify()"},
    {"SELECT sum(id) OVER (PARTITION BY setval('tickets', 1)) FROM orders", "setval()"},
    {"SELECT * FROM customers JOIN LATERAL pg_ls_dir('.') d ON true", "pg_ls_dir()"},
    {"SELECT CASE WHEN id > 0 THEN lo_unlink(id) END FROM customers", "lo_unlink()"},
    {"SELECT $a$ $$; $a$ -- ;\n; DROP TABLE orders", "DROP"},
    {"SELECT 1 -- the line ends here\n; SET ROLE attack_admin", "SET ROLE"},
    // \r ends a -- comment: two string SELECTs run, not the COMMIT and UPDATE after each \n.
    {"--x\rSELECT '\nCOMMIT;--'; --y\rSELECT '\nUPDATE products SET price = 0;--'", nullptr},
    {"SELECT brin_summarize_new_values('orders_pkey')", "brin_summarize_new_values()"},
    {"SELECT txid_current(), pg_export_snapshot()", "txid_current()"},
};

::testing::AssertionResult names(const std::string& message, const char* named) {
  if (message.rfind(std::string("refused: ") + named + " ", 0) == 0 &&
      qortest::has(message, "; qorchat runs only statements that read"))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "gave: " << message;
}

constexpr const char* kPassword = "attack-pw";
constexpr const char* kSlowCount =
    "SELECT count(*) FROM generate_series(1, 100000) a, generate_series(1, 100000) b";

class SafeRunPostgres : public ::testing::Test {
 protected:
  // One database and its roles for the suite: roles belong to the whole cluster.
  static void SetUpTestSuite() {
    cluster_ = &qortest::PostgresCluster::shared();
    database_ = cluster_->createDatabase();
    std::string roles =
        "CREATE ROLE attack_middle; CREATE ROLE attack_admin SUPERUSER; "
        "GRANT pg_write_server_files TO attack_middle; ";
    for (const char* role : {"owner", "reader", "creator", "indirect", "climber"})
      roles += std::string("CREATE ROLE attack_") + role + " LOGIN PASSWORD '" + kPassword + "'; ";
    cluster_->execute(roles +
                      "GRANT pg_read_all_data TO attack_reader; ALTER ROLE attack_creator "
                      "CREATEROLE; GRANT attack_middle TO attack_indirect; "
                      "GRANT attack_admin TO attack_climber;");
    // The owner may create tables itself: only qorchat stands between its rights and a write.
    cluster_->execute("GRANT CREATE ON SCHEMA public TO attack_owner; SET ROLE attack_owner; " +
                          std::string(qortest::kAnalyticSchema) + "CREATE SEQUENCE tickets;",
                      database_);
  }

  static std::unique_ptr<PostgresDatabase> open(const std::string& role,
                                                std::chrono::milliseconds limit = 30s) {
    return opened(PostgresDatabase::connect(conninfo(role), {limit}));
  }
  static std::string conninfo(const std::string& role) {
    if (role == "postgres") return cluster_->conninfo(database_);
    return cluster_->conninfo(database_, role) + " password=" + kPassword;
  }

  // What an attack could change, read by the superuser: the roles' sessions, relations (temporary
  // ones too) with owners and rights, the sequence, large objects, advisory locks, prepared
  // transactions, functions and the data.
  static std::string world() {
    std::string sql =
        "SELECT concat_ws(' | ', (SELECT count(*) FROM pg_stat_activity WHERE usename LIKE "
        "'attack%'), (SELECT string_agg(concat_ws(':', relname, relkind, relowner::regrole, "
        "relacl), ',' ORDER BY relname) FROM pg_class WHERE relnamespace::regnamespace::text !~ "
        "'^(pg_catalog|information_schema|pg_toast)'), (SELECT last_value FROM tickets), (SELECT "
        "count(*) FROM pg_largeobject_metadata), (SELECT count(*) FROM pg_locks WHERE locktype = "
        "'advisory'), (SELECT count(*) FROM pg_prepared_xacts), (SELECT count(*) FROM pg_proc "
        "WHERE pronamespace = 'public'::regnamespace)";
    for (const std::string table : {"customers", "products", "orders", "order_lines", "employees"})
      sql += ", (SELECT md5(string_agg(t::text, ',' ORDER BY t::text)) FROM " + table + " t)";
    return cluster_->query(sql + ")", database_).at(0).at(0);
  }
  // The world once it begins as expected, or after five seconds: a closed session's backend
  // ends, releasing what it held, a moment after the client has left.
  static std::string settled(const std::string& prefix) {
    std::string now = world();
    for (const auto until = Clock::now() + 5s; now.rfind(prefix, 0) != 0 && Clock::now() < until;
         now = world())
      std::this_thread::sleep_for(20ms);
    return now;
  }
  static qortest::Rows settingsSeen(PostgresDatabase& database) {
    const char* sql =
        "SELECT current_setting('statement_timeout'), current_setting('search_path'), "
        "current_setting('role')";
    return ran(database, sql).at(0).rows;
  }

  static qortest::PostgresCluster* cluster_;
  static std::string database_;
};

qortest::PostgresCluster* SafeRunPostgres::cluster_ = nullptr;
std::string SafeRunPostgres::database_;

TEST_F(SafeRunPostgres, NoAttackWritesEscapesOrLingers) {
  const std::string pwned = cluster_->socketDir() + "/pwned";
  for (const std::string role : {"attack_owner", "attack_reader"}) {
    const auto database = open(role);
    const qortest::Rows settings = settingsSeen(*database);
    const std::string before = settled("1 | ");  // the one kept for the structure
    for (const auto& [attack, named] : kAttacks) {
      std::string sql = attack;
      qorchat::text::replaceAll(sql, "FILE", pwned);
      const auto results = ran(*database, sql);
      const std::string what = role + ": " + sql;
      ASSERT_FALSE(results.empty()) << what;
      EXPECT_EQ(results.back().status.kind(), named ? Status::Kind::kRefused : Status::Kind::kOk)
          << what;
      EXPECT_TRUE(named == nullptr || names(results.back().status.message(), named)) << what;
      EXPECT_EQ(settled(before), before) << what;
      EXPECT_FALSE(fs::exists(pwned)) << what;
      EXPECT_EQ(settingsSeen(*database), settings) << what;
    }
  }
}

TEST_F(SafeRunPostgres, ARoleThatMayDoMoreThanReadRunsNothing) {
  const std::string fit =
      " rights that reach past a read-only transaction; qorchat runs no statement as it. A role "
      "fit for it: CREATE ROLE chat LOGIN; GRANT pg_read_all_data TO chat;";
  const std::pair<std::string, std::string> refusals[] = {
      {"postgres", "is a superuser,"},
      {"attack_creator", "has CREATEROLE,"},
      {"attack_indirect", "is a member of pg_write_server_files,"},
      {"attack_climber", "is a member of the superuser role attack_admin,"},
  };
  for (const auto& [role, why] : refusals) {
    const auto database = open(role);
    const auto run = database->runReadOnly("SELECT 1", {});
    EXPECT_EQ(run.status().kind(), Status::Kind::kRefused) << role;
    EXPECT_EQ(run.status().message(), "refused: role '" + role + "' " + why + fit);
    EXPECT_TRUE(database->describe()) << role;  // only running is refused
  }
}

// With no parser in front of it, what a session sets, locks, opens or creates ends with it, and
// qorchat's own deadline stops a statement whose session lifted the server's limit.
TEST_F(SafeRunPostgres, TheSessionAloneLeavesNothingAndKeepsTheTime) {
  const std::string before = settled("0 | ");
  qorchat::postgres::ConnectParams params;
  params.add("dbname", conninfo("attack_owner"));
  qorchat::postgres::CancelSlot slot;
  const qorchat::postgres::MessageCleaner cleaner("");
  const auto run = [&](const std::vector<std::string>& block) {
    const auto session =
        opened(qorchat::postgres::RunSession::open(params, 300ms, slot, cleaner, "test"));
    std::vector<qorchat::StatementResult> results(block.size());
    for (std::size_t i = 0; i < block.size(); ++i) {
      results[i].statement = block[i];
      session->run(results[i], {});
    }
    return results;
  };
  const auto started = Clock::now();
  const auto hostile =
      run({"SELECT pg_advisory_lock(7)", "SET statement_timeout = 0", "SET search_path = nowhere",
           "DECLARE kept CURSOR WITH HOLD FOR SELECT 1", "PREPARE p AS SELECT 1", "LISTEN c",
           kSlowCount});
  for (std::size_t i = 0; i + 1 < hostile.size(); ++i)
    EXPECT_TRUE(hostile[i].status.isOk()) << hostile[i].statement;
  EXPECT_EQ(hostile.back().status.kind(), Status::Kind::kTimedOut);
  // Without qorchat's cancel the session would only be given up two seconds past the limit.
  EXPECT_LT(Clock::now() - started, 1200ms);
  EXPECT_EQ(settled(before), before);
  const auto next = run({"SHOW search_path", "FETCH 1 FROM kept"});
  EXPECT_EQ(next[0].rows, (qortest::Rows{{"\"$user\", public"}}));
  EXPECT_EQ(next[1].status.message(), "cursor \"kept\" does not exist");
}

TEST_F(SafeRunPostgres, HonestQuestionsAllRun) {
  for (const std::string role : {"attack_owner", "attack_reader"}) {
    const auto database = open(role);
    for (const char* sql : qortest::kAnalyticQueries) {
      const auto results = ran(*database, sql);
      ASSERT_FALSE(results.empty()) << sql;
      for (const auto& result : results)
        EXPECT_TRUE(result.status.isOk() && !result.rows.empty())
            << role << ": " << sql << "\n  " << result.status.message();
    }
  }
}

TEST_F(SafeRunPostgres, HugeValuesAreCutAsTheyAreRead) {
  const auto run = open("attack_reader")
                       ->runReadOnly(
                           "SELECT repeat('x', 50000000) AS big, repeat('é', 10), "
                           "'short', NULL FROM generate_series(1, 4)",
                           {3, 7});
  ASSERT_TRUE(run) << run.status().message();
  EXPECT_EQ(run->at(0).rowCount, 4u);
  // Seven bytes hold three two-byte characters, not half of a fourth.
  EXPECT_EQ(run->at(0).rows, (qortest::Rows(3, {"xxxxxxx", "ééé", "short", std::nullopt})));
}

}  // namespace
