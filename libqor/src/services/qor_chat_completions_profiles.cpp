// The tables of differences of the four chat-completions services, and their constructors.
#include "qor_assistant_chat_completions.h"

using namespace QORExchange;

namespace {

// How a reply of the family ended: choices[0].finish_reason, and the usage's token counts.
constexpr EndWord kFinishReasons[] = {{"stop", QORReplyEnd::Complete},
                                      {"length", QORReplyEnd::LengthLimit},
                                      {"content_filter", QORReplyEnd::Filtered}};
constexpr DetailsRules kFamilyDetails = {.endList = "choices",
                                         .endKey = "finish_reason",
                                         .endWords = kFinishReasons,
                                         .usageObject = "usage",
                                         .inputKey = "prompt_tokens",
                                         .outputKey = "completion_tokens"};

// Server-sent events of chunks, ended by "[DONE]".
constexpr StreamRules kFamilyStream = {.framing = StreamRules::Framing::Events,
                                       .doneMarker = "[DONE]",
                                       .readEvent = QORAssistantChatCompletions::readChunk};

const QORAssistantChatCompletions::Profile kOpenAI = {
    .defaultHost = "api.openai.com",
    .temperatureRule = QORAssistant::TemperatureRule::ZeroToTwo,
    .instructionRole = "developer",
    .listing = {.pathSegments = {"v1", "models"},
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::ObjectWithMessage,
                .readItem = QORAssistantChatCompletions::readDatedModel,
                .newestFirst = true,
                .createdKey = "created"},
    .chat = {.pathSegments = {"v1", "chat", "completions"},
             .errorReader = obtainErrorMessage,
             .readReply = QORAssistantChatCompletions::readChoices,
             .details = kFamilyDetails,
             .stream = kFamilyStream},
};

const QORAssistantChatCompletions::Profile kDeepSeek = {
    .defaultHost = "api.deepseek.com",
    .temperatureRule = QORAssistant::TemperatureRule::ZeroToTwo,
    .instructionRole = "system",
    .listing = {.pathSegments = {"models"},
                .gate = ListingRules::Gate::ExchangeFirst,
                .errorReader = obtainErrorMessage,
                .readItem = QORAssistantChatCompletions::readUndatedModel,
                .createdKey = "created"},
    .chat = {.pathSegments = {"chat", "completions"},
             .errorReader = obtainErrorMessage,
             .readReply = QORAssistantChatCompletions::readChoices,
             .details = kFamilyDetails,
             .stream = kFamilyStream},
};

const QORAssistantChatCompletions::Profile kX = {
    .defaultHost = "api.x.ai",
    .temperatureRule = QORAssistant::TemperatureRule::ZeroToOne,
    .instructionRole = "system",
    .listing = {.pathSegments = {"v1", "models"},
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::AnyType,
                .errorReader = QORAssistant_X::obtainErrorMessage,
                .readItem = QORAssistantChatCompletions::readDatedModel,
                .newestFirst = true,
                .createdKey = "created"},
    .chat = {.pathSegments = {"v1", "chat", "completions"},
             .errorReader = QORAssistant_X::obtainErrorMessage,
             .readReply = QORAssistantChatCompletions::readChoices,
             .details = kFamilyDetails,
             .stream = kFamilyStream},
};

const QORAssistantChatCompletions::Profile kAlibaba = {
    .defaultHost = "dashscope-intl.aliyuncs.com",
    .temperatureRule = QORAssistant::TemperatureRule::ZeroToBelowTwo,
    .instructionRole = "system",
    .listing = {.pathSegments = {"compatible-mode", "v1", "models"},
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::AnyType,
                .errorReader = obtainErrorMessage,
                .readItem = QORAssistantChatCompletions::readDatedModel,
                .newestFirst = true,
                .createdKey = "created"},
    .chat = {.pathSegments = {"compatible-mode", "v1", "chat", "completions"},
             .errorReader = obtainErrorMessage,
             .readReply = QORAssistantChatCompletions::readChoices,
             .details = kFamilyDetails,
             .stream = kFamilyStream},
};

}  // namespace

QORAssistant_OPENAI_v1::QORAssistant_OPENAI_v1(IYLHTTPPoolCenter* pool, const std::string& host,
                                               const std::string& apiKey,
                                               IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kOpenAI, pool, host, apiKey, memory) {}

QORAssistant_DEEPSEEK::QORAssistant_DEEPSEEK(IYLHTTPPoolCenter* pool, const std::string& host,
                                             const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kDeepSeek, pool, host, apiKey, memory) {}

QORAssistant_X::QORAssistant_X(IYLHTTPPoolCenter* pool, const std::string& host,
                               const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kX, pool, host, apiKey, memory) {}

QORAssistant_ALIBABA::QORAssistant_ALIBABA(IYLHTTPPoolCenter* pool, const std::string& host,
                                           const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kAlibaba, pool, host, apiKey, memory) {}

std::string QORAssistant_X::obtainErrorMessage(const YLRestResourceResponse* response) {
  const YLJson* json = response->responseJson;
  if (json != nullptr && json->getIsValidJson()) {
    const YLJsonValue* code = member(json, "code", YLJsonValueType::String);
    const YLJsonValue* error = member(json, "error", YLJsonValueType::String);
    if (code != nullptr && error != nullptr) {
      return code->obtainStringValue() + "\n" + error->obtainStringValue();
    }
  }
  return response->getBufferString();
}
