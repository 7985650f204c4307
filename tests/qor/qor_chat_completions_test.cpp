// The chat-completions family over real HTTP, and the frame every adapter shares; each difference
// of the four is a column of the tables below.

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

class ChatCompletions : public ::testing::TestWithParam<Service> {
 protected:
  const Service& service() const { return GetParam(); }
  AssistantPtr make() { return create(service().type, server.baseUrl(), nullptr, "sk-test"); }

  LoopbackServer server;
};

TEST_P(ChatCompletions, RepliesAndFailuresAreReadDefensively) {
  const bool x = service().type == QORAssistantType::X;  // the one with its own error reader
  const std::string openAiError = readWireFile("openai/error_401_bad_key.json");
  const std::string xError = readWireFile("x/error_400_bad_key.json");
  const std::string unsupported = "Unsupported data format" + service().chatTail();
  const std::string invalid = "Invalid response" + service().chatTail();
  AssistantPtr assistant = make();
  setModel(*assistant);
  server.answer("POST", service().chatPath, {.body = readWireFile("openai/chat_tool_calls.json")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_TRUE(server.lastRequest().body.ends_with(R"~({"role":"user","content":""}]})~"));
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
}

TEST_P(ChatCompletions, ListingsFollowEachServicesRules) {
  const std::string mixed = R"~({"data":[{"id":"old","object":"model","created":1},
      {"id":"new","object":"model","created":3}, {"id":"mid","object":"model","created":2},
      {"id":"mid2","object":"model","created":2}, {"id":"text-date","object":"model","created":"5"},
      {"id":"case","object":"Model","created":9}, {"id":"blank","object":"model ","created":9},
      {"id":7,"object":"model","created":9}, {"id":"undated","object":"model"}, "junk"]})~";
  const std::string plain = R"~({"error":"plain"})~";
  const std::string codeOnly = R"~({"error":{"code":1}})~";
  const std::string message = R"~({"error":{"message":"E"}})~";
  const std::string withData = R"~({"data":[{"id":"a","object":"model","created":1}]})~";
  // Enough equal dates that only a stable sort keeps the reply's order: odd ids are newer.
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
}

INSTANTIATE_TEST_SUITE_P(Family, ChatCompletions, ::testing::ValuesIn(kServices),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
