#pragma once

#include "qor_assistant_chat_completions.h"

// Alibaba's model service in its compatible mode. It refuses a temperature of 2.0, so a set value
// stays below it.
class QORAssistant_ALIBABA final : public QORAssistantChatCompletions {
 public:
  QORAssistant_ALIBABA(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                       IQORAssistantMemory* memory);

  static const Profile kProfile;
};
