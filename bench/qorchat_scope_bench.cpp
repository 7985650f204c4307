// How long qorchat's choice of tables within the schema budget takes on 20,000 tables, against a
// plain parse of the same structure measured in the same run. Run the release build:
//   build/release/bench/qorchat_scope_bench
// BM_ScopeIndex is paid once per run (parse and index); BM_ScopeChoose is paid for every
// question. Read both as ratios of BM_Parse.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "bench_data.h"
#include "schema_scope.h"
#include "yl/yl_json.h"

namespace {

constexpr std::size_t kBudget = 120000;  // qorchat's default

const std::string& structure() {
  static const std::string text = qorbench::makeStructure(20000, qorbench::Links::ChainsOfTen);
  return text;
}

// A question and a history of 20 entries, as the library sends: questions and replies with SQL
// that name a few tables each.
const std::vector<std::string>& conversation() {
  static const std::vector<std::string> texts = [] {
    std::vector<std::string> list{
        "How many rows does table_number_15005 have, and what joins schema_12.table_number_6010?"};
    for (int i = 0; i < 20; ++i) {
      const std::string a = std::to_string(i * 997 % 20000);
      const std::string b = std::to_string(i * 1499 % 20000);
      list.push_back(
          "Here is how to compare them:\n```sql\nSELECT t.identifier, t.total_amount, "
          "u.status\nFROM table_number_" +
          a + " AS t\nJOIN \"table_number_" + b +
          "\" AS u ON u.customer_reference = t.identifier\nWHERE t.is_archived = false\nORDER BY "
          "t.created_at DESC\nLIMIT 20;\n```\nThe first table keeps the amounts; the second one "
          "records who changed them and when. Ask if you want the archived rows too.");
    }
    return list;
  }();
  return texts;
}

void BM_Parse(benchmark::State& state) {
  for (auto _ : state) {
    YLJson document(structure());
    benchmark::DoNotOptimize(document.getIsValidJson());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structure().size()));
}

void BM_ScopeIndex(benchmark::State& state) {
  for (auto _ : state) {
    qorchat::SchemaScope scope(structure(), kBudget);
    benchmark::DoNotOptimize(scope.objectCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structure().size()));
}

void BM_ScopeChoose(benchmark::State& state) {
  const qorchat::SchemaScope scope(structure(), kBudget);
  std::vector<std::string_view> texts(conversation().begin(), conversation().end());
  qorchat::SchemaScope::Choice choice;
  for (auto _ : state) {
    choice = scope.choose(texts);
    benchmark::DoNotOptimize(choice.structure.data());
  }
  state.counters["listed"] = static_cast<double>(choice.listed);
  state.counters["digest_bytes"] = static_cast<double>(choice.digestBytes);
  state.counters["json_bytes"] = static_cast<double>(choice.structure.size());
}

BENCHMARK(BM_Parse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScopeIndex)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScopeChoose)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
