#include "qor_assistant_deepseek.h"

#include "qor_http.h"

using namespace QORExchange;

const QORAssistantChatCompletions::Profile QORAssistant_DEEPSEEK::kProfile = {
    .defaultHost = "api.deepseek.com",
    .temperatureRule = TemperatureRule::ZeroToTwo,
    .instructionRole = "system",
    .listing = {.pathSegments = {"models"},
                .failureTail = ": g/models",
                .gate = ListingRules::Gate::ExchangeFirst,
                .errorReader = obtainErrorMessage,
                .readItem = readUndatedModel},
    .chat = {.pathSegments = {"chat", "completions"},
             .failureTail = ": p/chat/completions",
             .errorReader = obtainErrorMessage,
             .readReply = readChoices},
};

QORAssistant_DEEPSEEK::QORAssistant_DEEPSEEK(IYLHTTPPoolCenter* pool, const std::string& host,
                                             const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kProfile, pool, host, apiKey, memory) {}
