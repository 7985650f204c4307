// How long qorchat's choice of tables within the schema budget takes on 20,000 tables, against a
// plain parse of the same structure's JSON measured in the same run. Run the release build:
//   build/release/bench/qorchat_scope_bench
// BM_ScopeIndex is paid once per run (the library's text of the whole structure, measured, and the
// index); BM_ScopeChoose is paid for every question (the choice and its JSON). Read both as
// ratios of BM_Parse.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "db/structure.h"
#include "schema_scope.h"
#include "yl/yl_json.h"

namespace {

constexpr std::size_t kBudget = 120000;  // qorchat's default

// 20,000 tables in schemas of 500, nine columns each, in chains of ten by foreign key.
const qorchat::Structure& structure() {
  static const qorchat::Structure made = [] {
    qorchat::Structure structure;
    qorchat::Catalog& catalog = structure.catalogs.emplace_back(qorchat::Catalog{"warehouse", {}});
    for (int t = 0; t < 20000; ++t) {
      if (t % 500 == 0) catalog.schemas.emplace_back().name = "schema_" + std::to_string(t);
      qorchat::Schema& schema = catalog.schemas.back();
      qorchat::Relation table{"table_number_" + std::to_string(t),
                              {{"identifier", "bigint"},
                               {"customer_reference", "int"},
                               {"created_at", "timestamp with time zone"},
                               {"description_text", "varchar(255)"},
                               {"total_amount", "decimal(12,2)"},
                               {"status", "smallint"},
                               {"updated_by_user", "varchar(64)"},
                               {"archived_at", "timestamp without time zone"},
                               {"is_archived", "boolean"}},
                              {"identifier"},
                              {}};
      if (t % 10 != 0) {
        table.foreignKeys.push_back({{"customer_reference"},
                                     schema.name,
                                     "table_number_" + std::to_string(t - 1),
                                     {"identifier"}});
      }
      schema.relations[0].push_back(std::move(table));
    }
    return structure;
  }();
  return made;
}

const std::string& structureText() {
  static const std::string text = qorchat::structureJson(structure());
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
    YLJson document(structureText());
    benchmark::DoNotOptimize(document.getIsValidJson());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structureText().size()));
}

void BM_ScopeIndex(benchmark::State& state) {
  for (auto _ : state) {
    qorchat::SchemaScope scope(structure(), kBudget);
    benchmark::DoNotOptimize(scope.relationCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structureText().size()));
}

void BM_ScopeChoose(benchmark::State& state) {
  const qorchat::SchemaScope scope(structure(), kBudget);
  std::vector<std::string_view> texts(conversation().begin(), conversation().end());
  qorchat::SchemaScope::Choice choice;
  std::string json;
  for (auto _ : state) {
    choice = scope.choose(texts);
    json = qorchat::structureJson(structure(), &choice.chosen);
    benchmark::DoNotOptimize(json.data());
  }
  state.counters["listed"] = static_cast<double>(choice.listed);
  state.counters["digest_bytes"] = static_cast<double>(choice.digestBytes);
  state.counters["json_bytes"] = static_cast<double>(json.size());
}

BENCHMARK(BM_Parse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScopeIndex)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScopeChoose)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
