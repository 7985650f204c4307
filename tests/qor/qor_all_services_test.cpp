// Every service kind through the exported functions: create, list the models, chat, copy the
// properties, take the memory over, and free it all with QORFreeObject (the sanitizer build
// reports anything left behind).

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qor.h"
#include "support/loopback_server.h"

namespace {

using qortest::LoopbackServer;
using qortest::readWireFile;
using qortest::RecordedRequest;

struct Deleter {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};
template <typename T>
using Owned = std::unique_ptr<T, Deleter>;

// How a service is told who is asking.
enum class Credential { Bearer, QueryKey, AnthropicHeader, None };

struct Service {
  QORAssistantType type;
  const char* name;
  Credential credential;
  const char* modelsPath;
  const char* modelsFile;
  std::size_t modelCount;
  const char* firstModel;
  const char* chatPath;  // for the model "m"
  const char* chatFile;
  const char* reply;
};

void PrintTo(const Service& service, std::ostream* out) {
  *out << service.name;
}

const Service kServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI", Credential::Bearer, "/v1/models", "openai/models.json",
     119, "gpt-5.2-codex", "/v1/chat/completions", "openai/chat_simple.json",
     "Hello! How can I assist you today?"},
    {QORAssistantType::GOOGLE, "Google", Credential::QueryKey, "/v1beta/models",
     "gemini/models.json", 30, "gemini-2.5-flash", "/v1beta/models/m:generateContent",
     "gemini/chat_simple_recorded.json", "2 + 2 = **4**"},
    {QORAssistantType::DEEPSEEK, "DeepSeek", Credential::Bearer, "/models", "deepseek/models.json",
     2, "deepseek-chat", "/chat/completions", "deepseek/chat_reasoning.json", "4"},
    {QORAssistantType::OLLAMA, "Ollama", Credential::None, "/api/tags", "ollama/models.json", 2,
     "deepseek-r1:latest", "/api/chat", "ollama/chat_simple.json", "Hello! How are you today?"},
    {QORAssistantType::X, "X", Credential::Bearer, "/v1/models", "xai/models.json", 13,
     "grok-imagine-image", "/v1/chat/completions", "xai/chat_simple.json",
     "The weather depends on your location and time of year—check a local forecast for "
     "details! \nXKCD7392"},
    {QORAssistantType::ANTHROPIC, "Anthropic", Credential::AnthropicHeader, "/v1/models",
     "anthropic/models.json", 10, "claude-opus-4-6", "/v1/messages", "anthropic/chat_simple.json",
     "The weather in SF is currently **20°C** (68°F) and **Sunny**!"},
    {QORAssistantType::ALIBABA, "Alibaba", Credential::Bearer, "/compatible-mode/v1/models",
     "dashscope/models.json", 3, "qwen-max", "/compatible-mode/v1/chat/completions",
     "dashscope/chat_reasoning.json", "9.9 is greater than 9.11."},
};

void expectCredential(const Service& service, const RecordedRequest& request) {
  SCOPED_TRACE(request.method + " " + request.path);
  EXPECT_EQ(request.header("Authorization"),
            service.credential == Credential::Bearer ? "Bearer k-1" : "");
  EXPECT_EQ(request.query, service.credential == Credential::QueryKey ? "key=k-1" : "");
  EXPECT_EQ(request.header("x-api-key"),
            service.credential == Credential::AnthropicHeader ? "k-1" : "");
  if (service.credential == Credential::None) {
    for (const auto& [name, value] : request.headers)
      EXPECT_EQ(value.find("k-1"), std::string::npos) << name;
  }
}

class AllServices : public ::testing::TestWithParam<Service> {};

TEST_P(AllServices, ListChatAndFreeThroughTheExports) {
  const Service& service = GetParam();
  LoopbackServer server;
  server.answer("GET", service.modelsPath, {.body = readWireFile(service.modelsFile)});
  server.answer("POST", service.chatPath, {.body = readWireFile(service.chatFile)});

  Owned<IQORAssistant> assistant(
      QORCreateAssistant(service.type, new YLHTTPPoolCenter, "k-1", server.baseUrl(), nullptr));
  ASSERT_NE(assistant, nullptr);

  const auto [models, listFailure] = assistant->obtainAvailableModels();
  EXPECT_EQ(listFailure, "");
  EXPECT_EQ(models.size(), service.modelCount);
  ASSERT_FALSE(models.empty());
  EXPECT_EQ(models.front(), service.firstModel);

  EXPECT_EQ(assistant->updateProperties(
                [](IQORProperties* p) { EXPECT_TRUE(p->setValue("model", YLVariant("m"))); }),
            "");
  auto [reply, chatFailure] = assistant->addMessage("hello");
  Owned<IQORMessage> message(reply);
  ASSERT_NE(message, nullptr) << chatFailure;
  EXPECT_EQ(chatFailure, "");
  EXPECT_EQ(message->obtainRole(), 1);
  ASSERT_EQ(message->obtainSections().size(), 1u);
  EXPECT_EQ(message->obtainSections()[0]->obtainText(), service.reply);

  const std::vector<RecordedRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, service.modelsPath);
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].path, service.chatPath);
  for (const RecordedRequest& request : requests)
    expectCredential(service, request);

  // A copy of the properties is the host's.
  Owned<IQORProperties> copy(assistant->obtainProperties());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->obtainValue("model"), YLVariant("m"));

  // The memory taken over outlives the assistant.
  Owned<IQORAssistantMemory> memory(assistant->detachMemory());
  ASSERT_NE(memory, nullptr);
  assistant.reset();
  const std::vector<QORHistoryEntry> history = memory->obtainHistory(20);
  ASSERT_EQ(history.size(), 2u);
  EXPECT_EQ(history[0].role, 0);
  EXPECT_EQ(history[0].text, "hello");
  EXPECT_EQ(history[1].role, 1);
  EXPECT_EQ(history[1].text, service.reply);
  EXPECT_EQ(message->obtainSections()[0]->obtainText(), service.reply)
      << "a message outlives its assistant";
}

INSTANTIATE_TEST_SUITE_P(Kinds, AllServices, ::testing::ValuesIn(kServices),
                         [](const ::testing::TestParamInfo<Service>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
