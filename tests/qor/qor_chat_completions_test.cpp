// The four services of the chat-completions family, over real HTTP. The frame that every adapter
// shares (failure routing, memory only after success, a host's memory sent whole, transport
// failures) is tested here once; each difference of the four (error bodies, listing rules) is a
// column of the tables below, their request bodies are in the table of every service.

#include "qor_test_util.h"

namespace {

using namespace qortest;

struct Service {
  QORAssistantType type;
  const char* name;
  std::string modelsPath;
  std::string chatPath;
  std::size_t column;  // of the listing table

  std::string listTail() const { return ": g" + modelsPath; }
  std::string chatTail() const { return ": p" + chatPath; }
  friend void PrintTo(const Service& service, std::ostream* out) { *out << service.name; }
};

const Service kServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI", "/v1/models", "/v1/chat/completions", 0},
    {QORAssistantType::DEEPSEEK, "DeepSeek", "/models", "/chat/completions", 1},
    {QORAssistantType::X, "X", "/v1/models", "/v1/chat/completions", 2},
    {QORAssistantType::ALIBABA, "Alibaba", "/compatible-mode/v1/models",
     "/compatible-mode/v1/chat/completions", 3},
};

std::string reply(const std::string& content) {
  return R"~({"choices":[{"message":{"role":"assistant","content":")~" + content + R"~("}}]})~";
}

class ChatCompletions : public ::testing::TestWithParam<Service> {
 protected:
  const Service& service() const { return GetParam(); }
  AssistantPtr make(IQORAssistantMemory* memory = nullptr, const std::string& key = "sk-test") {
    return create(service().type, server.baseUrl(), memory, key);
  }

  LoopbackServer server;
};

TEST_P(ChatCompletions, RequestsFollowTheRecord) {
  AssistantPtr assistant = make();

  // Without a model nothing goes out.
  expectChat(*assistant, failed("Model is empty" + service().chatTail()));
  EXPECT_EQ(server.requestCount(), 0u);

  // Set back to the default, the temperature still goes out; an empty text is sent.
  setModel(*assistant);
  assistant->updateProperties(
      [](IQORProperties* p) { p->setValue("temperature", YLVariant(1.0)); });
  server.answer("POST", service().chatPath, {.body = reply("R1")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"model":"m","temperature":1.0,"messages":[{"role":"user","content":""}]})~");

  // A path of the host's is kept, and an empty key is not refused.
  AssistantPtr proxied = create(service().type, server.baseUrl() + "/proxy/", nullptr, "");
  setModel(*proxied);
  server.answer("POST", "/proxy" + service().chatPath, {.body = reply("ok")});
  ASSERT_EQ(chat(*proxied, "hi").second, "");
  EXPECT_EQ(server.lastRequest().header("Authorization"), "Bearer");  // "Bearer " as sent
}

TEST_P(ChatCompletions, RepliesAndFailuresAreReadDefensively) {
  const bool x = service().type == QORAssistantType::X;  // the one with its own error reader
  const std::string openAiError = readWireFile("openai/error_401_bad_key.json");
  const std::string xError = readWireFile("x/error_400_bad_key.json");
  const std::string unsupported = "Unsupported data format" + service().chatTail();
  const std::string invalid = "Invalid response" + service().chatTail();
  AssistantPtr assistant = make();
  setModel(*assistant);
  expectReplies<Outcome>(
      server, *assistant, service().chatPath,
      {
          // A tool call's content is null.
          {{.body = readWireFile("openai/chat_tool_calls.json")}, replied("")},
          {{.body = R"~({"choices":[{"message":{"role":"user","content":"x"}},{"message":"s"},7,
              {"message":{"role":"assistant","content":3}},{"message":{"content":"no role"}},
              {"message":{"role":"assistant","content":"A"}},
              {"message":{"role":"assistant","content":"B"}}]})~"},
           replied("AB")},
          // A successful exchange with a reply that can't be read.
          {{.body = R"~({"error":{"message":"not read on success"}})~"}, failed(unsupported)},
          {{.body = R"~({"choices":{}})~"}, failed(unsupported)},
          {{.body = "plain text", .contentType = "text/plain"}, failed(invalid)},
          // A failed exchange: the service's text.
          {{.status = 401, .body = openAiError},
           failed(x ? openAiError
                    : "Incorrect API key provided: invalid-key. You can find your API key at "
                      "https://platform.openai.com/account/api-keys.")},
          {{.status = 400, .body = xError},
           failed(x ? "Client specified an invalid argument\nIncorrect API key provided: "
                      "in***ey. You can obtain an API key from https://console.x.ai."
                    : xError)},
          {{.status = 429, .body = R"~({"code":5,"error":"x"})~"},
           failed(R"~({"code":5,"error":"x"})~")},
          {{.status = 503, .body = "busy", .contentType = "text/plain"}, failed("busy")},
          {{.status = 500, .body = ""}, failed(errorText(500))},
      });

  // A transport failure, with the key nowhere in the text.
  AssistantPtr offline = create(service().type, offlineHost(), nullptr, "sk-secret-key");
  setModel(*offline);
  expectChat(*offline, failed("Couldn't connect to server"));
}

TEST_P(ChatCompletions, AHostsMemoryIsSentWhole) {
  // It gives more than the 20 turns asked for; all go out, any role but 1 as the user's.
  HostMemory memory;
  std::string expected = R"~({"model":"m","messages":[)~";
  for (int i = 0; i < 25; ++i) {
    memory.history.push_back({i % 3, "t" + std::to_string(i)});
    expected += std::string(R"~({"role":")~") + (i % 3 == 1 ? "assistant" : "user") +
                R"~(","content":"t)~" + std::to_string(i) + R"~("},)~";
  }
  AssistantPtr assistant = make(&memory);
  setModel(*assistant);
  server.answer("POST", service().chatPath, {.body = reply("done")});
  ASSERT_EQ(chat(*assistant, "new").second, "");
  EXPECT_EQ(server.lastRequest().body, expected + R"~({"role":"user","content":"new"}]})~");
  // The instructions read the structure before the history is asked for; turns are stored after.
  EXPECT_EQ(memory.calls, (std::vector<std::string>{"structure", "history 20", "add", "add"}));
  ASSERT_EQ(memory.history.size(), 27u);
  EXPECT_EQ(memory.history[26].text, "done");
}

TEST_P(ChatCompletions, ListingsFollowEachServicesRules) {
  const std::string mixed = R"~({"data":[
      {"id":"old","object":"model","created":1},
      {"id":"new","object":"model","created":3},
      {"id":"mid","object":"model","created":2},
      {"id":"mid2","object":"model","created":2},
      {"id":"text-date","object":"model","created":"5"},
      {"id":"case","object":"Model","created":9},
      {"id":"blank","object":"model ","created":9},
      {"id":7,"object":"model","created":9},
      {"id":"undated","object":"model"},
      "junk"]})~";
  const std::string plain = R"~({"error":"plain"})~";
  const std::string codeOnly = R"~({"error":{"code":1}})~";
  const std::string message = R"~({"error":{"message":"E"}})~";
  const std::string withData = R"~({"data":[{"id":"a","object":"model","created":1}]})~";
  // Enough equal dates that only a stable sort keeps the reply's order among them: m1, m3, ... are
  // newer than m0, m2, ...
  std::string ties = R"~({"data":[)~";
  Listing tiesNewestFirst, tiesInReplyOrder;
  for (int i = 0; i < 40; ++i) {
    const std::string id = "m" + std::to_string(i);
    ties += R"~({"object":"model","id":")~" + id + R"~(","created":)~" + std::to_string(i % 2) +
            (i < 39 ? "}," : "}]}");
    tiesInReplyOrder.first.push_back(id);
    tiesNewestFirst.first.push_back("m" + std::to_string(i < 20 ? 2 * i + 1 : 2 * (i - 20)));
  }
  const auto fails = [](const std::string& text) { return Listing({}, text); };
  const Listing none, a = {{"a"}, ""}, dated = {{"new", "mid", "mid2", "old"}, ""};
  const Listing unsupported = fails("Unsupported data format" + service().listTail());
  const Listing status500 = fails(errorText(500));
  struct Case {
    ScriptedReply reply;
    Listing expected[4];  // per service, in the order of kServices
  };
  const Case cases[] = {
      {{.body = mixed},
       {dated, {{"old", "new", "mid", "mid2", "text-date", "undated"}, ""}, dated, dated}},
      {{.body = ties}, {tiesNewestFirst, tiesInReplyOrder, tiesNewestFirst, tiesNewestFirst}},
      // An "error" that is a string, an object without a message, an object with one.
      {{.body = plain}, {unsupported, unsupported, fails(plain), fails(plain)}},
      {{.body = codeOnly}, {none, unsupported, fails(codeOnly), fails(codeOnly)}},
      {{.status = 401, .body = message}, {fails("E"), fails("E"), fails(message), fails("E")}},
      // A failed exchange whose body still lists models, or has none.
      {{.status = 500, .body = withData}, {a, fails(withData), a, a}},
      {{.status = 500}, {status500, status500, status500, status500}},
      // Not JSON after success.
      {{.body = "<html>", .contentType = "text/html"},
       {none, fails("Invalid response" + service().listTail()), none, none}},
      {{.body = R"~({"data":{}})~"}, {unsupported, unsupported, unsupported, unsupported}},
  };
  AssistantPtr assistant = make();
  std::vector<ListingCase> column;
  for (const Case& c : cases)
    column.push_back({c.reply, c.expected[service().column]});
  expectReplies<Listing>(server, *assistant, service().modelsPath, column);

  EXPECT_EQ(create(service().type, offlineHost())->obtainAvailableModels(),
            Listing({}, "Couldn't connect to server"));
}

INSTANTIATE_TEST_SUITE_P(Family, ChatCompletions, ::testing::ValuesIn(kServices),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
