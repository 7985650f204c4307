// Every service kind through the exported functions: create, list the models, chat, take the
// memory over, and free it all with QORFreeObject (the sanitizer build reports anything left
// behind).

#include "qor_test_util.h"

namespace {

using namespace qortest;

struct Service {
  QORAssistantType type;
  const char* name;
  const char* modelsPath;
  const char* modelsFile;
  std::size_t modelCount;
  const char* firstModel;
  const char* chatPath;  // for the model "m"
  const char* chatFile;
  const char* reply;
  friend void PrintTo(const Service& service, std::ostream* out) { *out << service.name; }
};

const Service kServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI", "/v1/models", "openai/models.json", 119,
     "gpt-5.2-codex", "/v1/chat/completions", "openai/chat_simple.json",
     "Hello! How can I assist you today?"},
    {QORAssistantType::GOOGLE, "Google", "/v1beta/models", "gemini/models.json", 30,
     "gemini-2.5-flash", "/v1beta/models/m:generateContent", "gemini/chat_simple_recorded.json",
     "2 + 2 = **4**"},
    {QORAssistantType::DEEPSEEK, "DeepSeek", "/models", "deepseek/models.json", 2, "deepseek-chat",
     "/chat/completions", "deepseek/chat_reasoning.json", "4"},
    {QORAssistantType::OLLAMA, "Ollama", "/api/tags", "ollama/models.json", 2, "deepseek-r1:latest",
     "/api/chat", "ollama/chat_simple.json", "Hello! How are you today?"},
    {QORAssistantType::X, "X", "/v1/models", "xai/models.json", 13, "grok-imagine-image",
     "/v1/chat/completions", "xai/chat_simple.json",
     "The weather depends on your location and time of year—check a local forecast for "
     "details! \nXKCD7392"},
    {QORAssistantType::ANTHROPIC, "Anthropic", "/v1/models", "anthropic/models.json", 10,
     "claude-opus-4-6", "/v1/messages", "anthropic/chat_simple.json",
     "The weather in SF is currently **20°C** (68°F) and **Sunny**!"},
    {QORAssistantType::ALIBABA, "Alibaba", "/compatible-mode/v1/models", "dashscope/models.json", 3,
     "qwen-max", "/compatible-mode/v1/chat/completions", "dashscope/chat_reasoning.json",
     "9.9 is greater than 9.11."},
};

class AllServices : public ::testing::TestWithParam<Service> {};

TEST_P(AllServices, ListChatAndFreeThroughTheExports) {
  const Service& service = GetParam();
  LoopbackServer server;
  server.answer("GET", service.modelsPath, {.body = readWireFile(service.modelsFile)});
  server.answer("POST", service.chatPath, {.body = readWireFile(service.chatFile)});
  AssistantPtr assistant = create(service.type, server.baseUrl());
  ASSERT_NE(assistant, nullptr);

  const auto [models, failure] = assistant->obtainAvailableModels();
  EXPECT_EQ(failure, "");
  ASSERT_EQ(models.size(), service.modelCount);
  EXPECT_EQ(models.front(), service.firstModel);

  setModel(*assistant);
  expectChat(*assistant, replied(service.reply));
  EXPECT_EQ(server.requestCount(), 2u);

  std::unique_ptr<IQORAssistantMemory, Free> memory(assistant->detachMemory());
  assistant.reset();  // the memory taken over outlives the assistant
  EXPECT_EQ(memory->obtainHistory(20).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AllServices, ::testing::ValuesIn(kServices),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
