// The Ollama assistant where it differs from the frame tested with the chat-completions family:
// no credential at all, "stream" false, "options", the one "message" of a reply, and a listing
// that fails at once on a failed exchange.

#include "qor_test_util.h"

namespace {

using namespace qortest;

const std::string kChatPath = "/api/chat";
const std::string kModelsPath = "/api/tags";

std::string textReply(const std::string& text) {
  return R"~({"message":{"role":"assistant","content":")~" + text + R"~("},"done":true})~";
}

using OllamaAssistant = AdapterTest<QORAssistantType::OLLAMA>;

TEST_F(OllamaAssistant, BodiesAreExact) {
  AssistantPtr assistant = make();

  // A new assistant: the model, "stream" false as a boolean, and the new text.
  setModel(*assistant, "llama3.2");
  server.answer("POST", kChatPath, {.body = textReply("R1")});
  ASSERT_EQ(chat(*assistant, "hi").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"model":"llama3.2","stream":false,"messages":[{"role":"user","content":"hi"}]})~");

  // The temperature in "options", the instructions as the first message, then the history.
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  server.answer("POST", kChatPath, {.body = textReply("R2")});
  ASSERT_EQ(chat(*assistant, "again").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"model":"llama3.2","stream":false,"options":{"temperature":0.5},)~"
            R"~("messages":[{"role":"system","content":"Be brief.\n\n"},)~"
            R"~({"role":"user","content":"hi"},{"role":"assistant","content":"R1"},)~"
            R"~({"role":"user","content":"again"}]})~");
}

TEST_F(OllamaAssistant, RepliesAreTheAssistantsMessage) {
  const std::string notFound = readWireFile("ollama/error_404_unknown_model.json");
  const std::string unsupported = "Unsupported data format: p/api/chat";
  AssistantPtr assistant = make();
  setModel(*assistant);
  expectChats(
      server, *assistant, kChatPath,
      {
          // The thinking trace is not part of the reply.
          {{.body = readWireFile("ollama/chat_thinking.json")},
           replied("There are 3 letter r's in \"strawberry\".")},
          {{.body = readWireFile("ollama/chat_tool_calls.json")}, replied("")},
          {{.body = R"~({"message":{"role":"assistant","content":"x"},"error":"e"})~"},
           replied("x")},
          // A reply that is not the assistant's text is refused, not skipped.
          {{.body = "{}"}, failed(unsupported)},
          {{.body = R"~({"message":"hello"})~"}, failed(unsupported)},
          {{.body = R"~({"message":{"role":"user","content":"x"}})~"}, failed(unsupported)},
          {{.body = R"~({"message":{"role":"assistant","content":5}})~"}, failed(unsupported)},
          // The service's "error" is a plain string: the whole body is the text.
          {{.status = 404, .body = notFound}, failed(notFound)},
          {{.status = 500, .body = R"~({"error":{"message":"boom"}})~"}, failed("boom")},
          {{.status = 502, .body = ""}, failed(errorText(502))},
      });
}

TEST_F(OllamaAssistant, ModelsInReplyOrderAndAFailedExchangeEndsTheListing) {
  const std::string unsupported = "Unsupported data format: g/api/tags";
  AssistantPtr assistant = make();
  expectListings(
      server, *assistant, kModelsPath,
      {
          {{.body = readWireFile("ollama/models.json")},
           {{"deepseek-r1:latest", "llama3.2:latest"}, ""}},
          // Every item with a string name counts, unchanged, duplicates included.
          {{.body = R"~({"models":[{"name":"zeta:latest"},{"model":"unnamed"},{"name":7},
              "alpha",{"name":"models/alpha"},{"name":""},{"name":"zeta:latest"}]})~"},
           {{"zeta:latest", "models/alpha", "", "zeta:latest"}, ""}},
          {{.body = R"~({"models":[]})~"}, {{}, ""}},
          // The body of a failed exchange is not examined at all.
          {{.status = 500, .body = readWireFile("ollama/error_generic.json")},
           {{}, errorText(500)}},
          {{.status = 404, .body = R"~({"error":{"message":"E"}})~"}, {{}, errorText(404)}},
          {{.status = 503, .body = R"~({"models":[{"name":"a"}]})~"}, {{}, errorText(503)}},
          // A successful exchange without JSON is an invalid response.
          {{.body = "<html>", .contentType = "text/html"}, {{}, "Invalid response: g/api/tags"}},
          // "models" missing or not an array; an "error" isn't looked at after success.
          {{.body = R"~({"models":{"name":"a"}})~"}, {{}, unsupported}},
          {{.body = R"~({"error":"not read"})~"}, {{}, unsupported}},
      });
}

}  // namespace
