// The Ollama assistant over real HTTP: no credential at all, "stream" false, the temperature in
// "options", the one "message" of a reply, and a listing that fails at once on a failed exchange.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "support/loopback_server.h"

namespace {

using qortest::LoopbackServer;
using qortest::readWireFile;
using qortest::RecordedRequest;
using qortest::ScriptedReply;
using Names = std::vector<std::string>;
using Listing = std::pair<Names, std::string>;
using Turns = std::vector<std::pair<ChatRole, std::string>>;

const std::string kChatPath = "/api/chat";
const std::string kModelsPath = "/api/tags";
const std::string kChatTail = ": p/api/chat";
const std::string kModelsTail = ": g/api/tags";

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
  return R"~({"message":{"role":"assistant","content":")~" + text + R"~("},"done":true})~";
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

class OllamaAssistant : public ::testing::Test {
 protected:
  AssistantPtr create(IQORAssistantMemory* memory = nullptr, const std::string& key = "",
                      const std::string& host = "") {
    return AssistantPtr(QORCreateAssistant(QORAssistantType::OLLAMA, new YLHTTPPoolCenter, key,
                                           host.empty() ? server.baseUrl() : host, memory));
  }
  AssistantPtr createOffline(IQORAssistantMemory* memory = nullptr) {
    return create(memory, "", "http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()));
  }

  static void setModel(IQORAssistant& assistant, const char* model = "llama3.2") {
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

TEST_F(OllamaAssistant, AKeyGivenAtCreationIsDropped) {
  // An empty host is the local server's port, reached over https like any host without a scheme.
  AssistantPtr local = create(nullptr, "ollama-secret", " ");
  const std::string host = static_cast<QORAssistant&>(*local).properties->apiHost;
  EXPECT_TRUE(host.starts_with("https://")) << host;
  EXPECT_TRUE(host.ends_with(":11434")) << host;

  // The same exchanges with and without a key are the same on the wire.
  server.answer("GET", kModelsPath, {.body = readWireFile("ollama/models.json")});
  server.answer("POST", kChatPath, {.body = textReply("ok")});
  std::vector<RecordedRequest> seen[2];
  const char* keys[] = {"ollama-secret", ""};
  for (int i = 0; i < 2; ++i) {
    AssistantPtr assistant = create(nullptr, keys[i]);
    const YLRestSession& session = *static_cast<QORAssistant&>(*assistant).session;
    EXPECT_EQ(session.authorizationHeaderValue(), "") << keys[i];
    EXPECT_TRUE(session.headerParams().empty()) << keys[i];
    EXPECT_EQ(assistant->obtainAvailableModels().second, "") << keys[i];
    setModel(*assistant);
    ASSERT_EQ(chat(*assistant, "hi").second, "") << keys[i];
    const std::vector<RecordedRequest> all = server.requests();
    seen[i].assign(all.end() - 2, all.end());
  }
  for (int r = 0; r < 2; ++r) {
    const RecordedRequest& withKey = seen[0][r];
    const RecordedRequest& withoutKey = seen[1][r];
    EXPECT_EQ(withKey.method, withoutKey.method);
    EXPECT_EQ(withKey.path, withoutKey.path);
    EXPECT_EQ(withKey.query, "");
    EXPECT_EQ(withoutKey.query, "");
    EXPECT_EQ(withKey.headers, withoutKey.headers);
    EXPECT_EQ(withKey.body, withoutKey.body);
    EXPECT_FALSE(withKey.hasHeader("Authorization"));
    for (const auto& [name, value] : withKey.headers)
      EXPECT_EQ(value.find("ollama-secret"), std::string::npos) << name << ": " << value;
    EXPECT_EQ(withKey.body.find("ollama-secret"), std::string::npos);
  }
  EXPECT_EQ(seen[0][0].method, "GET");
  EXPECT_EQ(seen[0][0].path, kModelsPath);
  EXPECT_EQ(seen[0][1].method, "POST");
  EXPECT_EQ(seen[0][1].path, kChatPath);
}

TEST_F(OllamaAssistant, BodiesAreExact) {
  HostMemory memory;
  AssistantPtr assistant = create(&memory);

  // Without a model nothing goes out and nothing is stored.
  auto [none, empty] = chat(*assistant, "hi");
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(empty, "Model is empty" + kChatTail);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_TRUE(memory.history.empty());

  // A new assistant: the model, "stream" false as a boolean, and the new text.
  setModel(*assistant);
  server.answer("POST", kChatPath, {.body = textReply("R1")});
  auto [first, failure] = chat(*assistant, "hi");
  ASSERT_EQ(failure, "");
  ASSERT_NE(first, nullptr);
  RecordedRequest request = server.lastRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, kChatPath);
  EXPECT_EQ(request.query, "");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.body,
            R"~({"model":"llama3.2","stream":false,"messages":[{"role":"user","content":"hi"}]})~");
  EXPECT_EQ(memory.limits, std::vector<std::int32_t>{20});
  EXPECT_EQ(turnsOf(memory.history), (Turns{{0, "hi"}, {1, "R1"}}));

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

  // Held at 2.0 above it; without instructions the oldest turn comes first; a turn of the
  // host's with another role is the user's; an empty text is sent.
  memory.history = {{7, "odd"}, {1, "said"}};
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(2.5));
    p->setValue("user_instructions", YLVariant(""));
  });
  server.answer("POST", kChatPath, {.body = textReply("R3")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"model":"llama3.2","stream":false,"options":{"temperature":2.0},)~"
            R"~("messages":[{"role":"user","content":"odd"},)~"
            R"~({"role":"assistant","content":"said"},{"role":"user","content":""}]})~");
  EXPECT_EQ(turnsOf(memory.history), (Turns{{7, "odd"}, {1, "said"}, {0, ""}, {1, "R3"}}));

  // The default temperature goes out once it was set.
  assistant->updateProperties(
      [](IQORProperties* p) { p->setValue("temperature", YLVariant(1.0)); });
  ASSERT_EQ(chat(*assistant, "t").second, "");
  EXPECT_TRUE(server.lastRequest().body.starts_with(
      R"~({"model":"llama3.2","stream":false,"options":{"temperature":1.0},"messages":[)~"))
      << server.lastRequest().body;
}

TEST_F(OllamaAssistant, RepliesAreTheAssistantsMessage) {
  struct Case {
    const char* name;
    std::string body;
    std::string text;
  };
  const Case cases[] = {
      {"simple", readWireFile("ollama/chat_simple.json"), "Hello! How are you today?"},
      // The thinking trace is not part of the reply.
      {"thinking", readWireFile("ollama/chat_thinking.json"),
       "There are 3 letter r's in \"strawberry\"."},
      // Tool calls with empty content: a success with an empty text.
      {"tool calls", readWireFile("ollama/chat_tool_calls.json"), ""},
      {"only the message read", R"~({"message":{"role":"assistant","content":"x"},"error":"e"})~",
       "x"},
  };
  for (const Case& c : cases) {
    AssistantPtr assistant = create();
    setModel(*assistant);
    server.answer("POST", kChatPath, {.body = c.body});
    auto [message, failure] = chat(*assistant, "q");
    ASSERT_NE(message, nullptr) << c.name << ": " << failure;
    EXPECT_EQ(failure, "") << c.name;
    EXPECT_EQ(message->obtainRole(), 1) << c.name;
    ASSERT_EQ(message->obtainSections().size(), 1u) << c.name;
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), c.text) << c.name;
    EXPECT_EQ(historyOf(*assistant), (Turns{{0, "q"}, {1, c.text}})) << c.name;
  }
}

TEST_F(OllamaAssistant, FailedChatsStoreNothing) {
  const std::string notFound = readWireFile("ollama/error_404_unknown_model.json");
  const std::string generic = readWireFile("ollama/error_generic.json");
  const std::string modelRequired = readWireFile("ollama/error_400_model_required.json");
  struct Case {
    ScriptedReply reply;
    std::string failure;
  };
  const Case cases[] = {
      // The service's "error" is a plain string: the whole body is the text.
      {{.status = 404, .body = notFound}, notFound},
      {{.status = 500, .body = generic}, generic},
      {{.status = 400, .body = modelRequired}, modelRequired},
      // An error object with a message, the shared reader's first choice.
      {{.status = 500, .body = R"~({"error":{"message":"boom"}})~"}, "boom"},
      {{.status = 502, .body = ""}, httpStatusText(502)},
      // A successful exchange with a reply that can't be read.
      {{.body = "<html>", .contentType = "text/html"}, "Invalid response" + kChatTail},
      {{.body = ""}, "Invalid response" + kChatTail},
      {{.body = "{}"}, "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":"hello"})~"}, "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":{"role":"user","content":"x"}})~"},
       "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":{"role":"Assistant","content":"x"}})~"},
       "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":{"content":"x"}})~"}, "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":{"role":"assistant","content":5}})~"},
       "Unsupported data format" + kChatTail},
      {{.body = R"~({"message":{"role":"assistant"}})~"}, "Unsupported data format" + kChatTail},
      {{.body = R"~({"choices":[{"message":{"role":"assistant","content":"x"}}]})~"},
       "Unsupported data format" + kChatTail},
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

TEST_F(OllamaAssistant, ModelsInReplyOrder) {
  server.answer("GET", kModelsPath, {.body = readWireFile("ollama/models.json")});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"deepseek-r1:latest", "llama3.2:latest"}, ""));
  EXPECT_EQ(server.lastRequest().method, "GET");
  EXPECT_EQ(server.lastRequest().path, kModelsPath);
  EXPECT_EQ(server.lastRequest().query, "");

  // Every item with a string name counts, unchanged, duplicates included; others are skipped.
  server.answer("GET", kModelsPath, {.body = R"~({"models":[
      {"name":"zeta:latest"},{"model":"unnamed"},{"name":7},"alpha",
      {"name":"models/alpha"},{"name":""},{"name":"zeta:latest"}]})~"});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"zeta:latest", "models/alpha", "", "zeta:latest"}, ""));
}

TEST_F(OllamaAssistant, AFailedExchangeEndsTheListingAtOnce) {
  const std::string models = R"~({"models":[{"name":"a"}]})~";
  struct Case {
    ScriptedReply reply;
    Listing expected;
  };
  const Case cases[] = {
      // The body of a failed exchange is not examined at all.
      {{.status = 500, .body = readWireFile("ollama/error_generic.json")},
       {{}, httpStatusText(500)}},
      {{.status = 404, .body = R"~({"error":{"message":"E"}})~"}, {{}, httpStatusText(404)}},
      {{.status = 503, .body = models}, {{}, httpStatusText(503)}},
      {{.status = 502, .body = ""}, {{}, httpStatusText(502)}},
      // A successful exchange without JSON is an invalid response.
      {{.body = "<html>", .contentType = "text/html"}, {{}, "Invalid response" + kModelsTail}},
      {{.body = ""}, {{}, "Invalid response" + kModelsTail}},
      // "models" missing or not an array; an "error" isn't looked at after success.
      {{.body = R"~({"models":{"name":"a"}})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = R"~({"error":"not read"})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = R"~([{"name":"a"}])~"}, {{}, "Unsupported data format" + kModelsTail}},
      // An empty list is a success.
      {{.body = R"~({"models":[]})~"}, {{}, ""}},
  };
  for (const Case& c : cases) {
    server.answer("GET", kModelsPath, c.reply);
    EXPECT_EQ(assistant()->obtainAvailableModels(), c.expected)
        << c.reply.status << " " << c.reply.body;
  }
  EXPECT_EQ(server.requestCount(), std::size(cases)) << "one request each, no retry";

  EXPECT_EQ(createOffline()->obtainAvailableModels(), Listing({}, "Couldn't connect to server"));
}

}  // namespace
