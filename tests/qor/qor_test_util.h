#pragma once
// Helpers shared by the assistant tests.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "support/loopback_server.h"
#include "yl/yl.h"

namespace qortest {

class AssertionRecorder {
 public:
  using Report = std::pair<std::string, std::string>;  // condition, source

  AssertionRecorder() : previous_(ylSetAssertionHandler(&record)) { reports_.clear(); }
  ~AssertionRecorder() { ylSetAssertionHandler(previous_); }
  AssertionRecorder(const AssertionRecorder&) = delete;
  AssertionRecorder& operator=(const AssertionRecorder&) = delete;

  std::vector<Report> take() { return std::exchange(reports_, {}); }

 private:
  static void record(const char* condition, const char* source) {
    reports_.emplace_back(condition, source);
  }
  inline static std::vector<Report> reports_;
  YLAssertionHandler previous_;
};

#ifdef YL_ENABLE_ASSERTIONS
inline constexpr bool kAssertionsReported = true;
#else
inline constexpr bool kAssertionsReported = false;
#endif

struct Free {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};
using AssistantPtr = std::unique_ptr<IQORAssistant, Free>;
using MessagePtr = std::unique_ptr<IQORMessage, Free>;
using PropertiesPtr = std::unique_ptr<IQORProperties, Free>;
using Listing = std::pair<std::vector<std::string>, std::string>;
using Turns = std::vector<std::pair<ChatRole, std::string>>;

inline std::string errorText(std::int32_t code) {
  auto* catalogue = YL::obtainAppFactory()->obtainErrorService()->obtainErrorCatalogue();
  return catalogue->obtainErrorRecord(code).text;
}

// Records what it is asked for and gives its whole history.
class HostMemory final : public IQORAssistantMemory {
 public:
  void setDatabaseStructure(const std::string&) override {}
  std::string obtainDatabaseStructure() override {
    calls.push_back("structure");
    return {};
  }
  void addHistoryEntry(ChatRole role, const std::string& text) override {
    calls.push_back("add");
    history.push_back({role, text});
  }
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t limit) override {
    calls.push_back("history " + std::to_string(limit));
    return history;
  }
  std::vector<QORHistoryEntry> history;
  std::vector<std::string> calls;
};

inline AssistantPtr create(QORAssistantType type, const std::string& host,
                           IQORAssistantMemory* memory = nullptr, const std::string& key = "k") {
  return AssistantPtr(QORCreateAssistant(type, new YLHTTPPoolCenter, key, host, memory));
}
inline void setModel(IQORAssistant& assistant, const std::string& model = "m") {
  assistant.updateProperties([&](IQORProperties* p) { p->setValue("model", YLVariant(model)); });
}
inline std::pair<MessagePtr, std::string> chat(IQORAssistant& assistant, const std::string& text) {
  auto [message, failure] = assistant.addMessage(text);
  return {MessagePtr(message), failure};
}
inline Turns historyOf(IQORAssistant& assistant) {
  Turns turns;
  for (const QORHistoryEntry& entry :
       static_cast<QORAssistant&>(assistant).memory->obtainHistory(0))
    turns.emplace_back(entry.role, entry.text);
  return turns;
}

struct Outcome {
  bool replied;
  std::string text;
};
inline Outcome replied(std::string text) {
  return {true, std::move(text)};
}
inline Outcome failed(std::string text) {
  return {false, std::move(text)};
}

// Sends "q": a reply is one text section of role 1 and adds two turns; a failure adds none.
inline void expectChat(IQORAssistant& assistant, const Outcome& expected) {
  Turns history = historyOf(assistant);
  auto [message, failure] = chat(assistant, "q");
  EXPECT_EQ(failure, expected.replied ? std::string() : expected.text);
  ASSERT_EQ(message != nullptr, expected.replied);
  if (message != nullptr) {
    EXPECT_EQ(message->obtainRole(), 1);
    ASSERT_EQ(message->obtainSections().size(), 1u);
    EXPECT_EQ(message->obtainSections()[0]->obtainSectionType(), kQORMessageSectionText);
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), expected.text);
    history.insert(history.end(), {{0, "q"}, {1, expected.text}});
  }
  EXPECT_EQ(historyOf(assistant), history) << "a reply adds two turns, a failure none";
}

// Replies for one path, each answered once without a retry: chats or listings.
template <typename Expected>
struct ReplyCase {
  ScriptedReply reply;
  Expected expected;
};
using ListingCase = ReplyCase<Listing>;
template <typename Expected>
void expectReplies(LoopbackServer& server, IQORAssistant& assistant, const std::string& path,
                   const std::vector<ReplyCase<Expected>>& cases) {
  for (const ReplyCase<Expected>& c : cases) {
    SCOPED_TRACE(std::to_string(c.reply.status) + " " + c.reply.body.substr(0, 120));
    constexpr bool kChat = std::is_same_v<Expected, Outcome>;
    server.answer(kChat ? "POST" : "GET", path, c.reply);
    const std::size_t before = server.requestCount();
    if constexpr (kChat) {
      expectChat(assistant, c.expected);
    } else {
      EXPECT_EQ(assistant.obtainAvailableModels(), c.expected);
    }
    EXPECT_EQ(server.requestCount(), before + 1);
  }
}

// Each service, in the order of the type's numbers, with its chat bodies: "plain" for "q" alone,
// "full" after the host's "<turns>", with the temperature 1.0 and the instructions "Be brief.".
struct WireService {
  QORAssistantType type;
  const char* name;
  const char* modelsPath;
  const char* modelsFile;
  std::size_t modelCount;
  const char* firstModel;
  const char* chatPath;  // for the model "m"
  const char* chatFile;
  const char* reply;
  const char* credential;  // where the key goes, "@" standing for it
  const char* emptyKey;    // where an empty key goes
  const char* plain;
  const char* full;
  friend void PrintTo(const WireService& service, std::ostream* out) { *out << service.name; }
};

inline constexpr const char* kFamilyPlain =
    R"~({"model":"m","messages":[{"role":"user","content":"q"}]})~";
inline constexpr const char* kFamilyFull =
    R"~({"model":"m","temperature":1.0,"messages":[)~"
    R"~({"role":"system","content":"Be brief.\n\n"},<turns>]})~";

inline const WireService kWireServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI", "/v1/models", "openai/models.json", 119,
     "gpt-5.2-codex", "/v1/chat/completions", "openai/chat_simple.json",
     "Hello! How can I assist you today?", "Authorization: Bearer @", "Authorization: Bearer",
     kFamilyPlain,
     R"~({"model":"m","temperature":1.0,"messages":[)~"
     R"~({"role":"developer","content":"Be brief.\n\n"},<turns>]})~"},
    {QORAssistantType::GOOGLE, "Google", "/v1beta/models", "google/models.json", 30,
     "gemini-2.5-flash", "/v1beta/models/m:generateContent", "google/chat_simple_recorded.json",
     "2 + 2 = **4**", "?key=AIza%20k%26y%3D%2F%2B%25",
     "?key=", R"~({"contents":[{"role":"user","parts":[{"text":"q"}]}]})~",
     R"~({"generationConfig":{"temperature":1.0},)~"
     R"~("system_instruction":{"parts":{"text":"Be brief.\n\n"}},"contents":[<turns>]})~"},
    {QORAssistantType::DEEPSEEK, "DeepSeek", "/models", "deepseek/models.json", 2, "deepseek-chat",
     "/chat/completions", "deepseek/chat_reasoning.json", "4", "Authorization: Bearer @",
     "Authorization: Bearer", kFamilyPlain, kFamilyFull},
    {QORAssistantType::OLLAMA, "Ollama", "/api/tags", "ollama/models.json", 2, "deepseek-r1:latest",
     "/api/chat", "ollama/chat_simple.json", "Hello! How are you today?", "", "",
     R"~({"model":"m","stream":false,"messages":[{"role":"user","content":"q"}]})~",
     R"~({"model":"m","stream":false,"options":{"temperature":1.0},"messages":[)~"
     R"~({"role":"system","content":"Be brief.\n\n"},<turns>]})~"},
    {QORAssistantType::X, "X", "/v1/models", "x/models.json", 13, "grok-imagine-image",
     "/v1/chat/completions", "x/chat_simple.json",
     "The weather depends on your location and time of year—check a local forecast for "
     "details! \nXKCD7392",
     "Authorization: Bearer @", "Authorization: Bearer", kFamilyPlain, kFamilyFull},
    // The instructions in "system", never among the messages.
    {QORAssistantType::ANTHROPIC, "Anthropic", "/v1/models", "anthropic/models.json", 10,
     "claude-opus-4-6", "/v1/messages", "anthropic/chat_simple.json",
     "The weather in SF is currently **20°C** (68°F) and **Sunny**!",
     "anthropic-version: 2023-06-01x-api-key: @", "anthropic-version: 2023-06-01",
     R"~({"model":"m","max_tokens":1024,"messages":[{"role":"user","content":"q"}]})~",
     R"~({"model":"m","temperature":1.0,"max_tokens":1024,"system":"Be brief.\n\n",)~"
     R"~("messages":[<turns>]})~"},
    {QORAssistantType::ALIBABA, "Alibaba", "/compatible-mode/v1/models", "alibaba/models.json", 3,
     "qwen-max", "/compatible-mode/v1/chat/completions", "alibaba/chat_reasoning.json",
     "9.9 is greater than 9.11.", "Authorization: Bearer @", "Authorization: Bearer", kFamilyPlain,
     kFamilyFull},
};

}  // namespace qortest
