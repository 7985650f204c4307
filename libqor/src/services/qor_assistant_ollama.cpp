#include "qor_assistant_ollama.h"

#include <utility>

using namespace QORExchange;

namespace {

const ListingRules& listingRules() {
  static const ListingRules rules = {
      .pathSegments = {"api", "tags"},
      // A failed listing shows the exchange's text only; the body is not read.
      .gate = ListingRules::Gate::ExchangeFirst,
      .arrayKey = "models",
      .readItem =
          [](const YLJsonValue* item, ModelEntry& entry) {
            const YLJsonValue* name = member(item, "name", YLJsonValueType::String);
            if (name == nullptr) return false;
            entry.name = name->obtainStringValue();
            return true;
          },
      .nameKey = "name",
      .capabilitiesKey = "capabilities"};
  return rules;
}

// How a reply ended: "done_reason", and the token counts at the top level.
constexpr EndWord kDoneReasons[] = {{"stop", QORReplyEnd::Complete},
                                    {"length", QORReplyEnd::LengthLimit}};

const ChatRules& chatRules() {
  static const ChatRules rules = {.pathSegments = {"api", "chat"},
                                  .errorReader = obtainErrorMessage,
                                  .readReply = QORAssistant_OLLAMA::readMessage,
                                  .details = {.endKey = "done_reason",
                                              .endWords = kDoneReasons,
                                              .inputKey = "prompt_eval_count",
                                              .outputKey = "eval_count"}};
  return rules;
}

}  // namespace

QORAssistant_OLLAMA::QORAssistant_OLLAMA(IYLHTTPPoolCenter* pool, const std::string& host,
                                         IQORAssistantMemory* memory)
    : QORAssistant(pool, host, memory, kDefaultHost, TemperatureRule::ZeroToTwo) {}

std::pair<std::vector<std::string>, std::string> QORAssistant_OLLAMA::obtainAvailableModels() {
  return listModels(*this, listingRules());
}

std::pair<std::vector<QORModelEntry>, std::string> QORAssistant_OLLAMA::obtainModelCatalogue() {
  return listCatalogue(*this, listingRules());
}

std::pair<IQORMessage*, std::string> QORAssistant_OLLAMA::addMessage(std::string text) {
  return chat(*this, chatRules(), text, [](YLJson& body, const ChatTurn& turn) {
    body.addKeyValue("model")->setStringValue(turn.record.model);
    body.addKeyValue("stream")->setBoolValue(false);
    if (turn.record.hasChanged("temperature")) {
      body.addKeyValue("options")
          ->addKeyValue("temperature")
          ->setDoubleValue(turn.record.temperature);
    }
    YLJsonValue* messages = body.addKeyValue("messages");
    messages->setArrayType();
    appendConversation(messages, "system", std::move(turn.instructions), turn.history, turn.text);
  });
}

bool QORAssistant_OLLAMA::readMessage(const YLJsonValue& reply, std::string& text) {
  // A reply that is not the assistant's text is refused, not skipped.
  const YLJsonValue* message = member(&reply, "message", YLJsonValueType::Object);
  const YLJsonValue* content = member(message, "content", YLJsonValueType::String);
  if (content == nullptr || !isStringEqual(message->obtainKeyValue("role"), "assistant")) {
    return false;
  }
  text = content->obtainStringValue();
  return true;
}
