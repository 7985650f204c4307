// What one addMessage costs a host, next to the least a client could do for the same exchange: a
// raw libcurl loop that posts the byte-identical body on one reused handle and parses the reply
// with the same JSON library. Both talk to the same keep-alive server on 127.0.0.1, over HTTP and
// over HTTPS, for a database of 5 tables and one of 200. Run the release build:
//   build/release/bench/qor_exchange_bench
// The summary at the end gives each exchange as a ratio of its raw loop in the same run.

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "bench_ratios.h"
#include "bench_server.h"
#include "qor.h"

namespace {

using qorbench::BenchServer;

constexpr const char* kChatPath = "/v1/chat/completions";
constexpr const char* kApiKey = "sk-bench-0123456789abcdef";
constexpr const char* kQuestion = "Which customers ordered more than three times last month?";

// A reply of the service's shape, of the size of a short answer.
constexpr const char* kReply =
    R"~({"id":"chatcmpl-bench","object":"chat.completion","created":1741569952,)~"
    R"~("model":"gpt-bench","choices":[{"index":0,"message":{"role":"assistant","content":)~"
    R"~("SELECT c.id, c.name FROM customers c JOIN orders o ON o.customer_id = c.id\nWHERE )~"
    R"~(o.created_at >= date_trunc('month', now()) - interval '1 month'\nGROUP BY c.id, )~"
    R"~(c.name HAVING count(*) > 3;","refusal":null,"annotations":[]},"logprobs":null,)~"
    R"~("finish_reason":"stop"}],"usage":{"prompt_tokens":1519,"completion_tokens":61,)~"
    R"~("total_tokens":1580,"prompt_tokens_details":{"cached_tokens":0,"audio_tokens":0},)~"
    R"~("completion_tokens_details":{"reasoning_tokens":0,"audio_tokens":0,)~"
    R"~("accepted_prediction_tokens":0,"rejected_prediction_tokens":0}},)~"
    R"~("service_tier":"default"})~";

// A host's store that always gives the same 20 turns and forgets what it is told, so that every
// request of a run is the same.
class FixedMemory final : public IQORAssistantMemory {
 public:
  explicit FixedMemory(std::string structure) : structure_(std::move(structure)) {
    for (int i = 0; i < 20; ++i) {
      const bool user = i % 2 == 0;
      std::string text = user ? "Question " : "Answer ";
      text += std::to_string(i);
      text += user ? ": which orders of the last quarter were returned, with the customer's name, "
                     "the product and the reason given, sorted by the date of the return?"
                   : ": SELECT o.id, c.name, p.title, r.reason FROM returns r JOIN orders o ON "
                     "o.id = r.order_id JOIN customers c ON c.id = o.customer_id JOIN products p "
                     "ON p.id = r.product_id ORDER BY r.created_at;";
      history_.push_back({user ? kChatRoleUser : kChatRoleAssistant, std::move(text)});
    }
  }
  void setDatabaseStructure(const std::string& structure) override { structure_ = structure; }
  std::string obtainDatabaseStructure() override { return structure_; }
  void addHistoryEntry(ChatRole, const std::string&) override {}
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t) override { return history_; }

 private:
  std::string structure_;
  std::vector<QORHistoryEntry> history_;
};

struct Free {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};

// An assistant as a host makes one, with a pool of its own, talking to the server. Its first
// exchange runs under an observing request hook, which keeps the body it sends.
class Conversation {
 public:
  Conversation(const BenchServer& server, int tables)
      : memory_(qorbench::makeStructure(tables)),
        assistant_(QORCreateAssistant(QORAssistantType::OPENAI_v1, new YLHTTPPoolCenter, kApiKey,
                                      server.baseUrl(), &memory_)) {
    if (!assistant_) throw std::runtime_error("no assistant");
    assistant_->updateProperties(
        [](IQORProperties* p) { p->setValue("model", YLVariant("gpt-bench")); });
    YLRestGlobalSettings settings;
    settings.caFile = server.certificateFile();
    settings.requestHook = [this](const YLPreparedRequest& request) {
      body_ = request.body;
      return std::optional<YLStandInReply>();
    };
    QORSetHTTPSettings(settings);
    const std::string failure = ask();
    // The hook only watches, but it copies what it is shown: the measured exchanges go without.
    settings.requestHook = nullptr;
    QORSetHTTPSettings(settings);
    if (!failure.empty()) throw std::runtime_error("the first exchange failed: " + failure);
  }
  ~Conversation() { QORSetHTTPSettings(YLRestGlobalSettings()); }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  // One addMessage; the empty text on success, else what failed.
  std::string ask() {
    auto [message, failure] = assistant_->addMessage(kQuestion);
    const std::unique_ptr<IQORMessage, Free> owned(message);
    if (owned && owned->obtainSections().empty()) return "a reply without text";
    return failure;
  }

  // The body of a request, byte for byte as it left.
  const std::string& body() const { return body_; }

 private:
  FixedMemory memory_;
  std::unique_ptr<IQORAssistant, Free> assistant_;
  std::string body_;
};

void BM_Exchange(benchmark::State& state, BenchServer::Transport transport, int tables) {
  try {
    BenchServer server(transport, kChatPath, kReply);
    Conversation conversation(server, tables);
    for (auto _ : state) {
      const std::string failure = conversation.ask();
      if (!failure.empty()) {
        state.SkipWithError(failure.c_str());
        break;
      }
    }
    state.counters["body_bytes"] = static_cast<double>(conversation.body().size());
    if (server.lastBodySize() != conversation.body().size())
      state.SkipWithError("the server received another body than the hook saw");
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

// The same addMessage with the network left out: a request hook answers every request with the
// server's reply, so this is the library's own work of an exchange (the digest, the body, its
// text, the reply's parse) without curl's transfer and the loopback.
void BM_ExchangeStandIn(benchmark::State& state, int tables) {
  try {
    BenchServer server(BenchServer::Transport::Plain, kChatPath, kReply);
    Conversation conversation(server, tables);
    YLRestGlobalSettings settings;
    settings.requestHook = [](const YLPreparedRequest&) {
      return std::optional<YLStandInReply>(YLStandInReply{200, {}, kReply});
    };
    QORSetHTTPSettings(settings);
    const std::size_t posts = server.postCount();
    for (auto _ : state) {
      const std::string failure = conversation.ask();
      if (!failure.empty()) {
        state.SkipWithError(failure.c_str());
        break;
      }
    }
    if (server.postCount() != posts) state.SkipWithError("a request reached the server");
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

using EasyPtr = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using ListPtr = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

std::size_t appendReply(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

ListPtr appendHeader(ListPtr list, const char* line) {
  curl_slist* grown = curl_slist_append(list.get(), line);
  if (grown == nullptr) throw std::runtime_error("no memory for a header");
  (void)list.release();
  return ListPtr(grown, curl_slist_free_all);
}

void BM_RawCurl(benchmark::State& state, BenchServer::Transport transport, int tables) {
  try {
    BenchServer server(transport, kChatPath, kReply);
    // The body comes from an exchange of the assistant itself, so both sides send the same.
    const std::string body = Conversation(server, tables).body();

    EasyPtr easy(curl_easy_init(), curl_easy_cleanup);
    if (!easy) throw std::runtime_error("no curl handle");
    ListPtr headers(nullptr, curl_slist_free_all);
    headers =
        appendHeader(std::move(headers), (std::string("Authorization: Bearer ") + kApiKey).c_str());
    headers = appendHeader(std::move(headers), "Content-Type: application/json");
    headers = appendHeader(std::move(headers), "Expect:");
    std::string reply;
    const std::string url = server.baseUrl() + kChatPath;
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &appendReply);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, static_cast<void*>(&reply));
    if (!server.certificateFile().empty())
      curl_easy_setopt(easy.get(), CURLOPT_CAINFO, server.certificateFile().c_str());

    for (auto _ : state) {
      reply.clear();
      const CURLcode code = curl_easy_perform(easy.get());
      long status = 0;
      curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
      if (code != CURLE_OK || status != 200) {
        state.SkipWithError(code != CURLE_OK ? curl_easy_strerror(code) : "not a 200 reply");
        break;
      }
      // Parsed in place, as the least a client could do; the answer is taken out as text.
      const YLJson document(std::move(reply));
      const YLJsonValue* choices = document.obtainKeyValue("choices");
      const YLJsonValue* first = choices != nullptr ? choices->obtainArrayItem(0) : nullptr;
      const YLJsonValue* message = first != nullptr ? first->obtainKeyValue("message") : nullptr;
      const YLJsonValue* content =
          message != nullptr ? message->obtainKeyValue("content") : nullptr;
      std::string answer = content != nullptr ? content->obtainStringValue() : std::string();
      if (answer.empty()) {
        state.SkipWithError("a reply without text");
        break;
      }
      benchmark::DoNotOptimize(answer.data());
    }
    state.counters["body_bytes"] = static_cast<double>(body.size());
    if (server.lastBodySize() != body.size())
      state.SkipWithError("the server received another body than was posted");
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  using qorbench::Clock;
  std::vector<qorbench::Ratio> ratios;
  for (const auto& [transport, scheme] :
       {std::pair{BenchServer::Transport::Plain, "http"}, {BenchServer::Transport::Tls, "https"}}) {
    for (const int tables : {5, 200}) {
      const std::string tail = std::string("/") + scheme + "/" + std::to_string(tables);
      benchmark::RegisterBenchmark(("Exchange/ours" + tail).c_str(), BM_Exchange, transport, tables)
          ->Unit(benchmark::kMicrosecond)
          ->UseRealTime();
      benchmark::RegisterBenchmark(("Exchange/curl" + tail).c_str(), BM_RawCurl, transport, tables)
          ->Unit(benchmark::kMicrosecond)
          ->UseRealTime();
      const std::string label =
          std::string("exchange, ") + scheme + ", " + std::to_string(tables) + " tables";
      ratios.push_back({label, "Exchange/ours" + tail, "Exchange/curl" + tail, Clock::Real});
      // The benchmark thread's own work, which the server's threads do not blur.
      ratios.push_back(
          {label + ", client thread", "Exchange/ours" + tail, "Exchange/curl" + tail, Clock::Cpu});
    }
  }
  for (const int tables : {5, 200}) {
    const std::string n = std::to_string(tables);
    benchmark::RegisterBenchmark(("Exchange/ours-no-network/" + n).c_str(), BM_ExchangeStandIn,
                                 tables)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    ratios.push_back({"ours without the network, " + n + " tables, / curl over http",
                      "Exchange/ours-no-network/" + n, "Exchange/curl/http/" + n, Clock::Real});
  }
  return qorbench::runWithRatios(argc, argv, ratios);
}
