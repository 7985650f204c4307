// How long qorchat's choice of tables within the schema budget takes on 20,000 tables, against a
// plain parse of the same structure measured in the same run. Run the release build:
//   build/release/bench/qorchat_scope_bench
// BM_ScopeIndex is paid once per run (parse and index); BM_ScopeChoose is paid for every
// question. Read both as ratios of BM_Parse.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "schema_scope.h"
#include "yl/yl_json.h"

namespace {

constexpr std::size_t kBudget = 120000;  // qorchat's default

// 20,000 tables of nine typed fields in 40 schemas of 500 under one catalog, each with a primary
// key and, but for every tenth, a foreign key to the table before it: chains of ten.
std::string makeStructure(int tables) {
  std::string text = R"~([{"catalog_id":"c1","catalog_name":"warehouse","schemas":[)~";
  std::string schema;
  for (int t = 0; t < tables; ++t) {
    const std::string n = std::to_string(t);
    if (t % 500 == 0) {
      if (t > 0) text += "]},";
      schema = "schema_" + n;
      text += R"~({"schema_id":"s)~" + n + R"~(","schema_name":")~" + schema + R"~(","tables":[)~";
    } else {
      text += ',';
    }
    text += R"~({"name":"table_number_)~" + n + R"~(","fields":[)~";
    text +=
        R"~({"name":"identifier","type":"bigint"},{"name":"previous_reference","type":"bigint"},)~";
    text += R"~({"name":"created_at","type":"timestamp with time zone"},)~";
    text += R"~({"name":"description_text","type":"varchar(255)"},)~";
    text +=
        R"~({"name":"total_amount","type":"decimal(12,2)"},{"name":"status","type":"smallint"},)~";
    text += R"~({"name":"updated_by_user","type":"varchar(64)"},)~";
    text += R"~({"name":"archived_at","type":"timestamp without time zone"},)~";
    text += R"~({"name":"is_archived","type":"boolean"}],"pkeys":["identifier"])~";
    if (t % 10 != 0) {
      text += R"~(,"fkeys":[{"fields":["previous_reference"],"ref_schema":")~" + schema +
              R"~(","ref_table":"table_number_)~" + std::to_string(t - 1) +
              R"~(","ref_fields":["identifier"]}])~";
    }
    text += '}';
  }
  text += "]}]}]";
  return text;
}

const std::string& structure() {
  static const std::string text = makeStructure(20000);
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
          "\" AS u ON u.previous_reference = t.identifier\nWHERE t.is_archived = false\nORDER BY "
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
