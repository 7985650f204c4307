#pragma once

#include "qor_assistant_chat_completions.h"

// X's service: the chat-completions frame with its own error body, {"code", "error"}, and a
// temperature of at most 1.0.
class QORAssistant_X final : public QORAssistantChatCompletions {
 public:
  QORAssistant_X(IYLHTTPPoolCenter* pool, const std::string& host, const std::string& apiKey,
                 IQORAssistantMemory* memory);

  // "code", a line feed and "error" when both are strings at the top level; else the raw body.
  static std::string obtainErrorMessage(const YLRestResourceResponse* response);
  static const Profile kProfile;
};
