#include "qor_assistant_factory.h"

#include <memory>

#include "qor_assistant_anthropic.h"
#include "qor_assistant_chat_completions.h"
#include "qor_assistant_google.h"
#include "qor_assistant_ollama.h"

std::unique_ptr<QORAssistant> constructAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                                 const std::string& apiKey, const std::string& host,
                                                 IQORAssistantMemory* memory) {
  switch (type) {
    case QORAssistantType::OPENAI_v1:
      return std::make_unique<QORAssistant_OPENAI_v1>(pool, host, apiKey, memory);
    case QORAssistantType::GOOGLE:
      return std::make_unique<QORAssistant_GOOGLE>(pool, host, apiKey, memory);
    case QORAssistantType::DEEPSEEK:
      return std::make_unique<QORAssistant_DEEPSEEK>(pool, host, apiKey, memory);
    case QORAssistantType::OLLAMA:
      // This service takes no key: it never reaches the assistant.
      return std::make_unique<QORAssistant_OLLAMA>(pool, host, memory);
    case QORAssistantType::X:
      return std::make_unique<QORAssistant_X>(pool, host, apiKey, memory);
    case QORAssistantType::ANTHROPIC:
      return std::make_unique<QORAssistant_ANTHROPIC>(pool, host, apiKey, memory);
    case QORAssistantType::ALIBABA:
      return std::make_unique<QORAssistant_ALIBABA>(pool, host, apiKey, memory);
  }
  // A number a host cast into the type, outside the table.
  return nullptr;
}
