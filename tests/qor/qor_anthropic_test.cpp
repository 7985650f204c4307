// The Anthropic assistant over real HTTP: the key and version in two session headers,
// "max_tokens" in every request, the instructions in "system", the reply in content blocks, and
// the listing sorted by date.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "qor_test_util.h"
#include "support/loopback_server.h"

namespace {

using qortest::LoopbackServer;
using qortest::readWireFile;
using qortest::RecordedRequest;
using qortest::ScriptedReply;
using Names = std::vector<std::string>;
using Listing = std::pair<Names, std::string>;
using Turns = std::vector<std::pair<ChatRole, std::string>>;

const std::string kChatPath = "/v1/messages";
const std::string kModelsPath = "/v1/models";
const std::string kChatTail = ": p/v1/messages";
const std::string kModelsTail = ": g/v1/models";

struct Deleter {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};
using AssistantPtr = std::unique_ptr<IQORAssistant, Deleter>;
using MessagePtr = std::unique_ptr<IQORMessage, Deleter>;

std::string httpStatusText(std::int32_t status) {
  return YL::obtainAppFactory()
      ->obtainErrorService()
      ->obtainErrorCatalogue()
      ->obtainErrorRecord(status)
      .text;
}

std::string textReply(const std::string& text) {
  return R"~({"content":[{"type":"text","text":")~" + text + R"~("}]})~";
}

Turns turnsOf(const std::vector<QORHistoryEntry>& history) {
  Turns turns;
  for (const QORHistoryEntry& entry : history)
    turns.emplace_back(entry.role, entry.text);
  return turns;
}

// A store of the host's that records the limits it is asked for.
class HostMemory final : public IQORAssistantMemory {
 public:
  void setDatabaseStructure(const std::string& structure) override { structure_ = structure; }
  std::string obtainDatabaseStructure() override { return structure_; }
  void addHistoryEntry(ChatRole role, const std::string& text) override {
    history.push_back({role, text});
  }
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t limit) override {
    limits.push_back(limit);
    return history;
  }
  std::vector<QORHistoryEntry> history;
  std::vector<std::int32_t> limits;

 private:
  std::string structure_;
};

class AnthropicAssistant : public ::testing::Test {
 protected:
  AssistantPtr create(IQORAssistantMemory* memory = nullptr, const std::string& key = "sk-ant-test",
                      const std::string& host = "") {
    return AssistantPtr(QORCreateAssistant(QORAssistantType::ANTHROPIC, new YLHTTPPoolCenter, key,
                                           host.empty() ? server.baseUrl() : host, memory));
  }
  AssistantPtr createOffline(IQORAssistantMemory* memory = nullptr) {
    return create(memory, "sk-ant-test",
                  "http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()));
  }

  static void setModel(IQORAssistant& assistant, const char* model = "m") {
    assistant.updateProperties([&](IQORProperties* p) { p->setValue("model", YLVariant(model)); });
  }

  static std::pair<MessagePtr, std::string> chat(IQORAssistant& assistant,
                                                 const std::string& text) {
    auto [message, failure] = assistant.addMessage(text);
    return {MessagePtr(message), failure};
  }

  static Turns historyOf(IQORAssistant& assistant) {
    return turnsOf(static_cast<QORAssistant&>(assistant).memory->obtainHistory(0));
  }

  // One assistant for the tests that need no other.
  IQORAssistant* assistant() {
    if (!shared_)
      shared_ = create();
    return shared_.get();
  }

  LoopbackServer server;

 private:
  AssistantPtr shared_;
};

TEST_F(AnthropicAssistant, RequestsCarryTheKeyHeadersAndExactBodies) {
  HostMemory memory;
  AssistantPtr assistant = create(&memory);

  // Both headers live on the session, in this order, and there is no authorization value.
  const YLRestSession& session = *static_cast<QORAssistant&>(*assistant).session;
  EXPECT_EQ(session.authorizationHeaderValue(), "");
  EXPECT_EQ(session.headerParams(),
            (YLParamList{{"x-api-key", "sk-ant-test"}, {"anthropic-version", "2023-06-01"}}));

  // Without a model nothing goes out and nothing is stored.
  auto [none, empty] = chat(*assistant, "hi");
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(empty, "Model is empty" + kChatTail);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_TRUE(memory.history.empty());

  // A new assistant: model, the default max_tokens and the one message.
  setModel(*assistant);
  server.answer("POST", kChatPath, {.body = textReply("R1")});
  auto [first, failure] = chat(*assistant, "hi");
  ASSERT_EQ(failure, "");
  ASSERT_NE(first, nullptr);
  RecordedRequest request = server.lastRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, kChatPath);
  EXPECT_EQ(request.query, "");
  EXPECT_EQ(request.header("x-api-key"), "sk-ant-test");
  EXPECT_EQ(request.header("anthropic-version"), "2023-06-01");
  EXPECT_FALSE(request.hasHeader("Authorization"));
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.body,
            R"~({"model":"m","max_tokens":1024,"messages":[{"role":"user","content":"hi"}]})~");
  EXPECT_EQ(memory.limits, std::vector<std::int32_t>{20});
  EXPECT_EQ(turnsOf(memory.history), (Turns{{0, "hi"}, {1, "R1"}}));

  // Temperature before max_tokens, the instructions in "system" and never among the messages,
  // then the history before the new text.
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
    p->setValue("system_instructions", YLVariant(YLVariantMap{{"a", "Use SQL."}}));
  });
  server.answer("POST", kChatPath, {.body = textReply("R2")});
  ASSERT_EQ(chat(*assistant, "again").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"model":"m","temperature":0.5,"max_tokens":1024,)~"
            R"~("system":"Be brief.\n\nUse SQL.\n","messages":[{"role":"user","content":"hi"},)~"
            R"~({"role":"assistant","content":"R1"},{"role":"user","content":"again"}]})~");

  // A turn of the host's with a role other than 0 or 1 goes out as the user's; an empty text is
  // sent and stored like any other.
  memory.history.push_back({7, "odd"});
  server.answer("POST", kChatPath, {.body = textReply("R3")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_TRUE(server.lastRequest().body.ends_with(
      R"~({"role":"assistant","content":"R2"},{"role":"user","content":"odd"},)~"
      R"~({"role":"user","content":""}]})~"))
      << server.lastRequest().body;
  EXPECT_EQ(turnsOf(memory.history),
            (Turns{{0, "hi"}, {1, "R1"}, {0, "again"}, {1, "R2"}, {7, "odd"}, {0, ""}, {1, "R3"}}));

  // The listing is a plain GET with the same two headers.
  server.answer("GET", kModelsPath, {.body = R"~({"data":[]})~"});
  EXPECT_EQ(assistant->obtainAvailableModels(), Listing({}, ""));
  request = server.lastRequest();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path, kModelsPath);
  EXPECT_EQ(request.query, "");
  EXPECT_EQ(request.header("x-api-key"), "sk-ant-test");
  EXPECT_EQ(request.header("anthropic-version"), "2023-06-01");
  EXPECT_FALSE(request.hasHeader("Authorization"));
  EXPECT_EQ(request.body, "");

  // Another host moves the requests; the headers stay those of construction.
  LoopbackServer elsewhere;
  assistant->updateProperties(
      [&](IQORProperties* p) { p->setValue("api_host", YLVariant(elsewhere.baseUrl())); });
  elsewhere.answer("GET", kModelsPath, {.body = R"~({"data":[]})~"});
  EXPECT_EQ(assistant->obtainAvailableModels(), Listing({}, ""));
  ASSERT_EQ(elsewhere.requestCount(), 1u);
  EXPECT_EQ(elsewhere.lastRequest().header("x-api-key"), "sk-ant-test");
  EXPECT_EQ(elsewhere.lastRequest().header("anthropic-version"), "2023-06-01");
}

TEST_F(AnthropicAssistant, AnEmptyKeyIsNotRefused) {
  AssistantPtr assistant = create(nullptr, "");
  EXPECT_EQ(static_cast<QORAssistant&>(*assistant).session->headerParams(),
            (YLParamList{{"x-api-key", ""}, {"anthropic-version", "2023-06-01"}}));
  // The request still goes out (the test server drops headers with an empty value, so only the
  // version can be seen there).
  server.answer("GET", kModelsPath, {.body = R"~({"data":[]})~"});
  EXPECT_EQ(assistant->obtainAvailableModels(), Listing({}, ""));
  ASSERT_EQ(server.requestCount(), 1u);
  const RecordedRequest request = server.lastRequest();
  EXPECT_EQ(request.header("anthropic-version"), "2023-06-01");
  EXPECT_FALSE(request.hasHeader("Authorization"));
}

TEST_F(AnthropicAssistant, MaxTokensGoesOutInEveryRequest) {
  struct Case {
    const char* name;
    std::optional<YLVariant> set;  // nothing: never set
    const char* sent;
    bool reported;  // a value that isn't an Int is reported and still taken
  };
  const Case cases[] = {
      {"default", std::nullopt, "1024", false},
      {"the default, set", YLVariant(1024), "1024", false},
      {"larger", YLVariant(8192), "8192", false},
      {"zero", YLVariant(0), "0", false},
      {"negative", YLVariant(-5), "-5", false},
      {"a double", YLVariant(300.9), "300", true},
  };
  server.answer("POST", kChatPath, {.body = textReply("ok")});
  qortest::AssertionRecorder assertions;
  for (const Case& c : cases) {
    AssistantPtr assistant = create();
    assistant->updateProperties([&](IQORProperties* p) {
      p->setValue("model", YLVariant("m"));
      if (c.set) {
        EXPECT_TRUE(p->setValue("max_tokens", *c.set)) << c.name;
      }
    });
    const auto reports = assertions.take();
    if (qortest::kAssertionsReported) {
      const std::vector<qortest::AssertionRecorder::Report> expected =
          c.reported ? std::vector<qortest::AssertionRecorder::Report>{{"value.getValueType() == "
                                                                        "YLVariant::ValueType::Int",
                                                                        "qor_assistant_anthropic"}}
                     : std::vector<qortest::AssertionRecorder::Report>{};
      EXPECT_EQ(reports, expected) << c.name;
    }
    const std::string body = std::string(R"~({"model":"m","max_tokens":)~") + c.sent +
                             R"~(,"messages":[{"role":"user","content":"q"}]})~";
    ASSERT_EQ(chat(*assistant, "q").second, "") << c.name;
    EXPECT_EQ(server.lastRequest().body, body) << c.name;

    // A later update that sets something else keeps the number.
    assistant->updateProperties([](IQORProperties* p) { p->setValue("model", YLVariant("m")); });
    ASSERT_EQ(chat(*assistant, "q").second, "") << c.name;
    EXPECT_TRUE(server.lastRequest().body.starts_with(
        std::string(R"~({"model":"m","max_tokens":)~") + c.sent + ","))
        << c.name << ": " << server.lastRequest().body;
  }
}

TEST_F(AnthropicAssistant, TemperatureIsCappedAtOne) {
  const std::pair<double, const char*> cases[] = {
      {1.5, "1.0"}, {3.0, "1.0"}, {-0.5, "0.0"}, {1.0, "1.0"}, {0.25, "0.25"}, {0.0, "0.0"},
  };
  server.answer("POST", kChatPath, {.body = textReply("ok")});
  for (const auto& [set, sent] : cases) {
    AssistantPtr assistant = create();
    assistant->updateProperties([&](IQORProperties* p) {
      p->setValue("model", YLVariant("m"));
      p->setValue("temperature", YLVariant(set));
    });
    ASSERT_EQ(chat(*assistant, "q").second, "") << set;
    EXPECT_EQ(server.lastRequest().body,
              std::string(R"~({"model":"m","temperature":)~") + sent +
                  R"~(,"max_tokens":1024,"messages":[{"role":"user","content":"q"}]})~")
        << set;
  }
}

TEST_F(AnthropicAssistant, RepliesJoinTheTextBlocks) {
  struct Case {
    const char* name;
    std::string body;
    std::string text;
  };
  const Case cases[] = {
      {"simple", readWireFile("anthropic/chat_simple.json"),
       "The weather in SF is currently **20°C** (68°F) and **Sunny**!"},
      // Tool blocks around three text blocks, one of them a single blank.
      {"web search", readWireFile("anthropic/chat_server_tool_web_search.json"),
       "Today in San Francisco, there are showers with breezy and cool conditions, with a high "
       "of 52°F. Tonight will be cloudy, becoming windier and chilly, with a shower or two this "
       "evening followed by heavy rain late, and watch for flooding on streets and poor drainage "
       "areas with a low of 45°F."},
      {"text and tool use", readWireFile("anthropic/chat_text_and_tool_use.json"),
       "I'll get the weather for each of those cities. Let me start by checking San Francisco."},
      {"thinking before text", readWireFile("anthropic/chat_thinking_refusal.json"), "Hi"},
      {"tool use only", readWireFile("anthropic/chat_tool_use_only.json"), ""},
      {"no blocks", R"~({"content":[]})~", ""},
      {"odd blocks skipped",
       R"~({"content":[{"type":"text","text":"a"},{"type":"text","text":5},"text",[1],
           {"type":"Text","text":"x"},{"text":"untyped"},{"type":"tool_use","text":"t"},
           {"type":"text ","text":"y"},{"type":"text","text":"b"}]})~",
       "ab"},
      // The reply's role is not read: the history always stores role 1.
      {"role not read", R"~({"role":"user","content":[{"type":"text","text":"t"}]})~", "t"},
  };
  for (const Case& c : cases) {
    AssistantPtr assistant = create();
    setModel(*assistant);
    server.answer("POST", kChatPath, {.body = c.body});
    const std::int64_t before = std::time(nullptr);
    auto [message, failure] = chat(*assistant, "q");
    const std::int64_t after = std::time(nullptr);
    ASSERT_NE(message, nullptr) << c.name << ": " << failure;
    EXPECT_EQ(failure, "") << c.name;
    EXPECT_EQ(message->obtainRole(), 1) << c.name;
    EXPECT_GE(message->obtainCreationTime(), before) << c.name;
    EXPECT_LE(message->obtainCreationTime(), after) << c.name;
    ASSERT_EQ(message->obtainSections().size(), 1u) << c.name;
    EXPECT_EQ(message->obtainSections()[0]->obtainSectionType(), kQORMessageSectionText);
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), c.text) << c.name;
    EXPECT_EQ(historyOf(*assistant), (Turns{{0, "q"}, {1, c.text}})) << c.name;
  }
}

TEST_F(AnthropicAssistant, FailedChatsStoreNothing) {
  struct Case {
    ScriptedReply reply;
    std::string failure;
  };
  const std::string plainError = R"~({"error":"plain"})~";
  const std::string errorWithoutMessage = R"~({"type":"error","error":{"type":"api_error"}})~";
  const Case cases[] = {
      // The service's message.
      {{.status = 401, .body = readWireFile("anthropic/error_401_bad_key.json")},
       "invalid x-api-key"},
      {{.status = 404, .body = readWireFile("anthropic/error_404_unknown_model.json")},
       "model: sonnet4"},
      {{.status = 529, .body = readWireFile("anthropic/error_529_overloaded.json")}, "Overloaded"},
      {{.status = 400, .body = readWireFile("anthropic/error_400_temperature_deprecated.json")},
       "`temperature` is deprecated for this model."},
      // No message: the raw body, and without a body the exchange's text.
      {{.status = 500, .body = plainError}, plainError},
      {{.status = 400, .body = errorWithoutMessage}, errorWithoutMessage},
      {{.status = 502, .body = "<html>bad gateway</html>", .contentType = "text/html"},
       "<html>bad gateway</html>"},
      {{.status = 503, .body = ""}, httpStatusText(503)},
      // A successful exchange with a reply that can't be read.
      {{.body = "not json", .contentType = "text/plain"}, "Invalid response" + kChatTail},
      {{.body = ""}, "Invalid response" + kChatTail},
      {{.status = 204}, "Invalid response" + kChatTail},
      {{.body = readWireFile("anthropic/error_529_overloaded.json")},
       "Unsupported data format" + kChatTail},
      {{.body = R"~({"content":"plain text"})~"}, "Unsupported data format" + kChatTail},
      {{.body = R"~({"content":{"type":"text","text":"x"}})~"},
       "Unsupported data format" + kChatTail},
      {{.body = R"~([{"content":[]}])~"}, "Unsupported data format" + kChatTail},
  };
  HostMemory memory;
  memory.history = {{0, "earlier"}, {1, "answer"}};
  const Turns kept = turnsOf(memory.history);
  AssistantPtr assistant = create(&memory);
  setModel(*assistant);
  for (const Case& c : cases) {
    server.answer("POST", kChatPath, c.reply);
    auto [message, failure] = chat(*assistant, "q");
    EXPECT_EQ(message, nullptr) << c.reply.status << " " << c.reply.body;
    EXPECT_EQ(failure, c.failure) << c.reply.status << " " << c.reply.body;
    EXPECT_EQ(turnsOf(memory.history), kept) << c.reply.status << " " << c.reply.body;
  }
  EXPECT_EQ(server.requestCount(), std::size(cases)) << "one request each, no retry";

  AssistantPtr offline = createOffline(&memory);
  setModel(*offline);
  auto [message, failure] = chat(*offline, "q");
  EXPECT_EQ(message, nullptr);
  EXPECT_EQ(failure, "Couldn't connect to server");
  EXPECT_EQ(turnsOf(memory.history), kept);
}

TEST_F(AnthropicAssistant, ModelsComeNewestFirst) {
  // The service's own list, already newest first; two models share a date.
  server.answer("GET", kModelsPath, {.body = readWireFile("anthropic/models.json")});
  EXPECT_EQ(
      assistant()->obtainAvailableModels(),
      Listing({"claude-opus-4-6", "claude-opus-4-5-20251101", "claude-haiku-4-5-20251001",
               "claude-sonnet-4-5-20250929", "claude-opus-4-1-20250805", "claude-opus-4-20250514",
               "claude-sonnet-4-20250514", "claude-3-7-sonnet-20250219",
               "claude-3-5-haiku-20241022", "claude-3-haiku-20240307"},
              ""));

  // A page with more to come: one request, nothing asked for the next page.
  server.answer("GET", kModelsPath, {.body = readWireFile("anthropic/models_paged.json")});
  const std::size_t before = server.requestCount();
  EXPECT_EQ(assistant()->obtainAvailableModels(), Listing({"claude-opus-4-6"}, ""));
  EXPECT_EQ(server.requestCount(), before + 1);
  EXPECT_EQ(server.lastRequest().query, "");

  // Out of order, ties in reply order, items that don't count, duplicates.
  server.answer("GET", kModelsPath, {.body = R"~({"data":[
      {"type":"model","id":"old","created_at":"2023-01-01T00:00:00Z"},
      {"type":"model","id":"tie-first","created_at":"2024-06-01T12:00:00Z"},
      {"type":"Model","id":"wrong-case","created_at":"2025-01-01T00:00:00Z"},
      {"type":"model ","id":"blank-behind","created_at":"2025-01-01T00:00:00Z"},
      {"type":"model","id":"numeric-date","created_at":1735689600},
      {"type":"model","id":"newest","created_at":"2025-03-01T08:30:00Z"},
      {"type":"model","id":7,"created_at":"2025-01-01T00:00:00Z"},
      {"id":"untyped","created_at":"2025-01-01T00:00:00Z"},
      {"type":"model","id":"undated"},
      "model",
      {"type":"model","id":"tie-second","created_at":"2024-06-01T12:00:00Z"},
      {"type":"model","id":"a-second-later","created_at":"2024-06-01T12:00:01Z"},
      {"type":"model","id":"old","created_at":"2023-01-01T00:00:00Z"}]})~"});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"newest", "a-second-later", "tie-first", "tie-second", "old", "old"}, ""));
}

TEST_F(AnthropicAssistant, DatesOutsideTheFormatNeverFault) {
  server.answer("GET", kModelsPath, {.body = R"~({"data":[
      {"type":"model","id":"older","created_at":"2024-01-01T00:00:00Z"},
      {"type":"model","id":"fraction","created_at":"2024-07-01T00:00:00.123Z"},
      {"type":"model","id":"empty","created_at":""},
      {"type":"model","id":"words","created_at":"yesterday"},
      {"type":"model","id":"no-day","created_at":"2024-02-30T00:00:00Z"},
      {"type":"model","id":"newer","created_at":"2025-01-01T00:00:00Z"}]})~"});
  auto [names, failure] = assistant()->obtainAvailableModels();
  EXPECT_EQ(failure, "");
  // Where such a model lands is open; the others keep their order and nothing is duplicated.
  const Names odd = {"fraction", "empty", "words", "no-day"};
  Names dated;
  for (const std::string& name : names) {
    if (std::find(odd.begin(), odd.end(), name) == odd.end())
      dated.push_back(name);
    else
      EXPECT_EQ(std::count(names.begin(), names.end(), name), 1) << name;
  }
  EXPECT_EQ(dated, (Names{"newer", "older"}));
}

TEST_F(AnthropicAssistant, FailedListingsGiveNoModels) {
  const std::string plainError = R"~({"error":"plain"})~";
  const std::string errorWithoutMessage = R"~({"error":{"type":"api_error"}})~";
  const std::string models =
      R"~({"data":[{"type":"model","id":"a","created_at":"2024-01-01T00:00:00Z"}]})~";
  const std::string modelsAndError =
      R"~({"error":{"message":"E"},"data":[{"type":"model","id":"a","created_at":"2024-01-01T00:00:00Z"}]})~";
  struct Case {
    ScriptedReply reply;
    Listing expected;
  };
  const Case cases[] = {
      // No usable JSON: the exchange's text, empty after success.
      {{.body = "<html>", .contentType = "text/html"}, {{}, ""}},
      {{.body = ""}, {{}, ""}},
      {{.status = 500, .body = "oops", .contentType = "text/plain"}, {{}, httpStatusText(500)}},
      {{.status = 502, .body = ""}, {{}, httpStatusText(502)}},
      // An "error" of any type ends the listing with the error reader's text.
      {{.status = 401, .body = readWireFile("anthropic/error_401_bad_key.json")},
       {{}, "invalid x-api-key"}},
      {{.body = plainError}, {{}, plainError}},
      {{.status = 500, .body = plainError}, {{}, plainError}},
      {{.body = errorWithoutMessage}, {{}, errorWithoutMessage}},
      {{.body = modelsAndError}, {{}, "E"}},
      // "data" not an array.
      {{.body = R"~({"models":[]})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = R"~({"data":{"id":"a"}})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = "[]"}, {{}, "Unsupported data format" + kModelsTail}},
      // Nothing that counts.
      {{.body = R"~({"data":[]})~"}, {{}, ""}},
      {{.body = R"~({"data":[{"type":"Model","id":"a","created_at":"2024-01-01T00:00:00Z"}]})~"},
       {{}, ""}},
      // A failed exchange whose body lists models and has no error gives the models.
      {{.status = 503, .body = models}, {{"a"}, ""}},
  };
  for (const Case& c : cases) {
    server.answer("GET", kModelsPath, c.reply);
    EXPECT_EQ(assistant()->obtainAvailableModels(), c.expected)
        << c.reply.status << " " << c.reply.body;
  }

  EXPECT_EQ(createOffline()->obtainAvailableModels(), Listing({}, "Couldn't connect to server"));
}

}  // namespace
