#include "qor_assistant_alibaba.h"

#include "qor_http.h"

using namespace QORExchange;

const QORAssistantChatCompletions::Profile QORAssistant_ALIBABA::kProfile = {
    .defaultHost = "dashscope-intl.aliyuncs.com",
    .temperatureRule = TemperatureRule::ZeroToBelowTwo,
    .instructionRole = "system",
    .listing = {.pathSegments = {"compatible-mode", "v1", "models"},
                .failureTail = ": g/compatible-mode/v1/models",
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::AnyType,
                .errorReader = obtainErrorMessage,
                .readItem = readDatedModel,
                .newestFirst = true},
    .chat = {.pathSegments = {"compatible-mode", "v1", "chat", "completions"},
             .failureTail = ": p/compatible-mode/v1/chat/completions",
             .errorReader = obtainErrorMessage,
             .readReply = readChoices},
};

QORAssistant_ALIBABA::QORAssistant_ALIBABA(IYLHTTPPoolCenter* pool, const std::string& host,
                                           const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kProfile, pool, host, apiKey, memory) {}
