// How long qorchat takes to describe a PostgreSQL database of 2,000 tables, against describing
// the same tables in SQLite; what reading the stamp that says whether to describe again costs
// against describing, on each engine; and what a run of SELECT 1 costs in the session qorchat opens
// for each run, against the same statement in a read-only transaction on a connection kept open.
// Each pair is measured in the same run. Run the release build:
//   build/release/bench/qorchat_introspection_bench
// It starts a throwaway cluster as the tests do (as root, its programs run as postgres) and ends
// with the ratios of the times.

#include <benchmark/benchmark.h>
#include <libpq-fe.h>
#include <sqlite3.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench_ratios.h"
#include "db/postgres.h"
#include "db/sqlite.h"
#include "postgres_cluster.h"

namespace {

constexpr int kTables = 2000;

// The same tables for both engines: seven typed columns, a primary key, and a foreign key to the
// table before.
std::string schemaSql(int from, int to) {
  std::string sql;
  for (int t = from; t < to; ++t) {
    sql +=
        "CREATE TABLE table_" + std::to_string(t) + " (id integer PRIMARY KEY, parent_id integer";
    if (t > 0) sql += " REFERENCES table_" + std::to_string(t - 1) + " (id)";
    sql +=
        ", name varchar(100), price numeric(10,2), created timestamp, active boolean, note "
        "text);\n";
  }
  return sql;
}

// Both databases, made once for the whole run.
struct Databases {
  Databases() : cluster(qortest::PostgresCluster::shared()) {
    const std::string sql = schemaSql(0, kTables);
    const std::string database = cluster.createDatabase();
    // 200 tables per transaction: one transaction cannot hold the locks of them all.
    for (int from = 0; from < kTables; from += 200)
      cluster.execute(schemaSql(from, from + 200), database);
    conninfo = cluster.conninfo(database);
    readerConninfo = cluster.readerConninfo(database);

    sqlitePath = cluster.socketDir() + "/tables.db";
    sqlite3* db = nullptr;
    char* error = nullptr;
    const bool made = sqlite3_open(sqlitePath.c_str(), &db) == SQLITE_OK &&
                      sqlite3_exec(db, ("BEGIN;\n" + sql + "COMMIT;").c_str(), nullptr, nullptr,
                                   &error) == SQLITE_OK;
    const std::string reason = error != nullptr ? error : "";
    sqlite3_free(error);
    sqlite3_close(db);
    if (!made) throw std::runtime_error("cannot make the SQLite database: " + reason);
  }

  qortest::PostgresCluster& cluster;
  std::string conninfo;
  std::string readerConninfo;  // a role fit to run statements, with its password
  std::string sqlitePath;
};

Databases& databases() {
  static Databases made;
  return made;
}

// Reads with `read` again and again, and gives the last value read; nothing when the database
// could not be opened or a read failed, the benchmark then skipped with the reason.
template <typename Engine, typename Value>
std::optional<Value> readEachIteration(benchmark::State& state,
                                       qorchat::Result<std::unique_ptr<Engine>> opened,
                                       qorchat::Result<Value> (qorchat::Database::*read)()) {
  if (!opened) {
    state.SkipWithError(opened.status().message().c_str());
    return std::nullopt;
  }
  std::optional<Value> last;
  for (auto _ : state) {
    qorchat::Result<Value> value = (*opened.value().*read)();
    if (!value) {
      state.SkipWithError(value.status().message().c_str());
      return std::nullopt;
    }
    last = std::move(value.value());
    benchmark::DoNotOptimize(last);
  }
  return last;
}

// A description that lacks a table would make a fast and worthless measure.
void checkDescription(benchmark::State& state, const std::optional<qorchat::Structure>& structure) {
  if (!structure) return;
  std::size_t tables = 0;
  for (const qorchat::RelationPlace& place : qorchat::relationPlaces(*structure))
    tables += qorchat::relationAt(*structure, place).name.rfind("table_", 0) == 0 ? 1 : 0;
  if (tables != kTables) state.SkipWithError("the description does not list every table");
  state.counters["json_bytes"] = static_cast<double>(qorchat::structureJson(*structure).size());
}

void BM_DescribePostgres(benchmark::State& state) {
  checkDescription(
      state, readEachIteration(state, qorchat::PostgresDatabase::connect(databases().conninfo),
                               &qorchat::Database::describe));
}

void BM_DescribeSqlite(benchmark::State& state) {
  checkDescription(state,
                   readEachIteration(state, qorchat::SqliteDatabase::open(databases().sqlitePath),
                                     &qorchat::Database::describe));
}

BENCHMARK(BM_DescribePostgres)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DescribeSqlite)->Unit(benchmark::kMillisecond);

// The stamp read before each question and each MCP call that shows the structure.
void BM_StampPostgres(benchmark::State& state) {
  readEachIteration(state, qorchat::PostgresDatabase::connect(databases().conninfo),
                    &qorchat::Database::structureStamp);
}

void BM_StampSqlite(benchmark::State& state) {
  readEachIteration(state, qorchat::SqliteDatabase::open(databases().sqlitePath),
                    &qorchat::Database::structureStamp);
}

BENCHMARK(BM_StampPostgres)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StampSqlite)->Unit(benchmark::kMicrosecond);

// runReadOnly as qorchat calls it: the block parsed and judged, a session opened, its role
// checked, the statement read, the session closed.
void BM_RunFreshSession(benchmark::State& state) {
  auto opened = qorchat::PostgresDatabase::connect(databases().readerConninfo);
  if (!opened) {
    state.SkipWithError(opened.status().message().c_str());
    return;
  }
  for (auto _ : state) {
    auto results = opened.value()->runReadOnly("SELECT 1", {});
    if (!results || results->size() != 1 || results->at(0).rows.size() != 1) {
      state.SkipWithError(results ? "SELECT 1 gave no row" : results.status().message().c_str());
      return;
    }
    benchmark::DoNotOptimize(results);
  }
}

// The baseline: the same statement on one connection kept open, as a run used to go there: a
// read-only transaction begun, the statement read row by row, the transaction rolled back.
void BM_RunReusedConnection(benchmark::State& state) {
  const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(
      PQconnectdb(databases().readerConninfo.c_str()), &PQfinish);
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    state.SkipWithError(PQerrorMessage(connection.get()));
    return;
  }
  PGconn* c = connection.get();
  for (auto _ : state) {
    PQclear(PQexec(c, "BEGIN READ ONLY; SET LOCAL statement_timeout = 31000"));
    PQsendQueryParams(c, "SELECT 1", 0, nullptr, nullptr, nullptr, nullptr, 0);
    PQsetSingleRowMode(c);
    int rows = 0;
    while (PGresult* part = PQgetResult(c)) {
      rows += PQntuples(part);
      PQclear(part);
    }
    PQclear(PQexec(c, "ROLLBACK"));
    if (rows != 1) {
      state.SkipWithError("SELECT 1 gave no row");
      return;
    }
  }
}

BENCHMARK(BM_RunFreshSession)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RunReusedConnection)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  try {
    databases();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "qorchat_introspection_bench: %s\n", failure.what());
    return 1;
  }
  return qorbench::runWithRatios(
      argc, argv,
      {{"PostgreSQL / SQLite, " + std::to_string(kTables) + " tables", "BM_DescribePostgres",
        "BM_DescribeSqlite", qorbench::Clock::Real},
       {"PostgreSQL: stamp / describe", "BM_StampPostgres", "BM_DescribePostgres",
        qorbench::Clock::Real},
       {"SQLite: stamp / describe", "BM_StampSqlite", "BM_DescribeSqlite", qorbench::Clock::Real},
       {"SELECT 1: fresh session / reused connection", "BM_RunFreshSession",
        "BM_RunReusedConnection", qorbench::Clock::Real}});
}
