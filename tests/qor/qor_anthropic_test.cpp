// The Anthropic assistant where it differs from the frame tested with the chat-completions family:
// two key headers, "max_tokens" always, a temperature cap of 1.0, content blocks, and a listing
// sorted by date.

#include <algorithm>
#include <optional>

#include "qor_test_util.h"

namespace {

using namespace qortest;
using Names = std::vector<std::string>;

const std::string kChatPath = "/v1/messages";
const std::string kModelsPath = "/v1/models";

using AnthropicAssistant = AdapterTest<QORAssistantType::ANTHROPIC>;

TEST_F(AnthropicAssistant, MaxTokensAndACappedTemperatureGoOutInEveryRequest) {
  struct Case {
    std::optional<YLVariant> maxTokens;  // nothing: never set
    double temperature;
    const char* sent;  // the start of the body
    bool reported;     // a value that isn't an Int is reported and still taken
  };
  const Case cases[] = {
      {std::nullopt, 1.5, R"~({"model":"m","temperature":1.0,"max_tokens":1024,)~", false},
      {YLVariant(8192), -0.5, R"~({"model":"m","temperature":0.0,"max_tokens":8192,)~", false},
      {YLVariant(300.9), 0.25, R"~({"model":"m","temperature":0.25,"max_tokens":300,)~", true},
  };
  const std::vector<AssertionRecorder::Report> report = {
      {"value.getValueType() == YLVariant::ValueType::Int", "qor_assistant_anthropic"}};
  server.answer("POST", kChatPath, {.body = R"~({"content":[]})~"});
  AssertionRecorder assertions;
  for (const Case& c : cases) {
    AssistantPtr assistant = make();
    assistant->updateProperties([&](IQORProperties* p) {
      p->setValue("model", YLVariant("m"));
      p->setValue("temperature", YLVariant(c.temperature));
      EXPECT_TRUE(!c.maxTokens || p->setValue("max_tokens", *c.maxTokens));
    });
    EXPECT_EQ(assertions.take(), kAssertionsReported && c.reported ? report : decltype(report){});
    // A later update that sets something else keeps both.
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(chat(*assistant, "q").second, "");
      EXPECT_TRUE(server.lastRequest().body.starts_with(c.sent + std::string(R"~("messages")~")))
          << server.lastRequest().body;
      setModel(*assistant);
    }
  }
  // Every request names the version of the interface (the key is checked with every service's).
  server.answer("GET", kModelsPath, {.body = R"~({"data":[]})~"});
  EXPECT_EQ(make()->obtainAvailableModels(), Listing({}, ""));
  for (const RecordedRequest& request : server.requests())
    EXPECT_EQ(request.header("anthropic-version"), "2023-06-01");
  // An empty key is not refused (the test service drops a header with an empty value).
  EXPECT_EQ(static_cast<QORAssistant&>(*make(nullptr, "")).session->headerParams(),
            (YLParamList{{"x-api-key", ""}, {"anthropic-version", "2023-06-01"}}));
}

TEST_F(AnthropicAssistant, RepliesJoinTheTextBlocks) {
  const std::string unsupported = "Unsupported data format: p/v1/messages";
  AssistantPtr assistant = make();
  setModel(*assistant);
  expectReplies<Outcome>(
      server, *assistant, kChatPath,
      {
          {{.body = readWireFile("anthropic/chat_thinking_refusal.json")}, replied("Hi")},
          {{.body = readWireFile("anthropic/chat_tool_use_only.json")}, replied("")},
          {{.body = R"~({"content":[{"type":"text","text":"a"},{"type":"text","text":5},"text",
              [1],{"type":"Text","text":"x"},{"text":"untyped"},{"type":"tool_use","text":"t"},
              {"type":"text ","text":"y"},{"type":"text","text":"b"}]})~"},
           replied("ab")},
          // The reply's role is not read.
          {{.body = R"~({"role":"user","content":[{"type":"text","text":"t"}]})~"}, replied("t")},
          {{.body = readWireFile("anthropic/error_529_overloaded.json")}, failed(unsupported)},
          {{.body = R"~({"content":"plain text"})~"}, failed(unsupported)},
          {{.status = 401, .body = readWireFile("anthropic/error_401_bad_key.json")},
           failed("invalid x-api-key")},
      });
}

TEST_F(AnthropicAssistant, ModelsComeNewestFirst) {
  AssistantPtr assistant = make();
  expectReplies<Listing>(
      server, *assistant, kModelsPath,
      {
          // A page with more to come: nothing asked for the next page.
          {{.body = readWireFile("anthropic/models_paged.json")}, {{"claude-opus-4-6"}, ""}},
          // Out of order, ties in reply order, items that don't count, duplicates, dates past 2038:
          // the key is cut to its low 32 bits as a signed integer, so 2040-01-01 (2208988800)
          // becomes -2085978496 and 2100-01-01 (4102444800) -192522496, both after the rest.
          {{.body = R"~({"data":[
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
              {"type":"model","id":"far","created_at":"2040-01-01T00:00:00Z"},
              {"type":"model","id":"farther","created_at":"2100-01-01T00:00:00Z"},
              {"type":"model","id":"old","created_at":"2023-01-01T00:00:00Z"}]})~"},
           {{"newest", "a-second-later", "tie-first", "tie-second", "old", "old", "farther", "far"},
            ""}},
          // The gate is the one of the family's services that read an "error" of any type.
          {{.status = 401, .body = readWireFile("anthropic/error_401_bad_key.json")},
           {{}, "invalid x-api-key"}},
          {{.body = R"~({"error":null,"data":[]})~"}, {{}, R"~({"error":null,"data":[]})~"}},
          {{.body = R"~({"models":[]})~"}, {{}, "Unsupported data format: g/v1/models"}},
      });

  // Dates outside the format never fault: where such a model lands is open, the others keep
  // their order and nothing is lost or duplicated.
  server.answer("GET", kModelsPath, {.body = R"~({"data":[
      {"type":"model","id":"older","created_at":"2024-01-01T00:00:00Z"},
      {"type":"model","id":"odd-fraction","created_at":"2024-07-01T00:00:00.123Z"},
      {"type":"model","id":"odd-empty","created_at":""},
      {"type":"model","id":"odd-day","created_at":"2024-02-30T00:00:00Z"},
      {"type":"model","id":"newer","created_at":"2025-01-01T00:00:00Z"}]})~"});
  auto [names, failure] = assistant->obtainAvailableModels();
  EXPECT_EQ(failure, "");
  Names sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (Names{"newer", "odd-day", "odd-empty", "odd-fraction", "older"}));
  std::erase_if(names, [](const std::string& name) { return name.starts_with("odd-"); });
  EXPECT_EQ(names, (Names{"newer", "older"}));
}

}  // namespace
