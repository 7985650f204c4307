// The four services of the chat-completions family, over real HTTP. The frame is tested once for
// all four; each difference (paths, instruction role, error bodies, listing rules, temperature)
// is a column of the tables below.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "support/loopback_server.h"

namespace {

using qortest::LoopbackServer;
using qortest::ScriptedReply;

struct Service {
  QORAssistantType type;
  const char* name;
  std::string modelsPath;
  std::string chatPath;
  const char* instructionRole;
  std::size_t column;  // of the tables below

  std::string listTail() const { return ": g" + modelsPath; }
  std::string chatTail() const { return ": p" + chatPath; }
};

void PrintTo(const Service& service, std::ostream* out) {
  *out << service.name;
}

const Service kServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI", "/v1/models", "/v1/chat/completions", "developer", 0},
    {QORAssistantType::DEEPSEEK, "DeepSeek", "/models", "/chat/completions", "system", 1},
    {QORAssistantType::X, "X", "/v1/models", "/v1/chat/completions", "system", 2},
    {QORAssistantType::ALIBABA, "Alibaba", "/compatible-mode/v1/models",
     "/compatible-mode/v1/chat/completions", "system", 3},
};

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

std::string reply(const std::string& content) {
  return R"({"choices":[{"message":{"role":"assistant","content":")" + content + R"("}}]})";
}

// A store of the host's that gives more than it is asked for.
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

class ChatCompletions : public ::testing::TestWithParam<Service> {
 protected:
  const Service& service() const { return GetParam(); }

  AssistantPtr create(const std::string& host, IQORAssistantMemory* memory = nullptr,
                      const std::string& key = "sk-test") {
    return AssistantPtr(
        QORCreateAssistant(service().type, new YLHTTPPoolCenter, key, host, memory));
  }
  AssistantPtr create() { return create(server.baseUrl()); }

  static void setModel(IQORAssistant& assistant, const char* model = "m") {
    assistant.updateProperties([&](IQORProperties* p) { p->setValue("model", YLVariant(model)); });
  }

  std::pair<MessagePtr, std::string> chat(IQORAssistant& assistant, const std::string& text) {
    auto [message, failure] = assistant.addMessage(text);
    return {MessagePtr(message), failure};
  }

  static std::vector<QORHistoryEntry> historyOf(IQORAssistant& assistant) {
    return static_cast<QORAssistant&>(assistant).memory->obtainHistory(0);
  }

  LoopbackServer server;
};

TEST_P(ChatCompletions, RequestsAreExact) {
  AssistantPtr assistant = create();

  // Without a model nothing goes out.
  auto [none, empty] = chat(*assistant, "hi");
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(empty, "Model is empty" + service().chatTail());
  EXPECT_EQ(server.requestCount(), 0u);

  setModel(*assistant);
  server.answer("POST", service().chatPath, {.body = reply("R1")});
  auto [first, failure] = chat(*assistant, "hi");
  ASSERT_EQ(failure, "");
  ASSERT_NE(first, nullptr);
  qortest::RecordedRequest request = server.lastRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, service().chatPath);
  EXPECT_EQ(request.query, "");
  EXPECT_EQ(request.header("Authorization"), "Bearer sk-test");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.body, R"({"model":"m","messages":[{"role":"user","content":"hi"}]})");

  // A set temperature, the instructions first, then the history, then the new text.
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  server.answer("POST", service().chatPath, {.body = reply("R2")});
  ASSERT_EQ(chat(*assistant, "again").second, "");
  EXPECT_EQ(server.lastRequest().body,
            std::string(R"({"model":"m","temperature":0.5,"messages":[{"role":")") +
                service().instructionRole +
                R"(","content":"Be brief.\n\n"},{"role":"user","content":"hi"},)"
                R"({"role":"assistant","content":"R1"},{"role":"user","content":"again"}]})");

  // Set back to the default, the temperature still goes out.
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(1.0));
    p->setValue("user_instructions", YLVariant(""));
  });
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_TRUE(
      server.lastRequest().body.starts_with(R"~({"model":"m","temperature":1.0,"messages":[)~"))
      << server.lastRequest().body;
  EXPECT_NE(server.lastRequest().body.find(R"({"role":"user","content":""}]})"), std::string::npos);

  // The listing is a GET with the same authorization.
  server.answer("GET", service().modelsPath, {.body = R"({"data":[]})"});
  EXPECT_EQ(assistant->obtainAvailableModels(),
            (std::pair<std::vector<std::string>, std::string>({}, "")));
  request = server.lastRequest();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path, service().modelsPath);
  EXPECT_EQ(request.header("Authorization"), "Bearer sk-test");
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(server.connectionCount(), 1u) << "one pool, one kept-alive connection";
}

TEST_P(ChatCompletions, AHostPathAndAnEmptyKeyAreKept) {
  AssistantPtr assistant = create(server.baseUrl() + "/proxy/", nullptr, "");
  setModel(*assistant);
  server.answer("POST", "/proxy" + service().chatPath, {.body = reply("ok")});
  ASSERT_EQ(chat(*assistant, "hi").second, "");
  EXPECT_EQ(server.lastRequest().header("Authorization"), "Bearer");  // "Bearer " as sent
}

TEST_P(ChatCompletions, RepliesAreReadDefensively) {
  struct Case {
    ScriptedReply reply;
    const char* text;     // the reply's text on success
    const char* failure;  // the sentence, or null for success
  };
  const Case cases[] = {
      {{.body = qortest::readWireFile("openai/chat_multi.json")},
       "Hello! How can I assist you today?Hi there! What can I do for you?",
       nullptr},
      {{.body = qortest::readWireFile("openai/chat_tool_calls.json")}, "", nullptr},
      {{.body = R"({"choices":[]})"}, "", nullptr},
      {{.body = R"({"choices":[{"message":{"role":"user","content":"x"}},{"message":"s"},7,
          {"message":{"role":"assistant","content":3}},{"message":{"content":"no role"}},
          {"message":{"role":"assistant","content":"A"}},
          {"message":{"role":"assistant","content":"B"}}]})"},
       "AB",
       nullptr},
      {{.body = R"({"error":{"message":"not read on success"}})"},
       nullptr,
       "Unsupported data format"},
      {{.body = R"({"choices":{}})"}, nullptr, "Unsupported data format"},
      {{.body = "[1,2]"}, nullptr, "Unsupported data format"},
      {{.body = "plain text", .contentType = "text/plain"}, nullptr, "Invalid response"},
      {{.body = ""}, nullptr, "Invalid response"},
      {{.status = 204}, nullptr, "Invalid response"},
  };
  AssistantPtr assistant = create();
  setModel(*assistant);
  std::size_t stored = 0;
  for (const Case& c : cases) {
    server.answer("POST", service().chatPath, c.reply);
    auto [message, failure] = chat(*assistant, "q");
    if (c.failure != nullptr) {
      EXPECT_EQ(message, nullptr);
      EXPECT_EQ(failure, c.failure + service().chatTail()) << c.reply.body;
      EXPECT_EQ(historyOf(*assistant).size(), stored) << "a failure stores nothing";
      continue;
    }
    ASSERT_NE(message, nullptr) << c.reply.body;
    EXPECT_EQ(failure, "");
    EXPECT_EQ(message->obtainRole(), 1);
    ASSERT_EQ(message->obtainSections().size(), 1u);
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), c.text);
    const auto history = historyOf(*assistant);
    ASSERT_EQ(history.size(), stored + 2);
    EXPECT_EQ(history[stored].role, 0);
    EXPECT_EQ(history[stored].text, "q");
    EXPECT_EQ(history[stored + 1].role, 1);
    EXPECT_EQ(history[stored + 1].text, c.text);
    stored += 2;
  }
}

TEST_P(ChatCompletions, FailedExchangesGiveTheServicesText) {
  const bool ownErrorBody = service().type == QORAssistantType::X;
  const std::string openAiError = qortest::readWireFile("openai/error_401_bad_key.json");
  const std::string xError = qortest::readWireFile("xai/error_400_bad_key.json");
  struct Case {
    ScriptedReply reply;
    std::string expected;
  };
  const Case cases[] = {
      {{.status = 401, .body = openAiError},
       ownErrorBody ? openAiError
                    : "Incorrect API key provided: invalid-key. You can find your API key at "
                      "https://platform.openai.com/account/api-keys."},
      {{.status = 400, .body = xError},
       ownErrorBody ? "Client specified an invalid argument\nIncorrect API key provided: in***ey. "
                      "You can obtain an API key from https://console.x.ai."
                    : xError},
      {{.status = 429, .body = R"({"code":5,"error":"x"})"}, R"({"code":5,"error":"x"})"},
      {{.status = 503, .body = "busy", .contentType = "text/plain"}, "busy"},
      {{.status = 500, .body = ""}, httpStatusText(500)},
  };
  HostMemory memory;
  AssistantPtr assistant = create(server.baseUrl(), &memory);
  setModel(*assistant);
  for (const Case& c : cases) {
    server.answer("POST", service().chatPath, c.reply);
    auto [message, failure] = chat(*assistant, "q");
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(failure, c.expected) << c.reply.status;
  }
  EXPECT_TRUE(memory.history.empty());

  // A transport failure, with the key nowhere in the text.
  AssistantPtr offline = create("http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()),
                                &memory, "sk-secret-key");
  setModel(*offline);
  auto [message, failure] = chat(*offline, "q");
  EXPECT_EQ(message, nullptr);
  EXPECT_EQ(failure, "Couldn't connect to server");
  EXPECT_EQ(failure.find("sk-secret-key"), std::string::npos);
  EXPECT_TRUE(memory.history.empty());
}

// The callback translates the library's own sentence, never its tail nor a service's text.
std::vector<std::string> translated;
void toFrench(const char* key, void* record) {
  auto* info = static_cast<QORCallbackLocalizationInfo*>(record);
  translated.emplace_back(info->source);
  if (std::strcmp(key, "QORLocalizeString") == 0 &&
      std::strcmp(info->source, "Invalid response") == 0) {
    std::strcpy(info->translation, "Réponse invalide");
  }
}

TEST_P(ChatCompletions, OnlyTheLibrarysSentencesAreTranslated) {
  AssistantPtr assistant = create();
  setModel(*assistant);
  translated.clear();
  QORRegisterCallback(&toFrench);
  server.answer("POST", service().chatPath, {.body = "<html>"});
  EXPECT_EQ(chat(*assistant, "q").second, "Réponse invalide" + service().chatTail());
  server.answer("POST", service().chatPath, {.status = 400, .body = "Invalid response"});
  EXPECT_EQ(chat(*assistant, "q").second, "Invalid response");
  QORRegisterCallback(nullptr);
  EXPECT_EQ(translated, std::vector<std::string>{"Invalid response"});
}

TEST_P(ChatCompletions, AHostsMemoryIsSentWhole) {
  HostMemory memory;
  for (int i = 0; i < 25; ++i)
    memory.history.push_back({i % 3, "t" + std::to_string(i)});
  AssistantPtr assistant = create(server.baseUrl(), &memory);
  setModel(*assistant);
  server.answer("POST", service().chatPath, {.body = reply("done")});
  ASSERT_EQ(chat(*assistant, "new").second, "");

  const YLJson body(server.lastRequest().body);
  const YLJsonValue* messages = body.obtainKeyValue("messages");
  ASSERT_EQ(messages->obtainArraySize(), 26u);
  for (std::size_t i = 0; i < 25; ++i) {
    const YLJsonValue* item = messages->obtainArrayItem(i);
    EXPECT_EQ(item->obtainKeyValue("role")->obtainStringValue(), i % 3 == 1 ? "assistant" : "user");
    EXPECT_EQ(item->obtainKeyValue("content")->obtainStringValue(), "t" + std::to_string(i));
  }
  EXPECT_EQ(memory.limits, std::vector<std::int32_t>{20});
  ASSERT_EQ(memory.history.size(), 27u);
  EXPECT_EQ(memory.history[25].text, "new");
  EXPECT_EQ(memory.history[26].text, "done");
}

TEST_P(ChatCompletions, ListingsFollowEachServicesRules) {
  const std::string mixed = R"({"data":[
      {"id":"old","object":"model","created":1},
      {"id":"new","object":"model","created":3},
      {"id":"mid","object":"model","created":2},
      {"id":"mid2","object":"model","created":2},
      {"id":"text-date","object":"model","created":"5"},
      {"id":"case","object":"Model","created":9},
      {"id":"blank","object":"model ","created":9},
      {"id":7,"object":"model","created":9},
      {"id":"undated","object":"model"},
      "junk"]})";
  const std::string withData = R"({"data":[{"id":"a","object":"model","created":1}]})";
  const std::string unsupported = "Unsupported data format" + service().listTail();
  using Names = std::vector<std::string>;
  struct Case {
    ScriptedReply reply;
    // Expected names and text per service, in the order of kServices.
    std::pair<Names, std::string> expected[4];
  };
  const Case cases[] = {
      {{.body = mixed},
       {{{"new", "mid", "mid2", "old"}, ""},
        {{"old", "new", "mid", "mid2", "text-date", "undated"}, ""},
        {{"new", "mid", "mid2", "old"}, ""},
        {{"new", "mid", "mid2", "old"}, ""}}},
      {{.body = qortest::readWireFile("openai/models_docs_example.json")},
       {{{"model-id-0", "model-id-1", "model-id-2"}, ""},
        {{"model-id-0", "model-id-1", "model-id-2"}, ""},
        {{"model-id-0", "model-id-1", "model-id-2"}, ""},
        {{"model-id-0", "model-id-1", "model-id-2"}, ""}}},
      // An "error" that is a plain string.
      {{.body = R"({"error":"plain"})"},
       {{{}, unsupported},
        {{}, unsupported},
        {{}, R"({"error":"plain"})"},
        {{}, R"({"error":"plain"})"}}},
      // An error object without a message, after a successful exchange.
      {{.body = R"({"error":{"code":1}})"},
       {{{}, ""},
        {{}, unsupported},
        {{}, R"({"error":{"code":1}})"},
        {{}, R"({"error":{"code":1}})"}}},
      // A failed exchange with the service's message.
      {{.status = 401, .body = R"({"error":{"message":"E"}})"},
       {{{}, "E"}, {{}, "E"}, {{}, R"({"error":{"message":"E"}})"}, {{}, "E"}}},
      // A failed exchange whose body still lists models.
      {{.status = 500, .body = withData}, {{{"a"}, ""}, {{}, withData}, {{"a"}, ""}, {{"a"}, ""}}},
      {{.status = 500, .body = ""},
       {{{}, httpStatusText(500)},
        {{}, httpStatusText(500)},
        {{}, httpStatusText(500)},
        {{}, httpStatusText(500)}}},
      // Not JSON after success.
      {{.body = "<html>", .contentType = "text/html"},
       {{{}, ""}, {{}, "Invalid response" + service().listTail()}, {{}, ""}, {{}, ""}}},
      {{.body = R"({"data":{}})"},
       {{{}, unsupported}, {{}, unsupported}, {{}, unsupported}, {{}, unsupported}}},
  };
  AssistantPtr assistant = create();
  for (const Case& c : cases) {
    server.answer("GET", service().modelsPath, c.reply);
    EXPECT_EQ(assistant->obtainAvailableModels(), c.expected[service().column])
        << c.reply.status << " " << c.reply.body;
  }

  AssistantPtr offline =
      create("http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()));
  EXPECT_EQ(offline->obtainAvailableModels(),
            (std::pair<Names, std::string>({}, "Couldn't connect to server")));
}

TEST_P(ChatCompletions, ServicesWireFilesReadAsPublished) {
  const std::pair<const char*, const char*> chats[] = {
      {"openai/chat_simple.json", "Hello! How can I assist you today?"},
      {"deepseek/chat_reasoning.json", "4"},
      {"dashscope/chat_reasoning.json", "9.9 is greater than 9.11."},
      {"xai/chat_tool_calls.json", ""},
  };
  AssistantPtr assistant = create();
  setModel(*assistant);
  for (const auto& [file, text] : chats) {
    server.answer("POST", service().chatPath, {.body = qortest::readWireFile(file)});
    auto [message, failure] = chat(*assistant, "q");
    ASSERT_NE(message, nullptr) << file << ": " << failure;
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), text) << file;
  }
  server.answer("GET", service().modelsPath,
                {.body = qortest::readWireFile("deepseek/models.json")});
  const auto [names, failure] = assistant->obtainAvailableModels();
  // DeepSeek's list has no dates: only its own adapter counts the models.
  const std::vector<std::string> expected =
      service().type == QORAssistantType::DEEPSEEK
          ? std::vector<std::string>{"deepseek-chat", "deepseek-reasoner"}
          : std::vector<std::string>{};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(failure, "");
}

INSTANTIATE_TEST_SUITE_P(Family, ChatCompletions, ::testing::ValuesIn(kServices),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
