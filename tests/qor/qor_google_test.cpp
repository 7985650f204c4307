// The Google assistant where it differs from the frame tested with the chat-completions family:
// the key in the query only, the model in the path, replies from "candidates", an error reader
// that never gives the raw body, and its listing rules.

#include "qor_test_util.h"

namespace {

using namespace qortest;

const std::string kModelsPath = "/v1beta/models";

std::string chatPath(const std::string& model) {
  return "/v1beta/models/" + model + ":generateContent";
}

using GoogleAssistant = AdapterTest<QORAssistantType::GOOGLE>;

TEST_F(GoogleAssistant, TheModelMovesTheRequestAndTheTemperatureIsHeldAtTwo) {
  // An empty key is sent all the same.
  AssistantPtr assistant = make(nullptr, "");
  // Without a model there is none to name: one fixed tail, and nothing goes out.
  expectChat(*assistant, failed("Model is empty: p/v1beta/models/generateContent"));
  EXPECT_EQ(server.requestCount(), 0u);

  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(2.5));
    p->setValue("model", YLVariant("gemini-y"));
  });
  server.answer("POST", chatPath("gemini-y"), {.body = R"~({"candidates":[]})~"});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_EQ(server.lastRequest().body, R"~({"generationConfig":{"temperature":2.0},)~"
                                       R"~("contents":[{"role":"user","parts":[{"text":""}]}]})~");
  EXPECT_EQ(server.lastRequest().query, "key=");
}

TEST_F(GoogleAssistant, RepliesJoinTheModelsPartsAndFailuresNameTheModel) {
  const std::string model = "gemini-2.5-flash";
  const std::string tail = ": p" + chatPath(model);
  AssistantPtr assistant = make();
  setModel(*assistant, model);
  expectReplies<Outcome>(
      server, *assistant, chatPath(model),
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
          // A successful exchange with a reply that can't be read.
          {{.body = readWireFile("google/chat_prompt_blocked.json")},
           failed("Unsupported data format" + tail)},
          // Only a string at error.message counts, never the raw body.
          {{.status = 400, .body = readWireFile("google/error_400_bad_key.json")},
           failed("API key not valid. Please pass a valid API key.")},
          {{.status = 500, .body = R"~({"error":"plain"})~"}, failed(errorText(500))},
          {{.status = 429, .body = R"~({"error":{"code":429,"message":7}})~"},
           failed(errorText(429))},
      });
}

TEST_F(GoogleAssistant, ModelsThatGenerateContentInReplyOrder) {
  AssistantPtr assistant = make();
  expectReplies<Listing>(
      server, *assistant, kModelsPath,
      {
          // A page with a token for the next: no paging asked for or followed.
          {{.body = readWireFile("google/models_paged.json")},
           {{"gemini-2.5-flash", "gemini-2.5-pro", "gemini-2.0-flash"}, ""}},
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
           {{"late", "first", "tunedModels/mine", "my-models/x", "models/nested", "plain", "first"},
            ""}},
          // A failed exchange ends the listing, with error.message or the exchange's text.
          {{.status = 400, .body = readWireFile("google/error_400_bad_key.json")},
           {{}, "API key not valid. Please pass a valid API key."}},
          {{.status = 500,
            .body =
                R"~({"models":[{"name":"a","supportedGenerationMethods":["generateContent"]}]})~"},
           {{}, errorText(500)}},
          {{.body = R"~({"models":{}})~"}, {{}, "Unsupported data format: g/v1beta/models"}},
      });
  EXPECT_EQ(server.lastRequest().queryParams, (Pairs{{"key", "k"}}));
}

}  // namespace
