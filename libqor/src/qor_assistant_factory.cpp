#include "qor_assistant_factory.h"

#include <cstdint>
#include <memory>

#include "qor_assistant_alibaba.h"
#include "qor_assistant_anthropic.h"
#include "qor_assistant_deepseek.h"
#include "qor_assistant_google.h"
#include "qor_assistant_ollama.h"
#include "qor_assistant_openai.h"
#include "qor_assistant_x.h"

namespace {

std::unique_ptr<QORAssistant> construct(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                        const std::string& apiKey, const std::string& host,
                                        IQORAssistantMemory* memory) {
  // Taken as unsigned, so that a negative value is outside the table too.
  switch (static_cast<std::uint32_t>(type)) {
    case 0:
      return std::make_unique<QORAssistant_OPENAI_v1>(pool, host, apiKey, memory);
    case 1:
      return std::make_unique<QORAssistant_GOOGLE>(pool, host, apiKey, memory);
    case 2:
      return std::make_unique<QORAssistant_DEEPSEEK>(pool, host, apiKey, memory);
    case 3:
      // This service takes no key: it never reaches the assistant.
      return std::make_unique<QORAssistant_OLLAMA>(pool, host, memory);
    case 4:
      return std::make_unique<QORAssistant_X>(pool, host, apiKey, memory);
    case 5:
      return std::make_unique<QORAssistant_ANTHROPIC>(pool, host, apiKey, memory);
    case 6:
      return std::make_unique<QORAssistant_ALIBABA>(pool, host, apiKey, memory);
    default:
      return nullptr;
  }
}

}  // namespace

IQORAssistant* qorCreateAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                  const std::string& apiKey, const std::string& host,
                                  IQORAssistantMemory* memory) {
  std::unique_ptr<QORAssistant> assistant = construct(type, pool, apiKey, host, memory);
  // The pool passes to the assistant only with a successful call.
  if (assistant) assistant->adoptPool(pool);
  return assistant.release();
}
