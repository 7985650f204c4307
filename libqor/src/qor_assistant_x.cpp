#include "qor_assistant_x.h"

#include "qor_http.h"

using namespace QORExchange;

const QORAssistantChatCompletions::Profile QORAssistant_X::kProfile = {
    .defaultHost = "api.x.ai",
    .temperatureRule = TemperatureRule::ZeroToOne,
    .instructionRole = "system",
    .listing = {.pathSegments = {"v1", "models"},
                .failureTail = ": g/v1/models",
                .gate = ListingRules::Gate::ReplyFirst,
                .errorKey = ListingRules::ErrorKey::AnyType,
                .errorReader = QORAssistant_X::obtainErrorMessage,
                .readItem = readDatedModel,
                .newestFirst = true},
    .chat = {.pathSegments = {"v1", "chat", "completions"},
             .failureTail = ": p/v1/chat/completions",
             .errorReader = QORAssistant_X::obtainErrorMessage,
             .readReply = readChoices},
};

QORAssistant_X::QORAssistant_X(IYLHTTPPoolCenter* pool, const std::string& host,
                               const std::string& apiKey, IQORAssistantMemory* memory)
    : QORAssistantChatCompletions(kProfile, pool, host, apiKey, memory) {}

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
