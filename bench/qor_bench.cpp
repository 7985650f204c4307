// How the database digest compares with parsing the same text. Run the release build:
//   build/release/bench/qor_bench
// and read the digest's time as a ratio of the parse's, both measured in the same run.
// BM_DigestText also reports peak_per_json: the most memory one digest holds at a time, as a
// multiple of the structure's size.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "qor_assistant_properties.h"
#include "qor_default_assistant_memory.h"

// Every operator new of this program, the libraries' included, is counted: the bytes in use and
// their peak. Sizes are taken from malloc itself on both sides, so unsized deletes count right.
namespace {

std::atomic<std::size_t> bytesInUse{0};
std::atomic<std::size_t> peakBytes{0};

void* counted(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  const std::size_t size = malloc_usable_size(block);
  const std::size_t now = bytesInUse.fetch_add(size, std::memory_order_relaxed) + size;
  std::size_t peak = peakBytes.load(std::memory_order_relaxed);
  while (now > peak && !peakBytes.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return block;
}

void release(void* block) noexcept {
  if (block == nullptr) return;
  bytesInUse.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
  std::free(block);
}

void* allocate(std::size_t size) {
  return counted(std::malloc(size == 0 ? 1 : size));
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
  const auto align = std::max(static_cast<std::size_t>(alignment), sizeof(void*));
  // aligned_alloc wants a multiple of the alignment.
  const std::size_t rounded = (std::max<std::size_t>(size, 1) + align - 1) / align * align;
  return counted(std::aligned_alloc(align, rounded));
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocateAligned(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  try {
    return allocateAligned(size, alignment);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return operator new(size, alignment, std::nothrow);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete[](void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  release(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
  release(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
  release(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  release(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  release(block);
}

namespace {

// A structure of the given number of tables: nine typed fields, a primary key and a foreign key
// each, in schemas of 500 tables under one catalog. 20,000 tables make about 11.7 MB.
std::string makeStructure(int tables) {
  std::string text = R"~([{"catalog_id":"c1","catalog_name":"warehouse","schemas":[)~";
  for (int t = 0; t < tables; ++t) {
    const std::string n = std::to_string(t);
    if (t % 500 == 0) {
      if (t > 0) text += "]},";
      text +=
          R"~({"schema_id":"s)~" + n + R"~(","schema_name":"schema_)~" + n + R"~(","tables":[)~";
    } else {
      text += ',';
    }
    text += R"~({"name":"table_number_)~" + n + R"~(","fields":[)~";
    text +=
        R"~({"name":"identifier","type":"bigint"},{"name":"customer_reference","type":"int"},)~";
    text += R"~({"name":"created_at","type":"timestamp with time zone"},)~";
    text += R"~({"name":"description_text","type":"varchar(255)"},)~";
    text +=
        R"~({"name":"total_amount","type":"decimal(12,2)"},{"name":"status","type":"smallint"},)~";
    text += R"~({"name":"updated_by_user","type":"varchar(64)"},)~";
    text += R"~({"name":"archived_at","type":"timestamp without time zone"},)~";
    text += R"~({"name":"is_archived","type":"boolean"}],)~";
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
  // The most memory one call holds beyond what was in use before it: the structure it obtains
  // from the memory, the parsed document and the digest itself.
  std::size_t peak = 0;
  for (auto _ : state) {
    const std::size_t before = bytesInUse.load(std::memory_order_relaxed);
    peakBytes.store(before, std::memory_order_relaxed);
    {
      const std::string digest = record.obtainDatabaseInstructions();
      size = digest.size();
      benchmark::DoNotOptimize(digest.data());
      peak = std::max(peak, peakBytes.load(std::memory_order_relaxed) - before);
    }
  }
  state.counters["digest_bytes"] = static_cast<double>(size);
  state.counters["peak_per_json"] =
      static_cast<double>(peak) / static_cast<double>(structure().size());
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
  for (auto _ : state)
    benchmark::DoNotOptimize(document.obtainJsonString().size());
}

BENCHMARK(BM_Parse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestText)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestTree)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SerialiseBody)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
