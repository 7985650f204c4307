#pragma once

#include "qor_assistant_chat_completions.h"

// OpenAI's chat completions service.
class QORAssistant_OPENAI_v1 final : public QORAssistantChatCompletions {
 public:
  QORAssistant_OPENAI_v1(IYLHTTPPoolCenter* pool, const std::string& host,
                         const std::string& apiKey, IQORAssistantMemory* memory);

  static const Profile kProfile;
};
