// The Ollama assistant where it differs from the frame tested with the chat-completions family:
// the one "message" of a reply, and a listing that fails at once on a failed exchange.

#include "qor_test_util.h"

namespace {

using namespace qortest;

using OllamaAssistant = AdapterTest<QORAssistantType::OLLAMA>;

TEST_F(OllamaAssistant, RepliesAreTheAssistantsMessage) {
  const std::string notFound = readWireFile("ollama/error_404_unknown_model.json");
  const std::string unsupported = "Unsupported data format: p/api/chat";
  AssistantPtr assistant = make();
  setModel(*assistant);
  expectReplies<Outcome>(
      server, *assistant, "/api/chat",
      {
          // The thinking trace is not part of the reply.
          {{.body = readWireFile("ollama/chat_thinking.json")},
           replied("There are 3 letter r's in \"strawberry\".")},
          {{.body = readWireFile("ollama/chat_tool_calls.json")}, replied("")},
          {{.body = R"~({"message":{"role":"assistant","content":"x"},"error":"e"})~"},
           replied("x")},
          // A reply that is not the assistant's text is refused, not skipped.
          {{.body = R"~({"message":"hello"})~"}, failed(unsupported)},
          {{.body = R"~({"message":{"role":"user","content":"x"}})~"}, failed(unsupported)},
          {{.body = R"~({"message":{"role":"assistant","content":5}})~"}, failed(unsupported)},
          // The service's "error" is a plain string: the whole body is the text.
          {{.status = 404, .body = notFound}, failed(notFound)},
      });
}

TEST_F(OllamaAssistant, ModelsInReplyOrderAndAFailedExchangeEndsTheListing) {
  AssistantPtr assistant = make();
  expectReplies<Listing>(
      server, *assistant, "/api/tags",
      {
          // Every item with a string name counts, unchanged, duplicates included.
          {{.body = R"~({"models":[{"name":"zeta:latest"},{"model":"unnamed"},{"name":7},
              "alpha",{"name":"models/alpha"},{"name":""},{"name":"zeta:latest"}]})~"},
           {{"zeta:latest", "models/alpha", "", "zeta:latest"}, ""}},
          // The body of a failed exchange is not examined at all.
          {{.status = 500, .body = readWireFile("ollama/error_generic.json")},
           {{}, errorText(500)}},
          {{.status = 404, .body = R"~({"error":{"message":"E"}})~"}, {{}, errorText(404)}},
          {{.body = R"~({"models":{"name":"a"}})~"}, {{}, "Unsupported data format: g/api/tags"}},
      });
}

}  // namespace
