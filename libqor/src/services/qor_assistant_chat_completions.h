#pragma once
// The chat-completions frame, and the four services that are nothing but their table of
// differences on it (the tables are in qor_chat_completions_profiles.cpp).

#include <functional>
#include <string>
#include <string_view>

#include "qor_assistant.h"
#include "qor_service_exchange.h"

// The frame of the services that speak the chat-completions dialect: a bearer key, a "messages"
// list with the instructions as its first item, and the reply in "choices". Each service is this
// frame with its own table of differences.
class QORAssistantChatCompletions : public QORAssistant {
 public:
  struct Profile {
    const char* defaultHost;
    TemperatureRule temperatureRule;
    // The role of the item that carries the standing instructions.
    const char* instructionRole;
    QORExchange::ListingRules listing;
    QORExchange::ChatRules chat;
  };

  std::pair<std::vector<std::string>, std::string> obtainAvailableModels() override;
  std::pair<IQORMessage*, std::string> addMessage(std::string text) override;
  std::pair<std::vector<QORModelEntry>, std::string> obtainModelCatalogue() override;
  std::pair<IQORMessage*, std::string> addMessageStreaming(
      std::string text, std::function<void(std::string_view fragment)> onFragment) override;

  std::string apiKey;

  // Items of a model list that count: "object" is exactly "model", "id" a string, and, when the
  // listing is sorted, "created" a number.
  static bool readDatedModel(const YLJsonValue* item, QORExchange::ModelEntry& entry);
  static bool readUndatedModel(const YLJsonValue* item, QORExchange::ModelEntry& entry);
  // The text of every choice whose message has the role "assistant", joined.
  static bool readChoices(const YLJsonValue& reply, std::string& text);
  // One chunk of a stream: the text of every choice's delta (its reasoning is not reply text),
  // the end and the usage; an "error" object is the stream's failure.
  static void readChunk(std::string_view name, const YLJsonValue& chunk,
                        QORExchange::StreamReader& reader);

 protected:
  QORAssistantChatCompletions(const Profile& profile, IYLHTTPPoolCenter* pool,
                              const std::string& host, const std::string& apiKey,
                              IQORAssistantMemory* memory);

 private:
  std::pair<IQORMessage*, std::string> converse(const std::string& text,
                                                const QORExchange::FragmentSink* fragments);

  const Profile& profile_;
};

// OpenAI: the "developer" role for instructions, a listing sorted newest first.
class QORAssistant_OPENAI_v1 final : public QORAssistantChatCompletions {
 public:
  QORAssistant_OPENAI_v1(IYLHTTPPoolCenter* pool, const std::string& host,
                         const std::string& apiKey, IQORAssistantMemory* memory);
};

// DeepSeek: the paths without a version segment, and a listing that puts a failed exchange first
// and keeps the service's order.
class QORAssistant_DEEPSEEK final : public QORAssistantChatCompletions {
 public:
  QORAssistant_DEEPSEEK(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                        IQORAssistantMemory* memory);
};

// X: its own error body, {"code", "error"}, and a temperature of at most 1.0.
class QORAssistant_X final : public QORAssistantChatCompletions {
 public:
  QORAssistant_X(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                 IQORAssistantMemory* memory);
  // "code", a line feed and "error" when both are strings at the top level; else the raw body.
  static std::string obtainErrorMessage(const YLRestResourceResponse* response);
};

// Alibaba's model service in its compatible mode. It refuses a temperature of 2.0, so a set value
// stays below it.
class QORAssistant_ALIBABA final : public QORAssistantChatCompletions {
 public:
  QORAssistant_ALIBABA(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                       IQORAssistantMemory* memory);
};
