#pragma once

#include "qor_assistant_chat_completions.h"

// DeepSeek: the chat-completions paths without a version segment, and a listing that puts a
// failed exchange first and keeps the service's order.
class QORAssistant_DEEPSEEK final : public QORAssistantChatCompletions {
 public:
  QORAssistant_DEEPSEEK(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                        IQORAssistantMemory* memory);

  static const Profile kProfile;
};
