#include "qor_assistant_openai.h"

#include "qor_http.h"

using namespace QORExchange;

const QORAssistantChatCompletions::Profile QORAssistant_OPENAI_v1::kProfile = {
    .defaultHost = "api.openai.com",
    .temperatureRule = TemperatureRule::ZeroToTwo,
    .instructionRole = "developer",
    .listing = {.pathSegments = {"v1", "models"},
                .failureTail = ": g/v1/models",
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::ObjectWithMessage,
                .readItem = readDatedModel,
                .newestFirst = true},
    .chat = {.pathSegments = {"v1", "chat", "completions"},
             .failureTail = ": p/v1/chat/completions",
             .errorReader = obtainErrorMessage,
             .readReply = readChoices},
};

QORAssistant_OPENAI_v1::QORAssistant_OPENAI_v1(IYLHTTPPoolCenter* pool, const std::string& host,
                                               const std::string& apiKey,
                                               IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kProfile, pool, host, apiKey, memory) {}
