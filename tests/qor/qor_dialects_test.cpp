// The three services outside the chat-completions family: listings, replies and failures.

#include "qor_test_util.h"

namespace {

using namespace qortest;

struct Dialect {
  QORAssistantType type;
  const char* name;
  std::string modelsPath;
  std::string chatPath;  // for the model "m"
  std::vector<ListingCase> listings;
  std::vector<ReplyCase<Outcome>> replies;
};

std::vector<Dialect> dialects() {
  const std::string anthropicUnsupported = "Unsupported data format: p/v1/messages";
  const std::string googleUnsupported =
      "Unsupported data format: p/v1beta/models/m:generateContent";
  const std::string ollamaUnsupported = "Unsupported data format: p/api/chat";
  const std::string ollamaNotFound = readWireFile("ollama/error_404_unknown_model.json");
  const std::string googleBadKey = readWireFile("google/error_400_bad_key.json");
  const std::string anthropicBadKey = readWireFile("anthropic/error_401_bad_key.json");
  return {
      {QORAssistantType::ANTHROPIC,
       "Anthropic",
       "/v1/models",
       "/v1/messages",
       {
           // A page with more to come: nothing asked for the next page.
           {{.body = readWireFile("anthropic/models_paged.json")}, {{"claude-opus-4-6"}, ""}},
           // Newest first, ties in reply order; past 2038 the key is cut to a signed 32 bits:
           // 2040 becomes -2085978496, 2100 -192522496.
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
            {{"newest", "a-second-later", "tie-first", "tie-second", "old", "old", "farther",
              "far"},
             ""}},
           // The gate is the one of the family's services that read an "error" of any type.
           {{.status = 401, .body = anthropicBadKey}, {{}, "invalid x-api-key"}},
           {{.body = R"~({"error":null,"data":[]})~"}, {{}, R"~({"error":null,"data":[]})~"}},
           {{.body = R"~({"models":[]})~"}, {{}, "Unsupported data format: g/v1/models"}},
       },
       {
           // The text blocks joined; thinking, tool use and anything mistyped passed over.
           {{.body = readWireFile("anthropic/chat_thinking_refusal.json")}, replied("Hi")},
           {{.body = readWireFile("anthropic/chat_tool_use_only.json")}, replied("")},
           {{.body =
                 R"~({"content":[{"type":"text","text":"a"},{"type":"text","text":5},"text",
              [1],{"type":"Text","text":"x"},{"text":"untyped"},{"type":"tool_use","text":"t"},
              {"type":"text ","text":"y"},{"type":"text","text":"b"}]})~"},
            replied("ab")},
           // The reply's role is not read.
           {{.body = R"~({"role":"user","content":[{"type":"text","text":"t"}]})~"}, replied("t")},
           {{.body = readWireFile("anthropic/error_529_overloaded.json")},
            failed(anthropicUnsupported)},
           {{.status = 401, .body = anthropicBadKey}, failed("invalid x-api-key")},
       }},
      {QORAssistantType::GOOGLE,
       "Google",
       "/v1beta/models",
       "/v1beta/models/m:generateContent",
       {
           // A page with a token for the next: no paging asked for or followed.
           {{.body = readWireFile("google/models_paged.json")},
            {{"gemini-2.5-flash", "gemini-2.5-pro", "gemini-2.0-flash"}, ""}},
           // Models that generate content, in reply order, "models/" taken off once.
           {{.body = R"~({"models":[
              {"name":"models/late","supportedGenerationMethods":["countTokens",1,"generateContent"]},
              {"name":"models/first","supportedGenerationMethods":["generateContent"]},
              {"name":"models/embed","supportedGenerationMethods":["embedContent"]},
              {"name":"models/cased","supportedGenerationMethods":["GenerateContent","generateContent "]},
              {"name":"tunedModels/mine","supportedGenerationMethods":["generateContent"]},
              {"name":"my-models/x","supportedGenerationMethods":["generateContent"]},
              {"name":"models/models/nested","supportedGenerationMethods":["generateContent"]},
              {"name":"plain","supportedGenerationMethods":["generateContent"]},
              {"name":7,"supportedGenerationMethods":["generateContent"]},
              {"name":"models/string-methods","supportedGenerationMethods":"generateContent"},
              {"name":"models/no-methods"},
              "models/bare",
              {"name":"models/first","supportedGenerationMethods":["generateContent"]}]})~"},
            {{"late", "first", "tunedModels/mine", "my-models/x", "models/nested", "plain",
              "first"},
             ""}},
           // A failed exchange ends the listing, with error.message or the exchange's text.
           {{.status = 400, .body = googleBadKey},
            {{}, "API key not valid. Please pass a valid API key."}},
           {{.status = 500,
             .body =
                 R"~({"models":[{"name":"a","supportedGenerationMethods":["generateContent"]}]})~"},
            {{}, errorText(500)}},
           {{.body = R"~({"models":{}})~"}, {{}, "Unsupported data format: g/v1beta/models"}},
       },
       {
           {{.body = readWireFile("google/chat_empty_candidates_prompt_feedback.json")},
            replied("")},
           // Text without a role counts for nothing.
           {{.body = readWireFile("google/chat_safety_partial_text_no_role.json")}, replied("")},
           {{.body = R"~({"candidates":[
              {"content":{"role":"user","parts":[{"text":"u"}]}},
              {"content":{"role":"model","parts":[{"text":1},{"text":"a"},{"inline":"x"},"s",
                {"text":"b"}]}},
              "candidate",
              {"content":"text"},
              {"content":{"role":"Model","parts":[{"text":"c"}]}},
              {"content":{"role":"model","parts":{"text":"d"}}},
              {"content":{"role":"model","parts":[{"text":"e"}]}}]})~"},
            replied("abe")},
           {{.body = readWireFile("google/chat_prompt_blocked.json")}, failed(googleUnsupported)},
           // Only a string at error.message counts, never the raw body.
           {{.status = 400, .body = googleBadKey},
            failed("API key not valid. Please pass a valid API key.")},
           {{.status = 500, .body = R"~({"error":"plain"})~"}, failed(errorText(500))},
           {{.status = 429, .body = R"~({"error":{"code":429,"message":7}})~"},
            failed(errorText(429))},
       }},
      {QORAssistantType::OLLAMA,
       "Ollama",
       "/api/tags",
       "/api/chat",
       {
           // Every item with a string name counts, unchanged, duplicates included.
           {{.body = R"~({"models":[{"name":"zeta:latest"},{"model":"unnamed"},{"name":7},
              "alpha",{"name":"models/alpha"},{"name":""},{"name":"zeta:latest"}]})~"},
            {{"zeta:latest", "models/alpha", "", "zeta:latest"}, ""}},
           // The body of a failed exchange is not examined at all.
           {{.status = 500, .body = readWireFile("ollama/error_generic.json")},
            {{}, errorText(500)}},
           {{.body = R"~({"models":{"name":"a"}})~"}, {{}, "Unsupported data format: g/api/tags"}},
       },
       {
           // The thinking trace is not part of the reply.
           {{.body = readWireFile("ollama/chat_thinking.json")},
            replied("There are 3 letter r's in \"strawberry\".")},
           {{.body = readWireFile("ollama/chat_tool_calls.json")}, replied("")},
           {{.body = R"~({"message":{"role":"assistant","content":"x"},"error":"e"})~"},
            replied("x")},
           // A reply that is not the assistant's text is refused, not skipped.
           {{.body = R"~({"message":"hello"})~"}, failed(ollamaUnsupported)},
           {{.body = R"~({"message":{"role":"user","content":"x"}})~"}, failed(ollamaUnsupported)},
           {{.body = R"~({"message":{"role":"assistant","content":5}})~"},
            failed(ollamaUnsupported)},
           // The service's "error" is a plain string: the whole body is the text.
           {{.status = 404, .body = ollamaNotFound}, failed(ollamaNotFound)},
       }},
  };
}

TEST(Dialects, ListingsRepliesAndFailures) {
  for (const Dialect& dialect : dialects()) {
    SCOPED_TRACE(dialect.name);
    LoopbackServer server;
    AssistantPtr assistant = create(dialect.type, server.baseUrl());
    expectReplies<Listing>(server, *assistant, dialect.modelsPath, dialect.listings);
    setModel(*assistant);
    expectReplies<Outcome>(server, *assistant, dialect.chatPath, dialect.replies);
  }
}

TEST(Dialects, NoModelAndEmptyKey) {
  LoopbackServer server;
  expectChat(*create(QORAssistantType::GOOGLE, server.baseUrl()),
             failed("Model is empty: p/v1beta/models/generateContent"));
  EXPECT_EQ(server.requestCount(), 0u);

  // The test service drops a header with an empty value: the session shows the key is kept.
  AssistantPtr anthropic = create(QORAssistantType::ANTHROPIC, server.baseUrl(), nullptr, "");
  EXPECT_EQ(static_cast<QORAssistant&>(*anthropic).session->headerParams(),
            (YLParamList{{"x-api-key", ""}, {"anthropic-version", "2023-06-01"}}));
}

}  // namespace
