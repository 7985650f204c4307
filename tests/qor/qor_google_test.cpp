// The Google assistant where it differs from the frame tested with the chat-completions family:
// the key in the query only, the model in the path, "contents" of "parts", replies from
// "candidates", an error reader that never gives the raw body, and its listing rules.

#include "qor_test_util.h"

namespace {

using namespace qortest;

const std::string kModelsPath = "/v1beta/models";

std::string chatPath(const std::string& model) {
  return "/v1beta/models/" + model + ":generateContent";
}

std::string textReply(const std::string& text) {
  return R"~({"candidates":[{"content":{"role":"model","parts":[{"text":")~" + text +
         R"~("}]}}]})~";
}

using GoogleAssistant = AdapterTest<QORAssistantType::GOOGLE>;

TEST_F(GoogleAssistant, AnEmptyKeyIsSentAllTheSame) {
  server.answer("GET", kModelsPath, {.body = R"~({"models":[]})~"});
  EXPECT_EQ(make(nullptr, "")->obtainAvailableModels(), Listing({}, ""));
  EXPECT_EQ(server.lastRequest().query, "key=");
}

TEST_F(GoogleAssistant, BodiesAreExact) {
  HostMemory memory;
  AssistantPtr assistant = make(&memory);
  setModel(*assistant, "gemini-x");

  // A new assistant: only "contents", with the new text; no model in the body.
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("R1")});
  ASSERT_EQ(chat(*assistant, "hi").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"contents":[{"role":"user","parts":[{"text":"hi"}]}]})~");

  // The temperature, the instructions ("parts" an object there), then the history with the
  // assistant's turns as "model".
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("R2")});
  ASSERT_EQ(chat(*assistant, "again").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"generationConfig":{"temperature":0.5},)~"
            R"~("system_instruction":{"parts":{"text":"Be brief.\n\n"}},)~"
            R"~("contents":[{"role":"user","parts":[{"text":"hi"}]},)~"
            R"~({"role":"model","parts":[{"text":"R1"}]},)~"
            R"~({"role":"user","parts":[{"text":"again"}]}]})~");

  // Held at 2.0; a turn of the host's with another role is the user's; an empty text is sent;
  // a new model moves the request.
  memory.history = {{7, "odd"}};
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(2.5));
    p->setValue("user_instructions", YLVariant(""));
    p->setValue("model", YLVariant("gemini-y"));
  });
  server.answer("POST", chatPath("gemini-y"), {.body = textReply("R3")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_EQ(server.lastRequest().body, R"~({"generationConfig":{"temperature":2.0},)~"
                                       R"~("contents":[{"role":"user","parts":[{"text":"odd"}]},)~"
                                       R"~({"role":"user","parts":[{"text":""}]}]})~");
}

TEST_F(GoogleAssistant, RepliesJoinTheModelsPartsAndFailuresNameTheModel) {
  AssistantPtr assistant = make();
  // Without a model there is none to name: one fixed tail, and nothing goes out.
  expectChat(*assistant, failed("Model is empty: p/v1beta/models/generateContent"));
  EXPECT_EQ(server.requestCount(), 0u);

  const std::string model = "gemini-2.5-flash";
  const std::string tail = ": p" + chatPath(model);
  setModel(*assistant, model);
  expectChats(
      server, *assistant, chatPath(model),
      {
          {{.body = readWireFile("google/chat_multi.json")},
           replied("Mountain View, California.Google is headquartered in Mountain View.")},
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
          {{.body = R"~({"error":{"message":"not read on success"}})~"},
           failed("Unsupported data format" + tail)},
          // Only a string at error.message counts, never the raw body.
          {{.status = 400, .body = readWireFile("google/error_400_bad_key.json")},
           failed("API key not valid. Please pass a valid API key.")},
          {{.status = 500, .body = R"~({"error":"plain"})~"}, failed(errorText(500))},
          {{.status = 429, .body = R"~({"error":{"code":429,"message":7}})~"},
           failed(errorText(429))},
          {{.status = 503, .body = "busy", .contentType = "text/plain"}, failed(errorText(503))},
      });
}

TEST_F(GoogleAssistant, ModelsThatGenerateContentInReplyOrder) {
  const std::string unsupported = "Unsupported data format: g/v1beta/models";
  AssistantPtr assistant = make();
  expectListings(
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
          {{.body = R"~({"models":[]})~"}, {{}, ""}},
          // A failed exchange ends the listing, with error.message or the exchange's text.
          {{.status = 400, .body = readWireFile("google/error_400_bad_key.json")},
           {{}, "API key not valid. Please pass a valid API key."}},
          {{.status = 500, .body = R"~({"error":"plain"})~"}, {{}, errorText(500)}},
          {{.status = 500,
            .body =
                R"~({"models":[{"name":"a","supportedGenerationMethods":["generateContent"]}]})~"},
           {{}, errorText(500)}},
          // A successful exchange without JSON is an invalid response.
          {{.body = "<html>", .contentType = "text/html"},
           {{}, "Invalid response: g/v1beta/models"}},
          // "models" missing or not an array; an "error" isn't looked at after success.
          {{.body = R"~({"models":{}})~"}, {{}, unsupported}},
          {{.body = R"~({"error":{"message":"E"}})~"}, {{}, unsupported}},
      });
  EXPECT_EQ(server.lastRequest().queryParams, (Pairs{{"key", "k"}}));
}

}  // namespace
