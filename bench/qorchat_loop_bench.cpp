// What one round of the query loop costs qorchat itself, from the reply's arrival to the next
// request leaving: the reply's sql-run blocks found, the result laid out for the user, the results
// turn written for the model within its caps; against the time of the statement itself, a
// SELECT of 1,000 rows on SQLite, measured in the same run. Run the release build:
//   build/release/bench/qorchat_loop_bench
// It ends with the ratio of the times.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_ratios.h"
#include "db/database.h"
#include "output_format.h"
#include "query_loop.h"

namespace {

constexpr int kRows = 1000;
constexpr const char* kQuery = "SELECT id, name, price, note FROM items ORDER BY id";
// The rows qorchat keeps of a run for the loop: the default --max-rows.
constexpr std::size_t kKeptRows = 100;

// A reply as a model writes it: a sentence and the query it asks for.
const std::string kReply =
    std::string("To answer that I need the items first.\n\n```sql-run\n") + kQuery + "\n```\n";

// An SQLite file of 1,000 items, made once for the run, deleted at its end.
struct Items {
  Items() {
    path = (std::filesystem::temp_directory_path() /
            ("qorchat-loop-bench-" + std::to_string(getpid()) + ".db"))
               .string();
    std::string sql =
        "BEGIN; CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT, price REAL, note TEXT);";
    for (int i = 0; i < kRows; ++i) {
      sql += "INSERT INTO items VALUES(" + std::to_string(i) + ", 'item number " +
             std::to_string(i) + "', " + std::to_string(i * 1.25) + ", '" +
             std::string(static_cast<std::size_t>(40 + i % 300), 'n') + "');";
    }
    sql += "COMMIT;";
    sqlite3* db = nullptr;
    const bool made = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                      sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    if (!made) throw std::runtime_error("cannot make " + path);
    auto opened = qorchat::openDatabase(path);
    if (!opened) throw std::runtime_error(opened.status().message());
    database = std::move(*opened);
  }
  ~Items() { std::filesystem::remove(path); }
  Items(const Items&) = delete;
  Items& operator=(const Items&) = delete;

  std::string path;
  std::unique_ptr<qorchat::Database> database;
};

Items& items() {
  static Items made;
  return made;
}

std::vector<qorchat::StatementResult> run() {
  auto results = items().database->runReadOnly(kQuery, qorchat::RunLimits{kKeptRows});
  if (!results || results->size() != 1 || !results->front().status ||
      results->front().rowCount != kRows)
    throw std::runtime_error("the statement did not give its 1,000 rows");
  return std::move(*results);
}

// The statement itself, as the loop runs it.
void BM_Statement(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(run());
}

// The loop's own work around it: find the query, show the result, write the turn.
void BM_LoopRound(benchmark::State& state) {
  const std::vector<qorchat::StatementResult> results = run();
  const qorchat::OutputSettings shown{qorchat::OutputFormat::Table, "<null>", 120, false};
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::vector<std::string> requests = qorchat::runRequests(kReply);
    const std::string table = qorchat::formatResult(results.front(), shown);
    const qorchat::ResultsTurn turn = qorchat::resultsTurn(results, {}, false);
    if (requests.size() != 1 || turn.rows == 0) {
      state.SkipWithError("the round lost its query or its rows");
      return;
    }
    bytes = turn.text.size() + table.size();
    benchmark::DoNotOptimize(bytes);
  }
  state.counters["turn_bytes"] =
      static_cast<double>(qorchat::resultsTurn(results, {}, false).text.size());
}

// The part that is the loop's alone: the query found and the turn written, without the table the
// user sees (which /run makes too).
void BM_TurnOnly(benchmark::State& state) {
  const std::vector<qorchat::StatementResult> results = run();
  for (auto _ : state) {
    benchmark::DoNotOptimize(qorchat::runRequests(kReply));
    benchmark::DoNotOptimize(qorchat::resultsTurn(results, {}, false));
  }
}

BENCHMARK(BM_Statement)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoopRound)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnOnly)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  try {
    items();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "qorchat_loop_bench: %s\n", failure.what());
    return 1;
  }
  return qorbench::runWithRatios(
      argc, argv,
      {{"loop round / statement, 1,000 rows capped", "BM_LoopRound", "BM_Statement",
        qorbench::Clock::Cpu},
       {"the turn alone / statement", "BM_TurnOnly", "BM_Statement", qorbench::Clock::Cpu}});
}
