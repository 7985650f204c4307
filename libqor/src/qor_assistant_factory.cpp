#include "qor_assistant_factory.h"

#include <cstdint>

#include "qor_assistant_alibaba.h"
#include "qor_assistant_anthropic.h"
#include "qor_assistant_deepseek.h"
#include "qor_assistant_google.h"
#include "qor_assistant_ollama.h"
#include "qor_assistant_openai.h"
#include "qor_assistant_x.h"

IQORAssistant* qorCreateAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                  const std::string& apiKey, const std::string& host,
                                  IQORAssistantMemory* memory) {
  // Taken as unsigned, so that a negative value is outside the table too.
  switch (static_cast<std::uint32_t>(type)) {
    case 0:
      return new QORAssistant_OPENAI_v1(pool, host, apiKey, memory);
    case 1:
      return new QORAssistant_GOOGLE(pool, host, apiKey, memory);
    case 2:
      return new QORAssistant_DEEPSEEK(pool, host, apiKey, memory);
    case 3:
      // This service takes no key: it never reaches the assistant.
      return new QORAssistant_OLLAMA(pool, host, memory);
    case 4:
      return new QORAssistant_X(pool, host, apiKey, memory);
    case 5:
      return new QORAssistant_ANTHROPIC(pool, host, apiKey, memory);
    case 6:
      return new QORAssistant_ALIBABA(pool, host, apiKey, memory);
    default:
      return nullptr;
  }
}
