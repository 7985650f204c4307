// How the database digest compares with parsing the same text. Run the release build:
//   build/release/bench/qor_bench
// and read the digest's time as a ratio of the parse's, both measured in the same run.

#include <benchmark/benchmark.h>

#include <string>

#include "qor_assistant_properties.h"
#include "qor_default_assistant_memory.h"

namespace {

// A structure of the given number of tables: six typed fields, a primary key and a foreign key
// each, in schemas of 500 tables under one catalog. 20,000 tables make about 11.7 MB.
std::string makeStructure(int tables) {
  std::string text = R"~([{"catalog_id":"c1","catalog_name":"warehouse","schemas":[)~";
  for (int t = 0; t < tables; ++t) {
    const std::string n = std::to_string(t);
    if (t % 500 == 0) {
      if (t > 0) text += "]},";
      text += R"~({"schema_id":"s)~" + n + R"~(","schema_name":"schema_)~" + n + R"~(","tables":[)~";
    } else {
      text += ',';
    }
    text += R"~({"name":"table_number_)~" + n + R"~(","fields":[)~";
    text += R"~({"name":"identifier","type":"bigint"},{"name":"customer_reference","type":"int"},)~";
    text += R"~({"name":"created_at","type":"timestamp with time zone"},)~";
    text += R"~({"name":"description_text","type":"varchar(255)"},)~";
    text += R"~({"name":"total_amount","type":"decimal(12,2)"},{"name":"status","type":"smallint"}],)~";
    text += R"~("pkeys":["identifier"],"fkeys":[{"fields":["customer_reference"],)~";
    text += R"~("ref_schema":"schema_0","ref_table":"customers","ref_fields":["identifier"]}]})~";
  }
  text += "]}]}]";
  return text;
}

const std::string& structure() {
  static const std::string text = makeStructure(20000);
  return text;
}

void BM_Parse(benchmark::State& state) {
  for (auto _ : state) {
    YLJson document(structure());
    benchmark::DoNotOptimize(document.getIsValidJson());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structure().size()));
}

void BM_DigestText(benchmark::State& state) {
  QORDefaultAssistantMemory memory;
  memory.setDatabaseStructure(structure());
  QORAssistantProperties record(&memory);
  std::size_t size = 0;
  for (auto _ : state) {
    const std::string digest = record.obtainDatabaseInstructions();
    size = digest.size();
    benchmark::DoNotOptimize(digest.data());
  }
  state.counters["digest_bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(structure().size()));
}

void BM_DigestTree(benchmark::State& state) {
  QORDefaultAssistantMemory memory;
  memory.setDatabaseStructure(structure());
  QORAssistantProperties record(&memory);
  for (auto _ : state) {
    benchmark::DoNotOptimize(record.obtainDatabaseTree().size());
  }
}

void BM_SerialiseBody(benchmark::State& state) {
  YLJson document(structure());
  for (auto _ : state) benchmark::DoNotOptimize(document.obtainJsonString().size());
}

BENCHMARK(BM_Parse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestText)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestTree)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SerialiseBody)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
