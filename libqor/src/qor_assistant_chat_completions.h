#pragma once

#include <string>

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

  std::string apiKey;

  // Items of a model list that count: "object" is exactly "model", "id" a string, and, when the
  // listing is sorted, "created" a number.
  static bool readDatedModel(const YLJsonValue* item, QORExchange::ModelEntry& entry);
  static bool readUndatedModel(const YLJsonValue* item, QORExchange::ModelEntry& entry);
  // The text of every choice whose message has the role "assistant", joined.
  static bool readChoices(const YLJsonValue& reply, std::string& text);

 protected:
  QORAssistantChatCompletions(const Profile& profile, IYLHTTPPoolCenter* pool,
                              const std::string& host, const std::string& apiKey,
                              IQORAssistantMemory* memory);

 private:
  const Profile& profile_;
};
