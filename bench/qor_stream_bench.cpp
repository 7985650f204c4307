// What a streamed reply costs a host, next to the least a client could do for the same stream: a
// raw libcurl loop that posts the byte-identical body on one reused handle, cuts the events at
// their blank lines and parses each data line with RapidJSON. Both read a 4 KB answer in 200
// chat-completions chunks from the same keep-alive server on 127.0.0.1. Then the time from the
// server's write of the first chunk to the first fragment in the host's hands, while the server
// holds the rest back. Run the release build:
//   build/release/bench/qor_stream_bench
// The summary at the end gives each figure as a ratio of the raw loop's in the same run; on a
// shared machine add --benchmark_repetitions=5 so that the ratios compare medians.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "bench_ratios.h"
#include "bench_server.h"
#include "qor.h"

namespace {

using qorbench::BenchServer;
using Clock = BenchServer::Clock;

constexpr const char* kChatPath = "/v1/chat/completions";
constexpr const char* kApiKey = "sk-bench-0123456789abcdef";
constexpr const char* kQuestion = "Which customers ordered more than three times last month?";
constexpr std::size_t kAnswerBytes = 4096;
constexpr std::size_t kChunks = 200;
constexpr auto kFirstGap = std::chrono::milliseconds(20);
constexpr int kFirstFragmentIterations = 40;

// One chat-completions chunk as a server-sent event, as the service writes them.
std::string chunkEvent(const std::string& content, bool first, bool last) {
  YLJson quoted;  // the content as a JSON string, escapes and all
  quoted.setStringValue(content);
  std::string delta = first ? R"("role":"assistant",)" : "";
  if (!last) delta += R"("content":)" + quoted.obtainJsonString();
  return R"(data: {"id":"chatcmpl-bench","object":"chat.completion.chunk","created":1741569952,)"
         R"("model":"gpt-bench","system_fingerprint":"fp_bench","choices":[{"index":0,"delta":{)" +
         delta + R"(},"logprobs":null,"finish_reason":)" + (last ? R"("stop")" : "null") + "}]" +
         (last ? R"(,"usage":{"prompt_tokens":1519,"completion_tokens":1024,"total_tokens":2543})"
               : "") +
         "}\n\n";
}

// The answer, lines of SQL-ish words, cut into kChunks pieces; then the end and [DONE] in one.
qorbench::StreamedReply answerStream(std::chrono::microseconds pauseAfterFirst) {
  std::string answer;
  for (int line = 0; answer.size() < kAnswerBytes; ++line)
    answer += "SELECT id, name FROM customers WHERE orders > " + std::to_string(line) + ";\n";
  answer.resize(kAnswerBytes);
  qorbench::StreamedReply reply{"text/event-stream", {}, pauseAfterFirst};
  for (std::size_t i = 0; i < kChunks; ++i) {
    const std::size_t from = i * kAnswerBytes / kChunks;
    const std::size_t to = (i + 1) * kAnswerBytes / kChunks;
    reply.pieces.push_back(chunkEvent(answer.substr(from, to - from), i == 0, false));
  }
  reply.pieces.push_back(chunkEvent("", false, true) + "data: [DONE]\n\n");
  return reply;
}

// A host's store that always gives the same turns and forgets what it is told, so that every
// request of a run is the same.
class FixedMemory final : public IQORAssistantMemory {
 public:
  explicit FixedMemory(std::string structure) : structure_(std::move(structure)) {
    for (int i = 0; i < 6; ++i) {
      history_.push_back({i % 2 == 0 ? kChatRoleUser : kChatRoleAssistant,
                          (i % 2 == 0 ? "Which orders came back? " : "SELECT * FROM returns; ") +
                              std::to_string(i)});
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

// What one read of the stream gave: the text's size and when its first fragment arrived.
struct Received {
  std::size_t textBytes = 0;
  Clock::time_point firstFragment;
};

// An assistant as a host makes one, streaming from the server. Its first exchange runs under an
// observing request hook, which keeps the body it sends.
class StreamingConversation {
 public:
  explicit StreamingConversation(const BenchServer& server)
      : memory_(qorbench::makeStructure(5)),
        assistant_(QORCreateAssistant(QORAssistantType::OPENAI_v1, new YLHTTPPoolCenter, kApiKey,
                                      server.baseUrl(), &memory_)),
        streaming_(dynamic_cast<IQORStreamingAssistant*>(assistant_.get())) {
    if (streaming_ == nullptr) throw std::runtime_error("no streaming assistant");
    assistant_->updateProperties(
        [](IQORProperties* p) { p->setValue("model", YLVariant("gpt-bench")); });
    YLRestGlobalSettings settings;
    settings.requestHook = [this](const YLPreparedRequest& request) {
      body_ = request.body;
      return std::optional<YLStandInReply>();
    };
    QORSetHTTPSettings(settings);
    std::string failure;
    ask(failure);
    QORSetHTTPSettings(YLRestGlobalSettings());
    if (!failure.empty()) throw std::runtime_error("the first exchange failed: " + failure);
  }
  ~StreamingConversation() { QORSetHTTPSettings(YLRestGlobalSettings()); }
  StreamingConversation(const StreamingConversation&) = delete;
  StreamingConversation& operator=(const StreamingConversation&) = delete;

  // One addMessageStreaming; failure says what failed, if anything.
  Received ask(std::string& failure) {
    Received received;
    auto [message, error] = streaming_->addMessageStreaming(kQuestion, [&](std::string_view piece) {
      if (received.textBytes == 0) received.firstFragment = Clock::now();
      received.textBytes += piece.size();
    });
    const std::unique_ptr<IQORMessage, Free> owned(message);
    failure = std::move(error);
    if (owned && owned->obtainSections()[0]->obtainText().size() != received.textBytes)
      failure = "the message's text is not the fragments'";
    return received;
  }

  const std::string& body() const { return body_; }

 private:
  FixedMemory memory_;
  std::unique_ptr<IQORAssistant, Free> assistant_;
  IQORStreamingAssistant* streaming_;
  std::string body_;
};

using EasyPtr = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using ListPtr = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

// The least a careful client does with a stream of server-sent events: cut the events at blank
// lines, parse each data line with RapidJSON, keep the text, the end and the usage.
class EventReader {
 public:
  void reset() {
    pending_.clear();
    received_ = {};
    finishReason_.clear();
    outputTokens_ = -1;
    done_ = false;
  }
  static std::size_t write(char* data, std::size_t size, std::size_t count, void* self) {
    auto& reader = *static_cast<EventReader*>(self);
    reader.pending_.append(data, size * count);
    std::size_t start = 0;
    for (std::size_t end; (end = reader.pending_.find("\n\n", start)) != std::string::npos;
         start = end + 2) {
      if (!reader.event(std::string_view(reader.pending_).substr(start, end - start))) return 0;
    }
    reader.pending_.erase(0, start);
    return size * count;
  }
  bool complete() const { return done_ && finishReason_ == "stop" && outputTokens_ > 0; }
  const Received& received() const { return received_; }

 private:
  bool event(std::string_view text) {
    constexpr std::string_view kData = "data: ";
    if (!text.starts_with(kData)) return true;
    text.remove_prefix(kData.size());
    if (text == "[DONE]") return done_ = true;
    document_.Parse(text.data(), text.size());
    if (document_.HasParseError() || !document_.IsObject()) return false;
    const rapidjson::Value* choice = member(document_, "choices");
    choice = choice != nullptr && choice->IsArray() && !choice->Empty() ? &(*choice)[0] : nullptr;
    const rapidjson::Value* delta = choice != nullptr ? member(*choice, "delta") : nullptr;
    const rapidjson::Value* content = delta != nullptr ? member(*delta, "content") : nullptr;
    if (content != nullptr && content->IsString() && content->GetStringLength() > 0) {
      if (received_.textBytes == 0) received_.firstFragment = Clock::now();
      received_.textBytes += content->GetStringLength();
    }
    const rapidjson::Value* finish = choice != nullptr ? member(*choice, "finish_reason") : nullptr;
    if (finish != nullptr && finish->IsString()) finishReason_ = finish->GetString();
    const rapidjson::Value* usage = member(document_, "usage");
    const rapidjson::Value* tokens =
        usage != nullptr ? member(*usage, "completion_tokens") : nullptr;
    if (tokens != nullptr && tokens->IsInt64()) outputTokens_ = tokens->GetInt64();
    return true;
  }

  // The object's member of that name, or null.
  static const rapidjson::Value* member(const rapidjson::Value& object, const char* name) {
    if (!object.IsObject()) return nullptr;
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() ? &found->value : nullptr;
  }

  std::string pending_;
  rapidjson::Document document_;
  Received received_;
  std::string finishReason_;
  std::int64_t outputTokens_ = -1;
  bool done_ = false;
};

// A libcurl handle set up once to post body to the server and read the stream with reader.
class RawClient {
 public:
  RawClient(const BenchServer& server, const std::string& body) : body_(body) {
    if (!easy_) throw std::runtime_error("no curl handle");
    for (const std::string& line :
         {std::string("Authorization: Bearer ") + kApiKey,
          std::string("Content-Type: application/json"), std::string("Accept: text/event-stream"),
          std::string("Expect:")}) {
      curl_slist* grown = curl_slist_append(headers_.get(), line.c_str());
      if (grown == nullptr) throw std::runtime_error("no memory for a header");
      (void)headers_.release();
      headers_.reset(grown);
    }
    url_ = server.baseUrl() + kChatPath;
    curl_easy_setopt(easy_.get(), CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(body_.size()));
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, body_.data());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, &EventReader::write);
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEDATA, static_cast<void*>(&reader_));
  }

  // One exchange; the empty text on success, else what failed.
  std::string perform() {
    reader_.reset();
    const CURLcode code = curl_easy_perform(easy_.get());
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (code != CURLE_OK) return curl_easy_strerror(code);
    if (status != 200) return "not a 200 reply";
    return reader_.complete() ? std::string() : "the stream did not end";
  }
  const Received& received() const { return reader_.received(); }

 private:
  std::string body_;
  std::string url_;
  EasyPtr easy_{curl_easy_init(), curl_easy_cleanup};
  ListPtr headers_{nullptr, curl_slist_free_all};
  EventReader reader_;
};

Received exchange(bool ours, StreamingConversation& conversation, RawClient& raw,
                  std::string& failure) {
  if (ours) return conversation.ask(failure);
  failure = raw.perform();
  return raw.received();
}

// The streamed exchange, whole: ours through addMessageStreaming, or the raw loop.
void BM_Stream(benchmark::State& state, bool ours) {
  try {
    BenchServer server(BenchServer::Transport::Plain, kChatPath, answerStream({}));
    StreamingConversation conversation(server);
    RawClient raw(server, conversation.body());
    for (auto _ : state) {
      std::string failure;
      const Received received = exchange(ours, conversation, raw, failure);
      if (failure.empty() && received.textBytes != kAnswerBytes) failure = "not the whole answer";
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

// The time from the server's write of the first chunk to the first fragment, the rest held back
// kFirstGap; manual time, so the pause is not counted. The clock is read as the server's send
// call starts: on loopback a quick reader is often done before that call has returned, so the
// time after it (the counter since_send_return_us, a mean) can be below zero.
void BM_FirstFragment(benchmark::State& state, bool ours) {
  try {
    BenchServer server(BenchServer::Transport::Plain, kChatPath, answerStream(kFirstGap));
    StreamingConversation conversation(server);
    RawClient raw(server, conversation.body());
    double sinceReturn = 0;
    std::vector<double>
        waits;  // microseconds: on a loaded machine the median says more than the mean
    for (auto _ : state) {
      const Clock::time_point began = Clock::now();
      std::string failure;
      const Received received = exchange(ours, conversation, raw, failure);
      const BenchServer::Write write = server.firstPieceWrite();
      const Clock::duration waited = received.firstFragment - write.started;
      if (failure.empty() && (received.textBytes != kAnswerBytes || write.started < began))
        failure = "not the whole answer, or no first chunk written";
      if (failure.empty() && waited > kFirstGap / 2)
        failure = "the first chunk waited for the rest";
      if (!failure.empty()) {
        state.SkipWithError(failure.c_str());
        break;
      }
      state.SetIterationTime(std::chrono::duration<double>(waited).count());
      waits.push_back(std::chrono::duration<double, std::micro>(waited).count());
      sinceReturn +=
          std::chrono::duration<double, std::micro>(received.firstFragment - write.returned)
              .count();
    }
    if (!waits.empty()) {
      const auto middle = waits.begin() + static_cast<std::ptrdiff_t>(waits.size() / 2);
      std::nth_element(waits.begin(), middle, waits.end());
      state.counters["median_us"] = *middle;
    }
    state.counters["since_send_return_us"] =
        benchmark::Counter(sinceReturn, benchmark::Counter::kAvgIterations);
    state.counters["server_gap_us"] =
        static_cast<double>(std::chrono::microseconds(kFirstGap).count());
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  using qorbench::Clock;
  // Google Benchmark names a run of fixed iterations after them.
  const std::string fixed = "/iterations:" + std::to_string(kFirstFragmentIterations);
  benchmark::RegisterBenchmark("Stream/ours/4KB-200", BM_Stream, true)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("Stream/curl/4KB-200", BM_Stream, false)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("FirstFragment/ours", BM_FirstFragment, true)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime()
      ->Iterations(kFirstFragmentIterations);
  benchmark::RegisterBenchmark("FirstFragment/curl", BM_FirstFragment, false)
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime()
      ->Iterations(kFirstFragmentIterations);
  return qorbench::runWithRatios(
      argc, argv,
      {{"stream, 4 KB in 200 chunks", "Stream/ours/4KB-200", "Stream/curl/4KB-200", Clock::Real},
       {"stream, 4 KB in 200 chunks, client thread", "Stream/ours/4KB-200", "Stream/curl/4KB-200",
        Clock::Cpu},
       {"first fragment after the server's write", "FirstFragment/ours" + fixed,
        "FirstFragment/curl" + fixed, Clock::Real}});
}
