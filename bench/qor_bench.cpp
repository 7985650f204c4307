// The text work of every request, each next to a baseline from the same run: the database digest
// of 2,000 and 20,000 tables against plain parses of the same structure (YLJson's and simdjson's),
// a request document of 100 KB to text against RapidJSON's own writer, and a reply taken into its
// response against a parse in place. Run the release build:
//   build/release/bench/qor_bench
// and read the summary of ratios at the end. Digest/N also reports peak_per_json: the most memory
// one digest holds at a time, as a multiple of the structure's size.

// RapidJSON is header-only; this choice must match libyl's, which includes it with SSE2 on.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "bench_ratios.h"
#include "qor_assistant_properties.h"
#include "qor_default_assistant_memory.h"
#include "yl/yl_rest.h"

// Every operator new of this program, the libraries' included, passes through here. While a
// window is open (one call being measured) the bytes it takes and gives back are counted, relative
// to the window's start, with their peak; outside a window nothing is counted, so the figures of
// the other benchmarks pay only one load per allocation. Sizes are taken from malloc itself on
// both sides, so unsized deletes count right.
namespace {

std::atomic<bool> counting{false};
std::atomic<std::int64_t> bytesInUse{0};
std::atomic<std::int64_t> peakBytes{0};

void* counted(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  if (!counting.load(std::memory_order_relaxed)) return block;
  const auto size = static_cast<std::int64_t>(malloc_usable_size(block));
  const std::int64_t now = bytesInUse.fetch_add(size, std::memory_order_relaxed) + size;
  std::int64_t peak = peakBytes.load(std::memory_order_relaxed);
  while (now > peak && !peakBytes.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return block;
}

void release(void* block) noexcept {
  if (block == nullptr) return;
  if (counting.load(std::memory_order_relaxed)) {
    // A block from before the window lowers the count below its start: that is memory given back.
    bytesInUse.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(block)),
                         std::memory_order_relaxed);
  }
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

// The most memory the call holds at a time beyond what was in use before it.
template <typename Call>
std::int64_t peakOf(Call&& call) {
  bytesInUse.store(0, std::memory_order_relaxed);
  peakBytes.store(0, std::memory_order_relaxed);
  counting.store(true, std::memory_order_relaxed);
  call();
  counting.store(false, std::memory_order_relaxed);
  return peakBytes.load(std::memory_order_relaxed);
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

const std::string& structure(int tables) {
  // Built once per size: the 20,000 tables take a while.
  static std::map<int, std::string> made;
  auto found = made.find(tables);
  if (found == made.end()) found = made.emplace(tables, qorbench::makeStructure(tables)).first;
  return found->second;
}

void setBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

// ---- The digest and two plain parses of the same text ------------------------------------------

void BM_ParseYLJson(benchmark::State& state, int tables) {
  const std::string& text = structure(tables);
  for (auto _ : state) {
    YLJson document(text);
    benchmark::DoNotOptimize(document.getIsValidJson());
  }
  setBytes(state, text.size());
}

// simdjson's DOM parse, as its documentation has it used: one parser kept for every parse, the
// text padded once beforehand. No client of ours could do less to read the structure.
void BM_ParseSimdjson(benchmark::State& state, int tables) {
  const simdjson::padded_string text(structure(tables));
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element root;
    if (parser.parse(text).get(root) != simdjson::SUCCESS) {
      state.SkipWithError("simdjson refused the structure");
      break;
    }
    benchmark::DoNotOptimize(root);
  }
  setBytes(state, text.size());
}

// The digest as an assistant makes it for every request: the structure obtained from the memory,
// parsed and written out as statements. Also reports peak_per_json: the most memory one digest
// holds at a time (the structure it obtains, the parsed document and the digest itself), as a
// multiple of the structure's size.
void BM_Digest(benchmark::State& state, int tables) {
  QORDefaultAssistantMemory memory;
  memory.setDatabaseStructure(structure(tables));
  QORAssistantProperties record(&memory);
  std::size_t size = 0;
  for (auto _ : state) {
    const std::string digest = record.obtainDatabaseInstructions();
    size = digest.size();
    benchmark::DoNotOptimize(digest.data());
  }
  // Measured on a call of its own, outside the timed ones.
  const std::int64_t peak = peakOf([&] {
    const std::string digest = record.obtainDatabaseInstructions();
    benchmark::DoNotOptimize(digest.data());
  });
  state.counters["digest_bytes"] = static_cast<double>(size);
  state.counters["peak_per_json"] =
      static_cast<double>(peak) / static_cast<double>(structure(tables).size());
  setBytes(state, structure(tables).size());
}

void BM_DigestTree(benchmark::State& state, int tables) {
  QORDefaultAssistantMemory memory;
  memory.setDatabaseStructure(structure(tables));
  QORAssistantProperties record(&memory);
  for (auto _ : state) {
    benchmark::DoNotOptimize(record.obtainDatabaseTree().size());
  }
}

// ---- A request document to text -----------------------------------------------------------------

// The turns of a request of about 100 KB: the instructions, then 40 turns of history and the
// question, in the form the chat services take.
struct Turn {
  const char* role;
  std::string content;
};

// Text made of the piece repeated to the size.
std::string repeated(std::string_view piece, std::size_t size) {
  std::string text;
  text.reserve(size + piece.size());
  while (text.size() < size)
    text += piece;
  return text;
}

std::vector<Turn> makeTurns(bool escapes) {
  // Long ASCII without a byte to escape, or one where every few bytes need one: quotes,
  // backslashes, line breaks, tabs, other control bytes, and UTF-8 beyond ASCII (passed through).
  const std::string_view piece =
      escapes
          ? "He said \"SELECT * FROM \\\"t\\\"\"\n\tC:\\data\\x\x01\x1f caf\xC3\xA9 \xE2\x9C\x93 "
            "\xF0\x9F\x98\x80 \"q\"\r\n"
          : "CREATE TABLE `orders` (`id` bigint, `customer_id` int, `created_at` timestamp, "
            "`total` decimal(12,2), PRIMARY KEY(`id`)) ";
  std::vector<Turn> turns;
  turns.push_back({"developer", repeated(piece, 60000)});
  for (int i = 0; i < 40; ++i)
    turns.push_back({i % 2 == 0 ? "user" : "assistant", repeated(piece, 1000)});
  turns.push_back({"user", "Which customers never ordered?"});
  return turns;
}

std::unique_ptr<YLJson> makeYLJsonRequest(const std::vector<Turn>& turns) {
  auto document = std::make_unique<YLJson>();
  document->addKeyValue("model")->setStringValue("gpt-bench");
  YLJsonValue* messages = document->addKeyValue("messages");
  messages->setArrayType();
  for (const Turn& turn : turns) {
    YLJsonValue* item = messages->addArrayItem();
    item->addKeyValue("role")->setStringValue(turn.role);
    item->addKeyValue("content")->setStringValue(turn.content);
  }
  document->addKeyValue("temperature")->setDoubleValue(0.25);
  return document;
}

rapidjson::Document makeRapidJsonRequest(const std::vector<Turn>& turns) {
  using rapidjson::Value;
  rapidjson::Document document;
  auto& allocator = document.GetAllocator();
  document.SetObject();
  document.AddMember("model", Value("gpt-bench", allocator), allocator);
  Value messages(rapidjson::kArrayType);
  for (const Turn& turn : turns) {
    Value item(rapidjson::kObjectType);
    item.AddMember("role", Value(turn.role, allocator), allocator);
    item.AddMember("content",
                   Value(turn.content.data(), static_cast<rapidjson::SizeType>(turn.content.size()),
                         allocator),
                   allocator);
    messages.PushBack(item, allocator);
  }
  document.AddMember("messages", messages, allocator);
  document.AddMember("temperature", 0.25, allocator);
  return document;
}

void BM_WriteYLJson(benchmark::State& state, bool escapes) {
  const std::unique_ptr<YLJson> document = makeYLJsonRequest(makeTurns(escapes));
  std::size_t size = 0;
  for (auto _ : state) {
    const std::string text = document->obtainJsonString();
    size = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.counters["json_bytes"] = static_cast<double>(size);
  setBytes(state, size);
}

// RapidJSON's own writer into a new buffer each time, as ours makes a new string.
void BM_WriteRapidJson(benchmark::State& state, bool escapes) {
  const rapidjson::Document document = makeRapidJsonRequest(makeTurns(escapes));
  std::size_t size = 0;
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    size = buffer.GetSize();
    benchmark::DoNotOptimize(buffer.GetString());
  }
  state.counters["json_bytes"] = static_cast<double>(size);
  setBytes(state, size);
}

// ---- A reply into its response ------------------------------------------------------------------

// A reply of a short answer (about 1 KB) or of a long one (about 64 KB of text).
std::string makeReply(bool large) {
  const std::string answer =
      large ? repeated(
                  "SELECT c.id, c.name FROM customers c LEFT JOIN orders o ON o.customer_id "
                  "= c.id WHERE o.id IS NULL;\\n",
                  64 * 1024)
            : std::string(
                  "SELECT c.id, c.name FROM customers c LEFT JOIN orders o ON "
                  "o.customer_id = c.id WHERE o.id IS NULL;");
  return R"~({"id":"chatcmpl-bench","object":"chat.completion","created":1741569952,)~"
         R"~("model":"gpt-bench","choices":[{"index":0,"message":{"role":"assistant",)~"
         R"~("content":")~" +
         answer +
         R"~(","refusal":null,"annotations":[]},"logprobs":null,"finish_reason":"stop"}],)~"
         R"~("usage":{"prompt_tokens":1519,"completion_tokens":61,"total_tokens":1580,)~"
         R"~("prompt_tokens_details":{"cached_tokens":0,"audio_tokens":0},)~"
         R"~("completion_tokens_details":{"reasoning_tokens":0,"audio_tokens":0,)~"
         R"~("accepted_prediction_tokens":0,"rejected_prediction_tokens":0}},)~"
         R"~("service_tier":"default"})~";
}

// What the client does with a received body: the response keeps it and parses it. Both this and
// the baseline start from a fresh buffer, as curl's receiving leaves one.
void BM_ReplyResponse(benchmark::State& state, bool large) {
  const std::string reply = makeReply(large);
  for (auto _ : state) {
    std::string received;
    received.reserve(reply.size() + 16);
    received.assign(reply);
    YLRestResourceResponse response;
    response.setBody(std::move(received));
    if (response.responseJson == nullptr) {
      state.SkipWithError("the reply was not parsed");
      break;
    }
    benchmark::DoNotOptimize(response.responseJson);
  }
  setBytes(state, reply.size());
}

// The least the reply needs: parsed in place in the buffer that received it.
void BM_ReplyInPlace(benchmark::State& state, bool large) {
  const std::string reply = makeReply(large);
  for (auto _ : state) {
    std::string received;
    received.reserve(reply.size() + 16);
    received.assign(reply);
    const YLJson document(std::move(received));
    if (!document.getIsValidJson()) {
      state.SkipWithError("the reply was not parsed");
      break;
    }
    benchmark::DoNotOptimize(&document);
  }
  setBytes(state, reply.size());
}

}  // namespace

int main(int argc, char** argv) {
  using qorbench::Clock;
  std::vector<qorbench::Ratio> ratios;
  const auto add = [](const std::string& name, auto function, auto argument) {
    benchmark::RegisterBenchmark(name.c_str(), function, argument)->Unit(benchmark::kMillisecond);
  };
  for (const int tables : {2000, 20000}) {
    const std::string n = "/" + std::to_string(tables);
    add("Digest" + n, BM_Digest, tables);
    add("Parse/yljson" + n, BM_ParseYLJson, tables);
    add("Parse/simdjson" + n, BM_ParseSimdjson, tables);
    const std::string label = std::to_string(tables) + " tables";
    ratios.push_back(
        {"digest / simdjson parse, " + label, "Digest" + n, "Parse/simdjson" + n, Clock::Cpu});
    ratios.push_back(
        {"digest / YLJson parse, " + label, "Digest" + n, "Parse/yljson" + n, Clock::Cpu});
    ratios.push_back({"YLJson parse / simdjson parse, " + label, "Parse/yljson" + n,
                      "Parse/simdjson" + n, Clock::Cpu});
  }
  add("DigestTree/20000", BM_DigestTree, 20000);
  ratios.push_back({"digest tree / YLJson parse, 20000 tables", "DigestTree/20000",
                    "Parse/yljson/20000", Clock::Cpu});

  for (const auto& [escapes, kind] : {std::pair{false, "ascii"}, {true, "escapes"}}) {
    const std::string tail = std::string("/") + kind;
    benchmark::RegisterBenchmark(("Write/yljson" + tail).c_str(), BM_WriteYLJson, escapes)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("Write/rapidjson" + tail).c_str(), BM_WriteRapidJson, escapes)
        ->Unit(benchmark::kMicrosecond);
    ratios.push_back({std::string("request to text, 100 KB, ") + kind, "Write/yljson" + tail,
                      "Write/rapidjson" + tail, Clock::Cpu});
  }

  for (const auto& [large, kind] : {std::pair{false, "1kb"}, {true, "64kb"}}) {
    const std::string tail = std::string("/") + kind;
    benchmark::RegisterBenchmark(("Reply/response" + tail).c_str(), BM_ReplyResponse, large)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("Reply/in-place" + tail).c_str(), BM_ReplyInPlace, large)
        ->Unit(benchmark::kMicrosecond);
    ratios.push_back({std::string("reply into its response / parse in place, ") + kind,
                      "Reply/response" + tail, "Reply/in-place" + tail, Clock::Cpu});
  }
  return qorbench::runWithRatios(argc, argv, ratios);
}
